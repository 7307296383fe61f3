// Summaries of a lot and of a table.
//
// Table layouts (row 0 headers, column 0 labels; numbers are doubles in
// display units, counts whole numbers; the feature columns are the features
// of the lot matrix, columns "Yloc" + 1 .. "Family" - 1, that hold a value in
// the data kind shown, in matrix order):
//
// CalcRawStats, k features, columns 0 .. max(k + 1, 4):
//   row 0           lot name | feature names | "Mean" (row-wise mean column)
//   "Count"         column 1: live points
//   "Wafers", "Fields", "Sites"   column 1: those holding a live point
//   "IFD"           each feature column: its intra-field difference
//   "IFDxy_max"     column 1: the larger of the V and H IFDs
//   "Raw Astig"     vector lot: column 1 "H-Vmeans", column 2 mean(H) - mean(V)
//   "Astig(YXmax)"  vector lot: column 1 "Astig-Max", column 2 the extreme
//                   of H - V with the larger magnitude; with field fit values
//                   column 3 "Astigmatism", column 4 ValueH_Offset - ValueV_Offset
//   "________", "__<kind>__"
//   "Mean" .. "Mean+3Sigma"   feature columns and the "Mean" column
//
// CalcIFDstats, columns 0 .. max(k, 4):
//   row 0           kind title | feature names
//   "Wafers"        column 1; "Sites/Die" column 1: most live sites in a field;
//   "#Dice"         column 1: live fields
//   "IFD", "IFDxy_max", "Raw Astig", "Astig(YXmax)"   as in the raw table
//                   (no "Astigmatism" word there: it has its own row)
//   "________", "_Model__", "__Wafer__"   labels only
//   "IFDresid(um)", "StDEVresid(um)"      each feature column, residual values
//   "__Field__"     label only
//   "BF(Fitted)", "Curv(nm/cm2)"  the field fit offset and curvature of V, H, Z
//                   in their columns, where the lot holds field fit values
//   "X Tilt(urad)", "Y Tilt(urad)", "Tilt(urad)"   the same, ASML data only
//                   ("ASML" in the metrology or exposure tool name)
//   "Astigmatism"   vector lot with field fit values: column 1 H less V offset
//   "__Stats__", then "Mean" .. "Mean+3Sigma" in the feature columns
//
// CalcFeatureStats, one feature (the lot's PlotFeature when it holds data,
// else the first that does), columns 0 .. 4:
//   row 0           feature name | "abs(Min/Max)" | " Mean" | " (Max)" | " (IFD)"
//   "Points"        column 1 live points; "Time-Samples" most live points on
//                   one site; "Sensors" distinct site keys; "Wafers", "Fields",
//                   "Sites" as in the raw table
//   "________"
//   "___Wafer___"   the four columns over the wafer means of the feature
//   "___Model___"   over its fitted values
//   " ___Field___"  over the field means
//   "__<kind>__"    over the values of the kind shown
//   "IFDresid(um)"  column 4: the IFD of its residuals
//   A row whose values are all missing stays empty.
//
// Statistics rows are those of the toolkit's summary (mat_rcstat): "Median" is
// its mid-range, "Mean+3Sigma" is |Mean| + |3 StDev|, and "StdErr" is the
// standard deviation, as the toolkit's "STDERR" statistic is. IFD is the
// mean over fields of each field's range (a field with one value has range
// 0); fields without a value do not count.
//
// CoVariance: each pair over the points holding both features, about the
// means of those points (n - 1); a pair with fewer than two such points stays
// empty.
//
// CalcStatistics takes "Mean+3Sigma" from the summary's numbers before they
// are formatted, so the row does not carry the rounding of the other two.
//
// The lot statistics do not build the lot matrix: one walk of the tree gives
// the same numbers (each value read as the matrix shows it, divided by 1000,
// and as the toolkit reads a cell, as a 32-bit float; -999.9 skipped; sums in
// the matrix's row order; variance rounded to 10 decimals) in a tenth of the
// time, without the matrix's 16 bytes a cell.
#include "stats/lot_stats.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "base/format.h"
#include "base/marks.h"
#include "base/report.h"
#include "base/text.h"
#include "numerics/matrix.h"

namespace zorv {

namespace {

constexpr const char* kNoTable = "A table of data for analysis must be given.";
constexpr const char* kNoRows = "Zero (0) rows available for analysis. Please check selections.";
constexpr const char* kNoData = "No data.";

constexpr const char* kSummaryRows[] = {"Count",   "Mean",    "Median", "SEM",        "StDev",
                                        "Maximum", "Minimum", "Range",  "Mean+3Sigma"};
constexpr const char* kStatRows[] = {"Mean",    "Median",  "SEM",   "StdErr",
                                     "Maximum", "Minimum", "Range", "Mean+3Sigma"};

// Running sums of one column, kept as the toolkit keeps them.
using Moments = RcMoments;

// A summary row of a column by its label; false for a label it does not know
// or a column without values.
bool StatByLabel(const Moments& m, std::string_view label, double& out) {
    if (m.n == 0) return false;
    const RcStats st = RcFinish(m);
    if (label == "Count")
        out = st.n;
    else if (label == "Mean")
        out = st.mean;
    else if (label == "Median")
        out = (st.mx + st.mn) / 2;
    else if (label == "SEM")
        out = st.sem;
    else if (label == "StDev" || label == "StdErr")
        out = st.sd;
    else if (label == "Maximum")
        out = st.mx;
    else if (label == "Minimum")
        out = st.mn;
    else if (label == "Range")
        out = st.range;
    else if (label == "Mean+3Sigma")
        out = std::fabs(st.mean) + std::fabs(3 * st.sd);
    else
        return false;
    return true;
}

// A stored value as the lot matrix shows it (display units) and the toolkit
// reads it back (a 32-bit float); false for the missing mark.
inline bool ReadCell(float stored, double& x) {
    if (stored == kMissingValue) return false;
    const float f = static_cast<float>(static_cast<double>(stored) / 1000.0);
    if (f == kMissingValue) return false;
    x = f;
    return true;
}

// One feature of one data kind: all its values and its spread in each field.
struct Spread {
    Moments all;
    double fMin = 0, fMax = 0;
    bool inField = false;
    double ifdSum = 0;
    long ifdFields = 0;
    void add(double x) {
        all.add(x);
        if (!inField) {
            fMin = fMax = x;
            inField = true;
        } else {
            fMin = std::min(fMin, x);
            fMax = std::max(fMax, x);
        }
    }
    void closeField() {
        if (!inField) return;
        ifdSum += fMax - fMin;
        ++ifdFields;
        inField = false;
    }
    bool hasIfd() const { return ifdFields > 0; }
    double ifd() const { return ifdSum / static_cast<double>(ifdFields); }
};

// Means of one feature per wafer and per field, and their spread.
struct LevelMeans {
    double wSum = 0, fSum = 0;
    long wN = 0, fN = 0;
    Moments wafers, fields;
    void add(double x) {
        wSum += x;
        ++wN;
        fSum += x;
        ++fN;
    }
    void closeField() {
        if (fN) fields.add(fSum / static_cast<double>(fN));
        fSum = 0;
        fN = 0;
    }
    void closeWafer() {
        if (wN) wafers.add(wSum / static_cast<double>(wN));
        wSum = 0;
        wN = 0;
    }
};

constexpr int kFeatureSlots = 10;  // features 1..9

// What one walk of the live tree gathers.
struct LotScan {
    int nFeat = 0;              // features 1..nFeat of the lot matrix
    bool astigFeature = false;  // feature 9 as well (feature statistics)
    int shown = 0;              // the data kind shown
    bool kinds[3] = {};         // data kinds walked
    bool levels = false;        // wafer and field means, site keys
    Spread sp[3][kFeatureSlots];
    LevelMeans lm[kFeatureSlots];
    Moments rowMean;  // the row-wise mean column, shown kind
    Moments astig;    // H - V of each point, shown kind
    long points = 0, wafers = 0, fields = 0, sites = 0, mostSitesInField = 0, mostPointsOnSite = 0;
    std::vector<int32_t> siteKeys;

    void closeField() {
        for (int k = 0; k < 3; ++k)
            if (kinds[k])
                for (Spread& s : sp[k]) s.closeField();
        if (levels)
            for (LevelMeans& m : lm) m.closeField();
    }
    void closeWafer() {
        if (levels)
            for (LevelMeans& m : lm) m.closeWafer();
    }

    void run(const cLot& lot) {
        const cWafer* curW = nullptr;
        const cField* curF = nullptr;
        long sitesInField = 0;
        const bool vector = !lot.LineWidthType;
        lot.forEachLiveSite([&](cWafer& w, cField& f, cSite& s) {
            long here = 0;
            for (const cPoint* pt : s.Points()) {
                if (pt->cull()) continue;
                if (here == 0) {
                    if (&f != curF) {
                        closeField();
                        if (&w != curW) {
                            closeWafer();
                            curW = &w;
                            ++wafers;
                        }
                        curF = &f;
                        ++fields;
                        sitesInField = 0;
                    }
                    ++sites;
                    mostSitesInField = std::max(mostSitesInField, ++sitesInField);
                    if (levels) siteKeys.push_back(s.NumberKey());
                }
                ++here;
                ++points;
                double sum = 0, x = 0, v = 0, h = 0;
                int cnt = 0;
                bool hasV = false, hasH = false;
                for (int k = 1; k <= nFeat; ++k) {
                    if (!ReadCell(*pt->FeatureSlot(k, shown), x)) continue;
                    sp[shown][k].add(x);
                    if (levels) lm[k].add(x);
                    sum += x;
                    ++cnt;
                    if (k == 1) {
                        v = x;
                        hasV = true;
                    } else if (k == 2) {
                        h = x;
                        hasH = true;
                    }
                }
                if (cnt) rowMean.add(static_cast<float>(sum / cnt));
                if (vector && hasV && hasH) astig.add(h - v);
                if (astigFeature && ReadCell(*pt->FeatureSlot(9, shown), x)) {
                    sp[shown][9].add(x);
                    if (levels) lm[9].add(x);
                }
                for (int kind = 0; kind < 3; ++kind) {
                    if (kind == shown || !kinds[kind]) continue;
                    for (int k = 1; k <= nFeat; ++k)
                        if (ReadCell(*pt->FeatureSlot(k, kind), x)) sp[kind][k].add(x);
                    if (astigFeature && ReadCell(*pt->FeatureSlot(9, kind), x)) sp[kind][9].add(x);
                }
            }
            mostPointsOnSite = std::max(mostPointsOnSite, here);
        });
        closeField();
        closeWafer();
    }

    // Features of the lot matrix holding a value in the shown kind.
    std::vector<int> columns() const {
        std::vector<int> c;
        for (int k = 1; k <= nFeat; ++k)
            if (sp[shown][k].all.n > 0) c.push_back(k);
        return c;
    }
};

// Prepares a walk of the lot's live points for the given kinds besides the shown one.
void SetUp(LotScan& s, const cLot& lot, bool fitted, bool residual) {
    s.nFeat = lot.LineWidthType ? 8 : 3;
    s.shown = ((lot.PLotDataType % 3) + 3) % 3;
    s.kinds[s.shown] = true;
    if (fitted) s.kinds[1] = true;
    if (residual) s.kinds[2] = true;
}

Value Num(double x) {
    return Value(x);
}
Value Whole(long n) {
    return Value(static_cast<int32_t>(n));
}

// The field fit values of feature 1..3 (V, H, Z): offset, tilt, curvature,
// X and Y tilt. False when the lot holds none (all of the first three 0).
struct FieldFit {
    double offset = 0, tilt = 0, curv = 0, xTilt = 0, yTilt = 0;
};
bool FieldFitOf(const cLot& lot, int feature, FieldFit& f) {
    switch (feature) {
        case 1:
            f = {lot.ValueV_Offset, lot.ValueV_Tilt, lot.ValueV_Curvature, lot.ValueV_XTilt,
                 lot.ValueV_yTilt};
            break;
        case 2:
            f = {lot.ValueH_Offset, lot.ValueH_Tilt, lot.ValueH_Curvature, lot.ValueH_XTilt,
                 lot.ValueH_yTilt};
            break;
        case 3:
            f = {lot.ValueZ_Offset, lot.ValueZ_Tilt, lot.ValueZ_Curvature, lot.ValueZ_XTilt,
                 lot.ValueZ_yTilt};
            break;
        default:
            return false;
    }
    return !(f.offset == 0 && f.tilt == 0 && f.curv == 0);
}

bool IsAsmlData(const cLot& lot) {
    return IContains(lot.MetrologyTool, "ASML") || IContains(lot.ExposureTool, "ASML");
}

// The checks every lot table shares; the walk is run on success.
std::optional<Failure> ScanLot(Proc& p, cLot& lot, const Datam* table, LotScan& scan) {
    p.chk = 1;
    if (!table) return p.fail(kNoTable);
    p.chk = 2;
    scan.run(lot);
    if (scan.points == 0) return p.fail(kNoRows);
    p.chk = 3;
    if (scan.columns().empty()) return p.fail(kNoData);
    p.chk = 4;
    return std::nullopt;
}

// "IFD" in the feature columns, "IFDxy_max", "Raw Astig" and "Astig(YXmax)"
// from `row`; the last two on a vector lot only.
void FillIfdAstigRows(Datam& t, int row, const cLot& lot, const LotScan& s,
                      const std::vector<int>& cols) {
    const Spread* sp = s.sp[s.shown];
    for (size_t c = 0; c < cols.size(); ++c)
        if (sp[cols[c]].hasIfd()) t(row, static_cast<int>(c) + 1) = Num(sp[cols[c]].ifd());
    double xyMax = -std::numeric_limits<double>::infinity();
    for (int k = 1; k <= 2 && k <= s.nFeat; ++k)
        if (sp[k].hasIfd()) xyMax = std::max(xyMax, sp[k].ifd());
    if (std::isfinite(xyMax)) t(row + 1, 1) = Num(xyMax);
    if (lot.LineWidthType) return;
    if (sp[1].all.n > 0 && sp[2].all.n > 0) {
        t(row + 2, 1) = Value("H-Vmeans");
        t(row + 2, 2) = Num(RcFinish(sp[2].all).mean - RcFinish(sp[1].all).mean);
    }
    if (s.astig.n > 0) {
        t(row + 3, 1) = Value("Astig-Max");
        t(row + 3, 2) = Num(RcFinish(s.astig).minmax());
    }
}

// The statistics rows from `row` for the columns' moments.
void FillStatRows(Datam& t, int row, const std::vector<const Moments*>& cols) {
    for (int i = 0; i < 8; ++i) {
        t(row + i, 0) = Value(kStatRows[i]);
        for (size_t c = 0; c < cols.size(); ++c) {
            double x;
            if (cols[c] && StatByLabel(*cols[c], kStatRows[i], x))
                t(row + i, static_cast<int>(c) + 1) = Num(x);
        }
    }
}

std::string Banner(const std::string& title) {
    return "__" + title + "__";
}

}  // namespace

// ---------------------------------------------------------------- CalcStatistics

Result<Datam> CalcStatistics(const Datam& table, int column, std::string_view format,
                             std::string_view title, int headerRow) {
    Proc p("Util(CalcStatistics): ");
    SetStatusText("Calculating summary statistics ...");
    p.chk = 1;
    if (!table.isArray() || table.dims() != 2) return p.fail(kNoTable);
    p.chk = 2;
    if (table.rowUb() < FirstData(table, 1)) return p.fail(kNoRows);
    p.chk = 3;
    const int first = FirstData(table, 2), last = table.colUb();
    if (column > -1 && (column < first || column > last)) return p.fail(kNoData);
    Datam summary;
    bool hasData = false;
    Notes notes;  // "No data in input matrix." comes back as the failure below
    (void)mat_rcstat(table, "AVERAGE", true, column > -1 ? column : -1, &summary, nullptr, &hasData,
                     &notes);
    if (!hasData) return p.fail(kNoData);

    p.chk = 4;
    // Summary rows by label.
    int from[9] = {};
    for (int i = 0; i < 9; ++i)
        for (int r = 1; r <= summary.rowUb(); ++r)
            if (summary(r, 0).str() == kSummaryRows[i]) {
                from[i] = r;
                break;
            }
    const int outCols = column > -1 ? 1 : last;
    Datam out(9, std::max(outCols, 1), 0, 0);
    out(0, 0) = Value(title);
    for (int i = 0; i < 9; ++i) out(i + 1, 0) = Value(kSummaryRows[i]);
    for (int oc = 1; oc <= outCols; ++oc) {
        const int sc = column > -1 ? column : oc;
        if (sc < first) continue;
        out(0, oc) = table.get(headerRow, sc);
        for (int i = 0; i < 9; ++i) {
            if (!from[i]) continue;
            const Value& v = summary.get(from[i], sc);
            out(i + 1, oc) = v.isNumberType() ? Value(Format(v, format)) : v;
        }
        // "Count" a whole number; "Mean+3Sigma" = Mean + |3 StDev|.
        double n, mean, sd;
        if (from[0] && NumericOf(summary.get(from[0], sc), n)) out(1, oc) = Whole(std::lround(n));
        if (from[1] && from[4] && NumericOf(summary.get(from[1], sc), mean) &&
            NumericOf(summary.get(from[4], sc), sd))
            out(9, oc) = Value(Format(mean + std::fabs(3 * sd), format));
    }
    return out;
}

// ---------------------------------------------------------------- CalcRawStats

Status CalcRawStats(cLot& lot, Datam* table) {
    Proc p("cLot(CalcRawStats): ");
    LotScan s;
    SetUp(s, lot, false, false);
    if (auto f = ScanLot(p, lot, table, s)) return *f;
    const std::vector<int> cols = s.columns();
    const int k = static_cast<int>(cols.size());
    Datam t(18, std::max(k + 1, 4), 0, 0);
    const std::string title = lot.GetPlotFeatureTypeName();
    t(0, 0) = Value(lot.LotName);
    for (int c = 0; c < k; ++c) t(0, c + 1) = Value(lot.GetPlotFeatureName(cols[c]));
    t(0, k + 1) = Value("Mean");
    const char* top[] = {"Count", "Wafers",    "Fields",    "Sites",
                         "IFD",   "IFDxy_max", "Raw Astig", "Astig(YXmax)"};
    for (int i = 0; i < 8; ++i) t(i + 1, 0) = Value(top[i]);
    t(1, 1) = Whole(s.points);
    t(2, 1) = Whole(s.wafers);
    t(3, 1) = Whole(s.fields);
    t(4, 1) = Whole(s.sites);
    p.chk = 5;
    FillIfdAstigRows(t, 5, lot, s, cols);
    FieldFit fv;
    if (!lot.LineWidthType && FieldFitOf(lot, 1, fv)) {
        t(8, 3) = Value("Astigmatism");
        t(8, 4) = Num(static_cast<double>(lot.ValueH_Offset) - lot.ValueV_Offset);
    }
    t(9, 0) = Value("________");
    t(10, 0) = Value(Banner(title));
    p.chk = 6;
    std::vector<const Moments*> m;
    for (int c : cols) m.push_back(&s.sp[s.shown][c].all);
    m.push_back(&s.rowMean);
    FillStatRows(t, 11, m);
    *table = std::move(t);
    return StatusOk();
}

// ---------------------------------------------------------------- CalcFeatureStats

Status CalcFeatureStats(cLot& lot, Datam* table) {
    Proc p("Clot(CalcFeatureStats): ");
    LotScan s;
    SetUp(s, lot, true, true);
    s.levels = true;
    const int want = lot.PlotFeature();
    s.astigFeature = want == ePlotFeatureAstig;
    if (auto f = ScanLot(p, lot, table, s)) return *f;
    const int feature = (want >= 1 && want < kFeatureSlots && s.sp[s.shown][want].all.n > 0)
                            ? want
                            : s.columns().front();

    Datam t(12, 4, 0, 0);
    const std::string title = lot.GetPlotFeatureTypeName();
    t(0, 0) = Value(lot.GetPlotFeatureName(feature));
    t(0, 1) = Value("abs(Min/Max)");
    t(0, 2) = Value(" Mean");
    t(0, 3) = Value(" (Max)");
    t(0, 4) = Value(" (IFD)");
    const std::string labels[] = {"Points",      "Time-Samples", "Sensors",     "Wafers",
                                  "Fields",      "Sites",        "________",    "___Wafer___",
                                  "___Model___", " ___Field___", Banner(title), "IFDresid(um)"};
    for (int i = 0; i < 12; ++i) t(i + 1, 0) = Value(labels[i]);
    std::sort(s.siteKeys.begin(), s.siteKeys.end());
    const long sensors = std::unique(s.siteKeys.begin(), s.siteKeys.end()) - s.siteKeys.begin();
    t(1, 1) = Whole(s.points);
    t(2, 1) = Whole(s.mostPointsOnSite);
    t(3, 1) = Whole(sensors);
    t(4, 1) = Whole(s.wafers);
    t(5, 1) = Whole(s.fields);
    t(6, 1) = Whole(s.sites);
    p.chk = 5;
    auto fill = [&](int row, const Moments& m, const Spread* ifd) {
        if (m.n == 0) return;
        t(row, 1) = Num(std::max(std::fabs(m.mn), std::fabs(m.mx)));
        t(row, 2) = Num(RcFinish(m).mean);
        t(row, 3) = Num(m.mx);
        if (ifd && ifd->hasIfd()) t(row, 4) = Num(ifd->ifd());
    };
    const Spread& fit = s.sp[eFitted][feature];
    const Spread& shown = s.sp[s.shown][feature];
    const Spread& res = s.sp[eResidual][feature];
    fill(8, s.lm[feature].wafers, nullptr);
    fill(9, fit.all, &fit);
    fill(10, s.lm[feature].fields, nullptr);
    fill(11, shown.all, &shown);
    if (res.hasIfd()) t(12, 4) = Num(res.ifd());
    *table = std::move(t);
    return StatusOk();
}

// ---------------------------------------------------------------- CalcIFDstats

Status CalcIFDstats(cLot& lot, Datam* table) {
    Proc p("cLot(CalcIFDstats): ");
    LotScan s;
    SetUp(s, lot, false, true);
    if (auto f = ScanLot(p, lot, table, s)) return *f;
    const std::vector<int> cols = s.columns();
    const int k = static_cast<int>(cols.size());
    Datam t(28, std::max(k, 4), 0, 0);
    t(0, 0) = Value(lot.GetPlotFeatureTypeName());
    for (int c = 0; c < k; ++c) t(0, c + 1) = Value(lot.GetPlotFeatureName(cols[c]));
    const char* labels[] = {"Wafers",     "Sites/Die",   "#Dice",        "IFD",
                            "IFDxy_max",  "Raw Astig",   "Astig(YXmax)", "________",
                            "_Model__",   "__Wafer__",   "IFDresid(um)", "StDEVresid(um)",
                            "__Field__",  "BF(Fitted)",  "X Tilt(urad)", "Y Tilt(urad)",
                            "Tilt(urad)", "Astigmatism", "Curv(nm/cm2)", "__Stats__"};
    for (int i = 0; i < 20; ++i) t(i + 1, 0) = Value(labels[i]);
    t(1, 1) = Whole(s.wafers);
    t(2, 1) = Whole(s.mostSitesInField);
    t(3, 1) = Whole(s.fields);
    p.chk = 5;
    FillIfdAstigRows(t, 4, lot, s, cols);
    p.chk = 6;
    const bool asml = IsAsmlData(lot);
    for (int c = 0; c < k; ++c) {
        const Spread& res = s.sp[eResidual][cols[c]];
        if (res.hasIfd()) t(11, c + 1) = Num(res.ifd());
        if (res.all.n > 0) t(12, c + 1) = Num(RcFinish(res.all).sd);
        FieldFit ff;
        if (!FieldFitOf(lot, cols[c], ff)) continue;
        t(14, c + 1) = Num(ff.offset);
        if (asml) {
            t(15, c + 1) = Num(ff.xTilt);
            t(16, c + 1) = Num(ff.yTilt);
            t(17, c + 1) = Num(ff.tilt);
        }
        t(19, c + 1) = Num(ff.curv);
    }
    FieldFit fv;
    if (!lot.LineWidthType && FieldFitOf(lot, 1, fv))
        t(18, 1) = Num(static_cast<double>(lot.ValueH_Offset) - lot.ValueV_Offset);
    p.chk = 7;
    std::vector<const Moments*> m;
    for (int c : cols) m.push_back(&s.sp[s.shown][c].all);
    FillStatRows(t, 21, m);
    *table = std::move(t);
    return StatusOk();
}

// ---------------------------------------------------------------- CoVariance

Result<Datam> CoVariance(cLot& lot) {
    Proc p("cLot(CoVariance): ");
    SetStatusText("Covariance setup ...");
    p.chk = 1;
    long n = 0;
    lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint&) { ++n; });
    if (n < 2) return p.fail("Not enough data points.");

    p.chk = 2;
    SetStatusText("Feature Family setup ...");
    // The feature columns of the lot matrix, one row per live point, as
    // stored (a float each, -999.9 where missing).
    const int nFeat = lot.LineWidthType ? 8 : 3;
    const int dt = ((lot.PLotDataType % 3) + 3) % 3;
    std::vector<float> v(static_cast<size_t>(n) * nFeat, kMissingValue);
    bool has[9] = {};
    size_t r = 0;
    lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint& pt) {
        for (int k = 1; k <= nFeat; ++k) {
            const float x = *pt.FeatureSlot(k, dt);
            v[r * nFeat + k - 1] = x;
            has[k] = has[k] || x != kMissingValue;
        }
        ++r;
    });
    std::vector<int> cols;
    for (int k = 1; k <= nFeat; ++k)
        if (has[k]) cols.push_back(k);
    p.chk = 3;
    if (cols.empty()) return p.fail(kNoData);

    const int m = static_cast<int>(cols.size());
    Datam out(m, m, 0, 0);
    for (int i = 0; i < m; ++i) {
        out(0, i + 1) = Value(lot.GetPlotFeatureName(cols[i]));
        out(i + 1, 0) = Value(lot.GetPlotFeatureName(cols[i]));
    }
    p.chk = 4;
    for (int i = 0; i < m; ++i) {
        SetStatusText("Covariance analysis feature: " + std::to_string(i + 1) + " of " +
                      std::to_string(m));
        const int a = cols[i] - 1;
        for (int j = i; j < m; ++j) {
            const int b = cols[j] - 1;
            // Over the rows holding both, about their own means.
            auto pair = [&](long q, double& x, double& y) {
                const float fx = v[q * nFeat + a], fy = v[q * nFeat + b];
                if (fx == kMissingValue || fy == kMissingValue) return false;
                x = static_cast<double>(fx) / 1000.0;  // display units, as the matrix has them
                y = static_cast<double>(fy) / 1000.0;
                return true;
            };
            double sa = 0, sb = 0, x = 0, y = 0;
            long cnt = 0;
            for (long q = 0; q < n; ++q)
                if (pair(q, x, y)) {
                    sa += x;
                    sb += y;
                    ++cnt;
                }
            if (cnt < 2) continue;
            const double ma = sa / cnt, mb = sb / cnt;
            double sab = 0;
            for (long q = 0; q < n; ++q)
                if (pair(q, x, y)) sab += (x - ma) * (y - mb);
            const Value c(sab / static_cast<double>(cnt - 1));
            out(i + 1, j + 1) = c;
            out(j + 1, i + 1) = c;
        }
    }
    SetStatusText("Final setup of covariance matrix ...");
    return out;
}

// ---------------------------------------------------------------- CalcPointVectors

void CalcPointVectors(cLot& lot) {
    // Every point, culled or not, so that a restored point shows its magnitude.
    for (cWafer* w : lot.Wafers())
        for (cField* f : w->Fields())
            for (cSite* s : f->sites())
                for (cPoint* pt : s->Points()) {
                    const float v = pt->ValueV, h = pt->ValueH;
                    pt->ValueZ = (v == kMissingValue || h == kMissingValue)
                                     ? kMissingValue
                                     : static_cast<float>(std::sqrt(double(v) * v + double(h) * h));
                }
    lot.valueZ_Name = "Magnitude";
    lot.PlotFeatureName = "Magnitude";
    lot.SetModified();
}

}  // namespace zorv
