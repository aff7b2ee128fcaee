#pragma once

#include <optional>

// The exception of type E that f throws, to be inspected field by field;
// empty when f throws none. Other exception types pass through.
template <class E, class F>
std::optional<E> Caught(F f)
{
    try {
        f();
    } catch (const E& e) {
        return e;
    }
    return std::nullopt;
}
