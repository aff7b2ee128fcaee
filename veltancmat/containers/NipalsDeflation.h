#pragma once

// Internal to the library: not part of its interface.

#include "veltancmat/containers/NCDataMatrix.h"

// The deflation of a PLS component with the next component's first sweep
// over the residuals in the same pass (NCDataMatrix::DeflateThenColumns),
// for the models only: a public member would invite callers to rely on the
// pairing.
struct NCNipalsDeflation {
    static bool DeflateThenColumns(NCDataMatrix<float>& e, const NCDataVector<float>& t, const NCDataVector<float>& p,
                                   const NCDataVector<float>& u, double* ss, NCDataVector<float>* w)
    {
        return e.DeflateThenColumns(t, p, u, ss, w);
    }
};
