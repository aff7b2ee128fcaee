#pragma once

// Internal to the containers: not part of the library's interface.

#include "veltancmat/containers/NCDataVector.h"

// The rows that the NIPALS kernels of NCDataMatrix read: every row of a
// matrix, or a selection of its rows in a given order. A selection reads
// the matrix's own rows through their numbers, so a cross-validation round
// runs on part of the observations without copying or even sharing them.
template <class T>
struct NCRowTable {
    const NCDataVector<T>* rows = nullptr; // the matrix's row array, slot 0 unused
    const int* pick = nullptr;             // row numbers of the selection, 1-based; null: rows 1 .. count
    int count = 0;
    int cols = 0;
    const int* columnMissing = nullptr; // missing cells per column within these rows, 1-based
    int missing = 0;                    // missing cells within these rows

    const NCDataVector<T>& operator[](int i) const { return rows[pick ? pick[i] : i]; }
};
