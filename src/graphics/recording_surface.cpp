#include "graphics/recording_surface.h"

namespace zorv {

namespace {

double PixelSize(const FontSpec& f) { return f.size * 96.0 / 72.0; }

}  // namespace

RecordingSurface::Call RecordingSurface::make(Op op, Color c) const {
    Call call;
    call.op = op;
    call.color = c == -1 ? ForeColor : c;
    call.width = DrawWidth;
    call.style = DrawStyle;
    call.fill = FillStyle;
    call.fillColor = FillColor;
    call.font = Font;
    return call;
}

void RecordingSurface::Cls() {
    calls_.push_back(make(Op::Cls, BackColor));
    CurrentX = CurrentY = 0;
}

void RecordingSurface::Line(double x1, double y1, double x2, double y2, Color c, LineForm form) {
    Call call = make(Op::Line, c);
    call.points = {{x1, y1}, {x2, y2}};
    call.form = form;
    calls_.push_back(std::move(call));
    CurrentX = x2;
    CurrentY = y2;
}

void RecordingSurface::Circle(double x, double y, double r, Color c) {
    Call call = make(Op::Circle, c);
    call.points = {{x, y}};
    call.radius = r;
    calls_.push_back(std::move(call));
}

void RecordingSurface::PSet(double x, double y, Color c) {
    Call call = make(Op::PSet, c);
    call.points = {{x, y}};
    calls_.push_back(std::move(call));
}

void RecordingSurface::Polygon(const std::vector<PointD>& points) {
    Call call = make(Op::Polygon, -1);
    call.points = points;
    calls_.push_back(std::move(call));
}

void RecordingSurface::Polyline(const std::vector<PointD>& points) {
    Call call = make(Op::Polyline, -1);
    call.points = points;
    calls_.push_back(std::move(call));
}

void RecordingSurface::DrawFocusRect(double x1, double y1, double x2, double y2) {
    Call call = make(Op::FocusRect, -1);
    call.points = {{x1, y1}, {x2, y2}};
    calls_.push_back(std::move(call));
}

double RecordingSurface::TextWidth(std::string_view text) {
    // Characters, not bytes: UTF-8 continuation bytes add nothing.
    size_t n = 0;
    for (unsigned char ch : text) n += (ch & 0xC0) != 0x80;
    return 0.6 * PixelSize(Font) * static_cast<double>(n);
}

double RecordingSurface::TextHeight(std::string_view) { return 1.2 * PixelSize(Font); }

void RecordingSurface::Print(std::string_view text) {
    Call call = make(Op::Print, -1);
    call.points = {{CurrentX, CurrentY}};
    call.text = std::string(text);
    calls_.push_back(std::move(call));
    CurrentX += TextWidth(text);
}

std::vector<const RecordingSurface::Call*> RecordingSurface::of(Op op) const {
    std::vector<const Call*> out;
    for (const Call& c : calls_)
        if (c.op == op) out.push_back(&c);
    return out;
}

std::vector<std::string> RecordingSurface::texts() const {
    std::vector<std::string> out;
    for (const Call& c : calls_)
        if (c.op == Op::Print) out.push_back(c.text);
    return out;
}

}  // namespace zorv
