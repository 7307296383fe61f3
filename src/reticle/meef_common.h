// What the two halves of the mask error analysis share: the tag of FindMEF,
// the blank mark of the tables and the reading of a feature at a site.
#pragma once

#include <limits>
#include <string>

#include "base/marks.h"
#include "base/value.h"
#include "lot/lot.h"

namespace zorv::mefimpl {

inline constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
inline constexpr const char* kTag = "PWcommon(FindMEF): ";

inline bool Known(double v) { return v == v; }
inline Value Cell(double v) { return Known(v) ? Value(v) : Value(); }

// A feature of the lot that holds data (1..8); 0 when it has none of that name.
inline int FeatureOf(const cLot& lot, const std::string& name) {
    const int f = lot.GetPlotFeature(name);
    return f >= ePlotFeatureV && f <= ePlotFeatureC ? f : 0;
}

// Mean of the live raw values of a feature at one site; NaN when none.
inline double SiteMean(const cSite& s, int feature) {
    double sum = 0;
    int n = 0;
    for (cPoint* p : s.Points()) {
        if (p->cull()) continue;
        const float* v = p->FeatureSlot(feature, eRaw);
        if (!v || IsMissing(*v)) continue;
        sum += *v / 1000.0;
        ++n;
    }
    return n ? sum / n : kNaN;
}

}  // namespace zorv::mefimpl
