// Flat tables of a lot: every table is in display units (stored / 1000) and
// skips what is culled, unless said otherwise. The missing mark -999.9 is
// written as it is, not scaled, so that both of its tests still hold.
#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <set>
#include <unordered_set>

#include "base/proc.h"
#include "base/report.h"
#include "lot/lot.h"
#include "tree_helpers.h"

namespace zorv {

namespace {

inline Value disp(float v) {
    if (v == kMissingValue) return Value(double(kMissingValue));
    return Value(double(v) / 1000.0);
}
inline Value mm(float um) { return Value(double(um) / 1000.0); }

const char* dataKindShort(int dt) {
    switch (dt % 3) {
        case 1: return "FittedData";
        case 2: return "Residuals";
        default: return "RawData";
    }
}

struct Area {
    bool on = false;
    double x1 = 0, y1 = 0, x2 = 0, y2 = 0;
    bool inside(double x, double y) const {
        return !on || (x >= std::min(x1, x2) && x <= std::max(x1, x2) && y >= std::min(y1, y2) &&
                       y <= std::max(y1, y2));
    }
};

// Counters can lag behind the tree (a caller that edits it by hand): the
// table grows rather than drop rows.
inline void ensureRow(Datam& d, int r) {
    if (r > d.rowUb()) d.redimPreserve(std::max(r, 2 * d.rowUb() + 16), d.colUb());
}

// The wafer and field keys of the rows, made once per wafer and field rather
// than once per point.
struct LevelKeys {
    const cWafer* w = nullptr;
    const cField* f = nullptr;
    Value wafer, field;
    void follow(const cWafer& nw, const cField& nf) {
        if (&nw != w) {
            w = &nw;
            wafer = Value(nw.KeyName);
        }
        if (&nf != f) {
            f = &nf;
            field = Value(nf.NumberKey);
        }
    }
};

Area readArea(const Datam* area, double scale) {
    Area a;
    if (!area || !area->isArray() || area->dims() != 2) return a;
    const int r = std::max(1, area->rowLb());
    const int c = area->colLb() == 0 ? 1 : area->colLb();
    a.x1 = area->get(r, c).toDouble() * scale;
    a.y1 = area->get(r, c + 1).toDouble() * scale;
    a.x2 = area->get(r, c + 2).toDouble() * scale;
    a.y2 = area->get(r, c + 3).toDouble() * scale;
    a.on = !(a.x1 == 0 && a.y1 == 0 && a.x2 == 0 && a.y2 == 0);
    return a;
}

}  // namespace

// ---------------------------------------------------------------- GetData

Datam cLot::GetData(bool byField, bool byWaferSites, bool withExposure) {
    Proc p("cLot(GetData): ");
    (void)byField;
    const long n = TotalPoints();
    if (n < 1) {
        p.msg = "No data points in lot.";
        p.report();
        return Datam();
    }
    p.chk = 1;
    Datam d(static_cast<int>(n), 20, 0, 0);
    d(0, 0) = Value(dataKindShort(PLotDataType));
    d(0, 1) = Value("Wafer");
    d(0, 2) = Value("Site");
    d(0, 3) = Value("Diex");
    d(0, 4) = Value("Diey");
    d(0, 5) = Value(ValueV_Name);
    d(0, 6) = Value(ValueH_Name);
    d(0, 7) = Value(valueZ_Name);
    int col = 8;
    if (LineWidthType) {
        d(0, 8) = Value(Slope_Name);
        d(0, 9) = Value(Pitch_Name);
        d(0, 10) = Value(ValueA_Name);
        d(0, 11) = Value(ValueB_Name);
        d(0, 12) = Value(ValueC_Name);
        col = 13;
    }
    const int famCol = col;
    d(0, famCol) = Value("Family");
    const int expCol = famCol + 1;
    if (withExposure) {
        const char* h[] = {"Focus", "Dose", "NA", "PCinner", "PCouter", "Scan"};
        for (int i = 0; i < 6; ++i) d(0, expCol + i) = Value(h[i]);
    }
    const int dt = PLotDataType % 3;
    int r = 0;
    auto row = [&](const cWafer& w, const Value& wkey, const cField& f, cSite& s, const cPoint& pt, bool waferRoad) {
        ++r;
        ensureRow(d, r);
        d(r, 1) = wkey;
        d(r, 2) = Value(int32_t(s.NumberKey()));
        if (waferRoad) {
            d(r, 3) = Value(Round(s.LocationXabs / DieSizeX, 0));
            d(r, 4) = Value(Round(s.LocationYabs / DieSizeY, 0));
        } else {
            d(r, 3) = Value(double(f.DieX));
            d(r, 4) = Value(double(f.DieY));
        }
        for (int k = 1; k <= (LineWidthType ? 8 : 3); ++k) d(r, 4 + k) = disp(*pt.FeatureSlot(k, dt));
        d(r, famCol) = Value(int32_t(s.Family()));
        if (withExposure) {
            d(r, expCol) = Value(double(f.Focus));
            d(r, expCol + 1) = Value(double(f.Dose));
            d(r, expCol + 2) = Value(double(f.NA));
            d(r, expCol + 3) = Value(double(f.PCinner));
            d(r, expCol + 4) = Value(double(f.PCouter));
            d(r, expCol + 5) = Value(int32_t(f.Direction));
        }
        (void)w;
    };
    // By hand, not forEachLive: each wafer picks its road (SitesWafer or fields).
    for (cWafer* w : wafers_) {
        if (w->cull()) continue;
        const Value wkey(w->KeyName);
        if (byWaferSites && w->SitesWafer().Count() > 0) {
            for (cSite* s : w->SitesWafer()) {
                if (s->cull() || !s->parent() || s->parent()->cull()) continue;
                for (cPoint* pt : s->Points())
                    if (!pt->cull()) row(*w, wkey, *s->parent(), *s, *pt, true);
            }
            continue;
        }
        for (cField* f : w->Fields()) {
            if (f->cull()) continue;
            for (cSite* s : f->sites()) {
                if (s->cull()) continue;
                for (cPoint* pt : s->Points())
                    if (!pt->cull()) row(*w, wkey, *f, *s, *pt, byWaferSites);
            }
        }
    }
    d.redimPreserve(r, 20);
    return d;
}

// ---------------------------------------------------------------- GetDataFull

Datam cLot::GetDataFull(const Datam* area, bool absolute) {
    Proc p("Clot(GetDataFull): ");
    const long n = TotalPoints();
    if (n < 1) {
        p.msg = "No data points in lot.";
        p.report();
        return Datam();
    }
    Datam d(static_cast<int>(2 * n), 17, 0, 0);
    d(0, 0) = Value(GetPlotFeatureUnits());
    const char* h[] = {"Wafer", "Field", "Site", "Xloc (mm)", "Yloc", "DieX", "DieY"};
    for (int i = 0; i < 7; ++i) d(0, i + 1) = Value(h[i]);
    if (absolute) {
        d(0, 6) = Value("Xabsolute (mm)");
        d(0, 7) = Value("Yabsolute");
    }
    d(0, 8) = Value(ValueV_Name);
    d(0, 9) = Value(ValueH_Name);
    d(0, 10) = Value(valueZ_Name);
    const char* e[] = {"Focus", "Dose", "NA", "PCi", "PCo", "Scan", "Family"};
    for (int i = 0; i < 7; ++i) d(0, 11 + i) = Value(e[i]);
    const Area a = readArea(area, 1.0);
    const int dt = PLotDataType % 3;
    int r = 0;
    LevelKeys keys;
    forEachLive([&](const cWafer& w, const cField& f, const cSite& s, const cPoint& pt) {
        if (!a.inside(s.LocationXabs + wcenx, s.LocationYabs + wceny)) return;
        keys.follow(w, f);
        ++r;
        ensureRow(d, r);
        d(r, 1) = keys.wafer;
        d(r, 2) = keys.field;
        d(r, 3) = Value(int32_t(s.NumberKey()));
        d(r, 4) = mm(s.LocationX);
        d(r, 5) = mm(s.LocationY);
        if (absolute) {
            d(r, 6) = mm(s.LocationXabs);
            d(r, 7) = mm(s.LocationYabs);
        } else {
            d(r, 6) = Value(double(f.DieX));
            d(r, 7) = Value(double(f.DieY));
        }
        d(r, 8) = disp(*pt.FeatureSlot(1, dt));
        d(r, 9) = disp(*pt.FeatureSlot(2, dt));
        d(r, 10) = disp(*pt.FeatureSlot(3, dt));
        d(r, 11) = Value(double(f.Focus));
        d(r, 12) = Value(double(f.Dose));
        d(r, 13) = Value(double(f.NA));
        d(r, 14) = Value(double(f.PCinner));
        d(r, 15) = Value(double(f.PCouter));
        d(r, 16) = Value(int32_t(f.Direction));
        d(r, 17) = Value(int32_t(s.Family()));
    });
    d.redimPreserve(r, 17);
    return d;
}

// ---------------------------------------------------------------- GetDataMatrix

Datam cLot::GetDataMatrix(int locationForm, bool withExposure, bool withSerial, const Datam* area,
                          double screenScale) {
    Proc p("cLot(GetDataMatrix): ");
    const long n = TotalPoints();
    if (n < 1) {
        p.msg = "No data points in lot.";
        p.report();
        return Datam();
    }
    if (wcenx == 0 && wceny == 0) {
        if (PlotWidth > 0 || PlotHeight > 0) {
            wcenx = PLotLeft + PlotWidth / 2.0;
            wceny = PlotTop + PlotHeight / 2.0;
        } else if (ContainerWidth > 0 || ContainerHeight > 0) {
            wcenx = ContainerWidth / 2.0;
            wceny = ContainerHeight / 2.0;
        }
    }
    // A lot with all features has Family at 14 and the exposure at 15 to 19;
    // a vector lot (V, H, Z in 6 to 8) has the exposure at 9 to 13, and
    // Family follows it.
    const int nFeat = LineWidthType ? 8 : 3;
    int famCol, expCol;
    if (LineWidthType) {
        famCol = 6 + nFeat;
        expCol = famCol + 1;
    } else {
        expCol = 6 + nFeat;
        famCol = withExposure ? expCol + 5 : expCol;
    }
    const int last0 = std::max(famCol, withExposure ? expCol + 4 : 0);
    int last = last0;
    const int serialCol = last0 + 1;
    if (withSerial) last = serialCol;
    Datam d(static_cast<int>(n), last, 0, 0);
    d(0, 0) = Value(GetPlotFeatureTypeName());
    d(0, 1) = Value("Wafer");
    d(0, 2) = Value("Field");
    d(0, 3) = Value("Site");
    static const char* loc[4][2] = {{"Xloc (mm)", "Yloc"}, {"Radius (mm)", "Theta"},
                                    {"Xabsolute (mm)", "Yabsolute"}, {"Radius Abs (mm)", "Theta Abs"}};
    const int lf = std::clamp(locationForm, 0, 3);
    d(0, 4) = Value(loc[lf][0]);
    d(0, 5) = Value(loc[lf][1]);
    for (int k = 1; k <= nFeat; ++k) d(0, 5 + k) = Value(GetPlotFeatureName(k));
    d(0, famCol) = Value("Family");
    if (withExposure) {
        const char* e[] = {"Focus", "Dose", "NA", "PCi", "PCo"};
        for (int i = 0; i < 5; ++i) d(0, expCol + i) = Value(e[i]);
    }
    if (withSerial) d(0, serialCol) = Value("Serial");

    double scale = 1.0;
    if (area && area->isArray() && screenScale > 0) {
        Area raw = readArea(area, 1.0);
        const double big = 2 * std::max(std::fabs(wcenx), std::fabs(wceny));
        if (raw.on && std::max({std::fabs(raw.x1), std::fabs(raw.x2), std::fabs(raw.y1), std::fabs(raw.y2)}) > big)
            scale = screenScale;
    }
    const Area a = readArea(area, scale);
    const int dt = PLotDataType % 3;
    const size_t stride = d.stride();
    Value* cells = d.data();
    int r = 0;
    const int cap = static_cast<int>(n);
    LevelKeys keys;
    forEachLive([&](const cWafer& w, const cField& f, const cSite& s, const cPoint& pt) {
        if (a.on && !a.inside(s.LocationXabs + wcenx, s.LocationYabs + wceny)) return;
        keys.follow(w, f);
        ++r;
        if (r > d.rowUb()) {
            ensureRow(d, r);
            cells = d.data();
        }
        Value* row = cells + static_cast<size_t>(r) * stride;
        row[1] = keys.wafer;
        row[2] = keys.field;
        row[3] = Value(int32_t(s.NumberKey()));
        switch (lf) {
            case 0: row[4] = mm(s.LocationX); row[5] = mm(s.LocationY); break;
            case 1: row[4] = mm(s.LocationR); row[5] = Value(double(s.LocationTheta)); break;
            case 2: row[4] = mm(s.LocationXabs); row[5] = mm(s.LocationYabs); break;
            default: row[4] = mm(s.LocationRabs); row[5] = Value(double(s.LocationThetaAbs)); break;
        }
        for (int k = 1; k <= nFeat; ++k) row[5 + k] = disp(*pt.FeatureSlot(k, dt));
        row[famCol] = Value(int32_t(s.Family()));
        if (withExposure) {
            row[expCol] = Value(double(f.Focus));
            row[expCol + 1] = Value(double(f.Dose));
            row[expCol + 2] = Value(double(f.NA));
            row[expCol + 3] = Value(double(f.PCinner));
            row[expCol + 4] = Value(double(f.PCouter));
        }
        if (withSerial) row[serialCol] = Value(s.SerialNumber());
    });
    if (r != cap) d.redimPreserve(r, last);
    return d;
}

// ---------------------------------------------------------------- GetPlotFeatureData

Datam cLot::GetPlotFeatureData(long& count, std::string& name) {
    const bool vec = plotFeature_ == 0;
    const int cols = vec ? 3 : 1;
    name = PlotFeatureName.empty() ? GetPlotFeatureName(plotFeature_) : PlotFeatureName;
    long n = TotalPoints();
    Datam d(static_cast<int>(std::max<long>(n, 0)), cols, 0, 0);
    if (vec) {
        d(0, 1) = Value("Xreg");
        d(0, 2) = Value("Yreg");
        d(0, 3) = Value("Mean");
    }
    // the first column goes under the feature's name, the vector's too
    d(0, 1) = Value(name);
    int r = 0;
    forEachLive([&](cWafer&, cField&, cSite&, cPoint& pt) {
        float v1 = kMissingValue, v2 = kMissingValue, v3 = kMissingValue;
        pt.GetPlotFeatureValue(v1, v2, v3, ePlotFeatureLot);
        ++r;
        if (r > d.rowUb()) d.redimPreserve(d.rowUb() + 10, cols);
        d(r, 1) = disp(v1);
        if (vec) {
            d(r, 2) = disp(v2);
            d(r, 3) = disp(v3);
        }
    });
    d.redimPreserve(r, cols);
    count = r;
    return d;
}

// ---------------------------------------------------------------- GetUniqueExposures

Datam cLot::GetUniqueExposures(long& count, Datam& focusTable) const {
    int nf = 0;
    for (cWafer* w : wafers_) nf += w->Fields().Count();
    Datam ex(std::max(nf, 1), 4, 0, 0);
    ex(0, 1) = Value("Dose");
    ex(0, 2) = Value("NA");
    ex(0, 3) = Value("PCinner");
    ex(0, 4) = Value("PCouter");
    focusTable = Datam(std::max(nf, 1), 1, 0, 0);
    focusTable(0, 1) = Value("Focus");
    std::vector<std::array<double, 4>> rows;
    std::vector<double> foci;
    // By hand, not forEachLive: a field is one row however many points it holds.
    for (cWafer* w : wafers_) {
        if (w->cull()) continue;
        for (cField* f : w->Fields()) {
            if (f->cull()) continue;
            const std::array<double, 4> v{Round(f->Dose, 3), Round(f->NA, 3), Round(f->PCinner, 3),
                                          Round(f->PCouter, 3)};
            if (std::find(rows.begin(), rows.end(), v) == rows.end()) {
                rows.push_back(v);
                const int r = static_cast<int>(rows.size());
                for (int c = 0; c < 4; ++c) ex(r, c + 1) = Value(v[c]);
            }
            const double fo = Round(f->Focus, 3);
            if (std::find(foci.begin(), foci.end(), fo) == foci.end()) {
                foci.push_back(fo);
                focusTable(static_cast<int>(foci.size()), 1) = Value(fo);
            }
        }
    }
    count = static_cast<long>(rows.size());
    ex.redimPreserve(static_cast<int>(rows.size()), 4);
    focusTable.redimPreserve(static_cast<int>(foci.size()), 1);
    return ex;
}

// ---------------------------------------------------------------- GetCenterSite

long cLot::GetCenterSite(Datam& centerColumn, Datam& centerRow, bool onCentreLines, float& maxX, float& maxY) const {
    struct Row {
        long key;
        float x, y;
    };
    std::vector<Row> col, row;
    double rmin = DieSizeY;
    const cSite* centre = nullptr;
    maxX = DieSizeX;
    maxY = DieSizeY;
    forEachLiveSite([&](cWafer&, cField&, cSite& s) {
        if (s.LocationR < rmin) {
            rmin = s.LocationR;
            centre = &s;
        }
        maxX = std::max(maxX, s.LocationX);
        maxY = std::max(maxY, s.LocationY);
    });
    // By hand: it skips empty fields and stops a field's walk early.
    long key = centre ? centre->NumberKey() : -1;
    std::unordered_set<long> inCol, inRow;
    std::set<double> xs, ys;
    const double cx = centre ? Round(centre->LocationX, 4) : 0;
    const double cy = centre ? Round(centre->LocationY, 4) : 0;
    for (cWafer* w : wafers_) {
        if (w->cull()) continue;
        for (cField* f : w->Fields()) {
            if (f->cull() || f->TotalPointsCount <= 0) continue;
            for (cSite* s : f->sites()) {
                if (s->cull()) continue;
                if (onCentreLines) {
                    if (!centre) break;
                    if (Round(s->LocationY, 3) == cy && inRow.insert(s->NumberKey()).second)
                        row.push_back({s->NumberKey(), s->LocationX, s->LocationY});
                    if (Round(s->LocationX, 3) == cx && inCol.insert(s->NumberKey()).second)
                        col.push_back({s->NumberKey(), s->LocationX, s->LocationY});
                } else {
                    if (xs.insert(Round(s->LocationX, 4)).second)
                        row.push_back({s->NumberKey(), s->LocationX, s->LocationY});
                    if (ys.insert(Round(s->LocationY, 4)).second)
                        col.push_back({s->NumberKey(), s->LocationX, s->LocationY});
                }
            }
        }
    }
    auto fill = [](Datam& t, const std::vector<Row>& v) {
        t = Datam(static_cast<int>(v.size()), 3, 0, 0);
        t(0, 1) = Value("Site");
        t(0, 2) = Value("LocationX");
        t(0, 3) = Value("LocationY");
        for (size_t i = 0; i < v.size(); ++i) {
            t(static_cast<int>(i) + 1, 1) = Value(int32_t(v[i].key));
            t(static_cast<int>(i) + 1, 2) = Value(double(v[i].x));
            t(static_cast<int>(i) + 1, 3) = Value(double(v[i].y));
        }
    };
    fill(centerColumn, col);
    fill(centerRow, row);
    return key;
}

// ---------------------------------------------------------------- GetFEMmatrix

Datam cLot::GetFEMmatrix(int feature, double& maxValue, double& minValue, double& valueStep, Datam& table) {
    Proc p("cLot(GetFEMmatrix): ");
    const int savedFeature = plotFeature_;
    plotFeature_ = feature;
    struct Row {
        std::string field;
        double focus, dose, value;
    };
    std::vector<Row> rows;
    maxValue = -9999;
    minValue = 9999;
    double fmax = -9999, fmin = 9999, dmax = -9999, dmin = 9999;
    valueStep = 9999;
    double fstep = 9999, dstep = 9999;
    for (cWafer* w : wafers_) {
        for (cField* f : w->Fields()) {
            const double fo = Round(f->Focus, 3), dose = Round(f->Dose, 3);
            bool taken = false;
            for (const Row& r : rows)
                if (r.focus == fo && std::fabs(r.dose - dose) <= 0.001) { taken = true; break; }
            if (taken) continue;
            cSite* s = f->sites().Item(1);
            cPoint* pt = s ? s->Points().Item(1) : nullptr;
            if (!pt) continue;
            float v1 = 0, v2 = 0, v3 = 0;
            pt->GetPlotFeatureValue(v1, v2, v3, ePlotFeatureLot);
            const double v = Round((feature == 0 ? v3 : v1) / 1000.0, 5);
            for (const Row& r : rows) {
                auto step = [](double& st, double a, double b) {
                    const double dd = std::fabs(a - b);
                    if (dd > 0 && dd < st) st = dd;
                };
                step(valueStep, r.value, v);
                step(fstep, r.focus, fo);
                step(dstep, r.dose, dose);
            }
            rows.push_back({f->NumberKey, fo, dose, v});
            maxValue = std::max(maxValue, v);
            minValue = std::min(minValue, v);
            fmax = std::max(fmax, fo);
            fmin = std::min(fmin, fo);
            dmax = std::max(dmax, dose);
            dmin = std::min(dmin, dose);
        }
    }
    plotFeature_ = savedFeature;
    const std::string fname = GetPlotFeatureName(feature);
    std::stable_sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
        return a.focus != b.focus ? a.focus < b.focus : a.dose < b.dose;
    });
    table = Datam(static_cast<int>(rows.size()), 3, 0, 0);
    table(0, 0) = Value("FieldID");
    table(0, 1) = Value("Focus");
    table(0, 2) = Value("Dose");
    table(0, 3) = Value(fname);
    for (size_t i = 0; i < rows.size(); ++i) {
        const int r = static_cast<int>(i) + 1;
        table(r, 0) = Value(rows[i].field);
        table(r, 1) = Value(NumberToText(Round(rows[i].focus, 3)));
        table(r, 2) = Value(NumberToText(Round(rows[i].dose, 3)));
        table(r, 3) = Value(NumberToText(Round(rows[i].value, 5)));
    }
    if (rows.empty()) {
        p.msg = "No fields with data for the focus exposure matrix.";
        p.report();
        return Datam();
    }
    p.chk = 5;
    double fs = Round(fstep, 3), ds = Round(dstep, 3);
    if (fs <= 0) fs = fstep;
    if (ds <= 0) ds = dstep;
    const long nr = std::lround((fmax - fmin) / fs) + 1;
    const long nc = std::lround((dmax - dmin) / ds) + 1;
    if (nr < 1 || nc < 1 || nr * nc > 4000000) {
        p.msg = "Focus and dose steps give a surface of " + std::to_string(nr) + " by " + std::to_string(nc) + ".";
        p.report();
        return Datam();
    }
    Datam surf(static_cast<int>(nr), static_cast<int>(nc), 0, 0);
    for (int i = 1; i <= nr; ++i) surf(i, 0) = Value(Round(fmin + (i - 1) * fs, 3));
    for (int j = 1; j <= nc; ++j) surf(0, j) = Value(Round(dmin + (j - 1) * ds, 3));
    SetStatusText("Updating surface: " + fname);
    // Nearest axis entry; the axes are arithmetic, so the index follows from
    // the step, and the neighbours settle the rounding.
    auto nearest = [](double v, double lo, double st, long n) {
        long i = std::lround((v - lo) / st) + 1;
        return static_cast<int>(std::clamp(i, 1L, n));
    };
    for (const Row& r : rows) {
        const int ri = nearest(r.focus, fmin, fs, nr);
        const int ci = nearest(r.dose, dmin, ds, nc);
        surf(ri, ci) = Value(Round(r.value, 4));
    }
    return surf;
}

// ---------------------------------------------------------------- GetFieldSurface

Datam cLot::GetFieldSurface(const cField* field) {
    Proc p("cLot(GetFieldSurface): ");
    if (!field) {
        p.msg = "Field object is empty";
        p.report();
        return Datam();
    }
    std::map<double, int> xs, ys;
    for (const cSite* s : field->sites()) {
        if (s->cull()) continue;
        xs.emplace(Round(s->LocationX, 3), 0);
        ys.emplace(Round(s->LocationY, 3), 0);
    }
    if (xs.empty()) {
        p.msg = "No sites in field " + field->NumberKey + ".";
        p.report();
        return Datam();
    }
    int i = 0;
    for (auto& [k, v] : xs) v = ++i;
    i = 0;
    for (auto& [k, v] : ys) v = ++i;
    Datam d(static_cast<int>(ys.size()), static_cast<int>(xs.size()), 0, 0);
    d(0, 0) = Value(GetPlotFeatureName(plotFeature_));
    for (auto& [k, v] : xs) d(0, v) = Value(k / 1000.0);
    for (auto& [k, v] : ys) d(v, 0) = Value(k / 1000.0);
    for (const cSite* s : field->sites()) {
        if (s->cull()) continue;
        for (cPoint* pt : s->Points()) {
            if (pt->cull()) continue;
            float v1 = 0, v2 = 0, v3 = 0;
            const float v = pt->GetPlotFeatureValue(v1, v2, v3, ePlotFeatureLot);
            if (v != kMissingValue)
                d(ys[Round(s->LocationY, 3)], xs[Round(s->LocationX, 3)]) = Value(double(v) / 1000.0);
            break;
        }
    }
    return d;
}

}  // namespace zorv
