// The contour colour ramp, its 2048-colour table and the colour key.
#include <algorithm>
#include <cmath>

#include "base/format.h"
#include "graphics/chart.h"
#include "graphics/contour.h"

namespace zorv {

namespace {

int Channel(double v) {
    const long c = std::lround(v);
    return static_cast<int>(std::clamp(c, 0L, 255L));
}

// s is ten times the position on the ramp: band k = int(s) holds the fraction
// f = s - k. Blue to cyan over k 0..3, cyan to yellow over 4..6 (blue drops
// to 0 within the first band, as the ramp always has), yellow to red from 7.
Color Ramp10(double s) {
    if (!(s > 0)) s = 0;  // NaN too
    if (s > 10) s = 10;
    const int k = static_cast<int>(s);
    const double f = s - k;
    if (k <= 3) return RGB(0, Channel((k + f) / 4 * 255), 255);
    if (k <= 6)
        return RGB(Channel((k - 4 + f) / 3 * 255), 255,
                   Channel(std::max(0.0, 255 - ((k - 4) + 2 * f / 3) * 255)));
    return RGB(255, Channel(255 - (k - 7 + f) / 3 * 255), 0);
}

}  // namespace

// Ten times the fraction taken in one division, so that values on the band
// edges (z = 4 of 0..10) land on them exactly.
Color ContourRampColor(double z, double zmax, double zmin) noexcept {
    return Ramp10(10 * (z - zmin) / (zmax - zmin));
}

Result<Color> cGraphic::GetContourColor(double z, double zmax, double zmin) {
    Proc p("cGraphic(GetContourColor): ");
    p.chk = 1;
    if (zmax == zmin) {
        p.error("Division by zero");
        return p.failure();
    }
    return ContourRampColor(z, zmax, zmin);
}

Result<ColorScale> GetColorScale(Surface* key, const KeyRect& at) {
    Proc p("cLot(GetColorScale): ");
    ColorScale out;
    out.colors.resize(kColorScaleSize);
    for (int i = 1; i <= kColorScaleSize; ++i)
        out.colors[static_cast<size_t>(i - 1)] = Ramp10(10.0 * (i - 1) / kColorScaleSize);
    out.count = kColorScaleSize;
    if (!key) return out;
    p.chk = 1;
    if (!(at.width > 0) || !(at.height > 0)) return p.fail("The colour key has no area.");
    // One entry per pixel row, top row the highest; rows of one colour share a box.
    const int rows = std::max(1, static_cast<int>(std::lround(at.height)));
    const double rowH = at.height / rows;
    auto entry = [&](int row) {
        const double t = 1 - (row + 0.5) / rows;
        return out.colors[static_cast<size_t>(std::clamp(static_cast<int>(t * kColorScaleSize), 0, kColorScaleSize - 1))];
    };
    int start = 0;
    for (int r = 1; r <= rows; ++r) {
        if (r < rows && entry(r) == entry(start)) continue;
        key->Line(at.left, at.top + start * rowH, at.left + at.width, at.top + r * rowH, entry(start),
                  LineForm::FilledBox);
        start = r;
    }
    return out;
}

namespace {

constexpr double kTickLength = 4, kLabelGap = 3;

}  // namespace

double cBarCodeKey::Extent() {
    double w = 0;
    if (Container) {
        const FontSpec keep = Container->Font;
        Container->Font = kFont;
        w = std::max(Container->TextWidth(Format(Zmax, kFormat)), Container->TextWidth(Format(Zmin, kFormat)));
        Container->Font = keep;
    }
    return PlotWidth + kTickLength + kLabelGap + w;
}

Status cBarCodeKey::DrawKeyCode() {
    Proc p("cBarCodeKey(DrawKeyCode): ");
    if (!Container) return p.fail("A container for the key was not specified.");
    Surface& s = *Container;
    p.chk = 1;
    Result<Color> top = cGraphic::GetContourColor(Zmax, Zmax, Zmin);
    if (!top) return top.failure();

    std::vector<double> ticks;
    if (TickInterval < 0 || (TickInterval > 0 && std::fabs(Zmax - Zmin) / TickInterval > 1000))
        return p.fail("Tick interval improperly specified.");
    const double lo = std::min(Zmin, Zmax), hi = std::max(Zmin, Zmax);
    if (TickInterval > 0) {
        // A hair of tolerance so that Zmax itself is ticked after rounding steps.
        const double eps = TickInterval * 1e-9;
        for (int i = 0;; ++i) {
            const double v = lo + i * TickInterval;
            if (v > hi + eps) break;
            ticks.push_back(v);
        }
    } else {
        const int n = std::max(NumberTicks, 1);
        for (int i = 0; i <= n; ++i) ticks.push_back(lo + (hi - lo) * i / n);
    }

    p.chk = 2;
    // Bands of equal height, each in the colour of its middle value: a
    // hundred boxes at most whatever the height, so vector files stay small.
    const int bands = std::clamp(static_cast<int>(std::lround(PlotHeight / 2)), 1, 100);
    const double bandH = PlotHeight / bands;
    for (int b = 0; b < bands; ++b) {
        const double z = Zmax + (Zmin - Zmax) * (b + 0.5) / bands;
        s.Line(PLotLeft, PlotTop + b * bandH, PLotLeft + PlotWidth, PlotTop + (b + 1) * bandH,
               ContourRampColor(z, Zmax, Zmin), LineForm::FilledBox);
    }
    s.Line(PLotLeft, PlotTop, PLotLeft + PlotWidth, PlotTop + PlotHeight, LineColor, LineForm::Box);

    p.chk = 3;
    const FontSpec keepFont = s.Font;
    const Color keepFore = s.ForeColor;
    s.Font = kFont;
    s.ForeColor = LineColor;
    const double right = PLotLeft + PlotWidth;
    for (double v : ticks) {
        const double y = PlotTop + PlotHeight * (Zmax - v) / (Zmax - Zmin);
        s.Line(right, y, right + kTickLength, y, LineColor);
        const std::string label = Format(v, kFormat);
        s.CurrentX = right + kTickLength + kLabelGap;
        s.CurrentY = y - s.TextHeight(label) / 2;
        s.Print(label);
    }
    s.Font = keepFont;
    s.ForeColor = keepFore;
    return StatusOk();
}

}  // namespace zorv
