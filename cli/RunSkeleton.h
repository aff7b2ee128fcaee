#pragma once

#include "cli/CsvWriter.h"

#include "veltancmat/platform/NCProgress.h"

#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace veltan_cli {

// One file a run wrote.
struct WrittenFile {
    std::string key;          // its name in the JSON document's "files"
    std::string path;
    std::string announcement; // its line under the report; "" for none
};

// The output files of one run: each is written whole to its temporary form
// as it is added, and none appears under its name until every one is
// complete (see OutputFiles).
class RunOutputs {
public:
    // Writes the file at `path` through `write`; an empty path (the option
    // not given) writes nothing.
    void Add(const std::string& key, const std::string& path, const std::function<void(std::ostream&)>& write,
             std::string announcement);
    void CommitAll() { m_files.CommitAll(); }
    const std::vector<WrittenFile>& Files() const { return m_written; }

private:
    OutputFiles m_files;
    std::vector<WrittenFile> m_written;
};

// "Scores written to t.csv", "Model saved to m.model".
std::string WrittenTo(const std::string& what, const std::string& path);
std::string SavedTo(const std::string& what, const std::string& path);

// The steps every command's run goes through, in this order: compute under
// a Ctrl-C guard (and a progress bar when `task` names one), write the
// requested files, commit them only when all are complete and no Ctrl-C
// came, then print either the JSON document or the report followed by the
// announcements of the files.
struct RunSteps {
    std::string task;   // the progress caption ("Fitting PCA"); "" draws no bar
    std::string source; // the progress' secondary caption: the table
    bool drawBar = false; // also when stderr is not a terminal (--progress)
    bool json = false;
    bool blankLineBeforeFiles = false; // the announcements form their own paragraph
    std::function<void(NCProgress&)> compute;
    std::function<void(RunOutputs&)> write;
    std::function<std::string(const std::vector<WrittenFile>&)> document; // the JSON text
    std::function<void(std::ostream&)> report;
};

// Returns ExitOk; throws what the steps throw, and CancelException after a
// Ctrl-C, in both cases leaving no output file behind.
int RunCommand(const RunSteps& steps, std::ostream& out);

} // namespace veltan_cli
