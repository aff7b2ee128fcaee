#include "Statistics.h"

#include "Arrays.h"
#include "Engine.h"

#include "veltancmat/cluster/ClusterDistances.h"
#include "veltancmat/cluster/DendroGram.h"
#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/signal/Derivate.h"
#include "veltancmat/spc/FisherExact.h"
#include "veltancmat/spc/ms_shapiro_wilk.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <queue>
#include <string>
#include <unordered_map>
#include <vector>

namespace veltan_py {

namespace {

// W and p of the present values; NaN for both where the test is undefined
// (fewer than 3 values, all equal). More than 5000 values are tested, as
// the engine allows, with an approximate p.
py::tuple Shapiro(const py::handle& x)
{
    const NCDataVector<float> values = ToVector(x, "x");
    std::vector<double> sorted;
    for (int i = 1; i <= values.size(); ++i)
        if (!IsMisVal(values[i]))
            sorted.push_back(values[i]);
    std::sort(sorted.begin(), sorted.end());
    const long n = static_cast<long>(sorted.size());
    if (n < 3)
        throw py::value_error("shapiro needs at least 3 present values; got " + std::to_string(n));
    normality_test::ms_shapiro_wilk::Samples samples;
    for (std::size_t i = 0; i < sorted.size(); ++i)
        samples.emplace_back(i, sorted[i]);
    std::deque<double> coefficients;
    double w = 0.0, p = 0.0;
    int fault = 0;
    normality_test::ms_shapiro_wilk::swilk(false, samples, n, n, n / 2, coefficients, w, p, fault);
    if (fault == 6)
        throw py::value_error("shapiro: all values are equal");
    if ((fault != 0 && fault != 2) || !std::isfinite(w) || !std::isfinite(p))
        throw py::value_error("shapiro: the test failed (fault " + std::to_string(fault) + ")");
    return py::make_tuple(w, p);
}

double FisherExact(const py::handle& table, const std::string& alternative)
{
    py::array_t<long long> counts;
    {
        const py::array given = py::array(py::module_::import("numpy").attr("asarray")(table));
        const char kind = given.dtype().kind();
        if (kind != 'i' && kind != 'u' && kind != 'f' && kind != 'b')
            throw py::type_error("table must hold counts; got dtype " +
                                 py::str(py::handle(given.dtype())).cast<std::string>());
        if (given.ndim() != 2 || given.shape(0) < 2 || given.shape(1) < 2)
            throw py::value_error("table must be a 2-D array of counts with at least 2 rows and 2 columns");
        const py::array rounded = given.attr("astype")(py::dtype::of<long long>());
        if (!py::bool_(rounded.attr("__eq__")(given).attr("all")()))
            throw py::value_error("table must hold whole counts");
        counts = py::array_t<long long>::ensure(rounded);
    }
    const int n1 = static_cast<int>(counts.shape(0)), n2 = static_cast<int>(counts.shape(1));
    std::vector<int> cells;
    auto c = counts.unchecked<2>();
    for (int i = 0; i < n1; ++i)
        for (int j = 0; j < n2; ++j) {
            if (c(i, j) < 0 || c(i, j) > std::numeric_limits<int>::max())
                throw py::value_error("table[" + std::to_string(i) + ", " + std::to_string(j) +
                                      "]: counts must be non-negative integers");
            cells.push_back(static_cast<int>(c(i, j)));
        }
    Sta::SidedNess sides = Sta::TwoSided;
    if (alternative == "less")
        sides = Sta::LowerTail;
    else if (alternative == "greater")
        sides = Sta::UpperTail;
    else if (alternative != "two-sided")
        throw py::value_error("alternative=\"" + alternative + "\": must be \"two-sided\", \"less\" or \"greater\"");
    if (sides != Sta::TwoSided && (n1 != 2 || n2 != 2))
        throw py::value_error("alternative=\"" + alternative + "\" needs a 2 x 2 table");
    py::gil_scoped_release release;
    // The workspace R's fisher.test starts from, in 4-byte units.
    return Sta::GetFisherExactProbability(cells.data(), n1, n2, false, sides, 200000);
}

// The tree as SciPy's linkage matrix: row k merges clusters Z[k, 0] and
// Z[k, 1] (rows are 0..n-1, the cluster of row k is n + k) at height
// Z[k, 2] into a cluster of Z[k, 3] rows. Merges are listed lowest first,
// each after the merges of its parts.
py::array_t<double> LinkageMatrix(const DendroGram::DendroGramNode& root, int n, bool ward)
{
    using Node = DendroGram::DendroGramNode;
    std::unordered_map<const Node*, int> id;
    std::unordered_map<const Node*, const Node*> parent;
    std::unordered_map<const Node*, int> waiting; // children not yet numbered
    using Entry = std::pair<float, const Node*>;
    const auto later = [](const Entry& a, const Entry& b) { return a.first > b.first; };
    std::priority_queue<Entry, std::vector<Entry>, decltype(later)> ready(later);
    std::vector<const Node*> stack{&root};
    while (!stack.empty()) {
        const Node* node = stack.back();
        stack.pop_back();
        if (node->IsLeaf()) {
            id[node] = node->GetRow();
            continue;
        }
        int pending = 0;
        for (const Node* child : {node->GetLeft(), node->GetRight()}) {
            parent[child] = node;
            pending += child->IsLeaf() ? 0 : 1;
            stack.push_back(child);
        }
        waiting[node] = pending;
        if (pending == 0)
            ready.emplace(node->GetHeight(), node);
    }
    py::array_t<double> z({static_cast<py::ssize_t>(n - 1), static_cast<py::ssize_t>(4)});
    auto rows = z.mutable_unchecked<2>();
    int k = 0;
    while (!ready.empty()) {
        const Node* node = ready.top().second;
        ready.pop();
        int a = id.at(node->GetLeft()), b = id.at(node->GetRight());
        if (a > b)
            std::swap(a, b);
        const double h = node->GetHeight();
        rows(k, 0) = a;
        rows(k, 1) = b;
        // SciPy's Ward height is the square root of twice the increase of
        // the error sum of squares, which reads as a Euclidean distance.
        rows(k, 2) = ward ? std::sqrt(2.0 * std::max(h, 0.0)) : h;
        rows(k, 3) = node->GetLeafCount();
        id[node] = n + k;
        ++k;
        const auto up = parent.find(node);
        if (up != parent.end() && --waiting[up->second] == 0)
            ready.emplace(up->second->GetHeight(), up->second);
    }
    return z;
}

py::array_t<double> Linkage(const py::handle& x, const std::string& method)
{
    const bool ward = method == "ward";
    if (!ward && method != "single")
        throw py::value_error("method=\"" + method + "\": must be \"ward\" or \"single\"");
    const NCDataMatrix<float> data = ToMatrix(x, "X");
    const int n = data.SizeRows();
    if (n < 2)
        throw py::value_error("linkage needs at least 2 rows; got " + std::to_string(n));
    std::unique_ptr<DendroGram::DendroGramNode> root = RunInterruptible([&](NCProgress& progress) {
        std::unique_ptr<DendroGram::ClusterDistanceCalculator> calculator;
        if (ward)
            calculator = std::make_unique<WardDistanceCalculator>(WardDistanceCalculator::ErrorSS);
        else
            calculator = std::make_unique<SingleLinkageDistanceCalculator>();
        return std::unique_ptr<DendroGram::DendroGramNode>(
            DendroGram::GetDendroGram(data, *calculator, &progress, nullptr));
    });
    if (!root)
        throw py::value_error("linkage: no tree was built");
    return LinkageMatrix(*root, n, ward);
}

// Savitzky-Golay smoothing or derivative of a series. The engine widens a
// window that is even or too narrow for the degree; here, as in SciPy, such
// a window is an error, so that the window used is the one asked for.
py::array_t<double> SavgolFilter(const py::handle& x, long window, long order, int deriv, double delta, bool edges)
{
    if (order < 0 || order > 20)
        throw py::value_error("polyorder=" + std::to_string(order) + ": must be 0 to 20");
    if (window < 1 || window % 2 == 0 || window <= order)
        throw py::value_error("window_length=" + std::to_string(window) + ": must be odd and greater than polyorder (" +
                              std::to_string(order) + ")");
    if (deriv < 0 || deriv > order)
        throw py::value_error("deriv=" + std::to_string(deriv) + ": must be 0 to polyorder (" +
                              std::to_string(order) + ")");
    if (!(std::isfinite(delta) && delta != 0.0))
        throw py::value_error("delta must be finite and non-zero");
    const NCDataVector<float> y = ToVector(x, "x");
    if (y.size() < window)
        throw py::value_error("x has " + std::to_string(y.size()) + " points, fewer than window_length=" +
                              std::to_string(window));
    NCDataVector<float> result;
    {
        py::gil_scoped_release release;
        const Derivate<float> filter(static_cast<Derivate<float>::PolynomialOrder>(order),
                                     static_cast<std::size_t>(window));
        result = filter.DoDerivate(y, deriv, static_cast<float>(delta), edges);
    }
    return FromVector(result);
}

} // namespace

void BindStatistics(py::module_& m)
{
    m.def("shapiro", &Shapiro, py::arg("x"),
          "Shapiro-Wilk test of normality of the present (non-NaN) values: (W, p).");
    m.def("fisher_exact", &FisherExact, py::arg("table"), py::arg("alternative") = "two-sided",
          "p-value of Fisher's exact test of independence of a table of counts (any r x c; "
          "alternative 'less' or 'greater' for a 2 x 2 table only).");
    m.def("savgol_filter", &SavgolFilter, py::arg("x"), py::arg("window_length"), py::arg("polyorder"),
          py::arg("deriv") = 0, py::arg("delta") = 1.0, py::arg("edges") = true,
          "Savitzky-Golay smoothing (deriv=0) or derivative of a 1-D series; NaN points are left out of every "
          "window that holds them. With edges, the end points come from the first and last whole windows "
          "(SciPy's mode='interp'), else they are NaN.");
    m.def("linkage", &Linkage, py::arg("X"), py::arg("method") = "ward",
          "Hierarchical clustering of the rows of X ('ward' or 'single'), as a SciPy linkage matrix.");
}

} // namespace veltan_py
