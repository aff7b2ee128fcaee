#pragma once

#include "veltancmat/platform/Export.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>

namespace normality_test {

// The Shapiro-Wilk W test of normality and its p-value for up to 5000
// values, optionally censored: algorithm AS R94 (Royston 1995) with the
// normal quantile of AS 241 (PPND7, Wichura 1988) and the normal tail of
// AS 66 (Hill 1973).
//
// Fault codes: 1 fewer than 3 values (or uncensored values), 2 more than
// 5000 values (a warning: W and p are computed), 3 too few coefficients,
// 4 more uncensored values than values, or censoring below 20 values,
// 5 more than 80 % censored, 6 a range below 1e-19, 7 values out of
// ascending order, 8 the quantile routine failed for a coefficient.
//
//   ms_shapiro_wilk test;
//   for (double x : sortedValues)
//       test.appendSampleValue(x);
//   test.calculate(n, n, n / 2);
//   double w = test.getResult(), p = test.getPValue();
class VELTANCMAT_API ms_shapiro_wilk {
public:
    using Samples = std::deque<std::pair<std::size_t, double>>;

    ms_shapiro_wilk();
    ms_shapiro_wilk(const Samples& samples, long n, long n1, long n2);
    ms_shapiro_wilk(const ms_shapiro_wilk& other);
    ms_shapiro_wilk& operator=(const ms_shapiro_wilk& other);
    ~ms_shapiro_wilk();

    // Appends a value (numbered in order of arrival) and clears the results.
    void appendSampleValue(double x);
    void clearSampleValues();
    // W and p of the appended values, which must be in ascending order: n
    // values, the n1 smallest uncensored, n2 = n / 2 coefficients.
    void calculate(long n, long n1, long n2);

    double getResult() const { return m_result; }
    double getPValue() const { return m_pValue; }
    double getErrorCode() const { return static_cast<double>(m_errorCode); }

    // AS R94. x holds the n values in ascending order (read in the order of
    // the deque); `a` receives the n2 coefficients, or with init true
    // supplies them. w: a negative w on entry asks for the p-value of -w
    // only. ifault as above; codes other than 0 and 2 leave w or pw unset.
    static void swilk(bool init, const Samples& x, long n, long n1, long n2, std::deque<double>& a, double& w,
                      double& pw, int& ifault);

private:
    static double poly(const double* c, int nord, double x);
    // AS 241, PPND7: the normal quantile of p to about 7 digits; ifault 1
    // for p outside (0, 1).
    static double ppnd7(double p, int& ifault);
    // AS 66: the normal tail area, upper or lower.
    static double alnorm(double x, bool upper);
    static long sign(long x, long y);

    friend class ShapiroWilkInternals; // tests of the published routines

    double m_result = 0.0;
    double m_pValue = 0.0;
    std::int32_t m_errorCode = 0;
    std::deque<double> m_coefficients;
    Samples m_samples;
};

} // namespace normality_test
