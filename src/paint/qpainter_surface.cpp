#include "paint/qpainter_surface.h"

#include <QPaintDevice>
#include <QPaintEngine>
#include <QPainter>
#include <QString>
#include <algorithm>
#include <cmath>

namespace zorv {

namespace {

QColor ToQColor(Color c) { return QColor(RedOf(c), GreenOf(c), BlueOf(c)); }

// The pixel a coordinate falls on, as the old integer device coordinates.
double Pixel(double v) { return std::floor(v + 0.5); }

QString ToQString(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

// Hatches are drawn in FillColor over what is there (transparent background
// mode); the diagonals as their names say, "/" rising and "\" falling.
Qt::BrushStyle ToBrushStyle(FillStyle f) {
    switch (f) {
    case FillStyle::Solid: return Qt::SolidPattern;
    case FillStyle::Transparent: return Qt::NoBrush;
    case FillStyle::Horizontal: return Qt::HorPattern;
    case FillStyle::Vertical: return Qt::VerPattern;
    case FillStyle::UpwardDiagonal: return Qt::BDiagPattern;
    case FillStyle::DownwardDiagonal: return Qt::FDiagPattern;
    case FillStyle::Cross: return Qt::CrossPattern;
    case FillStyle::DiagonalCross: return Qt::DiagCrossPattern;
    }
    return Qt::NoBrush;
}

}  // namespace

QPainterSurface::QPainterSurface(QPainter& painter)
    : QPainterSurface(painter, painter.window().width(), painter.window().height()) {}

QPainterSurface::QPainterSurface(QPainter& painter, double width, double height)
    : p_(painter), width_(width), height_(height) {
    const QPaintDevice* dev = p_.device();
    dpi_ = dev && dev->logicalDpiY() > 0 ? dev->logicalDpiY() : 96;
    p_.setRenderHint(QPainter::Antialiasing, true);
    p_.setRenderHint(QPainter::TextAntialiasing, true);
    p_.setBackgroundMode(Qt::TransparentMode);
}

double QPainterSurface::usePen(Color c) {
    if (c == -1) c = ForeColor;
    const int w = std::max(1, DrawWidth);
    if (c != penColor_ || w != penWidth_ || DrawStyle != penStyle_) {
        penColor_ = c;
        penWidth_ = w;
        penStyle_ = DrawStyle;
        // Dashes only on one-pixel pens: wider pens draw the dashed styles
        // solid, as the old cosmetic pens did. Dash lengths are the old ones.
        QList<qreal> dashes;
        switch (w == 1 ? DrawStyle : zorv::DrawStyle::Solid) {
        case zorv::DrawStyle::Dash: dashes = {18, 6}; break;
        case zorv::DrawStyle::Dot: dashes = {3, 3}; break;
        case zorv::DrawStyle::DashDot: dashes = {9, 6, 3, 6}; break;
        case zorv::DrawStyle::DashDotDot: dashes = {9, 3, 3, 3, 3, 3}; break;
        default: break;
        }
        if (DrawStyle == zorv::DrawStyle::Transparent) {
            pen_ = QPen(Qt::NoPen);
        } else if (!dashes.isEmpty()) {
            pen_ = QPen(QBrush(ToQColor(c)), w, Qt::CustomDashLine, Qt::FlatCap, Qt::MiterJoin);
            pen_.setDashPattern(dashes);
        } else if (w == 1) {
            // Square caps cover both end pixels of a one-pixel line.
            pen_ = QPen(QBrush(ToQColor(c)), 1, Qt::SolidLine, Qt::SquareCap, Qt::MiterJoin);
        } else {
            pen_ = QPen(QBrush(ToQColor(c)), w, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
        }
    }
    p_.setPen(pen_);
    return (w % 2) ? 0.5 : 0.0;
}

void QPainterSurface::useFillBrush() {
    if (FillColor != brushColor_ || FillStyle != brushStyle_) {
        brushColor_ = FillColor;
        brushStyle_ = FillStyle;
        brush_ = QBrush(ToQColor(FillColor), ToBrushStyle(FillStyle));
    }
    p_.setBrush(brush_);
}

void QPainterSurface::noBrush() { p_.setBrush(Qt::NoBrush); }

const QFont& QPainterSurface::qfont() {
    if (!fontSpec_ || *fontSpec_ != Font) {
        fontSpec_ = Font;
        font_ = QFont(QString::fromStdString(Font.name));
        font_.setPixelSize(std::max(1, static_cast<int>(std::lround(Font.size * dpi_ / 72.0))));
        font_.setBold(Font.bold);
        font_.setItalic(Font.italic);
        font_.setUnderline(Font.underline);
        metrics_.emplace(font_, p_.device());
    }
    return font_;
}

const QFontMetricsF& QPainterSurface::metrics() {
    qfont();
    return *metrics_;
}

void QPainterSurface::Cls() {
    p_.fillRect(QRectF(0, 0, width_, height_), ToQColor(BackColor));
    CurrentX = CurrentY = 0;
}

void QPainterSurface::Line(double x1, double y1, double x2, double y2, Color c, LineForm form) {
    CurrentX = x2;
    CurrentY = y2;
    if (form == LineForm::FilledBox) {
        // Whole pixels from corner to corner, both included.
        const double l = Pixel(std::min(x1, x2)), r = Pixel(std::max(x1, x2));
        const double t = Pixel(std::min(y1, y2)), b = Pixel(std::max(y1, y2));
        p_.fillRect(QRectF(l, t, r - l + 1, b - t + 1), ToQColor(c == -1 ? ForeColor : c));
        return;
    }
    if (form == LineForm::Box) {
        drawBox(x1, y1, x2, y2, c == -1 ? ForeColor : c);
        return;
    }
    const double off = usePen(c);
    p_.drawLine(QPointF(Pixel(x1) + off, Pixel(y1) + off), QPointF(Pixel(x2) + off, Pixel(y2) + off));
}

void QPainterSurface::drawBox(double x1, double y1, double x2, double y2, Color c) {
    const double l = Pixel(std::min(x1, x2)), r = Pixel(std::max(x1, x2));
    const double t = Pixel(std::min(y1, y2)), b = Pixel(std::max(y1, y2));
    if (FillStyle != zorv::FillStyle::Transparent) {
        useFillBrush();
        p_.setPen(Qt::NoPen);
        p_.drawRect(QRectF(l, t, r - l + 1, b - t + 1));
    }
    const int w = std::max(1, DrawWidth);
    const bool dashed = w == 1 && DrawStyle >= zorv::DrawStyle::Dash && DrawStyle <= zorv::DrawStyle::DashDotDot;
    if (DrawStyle == zorv::DrawStyle::Transparent) return;
    if (dashed) {
        const double off = usePen(c);
        noBrush();
        p_.drawRect(QRectF(QPointF(l + off, t + off), QPointF(r + off, b + off)));
        return;
    }
    // A solid outline as four bands of whole pixels: thin strokes leave the
    // corners of a rectangle partly covered under antialiasing. The bands
    // are centred on the corners' pixels, or wholly inside them for
    // InsideSolid.
    QRectF outer;
    if (DrawStyle == zorv::DrawStyle::InsideSolid) {
        outer = QRectF(l, t, r - l + 1, b - t + 1);
    } else {
        const double off = (w % 2 ? 0.5 : 0.0) - w / 2.0;
        outer = QRectF(l + off, t + off, r - l + w, b - t + w);
    }
    const QColor color = ToQColor(c);
    if (outer.width() <= 2 * w || outer.height() <= 2 * w) {
        p_.fillRect(outer, color);
        return;
    }
    p_.fillRect(QRectF(outer.left(), outer.top(), outer.width(), w), color);
    p_.fillRect(QRectF(outer.left(), outer.bottom() - w, outer.width(), w), color);
    p_.fillRect(QRectF(outer.left(), outer.top() + w, w, outer.height() - 2 * w), color);
    p_.fillRect(QRectF(outer.right() - w, outer.top() + w, w, outer.height() - 2 * w), color);
}

void QPainterSurface::Circle(double x, double y, double r, Color c) {
    if (!(r >= 0)) return;
    const double off = usePen(c);
    useFillBrush();
    p_.drawEllipse(QPointF(Pixel(x) + off, Pixel(y) + off), r, r);
}

void QPainterSurface::PSet(double x, double y, Color c) {
    if (c == -1) c = ForeColor;
    // A whole-pixel square: points are placed by rounding in Qt, not by
    // coverage, so a rectangle is the exact pixel on every device.
    p_.fillRect(QRectF(Pixel(x), Pixel(y), 1, 1), ToQColor(c));
}

void QPainterSurface::Polygon(const std::vector<PointD>& points) {
    if (points.size() < 2) return;
    const double off = usePen(-1);
    useFillBrush();
    scratch_.clear();
    for (const PointD& pt : points) scratch_.emplace_back(Pixel(pt.x) + off, Pixel(pt.y) + off);
    // Alternate filling, as the old polygon fill mode.
    p_.drawPolygon(scratch_.data(), static_cast<int>(scratch_.size()), Qt::OddEvenFill);
}

void QPainterSurface::Polyline(const std::vector<PointD>& points) {
    if (points.size() < 2) return;
    const double off = usePen(-1);
    noBrush();
    scratch_.clear();
    for (const PointD& pt : points) scratch_.emplace_back(Pixel(pt.x) + off, Pixel(pt.y) + off);
    p_.drawPolyline(scratch_.data(), static_cast<int>(scratch_.size()));
}

void QPainterSurface::DrawFocusRect(double x1, double y1, double x2, double y2) {
    const int l = static_cast<int>(Pixel(std::min(x1, x2))), r = static_cast<int>(Pixel(std::max(x1, x2)));
    const int t = static_cast<int>(Pixel(std::min(y1, y2))), b = static_cast<int>(Pixel(std::max(y1, y2)));
    p_.save();
    p_.setRenderHint(QPainter::Antialiasing, false);
    p_.setBrush(Qt::NoBrush);
    const QPaintEngine* engine = p_.paintEngine();
    // Vector engines claim raster operations too but cannot invert pixels.
    if (engine && engine->type() == QPaintEngine::Raster) {
        // Every other pixel of the border, each visited once, inverted: a
        // second call puts back exactly what was there.
        scratch_.clear();
        auto add = [this](int x, int y) { scratch_.emplace_back(x, y); };  // aliased: the pixel itself
        for (int x = l; x <= r; ++x) add(x, t);
        for (int y = t + 1; y <= b; ++y) add(r, y);
        if (b > t)
            for (int x = r - 1; x >= l; --x) add(x, b);
        if (r > l)
            for (int y = b - 1; y > t; --y) add(l, y);
        size_t n = 0;
        for (size_t i = 0; i < scratch_.size(); i += 2) scratch_[n++] = scratch_[i];
        p_.setCompositionMode(QPainter::RasterOp_SourceXorDestination);
        p_.setPen(QPen(QBrush(Qt::white), 1, Qt::SolidLine, Qt::SquareCap));
        p_.drawPoints(scratch_.data(), static_cast<int>(n));
    } else {
        QPen dots(QBrush(Qt::black), 1, Qt::CustomDashLine, Qt::FlatCap, Qt::MiterJoin);
        dots.setDashPattern({1, 1});
        p_.setPen(dots);
        p_.drawRect(QRectF(QPointF(l + 0.5, t + 0.5), QPointF(r + 0.5, b + 0.5)));
    }
    p_.restore();
}

double QPainterSurface::TextWidth(std::string_view text) { return metrics().horizontalAdvance(ToQString(text)); }

double QPainterSurface::TextHeight(std::string_view) { return metrics().height(); }

void QPainterSurface::Print(std::string_view text) {
    const QString s = ToQString(text);
    const QFontMetricsF& m = metrics();
    p_.setFont(font_);
    p_.setPen(QPen(ToQColor(ForeColor)));
    // The baseline on a whole pixel keeps hinted glyphs sharp.
    p_.drawText(QPointF(Pixel(CurrentX), Pixel(CurrentY + m.ascent())), s);
    CurrentX += m.horizontalAdvance(s);
}

}  // namespace zorv
