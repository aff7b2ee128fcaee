#include "CliTestSupport.h"
#include "XmlCheck.h"

#include "cli/SvgPlot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <limits>
#include <sstream>

using namespace cli_test;
using testing::HasSubstr;
using veltan_cli::AxisTicks;
using veltan_cli::NiceTicks;
using veltan_cli::PlotFigure;
using veltan_cli::PlotPanel;
using veltan_cli::PlotSeries;

namespace {

// A step is nice when it is 1, 2 or 5 times a power of ten.
bool NiceStep(double step)
{
    const double power = std::pow(10.0, std::floor(std::log10(step) + 1e-9));
    const double mantissa = step / power;
    for (const double m : {1.0, 2.0, 5.0, 10.0})
        if (std::fabs(mantissa - m) < 1e-9 * m)
            return true;
    return false;
}

// Every property a tick set must have for the data range [low, high].
void ExpectRoundTicksEnclosing(double low, double high)
{
    SCOPED_TRACE(std::to_string(low) + " .. " + std::to_string(high));
    const AxisTicks t = NiceTicks(low, high);
    EXPECT_TRUE(NiceStep(t.step)) << t.step;
    ASSERT_GE(t.values.size(), 3u);
    EXPECT_LE(t.values.size(), 11u);
    EXPECT_LE(t.low, low);
    EXPECT_GE(t.high, high);
    EXPECT_DOUBLE_EQ(t.values.front(), t.low);
    EXPECT_NEAR(t.values.back(), t.high, 1e-9 * std::fabs(t.high));
    for (std::size_t i = 0; i < t.values.size(); ++i) {
        const double multiple = t.values[i] / t.step;
        EXPECT_NEAR(multiple, std::round(multiple), 1e-6) << t.values[i];
        if (i > 0) {
            EXPECT_NEAR(t.values[i] - t.values[i - 1], t.step, 1e-9 * t.step);
        }
    }
    // The ticks are not so loose that the data fill less than a third.
    if (high > low) {
        EXPECT_GT(high - low, (t.high - t.low) / 3.0);
    }
}

std::string Svg(const PlotFigure& figure)
{
    std::ostringstream out;
    veltan_cli::WriteSvg(out, figure);
    return out.str();
}

std::vector<std::string> LabelTexts(const XmlDocument& doc)
{
    std::vector<std::string> texts;
    for (const XmlElement& e : ElementsOfClass(doc, "text", "label"))
        texts.push_back(e.text);
    return texts;
}

} // namespace

TEST(SvgPlot, TicksAreRoundAndEncloseTheData)
{
    for (const auto& [low, high] : std::vector<std::pair<double, double>>{
             {0.0, 1.0}, {-3.7, 5.2}, {-250.0, -0.3}, {1e-9, 3.2e-9}, {0.0, 2.3e12}, {-1e-6, 1e-6}, {0.001, 1000.0},
             {99.2, 100.1}, {17.0, 17.0}})
        ExpectRoundTicksEnclosing(low, high);

    EXPECT_EQ(NiceTicks(0.0, 1.0).values, (std::vector<double>{0.0, 0.2, 0.4, 0.6000000000000001, 0.8, 1.0}));
    EXPECT_EQ(NiceTicks(-3.7, 5.2).values, (std::vector<double>{-4, -2, 0, 2, 4, 6}));
    // A single value, zero included, still gets an axis around it.
    const AxisTicks single = NiceTicks(5.0, 5.0);
    EXPECT_LT(single.low, 5.0);
    EXPECT_GT(single.high, 5.0);
    EXPECT_EQ(NiceTicks(0.0, 0.0).values, (std::vector<double>{-1.0, -0.5, 0.0, 0.5, 1.0}));
    // Reversed ends are the same range.
    EXPECT_EQ(NiceTicks(5.2, -3.7).values, NiceTicks(-3.7, 5.2).values);
}

TEST(SvgPlot, TickLabelsShowTheirStepsDecimals)
{
    using veltan_cli::FormatTick;
    EXPECT_EQ(FormatTick(0.6000000000000001, 0.2), "0.6");
    EXPECT_EQ(FormatTick(-4.0, 2.0), "-4");
    EXPECT_EQ(FormatTick(0.15, 0.05), "0.15");
    EXPECT_EQ(FormatTick(1500.0, 500.0), "1500");
    EXPECT_EQ(FormatTick(1.5e12, 5e11), "1.5e+12");
    EXPECT_EQ(FormatTick(3e-9, 5e-10), "3e-09");
    // Rounding noise at zero must not print as "-0".
    EXPECT_EQ(FormatTick(-1e-17, 0.1), "0.0");
    EXPECT_EQ(FormatTick(-1e-17, 10.0), "0");
}

TEST(SvgPlot, XmlCheckerRefusesWhatAStrictParserRefuses)
{
    EXPECT_EQ(ParseXml("<a x=\"1\"><b>t &amp; u</b><c/></a>").fault, "");
    for (const char* bad : {"<a><b></a></b>", "<a x=1/>", "<a>x & y</a>", "<a x=\"<\"/>", "<a>", "<a/><b/>",
                            "<a x=\"1\" x=\"2\"/>", "<a>&bogus;</a>", "text"})
        EXPECT_NE(ParseXml(bad).fault, "") << bad;
    EXPECT_EQ(veltan_cli::XmlEscape("a<b & \"c\" 'd'>"), "a&lt;b &amp; &quot;c&quot; &apos;d&apos;&gt;");
}

// A figure of every mark kind: one element per drawable mark, missing
// (NaN) ones left out, text escaped, and the whole document well-formed.
TEST(SvgPlot, FigureHasOneMarkPerValueAndEscapedText)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    PlotSeries points{
        PlotSeries::Kind::Points, "obs <1>", {1, 2, nan, 4}, {3, -1, 2, 0.5}, {"a&b", "<c>", "d", "\"e\""}};
    PlotSeries line{PlotSeries::Kind::Line, "y = x", {0, 4}, {0, 4}, {}};
    PlotSeries bars{PlotSeries::Kind::Bars, "", {1, 2, 3}, {2.5, -1.0, nan}, {}};
    const PlotFigure figure{"Title & <more>",
                            {PlotPanel{"one", "x 'axis'", "y", {points, line}, true, true},
                             PlotPanel{"two", "i", "v", {bars}, false, false},
                             PlotPanel{"empty", "", "", {}, false, false}}};
    const std::string svg = Svg(figure);
    const XmlDocument doc = ParseXml(svg);
    ASSERT_EQ(doc.fault, "") << svg;
    ASSERT_FALSE(doc.elements.empty());
    EXPECT_EQ(doc.elements[0].name, "svg");
    EXPECT_EQ(ElementsOfClass(doc, "circle", "point").size(), 3u);
    EXPECT_EQ(ElementsOfClass(doc, "rect", "bar").size(), 2u);
    EXPECT_EQ(ElementsOfClass(doc, "polyline", "line").size(), 1u);
    EXPECT_EQ(ElementsOfClass(doc, "g", "panel").size(), 3u);
    EXPECT_EQ(ElementsOfClass(doc, "g", "legend").size(), 1u);
    EXPECT_EQ(ElementsOfClass(doc, "text", "title").at(0).text, "Title & <more>");
    EXPECT_THAT(LabelTexts(doc), testing::UnorderedElementsAre("a&b", "<c>", "\"e\""));
    // No coordinate is ever written as nan or inf.
    EXPECT_EQ(svg.find("nan"), std::string::npos);
    EXPECT_EQ(svg.find("inf"), std::string::npos);
}

// Crowded points keep every mark but only the labels that fit apart.
TEST(SvgPlot, CrowdedLabelsAreThinnedNotOverlapped)
{
    PlotSeries points;
    for (int i = 0; i < 400; ++i) {
        points.x.push_back(std::sin(i * 0.7) * (i % 17));
        points.y.push_back(std::cos(i * 1.3) * (i % 11));
        points.labels.push_back("observation-" + std::to_string(i));
    }
    const XmlDocument doc = ParseXml(Svg(PlotFigure{"", {PlotPanel{"p", "x", "y", {points}, false, false}}}));
    ASSERT_EQ(doc.fault, "");
    EXPECT_EQ(ElementsOfClass(doc, "circle", "point").size(), 400u);
    const std::size_t labels = ElementsOfClass(doc, "text", "label").size();
    EXPECT_GT(labels, 10u);
    EXPECT_LT(labels, 200u);
}

// The control-chart parts: a line breaks at a missing value instead of
// bridging it, flagged points get a ring at their own place, levels span the
// plot and count in its range, and a tight axis ends near the data.
TEST(SvgPlot, BrokenLinesRingsAndLevels)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    PlotSeries line;
    line.kind = PlotSeries::Kind::Line;
    line.x = {0, 1, 2, 3, 4, 5, 6};
    line.y = {1, 2, nan, 2, 1, nan, 3};
    PlotSeries points;
    points.x = {0, 1, 2, 41};
    points.y = {1, 2, 1.5, 2};
    points.flagged = {false, true, false, true};
    PlotSeries ucl;
    ucl.kind = PlotSeries::Kind::Level;
    ucl.y = {9.0};
    ucl.name = "UCL 9";
    ucl.dashed = true;
    PlotPanel panel{"chart", "i", "v", {line, points, ucl}, false, false};
    panel.tightX = true;
    PlotFigure figure{"", {panel}};
    figure.panelsPerRow = 1;
    figure.panelWidth = 900.0;
    figure.panelHeight = 300.0;
    const std::string svg = Svg(figure);
    const XmlDocument doc = ParseXml(svg);
    ASSERT_EQ(doc.fault, "") << svg;
    EXPECT_EQ(doc.elements[0].attributes.at("width"), "900.00");
    EXPECT_EQ(ElementsOfClass(doc, "polyline", "line").size(), 3u);
    const std::vector<XmlElement> marks = ElementsOfClass(doc, "circle", "point");
    const std::vector<XmlElement> rings = ElementsOfClass(doc, "circle", "flagged");
    ASSERT_EQ(marks.size(), 4u);
    ASSERT_EQ(rings.size(), 2u);
    EXPECT_EQ(rings[0].attributes.at("cx"), marks[1].attributes.at("cx"));
    EXPECT_EQ(rings[1].attributes.at("cy"), marks[3].attributes.at("cy"));
    // The level is inside the y range (ticks reach 9 or beyond), across the
    // whole frame, captioned right of it, and not in a legend.
    const std::vector<XmlElement> levels = ElementsOfClass(doc, "line", "level");
    ASSERT_EQ(levels.size(), 1u);
    EXPECT_THAT(levels[0].attributes.at("stroke-dasharray"), testing::Not(testing::IsEmpty()));
    const std::vector<XmlElement> captions = ElementsOfClass(doc, "text", "level-label");
    ASSERT_EQ(captions.size(), 1u);
    EXPECT_EQ(captions[0].text, "UCL 9");
    EXPECT_GT(std::stod(captions[0].attributes.at("x")), std::stod(levels[0].attributes.at("x2")));
    EXPECT_EQ(ElementsOfClass(doc, "g", "legend").size(), 0u);
    std::vector<double> xTicks;
    bool nine = false;
    for (const XmlElement& tick : ElementsOfClass(doc, "text", "tick")) {
        if (tick.attributes.at("text-anchor") == "middle")
            xTicks.push_back(std::stod(tick.text));
        else
            nine = nine || std::stod(tick.text) >= 9.0;
    }
    EXPECT_TRUE(nine);
    // Data 0 to 41: a loose axis would run to 50.
    ASSERT_FALSE(xTicks.empty());
    EXPECT_LE(xTicks.back(), 41.0 * 1.05);
}

TEST(VeltanPlot, PcaScoreAndLoadingPlotsMarkEveryObservationAndVariable)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), TwoFactorTable(40, 6, 21));
    const RunResult r = Veltan(dir, {"pca", dir.File("d.csv"), "--components", "2", "--plot", dir.File("t.svg"),
                                     "--plot-loadings", dir.File("p.svg")});
    EXPECT_THAT(r.out, HasSubstr("\nScore plot written to " + dir.File("t.svg") + "\nLoading plot written to " +
                                 dir.File("p.svg") + "\n"));
    const XmlDocument scores = ParseXml(ReadFile(dir.File("t.svg")));
    ASSERT_EQ(scores.fault, "");
    EXPECT_EQ(ElementsOfClass(scores, "circle", "point").size(), 40u);
    for (const std::string& label : LabelTexts(scores))
        EXPECT_EQ(label.substr(0, 1), "o") << label;
    const std::vector<XmlElement> axes = ElementsOfClass(scores, "text", "axis-title");
    ASSERT_EQ(axes.size(), 2u);
    EXPECT_THAT(axes[0].text, testing::MatchesRegex("t\\[1\\] \\([0-9]+\\.[0-9] %\\)"));
    EXPECT_THAT(axes[1].text, testing::StartsWith("t[2] ("));

    const XmlDocument loadings = ParseXml(ReadFile(dir.File("p.svg")));
    ASSERT_EQ(loadings.fault, "");
    EXPECT_EQ(ElementsOfClass(loadings, "circle", "point").size(), 6u);
    // Six well-spread variables: every one is named.
    EXPECT_THAT(LabelTexts(loadings), testing::UnorderedElementsAre("v1", "v2", "v3", "v4", "v5", "v6"));

    // JSON lists the plots among the files.
    const nlohmann::json doc = nlohmann::json::parse(
        Veltan(dir, {"pca", dir.File("d.csv"), "--components", "2", "--json", "--plot", dir.File("t2.svg")}).out);
    EXPECT_EQ(doc["files"]["plot"], dir.File("t2.svg"));
}

// An observation without any value has no scores: it gets no mark, rather
// than one at the missing marker's coordinates.
TEST(VeltanPlot, ObservationsWithoutScoresAreLeftOut)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), "name,a,b,c,d\nr1,1,2,3,4\nr2,2,1,4,3\nr3,NA,NA,NA,NA\nr4,4,5,2,1\nr5,2,2,2,5\n"
                                 "r6,5,3,1,2\nr7,3,4,4,4\n");
    Veltan(dir, {"pca", dir.File("d.csv"), "--components", "2", "--plot", dir.File("t.svg")});
    const XmlDocument doc = ParseXml(ReadFile(dir.File("t.svg")));
    ASSERT_EQ(doc.fault, "");
    EXPECT_EQ(ElementsOfClass(doc, "circle", "point").size(), 6u);
    EXPECT_THAT(LabelTexts(doc), testing::Not(testing::Contains("r3")));
}

TEST(VeltanPlot, OneComponentIsDrawnAgainstTheObservationIndex)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), TwoFactorTable(25, 5, 4));
    Veltan(dir, {"pca", dir.File("d.csv"), "--components", "1", "--plot", dir.File("t.svg")});
    const XmlDocument doc = ParseXml(ReadFile(dir.File("t.svg")));
    ASSERT_EQ(doc.fault, "");
    EXPECT_EQ(ElementsOfClass(doc, "circle", "point").size(), 25u);
    EXPECT_THAT(ElementsOfClass(doc, "text", "panel-title").at(0).text, HasSubstr("observation index"));
    EXPECT_EQ(ElementsOfClass(doc, "text", "axis-title").at(0).text, "observation index");
}

TEST(VeltanPlot, PlsDrawsOnePanelPerResponseWithItsDiagonal)
{
    TempDir dir;
    std::string table = TwoFactorTable(30, 6, 8);
    // A missing response value leaves that panel one point short.
    const std::size_t row = table.find("\no3,");
    const std::size_t cell = table.find(',', row + 1);
    table.replace(cell + 1, table.find(',', cell + 1) - cell - 1, "NA");
    WriteFile(dir.File("d.csv"), table);
    const RunResult r = Veltan(dir, {"pls", dir.File("d.csv"), "--y", "v1", "--y", "v2", "--components", "2",
                                     "--plot", dir.File("y.svg")});
    EXPECT_THAT(r.out, HasSubstr("Prediction plot written to " + dir.File("y.svg")));
    const XmlDocument doc = ParseXml(ReadFile(dir.File("y.svg")));
    ASSERT_EQ(doc.fault, "");
    const std::vector<XmlElement> titles = ElementsOfClass(doc, "text", "panel-title");
    ASSERT_EQ(titles.size(), 2u);
    EXPECT_EQ(titles[0].text, "v1");
    EXPECT_EQ(titles[1].text, "v2");
    EXPECT_EQ(ElementsOfClass(doc, "circle", "point").size(), 59u);
    EXPECT_EQ(ElementsOfClass(doc, "polyline", "line").size(), 2u);
}

// A plot is an output file like the others: a path that cannot be written
// fails the run with exit 1 and leaves no file at all, and so does a plot
// of a model without components.
TEST(VeltanPlot, UnwritablePlotsLeaveNoFile)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), TwoFactorTable(20, 4, 3));
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"pca", dir.File("d.csv"), "--scores", dir.File("s.csv"), "--plot", dir.File("no/t.svg")},
             {"pca", dir.File("d.csv"), "--plot", dir.File("t.svg"), "--plot-loadings", dir.File("no/p.svg")},
             {"pls", dir.File("d.csv"), "--y", "v1", "--fitted", dir.File("f.csv"), "--plot", dir.File("no/y.svg")}}) {
        const RunResult r = Veltan(dir, args, 1);
        EXPECT_THAT(r.err,
                    testing::MatchesRegex("veltan: .*/no/[tpy]\\.svg: cannot create: No such file or directory\n"));
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(dir.Entries(), std::set<std::string>{"d.csv"});
    }

    // Independent columns: no component is significant, so nothing to draw.
    std::mt19937 rng(5);
    std::normal_distribution<double> normal;
    std::ostringstream noise;
    noise << "obs,a,b,c,d\n";
    for (int i = 1; i <= 30; ++i)
        noise << "o" << i << "," << normal(rng) << "," << normal(rng) << "," << normal(rng) << "," << normal(rng)
              << "\n";
    WriteFile(dir.File("noise.csv"), noise.str());
    const RunResult r = Veltan(dir, {"pca", dir.File("noise.csv"), "--scores", dir.File("s.csv"), "--plot",
                                     dir.File("t.svg")}, 1);
    EXPECT_EQ(r.err, "veltan: " + dir.File("noise.csv") + ": no component was kept, so there are no scores to plot\n");
    EXPECT_EQ(dir.Entries(), (std::set<std::string>{"d.csv", "noise.csv"}));
}
