#include "CliTestSupport.h"

#include "cli/RunSkeleton.h"
#include "cli/ToolError.h"

#include <gtest/gtest.h>

using namespace cli_test;
using veltan_cli::RunCommand;
using veltan_cli::RunOutputs;
using veltan_cli::RunSteps;
using veltan_cli::WrittenFile;

namespace {

// Steps that write `a` and `b` (when their paths are given) and print a
// one-line report or a document listing the keys of the files written.
RunSteps TwoFileSteps(const std::string& a, const std::string& b)
{
    RunSteps steps;
    steps.compute = [](NCProgress&) {};
    steps.write = [a, b](RunOutputs& files) {
        files.Add("a", a, [](std::ostream& out) { out << "first\n"; }, veltan_cli::WrittenTo("First", a));
        files.Add("b", b, [](std::ostream& out) { out << "second\n"; }, veltan_cli::SavedTo("Second", b));
    };
    steps.document = [](const std::vector<WrittenFile>& files) {
        std::string keys;
        for (const WrittenFile& f : files)
            keys += f.key;
        return "{" + keys + "}";
    };
    steps.report = [](std::ostream& out) { out << "report\n"; };
    return steps;
}

} // namespace

TEST(RunSkeleton, ReportThenTheFilesWrittenOrTheDocumentAlone)
{
    TempDir dir;
    std::ostringstream out;
    RunSteps steps = TwoFileSteps(dir.File("a.csv"), dir.File("b.model"));
    EXPECT_EQ(RunCommand(steps, out), 0);
    EXPECT_EQ(out.str(), "report\nFirst written to " + dir.File("a.csv") + "\nSecond saved to " + dir.File("b.model") +
                             "\n");
    EXPECT_EQ(ReadFile(dir.File("b.model")), "second\n");

    // An option not given writes nothing and is not announced; the
    // announcements may form their own paragraph.
    std::ostringstream spaced;
    steps = TwoFileSteps("", dir.File("c.model"));
    steps.blankLineBeforeFiles = true;
    RunCommand(steps, spaced);
    EXPECT_EQ(spaced.str(), "report\n\nSecond saved to " + dir.File("c.model") + "\n");

    std::ostringstream json;
    steps = TwoFileSteps(dir.File("d.csv"), "");
    steps.json = true;
    RunCommand(steps, json);
    EXPECT_EQ(json.str(), "{a}\n");
    EXPECT_EQ(dir.Entries(), (std::set<std::string>{"a.csv", "b.model", "c.model", "d.csv"}));
}

// A failure after some files were written, in computing or in writing a
// later file, leaves none of them and prints nothing.
TEST(RunSkeleton, AFailureLeavesNoFileAndNoReport)
{
    TempDir dir;
    std::ostringstream out;
    RunSteps steps = TwoFileSteps(dir.File("a.csv"), dir.File("no/b.model"));
    EXPECT_THROW(RunCommand(steps, out), veltan_cli::ToolError);

    steps = TwoFileSteps(dir.File("a.csv"), dir.File("b.model"));
    const auto write = steps.write;
    steps.write = [write](RunOutputs& files) {
        write(files);
        throw veltan_cli::ToolError("plot: nothing to draw");
    };
    EXPECT_THROW(RunCommand(steps, out), veltan_cli::ToolError);

    steps = TwoFileSteps(dir.File("a.csv"), dir.File("b.model"));
    steps.compute = [](NCProgress&) { throw std::runtime_error("fit failed"); };
    EXPECT_THROW(RunCommand(steps, out), std::runtime_error);
    EXPECT_EQ(out.str(), "");
    EXPECT_TRUE(dir.Entries().empty());
}
