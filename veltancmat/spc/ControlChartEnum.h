#pragma once

#include "veltancmat/platform/Export.h"

#include <cstdint>
#include <string>

// The kinds of control chart and of EWMA, and their texts. Parsing is exact
// and case-sensitive; an unknown text gives the default (Individual,
// EWMANone).
struct VELTANCMAT_API ControlChartEnum {
    enum ControlType : std::int32_t {
        Individual = 0,
        MeanRange = 1,
        MeanStdDev = 2,
        CuSum = 3,
        EWMA = 4,             // sigma from successive differences
        EWMAOverallSigma = 5, // sigma of all raw values
    };
    enum EWMAType : std::int32_t {
        Filter = 0,     // z_i smooths x_i
        Predictive = 1, // z_i predicts x_i from the values before it
        EWMANone = 2,   // no EWMA
    };

    // "Mean/Range", "Mean/StdDev" and "CuSum" name types 1 to 3; every other
    // text is Individual.
    static ControlType ToControlType(const std::string& text);
    // The two EWMA types have no text of their own: they, like 0, read
    // "Individual".
    static std::string FromControlType(ControlType type);
    // The same texts for display ("Mean/Std. dev." for type 2), translated
    // in the context "Control chart type".
    static std::string FromControlTypeLocale(ControlType type);
    static EWMAType ToEWMAType(const std::string& text);
    static std::string ToString(EWMAType type);
};
