#include "veltancmat/spc/FisherExact.h"

#include "veltancmat/platform/NCError.h"

#include <boost/math/special_functions/gamma.hpp>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <memory>
#include <numeric>
#include <utility>
#include <vector>

// The network algorithm below keeps the published routines' one-based
// indexing and names for their arrays (iro, ico, irn, idif, kyy ...), so that
// each step can be checked against Mehta and Patel's description; index 0 of
// those arrays is unused.

namespace Sta {

namespace {

// Past path lengths closer than this are one length: the square root of the
// smallest relative spacing of the published code, kept so that p-values
// sum the same nodes as R's.
constexpr double Tol = 3.45254e-7;
// An empty slot of a hash table of keys.
constexpr int NoKey = -9999;
// The chi-squared statistic of a subtable that does not meet the hybrid
// conditions.
constexpr double NoChiSquare = -9876.0;
// The table of past path lengths has this many entries per hash key.
constexpr int PastPathMultiplier = 30;
// Half of the longest path's stack (one half per level of rows).
constexpr int HalfStack = 200;
// Past path lengths this far below a node's longest have their exponential
// scaled by the longest's without losing precision (e^-600 is a normal
// double).
constexpr double ScaledRange = 600.0;
constexpr double LogTwoPi = 1.83787706640934548356065947281;

// Neumaier's compensated sum. The p-value adds up to hundreds of millions
// of terms, whose rounding a plain sum would let grow to about 1e-10.
class CompensatedSum {
public:
    void Add(double x)
    {
        const double t = m_sum + x;
        m_error += std::abs(m_sum) >= std::abs(x) ? (m_sum - t) + x : (x - t) + m_sum;
        m_sum = t;
    }
    double Value() const { return m_sum + m_error; }

private:
    double m_sum = 0.0, m_error = 0.0;
};

[[noreturn]] void Fail(const ExceptionMessage& detail)
{
    throw NCError(ExceptionMessage::translate("Error in fexact.\n{1}") % detail.str(), NCError::Error);
}

[[noreturn]] void FailHashKey()
{
    Fail(ExceptionMessage::translate("The hash table key cannot be computed because the largest key\n"
                                     "is larger than the largest representable int.\n"
                                     "The algorithm cannot proceed.\n"
                                     "Reduce the workspace size or use another algorithm."));
}

[[noreturn]] void FailKeys()
{
    Fail(ExceptionMessage::translate("LDKEY is too small for this problem.\n"
                                     "Try increasing the size of the workspace."));
}

[[noreturn]] void FailPastPaths()
{
    Fail(ExceptionMessage::translate("LDSTP is too small for this problem.\n"
                                     "Try increasing the size of the workspace."));
}

// ln k! from lgamma_r, which unlike lgamma leaves the global sign alone, so
// that tests may run on several threads.
double LogFactorial(int k)
{
    int sign = 0;
    return ::lgamma_r(static_cast<double>(k) + 1.0, &sign);
}

// The log of the multinomial coefficient ntot! / prod ir[k]!.
double LogMultinomial(int n, int ntot, const int* ir, const double* fact)
{
    double d = fact[ntot];
    for (int k = 0; k < n; ++k)
        d -= fact[ir[k]];
    return d;
}

// The shortest path of a table whose marginal totals allow the most even
// spread of every column (f10act): adds it to val and returns true, or
// returns false when the rows cannot take that spread. nd, ne, m are work
// arrays of nrow and ncol entries.
bool EvenSpreadPath(int nrow, const int* irow, int ncol, const int* icol, double& val, const double* fact, int* nd,
                    int* ne, int* m)
{
    for (int i = 0; i < nrow - 1; ++i)
        nd[i] = 0;
    int is = icol[0] / nrow;
    int ix = icol[0] - nrow * is;
    ne[0] = is;
    m[0] = ix;
    if (ix != 0)
        ++nd[ix - 1];
    for (int i = 1; i < ncol; ++i) {
        ix = icol[i] / nrow;
        ne[i] = ix;
        is += ix;
        ix = icol[i] - nrow * ix;
        m[i] = ix;
        if (ix != 0)
            ++nd[ix - 1];
    }
    for (int i = nrow - 3; i >= 0; --i)
        nd[i] += nd[i + 1];
    ix = 0;
    for (int i = nrow; i >= 2; --i) {
        ix += is + nd[nrow - i] - irow[i - 1];
        if (ix < 0)
            return false;
    }
    for (int i = 0; i < ncol; ++i)
        val += m[i] * fact[ne[i] + 1] + (nrow - m[i]) * fact[ne[i]];
    return true;
}

// dst receives src without its element at one-based position i1, i2
// elements in all (f11act).
void DropElement(const int* src, int i1, int i2, int* dst)
{
    for (int i = 0; i < i1 - 1; ++i)
        dst[i] = src[i];
    for (int i = i1; i <= i2; ++i)
        dst[i - 1] = src[i];
}

// dst receives the descending src (izero elements) with the element at
// one-based position i1 replaced by `is`, moved to keep the order (f8xact).
void ReplaceElement(const int* src, int is, int i1, int izero, int* dst)
{
    for (int i = 0; i < i1 - 1; ++i)
        dst[i] = src[i];
    int i = i1;
    for (; i <= izero - 1; ++i) {
        if (is >= src[i])
            break;
        dst[i - 1] = src[i];
    }
    dst[i - 1] = is;
    for (++i; i <= izero; ++i)
        dst[i - 1] = src[i - 1];
}

// The next daughter of a node: the next distribution of a column's count
// over the rows, in the published order (f7xact). imax: the rows' totals,
// idif: the current distribution, both one-based with nrow entries. Returns
// false when there is none.
bool NextDaughter(int nrow, const int* imax, int* idif, int& k, int& ks)
{
    if (ks == 0) {
        do
            ++ks;
        while (idif[ks] == imax[ks]);
    }
    if (idif[k] > 0 && k > ks) {
        --idif[k];
        do
            --k;
        while (imax[k] == 0);
        int m = k;
        while (idif[m] >= imax[m])
            --m;
        ++idif[m];
        if (m == ks && idif[m] == imax[m])
            ks = k;
        return true;
    }
    for (;;) {
        int kk = k + 1;
        while (kk <= nrow && idif[kk] <= 0)
            ++kk;
        if (kk > nrow)
            return false;
        int mm = 1;
        for (int i = 1; i <= k; ++i) {
            mm += idif[i];
            idif[i] = 0;
        }
        k = kk;
        do {
            --k;
            const int m = std::min(mm, imax[k]);
            idif[k] = m;
            mm -= m;
        } while (mm > 0 && k != 1);
        if (mm > 0) {
            if (kk != nrow) {
                k = kk;
                continue;
            }
            return false;
        }
        --idif[kk];
        ks = 0;
        do {
            ++ks;
            if (ks > k)
                return true;
        } while (idif[ks] >= imax[ks]);
        return true;
    }
}

// The past path lengths of one node with their frequencies, read once for
// all its daughters. Most daughters sum the probabilities of many of them,
// those up to a limit: sorted, with running sums of their exponentials
// relative to the longest length, that takes a search and one exp, where
// the published code takes one exp per length. Lengths far below the
// longest, which would underflow so scaled, take their own exp.
class PastLengths {
public:
    void Append(double length, int frequency)
    {
        m_length.push_back(length);
        m_frequency.push_back(frequency);
    }

    // Sorts the lengths appended since the last Clear and sums them.
    void Prepare()
    {
        const std::size_t n = m_length.size();
        m_order.resize(n);
        std::iota(m_order.begin(), m_order.end(), std::size_t{0});
        std::sort(m_order.begin(), m_order.end(),
                  [this](std::size_t a, std::size_t b) { return m_length[a] < m_length[b]; });
        m_sorted.resize(n);
        for (std::size_t j = 0; j < n; ++j)
            m_sorted[j] = m_length[m_order[j]];
        m_longest = n > 0 ? m_sorted[n - 1] : 0.0;
        m_unscaled = static_cast<std::size_t>(
            std::lower_bound(m_sorted.begin(), m_sorted.end(), m_longest - ScaledRange) - m_sorted.begin());
        m_running.assign(n + 1, 0.0);
        for (std::size_t j = 0; j < n; ++j) {
            const std::size_t i = m_order[j];
            const double weight = j < m_unscaled ? 0.0 : m_frequency[i] * std::exp(m_length[i] - m_longest);
            m_running[j + 1] = m_running[j] + weight;
        }
    }

    void Clear()
    {
        m_length.clear();
        m_frequency.clear();
    }
    std::size_t Size() const { return m_length.size(); }
    double Length(std::size_t i) const { return m_length[i]; }
    int Frequency(std::size_t i) const { return m_frequency[i]; }

    // The sum of frequency x exp(length + offset) over lengths <= limit.
    double SumUpTo(double limit, double offset) const
    {
        const std::size_t m =
            static_cast<std::size_t>(std::upper_bound(m_sorted.begin(), m_sorted.end(), limit) - m_sorted.begin());
        double sum = 0.0;
        for (std::size_t j = 0; j < std::min(m, m_unscaled); ++j)
            sum += m_frequency[m_order[j]] * std::exp(m_sorted[j] + offset);
        if (m > m_unscaled)
            sum += std::exp(m_longest + offset) * m_running[m];
        return sum;
    }

    // Whether some length lies strictly between low and high.
    bool AnyBetween(double low, double high) const
    {
        const auto first = std::upper_bound(m_sorted.begin(), m_sorted.end(), low);
        return first != m_sorted.end() && *first < high;
    }

private:
    std::vector<double> m_length;
    std::vector<int> m_frequency;
    std::vector<std::size_t> m_order; // indices by ascending length
    std::vector<double> m_sorted;     // the lengths in that order
    std::vector<double> m_running;    // running sums of the scaled exponentials
    std::size_t m_unscaled = 0;       // sorted lengths too short to scale
    double m_longest = 0.0;
};

// The number of keys per stage that the workspace leaves. The published
// driver carves its store, counted in 4-byte units, into the fixed arrays
// (doubles aligned to 8 bytes) and gives the rest to the hash tables: per
// key 6 ints (keys, list heads, daughter keys) and 6 doubles (path bounds),
// and per past path entry, 30 of them per key, 2 doubles and 6 ints (both
// stages' lengths, frequencies and links). Its sizes are kept so that a
// workspace fails where R's does; one too small for the fixed arrays, R's
// "Out of workspace", is too small for any key.
int KeyTableSize(long long total, int nrow, int ncol, int workspace)
{
    const long long nco = std::max(nrow, ncol);
    const long long nro = std::min(nrow, ncol);
    long long used = 0;
    auto take = [&used](long long count, bool isDouble) {
        if (isDouble) {
            used += used % 2;
            used += 2 * count;
        } else {
            used += count;
        }
    };
    const long long k = static_cast<long long>(nrow) + ncol + 1;
    take(total + 1, true);
    take(3 * nco, false);
    take(2 * nro, false);
    take(std::max(5 * k + 2 * k * nco, 7 * nco + 800), false);
    take(std::max(nco + 401, k), true);
    const long long available = 2 * (static_cast<long long>(workspace) / 2);
    if (used > available)
        FailKeys();
    const long long units = 18 + 10LL * PastPathMultiplier;
    return static_cast<int>(std::max(0LL, (available - used) / units - 1));
}

// The network algorithm for one table. Its working store is sized once from
// the caller's workspace, as the published driver splits it.
class Network {
public:
    Network(int nrow, int ncol, const int* table, int ldtabl, double expect, double percnt, double emin,
            int workspace);

    double Run();

private:
    int Cell(int i, int j) const { return m_table[(i - 1) + static_cast<std::ptrdiff_t>(j - 1) * m_ldtabl]; }

    double LongestPath(int nrow, const int* irow, int ncol, const int* icol, int ntot);
    double ChiSquareOffset(int nrow, const int* irow, int ncol, const int* icol, int ntot, double observed) const;
    double ShortestPath(int nrow, const int* irow, int ncol, const int* icol, double dspt);

    // A past path length of a node: in the node's tree by length (left,
    // right) while its stage is filled, and in its list (next) for reading.
    struct PathEntry {
        double length;
        int left, right;
        int frequency;
        int next;
    };
    // The nodes of one stage, hashed by key, each heading a list of entries.
    struct Stage {
        std::unique_ptr<int[]> key, head;
        std::unique_ptr<PathEntry[]> entries;
    };
    void Put(double pastp, int kval, int ifreq, bool psh);
    bool Get(int* irow, int& ipn);

    // Input.
    int m_nrow, m_ncol;
    const int* m_table;
    int m_ldtabl;
    double m_expect, m_percnt, m_emin;
    int m_workspace;

    // Sizes of the hash tables.
    int m_ldkey = 0, m_ldstp = 0;
    int m_nro = 0, m_nco = 0;

    std::vector<double> m_fact;
    std::vector<int> m_kyy;

    Stage m_stages[2];
    int m_read = 0;
    int m_top = 0;      // entries of the stage being filled
    int m_lastSlot = 0; // key slot of the last Put, for the daughter's further lengths
    int m_last = 0;     // key slot of the last Get

    // Longest and shortest path values of the daughters of one stage.
    std::unique_ptr<int[]> m_key2;
    std::unique_ptr<double[]> m_longest, m_shortest, m_chiSquare;

    // Work arrays of LongestPath.
    std::vector<int> m_lpIco, m_lpIro, m_lpIt, m_lpLb, m_lpNr, m_lpNt, m_lpNu, m_lpItc, m_lpIst;
    std::vector<double> m_lpStv, m_lpAlen;
    // Work arrays of ShortestPath.
    std::vector<int> m_spIcstk, m_spNcstk, m_spLstk, m_spMstk, m_spNstk, m_spNrstk, m_spIrstk;
    std::vector<double> m_spYstk;
};

Network::Network(int nrow, int ncol, const int* table, int ldtabl, double expect, double percnt, double emin,
                 int workspace)
    : m_nrow(nrow), m_ncol(ncol), m_table(table), m_ldtabl(ldtabl), m_expect(expect), m_percnt(percnt),
      m_emin(emin), m_workspace(workspace)
{
}

double Network::Run()
{
    if (m_nrow > m_ldtabl)
        Fail(ExceptionMessage::translate("NROW must be less than or equal to LDTABL."));
    long long total = 0;
    for (int i = 1; i <= m_nrow; ++i) {
        for (int j = 1; j <= m_ncol; ++j) {
            if (Cell(i, j) < 0)
                Fail(ExceptionMessage::translate("All elements of TABLE may not be negative."));
            total += Cell(i, j);
        }
    }
    if (total == 0)
        Fail(ExceptionMessage::translate("All elements of TABLE are zero.\n"
                                         "PRT and PRE are set to missing values."));

    const int nco = std::max(m_nrow, m_ncol);
    const int nro = std::min(m_nrow, m_ncol);
    m_nco = nco;
    m_nro = nro;

    m_ldkey = KeyTableSize(total, m_nrow, m_ncol, m_workspace);
    m_ldstp = PastPathMultiplier * m_ldkey;
    // The store holds fewer than INT_MAX / 2 log factorials.
    int ntot = static_cast<int>(total);

    if (m_nrow > m_ldtabl)
        Fail(ExceptionMessage::translate("The number of rows must be less than or equal to LDTABL."));
    if (m_ncol <= 1)
        Fail(ExceptionMessage::translate("NCOL must be at least 2"));

    // Marginal totals, each sorted ascending; iro gets the shorter side.
    std::vector<int> iro(nco + 1, 0), ico(nco + 1, 0);
    {
        std::vector<int> rows(m_nrow + 1, 0), cols(m_ncol + 1, 0);
        for (int i = 1; i <= m_nrow; ++i)
            for (int j = 1; j <= m_ncol; ++j) {
                rows[i] += Cell(i, j);
                cols[j] += Cell(i, j);
            }
        std::sort(rows.begin() + 1, rows.end());
        std::sort(cols.begin() + 1, cols.end());
        const bool swap = m_nrow > m_ncol;
        const std::vector<int>& shortSide = swap ? cols : rows;
        const std::vector<int>& longSide = swap ? rows : cols;
        std::copy(shortSide.begin() + 1, shortSide.end(), iro.begin() + 1);
        std::copy(longSide.begin() + 1, longSide.end(), ico.begin() + 1);
    }
    const bool transposed = m_nrow > m_ncol;

    // Multipliers of the keys that encode a node's row totals.
    m_kyy.assign(nro + 1, 0);
    m_kyy[1] = 1;
    for (int i = 1; i < nro; ++i) {
        if (iro[i] + 1 > INT_MAX / m_kyy[i])
            FailHashKey();
        m_kyy[i + 1] = m_kyy[i] * (iro[i] + 1);
    }
    if (iro[nro] + 1 > INT_MAX / m_kyy[nro])
        FailHashKey();

    // Log factorials by the published recurrence (one logarithm per two).
    m_fact.assign(static_cast<std::size_t>(ntot) + 1, 0.0);
    double* fact = m_fact.data();
    if (ntot >= 2)
        fact[2] = std::log(2.0);
    for (int i = 3; i <= ntot; i += 2) {
        fact[i] = fact[i - 1] + std::log(static_cast<double>(i));
        const int j = i + 1;
        if (j <= ntot)
            fact[j] = fact[i] + fact[2] + fact[j / 2] - fact[j / 2 - 1];
    }

    // The observed table's path length, and the denominator of all tables.
    double obs = Tol;
    ntot = 0;
    for (int j = 1; j <= nco; ++j) {
        double dd = 0.0;
        for (int i = 1; i <= nro; ++i) {
            const int cell = transposed ? Cell(j, i) : Cell(i, j);
            dd += fact[cell];
            ntot += cell;
        }
        obs += fact[ico[j]] - dd;
    }
    const double dro = LogMultinomial(nro, ntot, &iro[1], fact);
    CompensatedSum pre;
    const bool maybeChiSquare = m_expect > 0.0;

    // The store.
    const int ldkey = m_ldkey, ldstp = m_ldstp;
    for (Stage& s : m_stages) {
        s.key = std::make_unique_for_overwrite<int[]>(static_cast<std::size_t>(ldkey) + 1);
        s.head = std::make_unique_for_overwrite<int[]>(static_cast<std::size_t>(ldkey) + 1);
        s.entries = std::make_unique_for_overwrite<PathEntry[]>(static_cast<std::size_t>(ldstp) + 2);
        std::fill_n(s.key.get(), ldkey, NoKey);
    }
    const int hashSize = 2 * ldkey;
    m_key2 = std::make_unique_for_overwrite<int[]>(static_cast<std::size_t>(hashSize) + 1);
    m_longest = std::make_unique_for_overwrite<double[]>(static_cast<std::size_t>(hashSize) + 1);
    m_shortest = std::make_unique_for_overwrite<double[]>(static_cast<std::size_t>(hashSize) + 1);
    m_chiSquare = std::make_unique_for_overwrite<double[]>(static_cast<std::size_t>(hashSize) + 1);
    std::fill_n(m_key2.get(), hashSize, NoKey);

    const std::size_t wide = static_cast<std::size_t>(nco) + 2;
    for (auto* v : {&m_lpIco, &m_lpIro, &m_lpIt, &m_lpLb, &m_lpNr, &m_lpNt, &m_lpNu})
        v->assign(wide, 0);
    m_lpAlen.assign(wide, 0.0);
    m_lpItc.assign(2 * HalfStack + 1, 0);
    m_lpIst.assign(2 * HalfStack + 1, 0);
    m_lpStv.assign(2 * HalfStack + 1, 0.0);
    const std::size_t levels = static_cast<std::size_t>(m_nrow) + m_ncol + 2;
    for (auto* v : {&m_spNcstk, &m_spLstk, &m_spMstk, &m_spNstk, &m_spNrstk})
        v->assign(levels + 1, 0);
    m_spYstk.assign(levels + 1, 0.0);
    m_spIcstk.assign((levels + 1) * wide, 0);
    m_spIrstk.assign((levels + 1) * wide, 0);

    // The root: one node, past path length 0, met once.
    m_read = 0;
    {
        Stage& root = m_stages[m_read];
        root.head[0] = 1;
        root.entries[1] = {0.0, -1, -1, 1, -1};
    }
    int ipo = 1;
    m_top = 0;
    m_last = ldkey + 1;

    std::vector<int> idif(nro + 1, 0), irn(nro + 1, 0);
    PastLengths past;
    int k = nco;
    bool haveNode = true;
    while (k >= 2) {
        if (!haveNode) {
            haveNode = Get(&iro[0], ipo);
            if (!haveNode) {
                // This stage is done: the one filled becomes the one read.
                --k;
                m_top = 0;
                m_read = 1 - m_read;
                std::fill_n(m_key2.get(), hashSize, NoKey);
                continue;
            }
        }
        haveNode = false;

        // Daughters of the node: the ways to spread column kb over the rows.
        const int kb = nco - k + 1;
        int ks = 0;
        int n = ico[kb];
        int kd = nro + 1;
        int kmax = nro;
        std::fill(idif.begin(), idif.end(), 0);
        do {
            --kd;
            const int put = std::min(n, iro[kd]);
            idif[kd] = put;
            if (idif[kmax] == 0)
                --kmax;
            n -= put;
        } while (n > 0 && kd != 1);
        if (n != 0)
            continue;

        const int k1 = k - 1;
        n = ico[kb];
        ntot = 0;
        for (int i = kb + 1; i <= nco; ++i)
            ntot += ico[i];

        {
            const Stage& read = m_stages[m_read];
            past.Clear();
            for (int ipn = read.head[ipo - 1]; ipn > 0; ipn = read.entries[ipn].next)
                past.Append(read.entries[ipn].length, read.entries[ipn].frequency);
            past.Prepare();
        }

        do {
            for (int i = 1; i <= nro; ++i)
                irn[i] = iro[i] - idif[i];
            int nrb = 1;
            if (k1 > 1) {
                std::sort(irn.begin() + 1, irn.end());
                while (nrb <= nro && irn[nrb] == 0)
                    ++nrb;
            }
            const int nro2 = nro - nrb + 1;

            const double ddf = LogMultinomial(nro, n, &idif[1], fact);
            const double drn = LogMultinomial(nro2, ntot, &irn[nrb], fact) - dro + ddf;
            int kval = 0;
            int itp = 0;
            if (k1 > 1) {
                kval = irn[1];
                for (int i = 2; i <= nro; ++i)
                    kval += irn[i] * m_kyy[i];
                if (hashSize == 0)
                    FailKeys();
                // A daughter met before in this stage keeps its bounds.
                auto probe = [&](int slot) {
                    const int ii = m_key2[slot - 1];
                    if (ii == kval)
                        return true;
                    if (ii >= 0)
                        return false;
                    m_key2[slot - 1] = kval;
                    m_longest[slot] = 1.0;
                    m_shortest[slot] = 1.0;
                    return true;
                };
                const int start = kval % hashSize + 1;
                for (int t = start; t <= hashSize && itp == 0; ++t)
                    if (probe(t))
                        itp = t;
                for (int t = 1; t < start && itp == 0; ++t)
                    if (probe(t))
                        itp = t;
                if (itp == 0)
                    FailKeys();
            }

            bool psh = true;

            // The longest and shortest remaining paths bound which past
            // lengths lead only to tables at most as probable as the
            // observed one (obs3) and which may lead to any (obs2).
            double obs2, obs3;
            bool chisq = false;
            double tmp = 0.0;
            if (k1 > 1) {
                obs2 = obs - fact[ico[kb + 1]] - fact[ico[kb + 2]] - ddf;
                for (int i = 3; i <= k1; ++i)
                    obs2 -= fact[ico[kb + i]];
                if (m_longest[itp] > 0.0) {
                    const double dspt = obs - obs2 - ddf;
                    m_longest[itp] = std::min(0.0, LongestPath(nro2, &irn[nrb], k1, &ico[kb + 1], ntot));
                    m_shortest[itp] = std::min(0.0, ShortestPath(nro2, &irn[nrb], k1, &ico[kb + 1], dspt));
                    m_chiSquare[itp] = NoChiSquare;
                    if (maybeChiSquare)
                        m_chiSquare[itp] = ChiSquareOffset(nro2, &irn[nrb], k1, &ico[kb + 1], ntot, obs - dro);
                }
                obs3 = obs2 - m_longest[itp];
                obs2 -= m_shortest[itp];
                if (m_chiSquare[itp] != NoChiSquare) {
                    chisq = true;
                    tmp = m_chiSquare[itp];
                }
            } else {
                obs2 = obs - drn - dro;
                obs3 = obs2;
            }

            // Every past length of the node: summed when every completion
            // is at most as probable as the observed table, dropped when
            // none is, approximated or passed on to the next stage otherwise
            // (in the list's order, which decides how Put merges lengths).
            pre.Add(past.SumUpTo(obs3, drn));
            if (past.AnyBetween(obs3, obs2)) {
                for (std::size_t i = 0; i < past.Size(); ++i) {
                    const double pastp = past.Length(i);
                    if (!(pastp > obs3 && pastp < obs2))
                        continue;
                    if (chisq) {
                        const double df = static_cast<double>((nro2 - 1) * (k1 - 1));
                        const double x = std::max(0.0, tmp + (pastp + drn) * 2.0) / 2.0;
                        const double pv = boost::math::gamma_q(df / 2.0, x);
                        pre.Add(static_cast<double>(past.Frequency(i)) * std::exp(pastp + drn) * pv);
                    } else {
                        Put(pastp + ddf, kval, past.Frequency(i), psh);
                        psh = false;
                    }
                }
            }
        } while (NextDaughter(kmax, &iro[0], &idif[0], kd, ks));
    }
    return pre.Value();
}

// For the hybrid: when the subtable with these totals meets the conditions
// (its smallest expected count above emin, percnt % of them at least
// expect), the offset that turns a past path length into the statistic of
// the chi-squared tail, -2 log of the probability ratio less the log of the
// normal approximation's constant; NoChiSquare otherwise. observed is the
// log-probability of the observed table.
double Network::ChiSquareOffset(int nrow, const int* irow, int ncol, const int* icol, int ntot, double observed) const
{
    const double* fact = m_fact.data();
    if (!(static_cast<double>(irow[0]) * icol[0] > static_cast<double>(ntot) * m_emin))
        return NoChiSquare;
    int ncell = 0;
    for (int i = 0; i < nrow; ++i)
        for (int j = 0; j < ncol; ++j)
            if (static_cast<double>(irow[i]) * icol[j] >= static_cast<double>(ntot) * m_expect)
                ++ncell;
    if (!(ncell * 100 >= ncol * nrow * m_percnt))
        return NoChiSquare;
    double t = 0.0;
    for (int i = 0; i < nrow; ++i)
        t += fact[irow[i]] - fact[irow[i] - 1];
    t *= ncol - 1;
    for (int j = 0; j < ncol; ++j)
        t += (nrow - 1) * (fact[icol[j]] - fact[icol[j] - 1]);
    const double df = static_cast<double>((nrow - 1) * (ncol - 1));
    t += df * LogTwoPi;
    t -= (nrow * ncol - 1) * (fact[ntot] - fact[ntot - 1]);
    return observed * -2.0 - t;
}

void Network::Put(double pastp, int kval, int ifreq, bool psh)
{
    Stage& s = m_stages[1 - m_read];
    const int ldkey = m_ldkey;
    if (psh) {
        if (ldkey == 0)
            FailKeys();
        const int ird = kval % ldkey;
        int itp = -1;
        bool isNew = false;
        for (int i = ird; i < ldkey && itp < 0; ++i) {
            if (s.key[i] == kval)
                itp = i;
            else if (s.key[i] < 0)
                itp = i, isNew = true;
        }
        for (int i = 0; i < ird && itp < 0; ++i) {
            if (s.key[i] == kval)
                itp = i;
            else if (s.key[i] < 0)
                itp = i, isNew = true;
        }
        if (itp < 0)
            FailKeys();
        m_lastSlot = itp;
        if (isNew) {
            s.key[itp] = kval;
            ++m_top;
            s.head[itp] = m_top;
            if (m_top > m_ldstp)
                FailPastPaths();
            s.entries[m_top] = {pastp, -1, -1, ifreq, -1};
            return;
        }
    }

    // Lengths within Tol of one another share an entry; a new one goes
    // where the search ended, and into the list after its parent.
    const double test1 = pastp - Tol;
    const double test2 = pastp + Tol;
    PathEntry* entries = s.entries.get();
    int ipn = s.head[m_lastSlot];
    int parent = ipn;
    bool onLeft = false;
    do {
        PathEntry& e = entries[ipn];
        parent = ipn;
        if (e.length < test1) {
            onLeft = true;
            ipn = e.left;
        } else if (e.length > test2) {
            onLeft = false;
            ipn = e.right;
        } else {
            e.frequency += ifreq;
            return;
        }
    } while (ipn > 0);

    ++m_top;
    if (m_top > m_ldstp)
        FailPastPaths();
    (onLeft ? entries[parent].left : entries[parent].right) = m_top;
    entries[m_top] = {pastp, -1, -1, ifreq, entries[parent].next};
    entries[parent].next = m_top;
}

bool Network::Get(int* irow, int& ipn)
{
    Stage& s = m_stages[m_read];
    while (++m_last <= m_ldkey) {
        int kval = s.key[m_last - 1];
        if (kval < 0)
            continue;
        s.key[m_last - 1] = NoKey;
        for (int j = m_nro; j > 1; --j) {
            irow[j] = kval / m_kyy[j];
            kval -= irow[j] * m_kyy[j];
        }
        irow[1] = kval;
        ipn = m_last;
        return true;
    }
    m_last = 0;
    return false;
}

// The longest path (the least probable completion, as a negative log) of a
// subtable with the given totals, by dynamic programming over the rows
// (f3xact). irow and icol are ascending.
double Network::LongestPath(int nrow, const int* irowIn, int ncol, const int* icolIn, int ntot)
{
    const double* fact = m_fact.data();
    const int* irow = irowIn - 1; // one-based below
    const int* icol = icolIn - 1;

    if (nrow <= 1) {
        double lp = 0.0;
        if (nrow > 0)
            for (int i = 1; i <= ncol; ++i)
                lp -= fact[icol[i]];
        return lp;
    }
    if (ncol <= 1) {
        double lp = 0.0;
        if (ncol > 0)
            for (int i = 1; i <= nrow; ++i)
                lp -= fact[irow[i]];
        return lp;
    }
    if (nrow * ncol == 4) {
        const int n11 = (irow[1] + 1) * (icol[1] + 1) / (ntot + 2);
        const int n12 = irow[1] - n11;
        return -(fact[n11] + fact[n12] + fact[icol[1] - n11] + fact[icol[2] - n12]);
    }

    int* ico = m_lpIco.data();
    int* iro = m_lpIro.data();
    int* it = m_lpIt.data();
    int* lb = m_lpLb.data();
    int* nr = m_lpNr.data();
    int* nt = m_lpNt.data();
    int* nu = m_lpNu.data();
    int* itc = m_lpItc.data();
    int* ist = m_lpIst.data();
    double* stv = m_lpStv.data();
    double* alen = m_lpAlen.data();

    double val = 0.0;
    bool xmin = false;
    if (irow[nrow] <= irow[1] + ncol)
        xmin = EvenSpreadPath(nrow, &irow[1], ncol, &icol[1], val, fact, &lb[1], &nu[1], &nr[1]);
    if (!xmin && icol[ncol] <= icol[1] + nrow)
        xmin = EvenSpreadPath(ncol, &icol[1], nrow, &irow[1], val, fact, &lb[1], &nu[1], &nr[1]);
    if (xmin)
        return -val;

    for (int i = 0; i <= ncol; ++i)
        alen[i] = 0.0;
    for (int i = 1; i <= 2 * HalfStack; ++i)
        ist[i] = -1;

    // Fewer columns than rows, so that a node's key (its column totals) stays
    // short.
    int nn = ntot;
    int nro, nco;
    const int* longSide = nrow >= ncol ? irow : icol;
    const int* shortSide = nrow >= ncol ? icol : irow;
    nro = std::max(nrow, ncol);
    nco = std::min(nrow, ncol);
    ico[1] = shortSide[1];
    nt[1] = nn - ico[1];
    for (int i = 2; i <= nco; ++i) {
        ico[i] = shortSide[i];
        nt[i] = nt[i - 1] - ico[i];
    }
    for (int i = 1; i <= nro; ++i)
        iro[i] = longSide[i];

    const int nc1s = nco - 1;
    const int kyy = ico[nco] + 1;
    double vmn = 1e100;
    int irl = 1;
    int ks = 0;
    int k = HalfStack;
    int nst = 0;
    int nitc = 0;
    int lev = 1;
    int nr1 = 0;

    bool newNode = true;
    for (;;) {
        if (newNode) {
            newNode = false;
            lev = 1;
            nr1 = nro - 1;
            const int nrt = iro[irl];
            const int nct = ico[1];
            lb[1] = static_cast<int>(((static_cast<double>(nrt) + 1) * (nct + 1))
                                         / static_cast<double>(nn + nr1 * nc1s + 1)
                                     - Tol)
                    - 1;
            nu[1] = static_cast<int>(((static_cast<double>(nrt) + nc1s) * (nct + nr1))
                                     / static_cast<double>(nn + nr1 + nc1s))
                    - lb[1] + 1;
            nr[1] = nrt - lb[1];
        }

        // The next node of this level, or back up a level; from the top,
        // take the next stored node.
        --nu[lev];
        if (nu[lev] == 0) {
            if (lev > 1) {
                --lev;
                continue;
            }
            for (;;) {
                if (nitc > 0) {
                    const int itp = itc[nitc + k] + k;
                    --nitc;
                    val = stv[itp];
                    int key = ist[itp];
                    ist[itp] = -1;
                    for (int i = nco; i >= 2; --i) {
                        ico[i] = key % kyy;
                        key /= kyy;
                    }
                    ico[1] = key;
                    nt[1] = nn - ico[1];
                    for (int i = 2; i <= nco; ++i)
                        nt[i] = nt[i - 1] - ico[i];
                    // As published, the first test compares with the last
                    // row of the whole table, not of the remaining rows.
                    bool even = false;
                    if (iro[nro] <= iro[irl] + nco)
                        even = EvenSpreadPath(nro, &iro[irl], nco, &ico[1], val, fact, &lb[1], &nu[1], &nr[1]);
                    if (!even && ico[nco] <= ico[1] + nro)
                        even = EvenSpreadPath(nco, &ico[1], nro, &iro[irl], val, fact, &lb[1], &nu[1], &nr[1]);
                    if (even) {
                        vmn = std::min(vmn, val);
                        continue;
                    }
                    newNode = true;
                    break;
                }
                if (nro > 2 && nst > 0) {
                    nitc = nst;
                    nst = 0;
                    k = ks;
                    ks = HalfStack - ks;
                    nn -= iro[irl];
                    ++irl;
                    --nro;
                    continue;
                }
                return -vmn;
            }
            continue;
        }
        ++lb[lev];
        --nr[lev];

        for (;;) {
            alen[lev] = alen[lev - 1] + fact[lb[lev]];
            if (lev >= nc1s)
                break;
            const int nn1 = nt[lev];
            const int nrt = nr[lev];
            ++lev;
            const int nc1 = nco - lev;
            const int nct = ico[lev];
            lb[lev] = static_cast<int>(((static_cast<double>(nrt) + 1) * (nct + 1))
                                           / static_cast<double>(nn1 + nr1 * nc1 + 1)
                                       - Tol);
            nu[lev] = static_cast<int>(((static_cast<double>(nrt) + nc1) * (nct + nr1))
                                           / static_cast<double>(nn1 + nr1 + nc1)
                                       - lb[lev] + 1);
            nr[lev] = nrt - lb[lev];
        }
        alen[nco] = alen[lev] + fact[nr[lev]];
        lb[nco] = nr[lev];

        double v = val + alen[nco];
        if (nro == 2) {
            // One row left: it takes what the columns have left.
            for (int i = 1; i <= nco; ++i)
                v += fact[ico[i] - lb[i]];
            vmn = std::min(vmn, v);
        } else if (nro == 3 && nco == 2) {
            const int nn1 = nn - iro[irl] + 2;
            const int ic1 = ico[1] - lb[1];
            const int ic2 = ico[2] - lb[2];
            const int n11 = (iro[irl + 1] + 1) * (ic1 + 1) / nn1;
            const int n12 = iro[irl + 1] - n11;
            v += fact[n11] + fact[n12] + fact[ic1 - n11] + fact[ic2 - n12];
            vmn = std::min(vmn, v);
        } else {
            // The columns' remaining totals are a node of the next level,
            // stored once with its smallest length so far.
            for (int i = 1; i <= nco; ++i)
                it[i] = std::max(ico[i] - lb[i], 0);
            std::sort(it + 1, it + nco + 1);
            // The published code builds the key in 32-bit integers; past
            // INT_MAX it would wrap, to a negative key or worse to another
            // node's, so any overflow is the broken key.
            std::int64_t wide = static_cast<std::int64_t>(it[1]) * kyy + it[2];
            for (int i = 3; i <= nco && wide <= INT_MAX; ++i)
                wide = it[i] + wide * kyy;
            if (wide > INT_MAX || wide < 0)
                throw NCInternalError("fexact", ExceptionMessage::translate("Negative key generated."));
            const int key = static_cast<int>(wide);
            const int ipn = key % HalfStack + 1;
            int slot = -1;
            bool stored = false;
            for (int itp = ipn; itp <= HalfStack && slot < 0; ++itp) {
                const int ii = ks + itp;
                if (ist[ii] < 0)
                    slot = itp;
                else if (ist[ii] == key)
                    slot = itp, stored = true;
            }
            for (int itp = 1; itp <= ipn - 1 && slot < 0; ++itp) {
                const int ii = ks + itp;
                if (ist[ii] < 0)
                    slot = itp;
                else if (ist[ii] == key)
                    slot = itp, stored = true;
            }
            if (slot < 0)
                Fail(ExceptionMessage::translate("Stack length exceeded in f3xact.\n"
                                                 "This problem should not occur."));
            const int ii = ks + slot;
            if (stored) {
                stv[ii] = std::min(v, stv[ii]);
            } else {
                ist[ii] = key;
                stv[ii] = v;
                ++nst;
                itc[nst + ks] = slot;
            }
        }
    }
}

// The shortest path (the most probable completion) of a subtable, relative
// to dspt, by a depth-first search over cells filled as fully as the totals
// allow (f4xact). irow and icol are ascending.
double Network::ShortestPath(int nrow, const int* irow, int ncol, const int* icol, double dspt)
{
    const double* fact = m_fact.data();
    if (nrow == 1) {
        double sp = 0.0;
        for (int i = 0; i < ncol; ++i)
            sp -= fact[icol[i]];
        return sp;
    }
    if (ncol == 1) {
        double sp = 0.0;
        for (int i = 0; i < nrow; ++i)
            sp -= fact[irow[i]];
        return sp;
    }
    if (nrow * ncol == 4) {
        if (irow[1] <= icol[1])
            return -(fact[irow[1]] + fact[icol[1]] + fact[icol[1] - irow[1]]);
        return -(fact[icol[1]] + fact[irow[1]] + fact[irow[1] - icol[1]]);
    }

    // Row and column totals of each level, descending, one-based.
    int* irstk = m_spIrstk.data();
    int* icstk = m_spIcstk.data();
    auto R = [&](int i, int s) -> int& { return irstk[i + static_cast<std::ptrdiff_t>(s) * nrow]; };
    auto C = [&](int j, int s) -> int& { return icstk[j + static_cast<std::ptrdiff_t>(s) * ncol]; };
    int* nrstk = m_spNrstk.data();
    int* ncstk = m_spNcstk.data();
    int* lstk = m_spLstk.data();
    int* mstk = m_spMstk.data();
    int* nstk = m_spNstk.data();
    double* ystk = m_spYstk.data();

    for (int i = 1; i <= nrow; ++i)
        R(i, 1) = irow[nrow - i];
    for (int j = 1; j <= ncol; ++j)
        C(j, 1) = icol[ncol - j];

    int nro = nrow;
    int nco = ncol;
    nrstk[1] = nro;
    ncstk[1] = nco;
    ystk[1] = 0.0;
    double y = 0.0;
    int istk = 1;
    int l = 1;
    int m = 0;
    int n = 0;
    double amx = 0.0;
    double sp = dspt;

    // The published search resumes a level with the m of the deepest level
    // visited, not the level's own; kept, since it decides which tables
    // are tried.
    bool chooseSide = true;
    for (;;) {
        for (;;) {
            if (chooseSide) {
                const int ir1 = R(1, istk);
                const int ic1 = C(1, istk);
                if (ir1 > ic1) {
                    if (nro >= nco)
                        m = nco - 1, n = 2;
                    else
                        m = nro, n = 1;
                } else if (ir1 < ic1) {
                    if (nro <= nco)
                        m = nro - 1, n = 1;
                    else
                        m = nco, n = 2;
                } else {
                    if (nro <= nco)
                        m = nro - 1, n = 1;
                    else
                        m = nco - 1, n = 2;
                }
            }
            chooseSide = true;

            int i, j;
            if (n == 1)
                i = l, j = 1;
            else
                i = 1, j = l;
            const int irt = R(i, istk);
            const int ict = C(j, istk);
            y += fact[std::min(irt, ict)];
            if (irt == ict) {
                --nro;
                --nco;
                DropElement(&R(1, istk), i, nro, &R(1, istk + 1));
                DropElement(&C(1, istk), j, nco, &C(1, istk + 1));
            } else if (irt > ict) {
                --nco;
                DropElement(&C(1, istk), j, nco, &C(1, istk + 1));
                ReplaceElement(&R(1, istk), irt - ict, i, nro, &R(1, istk + 1));
            } else {
                --nro;
                DropElement(&R(1, istk), i, nro, &R(1, istk + 1));
                ReplaceElement(&C(1, istk), ict - irt, j, nco, &C(1, istk + 1));
            }
            if (nro == 1) {
                for (int kk = 1; kk <= nco; ++kk)
                    y += fact[C(kk, istk + 1)];
                break;
            }
            if (nco == 1) {
                for (int kk = 1; kk <= nro; ++kk)
                    y += fact[R(kk, istk + 1)];
                break;
            }
            lstk[istk] = l;
            mstk[istk] = m;
            nstk[istk] = n;
            ++istk;
            nrstk[istk] = nro;
            ncstk[istk] = nco;
            ystk[istk] = y;
            l = 1;
        }

        if (y > amx) {
            amx = y;
            if (sp - amx <= Tol)
                return -dspt;
        }

        // Back to the deepest level with another distinct total to try.
        bool resumed = false;
        while (!resumed) {
            --istk;
            if (istk == 0) {
                sp -= amx;
                if (sp - amx <= Tol)
                    return -dspt;
                return sp - dspt;
            }
            for (l = lstk[istk] + 1; l <= mstk[istk]; ++l) {
                n = nstk[istk];
                nro = nrstk[istk];
                nco = ncstk[istk];
                y = ystk[istk];
                if (n == 1 ? R(l, istk) < R(l - 1, istk) : (n == 2 && C(l, istk) < C(l - 1, istk))) {
                    resumed = true;
                    break;
                }
            }
        }
        chooseSide = false;
    }
}

} // namespace

double GetTableProbability(int a, int b, int c, int d)
{
    // Grouped so that tables mirroring each other (a with d, b with c, or
    // transposed) give the same bits, which the exact comparison of the
    // two-sided test relies on.
    const double margins = (LogFactorial(a + b) + LogFactorial(c + d)) + (LogFactorial(a + c) + LogFactorial(b + d));
    const double cells = (LogFactorial(a) + LogFactorial(d)) + (LogFactorial(b) + LogFactorial(c));
    return std::exp(margins - (LogFactorial(a + b + c + d) + cells));
}

double BinomialCoefficient(int n, int k)
{
    if (k < 0 || n < 0 || k > n)
        return 0.0;
    k = std::min(k, n - k);
    // Each partial product is itself a binomial coefficient times i, so it
    // stays an integer and exact while below 2^53.
    double result = 1.0;
    for (int i = 1; i <= k; ++i)
        result = result * static_cast<double>(n - k + i) / static_cast<double>(i);
    return result;
}

double GetFisherExactProbability(const int* table, int n1, int n2, bool hybrid, SidedNess sides, int workspace)
{
    if (n1 == 2 && n2 == 2) {
        int a = table[0], b = table[1], c = table[2], d = table[3];
        // The walk over the tables with these margins has no meaning for a
        // negative count; it is refused as the larger tables refuse it.
        if (a < 0 || b < 0 || c < 0 || d < 0)
            Fail(ExceptionMessage::translate("All elements of TABLE may not be negative."));
        const double p0 = GetTableProbability(a, b, c, d);
        double sum = 0.0;
        if (sides == LowerTail || sides == TwoSided) {
            int wa = a, wb = b, wc = c, wd = d;
            int& cell = wa <= wd ? wa : wd;
            while (cell > 0) {
                --wa, ++wb, ++wc, --wd;
                const double p = GetTableProbability(wa, wb, wc, wd);
                if (sides == LowerTail || p <= p0)
                    sum += p;
            }
            if (sides == LowerTail)
                return p0 + sum;
        }
        if (sides == UpperTail || sides == TwoSided) {
            int& cell = b <= c ? b : c;
            while (cell > 0) {
                ++a, --b, --c, ++d;
                const double p = GetTableProbability(a, b, c, d);
                if (sides == UpperTail || p <= p0)
                    sum += p;
            }
        }
        return p0 + sum;
    }

    // FEXACT reads a column-major table: n2 rows of n1 columns, leading
    // dimension n2, i.e. the transpose, which has the same p-value.
    const bool exact = !hybrid;
    Network network(n2, n1, table, n2, exact ? -1.0 : 5.0, exact ? 100.0 : 80.0, exact ? 0.0 : 1.0, workspace);
    return network.Run();
}

} // namespace Sta
