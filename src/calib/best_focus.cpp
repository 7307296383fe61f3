// Field aberration models of focus: whole field, rows and columns, per
// exposure set of a calibration or per field of a converted lot, and the
// sheets that hold them.
#include "calib/best_focus.h"
#include "calib_numbers.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <set>

#include "base/format.h"
#include "base/report.h"
#include "base/value.h"
#include "calib/convert.h"
#include "calib/template_library.h"
#include "lot/lot.h"
#include "model/lot_fit.h"
#include "numerics/lsq.h"
#include "numerics/matrix.h"
#include "workbook/store.h"
#include "workbook/workbook_ops.h"

namespace zorv {

namespace {

// A table value as "###0.0000" shows it.
double Shown(double v) { return Through(v, "###0.0000"); }

constexpr double kTilt = 1000, kCurv = 1e5;

// A model of the design columns (row-major n x m) with the intercept, no cull.
FocusModel Fit(const std::vector<double>& x, const std::vector<double>& y, int m, int slopeCols) {
    FocusModel out;
    const int n = static_cast<int>(y.size());
    if (n < m + 1) return out;
    SvdFitArrays f = svdfit_std(x.data(), y.data(), n, m, 0.0f, true, true, 1.0f, -1.0f);
    if (f.result < 0 || f.coef.size() < static_cast<size_t>(m) + 1) return out;
    auto c = [&](int i) { return f.coef[static_cast<size_t>(i)]; };
    auto e = [&](int i) { return static_cast<size_t>(i) < f.errors.size() ? f.errors[static_cast<size_t>(i)] : 0.0; };
    out.ok = true;
    out.piston = c(0), out.pistonSE = e(0);
    out.tiltX = c(1), out.tiltXSE = e(1);
    if (slopeCols == 2) out.tiltY = c(2), out.tiltYSE = e(2);
    out.curvature = c(m), out.curvatureSE = e(m);
    out.fit.resize(static_cast<size_t>(n));
    out.resid.resize(static_cast<size_t>(n));
    RcMoments rm;
    for (int i = 0; i < n; ++i) {
        double v = c(0);
        for (int k = 0; k < m; ++k) v += c(k + 1) * x[static_cast<size_t>(i) * m + k];
        out.fit[static_cast<size_t>(i)] = v;
        out.resid[static_cast<size_t>(i)] = y[static_cast<size_t>(i)] - v;
        rm.add(out.resid[static_cast<size_t>(i)]);
        out.maxResidual = std::max(out.maxResidual, std::fabs(out.resid[static_cast<size_t>(i)]));
    }
    out.sdResiduals = RcFinish(rm).sd;
    out.seResiduals = std::sqrt(std::max(0.0, double(f.mse)));
    return out;
}

const std::vector<double>& Feature(const FieldPoints& p, int k) { return k == 0 ? p.dX : k == 1 ? p.dY : p.dZ; }

// The "MEAN", "Maximum", "Minimum", "StdErr" rows under the lines of a table.
void AddSummaryRows(Datam& t, int lines) {
    const char* names[] = {"MEAN", "Maximum", "Minimum", "StdErr"};
    const int base = lines;
    t.redimPreserve(base + 4, t.colUb());
    for (int k = 0; k < 4; ++k) t(base + 1 + k, 0) = Value(names[k]);
    for (int c = 2; c <= t.colUb(); ++c) {
        RcMoments m;
        for (int r = 1; r <= lines; ++r)
            if (!IsBlank(t(r, c))) m.add(t(r, c).toDouble());
        if (m.n == 0) continue;
        const RcStats s = RcFinish(m);
        const double v[] = {s.mean, s.mx, s.mn, s.sd};
        for (int k = 0; k < 4; ++k) t(base + 1 + k, c) = Value(Shown(v[k]));
    }
}

Datam LineModels(const FieldPoints& pts, bool rows, const std::string& lastHeader) {
    const std::vector<double>& along = rows ? pts.x : pts.y;
    const std::vector<double>& across = rows ? pts.y : pts.x;
    const std::vector<double>& focus = rows ? pts.dX : pts.dY;
    std::set<double> locations;
    for (double v : across) locations.insert(Round(v, 1));
    const char* head[] = {rows ? "Row (mm)" : "Column(mm)", "Focus (um)", "FocusSE (um)", "Tilt(urad)",
                          "TiltSE(urad)", "Curv(nm/cm2)", "CurvSE(nm/cm2"};
    Datam t(static_cast<int>(locations.size()), 8, 0, 0);
    for (int c = 0; c < 7; ++c) t(0, c + 1) = Value(head[c]);
    t(0, 8) = Value(lastHeader);
    int line = 0;
    for (double loc : locations) {
        std::vector<double> s, f;
        for (size_t i = 0; i < pts.size(); ++i)
            if (std::fabs(Round(across[i], 1) - loc) <= 0.5 + 1e-9) s.push_back(along[i]), f.push_back(focus[i]);
        const FocusModel m = LineModel(s, f);
        if (!m.ok) continue;
        ++line;
        const double v[] = {loc, m.piston, m.pistonSE, m.tiltX * kTilt, m.tiltXSE * kTilt, m.curvature * kCurv,
                            m.curvatureSE * kCurv, m.seResiduals};
        for (int c = 0; c < 8; ++c) t(line, c + 1) = Value(Shown(v[c]));
    }
    t.redimPreserve(line, 8);
    AddSummaryRows(t, line);
    return t;
}

// Builds a sheet as rows of cells, blocks one under the other.
class SheetRows {
public:
    void line(std::vector<Value> cells) { rows_.push_back(std::move(cells)); }
    void blank() { rows_.emplace_back(); }
    // A block: its title line, the table, a blank line.
    void titled(const std::string& title, const Datam& t) {
        line({Value(title)});
        table(t);
        blank();
    }
    // A table with its header row and its labels of column 0.
    void table(const Datam& t) {
        if (!t.isArray()) return;
        for (int r = t.rowLb(); r <= t.rowUb(); ++r) {
            std::vector<Value> cells;
            for (int c = t.colLb(); c <= t.colUb(); ++c) cells.push_back(t(r, c));
            rows_.push_back(std::move(cells));
        }
    }
    Datam done() const {
        size_t w = 1;
        for (const auto& r : rows_) w = std::max(w, r.size());
        Datam d(static_cast<int>(rows_.size()), static_cast<int>(w), 1, 1);
        for (size_t r = 0; r < rows_.size(); ++r)
            for (size_t c = 0; c < rows_[r].size(); ++c) d(static_cast<int>(r) + 1, static_cast<int>(c) + 1) = rows_[r][c];
        return d;
    }

private:
    std::vector<std::vector<Value>> rows_;
};

Status SaveSheet(Workbook* wb, const Datam& sheet, const std::string& name, const std::string& title,
                 const std::string& index) {
    if (!wb) return StatusOk();
    SaveArrayOptions o;
    o.title = title;
    o.save = false;
    if (Status s = SaveArray(sheet, name, wb, o); !s) return s;
    if (Status s = AddIndexItem(wb, name, index + FormatDate(TemplateNow(), "yyyy-mm-dd hh:mm:ss"), Value(), false); !s)
        return s;
    return SaveWorkbookChecked(*wb, name, false);
}

// The fields of the lot by number, live ones only, each with its points.
std::vector<std::pair<const cField*, FieldPoints>> PerField(const cLot& lot, long fieldNumber) {
    std::vector<std::pair<const cField*, FieldPoints>> out;
    for (const cWafer* w : lot.Wafers()) {
        if (w->cull()) continue;
        for (const cField* f : w->Fields()) {
            if (f->cull() || (fieldNumber > 0 && f->Number != fieldNumber)) continue;
            FieldPoints p;
            for (const cSite* s : f->sites()) {
                if (s->cull()) continue;
                for (const cPoint* pt : s->Points()) {
                    if (pt->cull()) continue;
                    std::string label = std::to_string(f->Number);
                    p.label.push_back(label.append("_").append(std::to_string(s->NumberKey())));
                    p.dX.push_back(pt->ValueV / 1000.0), p.dY.push_back(pt->ValueH / 1000.0), p.dZ.push_back(pt->ValueZ / 1000.0);
                    p.x.push_back(Round((s->LocationX + lot.SiteXoffset) / 1000.0, 2));
                    p.y.push_back(Round((s->LocationY + lot.SiteYoffset) / 1000.0, 2));
                    p.r.push_back(Round(s->LocationR / 1000.0, 2));
                    p.angle.push_back(Round(s->LocationTheta / 1000.0, 2));
                }
            }
            if (p.size() > 0) out.emplace_back(f, std::move(p));
        }
    }
    return out;
}

}  // namespace

FocusModel WholeFieldModel(const FieldPoints& p, int feature) {
    std::vector<double> x(p.size() * 3);
    for (size_t i = 0; i < p.size(); ++i) {
        x[i * 3] = p.r[i] * std::cos(p.angle[i]);
        x[i * 3 + 1] = p.r[i] * std::sin(p.angle[i]);
        x[i * 3 + 2] = p.r[i] * p.r[i];
    }
    return Fit(x, Feature(p, feature), 3, 2);
}

LensTiltCurvature CalculateLensTiltCurvature(const std::vector<double>& x, const std::vector<double>& y,
                                             const std::vector<double>& focus) {
    FieldPoints pts;
    const size_t n = std::min({x.size(), y.size(), focus.size()});
    for (size_t i = 0; i < n; ++i) {
        if (!std::isfinite(x[i]) || !std::isfinite(y[i]) || !std::isfinite(focus[i])) continue;
        pts.label.push_back(std::to_string(i + 1));
        pts.dX.push_back(focus[i]), pts.dY.push_back(focus[i]), pts.dZ.push_back(focus[i]);
        pts.x.push_back(Round(x[i], 2)), pts.y.push_back(Round(y[i], 2));
        pts.r.push_back(0), pts.angle.push_back(0);
    }
    return {RowModels(pts, "IFDresidsualsSE(um)"), ColumnModels(pts, "IFDresidsualsSE(um)")};
}

FocusModel LineModel(const std::vector<double>& s, const std::vector<double>& focus) {
    if (s.size() < 3) return {};
    std::vector<double> x(s.size() * 2);
    for (size_t i = 0; i < s.size(); ++i) x[i * 2] = s[i], x[i * 2 + 1] = s[i] * s[i];
    return Fit(x, focus, 2, 1);
}

Datam RowModels(const FieldPoints& pts, const std::string& lastHeader) { return LineModels(pts, true, lastHeader); }
Datam ColumnModels(const FieldPoints& pts, const std::string& lastHeader) { return LineModels(pts, false, lastHeader); }

Datam WholeFieldTable(const FocusModel& m) {
    const char* head[] = {"Focus (um)",   "FocusSE (um)",  "Xtilt(urad)", "XtiltSE(urad)",  "Ytilt(urad)",
                          "YtiltSE(urad)", "Curv(nm/cm2)", "CurvSE(um/cm2", "SEresiduals(um)"};
    Datam t(1, 9, 0, 1);
    for (int c = 0; c < 9; ++c) t(0, c + 1) = Value(head[c]);
    if (!m.ok) return t;
    const double v[] = {m.piston, m.pistonSE, m.tiltX * kTilt, m.tiltXSE * kTilt, m.tiltY * kTilt,
                        m.tiltYSE * kTilt, m.curvature * kCurv, m.curvatureSE * kCurv, m.seResiduals};
    for (int c = 0; c < 9; ++c) t(1, c + 1) = Value(Shown(v[c]));
    return t;
}

FieldPoints GatherFieldPoints(const cLot& lot, long field, const double* ex) {
    FieldPoints all;
    for (auto& [f, p] : PerField(lot, field)) {
        if (ex && (Round3(f->Dose) != Round3(ex[0]) || Round3(f->NA) != Round3(ex[1]) ||
                   Round3(f->PCinner) != Round3(ex[2]) || Round3(f->PCouter) != Round3(ex[3])))
            continue;
        auto add = [](std::vector<double>& a, const std::vector<double>& b) { a.insert(a.end(), b.begin(), b.end()); };
        all.label.insert(all.label.end(), p.label.begin(), p.label.end());
        add(all.dX, p.dX), add(all.dY, p.dY), add(all.dZ, p.dZ), add(all.x, p.x), add(all.y, p.y);
        add(all.r, p.r), add(all.angle, p.angle);
    }
    return all;
}

Result<BestFocusModels> CalcBFTiltCurvature(const cLot& lot, long fieldNumber, Workbook* saveTo) {
    Proc p("PSFManal(CalcBFTiltCurvature): ");
    long points = 0;
    std::set<long> sites;
    lot.forEachLive([&](cWafer&, cField&, cSite& s, cPoint&) {
        ++points;
        sites.insert(s.NumberKey());
    });
    if (points == 0) return p.fail("There are insufficient data points in the calibration for a BestFocus Analysis.");
    // Four terms of the whole field model want more sites than that.
    if (sites.size() < 5) return p.fail("There are insufficient sites in the calibration for a BestFocus Analysis.");
    SetStatusText("Setting up Best Focus Row/Column Statistics...");

    long count = 0;
    Datam focus;
    const Datam ex = lot.GetUniqueExposures(count, focus);
    BestFocusModels out;
    SheetRows sheet;
    sheet.line({Value("CalculateBFFieldTiltCurvature")});
    for (int e = 1; e <= count; ++e) {
        BestFocusSet set;
        for (int c = 0; c < 4; ++c) set.exposure[c] = ex(e, c + 1).toDouble();
        std::string st = "Expo Group:[";
        st.append(NumberToText(set.exposure[0])).append(" , ").append(NumberToText(set.exposure[1])).append(" , ");
        st.append(NumberToText(set.exposure[2])).append(" , ").append(NumberToText(set.exposure[3])).append(" ]:(");
        SetStatusText(st.append(std::to_string(e)).append(" of ").append(std::to_string(count)).append(")"));
        const FieldPoints pts = GatherFieldPoints(lot, fieldNumber, set.exposure);
        if (pts.size() > 1) set.whole = WholeFieldModel(pts, 2);
        set.rows = RowModels(pts);
        set.columns = ColumnModels(pts);

        sheet.blank();
        sheet.line({Value("[Dose,"), Value("NA,"), Value("PCinner,"), Value("PCouter]:")});
        sheet.line({Value(set.exposure[0]), Value(set.exposure[1]), Value(set.exposure[2]), Value(set.exposure[3])});
        sheet.line({Value("Full Field Analysis")});
        sheet.table(WholeFieldTable(set.whole));
        sheet.line({Value("Row (Vertical Feature) Field Aberrations")});
        sheet.table(set.rows);
        sheet.line({Value("Column (Horizontal Feature) Field Aberrations")});
        sheet.table(set.columns);
        out.sets.push_back(std::move(set));
    }
    if (out.sets.empty()) return p.fail(" No data values were input.");

    // Summaries: the mean, maximum, minimum and spread of the models over sets.
    sheet.blank();
    sheet.line({Value("Summaries")});
    for (int k = 0; k < 2; ++k) {
        const char* what = k == 0 ? "Row Models " : "Column Models ";
        const char* stat[] = {"Mean", "Maximum", "Minimum", "Standard Error"};
        for (int s = 0; s < 4; ++s) {
            std::vector<Value> cells{Value(std::string(what) + stat[s])};
            for (int c = 2; c <= 8; ++c) {
                RcMoments m;
                for (const BestFocusSet& set : out.sets) {
                    const Datam& t = k == 0 ? set.rows : set.columns;
                    for (int r = 1; r <= t.rowUb() - 4; ++r)
                        if (!IsBlank(t(r, c))) m.add(t(r, c).toDouble());
                }
                if (m.n == 0) {
                    cells.emplace_back();
                    continue;
                }
                const RcStats st = RcFinish(m);
                const double v[] = {st.mean, st.mx, st.mn, st.sd};
                cells.emplace_back(Shown(v[s]));
            }
            sheet.line(std::move(cells));
        }
    }
    out.sheet = sheet.done();
    p.chk = 2;
    if (Status s = SaveSheet(saveTo, out.sheet, "BestFocusModel",
                             "Full Field  and Row/Column Calibration Xfocus,Yfocus & Mean (Z)Focus (SE=Standard Error)",
                             "Calculated Best Focus Models from PSFM Calibration. ");
        !s)
        return s.failure();
    return out;
}

void CalTemplateBFupdate(cTemplate& t, float na, float pcInner, float pcOuter, float dose, const Datam& rows,
                         const Datam& columns) {
    cBestFocus* bf = t.GetBestFocus(na, pcInner, pcOuter, dose);
    if (!bf) return;
    auto fill = [](cCalLine& l, const Datam& tab, int r) {
        l.KeyName = NumberToText(tab(r, 1).toDouble());
        l.Location = tab(r, 1).toSingle();
        l.Piston = tab(r, 2).toSingle(), l.PistonSE = tab(r, 3).toSingle();
        l.Tilt = tab(r, 4).toSingle(), l.TiltSE = tab(r, 5).toSingle();
        l.Curvature = tab(r, 6).toSingle(), l.CurvatureSE = tab(r, 7).toSingle();
        l.IFDresidulaseSE = tab(r, 8).toSingle();
    };
    // The lines of a model table stop where the summary rows begin.
    auto lines = [](const Datam& tab) {
        int n = 0;
        while (tab.isArray() && n + 1 <= tab.rowUb() && IsBlank(tab(n + 1, 0))) ++n;
        return n;
    };
    for (int r = 1; r <= lines(rows); ++r) {
        cCalRow row;
        fill(row, rows, r);
        bf->UpdateRowData(row);
    }
    for (int r = 1; r <= lines(columns); ++r) {
        cCalColumn col;
        fill(col, columns, r);
        bf->UpdateColData(col);
    }
}

void ModelUpdate(cTemplate& t, const BestFocusModels& models) {
    for (const BestFocusSet& s : models.sets) {
        if (!s.rows.isArray() && !s.columns.isArray()) {
            std::string m = "No 'Best Focus' data for exposure set: [";
            m.append(NumberToText(s.exposure[0])).append(",").append(NumberToText(s.exposure[1])).append(",");
            m.append(NumberToText(s.exposure[2])).append(",").append(NumberToText(s.exposure[3])).append("]");
            MsgBox(m, vbOKOnly, "PSFManal(ModelUpdate): ");
            continue;
        }
        CalTemplateBFupdate(t, static_cast<float>(s.exposure[1]), static_cast<float>(s.exposure[2]),
                            static_cast<float>(s.exposure[3]), static_cast<float>(s.exposure[0]), s.rows, s.columns);
    }
}

// ---------------------------------------------------------------- per field of a lot

namespace {

// Appends the lines of `t` (without its summary rows) under `all`, with the
// field's key first.
void AppendByField(Datam& all, int& used, const Datam& t, const std::string& key) {
    if (!t.isArray()) return;
    if (!all.isArray()) {
        all = Datam(std::max(1, t.rowUb()), t.colUb() + 1, 0, 1);
        all(0, 1) = Value("FieldKey");
        for (int c = 1; c <= t.colUb(); ++c) all(0, c + 1) = t(0, c);
    }
    for (int r = 1; r <= t.rowUb(); ++r) {
        if (!IsBlank(t(r, 0))) break;
        if (++used > all.rowUb()) all.redimPreserve(used * 2, all.colUb());
        all(used, 1) = Value(key);
        for (int c = 1; c <= t.colUb(); ++c) all(used, c + 1) = t(r, c);
    }
}

void Trim(Datam& t, int used) {
    if (t.isArray()) t.redimPreserve(std::max(used, 0), t.colUb());
}

}  // namespace

Result<FieldAberrations> CalculateFieldTiltCurvature(const cLot& lot, long fieldNumber, Workbook* saveTo) {
    Proc p("PSFManalysis(CalculateFieldTiltCurvature): ");
    auto fields = PerField(lot, fieldNumber);
    if (fields.empty()) return p.fail(" No data values were input.");
    FieldAberrations out;
    int nr = 0, nc = 0;
    for (size_t i = 0; i < fields.size(); ++i) {
        SetStatusText("Update field " + std::to_string(i + 1) + " of " + std::to_string(fields.size()));
        const auto& [f, pts] = fields[i];
        AppendByField(out.rows, nr, RowModels(pts, "IFDresidsualsSE(um)"), f->NumberKey);
        AppendByField(out.columns, nc, ColumnModels(pts, "IFDresidsualsSE(um)"), f->NumberKey);
    }
    Trim(out.rows, nr), Trim(out.columns, nc);
    SheetRows sheet;
    sheet.titled("Row (Vertical Feature) Field Aberrations", out.rows);
    sheet.titled("Column (Horizontal Feature) Field Aberrations", out.columns);
    out.sheet = sheet.done();
    if (Status s = SaveSheet(saveTo, out.sheet, "FieldAberrations",
                             "Field Row/Column Calibration Xfocus,Yfocus & Mean (Z)Focus (SE=Standard Error)",
                             "Modeled Field Row/Column Focus aberrations. ");
        !s)
        return s.failure();
    return out;
}

Result<WholeFieldAberrations> CalculateWholeFieldTiltCurvature(const cLot& lot, Workbook* saveTo) {
    Proc p("PSFManalysis(CalculateWholeFieldTiltCurvature): ");
    auto fields = PerField(lot, 0);
    if (fields.empty()) return p.fail(" No data values were input.");
    const char* head[] = {"FieldKey",     "Focus (um)",    "FocusSE (um)", "Xtilt(urad)",       "XtiltSE(urad)",
                          "Ytilt(urad)",  "YtiltSE(urad)", "Curv(nm/cm2)", "CurvSE(nm/cm2)",    "IFD residsuals(um)",
                          "StDev residsuals(um)"};
    WholeFieldAberrations out;
    Datam* tabs[] = {&out.x, &out.y, &out.z};
    for (Datam* t : tabs) {
        *t = Datam(static_cast<int>(fields.size()), 11, 0, 1);
        for (int c = 0; c < 11; ++c) (*t)(0, c + 1) = Value(head[c]);
    }
    int row = 0;
    for (size_t i = 0; i < fields.size(); ++i) {
        SetStatusText("Update field " + std::to_string(i + 1) + " of " + std::to_string(fields.size()));
        const auto& [f, pts] = fields[i];
        if (pts.size() < 5) continue;
        ++row;
        for (int k = 0; k < 3; ++k) {
            const FocusModel m = WholeFieldModel(pts, k);
            Datam& t = *tabs[k];
            t(row, 1) = Value(f->NumberKey);
            if (!m.ok) continue;
            const double v[] = {m.piston,          m.pistonSE,         m.tiltX * kTilt, m.tiltXSE * kTilt,
                                m.tiltY * kTilt,   m.tiltYSE * kTilt,  m.curvature * kCurv, m.curvatureSE * kCurv,
                                m.maxResidual,     m.sdResiduals};
            for (int c = 0; c < 10; ++c) t(row, c + 2) = Value(Shown(v[c]));
        }
    }
    for (Datam* t : tabs) t->redimPreserve(row, 11);
    SheetRows sheet;
    const char* titles[] = {"X focus (Vertical Feature) Field Aberrations", "Y focus (Horizontal Feature) Field Aberrations",
                            "Z focus Field Aberrations"};
    for (int k = 0; k < 3; ++k) sheet.titled(titles[k], *tabs[k]);
    out.sheet = sheet.done();
    if (Status s = SaveSheet(saveTo, out.sheet, "WholeFieldAberrations",
                             "Field Model Xfocus,Yfocus & Mean (Z)Focus (SE=Standard Error) ",
                             "Modeled Field Focus aberrations. ");
        !s)
        return s.failure();
    return out;
}

Result<ScanModels> CalculateASMLscanModel(const cLot& lot, Workbook* saveTo) {
    Proc p("PSFManalysis(CalculateASMLscanModel): ");
    auto fields = PerField(lot, 0);
    if (fields.empty()) return p.fail(" No data values were input.");
    auto heads = [](const char* tilt, const char* tiltSE) {
        return std::vector<std::string>{"FieldKey", "Focus (um)", "FocusSE (um)", tilt, tiltSE, "Curv(nm/cm2)",
                                        "CurvSE(nm/cm2)", "IFD residsuals(um)", "StDev residsuals(um)"};
    };
    ScanModels out;
    auto setup = [&](Datam& t, const std::vector<std::string>& h) {
        t = Datam(static_cast<int>(fields.size()), 9, 0, 1);
        for (int c = 0; c < 9; ++c) t(0, c + 1) = Value(h[static_cast<size_t>(c)]);
    };
    setup(out.slit, heads("Ry Tilt(urad)", "Ry TiltSE(urad)"));
    setup(out.scan, heads("Rx Tilt(urad)", "Rx TiltSE(urad)"));
    int ns = 0, nc = 0;
    for (const auto& [f, pts] : fields) {
        // Along the slit: focus against x and x^2.
        const FocusModel slit = LineModel(pts.x, pts.dZ);
        if (slit.ok) {
            ++ns;
            const double v[] = {slit.piston, slit.pistonSE, slit.tiltX * kTilt, slit.tiltXSE * kTilt,
                                slit.curvature * kCurv, slit.curvatureSE * kCurv, slit.maxResidual, slit.sdResiduals};
            out.slit(ns, 1) = Value(f->NumberKey);
            for (int c = 0; c < 8; ++c) out.slit(ns, c + 2) = Value(Shown(v[c]));
        }
        // Along the scan: focus against y.
        if (pts.size() >= 2) {
            std::vector<double> x(pts.y);
            const FocusModel scan = Fit(x, pts.dZ, 1, 1);
            if (scan.ok) {
                ++nc;
                const double v[] = {scan.piston, scan.pistonSE, scan.tiltX * kTilt, scan.tiltXSE * kTilt, 0, 0,
                                    scan.maxResidual, scan.sdResiduals};
                out.scan(nc, 1) = Value(f->NumberKey);
                for (int c = 0; c < 8; ++c) out.scan(nc, c + 2) = Value(Shown(v[c]));
            }
        }
    }
    out.slit.redimPreserve(ns, 9), out.scan.redimPreserve(nc, 9);
    SheetRows sheet;
    sheet.table(out.slit);
    sheet.blank();
    sheet.table(out.scan);
    out.sheet = sheet.done();
    if (Status s = SaveSheet(saveTo, out.sheet, "WholeFieldAberrations",
                             "Field Model Xfocus,Yfocus & Mean (Z)Focus (SE=Standard Error) ",
                             "Modeled Field Focus aberrations. ");
        !s)
        return s.failure();
    return out;
}

}  // namespace zorv

namespace zorv {

namespace {

bool Selected(const std::vector<double>& list, double v) {
    return list.empty() || std::any_of(list.begin(), list.end(), [&](double x) { return Round(x, 3) == Round(v, 3); });
}


}  // namespace

Result<BestFocusModelData> BestFocusModel(const cLot& lot, const std::string& dataSet, const BestFocusSelection& sel,
                                          Workbook* saveTo) {
    Proc p("frmCal(BestFocusModel): ");
    SetStatusText("Update data selection...");
    long count = 0;
    Datam focus;
    const Datam ex = lot.GetUniqueExposures(count, focus);
    const char* head[] = {"Dose", "NA", "PCinner", "PCouter", "Focus (um)", "FocusSE (um)", "Xtilt(urad)",
                          "XtiltSE(urad)", "Ytilt(urad)", "YtiltSE(urad)", "Curv(nm/cm2)", "CurvSE(um/cm2",
                          "SEresiduals(um)"};
    BestFocusModelData out;
    Datam* tabs[] = {&out.row, &out.column, &out.z};
    for (Datam* t : tabs) {
        *t = Datam(static_cast<int>(count), 13, 0, 0);
        for (int c = 0; c < 13; ++c) (*t)(0, c + 1) = Value(head[c]);
    }
    int n = 0;
    for (int e = 1; e <= count; ++e) {
        double x[4];
        for (int c = 0; c < 4; ++c) x[c] = ex(e, c + 1).toDouble();
        if (!Selected(sel.doses, x[0]) || !Selected(sel.na, x[1]) || !Selected(sel.pcInner, x[2]) ||
            !Selected(sel.pcOuter, x[3]))
            continue;
        SetStatusText("Exposure: " + std::to_string(e) + " of " + std::to_string(count));
        const FieldPoints pts = GatherFieldPoints(lot, 0, x);
        if (pts.size() < 5) continue;
        ++n;
        for (int k = 0; k < 3; ++k) {
            Datam& t = *tabs[k];
            t(n, 0) = Value("Expo: " + std::to_string(e));
            for (int c = 0; c < 4; ++c) t(n, c + 1) = Value(x[c]);
            const Datam w = WholeFieldTable(WholeFieldModel(pts, k));
            for (int c = 1; c <= 9; ++c) t(n, c + 4) = w(1, c);
        }
    }
    if (n == 0) return p.fail(" No data values were input.");
    for (Datam* t : tabs) t->redimPreserve(n, 13);
    SheetRows sheet;
    sheet.line({Value("Whole Field Calibration"), Value("Best Focus"), Value("Lot:"), Value(dataSet),
                Value(FormatDate(TemplateNow(), "mmm-dd-yyyy"))});
    const char* blocks[3][2] = {{"RowModel", "X focus"}, {"ColModel", "Y focus"}, {"ZModel", "Mean Focus"}};
    for (int k = 0; k < 3; ++k) {
        sheet.blank();
        sheet.line({Value(blocks[k][0]), Value(blocks[k][1])});
        sheet.table(*tabs[k]);
    }
    out.sheet = sheet.done();
    if (Status s = SaveSheet(saveTo, out.sheet, "BestFocusModelData", "Best Focus: " + dataSet, "Modeled BestFocus. "); !s)
        return s.failure();
    return out;
}

Datam GetBFdata(const cLot& lot) {
    long n = 0;
    lot.forEachLive([&](cWafer&, cField&, cSite&, cPoint&) { ++n; });
    const char* head[] = {"selsite", "X_Loc", "Y_Loc", "ValueH", "ValueV", "ValueZ", "ValueH_fit", "ValueV_fit",
                          "ValueZ_fit", "ValueH_Res", "ValueV_Res", "ValueZ_Res"};
    Datam t(static_cast<int>(n), 12, 0, 1);
    for (int c = 0; c < 12; ++c) t(0, c + 1) = Value(head[c]);
    SetStatusText("Update Best Focus Data Acquisition Pt: 1 of " + std::to_string(n));
    int r = 0;
    lot.forEachLive([&](cWafer&, cField&, cSite& s, cPoint& p) {
        ++r;
        t(r, 1) = Value(static_cast<int32_t>(s.NumberKey()));
        t(r, 2) = Value(Through((s.LocationX + lot.SiteXoffset) / 1000.0, "#####0.00"));
        t(r, 3) = Value(Through((s.LocationY + lot.SiteYoffset) / 1000.0, "#####0.00"));
        const float v[] = {p.ValueH, p.ValueV, p.ValueZ, p.ValueH_fit, p.ValueV_fit, p.ValueZ_fit,
                           p.ValueH_Res, p.ValueV_Res, p.ValueZ_Res};
        for (int c = 0; c < 9; ++c) t(r, c + 4) = Value(Through(v[c] / 1000.0, "#######0.0000000000"));
    });
    SetStatusText("Done.");
    return t;
}

}  // namespace zorv

namespace zorv {

namespace {

std::vector<cField*> LiveFields(cWafer& w) {
    std::vector<cField*> out;
    for (cField* f : w.Fields())
        if (!f->cull()) out.push_back(f);
    return out;
}

}  // namespace

void RemoveComponents(cLot& lot, const std::vector<cField*>& fields, bool onWafer, const FocusComponents& c) {
    if (!c.any()) return;
    for (int k = 0; k < 2; ++k) {
        if ((k == 0 && !c.v) || (k == 1 && !c.h)) continue;
        std::vector<double> x, y;
        std::vector<cPoint*> pts;
        for (cField* f : fields)
            for (cSite* s : f->sites()) {
                if (s->cull()) continue;
                const double X = onWafer ? s->LocationXabs / 1000.0 : (s->LocationX + lot.SiteXoffset) / 1000.0;
                const double Y = onWafer ? s->LocationYabs / 1000.0 : (s->LocationY + lot.SiteYoffset) / 1000.0;
                for (cPoint* pt : s->Points()) {
                    if (pt->cull()) continue;
                    x.insert(x.end(), {X, Y, X * X + Y * Y});
                    y.push_back((k == 0 ? pt->ValueV : pt->ValueH) / 1000.0);
                    pts.push_back(pt);
                }
            }
        const FocusModel m = Fit(x, y, 3, 2);
        if (!m.ok) continue;
        for (size_t i = 0; i < pts.size(); ++i) {
            double off = 0;
            if (c.piston) off += m.piston;
            if (c.tilt) off += m.tiltX * x[i * 3] + m.tiltY * x[i * 3 + 1];
            if (c.curvature) off += m.curvature * x[i * 3 + 2];
            float& v = k == 0 ? pts[i]->ValueV : pts[i]->ValueH;
            v = static_cast<float>(v - 1000 * off);
        }
    }
    for (cField* f : fields)
        for (cSite* s : f->sites())
            for (cPoint* pt : s->Points()) pt->ValueZ = (pt->ValueV + pt->ValueH) / 2;
}

Datam GetFocusData(cLot& lot, const FocusComponents& wafer, const FocusComponents& field, std::string* description) {
    SetStatusText("Update selected focus values ....");
    auto words = [](const FocusComponents& c) {
        std::string s;
        if (c.piston) s.append("Piston ");
        if (c.tilt) s.append("Tilt ");
        if (c.curvature) s.append("Curvature ");
        return s;
    };
    if (description) {
        *description = wafer.any() ? "Wafer: " + words(wafer) : std::string("Wafer: All but Piston. ");
        description->append(field.any() ? "Field: " + words(field) : std::string("Field: All"));
    }
    long i = 0, n = 0;
    for (cWafer* w : lot.Wafers()) n += w->cull() ? 0 : static_cast<long>(LiveFields(*w).size());
    for (cWafer* w : lot.Wafers()) {
        if (w->cull()) continue;
        const std::vector<cField*> fields = LiveFields(*w);
        RemoveComponents(lot, fields, true, wafer);
        for (cField* f : fields) {
            SetStatusText("Update selected elements: " + std::to_string(++i) + " of " + std::to_string(n));
            RemoveComponents(lot, {f}, false, field);
        }
    }
    return MakeFocusData(lot);
}

Result<FocusAberrationReport> ModelFocusAberrations(cLot& lot, const FocusAberrationControls& c, Workbook* saveTo) {
    Proc p("frmAnalysis(ModelFocusAberrations): ");
    SetStatusText("Data setup for model ...");
    FocusAberrationReport out;
    std::string& d = out.description;
    auto features = [&] {
        std::string f;
        if (c.removeV) f.append(" Vertical,");
        if (c.removeH) f.append(" Horiz,");
        return f;
    };
    d.append("Data Removal,").append(" Data Model setup: ");
    if (!c.piston && !c.tilt && !c.curvature) d.append("RawData: ");
    if (c.piston) d.append("Piston: ").append(features());
    if (c.tilt) d.append("Tilt: ").append(features());
    if (c.curvature) d.append("Curvature: ").append(features());

    p.chk = 1;
    if (c.waferModel) {
        SetStatusText("Wafer model setup ...");
        TiltBowSetup s;
        s.terms = c.waferTerms;
        auto tb = CalcWaferTiltBow(lot, s);
        if (!tb) return tb.failure();
        out.waferReport = tb->report;
        SetStatusText("Wafer model complete");
        if (Status st = SaveSheet(saveTo, out.waferReport, "WaferAberrations", "Wafer tilt & bow of " + lot.LotName,
                                  "Modeled wafer tilt & bow. ");
            !st)
            return st.failure();
    }

    p.chk = 2;
    const FocusComponents wafer{c.removeV, c.removeH, c.piston, c.tilt, c.curvature};
    const bool remove = wafer.any();
    if (remove) {
        for (cWafer* w : lot.Wafers())
            if (!w->cull()) RemoveComponents(lot, LiveFields(*w), true, wafer);
        if (saveTo) {
            const Datam data = MakeFocusData(lot);
            std::string t = "Modeled Field removed: ";
            if (Status st = SaveSheet(saveTo, data, "FieldRemoval", t.append(d).append(" from dataset. "), "Modeled Field removed: "); !st)
                return st.failure();
        }
    }

    p.chk = 3;
    SetStatusText("Setup collapsed field data ...");
    SetStatusText("Field model ...");
    auto fields = PerField(lot, 0);
    const char* head[] = {"Wafer", "Field", "Focus (um)", "FocusSE (um)", "Xtilt(urad)", "XtiltSE(urad)",
                          "Ytilt(urad)", "YtiltSE(urad)", "Curv(nm/cm2)", "CurvSE(nm/cm2)", "SEresiduals(um)"};
    Datam* tabs[] = {&out.xModel, &out.yModel, &out.meanModel};
    for (Datam* t : tabs) {
        *t = Datam(static_cast<int>(fields.size()) + 1, 11, 0, 0);
        for (int col = 0; col < 11; ++col) (*t)(0, col + 1) = Value(head[col]);
    }
    int n = 0;
    for (size_t i = 0; i < fields.size(); ++i) {
        SetStatusText("Model Field " + std::to_string(i + 1) + " of " + std::to_string(fields.size()));
        const auto& [f, pts] = fields[i];
        if (pts.size() < 5) continue;
        ++n;
        for (int k = 0; k < 3; ++k) {
            Datam& t = *tabs[k];
            t(n, 1) = Value(f->ParentWafer() ? f->ParentWafer()->KeyName : std::string());
            t(n, 2) = Value(f->NumberKey);
            const Datam w = WholeFieldTable(WholeFieldModel(pts, k));
            for (int col = 1; col <= 9; ++col) t(n, col + 2) = w(1, col);
        }
    }
    if (n == 0) return p.fail(" No data values were input.");
    for (Datam* t : tabs) {
        t->redimPreserve(n + 1, 11);
        (*t)(n + 1, 0) = Value("MEAN");
        for (int col = 3; col <= 11; ++col) {
            RcMoments m;
            for (int r = 1; r <= n; ++r)
                if (!IsBlank((*t)(r, col))) m.add((*t)(r, col).toDouble());
            if (m.n) (*t)(n + 1, col) = Value(Shown(RcFinish(m).mean));
        }
    }
    SheetRows sheet;
    const char* titles[] = {"XModel(Slit):", "YModel(Scan):", "MeanModel:"};
    for (int k = 0; k < 3; ++k) sheet.titled(titles[k], *tabs[k]);
    if (Status st = SaveSheet(saveTo, sheet.done(), "Field_RC_Aberrrations", "Modeled Values: " + d, "Modeled Values: "); !st)
        return st.failure();
    return out;
}

}  // namespace zorv
