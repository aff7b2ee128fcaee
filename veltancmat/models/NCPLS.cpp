#include "veltancmat/models/NCPLS.h"

#include "veltancmat/containers/NipalsDeflation.h"
#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/containers/frame/StreamRecord.h"
#include "veltancmat/models/NipalsStart.h"
#include "veltancmat/models/PlsIteration.h"
#include "veltancmat/models/SumsOfSquares.h"
#include "veltancmat/platform/BinaryIO.h"
#include "veltancmat/platform/NCError.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

std::unique_ptr<NCDataMatrix<float>> CopyOf(const NCDataMatrix<float>* m)
{
    return std::make_unique<NCDataMatrix<float>>(m ? *m : NCDataMatrix<float>());
}

NCDataMatrix<float> ColumnMatrix(const NCDataVector<float>* y)
{
    if (!y)
        return NCDataMatrix<float>();
    NCDataMatrix<float> m(y->Size(), 1);
    m.SetColumn(1, *y);
    return m;
}

} // namespace

QvStreamableData NCPLS::MyStreamableData(2, "NCPLS");

// In the order of the record's entries.
const std::array<std::unique_ptr<NCDataMatrix<float>> NCPLS::*, 7> NCPLS::Matrices{
    &NCPLS::m_cprim, &NCPLS::m_pprim, &NCPLS::m_wprim, &NCPLS::m_uprim, &NCPLS::m_tprim, &NCPLS::m_e, &NCPLS::m_f};

NCPLS::NCPLS()
{
    for (const auto matrix : Matrices)
        this->*matrix = std::make_unique<NCDataMatrix<float>>();
}

NCPLS::NCPLS(const NCDataMatrix<float>* x, const NCDataMatrix<float>* y, int maxIterations)
    : m_e(CopyOf(x)), m_f(CopyOf(y)), m_maxIterations(maxIterations)
{
    EmptyComponents();
}

NCPLS::NCPLS(const NCDataMatrix<float>* x, const NCDataVector<float>* y, int maxIterations)
    : m_e(CopyOf(x)), m_f(std::make_unique<NCDataMatrix<float>>(ColumnMatrix(y))), m_maxIterations(maxIterations)
{
    EmptyComponents();
}

NCPLS::NCPLS(NCDataMatrix<float>&& x, NCDataMatrix<float>&& y, int maxIterations)
    : m_e(std::make_unique<NCDataMatrix<float>>(std::move(x))),
      m_f(std::make_unique<NCDataMatrix<float>>(std::move(y))), m_maxIterations(maxIterations)
{
    EmptyComponents();
}

NCPLS::NCPLS(const NCDataMatrix<float>* e, const NCDataMatrix<float>* f, const NCDataMatrix<float>* cprim,
             const NCDataMatrix<float>* pprim, const NCDataMatrix<float>* wprim, const NCDataMatrix<float>* uprim,
             const NCDataMatrix<float>* tprim, int maxIterations)
    : m_cprim(CopyOf(cprim)), m_pprim(CopyOf(pprim)), m_wprim(CopyOf(wprim)), m_uprim(CopyOf(uprim)),
      m_tprim(CopyOf(tprim)), m_e(CopyOf(e)), m_f(CopyOf(f)), m_components(m_pprim->SizeRows()),
      m_maxIterations(maxIterations)
{
}

NCPLS::NCPLS(const NCPLS& other)
    : QvStreamBase(other), m_components(other.m_components), m_maxIterations(other.m_maxIterations),
      m_iterations(other.m_iterations)
{
    for (const auto matrix : Matrices)
        this->*matrix = CopyOf((other.*matrix).get());
}

NCPLS& NCPLS::operator=(const NCPLS& other)
{
    if (this != &other) {
        NCPLS copy(other);
        for (const auto matrix : Matrices)
            std::swap(this->*matrix, copy.*matrix);
        m_components = other.m_components;
        m_maxIterations = other.m_maxIterations;
        m_iterations = other.m_iterations;
        m_firstSweep.reset();
    }
    return *this;
}

NCPLS::~NCPLS() = default;

// The component matrices start without rows but with their widths, so that
// a model without components still answers for K, M and N.
void NCPLS::EmptyComponents()
{
    if (m_e->SizeRows() != m_f->SizeRows())
        throw NCInternalError("NCPLS::NCPLS");
    const int n = m_e->SizeRows(), k = m_e->SizeColumns(), m = m_f->SizeColumns();
    const int widths[] = {m, k, k, n, n}; // C', P', W', U', T'
    for (std::size_t part = 0; part < std::size(widths); ++part)
        this->*Matrices[part] = std::make_unique<NCDataMatrix<float>>(0, widths[part]);
}

// The first Y-score vector. A start weight vector only helps with several
// responses: with one, the response itself is already the best start.
NCDataVector<float> NCPLS::StartScores(const NCDataMatrixRows<float>& e, const NCDataMatrixRows<float>& f,
                                       const NCDataVector<float>* start)
{
    if (start && f.SizeColumns() > 1) {
        NCDataVector<float> t, c, u;
        e.SpecialNipalsRegressRowsFix(*start, &t);
        f.SpecialNipalsRegressColumnsFix(t, &c);
        f.SpecialNipalsRegressRowsFix(c, &u);
        return u;
    }
    return NCNipals::FilledStartColumn(f);
}

bool NCPLS::NextComponent(NCProgress* progress, const NCDataVector<float>* start, bool quiet, bool strict)
{
    if (m_e->empty() || m_f->empty() || m_e->SizeRows() != m_f->SizeRows())
        throw NCInternalError("NCPLS::NextComponent");
    if (start && start->Size() != m_e->SizeColumns())
        throw NCInternalError("NCPLS::NextComponent");
    const int component = m_components + 1;
    std::optional<FirstSweep> first;
    std::swap(first, m_firstSweep);
    Component fitted = FitComponent(NCDataMatrixRows<float>(*m_e), NCDataMatrixRows<float>(*m_f), component,
                                    m_maxIterations, progress, start, quiet, strict, first ? &*first : nullptr);
    m_wprim->push_back(fitted.w);
    m_pprim->push_back(fitted.p);
    m_tprim->push_back(fitted.t);
    m_uprim->push_back(fitted.u);
    m_cprim->push_back(fitted.c);
    m_components = component;
    m_iterations = fitted.iterations;
    return true;
}

namespace {

bool SameBits(const NCDataVector<float>& a, const NCDataVector<float>& b)
{
    return a.Size() == b.Size() &&
           std::memcmp(a.GetVector() + 1, b.GetVector() + 1, static_cast<std::size_t>(a.Size()) * sizeof(float)) == 0;
}

} // namespace

NCPLS::Component NCPLS::FitComponent(const NCDataMatrixRows<float>& e, const NCDataMatrixRows<float>& f,
                                     int component, int maxIterations, NCProgress* progress,
                                     const NCDataVector<float>* start, bool quiet, bool strict,
                                     const FirstSweep* first)
{
    const CancelText aborted("Calculation of", "PLS component aborted.");
    NCNipals::PlsFit fit;
    fit.u = StartScores(e, f, start);
    if (first && SameBits(first->u, fit.u)) {
        fit.ssX = first->ssX;
        fit.w = first->w;
        fit.weightsReady = true;
    } else {
        fit.ssX = e.GetSS();
    }
    NCNipals::PlsFit* const fits[] = {&fit};
    const NCNipals::RowsProjector pass(e, f);
    std::unique_ptr<NCProgress> own;
    NCNipals::IteratePls(pass, fits, f.SizeColumns(), maxIterations, strict, component,
                         [&](int iteration, std::span<NCNipals::PlsFit* const> active) {
                             if (quiet || active.empty())
                                 return;
                             const float v = active.front()->movement;
                             if (iteration == 1) {
                                 if (!progress) {
                                     own = std::make_unique<NCProgress>(
                                         ProgressCaption(nullptr, "PLS Component %1%", component));
                                     progress = own.get();
                                 }
                                 progress->SetRangeInternal(v == 0.0f ? 1.0f : -v, 0.0f);
                             }
                             if (strict)
                                 CheckedSetValue(progress, -v, aborted);
                         });
    if (strict)
        CheckBreak(progress, aborted);
    NCNipals::PlsLoadings(pass, fits);
    return Component{fit.w, fit.p, fit.t, fit.u, fit.c, fit.iterations};
}

bool NCPLS::IsNoCorrelation(const NCError& error)
{
    return error.GetLevel() == NCError::Warning && !dynamic_cast<const NCInternalError*>(&error);
}

void NCPLS::CalculateResiduals()
{
    const int a = m_components;
    if (a < 1 || m_tprim->SizeRows() < a || m_pprim->SizeRows() < a || m_cprim->SizeRows() < a)
        throw NCInternalError("NCPLS::CalculateResiduals");
    const NCDataVector<float>& t = (*m_tprim)[a];
    m_f->AddVprimV(t, (*m_cprim)[a], -1.0);
    // The next component, unless it is given a start vector, starts from
    // the filled start column of the deflated F, and on complete E its first
    // sweep over E (sum of squares, weights) rides along the deflation: that
    // sweep would otherwise read E again right after this one wrote it. With
    // gaps the separate passes are bound by their work per cell and measured
    // as fast (docs/performance.md).
    m_firstSweep.reset();
    if (m_e->GetNumMisVal() > 0) {
        m_e->AddVprimV(t, (*m_pprim)[a], -1.0);
        return;
    }
    FirstSweep next;
    next.u = NCNipals::FilledStartColumn(*m_f);
    if (NCNipalsDeflation::DeflateThenColumns(*m_e, t, (*m_pprim)[a], next.u, &next.ssX, &next.w))
        m_firstSweep = std::move(next);
}

NCDataMatrix<float> NCPLS::GetWStarPrim(const NCDataMatrix<float>& wprim, const NCDataMatrix<float>& pprim)
{
    if (wprim.SizeRows() != pprim.SizeRows() || wprim.SizeColumns() != pprim.SizeColumns())
        throw NCInternalError("NCPLS::GetWStarPrim");
    const int a = wprim.SizeRows(), k = wprim.SizeColumns();
    if (a == 0)
        return NCDataMatrix<float>(0, k);
    // P'W is A x A with (P'W)_ab = p_a . w_b; it is upper triangular with a
    // unit diagonal on complete data, so an inverse fails only on damaged
    // components, which give missing weights rather than made-up ones.
    NCDataMatrix<float> ptw = pprim.MultiplyTransposeOther(wprim);
    if (ptw.HasMissingValues() || !ptw.TransformToInverse())
        return NCDataMatrix<float>(a, k, NCDataMatrix<float>::MisVal);
    // W*' = (W (P'W)^-1)' = ((P'W)^-1)' W'.
    return ptw.MultiplyTransposeThis(wprim);
}

NCDataMatrix<float> NCPLS::GetWStarPrim() const
{
    return GetWStarPrim(*m_wprim, *m_pprim);
}

NCDataMatrix<float> NCPLS::GetRegressionCoefficients(const NCDataMatrix<float>& wprim,
                                                     const NCDataMatrix<float>& pprim,
                                                     const NCDataMatrix<float>& cprim)
{
    if (cprim.SizeRows() != wprim.SizeRows())
        throw NCInternalError("NCPLS::GetRegressionCoefficients");
    const NCDataMatrix<float> wstarPrim = GetWStarPrim(wprim, pprim);
    // Without components nothing of Y is explained: B = 0.
    if (wstarPrim.SizeRows() == 0)
        return NCDataMatrix<float>(wprim.SizeColumns(), cprim.SizeColumns(), 0.0f);
    // B_jm = sum_a w*_ja c_am.
    return wstarPrim.MultiplyTransposeThis(cprim);
}

NCDataMatrix<float> NCPLS::GetRegressionCoefficients(int components) const
{
    if (components == -1)
        components = m_components;
    if (components < 0 || components > m_components || components > m_pprim->SizeRows())
        throw NCInternalError("NCPLS::GetRegressionCoefficients");
    if (components == m_pprim->SizeRows())
        return GetRegressionCoefficients(*m_wprim, *m_pprim, *m_cprim);
    const int k = m_wprim->SizeColumns(), m = m_cprim->SizeColumns();
    return GetRegressionCoefficients(m_wprim->SubMat(1, components, 1, k), m_pprim->SubMat(1, components, 1, k),
                                     m_cprim->SubMat(1, components, 1, m));
}

void NCPLS::FlipComponent(int a)
{
    if (a < 1 || a > m_tprim->SizeRows() || a > m_uprim->SizeRows() || a > m_wprim->SizeRows() ||
        a > m_pprim->SizeRows() || a > m_cprim->SizeRows())
        throw NCInternalError("NCPLS::FlipComponent");
    for (NCDataMatrix<float>* m : {m_tprim.get(), m_uprim.get(), m_wprim.get(), m_pprim.get(), m_cprim.get()})
        m->MultiplyRow(a, -1.0);
}

void NCPLS::ShuffleYResiduals(const int* permutation)
{
    const int n = m_f->SizeRows();
    if (m_components > 0 || m_f->empty())
        throw NCError(ExceptionMessage::translate("Unable to permutate PLS model."), NCError::Error);
    if (!permutation)
        throw NCInternalError("NCPLS::ShuffleYResiduals");
    // Every row exactly once; anything else would duplicate responses.
    std::vector<bool> seen(static_cast<std::size_t>(n) + 1, false);
    NCDataMatrix<float>::IndexList order(n);
    for (int i = 1; i <= n; ++i) {
        const int from = permutation[i];
        if (from < 1 || from > n || seen[from])
            throw NCInternalError("NCPLS::ShuffleYResiduals");
        seen[from] = true;
        order(i) = from;
    }
    *m_f = m_f->GetRowSubMatrix(order);
    m_firstSweep.reset();
}

// ------------------------------------------------------------ streaming

bool NCPLS::QvStreamableStartWrite(std::ostream& out) const
{
    return NCStreamRecord::StartWrite(
        out, m_streaming, MyStreamableData, [&] { return QvStreamableWriteBases(out); },
        [&] { return QvStreamableWrite(out); });
}

bool NCPLS::QvStreamableWriteBases(std::ostream& out) const
{
    return QvStreamBase::QvStreamableStartWrite(out);
}

bool NCPLS::QvStreamableWrite(std::ostream& out) const
{
    OutputStreamDirectory directory(out, 9);
    bool ok = true;
    for (std::size_t entry = 0; entry < Matrices.size() && ok; ++entry)
        ok = (directory.GetOutput(static_cast<int>(entry)) << *(this->*Matrices[entry])).good();
    const std::int32_t maxIterations = m_maxIterations, iterations = m_iterations;
    ok = ok && WriteFourBytes(&maxIterations, 1, directory.GetOutput(7));
    ok = ok && WriteFourBytes(&iterations, 1, directory.GetOutput(8));
    return directory.Close() && ok && out.good();
}

bool NCPLS::QvStreamableStartRead(std::istream& in)
{
    return NCStreamRecord::StartRead(
        in, m_streaming, MyStreamableData, 2, [&] { return QvStreamableReadBases(in); },
        [&] { return QvStreamableRead(in); });
}

bool NCPLS::QvStreamableReadBases(std::istream& in)
{
    return QvStreamBase::QvStreamableStartRead(in);
}

bool NCPLS::QvStreamableRead(std::istream& in)
{
    InputStreamDirectory directory(in);
    const bool ok = ReadStreamDirectory(directory);
    return directory.Close() && ok && in.good();
}

// Reads into fresh objects, so a damaged record leaves the model as it was.
// The component count is deliberately not touched: the record does not
// carry it, and callers take the row count of P' instead.
bool NCPLS::ReadStreamDirectory(InputStreamDirectory& directory)
{
    try {
        std::unique_ptr<NCDataMatrix<float>> read[7];
        for (int entry = 0; entry < 7; ++entry) {
            read[entry] = std::make_unique<NCDataMatrix<float>>();
            if (!(directory.GetRequiredInput(entry) >> *read[entry]))
                return false;
        }
        const int a = read[1]->SizeRows();
        for (int entry = 0; entry < 5; ++entry)
            if (read[entry]->SizeRows() != a)
                return false;
        std::int32_t maxIterations = 0, iterations = 0;
        directory.ReadRequired(7, &maxIterations, 1, 4);
        directory.ReadRequired(8, &iterations, 1, 4);
        for (std::size_t entry = 0; entry < Matrices.size(); ++entry)
            this->*Matrices[entry] = std::move(read[entry]);
        m_maxIterations = maxIterations;
        m_iterations = iterations;
        m_firstSweep.reset();
        return true;
    } catch (const QvStreamError&) {
        return false;
    }
}

void NCPLS::QvStreamableReset() const
{
    m_streaming = false;
    for (const auto matrix : Matrices)
        (this->*matrix)->QvStreamableReset();
    QvStreamBase::QvStreamableReset();
}
