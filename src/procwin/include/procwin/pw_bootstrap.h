// How sure the process window's numbers are: a residual bootstrap of the
// response surfaces. Each resample puts the fitted surface's values back with
// residuals drawn with replacement (seeded, so a run repeats exactly), fits
// again and measures again; the intervals are percentiles of the measures.
// It sits beside the analysis and never changes its results.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "procwin/pw_fit.h"

namespace zorv {

struct PWInterval {
    std::string name;
    double estimate = 0;      // on the data as measured
    double low = 0, high = 0;  // percentile interval at the level asked
    int samples = 0;           // resamples that gave a value
};

// The measures of one set of surfaces (coefficient vectors, one per column,
// in the order given): named values; a measure left out of a resample's
// answer counts as not found there.
using PWMeasure = std::function<std::vector<std::pair<std::string, double>>(const std::vector<Datam>& surfaces)>;

// PWcommon(PWbootstrap): fits each column of `table` (as PWfit), measures,
// then `resamples` times resamples every column's residuals and measures
// again. level in (0, 1), e.g. 0.95.
[[nodiscard]] Result<std::vector<PWInterval>> PWbootstrap(const Datam& table, const std::vector<int>& columns,
                                                          const PWFitLimits& limits, int resamples, uint64_t seed,
                                                          double level, const PWMeasure& measure);

// The percentile of sorted values at q in [0, 1], linear between ranks.
double PercentileOf(const std::vector<double>& sorted, double q);

}  // namespace zorv
