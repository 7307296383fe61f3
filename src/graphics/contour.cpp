// Surfaces of a wafer or field and their contour plots.
#include "graphics/contour.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

#include "base/format.h"
#include "base/marks.h"
#include "base/report.h"
#include "graphics/chart.h"
#include "graphics/wafer_draw.h"
#include "lot/lot.h"
#include "numerics/aberration.h"
#include "numerics/equation.h"
#include "numerics/matrix.h"
#include "numerics/surface.h"

namespace zorv {

namespace {

constexpr int kModelOrder = 6;
// Sites filling less than this share of the grid of their unique X and Y
// values are scattered, not on rows and columns.
constexpr double kScatteredShare = 0.25;
// A unique-position table larger than this is scattered data, not a grid.
constexpr double kMaxTableCells = 4.0e6;
constexpr double kMaxContourCells = 25.0e6;
constexpr int kDefaultCellsAcross = 400;
constexpr int kStatusRows = 20;
constexpr double kKeyWidth = 18, kKeyGap = 15;
constexpr const char* kNoteFormat = "##0.0##";

const double kEmpty = std::numeric_limits<double>::quiet_NaN();

double SiteStatistic(const RcStats& s, long graphDataType) {
    switch (graphDataType) {
        case 1: return s.mx;
        case 2: return s.mn;
        case 3: return s.sd;
        case 4: return s.range;
        default: return s.mean;
    }
}

// The statistic of a site's live values of the plot feature, display units.
void AddSite(const cLot& lot, const cSite& site, double x, double y, std::vector<SurfaceSite>& out) {
    RcMoments m;
    for (cPoint* pt : site.Points()) {
        if (pt->cull()) continue;
        float v1 = 0, v2 = 0, v3 = 0;
        const float v = pt->GetPlotFeatureValue(v1, v2, v3, lot.PlotFeature(), lot.PLotDataType);
        if (IsMissing(v)) continue;
        m.add(double(v) / 1000);
    }
    if (m.n > 0) out.push_back({x, y, SiteStatistic(RcFinish(m), lot.PlotGraphDataType)});
}

std::vector<SurfaceSite> WaferSites(const cLot& lot, const cWafer& wafer) {
    std::vector<SurfaceSite> out;
    for (const cField* f : wafer.Fields()) {
        if (f->cull()) continue;
        for (const cSite* s : f->sites())
            if (!s->cull()) AddSite(lot, *s, s->LocationXabs / 1000.0, s->LocationYabs / 1000.0, out);
    }
    return out;
}

std::vector<SurfaceSite> FieldSites(const cLot& lot, const cField& field) {
    std::vector<SurfaceSite> out;
    for (const cSite* s : field.sites())
        if (!s->cull()) AddSite(lot, *s, s->LocationX / 1000.0, s->LocationY / 1000.0, out);
    return out;
}

// GetUniqueValues groups numbers at a millionth; positions are looked up by
// the same key.
long long PositionKey(double v) { return std::llround(v * 1e6); }

// A Zernike text evaluated at wafer or field positions.
class ModelSurface {
public:
    explicit ModelSurface(const std::string& text)
        : eq_(text), r_(eq_.VarSlot("Rval")), t_(eq_.VarSlot("Theta")) {}
    bool at(double x, double y, double& z) {
        float rv = 0, th = 0;
        PolarPosition(x, y, rv, th);
        eq_.SetSlot(r_, rv);
        eq_.SetSlot(t_, th);
        if (!eq_.Solve()) return false;
        z = eq_.LastValue();
        return true;
    }
    const std::string& error() const { return eq_.LastError(); }

private:
    clsEquation eq_;
    int r_, t_;
};

// The grid table is built always for GetSurface; a contour needs it only
// for a model, whose values at the grid's cells are its data.
enum class Table { Always, WhenModelled };

Result<SurfaceGrid> MakeSurface(Proc& p, const cLot& lot, std::vector<SurfaceSite> sites, bool forceModel,
                                Table table) {
    p.chk = 2;
    if (sites.empty()) return p.fail("No data in surface.");
    SurfaceGrid out;
    const int n = static_cast<int>(sites.size());

    p.chk = 3;
    Notes notes;
    {
        Datam pos(n, 2, 0, 1);
        pos(0, 1) = Value("X");
        pos(0, 2) = Value("Y");
        for (int i = 0; i < n; ++i) {
            pos(i + 1, 1) = Value(sites[static_cast<size_t>(i)].x);
            pos(i + 1, 2) = Value(sites[static_cast<size_t>(i)].y);
        }
        for (int c = 1; c <= 2; ++c) {
            const Datam u = GetUniqueValues(pos, c, nullptr, false, &notes);
            if (!u.isArray()) {
                if (notes.failure) return *notes.failure;
                return p.fail("No data in surface.");
            }
            std::vector<double>& axis = c == 1 ? out.x : out.y;
            for (int r = 1; r <= u.rowUb(); ++r) axis.push_back(u(r, 1).toDouble());
        }
    }

    p.chk = 4;
    // Scattered sites (rings of sensors, say) fill few cells of the grid their
    // positions span: rows of one or two values would be carried into
    // stripes, so they take the model surface as well.
    const double positions = double(out.x.size()) * double(out.y.size());
    out.modelled = forceModel || out.x.size() < 3 || out.y.size() < 3 || n < kScatteredShare * positions;
    if (out.modelled) {
        Datam vx = Datam::vec(n), vy = Datam::vec(n), vz = Datam::vec(n);
        for (int i = 0; i < n; ++i) {
            const SurfaceSite& s = sites[static_cast<size_t>(i)];
            vx(i + 1, 1) = Value(s.x);
            vy(i + 1, 1) = Value(s.y);
            vz(i + 1, 1) = Value(s.z);
        }
        // No range cull: the surface follows every site.
        const AberrationFit fit = Model_Zernike(vx, vy, vz, kModelOrder, 0, -1, false, nullptr, &notes);
        if (fit.result < 0) {
            if (notes.failure) return *notes.failure;
            return p.fail("The surface model could not be fitted.");
        }
        out.model = fit.text;
    }

    p.chk = 5;
    out.zmin = out.zmax = sites.front().z;
    if (table == Table::Always || out.modelled) {
        const int nx = static_cast<int>(out.x.size()), ny = static_cast<int>(out.y.size());
        if (double(nx) * ny > kMaxTableCells) return p.fail("Too many site positions for a surface grid.");
        Datam& g = out.grid;
        g = Datam(ny, nx, 0, 0);
        g(0, 0) = Value(lot.GetPlotFeatureName(lot.PlotFeature()));
        for (int j = 0; j < nx; ++j) g(0, j + 1) = Value(out.x[static_cast<size_t>(j)]);
        for (int i = 0; i < ny; ++i) g(i + 1, 0) = Value(out.y[static_cast<size_t>(i)]);
        bool first = true;
        auto track = [&](double z) {
            if (first) out.zmin = out.zmax = z, first = false;
            out.zmin = std::min(out.zmin, z);
            out.zmax = std::max(out.zmax, z);
        };
        if (out.modelled) {
            ModelSurface m(out.model);
            for (int i = 0; i < ny; ++i)
                for (int j = 0; j < nx; ++j) {
                    double z = 0;
                    if (!m.at(out.x[static_cast<size_t>(j)], out.y[static_cast<size_t>(i)], z)) return p.fail(m.error());
                    g(i + 1, j + 1) = Value(z);
                    track(z);
                }
        } else {
            // Sites sharing a position share its cell: their mean.
            std::vector<long long> kx(out.x.size()), ky(out.y.size());
            std::transform(out.x.begin(), out.x.end(), kx.begin(), PositionKey);
            std::transform(out.y.begin(), out.y.end(), ky.begin(), PositionKey);
            std::vector<double> sum(static_cast<size_t>(nx) * ny, 0.0);
            std::vector<int> count(sum.size(), 0);
            for (const SurfaceSite& s : sites) {
                const auto cx = std::lower_bound(kx.begin(), kx.end(), PositionKey(s.x));
                const auto cy = std::lower_bound(ky.begin(), ky.end(), PositionKey(s.y));
                if (cx == kx.end() || cy == ky.end()) continue;
                const size_t k = static_cast<size_t>(cy - ky.begin()) * nx + static_cast<size_t>(cx - kx.begin());
                sum[k] += s.z;
                ++count[k];
            }
            for (int i = 0; i < ny; ++i)
                for (int j = 0; j < nx; ++j) {
                    const size_t k = static_cast<size_t>(i) * nx + j;
                    if (count[k] == 0) continue;
                    const double z = sum[k] / count[k];
                    g(i + 1, j + 1) = Value(z);
                    track(z);
                }
        }
    } else {
        for (const SurfaceSite& s : sites) {
            out.zmin = std::min(out.zmin, s.z);
            out.zmax = std::max(out.zmax, s.z);
        }
    }
    out.sites = std::move(sites);
    return out;
}

// ---- the contour grid

// Cells of the contour, row 0 at the top; NaN where no value is known.
struct CellGrid {
    int nx = 0, ny = 0;
    double cell = 0, x0 = 0, y0 = 0;  // mm; x0 the left edge, y0 the top edge
    std::vector<double> z;
    std::vector<uint8_t> in;  // the cell's centre lies in the wafer or field
    double xEdge(int j) const { return x0 + j * cell; }
    double yEdge(int i) const { return y0 - i * cell; }
    double xc(int j) const { return x0 + (j + 0.5) * cell; }
    double yc(int i) const { return y0 - (i + 0.5) * cell; }
    size_t at(int i, int j) const { return static_cast<size_t>(i) * static_cast<size_t>(nx) + static_cast<size_t>(j); }
    bool known(size_t k) const { return in[k] && !std::isnan(z[k]); }
};

// The outermost known values of each line are carried out to the edge of
// the shape, so that the interpolation has values to run towards.
void CarryLines(CellGrid& g, bool rows) {
    const int lines = rows ? g.ny : g.nx, len = rows ? g.nx : g.ny;
    for (int l = 0; l < lines; ++l) {
        auto idx = [&](int m) { return rows ? g.at(l, m) : g.at(m, l); };
        int first = -1, last = -1;
        for (int m = 0; m < len; ++m)
            if (g.known(idx(m))) {
                if (first < 0) first = m;
                last = m;
            }
        if (first < 0) continue;
        const double zf = g.z[idx(first)], zl = g.z[idx(last)];
        for (int m = first - 1; m >= 0 && g.in[idx(m)]; --m) g.z[idx(m)] = zf;
        for (int m = last + 1; m < len && g.in[idx(m)]; ++m) g.z[idx(m)] = zl;
    }
}

struct Shape {
    bool wafer = true;
    double hx = 0, hy = 0;  // half extents, mm
};

struct Contoured {
    CellGrid g;
    Datam grid;  // X in row 0, Y in column 0, mm; the interpolated values
    double zmin = 0, zmax = 0;
    bool stopped = false;  // by Esc
};

// The values of a wafer (or field) on square cells of cellMm: gathered,
// placed, interpolated and carried out to the shape's edge.
Status FillContour(Proc& p, const cLot& lot, const cWafer* wafer, const cField* field, const Shape& shape,
                   double cellMm, Contoured& out) {
    p.chk = 2;
    SetStatusText("Gather wafer data...");
    Result<SurfaceGrid> got = [&] {
        if (wafer) {
            Proc q("cWafer(GetSurface): ");
            return MakeSurface(q, lot, WaferSites(lot, *wafer), false, Table::WhenModelled);
        }
        Proc q("cField(GetSurface): ");
        return MakeSurface(q, lot, FieldSites(lot, *field), false, Table::WhenModelled);
    }();
    if (!got) return got.failure();
    const SurfaceGrid& surf = got.value();

    p.chk = 3;
    SetStatusText("Surface setup...");
    CellGrid& g = out.g;
    g.cell = cellMm;
    g.nx = std::max(1, static_cast<int>(std::ceil(2 * shape.hx / g.cell - 1e-9)));
    g.ny = std::max(1, static_cast<int>(std::ceil(2 * shape.hy / g.cell - 1e-9)));
    if (double(g.nx) * g.ny > kMaxContourCells) return p.fail("The contour cell is too small for the plot.");
    g.x0 = -g.nx * g.cell / 2;
    g.y0 = g.ny * g.cell / 2;
    const size_t cells = static_cast<size_t>(g.nx) * static_cast<size_t>(g.ny);
    g.z.assign(cells, kEmpty);
    g.in.assign(cells, 0);

    p.chk = 4;
    const double r2 = shape.hx * shape.hx;
    for (int i = 0; i < g.ny; ++i) {
        if (i % kStatusRows == 0) {
            SetStatusText("Data preparation row " + std::to_string(i + 1));
            if (CheckEscKey()) return out.stopped = true, StatusOk();
        }
        const double y = g.yc(i);
        for (int j = 0; j < g.nx; ++j) {
            const double x = g.xc(j);
            g.in[g.at(i, j)] = shape.wafer ? x * x + y * y <= r2 : std::fabs(x) <= shape.hx && std::fabs(y) <= shape.hy;
        }
    }
    // The model's values at the grid's cells stand in for the sites: off
    // the measured rows a fit on too few of them is not determined.
    std::vector<SurfaceSite> modelPoints;
    if (surf.modelled) {
        const Datam& t = surf.grid;
        for (int i = 1; i <= t.rowUb(); ++i)
            for (int j = 1; j <= t.colUb(); ++j)
                if (!t(i, j).isEmpty())
                    modelPoints.push_back({t(0, j).toDouble(), t(i, 0).toDouble(), t(i, j).toDouble()});
    }
    const std::vector<SurfaceSite>& points = surf.modelled ? modelPoints : surf.sites;
    // Each value goes to the cell it falls in; values sharing a cell share it.
    int placed = 0;
    {
        std::vector<double> sum(cells, 0.0);
        std::vector<int> count(cells, 0);
        for (const SurfaceSite& site : points) {
            const int j = static_cast<int>(std::floor((site.x - g.x0) / g.cell));
            const int i = static_cast<int>(std::floor((g.y0 - site.y) / g.cell));
            if (i < 0 || i >= g.ny || j < 0 || j >= g.nx || !g.in[g.at(i, j)]) continue;
            sum[g.at(i, j)] += site.z;
            ++count[g.at(i, j)];
        }
        for (size_t k = 0; k < cells; ++k)
            if (count[k] > 0) g.z[k] = sum[k] / count[k], ++placed;
    }

    p.chk = 5;
    SetStatusText("Interpolation of data . . .");
    Datam& grid = out.grid;
    grid = Datam(g.ny, g.nx, 0, 0);
    grid(0, 0) = Value(lot.GetPlotFeatureName(lot.PlotFeature()));
    for (int j = 0; j < g.nx; ++j) grid(0, j + 1) = Value(g.xc(j));
    for (int i = 0; i < g.ny; ++i) grid(i + 1, 0) = Value(g.yc(i));
    CarryLines(g, true);
    if (placed >= 3) {
        Datam mask(g.ny, g.nx, 0, 0);
        for (int i = 0; i < g.ny; ++i)
            for (int j = 0; j < g.nx; ++j) {
                const size_t k = g.at(i, j);
                if (!g.in[k]) mask(i + 1, j + 1) = Value(-9.0);
                else if (!std::isnan(g.z[k])) grid(i + 1, j + 1) = Value(g.z[k]);
            }
        Notes notes;
        notes.status = [](const std::string& t) { SetStatusText(t); };
        double lo = 0, hi = 0;
        if (surf_interpolate2(grid, lo, hi, mask, &notes) < 0) {
            if (notes.failure) return *notes.failure;
            out.stopped = true;  // by Esc
            return StatusOk();
        }
        for (int i = 0; i < g.ny; ++i)
            for (int j = 0; j < g.nx; ++j) {
                const size_t k = g.at(i, j);
                const Value& v = grid(i + 1, j + 1);
                if (g.in[k] && !v.isEmpty()) g.z[k] = v.toDouble();
            }
    }
    // What the interpolation could not reach: rows out to the edge from the
    // columns it filled, then the caps above and below the outermost rows.
    CarryLines(g, true);
    CarryLines(g, false);
    CarryLines(g, true);
    double& zmin = out.zmin;
    double& zmax = out.zmax;
    bool any = false;
    for (size_t k = 0; k < cells; ++k) {
        if (!g.known(k)) continue;
        if (!any) zmin = zmax = g.z[k], any = true;
        zmin = std::min(zmin, g.z[k]);
        zmax = std::max(zmax, g.z[k]);
    }
    if (!any) return p.fail("No data in surface.");
    for (int i = 0; i < g.ny; ++i)
        for (int j = 0; j < g.nx; ++j) {
            const size_t k = g.at(i, j);
            if (g.known(k)) grid(i + 1, j + 1) = Value(g.z[k]);
        }
    return StatusOk();
}

Status DrawContour(Proc& p, cGraphic& chart, cLot& lot, const cWafer* wafer, const cField* field, double cellMm) {
    Surface* sp = chart.Container();
    if (!sp) return p.fail("A container for the plot was not specified.");
    Surface& s = *sp;
    Shape shape;
    shape.wafer = wafer != nullptr;

    p.chk = 1;
    SetStatusText("Contour Surface Calibration...");
    const FontSpec keepFont = s.Font;
    s.Font = chart.Font;
    const double th = s.TextHeight("Max/Min: ");
    // Room right for the key and its labels, below for the note.
    MapMargins margins;
    margins.top = th;
    margins.right = kKeyGap + kKeyWidth + 10 + s.TextWidth("-0000.000") + 10;
    margins.bottom = 2.5 * th;
    const std::string& title = chart.TitleObj.TitleString;
    double titleH = 0;
    if (!title.empty()) {
        s.Font = chart.TitleObj.Font;
        titleH = s.TextHeight(title);
        margins.top += titleH + 4;
    }
    s.Font = keepFont;
    MapPlacement at;
    if (shape.wafer) {
        at = PlaceWafer(chart, lot, s, margins);
        if (!(at.um2pixels > 0)) return DrawWafer(lot, s, at);
        shape.hx = shape.hy = lot.WaferSize / 2000.0;
    } else {
        if (!(lot.DieSizeX > 0) || !(lot.DieSizeY > 0)) return p.fail("The field has no size.");
        at = PlaceField(chart, lot, s, margins);
        if (!(at.um2pixels > 0)) return p.fail("The field has no place on the plot.");
        shape.hx = lot.DieSizeX / 2000.0;
        shape.hy = lot.DieSizeY / 2000.0;
    }

    p.chk = 2;
    const double pixelMm = 1 / (at.um2pixels * 1000);
    Contoured filled;
    if (Status st = FillContour(p, lot, wafer, field, shape,
                                cellMm > 0 ? cellMm : std::max(pixelMm, 2 * std::max(shape.hx, shape.hy) / kDefaultCellsAcross),
                                filled);
        !st || filled.stopped)
        return st;
    CellGrid& g = filled.g;
    Datam& grid = filled.grid;
    const double zmin = filled.zmin, zmax = filled.zmax;

    p.chk = 6;
    SetStatusText("Surface plot...");
    const double rx = shape.hx * 1000 * at.um2pixels, ry = shape.hy * 1000 * at.um2pixels;
    cBarCodeKey key;
    key.Container = &s;
    key.kFormat = kNoteFormat;
    key.kFont = chart.Font;
    key.LineColor = 0;
    key.PLotLeft = at.cx + rx + kKeyGap;
    key.PlotTop = at.cy - ry;
    key.PlotWidth = kKeyWidth;
    key.PlotHeight = 2 * ry;
    key.Zmax = zmax;
    key.Zmin = zmin;
    if (Status k = key.DrawKeyCode(); !k) return k;

    p.chk = 7;
    SetStatusText("Final contour graph setup....");

    p.chk = 8;
    // One filled box per run of cells of one colour along a row; edges are
    // clipped to the field's rectangle.
    std::vector<Color> rowColors(static_cast<size_t>(g.nx), -1);
    auto xpix = [&](int j) { return at.px(std::clamp(g.xEdge(j), -shape.hx, shape.hx) * 1000); };
    for (int i = 0; i < g.ny; ++i) {
        if (i % kStatusRows == 0) {
            SetStatusText("Plotting wafer row " + std::to_string(i + 1));
            if (CheckEscKey()) return StatusOk();
        }
        for (int j = 0; j < g.nx; ++j) {
            const size_t k = g.at(i, j);
            rowColors[static_cast<size_t>(j)] = g.known(k) ? ContourRampColor(g.z[k], zmax, zmin) : -1;
        }
        const double top = at.py(std::clamp(g.yEdge(i), -shape.hy, shape.hy) * 1000);
        const double bottom = at.py(std::clamp(g.yEdge(i + 1), -shape.hy, shape.hy) * 1000);
        for (int j = 0; j < g.nx;) {
            const Color c = rowColors[static_cast<size_t>(j)];
            int e = j + 1;
            while (e < g.nx && rowColors[static_cast<size_t>(e)] == c) ++e;
            if (c >= 0) s.Line(xpix(j), top, xpix(e), bottom, c, LineForm::FilledBox);
            j = e;
        }
    }

    p.chk = 9;
    if (shape.wafer) {
        if (Status w = DrawWafer(lot, s, at); !w) return w;
    } else {
        s.Line(at.px(-shape.hx * 1000), at.py(shape.hy * 1000), at.px(shape.hx * 1000), at.py(-shape.hy * 1000), 0,
               LineForm::Box);
    }
    cMessage note;
    note.Message = "Max/Min: " + Format(zmax, kNoteFormat) + "/" + Format(zmin, kNoteFormat);
    note.Font = chart.Font;
    note.XcenterLoc = at.cx;
    note.YcenterLoc = at.cy + ry + 1.2 * th;
    note.Draw(s);
    if (!title.empty()) {
        // Centred over the map, on the surface.
        s.Font = chart.TitleObj.Font;
        s.ForeColor = chart.ForeColor;
        s.CurrentX = std::max(2.0, at.cx - s.TextWidth(title) / 2);
        s.CurrentY = std::max(2.0, at.cy - ry - titleH - th);
        s.Print(title);
        s.Font = keepFont;
    }

    chart.DataGrid = std::move(grid);
    return StatusOk();
}

}  // namespace

Result<SurfaceGrid> GetWaferSurface(const cLot& lot, const cWafer& wafer, bool forceModel) {
    Proc p("cWafer(GetSurface): ");
    p.chk = 1;
    return MakeSurface(p, lot, WaferSites(lot, wafer), forceModel, Table::Always);
}

Result<SurfaceGrid> GetFieldSurface(const cLot& lot, const cField& field, bool forceModel) {
    Proc p("cField(GetSurface): ");
    p.chk = 1;
    return MakeSurface(p, lot, FieldSites(lot, field), forceModel, Table::Always);
}

Result<Datam> GetWaferGrid(const cLot& lot, const cWafer& wafer, double cellMm) {
    Proc p("cWafer(GetSurface): ");
    if (!(lot.WaferSize > 0)) return p.fail("The lot has no wafer size.");
    Shape shape;
    shape.hx = shape.hy = lot.WaferSize / 2000.0;
    Contoured filled;
    if (Status st = FillContour(p, lot, &wafer, nullptr, shape, cellMm > 0 ? cellMm : lot.WaferSize / 1000.0 / 40, filled); !st)
        return st.failure();
    return std::move(filled.grid);
}

Result<Datam> GetFieldGrid(const cLot& lot, const cField& field, double cellMm) {
    Proc p("cField(GetSurface): ");
    if (!(lot.DieSizeX > 0) || !(lot.DieSizeY > 0)) return p.fail("The field has no size.");
    Shape shape;
    shape.wafer = false;
    shape.hx = lot.DieSizeX / 2000.0;
    shape.hy = lot.DieSizeY / 2000.0;
    Contoured filled;
    const double cell = cellMm > 0 ? cellMm : 2 * std::max(shape.hx, shape.hy) / 24;
    if (Status st = FillContour(p, lot, nullptr, &field, shape, cell, filled); !st) return st.failure();
    if (filled.stopped) return p.fail("Stopped.");
    return std::move(filled.grid);
}

Status DrawWaferContour(cGraphic& chart, cLot& lot, const cWafer& wafer, double cellMm) {
    Proc p("cWafer(DrawContour): ");
    return DrawContour(p, chart, lot, &wafer, nullptr, cellMm);
}

Status DrawFieldContour(cGraphic& chart, cLot& lot, const cField& field, double cellMm) {
    Proc p("Graphics(DrawFieldContour): ");
    return DrawContour(p, chart, lot, nullptr, &field, cellMm);
}

}  // namespace zorv
