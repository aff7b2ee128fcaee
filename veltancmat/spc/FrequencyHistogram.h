#pragma once

#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/platform/Export.h"

#include <vector>

// Rounded histogram bins for one series, or several series sharing one set
// of bins so that their histograms can be overlaid, and the counts per bin.
// Bin b (from 1) covers [start + (b - 1) width, start + b width) and is
// reported by its centre. Widths are 1, 1.5, 2, ... 9.5 times a power of ten;
// a range below 1 is scaled by a power of ten while the bins are chosen.
// Missing values (-99) are never counted and never move the bins.
class VELTANCMAT_API FrequencyHistogram {
public:
    // The bins and counts of CreateHistogram, in the data's units.
    struct HistogramInfo {
        std::vector<double> centres;
        std::vector<double> counts;
        double start = 0.0;
        double width = 0.0;
    };

    // A rounded width for n points over [min, max]: the leading digit of
    // (max - min) / sqrt(n), or that digit and a half, times its power of
    // ten; never rounded up. 1 when min = max.
    static double binwidth(double min, double max, int n);
    // The 0-based bin of x. maxIndex >= 0: a value on a boundary belongs
    // to the upper bin, and values past the end to the last one. maxIndex
    // < 0 (for counting bins): a value on a boundary belongs to the lower
    // bin, so a maximum on a boundary opens no empty bin.
    static int bindex(double x, double start, double width, int maxIndex);
    // k series of n / k values each, one after another at data[1..n]; one
    // count vector per series (all zero for a series without values), and
    // none at all when there are fewer present values than series.
    static std::vector<std::vector<double>> MakeMultiHistogram(double* data, int n, int k,
                                                               std::vector<double>& centres, double& start,
                                                               double& width);
    static void MakeHistogram(double* data, int n, std::vector<double>& counts, std::vector<double>& centres,
                              double& start, double& width);

    void CreateHistogram(const NCDataVector<float>& data, HistogramInfo& info) const;
    // One dot per present value, in the data's order: x is the centre of
    // its bin, y its place in the bin's stack (1 for the first value that
    // falls into the bin, 2 for the second, ...).
    void CreateDotPlotHistogram(const NCDataVector<float>& data, NCDataVector<float>& x, NCDataVector<float>& y,
                                float& start, float& width) const;
};
