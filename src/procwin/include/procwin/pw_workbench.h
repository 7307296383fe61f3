// What the process window workbench computes beside the analyses: the window
// figures its sliders and its scan step through, and the confidence intervals
// of a run. Plain values, so a script gets the same answers as the window.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "procwin/pw_bootstrap.h"
#include "procwin/pw_calculate.h"

namespace zorv {

// One window figure. For a rectangle (shape 0) Xo, Yo is the lower left
// corner and X1, Y1 the upper right; for an ellipse (shape 1) Xo, Yo is the
// centre and X1, Y1 the focus and dose radii. EL is the exposure latitude in
// percent of the figure's dose.
struct clsPWobject {
    std::string Key;
    double Xfocus = 0, Ydose = 0, DoF = 0, EL = 0;
    double Xo = 0, Yo = 0, X1 = 0, Y1 = 0;
};

// The keyed collection of figures of one shape, in table order.
class PWobjects {
public:
    int PWshape = 0;  // 0 rectangles, 1 ellipses
    // Adds under the key (the figure's own when empty); a key held already is
    // not added again. Answers whether it was added.
    bool Add(const clsPWobject& figure, const std::string& key = {});
    // 1-based; nullptr when out of range or not found.
    const clsPWobject* Item(int i) const;
    const clsPWobject* Item(const std::string& key) const;
    int Count() const { return static_cast<int>(items_.size()); }
    void Remove(const std::string& key);
    void Kill() {
        items_.clear();
        index_.clear();
    }

private:
    std::vector<clsPWobject> items_;
    // Key to position: a window of precision 20 holds tens of thousands.
    std::unordered_map<std::string, size_t> index_;
};

// The figures of a ProcessWindowSpace table: shape 0 the rectangle block
// (columns 1..12), shape 1 the ellipse block (columns 14..21).
PWobjects PWobjectsFromSpace(const Datam& processWindowSpace, int shape);

// What a slider moves: dose, DoF, or exposure latitude in percent.
enum class PWSlider { Dose = 0, DoF = 1, ExpoLat = 2 };
// The value of a figure a slider shows.
double PWsliderValue(const clsPWobject& figure, PWSlider slider);
// The figure whose value of the slider's column is nearest `value` (the
// first of equals): its 1-based number, 0 when there are none.
int PWnearestFigure(const PWobjects& figures, PWSlider slider, double value);

// The outline of a figure for the chart: columns "PWrectX", "PWrectY" (the
// corners, closed) or "PWelspX", "PWelspY" (37 points round), header row 0.
Datam PWfigureOutline(const clsPWobject& figure, int shape);
// The chart's title line of a figure, "Ellipse  Focus:..." or
// "Rectangle  Focus:...", then the DoF and dose latitude line.
std::vector<std::string> PWfigureTitle(const clsPWobject& figure, int shape);

// pwDoNext: the figures of the window series table (CreatePWgraphPost) whose
// key holds "PWrect" (shape 0) or "PWelsp" (shape 1) and whose dose lies in
// [doseLow, doseHigh]: "Figure", "Keys", "SeriesNumber" (header row 0), a
// row per figure in table order.
Datam PWscanTable(const Datam& windowSeries, int shape, double doseLow, double doseHigh);

// The bootstrap intervals of a finished run (its working table): the
// isofocal dose of each variable's pooled surface, and for kPW the
// rectangle and ellipse found. precision is the grid's (cmbPWprecision).
[[nodiscard]] Result<std::vector<PWInterval>> PWconfidence(const PWSetup& setup, const PWReport& report,
                                                           int resamples, uint64_t seed, double level);

}  // namespace zorv
