// cGraphic: one chart. Analyses register a table, name its curves and ask for
// a plot; the chart lays out title, axes, curves, legend, notes and the
// statistics box on the surface it is given.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "graphics/axis.h"
#include "graphics/series.h"
#include "graphics/surface.h"

namespace zorv {

class cGraphic;

struct Title {
    std::string TitleString;
    double Xo = 0, Yo = 0;
    FontSpec Font{"DejaVu Sans", 11, true};
    double WidthTitle = 0, HeightTitle = 0, HeightTitleMax = 0;
    cGraphic* parent = nullptr;
};

// A note on the chart, with an optional box and arrow.
struct cMessage {
    std::string Message;
    double XcenterLoc = 0, YcenterLoc = 0;  // pixels
    bool Boxed = false, BoxFill = false;
    Color ColorFore = 0, ColorBack = RGB(255, 255, 255), BoxColor = 0;
    double ArrowX = 0, ArrowY = 0;
    int Orientation = 0;
    FontSpec Font;
    bool ArrowAttachment = false;
    std::string Key;
    int Justify = 0;  // 0 centre, 1 left, 2 right
    double PixelTop = 0, PixelWidth = 0, PixelHeight = 0;
    bool Hide = false;
    void Draw(Surface& s);
};

// The statistics box: a small table drawn beside or inside the plot.
struct cStats {
    std::string Title;
    zorv::Color Color = 0;
    int PositionVert = 0;
    // 5: right of the plot, which shrinks; 4: left of it.
    int PositionHoriz = 5;
    double PLotLeft = 0, PlotTop = 0, PlotWidth = 0, PlotHeight = 0;
    bool DoPlot = true;
    int TotalRows() const { return table_.isArray() ? table_.rowUb() - table_.rowLb() + 1 : 0; }
    int TotalCols() const { return table_.isArray() ? table_.colUb() - table_.colLb() + 1 : 0; }
    void RegisterArray(const Datam& t) { table_ = t; }
    void RegisterArrayAdd(const Datam& t);
    const Datam& GetArray() const { return table_; }
    void ClearArray() { table_ = Datam(); }

private:
    Datam table_;
};

class cGraphic {
public:
    static constexpr int kSeriesSlots = 16;

    // ---- data
    // cGraphic(RegisterData): a copy of the table; with count, the non-blank
    // cells of its data part go to TotalPoints. Refuses "Data provided is not
    // an array" and "Data set had zero rows of data" (a table of one empty
    // row is none).
    [[nodiscard]] Status RegisterData(const Datam& table, bool count = true);
    // cGraphic(RegisterDataAdd): the table's data rows under the registered ones.
    [[nodiscard]] Status RegisterDataAdd(const Datam& table);
    void ClearData();
    const Datam& Data() const { return data_; }
    long TotalPoints = 0;

    // SetSeriesOptions: slot 0..15 ("Too many data series -- limit is 15"
    // beyond, as the message has always said).
    [[nodiscard]] Status SetSeriesOptions(int index, const std::string& label, SymbolShape symbol);
    const std::string& SeriesLabel(int index) const { return labels_[static_cast<size_t>(index)]; }

    zorv::Series Series;
    zorv::Axes Axes;
    std::string KeyName;

    // ---- kind and look
    int ChartType = 0;  // 2: a category chart
    int PLotDataType = 0;
    bool doBoxPlot = false;
    double PLotLeft = 0, PlotTop = 0, PlotWidth = 0, PlotHeight = 0;
    double GraphLeft = 0, GraphTop = 0, GraphWidth = 0, GraphHeight = 0, GraphDepth = 0;
    double LegendLeft = 0, LegendTop = 0, LegendWidth = 0, LegendHeight = 0;
    int ScaleMode = 3;
    double OffsetX = 0, OffsetY = 0, ViewScale = 1;
    bool AutoScale = true;
    Color BackColor = RGB(255, 255, 255), ForeColor = 0;
    bool Enabled = true;
    FontSpec Font;
    int LineWidthData = 1;
    bool DisplayLegend = true, DisplayPoints = true;

    // Histogram: the value column, an optional group column (-1: one group),
    // bars across or upright, bins (0: 20), bars per category, the bars'
    // outline, a cumulative curve, colours, the box plot above the bars.
    int HistoXcol = -1, HistoYcol = -1;
    bool HistoOrientHorizontal = false;
    int HistoDisplayResolution = 0;
    bool HistoCategoryBars = false, HistoDrawBoxOutline = true, HistoPlotCumulative = false;
    Color HistoColorVar1 = RGB(70, 130, 180), HistoColorVar2 = RGB(255, 160, 60);
    Color HistoBoxPlotColor1 = RGB(40, 40, 40), HistoBoxPlotColor2 = RGB(220, 220, 220);
    bool HistoPlotCenterCurve = false;

    zorv::Title TitleObj;
    std::vector<cMessage> Messages;
    cStats Stats;

    // ---- where it draws
    void Container(Surface* s) { surface_ = s; }
    Surface* Container() const { return surface_; }

    // cGraphic(PlotChart): lays out and draws the 2D chart: title, axes
    // (auto-scaled unless zoomed), curves, legend, notes, statistics box.
    [[nodiscard]] Status PlotChart();
    // cGraphic(PlotHistogram): the distribution of HistoXcol (per group of
    // HistoYcol), with the box plot when doBoxPlot is on. Builds a series
    // table per group ("X_" name, "Y": the bars' corners) and draws it.
    [[nodiscard]] Status PlotHistogram();
    // The bars' tables PlotHistogram built, one per group.
    const std::vector<Datam>& HistogramTables() const { return histo_; }
    // cGraphic(DrawFigure): the usual entry for redrawing; clears the surface
    // first. Without a container: "Graph Container was not specified."
    [[nodiscard]] Status DrawFigure();
    // ---- after drawing: zoom, swap, and what lies under the mouse
    // The data values at a pixel of the last drawing.
    PointD GetXYvalues(double px, double py) const;
    // cGraphic(ReScaleGraph): zooms to a rectangle given in pixels, rows
    // 1..4 of a vector (x1, y1, x2, y2): "Box array for rescale not provided."
    // otherwise; the axes keep the zoom (AutoScale off) until ResetAutosize.
    [[nodiscard]] Status ReScale(const Datam& box);
    // Back to automatic scale: each axis's origin, AutoScale on.
    void ResetAutosize();
    // X and Y exchanged: every curve's columns and the two axes' settings.
    void SwapAxes();
    // cGraphic(GetChartElement): what lies under a pixel.
    struct ChartElement {
        enum Kind { None, Point, Legend, XAxis, YAxis, Plot } kind = None;
        int series = 0;  // 1-based curve (Point, Legend)
        int point = 0;   // 1-based drawn point of the curve (Point)
        double x = 0, y = 0;  // data values (Point: the point's; Plot: the pixel's)
    };
    ChartElement GetChartElement(double px, double py) const;

    // The frame the curves were last drawn in.
    const PlotFrame& Frame() const { return frame_; }

    // Colours of the curves by slot: a fixed, distinguishable table.
    static Color GetPlotColors(int index);

    void Clear();
    void Kill();

private:
    Datam data_;
    std::array<std::string, kSeriesSlots> labels_{};
    std::array<SymbolShape, kSeriesSlots> symbols_{};
    Surface* surface_ = nullptr;
    PlotFrame frame_;
    std::vector<Datam> histo_;
};

}  // namespace zorv
