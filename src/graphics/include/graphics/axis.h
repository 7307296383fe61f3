// The axes of a chart: cAxis is one axis (range, ticks, labels, style, and
// the pixel box it was drawn in); Axes is the chart's keyed collection of them
// ("X", "Y", "Y2", and "Z" where there is one).
//
// Tick interval: TickInterval is the user's setting, 0 meaning automatic, and
// auto-scaling never overwrites it. The interval the drawing works with is
// UnitsPerTick (the setting, or the automatic one that CalcAutoScale worked
// out); TickStep() gives the interval in use either way.
//
// Zoom and reset: a zoom sets LowValue, HighValue (and UnitsPerTick,
// TickFormat when it wants) by hand; ResetScale puts back the Origin* values
// the last CalcAutoScale kept.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "graphics/surface.h"

namespace zorv {

// A piece of an axis as drawn, kept so that a click can find the axis.
struct LineSegment {
    double x1 = 0, y1 = 0, x2 = 0, y2 = 0;
};

class cAxis {
public:
    // ---- range and ticks
    float LowValue = 0, HighValue = 0;  // drawn range
    // The scale before zooming (range, working interval, tick format), restored by ResetScale.
    float OriginLowValue = 0, OriginHighValue = 0;
    float OriginTickInterval = 0;
    std::string OriginTickFormat;
    float TickInterval = 0;  // the setting; 0 means automatic
    std::string TickFormat;  // number format of the tick labels ("#0.00")
    float UnitsPerTick = 0;  // the interval in use: the setting or the automatic one
    float Resolution = 0;
    bool AutoScale = true;
    int AxisType = 0;

    // ---- look
    std::string Label;
    FontSpec Font;
    zorv::Color Color = 0;
    int nPenWidth = 1;
    bool PlotGridline = false;

    // ---- pixel box, set when drawn
    double LeftPixel = 0, Top = 0, WidthPixel = 0, Height = 0;

    // ---- text labels of a text (category) axis, in order
    std::vector<std::string> TickLabels;
    void TickLabelAdd(std::string label) { TickLabels.push_back(std::move(label)); }
    void TickLabelReset() { TickLabels.clear(); }

    std::vector<zorv::LineSegment> LineSegments;
    void LineSegmentsClear() { LineSegments.clear(); }

    // What GetChartElement reports for a hit on an axis.
    std::string ClassID = "cAxis";

    // Copies colour, font, high and low values, pen width, grid line,
    // resolution, tick format and tick interval from another axis; nothing
    // else (not the label, the pixel box, the tick labels nor the origin). A
    // missing axis (nullptr, as Axes::Item gives for an unknown key) is a
    // run-time error under "cAxis(SetStyle): ".
    [[nodiscard]] Status SetStyle(const cAxis* other);

    // Back to the scale the last CalcAutoScale found: LowValue, HighValue,
    // UnitsPerTick and TickFormat from the Origin* values.
    void ResetScale();

    // The tick interval in use: TickInterval when set, else UnitsPerTick when
    // above 0, else a ninth of the range.
    float TickStep() const;
};

// Which column of a series an axis reads.
enum class AxisRole { X, Y, Y2 };

// What auto-scaling needs of one series of the chart: its columns in the
// chart's table (-1 for none) and the text of its display function ("" for a
// data curve).
struct AutoScaleSeries {
    int xCol = -1, yCol = -1, y2Col = -1;
    std::string displayFunction;
};

// cAxis.CalcAutoScale: the range, tick interval and tick format of an axis
// over all series of the chart, on the chart's table (rows from 1; row 0, when
// there is one, the header).
//
// - Each series gives the column of the role (Xcol, Ycol, Y2col); a series
//   whose column is outside the table adds nothing.
// - A text axis (textAxis, or the X axis of a category chart, chartType 2)
//   counts the unique values of the column: high = count + 1, low = 1, and an
//   automatic interval of 1 (the largest count where several series share it).
// - Otherwise every row is read: blank cells are skipped, a "%" is removed
//   from a text cell and the cell stored back without it (so the table
//   changes), and a numeric cell is read as a 32-bit float. A running high
//   (low) of 0 takes the next value as it is, then max (min) of the two: a 0
//   therefore never holds the range, whatever its row.
// - A series with a display function contributes, on the Y axis (on Y2 when
//   its Y2col is set), the function's values at the X values of the table's
//   first, last and middle ((last + 1) / 2) rows, through the same rule; its
//   data column is not read. Its X column must be in the table; a sample whose
//   X cell is not numeric, or where the function does not solve, is skipped.
//   The function's variable is the X column's header (row 0) when the text
//   uses that name, otherwise the first variable the text uses; so "2*x + 1"
//   works on a column headed "Focus", and so does "2*focus + 1".
// - With data, high = low gives high = low + 5. The interval (the setting, or
//   (high - low) / 9) gives TickFormat through CalcTickFormat with 1 digit;
//   high and low are rounded to that format, then widened by one interval on
//   each side. Low, high, UnitsPerTick and TickFormat are stored and kept as
//   the origin for ResetScale.
// Escape ends it with the axis unchanged. The table must be a two-dimensional
// array.
[[nodiscard]] Status CalcAutoScale(cAxis& axis, Datam& table, const std::vector<AutoScaleSeries>& series,
                                   AxisRole role, int chartType, bool textAxis);

// The texts DrawAxes2D and DrawAxes3D refuse an axis with.
inline constexpr std::string_view kXRange2D = "X-axis: axis high value = low value";
inline constexpr std::string_view kYRange2D = "Yaxis: axis high value = low value";
inline constexpr std::string_view kXRange3D = "Xaxis axis high value = low value";
inline constexpr std::string_view kYRange3D = "Yaxis axis high value = low value";
inline constexpr std::string_view kZRange3D = "Zaxis axis high value = low value";
inline constexpr std::string_view kBadTickInterval = "Tick interval improperly specified.";

// More ticks than this over the range is an interval nobody meant (and a
// drawing that never ends).
inline constexpr float kMaxTicks = 1000;

// An empty range (high = low) fails with rangeText; a tick step that is not
// above 0, not finite, or gives more than kMaxTicks ticks fails with
// "Tick interval improperly specified.".
[[nodiscard]] Status CheckRange(const cAxis& axis, std::string_view rangeText, std::string_view tag);

// CheckRange with the drawing's text for axis 'X', 'Y' (also the second Y
// axis) or 'Z' (3D only), in the 2D or the 3D wording.
[[nodiscard]] Status ValidateAxis(const cAxis& axis, char which, bool threeD = false,
                                  std::string_view tag = "cAxis(Draw): ");

class Axes {
public:
    Axes() = default;
    // A copy holds copies of the axes.
    Axes(const Axes& o) { *this = o; }
    Axes& operator=(const Axes& o) {
        if (this == &o) return *this;
        wcenx = o.wcenx, wceny = o.wceny, y2min = o.y2min, y2max = o.y2max;
        items_.clear();
        for (const Entry& e : o.items_) items_.push_back({e.key, std::make_unique<cAxis>(*e.axis)});
        return *this;
    }
    Axes(Axes&&) noexcept = default;
    Axes& operator=(Axes&&) noexcept = default;

    // Chart-wide values the drawing shares between axes: the world centre,
    // and the range of the second Y axis.
    double wcenx = 0, wceny = 0;
    float y2min = 0, y2max = 0;

    // A new axis under the key (compared without regard to case); an axis
    // already under that key is returned as it is.
    cAxis& Add(std::string_view key);
    // nullptr when there is no such key / index (1..Count).
    cAxis* Item(std::string_view key);
    const cAxis* Item(std::string_view key) const;
    cAxis* Item(int index);
    int Count() const { return static_cast<int>(items_.size()); }
    // False when there was no such key.
    bool Remove(std::string_view key);
    // Every axis back to its origin scale (ResetScale); y2min, y2max follow "Y2".
    void Reset();
    void LineSegmentsClear();

    // The axis of a role ("X", "Y", "Y2", added when missing) auto-scaled;
    // for Y2 the range also goes to y2min, y2max.
    [[nodiscard]] Status CalcAutoScale(AxisRole role, Datam& table, const std::vector<AutoScaleSeries>& series,
                                       int chartType, bool textAxis);

private:
    int find(std::string_view key) const;
    struct Entry {
        std::string key;
        std::unique_ptr<cAxis> axis;  // stable address while others come and go
    };
    std::vector<Entry> items_;
};

// The key of a role's axis: "X", "Y", "Y2".
std::string_view AxisKey(AxisRole role);

}  // namespace zorv
