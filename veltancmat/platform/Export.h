#pragma once

// The library is built with hidden visibility; this marks the classes and
// functions that make up its interface.
#define VELTANCMAT_API __attribute__((visibility("default")))
