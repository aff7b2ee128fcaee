#include "cli/CommonOptions.h"

#include <map>

namespace veltan_cli {

namespace {

const std::map<std::string, NCScale::Scaling> ScaleNames{{"uv", NCScale::ScaleUnitVariance},
                                                         {"pareto", NCScale::ScalePareto},
                                                         {"center", NCScale::ScaleCenter},
                                                         {"none", NCScale::ScaleNone}};
const std::map<std::string, NamesColumn> NamesModes{
    {"auto", NamesColumn::Auto}, {"first", NamesColumn::First}, {"none", NamesColumn::None}};

CLI::IsMember ScaleChoices() { return CLI::IsMember({"uv", "pareto", "center", "none"}); }

} // namespace

NCScale::Scaling ScalingNamed(const std::string& name) { return ScaleNames.at(name); }

NamesColumn NamesColumnNamed(const std::string& name) { return NamesModes.at(name); }

CLI::Option* AddDataArgument(CLI::App& command, std::string& path, const std::string& help)
{
    return command.add_option("data", path, help)->type_name("DATA");
}

CLI::Option* AddTableArgument(CLI::App& command, std::string& path)
{
    return AddDataArgument(command, path,
                           "CSV table: a header row of variable names, an optional first column of observation "
                           "names; empty cells, NA and -99 are missing");
}

CLI::Option* AddColumnsOption(CLI::App& command, std::vector<std::string>& columns, const std::string& help)
{
    return command.add_option("--column", columns, help)->type_name("NAME")->allow_extra_args(false)->required();
}

namespace {

const std::map<std::string, FFT::DetrendMode> DetrendNames{
    {"none", FFT::DetrendNone}, {"mean", FFT::DetrendMean}, {"linear", FFT::DetrendLinear}};

} // namespace

void AddDetrendOption(CLI::App& command, std::string& text)
{
    command.add_option("--detrend", text, "Remove from each series first: none, mean or linear")
        ->check(CLI::IsMember({"none", "mean", "linear"}))
        ->default_str("mean");
}

FFT::DetrendMode DetrendNamed(const std::string& name) { return DetrendNames.at(name); }

std::string DetrendName(FFT::DetrendMode mode) { return NameOf(DetrendNames, mode); }

void AddNamesOption(CLI::App& command, std::string& mode)
{
    command
        .add_option("--names", mode,
                    "Whether column 1 holds observation names: auto (when its header cell is empty or its first "
                    "value is text), first, none")
        ->check(CLI::IsMember({"auto", "first", "none"}))
        ->capture_default_str();
}

void AddComponentsOption(CLI::App& command, int& components)
{
    command
        .add_option("-c,--components", components,
                    "Fit exactly N components instead of stopping at the first that is not significant")
        ->check(CLI::PositiveNumber);
}

void AddCvGroupsOption(CLI::App& command, int& groups)
{
    command
        .add_option("-g,--cv-groups", groups,
                    "Number of cross-validation groups (default 7, or one per observation when fewer)")
        ->check(CLI::Range(2, 1000000));
}

void AddScaleOption(CLI::App& command, std::string& name, const std::string& help)
{
    command.add_option("--scale", name, help)->check(ScaleChoices())->capture_default_str();
}

void AddYScaleOption(CLI::App& command, std::string& name, const std::string& help)
{
    command.add_option("--y-scale", name, help)->check(ScaleChoices());
}

void AddLogOption(CLI::App& command, std::vector<std::string>& variables, const std::string& help)
{
    command.add_option("--log", variables, help)->type_name("VAR")->allow_extra_args(false);
}

void AddOutputOption(CLI::App& command, const std::string& name, std::string& path, const std::string& help,
                     const std::string& typeName)
{
    command.add_option(name, path, help)->type_name(typeName);
}

void AddSaveOption(CLI::App& command, std::string& path)
{
    AddOutputOption(command, "--save", path, "Save the model with its scaling and transforms for predict", "MODEL");
}

void AddJsonFlag(CLI::App& command, bool& json, const std::string& help) { command.add_flag("--json", json, help); }

void AddFitRunFlags(CLI::App& command, bool& json, bool& progress)
{
    AddJsonFlag(command, json, "Print one JSON document instead of the table");
    command.add_flag("--progress", progress, "Draw the progress bar even when stderr is not a terminal");
}

bool UseBundledTable(std::string& path, const std::string& bundledData)
{
    if (!path.empty())
        return false;
    path = bundledData;
    return true;
}

} // namespace veltan_cli
