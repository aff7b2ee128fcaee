#pragma once

#include "veltancmat/platform/Export.h"

class NCPCA;

// Policy objects that a caller consults between components to learn whether
// a further component is worth computing.
class VELTANCMAT_API NCComponentValidator {
public:
    virtual ~NCComponentValidator();
    // True when the verdict is given before the next component is computed.
    virtual bool IsPreComponentValidator() const = 0;
    virtual bool IsValid() = 0;
    // Called when the caller has finished with the model.
    virtual void Done();
};

class VELTANCMAT_API PCAComponentValidator : public NCComponentValidator {
public:
    explicit PCAComponentValidator(NCPCA* model = nullptr) : m_model(model) {}
    virtual void SetPCAModel(NCPCA* model) { m_model = model; }

protected:
    NCPCA* m_model;
};

// Valid while more than `limit` (a fraction) of the starting sum of squares
// of the model's residuals is left.
class VELTANCMAT_API PCA_SS_ComponentValidator : public PCAComponentValidator {
public:
    // Throws NCError when the residual sum of squares is not finite.
    PCA_SS_ComponentValidator(NCPCA* model, float limit);

    bool IsPreComponentValidator() const override { return true; }
    bool IsValid() override;
    // Records the new model's residual sum of squares as the start.
    void SetPCAModel(NCPCA* model) override;

private:
    double ResidualSS() const;

    float m_limit;
    double m_ss0 = -99.0;
};
