// The block reader of quote-free text against libcsv reading the same text:
// every table, row number, text cell and message must be the same.
#include "cli/CsvTable.h"
#include "cli/ToolError.h"

#include "veltancmat/containers/frame/MissingValue.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

using namespace veltan_cli;

namespace {

// Everything a reading gives, as text: equal texts mean equal readings.
std::string Reading(const std::string& text, NamesColumn names, bool keepText, const CsvReading& how)
{
    std::ostringstream out;
    try {
        const DataTable t = ParseCsvTable(text, "t.csv", names, keepText, how);
        out << "names " << t.hasNames << " [" << t.namesHeader << "]\n";
        for (const std::string& v : t.variables)
            out << "var [" << v << "]\n";
        for (std::size_t i = 0; i < t.observations.size(); ++i)
            out << "obs [" << t.observations[i] << "] row " << t.fileRows[i] << "\n";
        for (int i = 1; i <= t.Observations(); ++i) {
            for (int j = 1; j <= t.Variables(); ++j) {
                std::uint32_t bits = 0;
                const float v = t.values[i][j];
                std::memcpy(&bits, &v, sizeof bits);
                out << bits << (j < t.Variables() ? "," : "\n");
            }
        }
        out << "missing " << t.values.GetNumMisVal();
        for (int j = 1; j <= t.Variables(); ++j)
            out << " " << t.values.GetColumnMisVal(j);
        out << "\n";
        for (const TextCell& c : t.textCells)
            out << "text " << c.observation << " " << c.variable << " " << c.problem << "\n";
    } catch (const ToolError& e) {
        out << "error " << e.what();
    }
    return out.str();
}

void ExpectSameAsLibcsv(const std::string& text, int blockRows)
{
    for (NamesColumn names : {NamesColumn::Auto, NamesColumn::First, NamesColumn::None}) {
        for (bool keepText : {false, true}) {
            const std::string reference = Reading(text, names, keepText, CsvReading{false, 0});
            ASSERT_EQ(Reading(text, names, keepText, CsvReading{true, blockRows}), reference)
                << "text: [" << text << "] names " << static_cast<int>(names) << " keepText " << keepText
                << " blockRows " << blockRows;
        }
    }
}

std::string DataRow(std::size_t i, int width)
{
    std::string row = "r" + std::to_string(i);
    for (int j = 1; j < width; ++j)
        row += "," + std::to_string(static_cast<int>(i) * 10 + j);
    return row + "\n";
}

} // namespace

// Random tables from the pieces that matter to the reader: numbers in every
// form, missing markers, text, spaces, every line end, blank lines, ragged
// rows, and now and then quotes that send the start of the text to libcsv.
TEST(CsvBlocks, RandomTablesReadAsLibcsvReadsThem)
{
    const std::vector<std::string> cells{"1",    "-2.5", "1e-50", "1e39", "-99", "-99.0", "NA",  "",    " 3 ", "\t4",
                                         "+5",   "x",    "nan",   "0x1",  "7.",  ".5",    "1,2", "a b", " ",   "-1e400",
                                         "\"q\"", "\"a,\nb\"", "\"x\"\"y\"", "\"open", "c\"d"};
    const std::vector<std::string> ends{"\n", "\r\n", "\r", "\r \n", "\n\n", " \n", "\n\t\n", "\r\r\n"};
    std::mt19937 rng(20261125);
    auto pick = [&](const std::vector<std::string>& from, std::size_t plain) {
        // Mostly the plain pieces (those before `plain`), so that most
        // tables go the block way.
        const std::size_t limit = std::uniform_int_distribution<int>(0, 9)(rng) == 0 ? from.size() : plain;
        return from[std::uniform_int_distribution<std::size_t>(0, limit - 1)(rng)];
    };
    for (int trial = 0; trial < 3000; ++trial) {
        const int width = std::uniform_int_distribution<int>(1, 4)(rng);
        const int rows = std::uniform_int_distribution<int>(0, 9)(rng);
        std::string text = std::uniform_int_distribution<int>(0, 9)(rng) == 0 ? "\xEF\xBB\xBF" : "";
        for (int r = 0; r <= rows; ++r) {
            int fields = width;
            if (std::uniform_int_distribution<int>(0, 14)(rng) == 0)
                fields += std::uniform_int_distribution<int>(0, 1)(rng) ? 1 : -1;
            for (int f = 0; f < fields; ++f) {
                if (f > 0)
                    text += ",";
                text += r == 0 ? (std::uniform_int_distribution<int>(0, 3)(rng) ? "v" + std::to_string(f) : "")
                               : pick(cells, 20);
            }
            if (r < rows || std::uniform_int_distribution<int>(0, 2)(rng))
                text += pick(ends, 8);
        }
        const int blockRows = std::uniform_int_distribution<int>(1, 3)(rng);
        ExpectSameAsLibcsv(text, blockRows);
        if (testing::Test::HasFatalFailure())
            return;
    }
}

TEST(CsvBlocks, QuotesEndWhereLibcsvStops)
{
    // A quoted name holding a line break and a comma, then plain rows in
    // blocks of one.
    std::string text = "name,a,b\n\"r,1\nstill r1\",1,2\n";
    for (std::size_t i = 2; i <= 6; ++i)
        text += DataRow(i, 3);
    ExpectSameAsLibcsv(text, 1);
    const DataTable t = ParseCsvTable(text, "t.csv", NamesColumn::Auto, false, CsvReading{true, 1});
    EXPECT_EQ(t.observations[0], "r,1\nstill r1");
    EXPECT_EQ(t.fileRows, (std::vector<int>{2, 3, 4, 5, 6, 7})); // a quoted line break is no row
    EXPECT_EQ(t.values[6][2], 62.0f);

    // The line end after the last quote lies inside a field that is never
    // closed: libcsv reads to the end and names the open field.
    ExpectSameAsLibcsv("a,b\n1,\"2\n3,4\n5,6\n", 1);
    // A CR after the last quote, then the LF of its CRLF in the plain part.
    ExpectSameAsLibcsv("\"a\",b\r\n1,2\r\n3,4", 1);
    // A quoted header only, as many programs write it.
    ExpectSameAsLibcsv("\"x\",\"y\"\n1,2\n3,4\n", 1);
}

TEST(CsvBlocks, LineEndsAndTheLastLine)
{
    const std::string crlf = "name,a,b\r\nr1,1,2\r\n\r\nr2,3,4\r\nr3,5,6";
    ExpectSameAsLibcsv(crlf, 1);
    DataTable t = ParseCsvTable(crlf, "t.csv", NamesColumn::Auto, false, CsvReading{true, 1});
    EXPECT_EQ(t.fileRows, (std::vector<int>{2, 4, 5}));
    EXPECT_EQ(t.values[3][2], 6.0f);
    // Old Mac line ends, and a last line of spaces only, which is no row.
    ExpectSameAsLibcsv("a\r1\r\r2\r  ", 1);
    t = ParseCsvTable("a\r1\r\r2\r  ", "t.csv", NamesColumn::Auto, false, CsvReading{true, 1});
    EXPECT_EQ(t.fileRows, (std::vector<int>{2, 3, 4}));
    EXPECT_TRUE(IsMisVal(t.values[2][1]));
    // A blank line of one column at a block boundary is still a missing value.
    ExpectSameAsLibcsv("y\n1\n\n\n4\n\n", 1);
}

// Errors found in a later block are still the first in the file, with the
// row a spreadsheet shows.
TEST(CsvBlocks, ErrorsInLaterBlocksNameTheirRows)
{
    std::string text = "name,a,b\n";
    for (std::size_t i = 1; i <= 9; ++i)
        text += DataRow(i, 3);
    std::string bad = text;
    bad.replace(bad.find("r7,71,72"), 8, "r7,71,zz");
    bad.replace(bad.find("r9,91,92"), 8, "r9,91");
    const CsvReading blocks{true, 2};
    EXPECT_EQ(Reading(bad, NamesColumn::Auto, false, blocks),
              "error t.csv: row 8, column 3 (\"b\"): \"zz\" is not a number");
    // Kept as text instead, the later ragged row is the error.
    EXPECT_EQ(Reading(bad, NamesColumn::Auto, true, blocks), "error t.csv: row 10 has 2 cells, the header row has 3");

    // A row that is both ragged and holds text reports its cell count, as
    // the count is checked before the cells.
    std::string ragged = text;
    ragged.replace(ragged.find("r5,51,52"), 8, "r5,x,52,53");
    EXPECT_EQ(Reading(ragged, NamesColumn::Auto, false, blocks),
              "error t.csv: row 6 has 4 cells, the header row has 3");

    std::string kept = text;
    kept.replace(kept.find("r3,31,32"), 8, "r3,u,32");
    kept.replace(kept.find("r8,81,82"), 8, "r8,81,w");
    const DataTable t = ParseCsvTable(kept, "t.csv", NamesColumn::Auto, true, blocks);
    ASSERT_EQ(t.textCells.size(), 2u);
    EXPECT_EQ(t.textCells[0].observation, 3);
    EXPECT_EQ(t.textCells[0].variable, 1);
    EXPECT_EQ(t.textCells[1].observation, 8);
    EXPECT_EQ(t.textCells[1].problem, "\"w\" is not a number");
    for (const std::string& s : {bad, ragged, kept})
        ExpectSameAsLibcsv(s, 2);
}

// A table large enough for the team, read with four threads whatever the
// machine has, against libcsv.
TEST(CsvBlocks, LargeTableOnTheTeamMatchesLibcsv)
{
    std::mt19937 rng(7);
    std::normal_distribution<double> normal;
    std::ostringstream csv;
    csv << "id";
    for (int j = 1; j <= 40; ++j)
        csv << ",v" << j;
    csv << "\r\n";
    for (int i = 1; i <= 4000; ++i) {
        csv << "s" << i;
        for (int j = 1; j <= 40; ++j) {
            const double v = normal(rng) * std::pow(10.0, (i + j) % 9 - 4);
            if ((i * j) % 97 == 0)
                csv << ",NA";
            else if ((i + j) % 101 == 0)
                csv << ", " << v << " ";
            else
                csv << "," << v;
        }
        csv << "\r\n";
    }
    const std::string text = csv.str();
    ASSERT_GT(text.size(), std::size_t{1} << 20);
    const int before = omp_get_max_threads();
    omp_set_num_threads(4);
    const std::string blocks = Reading(text, NamesColumn::Auto, false, CsvReading{});
    omp_set_num_threads(before);
    EXPECT_EQ(blocks, Reading(text, NamesColumn::Auto, false, CsvReading{false, 0}));
    EXPECT_EQ(blocks.substr(0, 8), "names 1 ");
}

// Short decimals take a fast path of their own; from_chars, behind libcsv's
// reading, is the reference for every digit count, sign and decimal count
// around the path's limits (2^24, 9 digits, 10 decimals).
TEST(CsvBlocks, DecimalsReadAsFromCharsReadsThem)
{
    std::mt19937 rng(24);
    std::ostringstream csv;
    csv << "a,b,c,d\n0,0,0,0\n"; // the first data row goes the plain way
    const std::vector<std::string> edges{"16777216", "16777217", "16777215.0", "-0", "-0.0", "0.0000000001",
                                         "0.00000000001", "123456789", "1234567890", "5.", ".5", "-.5", "00012",
                                         "9.999999999", "3355443.3", "0.1", "-99", "-99.00", "1.5e3", "-"};
    for (std::size_t e = 0; e + 4 <= edges.size(); e += 4)
        csv << edges[e] << "," << edges[e + 1] << "," << edges[e + 2] << "," << edges[e + 3] << "\n";
    for (int i = 0; i < 5000; ++i) {
        for (int j = 0; j < 4; ++j) {
            const int digits = std::uniform_int_distribution<int>(1, 10)(rng);
            std::string number = std::uniform_int_distribution<int>(0, 2)(rng) == 0 ? "-" : "";
            for (int d = 0; d < digits; ++d)
                number += static_cast<char>('0' + std::uniform_int_distribution<int>(0, 9)(rng));
            const int point = std::uniform_int_distribution<int>(0, digits)(rng);
            if (point < digits)
                number.insert(number.size() - static_cast<std::size_t>(point), ".");
            csv << (j ? "," : "") << number;
        }
        csv << "\n";
    }
    const std::string text = csv.str();
    EXPECT_EQ(Reading(text, NamesColumn::None, true, CsvReading{true, 64}),
              Reading(text, NamesColumn::None, true, CsvReading{false, 0}));
}
