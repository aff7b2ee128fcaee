#include "CliTestSupport.h"

#include "cli/CsvTable.h"
#include "cli/CsvWriter.h"
#include "cli/ToolError.h"
#include "veltancmat/containers/frame/MissingValue.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace veltan_cli;
using cli_test::TempDir;

namespace {

// The message of the ToolError that parsing `text` throws ("" if none).
std::string ParseError(const std::string& text, NamesColumn names = NamesColumn::Auto)
{
    try {
        ParseCsvTable(text, "t.csv", names);
    } catch (const ToolError& e) {
        EXPECT_EQ(e.Code(), ExitDataError);
        return e.what();
    }
    return {};
}

} // namespace

TEST(CsvTable, MissingMarkersAndNumbers)
{
    const DataTable t = ParseCsvTable("a,b,c\n1,,NA\n-99,-99.0,-99.5\n+3,1e-50,2.5e3\n1e-400,-0.0,1\n", "t.csv");
    ASSERT_EQ(t.Observations(), 4);
    ASSERT_EQ(t.Variables(), 3);
    EXPECT_FALSE(t.hasNames);
    EXPECT_EQ(t.observations, (std::vector<std::string>{"1", "2", "3", "4"}));
    EXPECT_EQ(t.values.GetNumMisVal(), 4);
    EXPECT_EQ(t.values.GetColumnMisVal(1), 1);
    EXPECT_EQ(t.values.GetColumnMisVal(3), 1);
    EXPECT_EQ(t.values[2][3], -99.5f); // only -99 itself is the marker
    EXPECT_EQ(t.values[3][1], 3.0f);
    EXPECT_EQ(t.values[3][2], 0.0f); // below the float range reads as zero
    EXPECT_EQ(t.values[3][3], 2500.0f);
    EXPECT_EQ(t.values[4][1], 0.0f);

    float v = 0.0f;
    for (const char* text : {"nan", "inf", "-inf", "1.5x", "1,5", "- 1", "0x10"})
        EXPECT_FALSE(ParseCell(text, v)) << text;
}

TEST(CsvTable, NameColumnDetection)
{
    // An empty corner cell, or text in the first data cell, makes column 1 names.
    DataTable t = ParseCsvTable(",x,y\n7,1,2\n8,3,4\n", "t.csv");
    EXPECT_TRUE(t.hasNames);
    EXPECT_EQ(t.observations, (std::vector<std::string>{"7", "8"}));
    EXPECT_EQ(t.variables, (std::vector<std::string>{"x", "y"}));

    t = ParseCsvTable("wine,x,y\nc1-001,1,2\nc2-002,3,4\n", "t.csv");
    EXPECT_TRUE(t.hasNames);
    EXPECT_EQ(t.namesHeader, "wine");
    EXPECT_EQ(t.Where(2, 1), "t.csv: row 3, column 2 (\"x\")");

    // Numeric ids are a variable unless the caller says otherwise.
    EXPECT_EQ(ParseCsvTable("id,x\n1,2\n2,3\n", "t.csv").Variables(), 2);
    t = ParseCsvTable("id,x\n1,2\n2,3\n", "t.csv", NamesColumn::First);
    EXPECT_EQ(t.Variables(), 1);
    EXPECT_EQ(t.observations, (std::vector<std::string>{"1", "2"}));

    // A name-only table has nothing to analyse; forcing no names makes text an error.
    EXPECT_NE(ParseError("id\na\nb\n").find("no variables"), std::string::npos);
    EXPECT_EQ(ParseError("id,x\na,1\n", NamesColumn::None), "t.csv: row 2, column 1 (\"id\"): \"a\" is not a number");
    EXPECT_NE(ParseError("id,x\n1,1\nb,2\n").find("use --names first"), std::string::npos);
    // An unnamed variable still gets a name for messages and output.
    EXPECT_EQ(ParseCsvTable("a,,c\n1,2,3\n", "t.csv").variables[1], "Var2");
}

TEST(CsvTable, QuotesBomAndLineEnds)
{
    const std::string lf = "\"obs, name\",\"say \"\"hi\"\"\",b\n\"r,1\",1,2\n\"two\nlines\",3,4\n";
    DataTable t = ParseCsvTable(lf, "t.csv");
    EXPECT_EQ(t.namesHeader, "obs, name");
    EXPECT_EQ(t.variables, (std::vector<std::string>{"say \"hi\"", "b"}));
    EXPECT_EQ(t.observations, (std::vector<std::string>{"r,1", "two\nlines"}));

    // BOM, CRLF, blank lines and no final line end give the same table, and
    // rows in messages stay the lines a spreadsheet shows.
    const std::string crlf = "\xEF\xBB\xBFname,a,b\r\nr1,1,2\r\n\r\nr2,3,4";
    t = ParseCsvTable(crlf, "t.csv");
    EXPECT_EQ(t.namesHeader, "name");
    EXPECT_EQ(t.observations, (std::vector<std::string>{"r1", "r2"}));
    EXPECT_EQ(t.fileRows, (std::vector<int>{2, 4}));
    EXPECT_EQ(t.values[2][2], 4.0f);
    EXPECT_EQ(ParseError("name,a,b\r\nr1,1,2\r\n\r\nr2,3,x\r\n"),
              "t.csv: row 4, column 3 (\"b\"): \"x\" is not a number");
    EXPECT_EQ(ParseError("name,a\nr1,1\n\n\"r2\"x,2\n"), "t.csv: row 4, column 1: a quote is misplaced (a quoted "
                                                         "field must end at a comma or a line end, and quotes "
                                                         "inside it are doubled)");
    EXPECT_EQ(ParseError("name,a\nr1,\"1\n"), "t.csv: row 2, column 2: a quoted field is not closed");
}

// In a single column a blank line is an empty cell: the series keeps its
// positions. Blank lines after the last value end the file.
TEST(CsvTable, BlankLinesInOneColumnAreMissingValues)
{
    DataTable t = ParseCsvTable("y\n1\n\n\r\n4\n\n\n", "t.csv");
    ASSERT_EQ(t.values.SizeRows(), 4);
    EXPECT_EQ(t.values[1][1], 1.0f);
    EXPECT_TRUE(IsMisVal(t.values[2][1]));
    EXPECT_TRUE(IsMisVal(t.values[3][1]));
    EXPECT_EQ(t.values[4][1], 4.0f);
    EXPECT_EQ(t.fileRows, (std::vector<int>{2, 3, 4, 5}));
    // Two columns: a blank line is no row.
    EXPECT_EQ(ParseCsvTable("a,b\n1,2\n\n3,4\n", "t.csv").values.SizeRows(), 2);
}

TEST(CsvTable, MalformedTables)
{
    EXPECT_EQ(ParseError("a,b\n1,2\n3\n"), "t.csv: row 3 has 1 cell, the header row has 2");
    EXPECT_EQ(ParseError("a,b\n1,2\n3,4,\n"), "t.csv: row 3 has 3 cells, the header row has 2");
    EXPECT_EQ(ParseError("n,a,b\nr1,1,2\nr2,5,abc\n"), "t.csv: row 3, column 3 (\"b\"): \"abc\" is not a number");
    EXPECT_EQ(ParseError("a,b\n1,1e39\n"), "t.csv: row 2, column 2 (\"b\"): \"1e39\" is beyond the range of a float");
    EXPECT_NE(ParseError("a,b\n1,-1e400\n").find("beyond the range"), std::string::npos);
    EXPECT_EQ(ParseError(""), "t.csv: the file is empty");
    EXPECT_EQ(ParseError("\xEF\xBB\xBF\n\n"), "t.csv: the file is empty");
    EXPECT_EQ(ParseError("a,b\n"), "t.csv: no data rows below the header row");

    TempDir dir;
    try {
        ReadCsvTable(dir.File("absent.csv"));
        FAIL() << "no error for a missing file";
    } catch (const ToolError& e) {
        EXPECT_EQ(std::string(e.what()), dir.File("absent.csv") + ": cannot open: No such file or directory");
    }
}

TEST(CsvWriter, RecordsReadBackAndValuesRoundTrip)
{
    const std::vector<std::string> awkward{"plain", "a,b", "say \"x\"", " padded ", "two\nlines", ""};
    std::ostringstream out;
    WriteCsvRecord(out, awkward);
    WriteCsvRecord(out, {"r", "1", "2", "3", "4", "5"});
    EXPECT_EQ(out.str().substr(0, 6), "plain,");
    const DataTable back = ParseCsvTable(out.str(), "w.csv", NamesColumn::First);
    EXPECT_EQ(back.namesHeader, awkward[0]);
    EXPECT_EQ(back.variables, (std::vector<std::string>{"a,b", "say \"x\"", " padded ", "two\nlines", "Var5"}));

    for (float v : {0.1f, -1.0f / 3.0f, 1e-38f, 3.4028235e38f, 123456789.0f, 0.0f}) {
        float read = 0.0f;
        ASSERT_TRUE(ParseCell(FormatValue(v), read));
        EXPECT_EQ(read, v) << FormatValue(v);
    }
    EXPECT_EQ(FormatValue(0.1f), "0.1");
    EXPECT_EQ(FormatValue(-99.0f), "");
}

TEST(CsvWriter, AtomicFileAppearsWholeOrNotAtAll)
{
    TempDir dir;
    const std::string target = dir.File("out.csv");
    {
        AtomicFile abandoned(target);
        abandoned.Stream() << "half";
    }
    EXPECT_TRUE(dir.Entries().empty());

    cli_test::WriteFile(target, "old");
    {
        AtomicFile file(target);
        file.Stream() << "new";
        EXPECT_EQ(cli_test::ReadFile(target), "old"); // the old content stands until Commit
        file.Commit();
    }
    EXPECT_EQ(cli_test::ReadFile(target), "new");
    EXPECT_EQ(dir.Entries(), std::set<std::string>{"out.csv"});
    EXPECT_THROW(AtomicFile(dir.File("no/such/folder.csv")), ToolError);
}
