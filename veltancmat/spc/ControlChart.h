#pragma once

#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/platform/Export.h"
#include "veltancmat/spc/ControlChartEnum.h"

#include <cstddef>
#include <vector>

// The quantities of a statistical process control chart for one series:
// the plotted statistic per subgroup (mean, range, standard deviation,
// cumulative sums, EWMA), the centre line and the control limits. Subgroups
// are consecutive blocks of a fixed size, or intervals of a time axis.
//
//   ControlChart chart(ControlChartEnum::MeanRange, data, 5, ControlChartEnum::EWMANone);
//   const NCDataVector<float>& means = *chart.GetMeanVector();
//   double ucl = chart.GetMeanUCL(), lcl = chart.GetMeanLCL();
//
// Scalars hold -99 until they are known. The CuSum and EWMA results, the
// MSSD and an open EWMA lambda are computed on first request; the setters
// say which of them they reset.
class VELTANCMAT_API ControlChart {
public:
    using ControlType = ControlChartEnum::ControlType;
    using EWMAType = ControlChartEnum::EWMAType;

    // Consecutive blocks of `subgroupSize` (at least 1) values form the
    // subgroups; a trailing incomplete block is ignored.
    ControlChart(ControlType type, const NCDataVector<float>& data, int subgroupSize, EWMAType ewmaType);
    // Subgroups are intervals of `interval` along `times` (negative for a
    // descending axis), starting at the first present time; the subgroup
    // size is SubGroupRangeSize rounded.
    ControlChart(ControlType type, const NCDataVector<float>& data, const NCDataVector<float>& times, float interval,
                 EWMAType ewmaType);
    ControlChart(const ControlChart& other);
    ControlChart& operator=(const ControlChart& other);
    ~ControlChart();

    // ---- setters ------------------------------------------------------
    // A new centre line (ignored when -99), with the limits that depend on it.
    void SetTarget(double target);
    // A known process sigma (ignored when -99), with the limits from it.
    void SetStdDevSubgroup(double sigma);
    // Stored only: they act on results not yet computed.
    void SetEWMALambda(double lambda);
    void SetEWMAType(EWMAType type);
    void SetFirstValueAsTarget(bool on);
    void SetSymmetric(bool on);
    // The EWMA's start value carried over from an earlier chart (EWMA types).
    void SetPrevious(double previous);
    // The cumulative sums' start values (CuSum type).
    void SetPrevious(double low, double high);
    // The target, the limits, lambda, the EWMA limits and the MSSD of a
    // chart of a reference period; the vectors stay this chart's own.
    void ImportLimits(const ControlChart& other);

    // ---- results ------------------------------------------------------
    ControlType GetControlType() const { return m_type; }
    EWMAType GetEWMAType() const { return m_ewmaType; }
    int GetSubGroupSize() const { return m_n; }
    double GetTarget() const { return m_target; }
    double GetMeanUCL() const { return m_meanUCL; }
    double GetMeanLCL() const { return m_meanLCL; }
    double GetRangeMean() const { return m_rangeMean; }
    double GetRangeUCL() const { return m_rangeUCL; }
    double GetRangeLCL() const { return m_rangeLCL; }
    double GetStdDevProcess() const { return m_stdDevProcess; }
    double GetStdDevIndividual() const { return m_stdDevIndividual; }
    double GetStdDevMean() const { return m_stdDevMean; }
    double GetStdDevUCL() const { return m_stdDevUCL; }
    double GetStdDevLCL() const { return m_stdDevLCL; }
    const NCDataVector<float>* GetMeanVector() const { return &m_means; }
    const NCDataVector<float>* GetRangeVector() const { return &m_ranges; }
    const NCDataVector<float>* GetStdDevVector() const { return &m_stdDevs; }
    // Interval grouping only: the mean time and the number of values of each group.
    const NCDataVector<float>& GetMeanGroupVector() const { return m_meanGroups; }
    const std::vector<int>& GetSubGroupVector() const { return m_subGroups; }

    // CuSum: decision interval H, reference value K, subgroup mean minus
    // target, and the upper and lower sums.
    double GetActionLimit() const;
    double GetDeadBand() const;
    const NCDataVector<float>& GetDevFromTarget() const;
    const NCDataVector<float>& GetHighCuSum() const;
    const NCDataVector<float>& GetLowCuSum() const;
    // EWMA of the subgroup means, its weight (estimated from the
    // one-step-ahead errors when not set) and its asymptotic limits.
    const NCDataVector<float>& GetEWMA() const;
    double GetEWMALambda() const;
    double GetEWMAUCL() const;
    double GetEWMALCL() const;
    double GetEWMAStdDev() const;
    // Sigma from the mean square successive difference of the subgroup
    // means; the process sigma for subgroups of one value.
    double GetMSSD() const;

    // ---- factors ------------------------------------------------------
    // The three-sigma factors of subgroups of n: tabulated to n = 50 (d2)
    // and 25 (D3, D4), fitted polynomials beyond. A2 and A3 are computed
    // from d2 and c4.
    static double GetD2(std::size_t n);
    static double GetD3(std::size_t n);
    static double GetD4(std::size_t n);
    static double GetA2(std::size_t n);
    static double GetA3(std::size_t n);
    // The number of present times per interval group: the total over the
    // groups closed before the walk's end divided by every non-empty group,
    // the last one included (deliberately, so the average runs short), and
    // in maxSize the largest of those closed before the end (both 0 when
    // there is none).
    static double SubGroupRangeSize(const NCDataVector<float>& times, float interval, double& maxSize);

private:
    void FinishConstruction(bool bySize);
    void SetMeanRangeValues(double rangeMean);
    void SetStdDevValues(double stdDevMean);
    void ResetEWMALimits();
    void CalculateCuSum() const;
    void CalculateEWMA(NCDataVector<float>& out, double lambda, EWMAType type) const;
    void CalculateEWMALimits() const;
    // The sums of squared one-step-ahead errors of the predictive EWMA,
    // by weight.
    class PredictionErrors;
    PredictionErrors MakePredictionErrors() const;
    static double EstimateLambda(double start, double step, PredictionErrors& error);

    ControlType m_type;
    int m_n;
    NCDataVector<float> m_means;
    NCDataVector<float> m_ranges;
    NCDataVector<float> m_stdDevs;
    NCDataVector<float> m_meanGroups;
    std::vector<int> m_subGroups;
    double m_target = 0.0;
    double m_meanUCL = -99.0;
    double m_meanLCL = -99.0;
    double m_rangeMean = -99.0;
    double m_rangeUCL = -99.0;
    double m_rangeLCL = -99.0;
    double m_stdDevProcess = -99.0;
    double m_stdDevIndividual = -99.0;
    double m_stdDevMean = -99.0;
    double m_stdDevUCL = -99.0;
    double m_stdDevLCL = -99.0;
    // The lazily computed groups; a getter fills what it finds unset.
    mutable double m_actionLimit = -99.0;
    mutable double m_deadBand = -99.0;
    mutable NCDataVector<float> m_devFromTarget;
    mutable NCDataVector<float> m_highCuSum;
    mutable NCDataVector<float> m_lowCuSum;
    mutable double m_ewmaLambda = -99.0;
    mutable NCDataVector<float> m_ewma;
    mutable double m_ewmaUCL = -99.0;
    mutable double m_ewmaLCL = -99.0;
    mutable double m_ewmaStdDev = -99.0;
    mutable double m_mssd = -99.0;
    double m_previousEWMA = -99.0;
    double m_previousLow = -99.0;
    double m_previousHigh = -99.0;
    bool m_firstValueAsTarget = false;
    bool m_symmetric = false;
    EWMAType m_ewmaType;
};
