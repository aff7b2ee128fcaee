#include "veltancmat/spc/ControlChartEnum.h"

#include "veltancmat/platform/ExceptionMessage.h"

ControlChartEnum::ControlType ControlChartEnum::ToControlType(const std::string& text)
{
    if (text == "Mean/Range")
        return MeanRange;
    if (text == "Mean/StdDev")
        return MeanStdDev;
    if (text == "CuSum")
        return CuSum;
    return Individual;
}

std::string ControlChartEnum::FromControlType(ControlType type)
{
    switch (type) {
    case MeanRange:
        return "Mean/Range";
    case MeanStdDev:
        return "Mean/StdDev";
    case CuSum:
        return "CuSum";
    default:
        return "Individual";
    }
}

std::string ControlChartEnum::FromControlTypeLocale(ControlType type)
{
    const char* const context = "Control chart type";
    switch (type) {
    case MeanRange:
        return ExceptionMessage::translate(context, "Mean/Range").str();
    case MeanStdDev:
        return ExceptionMessage::translate(context, "Mean/Std. dev.").str();
    case CuSum:
        return ExceptionMessage::translate(context, "CuSum").str();
    default:
        return ExceptionMessage::translate(context, "Individual").str();
    }
}

ControlChartEnum::EWMAType ControlChartEnum::ToEWMAType(const std::string& text)
{
    if (text == "Filter")
        return Filter;
    if (text == "Predictive")
        return Predictive;
    return EWMANone;
}

std::string ControlChartEnum::ToString(EWMAType type)
{
    switch (type) {
    case Filter:
        return "Filter";
    case Predictive:
        return "Predictive";
    default:
        return "";
    }
}
