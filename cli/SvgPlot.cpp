#include "cli/SvgPlot.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

namespace veltan_cli {

namespace {

// Figure geometry in SVG user units (pixels at 100 %); a panel's size is
// the figure's.
constexpr double MarginLeft = 74.0, MarginRight = 22.0, MarginTop = 38.0, MarginBottom = 58.0;
constexpr double FigureTitleHeight = 40.0;
// Text is measured by an average glyph width, in ems: good enough to keep
// labels apart and titles inside the figure without a font engine.
constexpr double GlyphWidth = 0.62;
constexpr double LevelLabelSize = 10.5;

const char* const Palette[] = {"#1f5fa8", "#c2471b", "#2e8b57", "#7b4fa0", "#b8860b", "#555555"};
// Flagged points stand out in a red no series of the palette uses.
const char* const FlagColour = "#d7191c";

std::string SeriesColour(const PlotSeries& s, std::size_t place)
{
    return s.colour.empty() ? Palette[place % std::size(Palette)] : s.colour;
}

// The round number nearest to x (rounded) or not below it (ceiling), of the
// form 1, 2 or 5 (or 10) times a power of ten.
double NiceNumber(double x, bool rounded)
{
    const double exponent = std::floor(std::log10(x));
    const double power = std::pow(10.0, exponent);
    const double f = x / power;
    double nice = 10.0;
    if (rounded)
        nice = f < 1.5 ? 1.0 : f < 3.0 ? 2.0 : f < 7.0 ? 5.0 : 10.0;
    else
        nice = f <= 1.0 ? 1.0 : f <= 2.0 ? 2.0 : f <= 5.0 ? 5.0 : 10.0;
    return nice * power;
}

std::string Fixed(double v)
{
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.2f", v);
    return buffer;
}

double TextWidth(const std::string& text, double fontSize)
{
    return static_cast<double>(text.size()) * fontSize * GlyphWidth;
}

// A font size at most `size` that fits `text` into `width`, but not below 8.
double FittingSize(const std::string& text, double width, double size)
{
    const double needed = TextWidth(text, 1.0);
    return needed > 0.0 ? std::max(8.0, std::min(size, width / needed)) : size;
}

void Text(std::ostream& out, double x, double y, double size, const std::string& attributes, const std::string& text)
{
    out << "<text x=\"" << Fixed(x) << "\" y=\"" << Fixed(y) << "\" font-size=\"" << Fixed(size) << "\""
        << (attributes.empty() ? "" : " ") << attributes << ">" << XmlEscape(text) << "</text>\n";
}

void Line(std::ostream& out, double x1, double y1, double x2, double y2, const std::string& attributes)
{
    out << "<line x1=\"" << Fixed(x1) << "\" y1=\"" << Fixed(y1) << "\" x2=\"" << Fixed(x2) << "\" y2=\""
        << Fixed(y2) << "\" " << attributes << "/>\n";
}

struct Range {
    double low = std::numeric_limits<double>::infinity();
    double high = -std::numeric_limits<double>::infinity();
    void Add(double v)
    {
        if (std::isfinite(v)) {
            low = std::min(low, v);
            high = std::max(high, v);
        }
    }
    void Add(const Range& r)
    {
        Add(r.low);
        Add(r.high);
    }
    bool Empty() const { return low > high; }
};

// Half the width the series asks for, else half the gap between
// neighbouring bars, or 0.5 for a single one.
double BarHalfWidth(const PlotSeries& s)
{
    if (s.barWidth > 0.0)
        return s.barWidth / 2.0;
    std::vector<double> xs;
    for (const double x : s.x)
        if (std::isfinite(x))
            xs.push_back(x);
    std::sort(xs.begin(), xs.end());
    double gap = std::numeric_limits<double>::infinity();
    for (std::size_t i = 1; i < xs.size(); ++i)
        if (xs[i] > xs[i - 1])
            gap = std::min(gap, xs[i] - xs[i - 1]);
    return std::isfinite(gap) ? gap * 0.4 : 0.5;
}

// The fill opacity and outline of see-through bars; nothing for solid ones.
std::string BarStyle(const PlotSeries& s, const std::string& colour)
{
    if (!(s.opacity < 1.0))
        return "";
    return " fill-opacity=\"" + Fixed(std::max(0.0, s.opacity)) + "\" stroke=\"" + colour + "\" stroke-width=\"1\"";
}

void DataRanges(const PlotPanel& panel, Range& x, Range& y)
{
    for (const PlotSeries& s : panel.series) {
        if (s.kind == PlotSeries::Kind::Level) {
            if (!s.y.empty())
                y.Add(s.y[0]);
            continue;
        }
        const bool bars = s.kind == PlotSeries::Kind::Bars;
        const double half = bars ? BarHalfWidth(s) : 0.0;
        for (std::size_t i = 0; i < s.x.size() && i < s.y.size(); ++i) {
            if (!std::isfinite(s.x[i]) || !std::isfinite(s.y[i]))
                continue;
            x.Add(s.x[i] - half);
            x.Add(s.x[i] + half);
            y.Add(s.y[i]);
            if (bars)
                y.Add(0.0);
        }
    }
    for (const PlotSeries& s : panel.series)
        if (s.guide && !s.x.empty())
            x.Add(s.x[0]);
    for (const auto& [place, label] : panel.xLabels) {
        x.Add(place - 0.5);
        x.Add(place + 0.5);
    }
    if (panel.sameScales) {
        x.Add(y);
        y = x;
    }
}

// An axis: data to pixels over the ticks' span.
struct Axis {
    AxisTicks ticks;
    double from = 0.0, to = 1.0; // pixel positions of ticks.low and ticks.high
    double operator()(double v) const { return from + (v - ticks.low) / (ticks.high - ticks.low) * (to - from); }
};

Axis MakeAxis(const Range& range, double from, double to, bool tight = false)
{
    Axis axis;
    Range r = range;
    if (r.Empty()) {
        r.low = 0.0;
        r.high = 1.0;
    }
    // A margin of 4 % keeps marks off the frame, without taking an axis of
    // counts or positive values below zero.
    const double pad = (r.high - r.low) * 0.04;
    axis.ticks = NiceTicks(r.low >= 0.0 ? std::max(0.0, r.low - pad) : r.low - pad,
                           r.high <= 0.0 ? std::min(0.0, r.high + pad) : r.high + pad);
    if (tight && r.high > r.low) {
        // The padded data range, with the round ticks that fall inside it.
        AxisTicks& t = axis.ticks;
        t.low = r.low - pad;
        t.high = r.high + pad;
        std::erase_if(t.values, [&](double v) { return v < t.low || v > t.high; });
    }
    axis.from = from;
    axis.to = to;
    return axis;
}

struct Box {
    double left, top, right, bottom;
    bool Overlaps(const Box& o) const
    {
        return left < o.right && o.left < right && top < o.bottom && o.top < bottom;
    }
};

// A label goes right of its point, else left of, above or below it,
// wherever it stays inside the plot and clear of every point and every
// label placed before it. Crowded plots (the wine table's 178
// observations) get a smaller font and leave out the labels that find no
// free place: a readable subset beats an unreadable blot, and every point
// keeps its mark.
void PointLabels(std::ostream& out, const PlotSeries& s, const Axis& x, const Axis& y, const Box& area,
                 std::vector<Box>& taken)
{
    const double size = s.labels.size() > 60 ? 8.0 : s.labels.size() > 25 ? 9.5 : 11.0;
    for (std::size_t i = 0; i < s.labels.size() && i < s.x.size() && i < s.y.size(); ++i) {
        if (!std::isfinite(s.x[i]) || !std::isfinite(s.y[i]) || s.labels[i].empty())
            continue;
        const double px = x(s.x[i]), py = y(s.y[i]);
        const double width = TextWidth(s.labels[i], size), ascent = size * 0.8, descent = size * 0.25;
        const double above = py - 5.0 - ascent - descent, below = py + 5.0 + ascent + descent;
        const Box candidates[] = {
            {px + 5.0, py - ascent + 3.0, px + 5.0 + width, py + descent + 3.0},
            {px - 5.0 - width, py - ascent + 3.0, px - 5.0, py + descent + 3.0},
            {px - width / 2.0, above, px + width / 2.0, py - 5.0},
            {px - width / 2.0, py + 5.0, px + width / 2.0, below},
            {px - width, above, px, py - 5.0},
            {px, above, px + width, py - 5.0},
            {px - width, py + 5.0, px, below},
            {px, py + 5.0, px + width, below},
        };
        for (const Box& box : candidates) {
            if (box.left < area.left || box.right > area.right || box.top < area.top || box.bottom > area.bottom ||
                std::any_of(taken.begin(), taken.end(), [&](const Box& b) { return b.Overlaps(box); }))
                continue;
            taken.push_back(box);
            Text(out, box.left, box.bottom - descent, size, "class=\"label\" fill=\"#333333\"", s.labels[i]);
            break;
        }
    }
}

// The space each point's mark covers, which no label may hide.
void PointBoxes(const PlotSeries& s, const Axis& x, const Axis& y, std::vector<Box>& taken)
{
    for (std::size_t i = 0; i < s.x.size() && i < s.y.size(); ++i)
        if (std::isfinite(s.x[i]) && std::isfinite(s.y[i])) {
            const double px = x(s.x[i]), py = y(s.y[i]);
            taken.push_back({px - 2.5, py - 2.5, px + 2.5, py + 2.5});
        }
}

// One polyline per run of drawable points: a line across a missing value
// would show a trend the data do not have.
void Polylines(std::ostream& out, const PlotSeries& s, const std::string& colour, const Axis& x, const Axis& y)
{
    const std::size_t n = std::min(s.x.size(), s.y.size());
    const std::string stroke = "fill=\"none\" stroke=\"" + colour + "\" stroke-width=\"" +
                               (s.dashed ? "1.2\" stroke-dasharray=\"6 4\"" : "1.5\"");
    for (std::size_t i = 0; i < n;) {
        if (!std::isfinite(s.x[i]) || !std::isfinite(s.y[i])) {
            ++i;
            continue;
        }
        out << "<polyline class=\"line\" " << stroke << " points=\"";
        for (; i < n && std::isfinite(s.x[i]) && std::isfinite(s.y[i]); ++i)
            out << Fixed(x(s.x[i])) << "," << Fixed(y(s.y[i])) << " ";
        out << "\"/>\n";
    }
}

void Series(std::ostream& out, const PlotSeries& s, const std::string& colour, const Axis& x, const Axis& y)
{
    const std::size_t n = std::min(s.x.size(), s.y.size());
    if (s.kind == PlotSeries::Kind::Line) {
        Polylines(out, s, colour, x, y);
        return;
    }
    if (s.kind == PlotSeries::Kind::Level)
        return; // drawn by Levels, beneath everything else
    if (s.kind == PlotSeries::Kind::Segments) {
        for (std::size_t i = 0; i + 1 < n; i += 2)
            if (std::isfinite(s.x[i]) && std::isfinite(s.y[i]) && std::isfinite(s.x[i + 1]) &&
                std::isfinite(s.y[i + 1]))
                Line(out, x(s.x[i]), y(s.y[i]), x(s.x[i + 1]), y(s.y[i + 1]),
                     "class=\"segment\" stroke=\"" + colour + "\" stroke-width=\"1.3\" stroke-linecap=\"square\"");
        return;
    }
    const double half = s.kind == PlotSeries::Kind::Bars ? BarHalfWidth(s) : 0.0;
    const double radius = n > 100 ? 2.5 : 3.5;
    for (std::size_t i = 0; i < n; ++i) {
        if (!std::isfinite(s.x[i]) || !std::isfinite(s.y[i]))
            continue;
        if (s.kind == PlotSeries::Kind::Points) {
            const bool flagged = i < s.flagged.size() && s.flagged[i];
            out << "<circle class=\"point\" cx=\"" << Fixed(x(s.x[i])) << "\" cy=\"" << Fixed(y(s.y[i]))
                << "\" r=\"" << Fixed(radius) << "\" fill=\"" << (flagged ? FlagColour : colour)
                << "\" fill-opacity=\"0.75\"/>\n";
            if (flagged)
                out << "<circle class=\"flagged\" cx=\"" << Fixed(x(s.x[i])) << "\" cy=\"" << Fixed(y(s.y[i]))
                    << "\" r=\"" << Fixed(radius + 3.5) << "\" fill=\"none\" stroke=\"" << FlagColour
                    << "\" stroke-width=\"1.5\"/>\n";
            continue;
        }
        const double left = x(s.x[i] - half), right = x(s.x[i] + half);
        const double top = std::min(y(s.y[i]), y(0.0)), bottom = std::max(y(s.y[i]), y(0.0));
        out << "<rect class=\"bar\" x=\"" << Fixed(left) << "\" y=\"" << Fixed(top) << "\" width=\""
            << Fixed(right - left) << "\" height=\"" << Fixed(bottom - top) << "\" fill=\"" << colour << "\""
            << BarStyle(s, colour) << "/>\n";
    }
}

void Ticks(std::ostream& out, const Axis& x, const Axis& y, const Box& area, bool xNumbers)
{
    for (const double v : xNumbers ? x.ticks.values : std::vector<double>{}) {
        const double px = x(v);
        Line(out, px, area.top, px, area.bottom, "stroke=\"#e4e4e4\"");
        Line(out, px, area.bottom, px, area.bottom + 5.0, "stroke=\"black\"");
        Text(out, px, area.bottom + 18.0, 11.0, "class=\"tick\" text-anchor=\"middle\"", FormatTick(v, x.ticks.step));
    }
    for (const double v : y.ticks.values) {
        const double py = y(v);
        Line(out, area.left, py, area.right, py, "stroke=\"#e4e4e4\"");
        Line(out, area.left - 5.0, py, area.left, py, "stroke=\"black\"");
        Text(out, area.left - 8.0, py + 4.0, 11.0, "class=\"tick\" text-anchor=\"end\"", FormatTick(v, y.ticks.step));
    }
}

void ZeroLines(std::ostream& out, const Axis& x, const Axis& y, const Box& area)
{
    const char* const dashed = "stroke=\"#888888\" stroke-dasharray=\"4 3\"";
    if (x.ticks.low < 0.0 && x.ticks.high > 0.0)
        Line(out, x(0.0), area.top, x(0.0), area.bottom, dashed);
    if (y.ticks.low < 0.0 && y.ticks.high > 0.0)
        Line(out, area.left, y(0.0), area.right, y(0.0), dashed);
}

// The guides over the data, each captioned just above the panel; a caption
// that would run into the one before it moves right.
void Guides(std::ostream& out, const PlotPanel& panel, const Axis& x, const Box& area)
{
    std::vector<std::pair<double, std::string>> guides;
    for (const PlotSeries& s : panel.series)
        if (s.guide && !s.x.empty() && std::isfinite(s.x[0]))
            guides.emplace_back(x(s.x[0]), s.labels.empty() ? std::string() : s.labels[0]);
    std::sort(guides.begin(), guides.end());
    constexpr double Size = 10.5;
    double free = -std::numeric_limits<double>::infinity();
    for (const auto& [px, caption] : guides) {
        Line(out, px, area.top, px, area.bottom,
             "class=\"guide\" stroke=\"#8b1a1a\" stroke-width=\"1.3\" stroke-dasharray=\"6 3\"");
        if (caption.empty())
            continue;
        const double width = TextWidth(caption, Size);
        const double left = std::max(px - width / 2.0, free + 4.0);
        Text(out, left, area.top - 4.0, Size, "class=\"guide-label\" fill=\"#8b1a1a\"", caption);
        free = left + width;
    }
}

void Legend(std::ostream& out, const PlotPanel& panel, const Box& area)
{
    std::vector<std::size_t> named;
    double width = 0.0;
    for (std::size_t s = 0; s < panel.series.size(); ++s)
        if (!panel.series[s].name.empty() && panel.series[s].kind != PlotSeries::Kind::Level) {
            named.push_back(s);
            width = std::max(width, TextWidth(panel.series[s].name, 11.0));
        }
    if (named.empty())
        return;
    const double boxWidth = width + 38.0, boxHeight = 8.0 + 16.0 * static_cast<double>(named.size());
    const double left = area.left + 8.0, top = area.top + 8.0;
    out << "<g class=\"legend\">\n<rect x=\"" << Fixed(left) << "\" y=\"" << Fixed(top) << "\" width=\""
        << Fixed(boxWidth) << "\" height=\"" << Fixed(boxHeight)
        << "\" fill=\"white\" fill-opacity=\"0.85\" stroke=\"#aaaaaa\"/>\n";
    for (std::size_t e = 0; e < named.size(); ++e) {
        const PlotSeries& s = panel.series[named[e]];
        const std::string colour = SeriesColour(s, named[e]);
        const double row = top + 12.0 + 16.0 * static_cast<double>(e);
        if (s.kind == PlotSeries::Kind::Line || s.kind == PlotSeries::Kind::Segments)
            Line(out, left + 6.0, row, left + 24.0, row, "stroke=\"" + colour + "\" stroke-width=\"1.5\"");
        else if (s.kind == PlotSeries::Kind::Points)
            out << "<circle cx=\"" << Fixed(left + 15.0) << "\" cy=\"" << Fixed(row) << "\" r=\"3.5\" fill=\""
                << colour << "\"/>\n";
        else
            out << "<rect x=\"" << Fixed(left + 10.0) << "\" y=\"" << Fixed(row - 4.0)
                << "\" width=\"10\" height=\"8\" fill=\"" << colour << "\"/>\n";
        Text(out, left + 30.0, row + 4.0, 11.0, "", s.name);
    }
    out << "</g>\n";
}

// Upright x labels: their font, and every how many one is written.
struct XLabelLayout {
    double size = 11.0;
    std::size_t every = 1;
};

constexpr std::size_t XLabelLength = 24; // longer names are cut, with "..."

std::string XLabelText(const std::string& label)
{
    return label.size() <= XLabelLength ? label : label.substr(0, XLabelLength - 3) + "...";
}

// The font follows the room per label, down to 7; below that only every
// m-th label is written, so that neighbours never overlap.
XLabelLayout LayOutXLabels(const PlotPanel& panel, double plotWidth)
{
    XLabelLayout layout;
    if (panel.xLabels.empty())
        return layout;
    Range places;
    for (const auto& [place, label] : panel.xLabels)
        places.Add(place);
    // Pixels per unit of x: the labels' span plus half a unit either side.
    const double span = places.high - places.low + 1.0;
    const double spacing = plotWidth / span;
    layout.size = std::clamp(spacing * 0.9, 7.0, 11.0);
    layout.every = static_cast<std::size_t>(std::max(1.0, std::ceil(layout.size * 1.05 / spacing)));
    return layout;
}

double BottomMargin(const PlotPanel& panel)
{
    if (panel.xLabels.empty())
        return MarginBottom;
    std::size_t longest = 0;
    for (const auto& [place, label] : panel.xLabels)
        longest = std::max(longest, XLabelText(label).size());
    return MarginBottom - 20.0 + static_cast<double>(longest) * 11.0 * GlyphWidth + 8.0;
}

void XLabels(std::ostream& out, const PlotPanel& panel, const Axis& x, const Box& area)
{
    const XLabelLayout layout = LayOutXLabels(panel, area.right - area.left);
    for (std::size_t i = 0; i < panel.xLabels.size(); i += layout.every) {
        const auto& [place, label] = panel.xLabels[i];
        if (!std::isfinite(place) || label.empty())
            continue;
        const double px = x(place) + layout.size * 0.35, py = area.bottom + 6.0;
        Text(out, px, py, layout.size,
             "class=\"x-label\" text-anchor=\"end\" fill=\"#333333\" transform=\"rotate(-90 " + Fixed(px) + " " +
                 Fixed(py) + ")\"",
             XLabelText(label));
    }
}

// Room right of the plot for the captions of its levels.
double RightMargin(const PlotPanel& panel)
{
    double margin = MarginRight;
    for (const PlotSeries& s : panel.series)
        if (s.kind == PlotSeries::Kind::Level)
            margin = std::max(margin, TextWidth(s.name, LevelLabelSize) + 12.0);
    return margin;
}

// The levels, beneath the data; each caption sits in the right margin at
// its line's height, moved down or up just enough not to overlap the one
// above it (limits close to the centre line).
void Levels(std::ostream& out, const PlotPanel& panel, const Axis& y, const Box& area)
{
    std::vector<std::pair<double, std::size_t>> order;
    for (std::size_t i = 0; i < panel.series.size(); ++i) {
        const PlotSeries& s = panel.series[i];
        if (s.kind == PlotSeries::Kind::Level && !s.y.empty() && std::isfinite(s.y[0]))
            order.emplace_back(y(s.y[0]), i);
    }
    std::sort(order.begin(), order.end());
    double previous = -std::numeric_limits<double>::infinity();
    for (const auto& [py, i] : order) {
        const PlotSeries& s = panel.series[i];
        const std::string colour = SeriesColour(s, i);
        Line(out, area.left, py, area.right, py,
             "class=\"level\" stroke=\"" + colour + "\" stroke-width=\"1.2\"" +
                 (s.dashed ? " stroke-dasharray=\"6 4\"" : ""));
        const double baseline = std::max(py + LevelLabelSize * 0.35, previous + LevelLabelSize + 1.0);
        previous = baseline;
        if (!s.name.empty())
            Text(out, area.right + 6.0, baseline, LevelLabelSize, "class=\"level-label\" fill=\"" + colour + "\"",
                 s.name);
    }
}

void Panel(std::ostream& out, const PlotPanel& panel, double originX, double originY, double width, double height)
{
    const double bottomMargin = BottomMargin(panel);
    const Box area{originX + MarginLeft, originY + MarginTop, originX + width - RightMargin(panel),
                   originY + height - bottomMargin};
    Range xr, yr;
    DataRanges(panel, xr, yr);
    const Axis x = MakeAxis(xr, area.left, area.right, panel.tightX);
    const Axis y = MakeAxis(yr, area.bottom, area.top);

    out << "<g class=\"panel\">\n";
    const double middle = (area.left + area.right) / 2.0;
    Text(out, middle, originY + 24.0, FittingSize(panel.title, width - 20.0, 13.0),
         "class=\"panel-title\" text-anchor=\"middle\" font-weight=\"bold\"", panel.title);
    Ticks(out, x, y, area, panel.xLabels.empty());
    XLabels(out, panel, x, area);
    if (panel.zeroLines)
        ZeroLines(out, x, y, area);
    out << "<rect x=\"" << Fixed(area.left) << "\" y=\"" << Fixed(area.top) << "\" width=\""
        << Fixed(area.right - area.left) << "\" height=\"" << Fixed(area.bottom - area.top)
        << "\" fill=\"none\" stroke=\"black\"/>\n";
    Text(out, middle, area.bottom + bottomMargin - 16.0, 12.0, "class=\"axis-title\" text-anchor=\"middle\"",
         panel.xTitle);
    const double yMiddle = (area.top + area.bottom) / 2.0, yTitleX = originX + 18.0;
    Text(out, yTitleX, yMiddle, 12.0,
         "class=\"axis-title\" text-anchor=\"middle\" transform=\"rotate(-90 " + Fixed(yTitleX) + " " +
             Fixed(yMiddle) + ")\"",
         panel.yTitle);
    Levels(out, panel, y, area);
    std::vector<Box> taken;
    for (std::size_t s = 0; s < panel.series.size(); ++s) {
        Series(out, panel.series[s], SeriesColour(panel.series[s], s), x, y);
        if (panel.series[s].kind == PlotSeries::Kind::Points)
            PointBoxes(panel.series[s], x, y, taken);
    }
    for (const PlotSeries& s : panel.series)
        if (s.kind == PlotSeries::Kind::Points)
            PointLabels(out, s, x, y, area, taken);
    Guides(out, panel, x, area);
    Legend(out, panel, area);
    out << "</g>\n";
}

} // namespace

AxisTicks NiceTicks(double low, double high, int target)
{
    if (low > high)
        std::swap(low, high);
    // A single value (or one the doubles cannot tell apart) gets a range of
    // a tenth of itself, or -1 to 1 around zero.
    if (high - low <= std::max(std::fabs(low), std::fabs(high)) * 1e-12) {
        const double half = low == 0.0 ? 1.0 : std::fabs(low) * 0.1;
        low -= half;
        high += half;
    }
    AxisTicks ticks;
    const double range = NiceNumber(high - low, false);
    ticks.step = NiceNumber(range / std::max(1, target - 1), true);
    const double first = std::floor(low / ticks.step), last = std::ceil(high / ticks.step);
    ticks.low = first * ticks.step;
    ticks.high = last * ticks.step;
    for (double k = first; k <= last + 0.5; k += 1.0)
        ticks.values.push_back(k == 0.0 ? 0.0 : k * ticks.step);
    return ticks;
}

std::string FormatTick(double value, double step)
{
    if (std::fabs(value) < std::fabs(step) * 1e-9)
        value = 0.0;
    char buffer[48];
    const double largest = std::max(std::fabs(value), std::fabs(step));
    if (step >= 1e-4 && largest < 1e7) {
        const int decimals = std::max(0, -static_cast<int>(std::floor(std::log10(step) + 1e-9)));
        std::snprintf(buffer, sizeof buffer, "%.*f", decimals, value);
    } else {
        std::snprintf(buffer, sizeof buffer, "%.6g", value);
    }
    return buffer;
}

std::string XmlEscape(std::string_view text)
{
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        switch (c) {
        case '&': escaped += "&amp;"; break;
        case '<': escaped += "&lt;"; break;
        case '>': escaped += "&gt;"; break;
        case '"': escaped += "&quot;"; break;
        case '\'': escaped += "&apos;"; break;
        default:
            // Control characters other than tab and line ends are not allowed in XML 1.0.
            if (static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r')
                escaped += ' ';
            else
                escaped += c;
        }
    }
    return escaped;
}

void WriteSvg(std::ostream& out, const PlotFigure& figure)
{
    const int panels = std::max(1, static_cast<int>(figure.panels.size()));
    const int columns = std::min(panels, std::max(1, figure.panelsPerRow));
    const int rows = (panels + columns - 1) / columns;
    const double top = figure.title.empty() ? 0.0 : FigureTitleHeight;
    const double panelWidth = figure.panelWidth, panelHeight = figure.panelHeight;
    const double width = panelWidth * columns, height = top + panelHeight * rows;
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << Fixed(width) << "\" height=\"" << Fixed(height)
        << "\" viewBox=\"0 0 " << Fixed(width) << " " << Fixed(height) << "\" font-family=\"sans-serif\">\n"
        << "<rect x=\"0\" y=\"0\" width=\"" << Fixed(width) << "\" height=\"" << Fixed(height)
        << "\" fill=\"white\"/>\n";
    if (!figure.title.empty())
        Text(out, width / 2.0, 27.0, FittingSize(figure.title, width - 20.0, 16.0),
             "class=\"title\" text-anchor=\"middle\" font-weight=\"bold\"", figure.title);
    for (std::size_t p = 0; p < figure.panels.size(); ++p) {
        const int row = static_cast<int>(p) / columns, column = static_cast<int>(p) % columns;
        Panel(out, figure.panels[p], panelWidth * column, top + panelHeight * row, panelWidth, panelHeight);
    }
    out << "</svg>\n";
}

} // namespace veltan_cli
