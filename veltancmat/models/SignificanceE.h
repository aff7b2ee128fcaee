#pragma once

#include "veltancmat/platform/Export.h"

#include <string>

// The verdicts of the component significance rules. The numeric values are
// stored by hosts and compared, so they never change.
struct VELTANCMAT_API SignificanceE {
    enum Significance : int {
        R1 = 0,  // component Q2 above its limit
        R2 = 1,  // enough variables with a Q2 above the limit
        R5 = 2,  // an undecided component confirmed by the next one
        NS = 3,  // not significant
        N3 = 4,  // too many components for the size of the data
        N4 = 5,  // too little variance explained
        U = 6,   // undecided: settled by the next component
        NA = 7,  // not applicable
        RB1 = 8, // used by other model families
        RB2 = 9,
        NB1 = 10,
    };
    static constexpr int Count = 11;

    // "R1", "R2", ..., or "" for a value outside the table.
    static std::string GetSignificance(Significance s);
    static bool IsSignificant(Significance s);

    static const char* const mSigNames[Count];
};
