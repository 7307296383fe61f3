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
class cLot;
class cPoint;

// What Refresh draws. The maps and the 3D surface need a bound lot.
enum class GraphKind : int {
    Chart = 0, Histogram = 1, WaferVector = 2, FieldVector = 3, WaferContour = 4, FieldContour = 5, Surface3D = 6
};

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
    GraphKind Kind = GraphKind::Chart;
    int ChartType = 0;  // 2: a category chart
    int PLotDataType = 0;
    bool TrendSort = false;
    // A box per X position of each curve, drawn under the curves; with
    // percentiles the whiskers reach the 5% and 95% values and are labelled,
    // with the share of the values inside the box beside the median.
    bool doBoxPlot = false;
    bool BoxPlotPercentiles = false;
    int ContourSeries = 0;
    bool doContourProfileGradient = false, doContourProfileSeries = false;
    int InterpolateMethod = 0;
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
    // Maps: the vector scale in value units times 1000 (0: from the largest
    // vector at each drawing), the pixels the scale spans (0: the map sets it),
    // and the wafer and field drawn ("": the lot's current, else the first).
    double VectorScale = 0;
    double ArrowReference = 0;
    std::string FieldKey, WaferKey, BarCodeKey;
    // Maps of every wafer (every field) overlaid, of one family (0: all), a
    // site mark under each arrow; the contour's cell in mm (0: by the plot).
    bool MapAllWafers = false, MapAllFields = false, MapSiteMarks = true;
    long MapFamily = 0;
    double ContourCell = 0;

    // 3D view: the point looked at, the up direction, and the eye in
    // spherical coordinates about the focus (radians); DataGrid the surface.
    bool Perspective = true;
    double FocusX = 0, FocusY = 0, FocusZ = 0;
    double Xup = 0, Yup = 0, Zup = 1;
    double ViewR = 0, ViewTheta = 0.7853981633974483, ViewPhi = 1.0471975511965976;
    Datam DataGrid;
    // The 4 x 4 view transform SetProjection builds, row-major, applied to
    // column vectors (x, y, z, 1).
    std::array<double, 16> Projection{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    // cGraphic(SetProjection): the view matrix from ViewR/ViewTheta/ViewPhi
    // about the focus with the up direction, times the scale and translation.
    [[nodiscard]] Status SetProjection();
    // cGraphic(Draw3d): DataGrid (X in row 0, Y in column 0) as a projected
    // grid of lines with its axes.
    [[nodiscard]] Status Draw3d();
    // The colour of z on the blue - cyan - green - yellow - red ramp between
    // zmin and zmax (clamped); zmax = zmin fails.
    [[nodiscard]] static Result<Color> GetContourColor(double z, double zmax, double zmin);

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
    // The full rebuild of the picture: the container (the chart's, else the
    // bound lot's), the surface cleared unless noClear, the lot pointed at
    // this chart and shown in its data view while drawing, then the chart's
    // kind drawn.
    [[nodiscard]] Status Refresh(bool noClear = false);
    // The box plots of the last drawing, one table per curve: rows of
    // "Xprofile" (the X value), "Xloc" (its pixel), "Count", "Q0", "Q1",
    // "Median", "Q3", "Q4", with percentiles "5%" and "95%", and the
    // "Colors_" column of the box's colour.
    const std::vector<Datam>& BoxPlotTables() const { return boxes_; }

    // ---- the lot behind the chart
    // cGraphic(LotData): binds the chart to a lot (nullptr unbinds).
    [[nodiscard]] Status LotData(std::shared_ptr<cLot> lot);
    const std::shared_ptr<cLot>& Lot() const { return lot_; }
    // cGraphic(FindLotPoints): the points of the bound lot, not culled, whose
    // site lies in a rectangle given in micrometres as rows 1..4 (x1, y1, x2,
    // y2; any corners) of a 4 by 1 array: wafer positions, or positions in
    // the field when fieldPositions. Anything else: "Input 'dRect' must be a
    // (4,1) array rectangle."
    [[nodiscard]] Result<std::vector<cPoint*>> FindLotPoints(const Datam& dRect, bool fieldPositions = false) const;
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

    // The frame the curves were last drawn in (a map sets its own: pixels per
    // unit of its positions).
    const PlotFrame& Frame() const { return frame_; }
    void Frame(const PlotFrame& f) { frame_ = f; }

    // Colours of the curves by slot: a fixed, distinguishable table.
    static Color GetPlotColors(int index);

    void Clear();
    void Kill();

private:
    // cGraphic(BoxPlotAdd): the boxes of every curve in the frame.
    [[nodiscard]] Status BoxPlotAdd(Surface& s);

    Datam data_;
    std::array<std::string, kSeriesSlots> labels_{};
    std::array<SymbolShape, kSeriesSlots> symbols_{};
    Surface* surface_ = nullptr;
    PlotFrame frame_;
    std::vector<Datam> histo_;
    std::vector<Datam> boxes_;
    std::shared_ptr<cLot> lot_;
};

}  // namespace zorv
