// The chart engine's drawing surface on a QPainter: a window, an image, an
// SVG or a PDF page alike.
//
// Coordinates are snapped to whole pixels as the old device contexts did, and
// pens of odd width are centred on the pixel, so axes and grid lines stay
// sharp while slanted lines, circles and text are antialiased. Every call sets
// the pen, brush and font it needs, so the painter may be shared with other
// drawing between calls.
#pragma once

#include <QBrush>
#include <QFont>
#include <QFontMetricsF>
#include <QPen>
#include <QPointF>
#include <optional>
#include <vector>

#include "graphics/surface.h"

class QPainter;

namespace zorv {

class QPainterSurface : public Surface {
public:
    // The painter's window (by default its device's size) is the surface.
    explicit QPainterSurface(QPainter& painter);
    // A surface of the given size in the painter's logical coordinates.
    QPainterSurface(QPainter& painter, double width, double height);

    double ScaleWidth() const override { return width_; }
    double ScaleHeight() const override { return height_; }

    void Cls() override;
    // Box: outline in c, filled by FillStyle/FillColor. FilledBox: solid c,
    // both corners' pixels included.
    void Line(double x1, double y1, double x2, double y2, Color c = -1, LineForm form = LineForm::Line) override;
    void Circle(double x, double y, double r, Color c = -1) override;
    // One pixel, whatever DrawWidth.
    void PSet(double x, double y, Color c = -1) override;
    void Polygon(const std::vector<PointD>& points) override;
    void Polyline(const std::vector<PointD>& points) override;
    // On raster devices (images, windows) the dots invert what is under
    // them, so drawing the same rectangle again erases it; in SVG and PDF
    // they are plain black dots.
    void DrawFocusRect(double x1, double y1, double x2, double y2) override;
    double TextWidth(std::string_view text) override;
    double TextHeight(std::string_view text) override;
    void Print(std::string_view text) override;

    // The Qt font Font stands for: pixel size from the points at the
    // device's logical dots an inch, rounded to whole pixels.
    const QFont& qfont();

private:
    // Pen from DrawWidth and DrawStyle in colour c (-1: ForeColor); returns
    // the offset that centres its strokes on pixels (0.5 for odd widths).
    double usePen(Color c);
    void useFillBrush();
    void noBrush();
    void drawBox(double x1, double y1, double x2, double y2, Color c);
    const QFontMetricsF& metrics();

    QPainter& p_;
    double width_, height_;
    int dpi_;

    // What the cached pen, brush and font were made from.
    QPen pen_;
    Color penColor_ = -2;
    int penWidth_ = -1;
    zorv::DrawStyle penStyle_ = zorv::DrawStyle::Solid;
    QBrush brush_;
    Color brushColor_ = -2;
    zorv::FillStyle brushStyle_ = zorv::FillStyle::Transparent;
    std::optional<FontSpec> fontSpec_;
    QFont font_;
    std::optional<QFontMetricsF> metrics_;

    std::vector<QPointF> scratch_;  // points of the current polygon, reused
};

}  // namespace zorv
