// A surface that draws nothing and keeps every call: what the chart logic
// asked for, in order, with the state it was asked in. Text extents follow a
// fixed rule of the font size, so layouts come out the same on every machine.
#pragma once

#include <string>
#include <vector>

#include "graphics/surface.h"

namespace zorv {

class RecordingSurface : public Surface {
public:
    enum class Op { Cls, Line, Circle, PSet, Polygon, Polyline, FocusRect, Print };
    struct Call {
        Op op;
        std::vector<PointD> points;  // Line, FocusRect: the two corners; Circle, PSet, Print: one
        double radius = 0;           // Circle
        Color color = 0;             // resolved: ForeColor where the call said -1
        LineForm form = LineForm::Line;
        std::string text;            // Print
        // The state the call was made in.
        int width = 1;
        zorv::DrawStyle style = zorv::DrawStyle::Solid;
        zorv::FillStyle fill = zorv::FillStyle::Transparent;
        Color fillColor = 0;
        FontSpec font;
    };

    RecordingSurface(double width = 800, double height = 600) : width_(width), height_(height) {}
    double ScaleWidth() const override { return width_; }
    double ScaleHeight() const override { return height_; }

    void Cls() override;
    void Line(double x1, double y1, double x2, double y2, Color c = -1, LineForm form = LineForm::Line) override;
    void Circle(double x, double y, double r, Color c = -1) override;
    void PSet(double x, double y, Color c = -1) override;
    void Polygon(const std::vector<PointD>& points) override;
    void Polyline(const std::vector<PointD>& points) override;
    void DrawFocusRect(double x1, double y1, double x2, double y2) override;
    // Width: 0.6 of the font's pixel size a character; height: 1.2 of it
    // (points at 96 dots an inch), whatever the text.
    double TextWidth(std::string_view text) override;
    double TextHeight(std::string_view text) override;
    void Print(std::string_view text) override;

    const std::vector<Call>& calls() const { return calls_; }
    // The calls of one kind; the texts printed.
    std::vector<const Call*> of(Op op) const;
    std::vector<std::string> texts() const;
    void clear() { calls_.clear(); }

private:
    Call make(Op op, Color c) const;
    double width_, height_;
    std::vector<Call> calls_;
};

}  // namespace zorv
