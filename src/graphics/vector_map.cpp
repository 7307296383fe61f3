// Wafer and field vector maps.
//
// Which component is which: V is the X direction value and H the Y direction
// value (the loaders name them so, and GetPlotFeatureValue answers V in val1,
// H in val2). An arrow therefore runs V / 1000 * Pum2pixelsV to the right and
// H / 1000 * Pum2pixelsH up from its site.
#include "graphics/vector_map.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "base/format.h"
#include "base/marks.h"
#include "base/report.h"
#include "graphics/chart.h"
#include "graphics/contour.h"
#include "lot/lot.h"

namespace zorv {

namespace {

constexpr const char* kNoContainer = "A container for the plot was not specified.";

Surface* MapSurface(cGraphic& chart, cLot& lot) {
    if (Surface* s = chart.Container()) return s;
    // A lot shown in a window carries that window's surface.
    if (lot.Container) return static_cast<Surface*>(lot.Container.get());
    return nullptr;
}

// The drawing state of the surface, put back when the map is done.
struct SurfaceState {
    Surface& s;
    Color fore = s.ForeColor, fill = s.FillColor;
    FillStyle fillStyle = s.FillStyle;
    FontSpec font = s.Font;
    int width = s.DrawWidth;
    double cx = s.CurrentX, cy = s.CurrentY;
    ~SurfaceState() {
        s.ForeColor = fore, s.FillColor = fill, s.FillStyle = fillStyle, s.Font = font, s.DrawWidth = width;
        s.CurrentX = cx, s.CurrentY = cy;
    }
};

// The notes a map does not want over the wafer.
void HideMapNotes(cGraphic& chart) {
    for (cMessage& m : chart.Messages)
        if (m.Key == "txtNote" || m.Key == "txtField") m.Hide = true;
}

// The wafers drawn: the chart's, else the lot's current, else the first not
// culled; or all of them.
std::vector<cWafer*> DrawnWafers(const cGraphic& chart, const cLot& lot, bool all) {
    std::vector<cWafer*> out;
    if (all) {
        for (cWafer* w : lot.Wafers())
            if (!w->cull()) out.push_back(w);
        return out;
    }
    if (cWafer* w = MapWafer(chart, lot)) out.push_back(w);
    return out;
}

struct FeatureStats {
    double L = 0, X = 0, Y = 0;  // largest length, largest |X|, largest |Y|: display units
    double vmin = std::numeric_limits<double>::infinity(), vmax = -std::numeric_limits<double>::infinity();  // stored units
    long n = 0;
};

// The plotted values of the drawn sites, the way DrawVector reads them.
FeatureStats Measure(const std::vector<const cField*>& fields, long family, int feature, int dataType, bool scalar) {
    FeatureStats st;
    for (const cField* f : fields)
        for (cSite* site : f->sites()) {
            if (site->cull() || (family != 0 && site->Family() != family)) continue;
            for (cPoint* pt : site->Points()) {
                if (pt->cull()) continue;
                float v1 = kMissingValue, v2 = kMissingValue, v3 = kMissingValue;
                const float val = pt->GetPlotFeatureValue(v1, v2, v3, feature, dataType);
                double z;
                if (scalar) {
                    if (IsMissingTol(val)) continue;
                    z = val;
                    st.L = std::max(st.L, std::fabs(z) / 1000);
                } else {
                    if (IsMissingTol(v1) || IsMissingTol(v2)) continue;
                    z = std::hypot(double(v1), double(v2));
                    st.L = std::max(st.L, z / 1000);
                    st.X = std::max(st.X, std::fabs(double(v1)) / 1000);
                    st.Y = std::max(st.Y, std::fabs(double(v2)) / 1000);
                }
                st.vmin = std::min(st.vmin, z);
                st.vmax = std::max(st.vmax, z);
                ++st.n;
            }
        }
    return st;
}

// A range of equal ends widened to 1.1 and 0.9 of its value (0: to +-1 unit).
void Widen(double& hi, double& lo) {
    if (hi < lo) std::swap(hi, lo);
    if (hi != lo) return;
    if (hi == 0) {
        hi = 1000, lo = -1000;
        return;
    }
    const double v = hi;
    hi = std::max(1.1 * v, 0.9 * v);
    lo = std::min(1.1 * v, 0.9 * v);
}

std::string ScaleText(double v) {
    return Format(v, std::fabs(v - std::round(v)) < 1e-9 ? "###0" : "#######0.000");
}

// The scale in force for one drawing, from the chart's settings and the data.
struct MapScale {
    double S = 0;         // the vector scale, display units (automatic: the largest vector)
    double L = 0, X = 0, Y = 0;
    double P = 0;         // pixels the scale spans
    bool scalar = false;
    bool axisScales = false;
    double zmax = 1, zmin = 0;  // colour range, stored units
};

// The scale steps: S, P, the lot's Pum2pixels*, thresholds, PlotMaxZ/MinZ.
MapScale SetScale(cGraphic& chart, cLot& lot, const FeatureStats& st, double P, bool scalar, const VectorMapFlags& flags) {
    MapScale m;
    m.scalar = scalar;
    m.P = P;
    double S = std::fabs(chart.VectorScale) / 1000;
    const bool typed = S != 0;
    if (!typed && std::round(st.L * 1e5) != 0) S = st.L;
    m.S = S;
    // From here the largest vector is the scale. A typed scale holds for every direction.
    m.L = S;
    m.X = typed ? S : st.X;
    m.Y = typed ? S : st.Y;
    if (m.L == 0) m.L = P;
    if (m.X == 0) m.X = P;
    if (m.Y == 0) m.Y = P;
    if (scalar) {
        lot.Pum2pixelsH = lot.Pum2pixelsV = lot.Pum2pixelsZ = P / m.L;
    } else {
        lot.Pum2pixelsH = P / m.Y;
        lot.Pum2pixelsV = P / m.X;
        lot.Pum2pixelsZ = P / m.L;
    }
    m.axisScales = !scalar && !typed && flags.axisScales;

    if (lot.ThresholdMax == 0) lot.ThresholdMax = static_cast<float>(1000 * S);
    if (lot.ThresholdMin == 0) lot.ThresholdMin = static_cast<float>(-1000 * S);
    lot.ThresholdZ = static_cast<float>(1000 * S);

    // The colour range: a fourth axis, else the thresholds when asked, else the data.
    double hi, lo;
    if (const cAxis* z = chart.Axes.Item("Z")) {
        hi = 1000.0 * z->HighValue, lo = 1000.0 * z->LowValue;
    } else if (flags.thresholdColours && lot.ThresholdMax != lot.ThresholdMin) {
        hi = lot.ThresholdMax, lo = lot.ThresholdMin;
    } else if (st.n > 0) {
        hi = st.vmax, lo = st.vmin;
    } else {
        hi = lo = 0;
    }
    Widen(hi, lo);
    lot.PlotMaxZ = static_cast<float>(hi);
    lot.PlotMinZ = static_cast<float>(lo);
    m.zmax = hi, m.zmin = lo;
    return m;
}

// Room for the title above the map, the scale key below it or the colour key beside it.
MapMargins Margins(const cGraphic& chart, Surface& s, bool scalar) {
    MapMargins m;
    const FontSpec keep = s.Font;
    m.top = m.left = m.right = m.bottom = 6;
    if (!chart.TitleObj.TitleString.empty()) {
        s.Font = chart.TitleObj.Font;
        m.top += s.TextHeight(chart.TitleObj.TitleString) + 4;
    }
    s.Font = chart.Font;
    if (scalar) m.right += 30 + s.TextWidth("-00000.000");
    else m.bottom += 2 * s.TextHeight("Yy");
    s.Font = keep;
    return m;
}

void DrawTitle(const cGraphic& chart, Surface& s) {
    if (chart.TitleObj.TitleString.empty()) return;
    const PlotFrame& f = chart.Frame();
    s.Font = chart.TitleObj.Font;
    s.ForeColor = chart.ForeColor;
    const double h = s.TextHeight(chart.TitleObj.TitleString);
    s.CurrentX = f.left + f.width / 2 - s.TextWidth(chart.TitleObj.TitleString) / 2;
    s.CurrentY = std::max(0.0, f.top - h - 4);
    s.Print(chart.TitleObj.TitleString);
}

// A bar of n pixels with end ticks, from (x, y) to the right (or upward).
void ScaleBar(Surface& s, double x, double y, double n, bool upward, Color c) {
    const double t = 3;
    if (upward) {
        s.Line(x, y, x, y - n, c);
        s.Line(x - t, y, x + t, y, c);
        s.Line(x - t, y - n, x + t, y - n, c);
    } else {
        s.Line(x, y, x + n, y, c);
        s.Line(x, y - t, x, y + t, c);
        s.Line(x + n, y - t, x + n, y + t, c);
    }
}

// The scale key under the map: the text, then a bar of P pixels.
void DrawScaleKey(const cGraphic& chart, Surface& s, const MapScale& m) {
    const PlotFrame& f = chart.Frame();
    s.Font = chart.Font;
    s.ForeColor = chart.ForeColor;
    const double h = s.TextHeight("Yy");
    double x = f.left;
    const double y = f.top + f.height + 6 + h / 2;
    auto item = [&](const std::string& text, bool upward) {
        s.CurrentX = x;
        s.CurrentY = y - h / 2;
        s.Print(text);
        x = s.CurrentX + 6;
        ScaleBar(s, x, y, m.P, upward, chart.ForeColor);
        x += (upward ? 6 : m.P) + 2 * h;
    };
    if (m.axisScales) {
        // Horizontal layout: each component with its own bar.
        item("X-Scale(um): " + ScaleText(m.X), false);
        item("Y-Scale(um): " + ScaleText(m.Y), true);
    } else {
        item("Scale(um): " + ScaleText(m.L), false);
    }
}

// The colour key beside the map: the contour's key over the colour range.
Status DrawColourKey(cGraphic& chart, Surface& s, const MapScale& m) {
    const PlotFrame& f = chart.Frame();
    cBarCodeKey key;
    key.Container = &s;
    key.kFormat = "#######0.000";
    key.kFont = chart.Font;
    if (const cAxis* z = chart.Axes.Item("Z")) key.LineColor = z->Color;
    key.PLotLeft = f.left + f.width + 12;
    key.PlotWidth = 14;
    key.PlotHeight = std::min(f.height * 0.6, 240.0);
    key.PlotTop = f.top + (f.height - key.PlotHeight) / 2;
    key.Zmax = m.zmax / 1000;
    key.Zmin = m.zmin / 1000;
    key.NumberTicks = 4;
    return key.DrawKeyCode();
}

double SymbolRadius(const cLot& lot, double um2pixels) {
    return std::clamp(0.35 * AutoArrowReference(lot, um2pixels), 3.5, 8.0);
}

// Draws the fields of a map and its key; the part the wafer and field maps share.
Status DrawMap(cGraphic& chart, cLot& lot, Surface& s, const std::vector<const cField*>& fields, const MapPlacement& at,
               bool fieldPositions, bool scalar, double P, const VectorMapFlags& flags, Proc& p) {
    SetStatusText("Vector setup ...");
    const int feature = lot.PlotFeature(), dataType = lot.PLotDataType;
    p.chk = 3;
    const FeatureStats st = Measure(fields, flags.family, feature, dataType, scalar);
    const MapScale m = SetScale(chart, lot, st, P, scalar, flags);

    p.chk = 4;
    SetStatusText(" Clear records ...");
    SetStatusText("Wafer plot data ...");
    VectorPass pass;
    pass.at = at;
    pass.fieldPositions = fieldPositions;
    pass.scalar = scalar;
    pass.axisScales = m.axisScales;
    pass.siteMarks = flags.siteMarks;
    pass.feature = feature;
    pass.dataType = dataType;
    pass.family = flags.family;
    pass.symbolRadius = SymbolRadius(lot, at.um2pixels);
    pass.zmax = m.zmax, pass.zmin = m.zmin;
    // A map of a million points takes a while: progress now and then, which
    // also lets Esc in.
    const size_t every = std::max<size_t>(1, fields.size() / 50);
    for (size_t i = 0; i < fields.size(); ++i) {
        if (i % every == 0 && i > 0) ShowProgress(static_cast<int>(100 * i / fields.size()));
        if (CheckEscKey()) return StatusOk();
        if (auto r = DrawVector(chart, lot, *fields[i], s, pass); !r) return r;
    }

    p.chk = 5;
    DrawTitle(chart, s);
    if (scalar) {
        if (auto r = DrawColourKey(chart, s, m); !r) return r;
    } else {
        DrawScaleKey(chart, s, m);
    }
    SetStatusText("Done.");
    return StatusOk();
}

// What both maps start with: the surface, the notes hidden, the wafers
// drawn. nullptr with the failure recorded on p.
Surface* StartMap(Proc& p, cGraphic& chart, cLot& lot, const VectorMapFlags& flags, std::vector<cWafer*>& wafers) {
    Surface* s = MapSurface(chart, lot);
    if (!s) {
        p.msg = kNoContainer;
        return nullptr;
    }
    p.chk = 1;
    HideMapNotes(chart);
    wafers = DrawnWafers(chart, lot, flags.allWafers);
    if (wafers.empty()) {
        p.msg = "No wafers in lot: " + lot.LotName;
        return nullptr;
    }
    return s;
}

}  // namespace

double AutoArrowReference(const cLot& lot, double um2pixels) {
    double step = std::min(std::fabs(double(lot.DieSizeX)), std::fabs(double(lot.DieSizeY))) / 4;
    if (lot.SiteStepX != 0 && lot.SiteStepy != 0)
        step = std::min({step, std::fabs(double(lot.SiteStepX)), std::fabs(double(lot.SiteStepy))});
    return std::fabs(um2pixels * step);
}

Status DrawFieldSite(const cLot& lot, Surface& s, const MapPlacement& at, const cSite& site, bool fieldPositions,
                     Color c) {
    Proc p("cLot(DrawFieldSite): ");
    if (!(at.um2pixels > 0)) return p.fail("The map has no scale.");
    const double x = fieldPositions ? double(site.LocationX) + lot.SiteXoffset : site.LocationXabs;
    const double y = fieldPositions ? double(site.LocationY) + lot.SiteYoffset : site.LocationYabs;
    s.PSet(at.px(x), at.py(y), c == -1 ? site.Color : c);
    return StatusOk();
}

Status DrawVector(cGraphic& chart, cLot& lot, const cField& field, Surface& s, const VectorPass& pass) {
    Proc p("cField(DrawVector): ");
    if (!(pass.at.um2pixels > 0)) return p.fail("The map has no scale.");
    if (pass.scalar && !(pass.zmax > pass.zmin)) return p.fail("The colour range is empty.");
    p.chk = 1;
    // The legend names the vector's feature.
    if ((!lot.LineWidthType && pass.feature < 9) || pass.feature == 10) {
        const std::string name = lot.PlotFeatureName.empty() ? lot.GetPlotFeatureName(pass.feature) : lot.PlotFeatureName;
        if (!name.empty() && !chart.Series.Item(name)) {
            cSeries& c = chart.Series.Add(name);
            c.Symbol = SymbolShape::None;
            c.SymbolDisplay = false;
            c.Connect = false;
        }
    }
    p.chk = 2;
    const double kx = pass.axisScales ? lot.Pum2pixelsV : lot.Pum2pixelsZ;
    const double ky = pass.axisScales ? lot.Pum2pixelsH : lot.Pum2pixelsZ;
    const double ox = pass.fieldPositions ? lot.SiteXoffset : 0, oy = pass.fieldPositions ? lot.SiteYoffset : 0;
    const double r = pass.symbolRadius;
    std::vector<PointD> arrow(5);  // one buffer for every arrow of the field
    const FillStyle keepFill = s.FillStyle;
    for (cSite* site : field.sites()) {
        if (site->cull() || (pass.family != 0 && site->Family() != pass.family)) continue;
        const double x = pass.at.px(pass.fieldPositions ? site->LocationX + ox : site->LocationXabs);
        const double y = pass.at.py(pass.fieldPositions ? site->LocationY + oy : site->LocationYabs);
        if (pass.siteMarks && !pass.scalar) s.PSet(x, y, site->Color);
        for (cPoint* pt : site->Points()) {
            if (pt->cull()) continue;
            float v1 = kMissingValue, v2 = kMissingValue, v3 = kMissingValue;
            const float val = pt->GetPlotFeatureValue(v1, v2, v3, pass.feature, pass.dataType);
            if (pass.scalar) {
                if (IsMissingTol(val)) continue;
                auto c = cGraphic::GetContourColor(val, pass.zmax, pass.zmin);
                if (!c) return p.fail(c.failure().text);
                s.FillStyle = FillStyle::Solid;
                s.FillColor = *c;
                s.Circle(x, y, r, *c);
                continue;
            }
            if (IsMissingTol(v1) || IsMissingTol(v2)) continue;
            // Pixels: X to the right, Y up the wafer and so up the surface.
            const double dx = v1 / 1000.0 * kx, dy = -(v2 / 1000.0) * ky;
            pt->ValueV_Pixel = static_cast<float>(dx);
            pt->ValueH_Pixel = static_cast<float>(-dy);
            const double len = std::hypot(dx, dy);
            if (!(len > 1e-9)) continue;
            const double ux = dx / len, uy = dy / len;
            const double hl = std::min(0.3 * len, 6.0), hw = 0.5 * hl;
            const double hx = x + dx, hy = y + dy;
            arrow[0] = {x, y};
            arrow[1] = {hx, hy};
            arrow[2] = {hx - hl * ux - hw * uy, hy - hl * uy + hw * ux};
            arrow[3] = {hx, hy};
            arrow[4] = {hx - hl * ux + hw * uy, hy - hl * uy - hw * ux};
            s.ForeColor = site->Color;
            s.Polyline(arrow);
        }
    }
    s.FillStyle = keepFill;
    return StatusOk();
}

Status cWaferVector(cGraphic& chart, cLot& lot, const VectorMapFlags& flags) {
    Proc p("Graphics(cWaferVector): ");
    SetStatusText("Wafer graphic setup ...");
    std::vector<cWafer*> wafers;
    Surface* sp = StartMap(p, chart, lot, flags, wafers);
    if (!sp) return p.failure();
    Surface& s = *sp;
    SurfaceState keep{s};
    std::vector<const cField*> fields;
    for (const cWafer* w : wafers)
        for (const cField* f : w->Fields())
            if (!f->cull()) fields.push_back(f);

    const bool scalar = lot.LineWidthType || lot.PlotFeature() != 0;
    const MapPlacement at = PlaceWafer(chart, lot, s, Margins(chart, s, scalar));
    p.chk = 2;
    if (auto r = DrawWafer(lot, s, at, flags.wafer); !r) return r;
    // The arrow of the scale value spans the chart's reference, else a
    // quarter die at the wafer's zoom: site steps can be a few micrometres on
    // a wafer map, which would make every arrow a dot.
    double P = chart.ArrowReference;
    if (!(P > 0)) P = std::max(12.0, at.um2pixels * std::min(std::fabs(double(lot.DieSizeX)), std::fabs(double(lot.DieSizeY))) / 4);
    return DrawMap(chart, lot, s, fields, at, false, scalar, P, flags, p);
}

Status cFieldVector(cGraphic& chart, cLot& lot, const VectorMapFlags& flags) {
    Proc p("Graphics(cFieldVector): ");
    SetStatusText("Field graphic setup ...");
    std::vector<cWafer*> wafers;
    Surface* sp = StartMap(p, chart, lot, flags, wafers);
    if (!sp) return p.failure();
    Surface& s = *sp;
    SurfaceState keep{s};
    std::vector<const cField*> fields;
    for (const cWafer* w : wafers) {
        if (flags.allFields) {
            for (const cField* f : w->Fields())
                if (!f->cull()) fields.push_back(f);
            continue;
        }
        if (const cField* one = MapField(chart, lot, *w)) fields.push_back(one);
    }
    if (fields.empty()) return p.fail("No fields to plot.");

    const bool scalar = lot.LineWidthType || lot.PlotFeature() != 0;
    const MapPlacement at = PlaceField(chart, lot, s, Margins(chart, s, scalar));
    if (!(at.um2pixels > 0)) return p.fail("The lot has no die size.");
    p.chk = 2;
    // The field's outline.
    const double hx = lot.DieSizeX / 2.0, hy = lot.DieSizeY / 2.0;
    s.FillStyle = FillStyle::Transparent;
    s.Line(at.px(-hx), at.py(hy), at.px(hx), at.py(-hy), flags.wafer.outlineColor, LineForm::Box);
    double P = chart.ArrowReference > 0 ? chart.ArrowReference : AutoArrowReference(lot, at.um2pixels);
    if (!(P > 0)) P = 20;
    return DrawMap(chart, lot, s, fields, at, true, scalar, P, flags, p);
}

}  // namespace zorv
