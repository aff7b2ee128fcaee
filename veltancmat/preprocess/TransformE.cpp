#include "veltancmat/preprocess/TransformE.h"

#include "veltancmat/platform/ExceptionMessage.h"

namespace {

struct TransformText {
    const char* context;
    const char* name;
    const char* formula;
};

// Indexed by TransformE::Transform; slot 0 is never used.
constexpr TransformText Texts[] = {
    {nullptr, nullptr, nullptr},
    {"No transform", "None", "y = x"},
    {"Linear transform", "Linear", "y = C1*x + C2"},
    {"Logarithmic transform", "Log", "y = log10(C1*x + C2)"},
    {"Negative Logarithmic transform", "NegLog", "y = -log10(C1*x + C2)"},
    {"Logit transform", "Logit", "y = log10((x - C1)/(C2 - x))"},
    {"Exponential transform", "Exponential", "y = exp(C1*x + C2)"},
    {"Power transform", "Power", "y = (C1*x + C2)^C3"},
};

} // namespace

std::string TransformE::GetTransformName(Transform transform)
{
    const TransformText& text = Texts[Normalized(transform)];
    return ExceptionMessage::translate(text.context, text.name).str();
}

const char* TransformE::GetFormula(Transform transform)
{
    return Texts[Normalized(transform)].formula;
}
