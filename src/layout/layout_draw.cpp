// The layout tab's picture (LP(MainDraw), LP(DisplayVariables),
// LP(DrawLayoutOrigin)) and its lists.
#include "layout/layout_draw.h"

#include <algorithm>
#include <cmath>

#include "base/report.h"
#include "base/text.h"
#include "base/value.h"
#include "layout/meander.h"
#include "lot/lot.h"

namespace zorv {

namespace {

// Blue (low) through cyan, green and yellow to red (high).
Color Ramp(double t) {
    t = std::clamp(t, 0.0, 1.0);
    const double stops[5][3] = {{60, 100, 255}, {0, 200, 255}, {0, 190, 0}, {255, 220, 0}, {230, 0, 0}};
    const double x = t * 4;
    const int i = std::min(3, static_cast<int>(x));
    const double f = x - i;
    auto mix = [&](int k) { return static_cast<int>(std::lround(stops[i][k] + (stops[i + 1][k] - stops[i][k]) * f)); };
    return RGB(mix(0), mix(1), mix(2));
}

std::string ValueText(double v) { return NumberToText(std::fabs(v) < 5e-7 ? 0.0 : v, 4); }

// The cell of the table row's wafer key: by the key itself, or a numeric key
// with the "W" the loader puts before it.
bool SameWafer(const Value& key, const std::string& wafer) {
    const std::string k = key.isError() ? std::string() : key.toString();
    return !k.empty() && (IEquals(k, wafer) || (IsNumericValue(key) && IEquals("W" + k, wafer)));
}

}  // namespace

double LayoutFieldValue(const cField& f, const std::string& variable) {
    switch (LayoutVariableColumn(variable)) {
        case 5: return f.Focus;
        case 6: return f.Dose;
        case 7: return f.NA;
        case 8: return f.PCinner;
        case 9: return f.PCouter;
        default: return static_cast<double>(f.Direction);
    }
}

Result<LayoutView> MainDraw(const cLot& lot, const std::string& variable, const std::string& wafer, Surface& s) {
    Proc p("LP(MainDraw): ");
    p.chk = 1;
    SetStatusText("Set up field display values ...");
    const std::vector<cWafer*> wafers = LayoutWafers(lot, wafer);
    // Several wafers share the die grid: the first one's values are shown.
    if (wafers.empty() || wafers.front()->Fields().Count() == 0) return p.fail("No data in lot object.");
    const cWafer& w = *wafers.front();

    p.chk = 2;
    SetStatusText("Layout check ...");
    LayoutView v;
    float xl = 0, xh = 0, yl = 0, yh = 0;
    double lo = 0, hi = 0;
    bool first = true;
    for (const cField* f : w.Fields()) {
        const double val = LayoutFieldValue(*f, variable);
        if (first) xl = xh = f->DieX, yl = yh = f->DieY, lo = hi = val;
        xl = std::min(xl, f->DieX), xh = std::max(xh, f->DieX);
        yl = std::min(yl, f->DieY), yh = std::max(yh, f->DieY);
        lo = std::min(lo, val), hi = std::max(hi, val);
        first = false;
    }
    v.x0 = static_cast<int>(std::lround(xl));
    v.y0 = static_cast<int>(std::lround(yl));
    v.columns = static_cast<int>(std::lround(xh)) - v.x0 + 1;
    v.rows = static_cast<int>(std::lround(yh)) - v.y0 + 1;

    p.chk = 3;
    s.Cls();
    s.Font = FontSpec{};
    s.Font.size = 11;
    s.Font.bold = true;
    std::string title = "Variable: " + variable;
    if (wafers.size() > 1) {
        title += " - Wafers: ";
        for (size_t i = 0; i < wafers.size(); ++i) {
            if (i) title += ", ";
            title += wafers[i]->WaferID.empty() ? wafers[i]->KeyName : wafers[i]->WaferID;
        }
    } else {
        title += " - Wafer: ";
        title += w.WaferID.empty() ? w.KeyName : w.WaferID;
    }
    const double margin = 12, titleH = s.TextHeight(title);
    s.ForeColor = RGB(0, 0, 0);
    s.CurrentX = margin;
    s.CurrentY = margin;
    s.Print(title);

    // The grid, cells in the proportion of the die, the key at the right.
    const double keyW = 90, top = margin * 2 + titleH;
    const double availW = s.ScaleWidth() - margin * 3 - keyW, availH = s.ScaleHeight() - top - margin;
    const double aspect = lot.DieSizeX > 0 && lot.DieSizeY > 0 ? double(lot.DieSizeY) / lot.DieSizeX : 1.0;
    v.cellWidth = std::max(1.0, std::min(availW / v.columns, availH / v.rows / aspect));
    v.cellHeight = v.cellWidth * aspect;
    v.left = margin + (availW - v.cellWidth * v.columns) / 2;
    v.top = top + (availH - v.cellHeight * v.rows) / 2;

    p.chk = 4;
    SetStatusText("Update display variables ...");
    s.DrawWidth = 1;
    s.DrawStyle = DrawStyle::Solid;
    for (const cField* f : w.Fields()) {
        const double val = LayoutFieldValue(*f, variable);
        const double t = hi > lo ? (val - lo) / (hi - lo) : 0.5;
        const double x = v.cellLeft(f->DieX), y = v.cellTop(f->DieY);
        s.Line(x, y, x + v.cellWidth, y + v.cellHeight, Ramp(t), LineForm::FilledBox);
        s.Line(x, y, x + v.cellWidth, y + v.cellHeight, RGB(60, 60, 60), LineForm::Box);
    }

    // The key: the ramp from the lowest value at the bottom to the highest.
    p.chk = 5;
    SetStatusText("Update Lot Statistics ...");
    s.Font.bold = false;
    s.Font.size = 9;
    const double kx = s.ScaleWidth() - margin - keyW, ky = top, kh = std::max(20.0, availH * 0.6);
    const int bands = 32;
    for (int i = 0; i < bands; ++i) {
        const double y1 = ky + kh * i / bands, y2 = ky + kh * (i + 1) / bands;
        s.Line(kx, y1, kx + 16, y2, Ramp(1.0 - (i + 0.5) / bands), LineForm::FilledBox);
    }
    s.Line(kx, ky, kx + 16, ky + kh, RGB(0, 0, 0), LineForm::Box);
    s.ForeColor = RGB(0, 0, 0);
    s.CurrentX = kx + 20;
    s.CurrentY = ky;
    s.Print(ValueText(hi));
    s.CurrentX = kx + 20;
    s.CurrentY = ky + kh - s.TextHeight("0");
    s.Print(ValueText(lo));
    SetStatusText("");
    return v;
}

Result<std::vector<std::string>> DisplayVariables(const Datam& table, const std::string& variable,
                                                  const std::string& wafer, const LayoutView& view, Surface& s) {
    Proc p("LP(DisplayVariables): ");
    p.chk = 1;
    const std::string head = kFPdataHeads[LayoutVariableColumn(variable) - 1];
    int col = -1;
    if (table.isArray() && table.dims() == 2)
        for (int c = table.colLb(); c <= table.colUb(); ++c)
            if (IEquals(Trim(table(table.rowLb(), c).isError() ? std::string() : table(table.rowLb(), c).toString()), head))
                col = c;
    if (col < 0) return p.fail("Could not find column values for: " + variable);

    p.chk = 2;
    const int c0 = table.colLb();
    // "All" shows the first wafer of the table.
    std::string key = wafer;
    if (IEquals(wafer, "All") || wafer.empty()) key = table.get(table.rowLb() + 1, c0).toString();
    std::vector<std::string> list;
    s.Font = FontSpec{};
    s.Font.size = std::clamp(view.cellHeight / 4, 6.0, 10.0);
    s.ForeColor = RGB(0, 0, 0);
    for (int r = table.rowLb() + 1; r <= table.rowUb(); ++r) {
        const Value& k = table(r, c0);
        if (!SameWafer(k, key) && !IEquals(k.toString(), key)) continue;
        const Value& x = table(r, c0 + 2);
        const Value& y = table(r, c0 + 3);
        const Value& v = table(r, col);
        const std::string text = IsNumericValue(v) ? ValueText(v.toDouble()) : (v.isError() ? "" : v.toString());
        list.push_back(text);
        if (!IsNumericValue(x) || !IsNumericValue(y)) continue;
        const double w = s.TextWidth(text), h = s.TextHeight(text);
        s.CurrentX = view.cellLeft(x.toDouble()) + (view.cellWidth - w) / 2;
        s.CurrentY = view.cellTop(y.toDouble()) + (view.cellHeight - h) / 2;
        s.Print(text);
    }
    return list;
}

Status DrawLayoutOrigin(const cLot& lot, const std::string& wafer, const std::string& dieXo,
                        const std::string& dieYo, const LayoutView& view, Surface& s) {
    Proc p("LP(DrawLayoutOrigin): ");
    p.chk = 1;
    double x = 0, y = 0;
    if (!ParseNumber(Trim(dieXo), x)) return p.fail(dieXo + ": Data entry error..");
    if (!ParseNumber(Trim(dieYo), y)) return p.fail(dieYo + ": Data entry error..");
    p.chk = 2;
    const std::vector<cWafer*> wafers = LayoutWafers(lot, wafer);
    const cField* at = nullptr;
    if (!wafers.empty())
        for (const cField* f : wafers.front()->Fields())
            if (std::fabs(f->DieX - x) < 0.01 && std::fabs(f->DieY - y) < 0.01) at = f;
    if (!at) return p.fail("Could not locate field in data.");
    p.chk = 3;
    const double l = view.cellLeft(at->DieX), t = view.cellTop(at->DieY);
    const int width = s.DrawWidth;
    s.DrawWidth = 3;
    s.Line(l + 1, t + 1, l + view.cellWidth - 1, t + view.cellHeight - 1, RGB(0, 0, 0), LineForm::Box);
    s.DrawWidth = width;
    s.FillStyle = FillStyle::Solid;
    s.FillColor = RGB(255, 255, 255);
    s.Circle(l + view.cellWidth * 0.15, t + view.cellHeight * 0.15, std::max(2.0, view.cellWidth * 0.06), RGB(0, 0, 0));
    s.FillStyle = FillStyle::Transparent;
    return StatusOk();
}

LayoutLists LoadFeatures(const cLot& lot) {
    SetStatusText("Updating data controls...");
    LayoutLists l;
    for (const char* v : kLayoutVariables) l.variables.emplace_back(v);
    l.wafers.emplace_back("All");
    for (cWafer* w : lot.Wafers()) l.wafers.push_back(w->WaferID.empty() ? w->KeyName : w->WaferID);
    for (const MeanderKind& k : kMeanderKinds) l.meanders.emplace_back(k.kind);
    for (const char* pg : kMeanderPrograms) l.programs.emplace_back(pg);
    const Datam f = lot.GetFeatureTypes();
    for (int r = f.rowLb() + 1; f.isArray() && r <= f.rowUb(); ++r)
        l.features.push_back(f(r, 0).toLong() == 0 ? std::string("Horiz. & Vertical") : f(r, 2).toString());
    return l;
}

Status UpdateLotFromDisplay(cLot& lot, const std::string& wafer, const std::string& field,
                            const FieldExposureValues& v) {
    Proc p("LayoutPrograms(UpdateLotFromDisplay): ");
    p.chk = 1;
    cField* at = nullptr;
    for (cWafer* w : lot.Wafers()) {
        if (!IEquals(w->WaferID, wafer) && !IEquals(w->KeyName, wafer)) continue;
        for (cField* f : w->Fields())
            if (IEquals(f->NumberKey, field) || std::to_string(f->Number) == Trim(field)) at = f;
    }
    if (!at) return p.fail("Could not locate field in data.");
    at->Focus = static_cast<float>(v.focus);
    at->Dose = static_cast<float>(v.dose);
    at->NA = static_cast<float>(v.NA);
    at->PCinner = static_cast<float>(v.PCinner);
    at->PCouter = static_cast<float>(v.PCouter);
    at->SetDirection(v.direction);
    lot.SetModified();
    return StatusOk();
}

}  // namespace zorv
