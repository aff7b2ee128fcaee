#pragma once

#include "veltancmat/platform/Export.h"

#include <string>

// The variable transforms a column can be given before scaling. The values
// are stored in project files and compared by callers; any value outside
// 2..7 behaves as None.
struct VELTANCMAT_API TransformE {
    enum Transform : int {
        None = 1,        // y = x
        Linear = 2,      // y = C1*x + C2
        Log = 3,         // y = log10(C1*x + C2)
        NegLog = 4,      // y = -log10(C1*x + C2)
        Logit = 5,       // y = log10((x - C1) / (C2 - x))
        Exponential = 6, // y = exp(C1*x + C2)
        Power = 7,       // y = (C1*x + C2)^C3
    };

    // "None", "Linear", "Log", "NegLog", "Logit", "Exponential" or "Power",
    // translated; each name is looked up under its own context (for "Log"
    // that is "Logarithmic transform"), because the short names are
    // ambiguous on their own.
    static std::string GetTransformName(Transform transform);
    // The forward formula in plain text, e.g. "y = log10(C1*x + C2)". Not
    // translated: it is notation, not language.
    static const char* GetFormula(Transform transform);
    // The value itself for 2..7, None for anything else.
    static Transform Normalized(int transform)
    {
        return transform >= Linear && transform <= Power ? static_cast<Transform>(transform) : None;
    }
};
