#include "graphics/chart.h"

#include <algorithm>

#include "numerics/matrix.h"

namespace zorv {

// ---------------------------------------------------------------- data

Status cGraphic::RegisterData(const Datam& table, bool count) {
    Proc p("cGraphic(RegisterData): ");
    if (!table.isArray() || table.dims() != 2) return p.fail("Data provided is not an array");
    p.chk = 1;
    if (mat_LastRow(table) < FirstData(table, 1)) return p.fail("Data set had zero rows of data");
    data_ = table;
    if (count) {
        TotalPoints = 0;
        for (int r = FirstData(table, 1); r <= table.rowUb(); ++r)
            for (int c = FirstData(table, 2); c <= table.colUb(); ++c) TotalPoints += !IsBlank(table(r, c));
    }
    return StatusOk();
}

Status cGraphic::RegisterDataAdd(const Datam& table) {
    Proc p("cGraphic(RegisterDataAdd): ");
    if (!table.isArray() || table.dims() != 2) return p.fail("Data provided is not an array");
    if (!data_.isArray()) return RegisterData(table);
    p.chk = 1;
    const int first = FirstData(table, 1), n = table.rowUb() - first + 1;
    if (n < 1) return StatusOk();
    const int at = data_.rowUb();
    data_.redim(at + n, std::max(data_.colUb(), table.colUb()), data_.rowLb(), data_.colLb(), true);
    for (int r = 0; r < n; ++r)
        for (int c = std::max(table.colLb(), data_.colLb()); c <= table.colUb(); ++c) {
            const Value& v = table(first + r, c);
            data_(at + 1 + r, c) = v;
            TotalPoints += !IsBlank(v) && c >= FirstData(table, 2);
        }
    return StatusOk();
}

void cGraphic::ClearData() {
    data_ = Datam();
    TotalPoints = 0;
}

Status cGraphic::SetSeriesOptions(int index, const std::string& label, SymbolShape symbol) {
    if (index < 0 || index >= kSeriesSlots) return Proc("cGraphic(SetSeriesOptions): ").fail("Too many data series -- limit is 15");
    labels_[static_cast<size_t>(index)] = label;
    symbols_[static_cast<size_t>(index)] = symbol;
    return StatusOk();
}

Color cGraphic::GetPlotColors(int index) {
    // Distinct on screen and on paper, dark enough for thin lines.
    static constexpr Color kColors[] = {
        RGB(31, 119, 180), RGB(214, 39, 40),  RGB(44, 160, 44),  RGB(255, 127, 14),
        RGB(148, 103, 189), RGB(140, 86, 75), RGB(227, 119, 194), RGB(127, 127, 127),
        RGB(188, 189, 34),  RGB(23, 190, 207), RGB(0, 0, 128),    RGB(128, 0, 0),
        RGB(0, 100, 0),     RGB(184, 134, 11), RGB(75, 0, 130),   RGB(0, 0, 0)};
    const int n = static_cast<int>(std::size(kColors));
    return kColors[((index % n) + n) % n];
}

void cGraphic::Clear() {
    if (surface_) {
        surface_->BackColor = BackColor;
        surface_->Cls();
    }
}

void cGraphic::Kill() {
    ClearData();
    Series.Clear();
    Messages.clear();
    Stats.ClearArray();
    TitleObj = zorv::Title();
    labels_ = {};
    symbols_ = {};
    surface_ = nullptr;
    lot_.reset();
    boxes_.clear();
    histo_.clear();
}

// ---------------------------------------------------------------- notes and the statistics box

void cStats::RegisterArrayAdd(const Datam& t) {
    if (!table_.isArray()) {
        table_ = t;
        return;
    }
    table_ = mat_append(table_, t, "ADDROWS");
}

void cMessage::Draw(Surface& s) {
    if (Hide || Message.empty()) return;
    const FontSpec font = s.Font;
    const Color fore = s.ForeColor;
    s.Font = Font;
    PixelWidth = s.TextWidth(Message);
    PixelHeight = s.TextHeight(Message);
    double x = XcenterLoc - PixelWidth / 2;
    if (Justify == 1) x = XcenterLoc;
    if (Justify == 2) x = XcenterLoc - PixelWidth;
    PixelTop = YcenterLoc - PixelHeight / 2;
    const double pad = PixelHeight * 0.2;
    if (Boxed) {
        if (BoxFill) s.Line(x - pad, PixelTop - pad, x + PixelWidth + pad, PixelTop + PixelHeight + pad, ColorBack, LineForm::FilledBox);
        s.Line(x - pad, PixelTop - pad, x + PixelWidth + pad, PixelTop + PixelHeight + pad, BoxColor, LineForm::Box);
    }
    if (ArrowAttachment) s.Line(XcenterLoc, PixelTop + PixelHeight + pad, ArrowX, ArrowY, ColorFore);
    s.ForeColor = ColorFore;
    s.CurrentX = x;
    s.CurrentY = PixelTop;
    s.Print(Message);
    s.Font = font;
    s.ForeColor = fore;
}

}  // namespace zorv
