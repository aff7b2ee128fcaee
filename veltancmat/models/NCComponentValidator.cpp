#include "veltancmat/models/NCComponentValidator.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/models/NCPCA.h"
#include "veltancmat/platform/NCError.h"

#include <cmath>

NCComponentValidator::~NCComponentValidator() = default;

void NCComponentValidator::Done() {}

PCA_SS_ComponentValidator::PCA_SS_ComponentValidator(NCPCA* model, float limit) : m_limit(limit)
{
    PCA_SS_ComponentValidator::SetPCAModel(model);
}

void PCA_SS_ComponentValidator::SetPCAModel(NCPCA* model)
{
    PCAComponentValidator::SetPCAModel(model);
    m_ss0 = ResidualSS();
    if (!std::isfinite(m_ss0))
        throw NCError(
            ExceptionMessage::translate("Infinite value encountered, try changing the transformation or trim the dataset."),
            NCError::Error);
}

bool PCA_SS_ComponentValidator::IsValid()
{
    const double ss = ResidualSS();
    if (IsMisVal(ss) || IsMisVal(m_ss0) || m_ss0 <= 1e-30)
        return false;
    return ss / m_ss0 > m_limit;
}

double PCA_SS_ComponentValidator::ResidualSS() const
{
    if (!m_model || !m_model->GetResiduals())
        return NCMisVal<double>;
    return m_model->GetResiduals()->GetSS();
}
