// The drawing surface the chart engine draws on: the picture operations a
// chart needs and nothing more. The core draws through this interface only;
// a QPainter surface (on a widget, or into PNG, SVG and PDF files) lives in
// its own library outside the core, and RecordingSurface keeps the calls for
// tests.
//
// Coordinates are in the surface's scale units (ScaleMode 3: pixels), x to
// the right and y down from the top left corner. Colours are 0x00BBGGRR
// values (RGB(r, g, b) = r + 256 g + 65536 b), as the tree's colour fields.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zorv {

using Color = int32_t;
constexpr Color RGB(int r, int g, int b) { return r + 256 * g + 65536 * b; }
constexpr int RedOf(Color c) { return c & 0xFF; }
constexpr int GreenOf(Color c) { return (c >> 8) & 0xFF; }
constexpr int BlueOf(Color c) { return (c >> 16) & 0xFF; }

// DrawStyle: the pen's dash pattern.
enum class DrawStyle : int { Solid = 0, Dash = 1, Dot = 2, DashDot = 3, DashDotDot = 4, Transparent = 5, InsideSolid = 6 };
// FillStyle of closed shapes (circles, polygons).
enum class FillStyle : int { Solid = 0, Transparent = 1, Horizontal = 2, Vertical = 3, UpwardDiagonal = 4,
                             DownwardDiagonal = 5, Cross = 6, DiagonalCross = 7 };
// Line: a line, a box outline (B) or a filled box (BF).
enum class LineForm : int { Line = 0, Box = 1, FilledBox = 2 };

struct FontSpec {
    std::string name = "DejaVu Sans";
    double size = 8;  // points
    bool bold = false, italic = false, underline = false;
    bool operator==(const FontSpec&) const = default;
};

struct PointD {
    double x = 0, y = 0;
};

class Surface {
public:
    virtual ~Surface() = default;

    // ---- state the drawing calls read
    double CurrentX = 0, CurrentY = 0;  // where Print writes; moved by Line and Print
    int DrawWidth = 1;                  // pen width, pixels
    zorv::DrawStyle DrawStyle = zorv::DrawStyle::Solid;
    zorv::FillStyle FillStyle = zorv::FillStyle::Transparent;
    Color FillColor = 0, ForeColor = 0, BackColor = RGB(255, 255, 255);
    FontSpec Font;
    int ScaleMode = 3;  // 3: pixels

    virtual double ScaleWidth() const = 0;
    virtual double ScaleHeight() const = 0;

    // ---- drawing
    // Clears to BackColor; CurrentX, CurrentY to 0.
    virtual void Cls() = 0;
    // A line (or box, filled box) from (x1, y1) to (x2, y2) in colour c (-1:
    // ForeColor); CurrentX, CurrentY end at (x2, y2).
    virtual void Line(double x1, double y1, double x2, double y2, Color c = -1, LineForm form = LineForm::Line) = 0;
    // A circle of radius r, outlined in c and filled by FillStyle/FillColor.
    virtual void Circle(double x, double y, double r, Color c = -1) = 0;
    virtual void PSet(double x, double y, Color c = -1) = 0;
    virtual void Polygon(const std::vector<PointD>& points) = 0;   // closed, filled by FillStyle
    virtual void Polyline(const std::vector<PointD>& points) = 0;  // open
    // The dotted rectangle of a mouse selection.
    virtual void DrawFocusRect(double x1, double y1, double x2, double y2) = 0;
    // Text extents in the current Font.
    virtual double TextWidth(std::string_view text) = 0;
    virtual double TextHeight(std::string_view text) = 0;
    // Writes text at (CurrentX, CurrentY), its top left corner there, in
    // ForeColor; CurrentX moves past it.
    virtual void Print(std::string_view text) = 0;
};

}  // namespace zorv
