#pragma once

#include "cli/CsvTable.h"

#include "veltancmat/preprocess/NCScale.h"
#include "veltancmat/signal/FFT.h"

#include <CLI/CLI.hpp>

#include <map>
#include <string>
#include <vector>

namespace veltan_cli {

// The option groups several commands share, declared here once so that
// every command spells, checks and explains them alike. Each command calls
// them in the order its --help lists them.

// The scaling names as the options take them, parsed after the command
// line is read (the choice is kept as text so --help shows the names).
NCScale::Scaling ScalingNamed(const std::string& name);
NamesColumn NamesColumnNamed(const std::string& name);

// The DATA positional (a CSV table); the caller adds ->required() when the
// command has no bundled table to fall back on.
CLI::Option* AddDataArgument(CLI::App& command, std::string& path, const std::string& help);
// The same for a table of variables, with the help every such command
// gives: its layout and which cells are missing.
CLI::Option* AddTableArgument(CLI::App& command, std::string& path);

// --column NAME, repeatable and required, for the commands that read the
// columns they are given.
CLI::Option* AddColumnsOption(CLI::App& command, std::vector<std::string>& columns, const std::string& help);

// The name `names` gives `value`; "" when none does.
template <class Value>
std::string NameOf(const std::map<std::string, Value>& names, Value value)
{
    for (const auto& [name, v] : names)
        if (v == value)
            return name;
    return "";
}

// --detrend none|mean|linear (default mean) of the series commands, kept
// as text; the mode its text names, and back.
void AddDetrendOption(CLI::App& command, std::string& text);
FFT::DetrendMode DetrendNamed(const std::string& name);
std::string DetrendName(FFT::DetrendMode mode);

// --names auto|first|none.
void AddNamesOption(CLI::App& command, std::string& mode);

// -c,--components N and -g,--cv-groups G of a cross-validated fit.
void AddComponentsOption(CLI::App& command, int& components);
void AddCvGroupsOption(CLI::App& command, int& groups);

// A scaling choice: --scale (with its default shown) or --y-scale (empty
// meaning "as --scale").
void AddScaleOption(CLI::App& command, std::string& name, const std::string& help);
void AddYScaleOption(CLI::App& command, std::string& name, const std::string& help);

// --log VAR, repeatable.
void AddLogOption(CLI::App& command, std::vector<std::string>& variables, const std::string& help);

// An output file option such as --scores FILE; `typeName` is what --help
// shows for the value.
void AddOutputOption(CLI::App& command, const std::string& name, std::string& path, const std::string& help,
                     const std::string& typeName = "FILE");

// --save MODEL: the model file predict reads.
void AddSaveOption(CLI::App& command, std::string& path);

// --json, with the wording of the command's document.
void AddJsonFlag(CLI::App& command, bool& json, const std::string& help);

// The flags of a fit's run: --json and --progress. (--threads belongs to
// every command and is added by the tool itself, ThreadsOption.h.)
void AddFitRunFlags(CLI::App& command, bool& json, bool& progress);

// A command that fits the bundled data set without DATA: fills `path` with
// it and returns true when no table was named.
bool UseBundledTable(std::string& path, const std::string& bundledData);

} // namespace veltan_cli
