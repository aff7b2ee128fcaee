#include "veltancmat/spc/ms_shapiro_wilk.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace normality_test {

namespace {

// The published constants of AS R94.
constexpr double Small = 1e-19;
constexpr double C1[] = {0.0, 0.221157, -0.147981, -2.071190, 4.434685, -2.706056};
constexpr double C2[] = {0.0, 0.042981, -0.293762, -1.752461, 5.682633, -3.582633};
constexpr double C3[] = {0.5440, -0.39978, 0.025054, -6.714e-4};
constexpr double C4[] = {1.3822, -0.77857, 0.062767, -0.0020322};
constexpr double C5[] = {-1.5861, -0.31082, -0.083751, 0.0038915};
constexpr double C6[] = {-0.4803, -0.082676, 0.0030302};
constexpr double C7[] = {0.164, 0.533};
constexpr double C8[] = {0.1736, 0.315};
constexpr double C9[] = {0.256, -0.00635};
constexpr double G[] = {-2.273, 0.459};
constexpr double Z90 = 1.2816, Z95 = 1.6449, Z99 = 2.3263;
constexpr double Zm = 1.7509, Zss = 0.56268;
constexpr double Bf1 = 0.8378, Xx90 = 0.556, Xx95 = 0.622;
constexpr double Sqrth = 0.70711, Quarter = 0.25, Th = 0.375;
constexpr double Pi6 = 1.909859, Stqr = 1.047198;

} // namespace

ms_shapiro_wilk::ms_shapiro_wilk() = default;

ms_shapiro_wilk::ms_shapiro_wilk(const Samples& samples, long n, long n1, long n2) : m_samples(samples)
{
    calculate(n, n1, n2);
}

ms_shapiro_wilk::ms_shapiro_wilk(const ms_shapiro_wilk& other) = default;
ms_shapiro_wilk& ms_shapiro_wilk::operator=(const ms_shapiro_wilk& other) = default;
ms_shapiro_wilk::~ms_shapiro_wilk() = default;

void ms_shapiro_wilk::appendSampleValue(double x)
{
    m_samples.emplace_back(m_samples.size(), x);
    m_result = 0.0;
    m_pValue = 0.0;
    m_errorCode = 0;
}

void ms_shapiro_wilk::clearSampleValues()
{
    m_samples.clear();
}

void ms_shapiro_wilk::calculate(long n, long n1, long n2)
{
    int fault = 0;
    swilk(false, m_samples, n, n1, n2, m_coefficients, m_result, m_pValue, fault);
    m_errorCode = fault;
}

double ms_shapiro_wilk::poly(const double* c, int nord, double x)
{
    double result = c[0];
    if (nord == 1)
        return result;
    double p = x * c[nord - 1];
    for (int j = nord - 2; j > 0; --j)
        p = (p + c[j]) * x;
    return result + p;
}

long ms_shapiro_wilk::sign(long x, long y)
{
    const long magnitude = x < 0 ? -x : x;
    return y >= 0 ? magnitude : -magnitude;
}

double ms_shapiro_wilk::ppnd7(double p, int& ifault)
{
    // AS 241, the seven-digit version.
    constexpr double Split1 = 0.425, Split2 = 5.0, Const1 = 0.180625, Const2 = 1.6;
    constexpr double A0 = 3.3871327179, A1 = 50.434271938, A2 = 159.29113202, A3 = 59.109374720;
    constexpr double B1 = 17.895169469, B2 = 78.757757664, B3 = 67.187563600;
    constexpr double C0 = 1.4234372777, C1p = 2.7568153900, C2p = 1.3067284816, C3p = 0.17023821103;
    constexpr double D1 = 0.73700164250, D2 = 0.12021132975;
    constexpr double E0 = 6.6579051150, E1 = 3.0812263860, E2 = 0.42868294337, E3 = 0.017337203997;
    constexpr double F1 = 0.24197894225, F2 = 0.012258202635;
    ifault = 0;
    const double q = p - 0.5;
    if (std::abs(q) <= Split1) {
        const double r = Const1 - q * q;
        return q * (((A3 * r + A2) * r + A1) * r + A0) / (((B3 * r + B2) * r + B1) * r + 1.0);
    }
    double r = q < 0.0 ? p : 1.0 - p;
    if (r <= 0.0) {
        ifault = 1;
        return 0.0;
    }
    r = std::sqrt(-std::log(r));
    double value;
    if (r <= Split2) {
        r -= Const2;
        value = (((C3p * r + C2p) * r + C1p) * r + C0) / ((D2 * r + D1) * r + 1.0);
    } else {
        r -= Split2;
        value = (((E3 * r + E2) * r + E1) * r + E0) / ((F2 * r + F1) * r + 1.0);
    }
    return q < 0.0 ? -value : value;
}

double ms_shapiro_wilk::alnorm(double x, bool upper)
{
    // AS 66.
    constexpr double Ltone = 7.0, Utzero = 18.66, Con = 1.28;
    constexpr double P = 0.398942280444, Q = 0.39990348504, R = 0.398942280385;
    constexpr double A1 = 5.75885480458, A2 = 2.62433121679, A3 = 5.92885724438;
    constexpr double B1 = -29.8213557807, B2 = 48.6959930692;
    constexpr double Cc1 = -3.8052e-8, Cc2 = 3.98064794e-4, Cc3 = -0.151679116635, Cc4 = 4.8385912808,
                     Cc5 = 0.742380924027, Cc6 = 3.99019417011;
    constexpr double D1 = 1.00000615302, D2 = 1.98615381364, D3 = 5.29330324926, D4 = -15.1508972451,
                     D5 = 30.789933034;
    bool up = upper;
    double z = x;
    if (z < 0.0) {
        up = !up;
        z = -z;
    }
    double value = 0.0;
    if (z <= Ltone || (up && z <= Utzero)) {
        const double y = 0.5 * z * z;
        if (z > Con)
            value = R * std::exp(-y) /
                    (z + Cc1 + D1 / (z + Cc2 + D2 / (z + Cc3 + D3 / (z + Cc4 + D4 / (z + Cc5 + D5 / (z + Cc6))))));
        else
            value = 0.5 - z * (P - Q * y / (y + A1 + B1 / (y + A2 + B2 / (y + A3))));
    }
    return up ? value : 1.0 - value;
}

void ms_shapiro_wilk::swilk(bool init, const Samples& samples, long n, long n1, long n2, std::deque<double>& a,
                            double& w, double& pw, int& ifault)
{
    pw = 1.0;
    if (w >= 0.0)
        w = 1.0;
    const double an = static_cast<double>(n);
    const long nn2 = n / 2;
    ifault = 3;
    if (n2 < nn2)
        return;
    ifault = 1;
    if (n < 3)
        return;

    if (!init) {
        a.assign(static_cast<std::size_t>(std::max(n2, 1L)), 0.0);
        if (n == 3) {
            a[0] = Sqrth;
        } else {
            const double an25 = an + Quarter;
            std::vector<double> m(static_cast<std::size_t>(n2));
            double summ2 = 0.0;
            for (long i = 1; i <= n2; ++i) {
                int fault = 0;
                const double mi = ppnd7((static_cast<double>(i) - Th) / an25, fault);
                if (fault != 0) {
                    ifault = 8;
                    return;
                }
                m[static_cast<std::size_t>(i - 1)] = mi;
                summ2 += mi * mi;
            }
            summ2 *= 2.0;
            const double ssumm2 = std::sqrt(summ2);
            const double rsn = 1.0 / std::sqrt(an);
            const double a1 = poly(C1, 6, rsn) - m[0] / ssumm2;
            long first;
            double fac;
            if (n > 5) {
                first = 3;
                const double a2 = -m[1] / ssumm2 + poly(C2, 6, rsn);
                fac = std::sqrt((summ2 - 2.0 * m[0] * m[0] - 2.0 * m[1] * m[1]) /
                                (1.0 - 2.0 * a1 * a1 - 2.0 * a2 * a2));
                a[1] = a2;
            } else {
                first = 2;
                fac = std::sqrt((summ2 - 2.0 * m[0] * m[0]) / (1.0 - 2.0 * a1 * a1));
            }
            a[0] = a1;
            for (long i = first; i <= nn2; ++i)
                a[static_cast<std::size_t>(i - 1)] = -m[static_cast<std::size_t>(i - 1)] / fac;
        }
    }

    if (n1 < 3)
        return;
    const long ncens = n - n1;
    ifault = 4;
    if (ncens < 0 || (ncens > 0 && n < 20))
        return;
    ifault = 5;
    const double delta = static_cast<double>(ncens) / an;
    if (delta > 0.8)
        return;

    // A coefficient of the order statistic i (1-based) of n: -a_i in the
    // lower half, a_{n+1-i} in the upper, 0 in the middle.
    auto coefficient = [&](long i) {
        const long j = n + 1 - i;
        return i == j ? 0.0 : static_cast<double>(sign(1, i - j)) * a[static_cast<std::size_t>(std::min(i, j) - 1)];
    };

    double w1;
    if (w < 0.0) {
        w1 = 1.0 + w;
        ifault = 0;
    } else {
        if (static_cast<long>(samples.size()) < n1) {
            ifault = 1;
            return;
        }
        auto x = [&](long i) { return samples[static_cast<std::size_t>(i - 1)].second; };
        ifault = 6;
        const double range = x(n1) - x(1);
        if (range < Small)
            return;
        // The sort order, on the range-scaled values.
        ifault = 7;
        double xx = x(1) / range;
        double sx = xx;
        double sa = -a[0];
        for (long i = 2; i <= n1; ++i) {
            const double xi = x(i) / range;
            if (xx - xi > Small)
                return;
            sx += xi;
            sa += coefficient(i);
            xx = xi;
        }
        ifault = n > 5000 ? 2 : 0;
        // W as the squared correlation of the values and the coefficients.
        sa /= static_cast<double>(n1);
        sx /= static_cast<double>(n1);
        double ssa = 0.0, ssx = 0.0, sax = 0.0;
        for (long i = 1; i <= n1; ++i) {
            const double asa = coefficient(i) - sa;
            const double xsx = x(i) / range - sx;
            ssa += asa * asa;
            ssx += xsx * xsx;
            sax += asa * xsx;
        }
        // 1 - W, formed so that a W very near 1 keeps its digits.
        const double ssassx = std::sqrt(ssa * ssx);
        w1 = (ssassx - sax) * (ssassx + sax) / (ssa * ssx);
    }
    w = 1.0 - w1;

    // The p-value: exact for n = 3 (deliberately not clamped at 0).
    if (n == 3) {
        pw = Pi6 * (std::asin(std::sqrt(w)) - Stqr);
        return;
    }
    double y = std::log(w1);
    const double lxx = std::log(an);
    double m, s;
    if (n <= 11) {
        const double gamma = poly(G, 2, an);
        if (y >= gamma) {
            pw = Small;
            return;
        }
        y = -std::log(gamma - y);
        m = poly(C3, 4, an);
        s = std::exp(poly(C4, 4, an));
    } else {
        m = poly(C5, 4, lxx);
        s = std::exp(poly(C6, 3, lxx));
    }
    if (ncens > 0) {
        // Censoring by the proportion delta: mean and standard deviation of
        // the normal equivalent of W, from a regression of the censored 90,
        // 95 and 99 % points on the uncensored ones.
        const double ld = -std::log(delta);
        const double bf = 1.0 + lxx * Bf1;
        const double z90f = Z90 + bf * std::pow(poly(C7, 2, std::pow(Xx90, lxx)), ld);
        const double z95f = Z95 + bf * std::pow(poly(C8, 2, std::pow(Xx95, lxx)), ld);
        const double z99f = Z99 + bf * std::pow(poly(C9, 2, lxx), ld);
        const double zfm = (z90f + z95f + z99f) / 3.0;
        const double zsd = (Z90 * (z90f - zfm) + Z95 * (z95f - zfm) + Z99 * (z99f - zfm)) / Zss;
        const double zbar = zfm - zsd * Zm;
        m += zbar * s;
        s *= zsd;
    }
    pw = alnorm((y - m) / s, true);
}

} // namespace normality_test
