#include "reticle/fem.h"

#include <algorithm>
#include <cmath>
#include <map>

#include "base/format.h"
#include "base/marks.h"
#include "base/report.h"
#include "graphics/chart.h"
#include "graphics/contour.h"
#include "graphics/view3d.h"
#include "lot/lot.h"
#include "numerics/tickformat.h"

namespace zorv {

namespace {

// Index of v in the ascending list of distinct values, added when new.
int Slot(std::vector<double>& values, double v) {
    for (size_t i = 0; i < values.size(); ++i)
        if (std::fabs(values[i] - v) <= kFEMTolerance * std::max(1.0, std::fabs(v))) return static_cast<int>(i);
    values.push_back(v);
    return static_cast<int>(values.size()) - 1;
}

int Find(const std::vector<double>& values, double v) {
    for (size_t i = 0; i < values.size(); ++i)
        if (std::fabs(values[i] - v) <= kFEMTolerance * std::max(1.0, std::fabs(v))) return static_cast<int>(i);
    return -1;
}

std::string Number(double v) {
    // Six figures: a float's dose or focus without its binary tail.
    if (std::fabs(v) < 1e-9) v = 0;
    return CStrNumber(v, 6);
}

// A step of 1, 2 or 5 times a power of ten giving about five ticks.
double NiceStep(double span) {
    if (!(span > 0)) return 0;
    const double raw = span / 5;
    const double p = std::pow(10.0, std::floor(std::log10(raw)));
    const double m = raw / p;
    return (m < 1.5 ? 1 : m < 3.5 ? 2 : m < 7.5 ? 5 : 10) * p;
}

constexpr double kMargin = 6;
constexpr double kKeyWidth = 14;
constexpr double kGap = 8;

FontSpec LabelFont() { return FontSpec{"DejaVu Sans", 8, false}; }
FontSpec HeadFont() { return FontSpec{"DejaVu Sans", 10, true}; }
FontSpec CellFont() { return FontSpec{"DejaVu Sans", 6, false}; }

}  // namespace

const FEMCell* FEMMatrix::At(int row, int col) const {
    for (const FEMCell& c : cells)
        if (c.row == row && c.col == col) return &c;
    return nullptr;
}

std::string FEMDoseLabel(double dose) {
    std::string s = "Dose = ";
    s.append(Number(dose));
    return s;
}

std::string FEMCaption(double dose, double focus) {
    std::string s = "(";
    s.append(Number(dose)).append(", ").append(Number(focus)).append(")");
    return s;
}

Result<FEMMatrix> doFEMsetup(const cLot* lot) {
    Proc p("frmReticle(doFEMsetup): ");
    if (!lot) return p.fail("No lot data.");
    p.chk = 1;
    FEMMatrix fem;
    std::vector<int> featureNo;
    for (int f = ePlotFeatureV; f <= ePlotFeatureC; ++f) {
        const std::string name = lot->GetPlotFeatureName(f);
        if (name.empty()) continue;
        fem.features.push_back(name);
        featureNo.push_back(f);
    }
    if (fem.features.empty()) return p.fail("The lot has no features.");

    p.chk = 2;
    long points = 0;
    std::vector<double> doses, focuses;
    // Each field once, with the dose and focus slots it fell in.
    std::map<const cField*, std::pair<int, int>> fieldSlot;
    lot->forEachLive([&](cWafer&, cField& f, cSite&, cPoint&) {
        ++points;
        if (!fieldSlot.count(&f)) fieldSlot[&f] = {Slot(doses, f.Dose), Slot(focuses, f.Focus)};
    });
    if (points == 0) return p.fail("No data points in the lot.");

    p.chk = 3;
    fem.doses = doses;
    fem.focuses = focuses;
    std::sort(fem.doses.begin(), fem.doses.end());
    std::sort(fem.focuses.begin(), fem.focuses.end());
    std::map<std::pair<int, int>, int> count;
    for (const auto& [field, slot] : fieldSlot) {
        const int row = Find(fem.doses, doses[static_cast<size_t>(slot.first)]);
        const int col = Find(fem.focuses, focuses[static_cast<size_t>(slot.second)]);
        ++count[{row, col}];
    }
    for (const auto& [rc, n] : count) {  // the map runs by row, then column
        FEMCell c;
        c.row = rc.first;
        c.col = rc.second;
        c.dose = fem.doses[static_cast<size_t>(c.row)];
        c.focus = fem.focuses[static_cast<size_t>(c.col)];
        c.caption = FEMCaption(c.dose, c.focus);
        c.fields = n;
        fem.cells.push_back(std::move(c));
    }

    p.chk = 4;
    const int cols = 4 + static_cast<int>(fem.features.size());
    fem.table = Datam(static_cast<int>(points), cols, 0, 1);
    const char* heads[] = {"Wafer", "Test", "Dose", "Focus"};
    for (int c = 0; c < 4; ++c) fem.table(0, c + 1) = Value(heads[c]);
    for (size_t k = 0; k < fem.features.size(); ++k) fem.table(0, 5 + static_cast<int>(k)) = Value(fem.features[k]);
    int row = 0;
    lot->forEachLive([&](cWafer& w, cField& f, cSite& s, cPoint& pt) {
        ++row;
        fem.table(row, 1) = Value(w.WaferID);
        fem.table(row, 2) = Value(static_cast<double>(s.NumberKey()));
        fem.table(row, 3) = Value(static_cast<double>(f.Dose));
        fem.table(row, 4) = Value(static_cast<double>(f.Focus));
        for (size_t k = 0; k < featureNo.size(); ++k) {
            float v1 = 0, v2 = 0, v3 = 0;
            const float v = pt.GetPlotFeatureValue(v1, v2, v3, featureNo[k], eRaw);
            if (!IsMissing(v)) fem.table(row, 5 + static_cast<int>(k)) = Value(double(v) / 1000);
        }
    });
    return fem;
}

Status doFEMsurfm(const cLot& lot, const std::string& feature, FEMMatrix& fem, double cellMm) {
    Proc p("frmReticle(doFEMsurfm): ");
    const int f = lot.GetPlotFeature(feature);
    if (f < ePlotFeatureV || f > ePlotFeatureC) return p.fail("Could not find feature column.");
    if (fem.cells.empty()) return p.fail("No lot data.");
    fem.feature = feature;
    long code = 0;
    fem.unit.clear();
    if (!lot.GetPlotFeatureUnits(f, fem.unit, code)) fem.unit.clear();

    // Per cell and site number: the mean of each field's site mean, so that
    // each field weighs once.
    p.chk = 1;
    struct Acc {
        double x = 0, y = 0, sum = 0;
        int n = 0;
    };
    std::vector<std::map<int, Acc>> acc(fem.cells.size());
    std::map<std::pair<int, int>, size_t> cellOf;
    for (size_t i = 0; i < fem.cells.size(); ++i) cellOf[{fem.cells[i].row, fem.cells[i].col}] = i;
    lot.forEachLiveSite([&](cWafer&, cField& fld, cSite& s) {
        const int row = Find(fem.doses, fld.Dose), col = Find(fem.focuses, fld.Focus);
        auto it = cellOf.find({row, col});
        if (it == cellOf.end()) return;
        double sum = 0;
        int n = 0;
        for (cPoint* pt : s.Points()) {
            if (pt->cull()) continue;
            float v1 = 0, v2 = 0, v3 = 0;
            const float v = pt->GetPlotFeatureValue(v1, v2, v3, f, eRaw);
            if (IsMissing(v)) continue;
            sum += double(v) / 1000;
            ++n;
        }
        if (n == 0) return;
        Acc& a = acc[it->second][s.NumberKey()];
        if (a.n == 0) a.x = s.LocationX / 1000.0, a.y = s.LocationY / 1000.0;
        a.sum += sum / n;
        ++a.n;
    });

    // The means as a lot of one field per cell, so that the field surface
    // routine interpolates them as it does any field.
    p.chk = 2;
    auto cellLot = cLot::create();
    cellLot->DataSource(lot.DataSource());
    cellLot->DieSizeX = lot.DieSizeX > 0 ? lot.DieSizeX : 26000;
    cellLot->DieSizeY = lot.DieSizeY > 0 ? lot.DieSizeY : 33000;
    cellLot->ValueV_Name = feature;
    cellLot->PlotFeature(ePlotFeatureV);
    bool isNew = false;
    cWafer* w = cellLot->AddWafer("1", isNew);
    if (!w) return p.fail("Surface array could not be generated.");
    bool any = false;
    for (size_t i = 0; i < fem.cells.size(); ++i) {
        FEMCell& c = fem.cells[i];
        c.sites.clear();
        c.grid = Datam();
        if (acc[i].empty()) continue;
        cField* fld = w->AddField(static_cast<float>(c.col), static_cast<float>(c.row), isNew, true);
        if (!fld) return p.fail("Surface array could not be generated.");
        for (const auto& [number, a] : acc[i]) {
            const double z = a.sum / a.n;
            c.sites.push_back({number, a.x, a.y, z});
            Ref<cSite> site = cSite::New();
            site->setNumberKey(number);
            site->LocationX = static_cast<float>(a.x * 1000);
            site->LocationY = static_cast<float>(a.y * 1000);
            site->setParent(fld);
            fld->sites().Add(site, std::to_string(number));
            auto pt = std::make_unique<cPoint>();
            pt->ValueV = static_cast<float>(z * 1000);
            fld->AddPoint(site, std::move(pt));
        }
        p.chk = 3;
        SetStatusText("FEM surface " + c.caption);
        Result<Datam> grid = GetFieldGrid(*cellLot, *fld, cellMm);
        if (!grid) return grid.failure();
        c.grid = std::move(*grid);
        bool first = true;
        for (int r = 1; r <= c.grid.rowUb(); ++r)
            for (int k = 1; k <= c.grid.colUb(); ++k) {
                const Value& v = c.grid(r, k);
                if (v.isEmpty()) continue;
                const double z = v.toDouble();
                if (first) c.zmin = c.zmax = z, first = false;
                c.zmin = std::min(c.zmin, z);
                c.zmax = std::max(c.zmax, z);
            }
        if (first) {
            c.grid = Datam();
            continue;
        }
        if (!any) fem.zmin = c.zmin, fem.zmax = c.zmax, any = true;
        fem.zmin = std::min(fem.zmin, c.zmin);
        fem.zmax = std::max(fem.zmax, c.zmax);
    }
    if (!any) return p.fail("No data in surface.");

    // One axis for all cells: whole ticks around the range of every surface.
    p.chk = 4;
    double lo = fem.zmin, hi = fem.zmax;
    if (!(hi > lo)) lo -= 1, hi += 1;
    fem.zstep = NiceStep(hi - lo);
    fem.zlow = std::floor(lo / fem.zstep + 1e-9) * fem.zstep;
    fem.zhigh = std::ceil(hi / fem.zstep - 1e-9) * fem.zstep;
    fem.zformat = CalcTickFormat(fem.zstep, 1).format;
    return StatusOk();
}

FEMLayout FEMresize(const FEMMatrix& fem, double width, double height, Surface& s) {
    FEMLayout L;
    L.width = width;
    L.height = height;
    const FontSpec keep = s.Font;
    s.Font = HeadFont();
    const double hh = s.TextHeight("Ag");
    s.Font = LabelFont();
    const double th = s.TextHeight("Ag");
    double rowW = s.TextWidth("Dose = 0");
    for (double d : fem.doses) rowW = std::max(rowW, s.TextWidth(FEMDoseLabel(d)));
    double keyLabel = std::max(s.TextWidth(Format(fem.zlow, fem.zformat.empty() ? "0.###" : fem.zformat)),
                               s.TextWidth(Format(fem.zhigh, fem.zformat.empty() ? "0.###" : fem.zformat)));
    s.Font = keep;

    L.title = {kMargin, kMargin, std::max(0.0, width - 2 * kMargin), hh * 1.4};
    const double headTop = L.title.top + L.title.height;
    const double left = kMargin + rowW + kGap;
    const double right = width - kMargin - keyLabel - 6 - kKeyWidth - kGap;
    const double gridTop = headTop + 2 * th * 1.3;
    const double gridW = std::max(10.0, right - left);
    const double gridH = std::max(10.0, height - kMargin - gridTop);
    const int rows = std::max(1, fem.Rows()), cols = std::max(1, fem.Cols());
    const double cw = gridW / cols, ch = gridH / rows;

    L.focusLabel = {left, headTop, gridW, th * 1.3};
    for (int c = 0; c < fem.Cols(); ++c) L.colHead.push_back({left + c * cw, headTop + th * 1.3, cw, th * 1.3});
    for (int r = 0; r < fem.Rows(); ++r) L.rowHead.push_back({kMargin, gridTop + r * ch, rowW, ch});
    for (int r = 0; r < fem.Rows(); ++r)
        for (int c = 0; c < fem.Cols(); ++c) L.cells.push_back({left + c * cw, gridTop + r * ch, cw, ch});
    L.key = {right + kGap, gridTop + th, kKeyWidth, std::max(10.0, gridH - 2 * th)};
    return L;
}

namespace {

void Centered(Surface& s, const std::string& text, const FEMRect& r) {
    s.CurrentX = r.left + (r.width - s.TextWidth(text)) / 2;
    s.CurrentY = r.top + (r.height - s.TextHeight(text)) / 2;
    s.Print(text);
}

// One cell's surface in the common height scale and colours.
Status DrawCell(const FEMMatrix& fem, const FEMCell& c, Surface& s, const FEMRect& r, double captionH,
                const HeightColors& colors) {
    cGraphic g;
    g.Container(&s);
    g.PLotLeft = r.left + 2;
    g.PlotTop = r.top + captionH;
    g.PlotWidth = std::max(10.0, r.width - 4);
    g.PlotHeight = std::max(10.0, r.height - captionH - 2);
    g.DataGrid = c.grid;
    cAxis& z = g.Axes.Add("Z");
    z.AutoScale = false;
    z.LowValue = static_cast<float>(fem.zlow);
    z.HighValue = static_cast<float>(fem.zhigh);
    z.TickInterval = static_cast<float>(fem.zstep);
    z.TickFormat = fem.zformat;
    if (Status st = g.SetProjection(); !st) return st;
    Result<Box3D> got = SurfaceBox(g, "frmReticle(doFEMsurfm): ");
    if (!got) return got.failure();
    const Box3D& box = *got;
    // No ticks in a cell this small: the box fills it, the colour key and
    // the heading carry the scale.
    auto corner = [&](int i, cPolyline3d& line) {
        line.Add(i & 1 ? box.x.high : box.x.low, i & 2 ? box.y.high : box.y.low,
                 (i & 4 ? box.z.high : box.z.low) * box.zscale);
    };
    cPolyline3d corners;
    for (int i = 0; i < 8; ++i) corner(i, corners);
    corners.Apply(g.Projection, PixelMap{});
    double x0 = 0, x1 = 0, y0 = 0, y1 = 0;
    for (int i = 0; i < corners.Count(); ++i) {
        const cPoint3D& k = corners.Point(i);
        const double vx = k.px, vy = -k.py;
        if (i == 0) x0 = x1 = vx, y0 = y1 = vy;
        x0 = std::min(x0, vx), x1 = std::max(x1, vx);
        y0 = std::min(y0, vy), y1 = std::max(y1, vy);
    }
    const PixelMap map = FitView(x0, x1, y0, y1, g.PLotLeft + 2, g.PlotTop + 2, g.PlotWidth - 4, g.PlotHeight - 4);
    // The floor of the box and one upright edge give the common height.
    cPolyline3d floor, upright;
    for (int i : {0, 1, 3, 2, 0}) corner(i, floor);
    corner(0, upright);
    corner(4, upright);
    floor.Apply(g.Projection, map);
    upright.Apply(g.Projection, map);
    floor.Draw(s, RGB(160, 160, 160));
    upright.Draw(s, RGB(160, 160, 160));
    cGrid3d grid;
    if (Result<long> n = grid.SetPointArray(c.grid); !n) return n.failure();
    grid.SetScale(1, 1, box.zscale);
    grid.Apply(g.Projection, map);
    grid.Draw(s, &colors);
    return StatusOk();
}

}  // namespace

Status DrawFEM(const FEMMatrix& fem, Surface& s) {
    Proc p("frmReticle(doFEMsurfm): ");
    bool any = false;
    for (const FEMCell& c : fem.cells) any = any || c.grid.isArray();
    if (!any || !(fem.zhigh > fem.zlow)) return p.fail("No surfaces to draw.");
    p.chk = 1;
    Result<HeightColors> colors = MakeHeightColors(fem.zlow, fem.zhigh);
    if (!colors) return colors.failure();

    const FontSpec keepFont = s.Font;
    const Color keepFore = s.ForeColor;
    s.Cls();
    const FEMLayout L = FEMresize(fem, s.ScaleWidth(), s.ScaleHeight(), s);

    p.chk = 2;
    s.ForeColor = 0;
    s.Font = HeadFont();
    std::string head = "Focus-Exposure Matrix: ";
    head.append(fem.feature);
    if (!fem.unit.empty()) head.append(" [ ").append(fem.unit).append(" ]");
    head.append("    Range: ").append(Format(fem.zmin, "0.###")).append(" to ").append(Format(fem.zmax, "0.###"));
    Centered(s, head, L.title);
    s.Font = LabelFont();
    Centered(s, "Focus", L.focusLabel);
    for (int c = 0; c < fem.Cols(); ++c) Centered(s, Number(fem.focuses[static_cast<size_t>(c)]), L.colHead[static_cast<size_t>(c)]);
    for (int r = 0; r < fem.Rows(); ++r) {
        const FEMRect& h = L.rowHead[static_cast<size_t>(r)];
        const std::string t = FEMDoseLabel(fem.doses[static_cast<size_t>(r)]);
        s.CurrentX = h.left + h.width - s.TextWidth(t);
        s.CurrentY = h.top + (h.height - s.TextHeight(t)) / 2;
        s.Print(t);
    }

    p.chk = 3;
    const double captionH = s.TextHeight("Ag") * 1.2;
    // Narrow cells take one smaller caption font, or none: the row and
    // column heads say the same.
    const double cellW = fem.Cols() > 0 ? L.Cell(0, 0, fem.Cols()).width - 4 : 0;
    auto widest = [&] {
        double w = 0;
        for (const FEMCell& c : fem.cells) w = std::max(w, s.TextWidth(c.caption));
        return w;
    };
    FontSpec captionFont = LabelFont();
    if (widest() > cellW) s.Font = captionFont = CellFont();
    const bool showCaptions = widest() <= cellW;
    s.Font = LabelFont();
    for (int r = 0; r < fem.Rows(); ++r)
        for (int c = 0; c < fem.Cols(); ++c) {
            const FEMRect& box = L.Cell(r, c, fem.Cols());
            s.Line(box.left, box.top, box.left + box.width, box.top + box.height, RGB(200, 200, 200), LineForm::Box);
            const FEMCell* cell = fem.At(r, c);
            if (!cell) continue;
            s.ForeColor = 0;
            s.Font = captionFont;
            if (showCaptions) Centered(s, cell->caption, {box.left, box.top + 1, box.width, captionH});
            if (!cell->grid.isArray()) continue;
            if (Status st = DrawCell(fem, *cell, s, box, captionH, *colors); !st) {
                s.Font = keepFont;
                s.ForeColor = keepFore;
                return st;
            }
        }

    p.chk = 4;
    cBarCodeKey key;
    key.Container = &s;
    key.kFormat = fem.zformat.empty() ? "0.###" : fem.zformat;
    key.kFont = LabelFont();
    key.PLotLeft = L.key.left;
    key.PlotTop = L.key.top;
    key.PlotWidth = L.key.width;
    key.PlotHeight = L.key.height;
    key.Zmin = fem.zlow;
    key.Zmax = fem.zhigh;
    key.TickInterval = fem.zlow > 0 ? fem.zstep : 0;
    const Status k = key.DrawKeyCode();
    s.Font = keepFont;
    s.ForeColor = keepFore;
    return k;
}

}  // namespace zorv
