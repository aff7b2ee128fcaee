#include "veltancmat/models/NCPCA.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/containers/frame/StreamRecord.h"
#include "veltancmat/models/NipalsStart.h"
#include "veltancmat/platform/BinaryIO.h"
#include "veltancmat/platform/NCError.h"

#include <cmath>
#include <cstdint>
#include <utility>

namespace {

[[noreturn]] void ThrowNotComputed()
{
    throw NCError(ExceptionMessage::translate("PCA component could not be computed."), NCError::Error);
}

std::unique_ptr<NCDataMatrix<float>> CopyOf(const NCDataMatrix<float>* m)
{
    return std::make_unique<NCDataMatrix<float>>(m ? *m : NCDataMatrix<float>());
}

} // namespace

QvStreamableData NCPCA::MyStreamableData(2, "NCPCA");

NCPCA::NCPCA()
    : m_pprim(std::make_unique<NCDataMatrix<float>>()), m_tprim(std::make_unique<NCDataMatrix<float>>()),
      m_residuals(std::make_unique<NCDataMatrix<float>>())
{
}

NCPCA::NCPCA(const NCDataMatrix<float>* x, int maxIterations)
    : m_residuals(CopyOf(x)), m_maxIterations(maxIterations)
{
    m_pprim = std::make_unique<NCDataMatrix<float>>(0, m_residuals->SizeColumns());
    m_tprim = std::make_unique<NCDataMatrix<float>>(0, m_residuals->SizeRows());
}

NCPCA::NCPCA(NCDataMatrix<float>&& x, int maxIterations)
    : m_residuals(std::make_unique<NCDataMatrix<float>>(std::move(x))), m_maxIterations(maxIterations)
{
    m_pprim = std::make_unique<NCDataMatrix<float>>(0, m_residuals->SizeColumns());
    m_tprim = std::make_unique<NCDataMatrix<float>>(0, m_residuals->SizeRows());
}

NCPCA::NCPCA(const NCDataMatrix<float>* residuals, const NCDataMatrix<float>* pprim,
             const NCDataMatrix<float>* tprim, int maxIterations)
    : m_pprim(CopyOf(pprim)), m_tprim(CopyOf(tprim)), m_residuals(CopyOf(residuals)),
      m_components(m_pprim->SizeRows()), m_maxIterations(maxIterations)
{
}

NCPCA::NCPCA(const NCPCA& other)
    : QvStreamBase(other), m_pprim(CopyOf(other.m_pprim.get())), m_tprim(CopyOf(other.m_tprim.get())),
      m_residuals(CopyOf(other.m_residuals.get())), m_components(other.m_components),
      m_maxIterations(other.m_maxIterations), m_iterations(other.m_iterations)
{
}

NCPCA& NCPCA::operator=(const NCPCA& other)
{
    if (this != &other) {
        NCPCA copy(other);
        std::swap(m_pprim, copy.m_pprim);
        std::swap(m_tprim, copy.m_tprim);
        std::swap(m_residuals, copy.m_residuals);
        m_components = other.m_components;
        m_maxIterations = other.m_maxIterations;
        m_iterations = other.m_iterations;
    }
    return *this;
}

NCPCA::~NCPCA() = default;

bool NCPCA::NextComponent(NCProgress* progress, const IndexList* groups, int group, const NCDataVector<float>* start)
{
    ++m_components;
    const NCDataMatrix<float>& e = *m_residuals;
    if (e.SizeRows() == 0 || e.SizeColumns() == 0)
        ThrowNotComputed();
    if (groups && groups->Size() != e.SizeColumns())
        throw NCInternalError("NCPCA::NextComponent");
    if (start && start->Size() != e.SizeRows())
        throw NCInternalError("NCPCA::NextComponent");

    NCDataVector<float> p, t;
    m_iterations = FitComponent(NCDataMatrixRows<float>(e), m_components, m_maxIterations, progress, groups, group,
                                start, p, t);
    m_pprim->push_back(p);
    m_tprim->push_back(t);
    return true;
}

int NCPCA::FitComponent(const NCDataMatrixRows<float>& e, int component, int maxIterations, NCProgress* progress,
                        const IndexList* groups, int group, const NCDataVector<float>* start,
                        NCDataVector<float>& p, NCDataVector<float>& t)
{
    if (e.SizeRows() == 0 || e.SizeColumns() == 0)
        ThrowNotComputed();
    if (e.SizeRows() == 1) {
        // One observation: its own direction is the component.
        p = e[1];
        if (groups)
            for (int j = 1; j <= p.Size(); ++j)
                if ((*groups)[j] == group)
                    p(j, NCDataVector<float>::MisVal);
        const double norm = p.Normalize();
        if (!(norm > 0.0))
            ThrowNotComputed();
        t = NCDataVector<float>(1, static_cast<float>(norm));
        return 1;
    }
    t = start ? *start : NCNipals::FilledStartColumn(e);

    // Without a progress object of the caller's the component reports to one
    // of its own, so that a host observing new progress objects still sees it.
    std::unique_ptr<NCProgress> own;
    const CancelText aborted("Calculations of", "PC component aborted.");
    // On complete data each sweep gives an iteration's scores and, from
    // them, the loadings the next iteration starts from: the last sweep's
    // are not used, but they cost arithmetic on rows already in cache rather
    // than a read. With gaps the two passes are bound by their work per cell,
    // which one sweep does not reduce, and measured as fast or faster
    // (docs/performance.md); both give the same bits.
    const bool sweep = e.GetNumMisVal() == 0;
    NCDataVector<float> previous, next;
    for (int iteration = 1;; ++iteration) {
        std::swap(previous, t);
        if (sweep && iteration > 1)
            std::swap(p, next);
        else
            e.SpecialNipalsRegressColumnsFix(previous, &p, groups, group);
        p.Normalize();
        if (sweep)
            e.NipalsRowsThenColumns(p, &t, &next, groups, group);
        else
            e.SpecialNipalsRegressRowsFix(p, &t, groups, group);

        const double x = t.Difference(previous);
        if (IsMisVal(x))
            ThrowNotComputed();
        const float v = x > 1e-30 ? static_cast<float>((std::log10(x) + 10.0) * 10.0) : -1.0f;
        if (iteration == 1) {
            if (!progress) {
                own = std::make_unique<NCProgress>(ProgressCaption(nullptr, "PC Component %1%", component));
                progress = own.get();
            }
            progress->SetRangeInternal(-v, 0.0f);
        } else {
            CheckedSetValue(progress, -v, aborted);
        }
        if (v <= 0.0f || iteration >= maxIterations)
            return iteration;
    }
}

void NCPCA::CalculateResiduals()
{
    const int a = m_components;
    if (a < 1 || m_pprim->SizeRows() < a || m_tprim->SizeRows() < a)
        throw NCInternalError("NCPCA::CalculateResiduals");
    m_residuals->AddVprimV((*m_tprim)[a], (*m_pprim)[a], -1.0);
}

SignificanceE::Significance NCPCA::GetSignificance(float tolerance, bool centred, int component,
                                                   SignificanceE::Significance& previous, int observations,
                                                   int variables, float r2, const NCDataVector<float>& r2Variables,
                                                   float eigenvalue, float previousEigenvalue, float q2,
                                                   const NCDataVector<float>& q2Variables, float q2Limit,
                                                   int earlierComponents)
{
    using S = SignificanceE;
    const int c = centred ? 1 : 0;
    const bool pending = component >= 2 && previous == S::U;
    const int a = component + earlierComponents;

    // Too many components for the size of the data.
    if (a > (observations - c) / 2 || a > variables / 2) {
        if (pending)
            previous = S::NS;
        return S::N3;
    }

    // Too little variance explained, by the component and by every variable.
    if (r2 < 0.01f) {
        bool someVariable = false;
        for (int j = 1; j <= r2Variables.Size() && variables >= 1; ++j)
            someVariable = someVariable || (!IsMisVal(r2Variables[j]) && r2Variables[j] > 0.02f);
        if (!someVariable) {
            if (pending)
                previous = S::NS;
            return S::N4;
        }
    }

    S::Significance result = S::NS;
    if (q2 > q2Limit) {
        result = S::R1;
    } else if (eigenvalue > 1.5f || variables < 30) {
        int above = 0;
        for (int j = 1; j <= q2Variables.Size(); ++j)
            above += (!IsMisVal(q2Variables[j]) && q2Variables[j] > q2Limit) ? 1 : 0;
        // For K <= 25 this is sqrt(K); the form is kept as the rule has it.
        const double k = variables;
        const double needed =
            variables > 25 ? 0.2 * k : std::log10(std::max(k - 20.0, 10.0)) * std::sqrt(k);
        if (above >= needed - 1e-5)
            result = S::R2;
    }

    if (pending) {
        const bool confirmed = (result == S::R1 || result == S::R2) &&
                               std::fabs(eigenvalue - previousEigenvalue) / previousEigenvalue < tolerance;
        previous = confirmed ? S::R5 : S::NS;
        return result;
    }
    return result == S::NS ? S::U : result;
}

// ------------------------------------------------------------ streaming

bool NCPCA::QvStreamableStartWrite(std::ostream& out) const
{
    return NCStreamRecord::StartWrite(
        out, m_streaming, MyStreamableData, [&] { return QvStreamableWriteBases(out); },
        [&] { return QvStreamableWrite(out); });
}

bool NCPCA::QvStreamableWriteBases(std::ostream& out) const
{
    return QvStreamBase::QvStreamableStartWrite(out);
}

bool NCPCA::QvStreamableWrite(std::ostream& out) const
{
    OutputStreamDirectory directory(out, 5);
    bool ok = (directory.GetOutput(0) << *m_pprim).good();
    ok = ok && (directory.GetOutput(1) << *m_tprim).good();
    ok = ok && (directory.GetOutput(2) << *m_residuals).good();
    const std::int32_t maxIterations = m_maxIterations, iterations = m_iterations;
    ok = ok && WriteFourBytes(&maxIterations, 1, directory.GetOutput(3));
    ok = ok && WriteFourBytes(&iterations, 1, directory.GetOutput(4));
    return directory.Close() && ok && out.good();
}

bool NCPCA::QvStreamableStartRead(std::istream& in)
{
    return NCStreamRecord::StartRead(
        in, m_streaming, MyStreamableData, 2, [&] { return QvStreamableReadBases(in); },
        [&] { return QvStreamableRead(in); });
}

bool NCPCA::QvStreamableReadBases(std::istream& in)
{
    return QvStreamBase::QvStreamableStartRead(in);
}

bool NCPCA::QvStreamableRead(std::istream& in)
{
    InputStreamDirectory directory(in);
    const bool ok = ReadStreamDirectory(directory);
    return directory.Close() && ok && in.good();
}

// Reads into fresh objects, so a damaged record leaves the model as it was.
// The component count is deliberately not touched: the record does not
// carry it, and callers take the row count of P' instead.
bool NCPCA::ReadStreamDirectory(InputStreamDirectory& directory)
{
    try {
        auto pprim = std::make_unique<NCDataMatrix<float>>();
        auto tprim = std::make_unique<NCDataMatrix<float>>();
        auto residuals = std::make_unique<NCDataMatrix<float>>();
        if (!(directory.GetRequiredInput(0) >> *pprim) || !(directory.GetRequiredInput(1) >> *tprim) ||
            !(directory.GetRequiredInput(2) >> *residuals))
            return false;
        if (pprim->SizeRows() != tprim->SizeRows())
            return false;
        std::int32_t maxIterations = 0, iterations = 0;
        directory.ReadRequired(3, &maxIterations, 1, 4);
        directory.ReadRequired(4, &iterations, 1, 4);
        m_pprim = std::move(pprim);
        m_tprim = std::move(tprim);
        m_residuals = std::move(residuals);
        m_maxIterations = maxIterations;
        m_iterations = iterations;
        return true;
    } catch (const QvStreamError&) {
        return false;
    }
}

void NCPCA::QvStreamableReset() const
{
    m_streaming = false;
    m_pprim->QvStreamableReset();
    m_tprim->QvStreamableReset();
    m_residuals->QvStreamableReset();
    QvStreamBase::QvStreamableReset();
}
