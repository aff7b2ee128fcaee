#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataMatrixRows.h"
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/models/NipalsDefaults.h"
#include "veltancmat/platform/Export.h"
#include "veltancmat/platform/NCProgress.h"
#include "veltancmat/platform/QvStream.h"

#include <array>
#include <memory>
#include <optional>

class NCError;

// A partial least squares regression of preprocessed responses Y (N x M) on
// preprocessed predictors X (N x K), grown one component at a time by
// NIPALS. Missing cells of X and Y are skipped by the projections
// (NCDataMatrix::SpecialNipalsRegressColumnsFix and ...RowsFix), never
// imputed.
//
// The caller drives it, as with NCPCA:
//
//   NCPLS pls(&x, &y, NCNipals::DefaultMaxIterations);
//   for (;;) {
//       pls.NextComponent(progress, nullptr, false, true);
//       if (!keep(pls)) break;          // cross-validation
//       pls.CalculateResiduals();       // E -= t p', F -= t c'
//   }
//   NCDataMatrix<float> b = pls.GetRegressionCoefficients(-1);   // K x M
//
// PLS_CrossValidated runs this loop with the cross-validation and the
// significance rule.
//
// Component vectors are stored one row per component: T' and U' are A x N,
// W' and P' are A x K, C' is A x M.
class VELTANCMAT_API NCPLS : public virtual QvStreamBase {
public:
    NCPLS();
    // E starts as a copy of x, F as a copy of y; both must have N rows.
    NCPLS(const NCDataMatrix<float>* x, const NCDataMatrix<float>* y, int maxIterations);
    // The same with a single response.
    NCPLS(const NCDataMatrix<float>* x, const NCDataVector<float>* y, int maxIterations);
    // The same, adopting x and y as E and F instead of copying them.
    NCPLS(NCDataMatrix<float>&& x, NCDataMatrix<float>&& y, int maxIterations);
    // Rebuilds a model from its parts; the component count is the row count of P'.
    NCPLS(const NCDataMatrix<float>* e, const NCDataMatrix<float>* f, const NCDataMatrix<float>* cprim,
          const NCDataMatrix<float>* pprim, const NCDataMatrix<float>* wprim, const NCDataMatrix<float>* uprim,
          const NCDataMatrix<float>* tprim, int maxIterations);
    NCPLS(const NCPLS& other);
    NCPLS& operator=(const NCPLS& other);
    ~NCPLS() override;

    // Extracts one more component from E and F, which it leaves unchanged.
    // `start`, when given, is a starting X-weight vector (K long; used only
    // with more than one response). `quiet` suppresses all progress
    // reporting of the iteration. `strict` turns a near-zero X-Y
    // correlation into NCError of level Warning (1) naming the component,
    // and enables the checks for a break (CancelException). Returns true or
    // throws; the component count grows only when the component is stored.
    bool NextComponent(NCProgress* progress, const NCDataVector<float>* start, bool quiet, bool strict);
    // True for the error of the strict correlation guard: the data offer no
    // further component, which ends a search for components rather than
    // failing it. Every other NCError is a real failure.
    static bool IsNoCorrelation(const NCError& error);
    // E -= t p' and F -= t c' for the newest component; missing cells stay missing.
    virtual void CalculateResiduals();

    // B (K x M) from the first `components` components (-1: all of them),
    // so that Y is predicted as X B on the scale the model was fitted on.
    NCDataMatrix<float> GetRegressionCoefficients(int components) const;
    // B = W* C from the component matrices (equal row counts).
    static NCDataMatrix<float> GetRegressionCoefficients(const NCDataMatrix<float>& wprim,
                                                         const NCDataMatrix<float>& pprim,
                                                         const NCDataMatrix<float>& cprim);
    // W*' = ((P'W)^-1)' W': the weights that give the scores straight from
    // the undeflated X, t = X W*. All cells are missing when P'W cannot be
    // inverted (missing or zero rows).
    static NCDataMatrix<float> GetWStarPrim(const NCDataMatrix<float>& wprim, const NCDataMatrix<float>& pprim);
    NCDataMatrix<float> GetWStarPrim() const;

    // Changes the sign of component a (1-based) in T', U', W', P' and C'.
    void FlipComponent(int a);
    // Reorders the rows of F: row i becomes the old row permutation[i], for
    // i = 1..N (a 1-based pointer, as NCIntegralVector::GetPtr gives). Only
    // before the first component; otherwise, or without responses, throws
    // NCError "Unable to permutate PLS model.".
    void ShuffleYResiduals(const int* permutation);

    const NCDataMatrix<float>* GetCprim() const { return m_cprim.get(); }
    const NCDataMatrix<float>* GetPprim() const { return m_pprim.get(); }
    const NCDataMatrix<float>* GetWprim() const { return m_wprim.get(); }
    const NCDataMatrix<float>* GetUprim() const { return m_uprim.get(); }
    const NCDataMatrix<float>* GetTprim() const { return m_tprim.get(); }
    const NCDataMatrix<float>* GetXResiduals() const { return m_e.get(); }
    const NCDataMatrix<float>* GetYResiduals() const { return m_f.get(); }
    int GetComponents() const { return m_components; }
    int GetIterations() const { return m_iterations; }
    int GetMaxIterations() const { return m_maxIterations; }

    // ---- streaming: the "NCPLS" record, version 2 -----------------------
    // The component count is not stored, and reading leaves it as it was;
    // after reading, the row count of P' is the number of components.
    bool QvStreamableStartWrite(std::ostream& out) const override;
    bool QvStreamableStartRead(std::istream& in) override;
    void QvStreamableReset() const override;
    bool QvStreamableWrite(std::ostream& out) const;
    bool QvStreamableRead(std::istream& in);
    bool QvStreamableWriteBases(std::ostream& out) const;
    bool QvStreamableReadBases(std::istream& in);
    bool ReadStreamDirectory(InputStreamDirectory& directory);
    short GetMyQvStreamVersionNumber() const { return MyStreamableData.GetMyQvStreamVersionNumber(); }
    short GetQvStreamVersionNumber() const { return MyStreamableData.GetQvStreamVersionNumber(); }

    static QvStreamableData MyStreamableData; // "NCPLS", 2

private:
    // One component as NextComponent appends it.
    struct Component {
        NCDataVector<float> w, p, t, u, c;
        int iterations = 0;
    };
    // A component's first sweep over E: the sum of squares of E and the
    // weights from the start scores u. CalculateResiduals takes it within
    // the deflation, for the start the next component would take without a
    // start vector.
    struct FirstSweep {
        NCDataVector<float> u, w;
        double ssX = 0.0;
    };
    // Fits one component of the rows `e` of X on the rows `f` of Y by the
    // iteration the cross-validation rounds share (PlsIteration.h);
    // `component` is its number in the correlation error and progress text.
    // `first`, when given, is used if the fit starts from exactly its u.
    static Component FitComponent(const NCDataMatrixRows<float>& e, const NCDataMatrixRows<float>& f, int component,
                                  int maxIterations, NCProgress* progress, const NCDataVector<float>* start,
                                  bool quiet, bool strict, const FirstSweep* first = nullptr);
    static NCDataVector<float> StartScores(const NCDataMatrixRows<float>& e, const NCDataMatrixRows<float>& f,
                                           const NCDataVector<float>* start);
    void EmptyComponents();

    // Every owned matrix, in the order of the record's entries: C', P', W',
    // U', T', E, F. Copying, swapping, streaming and resetting go through it.
    static const std::array<std::unique_ptr<NCDataMatrix<float>> NCPLS::*, 7> Matrices;

    std::unique_ptr<NCDataMatrix<float>> m_cprim;
    std::unique_ptr<NCDataMatrix<float>> m_pprim;
    std::unique_ptr<NCDataMatrix<float>> m_wprim;
    std::unique_ptr<NCDataMatrix<float>> m_uprim;
    std::unique_ptr<NCDataMatrix<float>> m_tprim;
    std::unique_ptr<NCDataMatrix<float>> m_e;
    std::unique_ptr<NCDataMatrix<float>> m_f;
    int m_components = 0;
    int m_maxIterations = 0;
    int m_iterations = 0;
    mutable bool m_streaming = false;
    // Valid for E and F as CalculateResiduals left them; anything else that
    // changes either drops it (copies start without one).
    std::optional<FirstSweep> m_firstSweep;
};
