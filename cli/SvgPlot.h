#pragma once

#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace veltan_cli {

// The tool's plots: SVG figures of one or more panels, written with the
// standard library only so that every command can draw without another
// dependency. Coordinates are data units; a NaN coordinate is not drawn,
// which is how callers leave out missing values.

// Tick marks at round values: steps of 1, 2 or 5 times a power of ten
// (Heckbert's "nice numbers", Graphics Gems, 1990). The axis runs from the
// first to the last tick, which enclose [low, high].
struct AxisTicks {
    double low = 0.0, high = 1.0, step = 1.0;
    std::vector<double> values;
};

// About `target` ticks over [low, high]; a single value (low == high) gets
// a small range around it. Both ends must be finite.
AxisTicks NiceTicks(double low, double high, int target = 5);

// A tick value with as many decimals as its step needs ("0.25", "-4",
// "2e+12" for values too large or small for plain decimals).
std::string FormatTick(double value, double step);

// Text or an attribute value with &, <, >, " and ' written as entities.
std::string XmlEscape(std::string_view text);

struct PlotSeries {
    // Level: a horizontal line across the whole panel at y[0] (a control
    // limit), captioned by `name` in the panel's right margin.
    // Segments: separate straight lines, one from (x[2i], y[2i]) to
    // (x[2i+1], y[2i+1]) for each pair of points (a dendrogram's legs and bars).
    enum class Kind { Points, Line, Bars, Level, Segments };
    Kind kind = Kind::Points;
    std::string name;                // its legend entry; "" for none
    std::vector<double> x, y;        // bars rise from 0 to y at x
    std::vector<std::string> labels; // points: one per point, or none at all
    // Points: true for the points to single out (a control chart's
    // signals); each gets a ring, <circle class="flagged">, over its mark.
    std::vector<bool> flagged{};
    std::string colour{}; // "" takes the palette's colour of the series' place
    bool dashed = false;  // lines and levels
    // Bars: each one's width in data units (a histogram's bin width) or 0
    // for 80 % of the gap between neighbours; and the opacity of their fill
    // (below 1, overlaid histograms show through each other and each bar
    // keeps an outline).
    double barWidth = 0.0;
    double opacity = 1.0;
    // A guide: a dashed vertical line at x[0] across the whole panel, such
    // as a specification limit, captioned above the panel by labels[0]; it
    // has no y, no mark and no legend entry, and widens the x axis to show.
    bool guide = false;
};

struct PlotPanel {
    std::string title, xTitle, yTitle;
    std::vector<PlotSeries> series;
    bool sameScales = false; // one range for both axes (observed against predicted)
    bool zeroLines = false;  // dashed lines through the origin (scores, loadings)
    // The x axis ends at the data (padded a little) rather than at the next
    // round tick: an index axis of 0 to 41 should not run on to 50.
    bool tightX = false;
    // Names at places on the x axis (a dendrogram's leaves), written upright
    // under it in place of the numeric ticks; each place gets half a unit of
    // room either side. Where they would overlap, only every m-th is written;
    // an empty name holds its place unwritten (no numeric ticks either).
    std::vector<std::pair<double, std::string>> xLabels{};
};

struct PlotFigure {
    std::string title;
    std::vector<PlotPanel> panels; // laid out in rows of up to panelsPerRow
    int panelsPerRow = 2;
    // A series along an index reads better in a wide, low panel.
    double panelWidth = 560.0, panelHeight = 460.0;
};

// Each point is a <circle class="point">, each bar a <rect class="bar">,
// each point label a <text class="label">: one element per mark. A line is
// one <polyline class="line"> per unbroken piece (a missing value breaks
// it), a level one <line class="level"> with a <text class="level-label">,
// a segment one <line class="segment">, an x label one <text class="x-label">.
void WriteSvg(std::ostream& out, const PlotFigure& figure);

} // namespace veltan_cli
