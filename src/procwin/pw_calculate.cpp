// PWcalculate: the opening stage every analysis shares (report head, culls,
// working table, titles), the five analyses and the closing stages.
//
// One Run holds what the original kept in module variables for the length of
// a call: the scan ranges (widened ranges stay in force for later limits and
// features), the working table, the report rows and the chart being built.
#include "procwin/pw_calculate.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/format.h"
#include "base/marks.h"
#include "base/regional.h"
#include "base/report.h"
#include "base/text.h"
#include "graphics/chart.h"
#include "lot/lot.h"
#include "model/lot_fit.h"
#include "numerics/equation.h"
#include "numerics/lsq.h"
#include "numerics/matrix.h"
#include "procwin/pw_charts.h"
#include "procwin/pw_fit.h"
#include "procwin/pw_geometry.h"
#include "stats/cull.h"
#include "workbook/workbook_ops.h"

namespace zorv {

namespace {

constexpr const char* kCrLf = "\r\n";
constexpr const char* kStr2022 =
    "No process variables have been selected for analysis. Please access the \"Setup\" tab.";
constexpr const char* kStr2023 = "There is only one focus value for this data set.";
constexpr const char* kStr2024 = "The is only one Dose value for this data set.";
constexpr const char* kStr2025 =
    "There is not enough Exposure and/or Focus variation to calculate a process window.";

Value L(long v) {
    return Value(static_cast<int32_t>(v));
}

// A number written through a display pattern and read back: the tables carry
// the value as shown, as a number.
Value Num(double v, std::string_view pattern) {
    const std::string t = Format(v, pattern);
    double d = 0;
    if (ParseNumber(t, d)) return Value(d);
    return Value(t);
}

bool IsSticky(std::string_view key) {
    return key == kDoseBF || key == kFocus || key == kDose;
}

// The report sheet: 500 rows by 21 columns to start, grown as needed.
class ReportTable {
  public:
    ReportTable() : t_(500, 21, 1, 1) {}
    // The next row; cells from column `col` on.
    int line(std::initializer_list<Value> cells, int col = 1) {
        ++row_;
        int c = col;
        for (const Value& v : cells) put(row_, c++, v);
        return row_;
    }
    void put(int r, int c, const Value& v) {
        if (r > t_.rowUb()) t_.redimPreserve(std::max(r, t_.rowUb() + 500), 21);
        if (c >= 1 && c <= 21) t_(r, c) = v;
        used_ = std::max(used_, r);
    }
    void blank() { ++row_; }
    int row() const { return row_; }
    const Value& get(int r, int c) const { return t_.get(r, c); }
    Datam table() const {
        Datam out = t_;
        out.redimPreserve(std::max(used_, 1), 21);
        return out;
    }

  private:
    Datam t_;
    int row_ = 0, used_ = 0;
};

struct Variable {
    std::string name;
    int col = 0;  // in the working table
    double tcl = 0, ucl = 0, lcl = 0;
};

// A run of rows of a table (data rows, inclusive).
struct Span {
    int first = 0, last = 0;
    int size() const { return last - first + 1; }
};

// The x values (column xCol) and the feature values of a group's rows that
// hold a number.
void GroupValues(const Datam& t, const Span& g, int xCol, int zCol, std::vector<double>& xs, std::vector<double>& zs) {
    for (int r = g.first; r <= g.last; ++r) {
        double zv;
        if (IsBlank(t(r, zCol)) || !NumericOf(t(r, zCol), zv)) continue;
        xs.push_back(t(r, xCol).toDouble());
        zs.push_back(zv);
    }
}

// Rows of a table under its header row 0.
Datam Rows(const Datam& t, int first, int last) {
    Datam out(last - first + 1, t.colUb(), 0, t.colLb());
    for (int c = t.colLb(); c <= t.colUb(); ++c) out(0, c) = t(0, c);
    for (int r = first; r <= last; ++r)
        for (int c = t.colLb(); c <= t.colUb(); ++c) out(r - first + 1, c) = t(r, c);
    return out;
}

// Runs of equal keys in a sorted column.
std::vector<Span> Runs(const Datam& t, int col) {
    std::vector<Span> out;
    for (int r = 1; r <= t.rowUb(); ++r) {
        if (!out.empty() && CompareKeys(t(r, col), t(out.back().last, col)) == 0)
            out.back().last = r;
        else
            out.push_back({r, r});
    }
    return out;
}

// Distinct values of a column at 6 decimals.
int DistinctCount(const Datam& t, int col) {
    std::set<long long> s;
    for (int r = 1; r <= t.rowUb(); ++r) {
        double v;
        if (NumericOf(t(r, col), v)) s.insert(std::llround(v * 1e6));
    }
    return static_cast<int>(s.size());
}

// The smallest step between the sorted distinct values of column 1 (or of
// the values given), 0 with fewer than two.
double StepOf(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    v.erase(
        std::unique(v.begin(), v.end(), [](double a, double b) { return std::fabs(a - b) < 1e-9; }),
        v.end());
    double step = 0;
    for (size_t i = 1; i < v.size(); ++i) {
        const double d = v[i] - v[i - 1];
        if (step == 0 || d < step) step = d;
    }
    return step;
}
std::vector<double> Column(const Datam& t, int col) {
    std::vector<double> v;
    if (!t.isArray() || t.dims() != 2) return v;
    for (int r = std::max(t.rowLb(), 1); r <= t.rowUb(); ++r) {
        double x;
        if (t.inRange(r, col) && NumericOf(t(r, col), x)) v.push_back(x);
    }
    return v;
}

double Mean(const std::vector<double>& v) {
    double s = 0;
    for (double x : v) s += x;
    return v.empty() ? 0 : s / static_cast<double>(v.size());
}
double Range(const std::vector<double>& v) {
    if (v.empty()) return 0;
    const auto [lo, hi] = std::minmax_element(v.begin(), v.end());
    return *hi - *lo;
}
double MinOf(const std::vector<double>& v) {
    return v.empty() ? 0 : *std::min_element(v.begin(), v.end());
}

double Coef(const Datam& c, int i) {
    return c.isArray() && c.inRange(i, VecCol(c)) ? c(i, VecCol(c)).toDouble() : 0.0;
}
int CoefCount(const Datam& c) {
    return c.isArray() ? c.rowUb() : 0;
}

// The surface equation evaluated with its D and F slots.
class Surface7 {
  public:
    explicit Surface7(const std::string& text) : eq_(text) {
        d_ = eq_.VarSlot("d");
        f_ = eq_.VarSlot("f");
    }
    double at(double d, double f) {
        eq_.SetSlot(d_, d);
        eq_.SetSlot(f_, f);
        return eq_.Solution();
    }

  private:
    clsEquation eq_;
    int d_ = 0, f_ = 0;
};

double Poly(const Datam& c, double x) {
    double y = 0;
    for (int i = CoefCount(c); i >= 1; --i) y = y * x + Coef(c, i);
    return y;
}

class Run {
  public:
    Run(const PWSetup& setup, PWState& state, PWReport& out, const Datam& focusValues,
        const Datam& doseValues)
        : s_(setup), state_(state), out_(out), focusValues_(focusValues), doseValues_(doseValues) {}

    Result<std::shared_ptr<cLot>> go(cLot& lot, bool updateCulls);
    bool escaped() const { return escaped_; }

  private:
    // ---- messages and status
    Failure fail(const std::vector<std::string>& lines) {
        std::string m;
        for (const std::string& l : lines) m += (m.empty() ? "" : kCrLf) + l;
        return p_.fail(m);
    }
    Failure inner(const Failure& f) { return fail({f.tag + f.text}); }
    // The surface of one variable over a site's rows. False ends this site's
    // variables: Esc (noted) or no fit.
    Result<bool> siteSurface(const Datam& sub, const Variable& v, const PWFitLimits& limits, PWSurfaceFit& out) {
        Result<PWSurfaceFit> pw = PWfit(sub, v.col, limits);
        if (!pw) return pw.failure();
        if (pw->escaped) {
            escaped_ = true;
            return false;
        }
        if (!pw->c.isArray()) return false;
        out = std::move(pw.value());
        return true;
    }
    void status(const std::string& text) {
        SetStatusText(text);
        out_.status.push_back(text);
    }
    bool escape() {
        if (!escaped_ && CheckEscKey()) escaped_ = true;
        return escaped_;
    }

    // ---- stages
    void head(const cLot& lot);
    void replaceChart();
    [[nodiscard]] Status removeModels();
    [[nodiscard]] Status updateCulls();
    [[nodiscard]] Status buildWorking();
    void setRanges();
    [[nodiscard]] Status saveSheet(const Datam& table, const std::string& name,
                                   const std::string& index, const std::string& title = {});
    [[nodiscard]] Status doDose();
    [[nodiscard]] Status doFocus();
    [[nodiscard]] Status doDoseBF();
    [[nodiscard]] Status doPW();
    [[nodiscard]] Status doIsoFocal();
    [[nodiscard]] Status closing();
    void isoFocalBlock(bool noDoseVariation);
    void isoFocalSummary();

    // ---- helpers
    cGraphic& chart() { return *state_.chart; }
    void title(std::string line) { out_.titleLines.push_back(std::move(line)); }
    Datam siteRows(const Span& g) const { return Rows(work_, g.first, g.last); }
    long siteOf(const Span& g) const { return work_(g.first, 2).toLong(); }
    void addSite(const Variable& v, long site, PWSiteBest b) {
        b.feature = v.name;
        b.site = site;
        const auto it = sitePlace_.find(site);
        if (it != sitePlace_.end()) b.x = it->second.first, b.y = it->second.second;
        out_.best.push_back(std::move(b));
    }
    // A data series and its fit line over a fit table's columns.
    void groupSeries(const Datam& fit, int xFit, int yFit, int xData, int yData,
                     const std::string& label);
    std::string date() const { return FormatDate(now_, "Short Date"); }
    std::string time() const { return FormatDate(now_, "hh:mm"); }

    const PWSetup& s_;
    PWState& state_;
    PWReport& out_;
    const Datam& focusValues_;
    const Datam& doseValues_;
    Proc p_{"PWcommon(PWcalculate): "};
    std::shared_ptr<cLot> lot_;
    ReportTable rep_;
    int removedRow_ = 0;  // the report's "Removed:" line, filled once the culls ran
    double now_ = NowSerial();
    bool escaped_ = false;

    std::vector<Variable> vars_;
    Datam data_;  // GetDataMatrix
    Datam work_;  // "Serial", "Site", "Focus", "Dose", variables
    std::vector<Span> sites_;
    std::map<long, std::pair<double, double>> sitePlace_;
    std::string wafer_;
    int nFocus_ = 0, nDose_ = 0;
    double doseLow_ = 0, doseHigh_ = 0, doseStep_ = 0, focusLow_ = 0, focusHigh_ = 0,
           focusStep_ = 0;
    Datam lotFoci_, lotDoses_;  // GetUniqueExposures of the lot as it came
    std::string reportSheet_;
    bool keepX_ = false;
    cAxis oldX_;
    int seriesCount_ = 0;  // data series, for symbols and colours
    Datam statsBlock_;
};

// ---------------------------------------------------------------- opening

void Run::head(const cLot& lot) {
    rep_.line({Value(lot.LotName + " - Critical Feature Process Window")});
    rep_.blank();
    rep_.line({Value("Lot Name:"), Value(lot.LotName)});
    std::string lotDate = lot.DateMeasured;
    if (lotDate.empty() && lot.ProcessDate > 0) lotDate = FormatDate(lot.ProcessDate, "Short Date");
    rep_.line({Value("Lot Date:"), Value(lotDate)});
    rep_.line({Value("Current Date:"), Value(date() + " " + FormatDate(now_, "hh:nn"))});
    rep_.line({Value("Data Culling")});
    rep_.line({Value("...Variable:"), Value(s_.cullVariable)});
    if (!IEquals(s_.cullVariable, "NONE")) {
        rep_.line({Value(".....Max:"), Value(static_cast<double>(s_.cullMax))});
        rep_.line({Value(".....Min:"), Value(static_cast<double>(s_.cullMin))});
        rep_.line({Value("Removed:"), L(s_.removed)});
        removedRow_ = rep_.row();
    }
    rep_.line({Value("...Range:"), Value(static_cast<double>(s_.range))});
    rep_.line({Value("...Sigma:"), Value(static_cast<double>(s_.sigma))});
}

void Run::replaceChart() {
    // The x axis settings survive every analysis; the y axis only between the
    // response analyses, and only when asked to stick.
    if (state_.chart) {
        const cGraphic& old = *state_.chart;
        if (const cAxis* ax = old.Axes.Item("X")) {
            oldX_ = *ax;
            keepX_ = s_.stickyX && ax->HighValue > ax->LowValue;
        }
        const cAxis* ay = old.Axes.Item("Y");
        if (IsSticky(old.KeyName) && ay) {
            state_.yLow = ay->LowValue, state_.yHigh = ay->HighValue;
            state_.yTick = ay->TickInterval > 0 ? ay->TickInterval : ay->UnitsPerTick;
            state_.yFormat = ay->TickFormat;
            state_.stickyAxes = s_.stickyY && state_.yHigh > state_.yLow;
        } else {
            state_.stickyAxes = false;
        }
    }
    state_.chart = std::make_shared<cGraphic>();
    state_.equation.clear();
    chart().KeyName = s_.key;
}

Status Run::removeModels() {
    LensSetup ls;
    ls.name = s_.key.size() > 1 ? s_.key.substr(1) : s_.key;
    // One feature only: the removal reads every other feature raw.
    ls.feature = vars_.empty() ? ePlotFeatureLot : lot_->GetPlotFeature(vars_.front().name);
    if (ls.feature < 0) ls.feature = ePlotFeatureLot;
    ls.removeWafer = s_.waferModelRemoval != 0;
    ls.removeField = s_.fieldModelRemoval != 0;
    if (!s_.waferCoefsPW.empty())
        ls.waferTerms = s_.waferCoefsPW;
    else if (!s_.waferCoefs.empty())
        ls.waferTerms = s_.waferCoefs;
    if (!s_.fieldCoefsPW.empty())
        ls.fieldTerms = s_.fieldCoefsPW;
    else if (!s_.fieldCoefs.empty())
        ls.fieldTerms = s_.fieldCoefs;
    ls.rangeCull = s_.range;
    ls.sigma = s_.sigma;
    (void)UpdateLotModel(*lot_, s_);
    status("Removing wafer and field models ...");
    // Its sheets are written here: the removal would save the file, and the
    // caller saves.
    Result<LensResult> r = RemoveLensAberrations(*lot_, ls, nullptr);
    if (!r) return inner(r.failure());
    const std::string tag =
        ls.name + "[" +
        lot_->GetPlotFeatureName(ls.feature == ePlotFeatureLot ? lot_->PlotFeature() : ls.feature) +
        "]";
    if (r->lot) lot_ = r->lot;
    const std::string note = r->notes.size() > 1 ? r->notes.front() : std::string();
    auto name = [](const std::string& raw) {
        std::string n = FixSheetName(Replace(raw, " ", ""));
        while (!n.empty() && n.front() == '\'') n.erase(n.begin());
        while (!n.empty() && n.back() == '\'') n.pop_back();
        return n;
    };
    if (ls.removeWafer)
        if (Status st = saveSheet(r->waferModel, name("WaferPWModel_" + tag),
                                  "PW Wafer errors removed. ", note);
            !st)
            return st;
    if (ls.removeField)
        if (Status st = saveSheet(r->fieldModel, name("FieldPWModel_" + tag),
                                  "PW Field Aberrations removed. ", note);
            !st)
            return st;
    return StatusOk();
}

Status Run::updateCulls() {
    status("Update of lot culls ...");
    CullSetup c;
    if (s_.focusHigh > s_.focusLow) c.focusMin = s_.focusLow, c.focusMax = s_.focusHigh;
    if (s_.doseHigh > s_.doseLow && s_.doseHigh < 999 && s_.doseLow > -999)
        c.doseMin = s_.doseLow, c.doseMax = s_.doseHigh;
    auto list = [](const std::string& text, const Datam& sel, std::vector<double>& to) {
        if (text.empty() || IContains(text, "ALL")) return true;
        to = Column(sel, sel.isArray() ? VecCol(sel) : 1);
        if (to.empty()) {
            Datam v = String2Vector(text);
            to = Column(v, 1);
        }
        return to.empty();
    };
    c.allFocus = list(s_.focusText, s_.focusSelection, c.focusList);
    c.allDose = list(s_.doseText, s_.doseSelection, c.doseList);
    c.dataCullVariable = s_.cullVariable;
    c.dataMax = s_.cullMax, c.dataMin = s_.cullMin;
    Result<int> r = UpdatePWLotCulls(*lot_, c, &out_.removed);
    if (!r || *r < 1) {
        std::vector<std::string> m{"Lot cull update failure."};
        if (!r) m.push_back(r.failure().tag + r.failure().text);
        return fail(m);
    }
    if (removedRow_ > 0) rep_.put(removedRow_, 2, L(out_.removed));
    // The sites selected stay; the others are culled.
    UpdatePWsites2Lot(*lot_, s_);
    if (lot_->TotalPoints(nullptr, true) < 1)
        return fail({"No data selected for display.", "Please check your field site exclusions."});
    return StatusOk();
}

Status Run::buildWorking() {
    status("Setting up graph limits...");
    data_ = lot_->GetDataMatrix(0, true, true);
    if (!data_.isArray())
        return fail({"No data selected for display.", "Please check your field site exclusions."});
    const int famCol = FindColumn(data_, Value("Family"), 0);
    const int serialCol = FindColumn(data_, Value("Serial"), 0),
              siteCol = FindColumn(data_, Value("Site"), 0);
    const int focusCol = FindColumn(data_, Value("Focus"), 0),
              doseCol = FindColumn(data_, Value("Dose"), 0);
    // Feature cells: a line-width lot writes 0 where nothing was measured;
    // the missing mark is no value either.
    for (int r = 1; r <= data_.rowUb(); ++r)
        for (int c = 6; c < famCol; ++c) {
            const Value& v = data_(r, c);
            if (!v.isNumberType()) continue;
            const double x = v.toDouble();
            if ((lot_->LineWidthType && x == 0) || IsMissingTol(x)) data_(r, c) = Value();
        }

    status("Initial sort by site location...");
    vars_.clear();
    const Datam& vt = s_.variables;
    for (int r = 1; vt.isArray() && r <= vt.rowUb(); ++r) {
        const std::string name = vt.get(r, 1).toString();
        if (Trim(name).empty()) continue;
        Variable v;
        v.name = name;
        v.tcl = vt.get(r, 2).toDouble(), v.ucl = vt.get(r, 3).toDouble(),
        v.lcl = vt.get(r, 4).toDouble();
        int col = FindColumn(data_, Value(name), 0);
        if (col < 1) col = FindColumn(data_, Value(Replace(name, " ", "_")), 0);
        if (col < 1) col = FindColumn(data_, Value(Replace(Replace(name, " ", "_"), "_", "")), 0);
        if (col < 1) {
            std::vector<std::string> m{"Could not locate variable: '" + name + "' in dataset.",
                                       "Headers:"};
            for (int c = 5; c <= data_.colUb(); ++c)
                m.push_back("  " + std::to_string(c) + ":" + data_(0, c).toString());
            return fail(m);
        }
        v.col = col;
        vars_.push_back(v);
    }
    const int nv = static_cast<int>(vars_.size());
    Datam w(data_.rowUb(), 4 + nv, 0, 0);
    w(0, 1) = Value("Serial"), w(0, 2) = Value("Site"), w(0, 3) = Value("Focus"),
         w(0, 4) = Value("Dose");
    for (int k = 0; k < nv; ++k) w(0, 5 + k) = Value(vars_[static_cast<size_t>(k)].name);
    auto round6 = [](const Value& v) { return Value(std::round(v.toDouble() * 1e6) / 1e6); };
    for (int r = 1; r <= data_.rowUb(); ++r) {
        w(r, 1) = data_(r, serialCol);
        w(r, 2) = data_(r, siteCol);
        w(r, 3) = round6(data_(r, focusCol));
        w(r, 4) = round6(data_(r, doseCol));
        for (int k = 0; k < nv; ++k) w(r, 5 + k) = data_(r, vars_[static_cast<size_t>(k)].col);
        const long site = data_(r, siteCol).toLong();
        if (!sitePlace_.count(site))
            sitePlace_[site] = {data_(r, 4).toDouble(), data_(r, 5).toDouble()};
    }
    for (int k = 0; k < nv; ++k) vars_[static_cast<size_t>(k)].col = 5 + k;
    if (data_.rowUb() >= 1) wafer_ = data_(1, 1).toString();
    // The worksheet sort takes the large tables.
    Notes notes;
    work_ = w.rowUb() < 500 ? mat_sort(w, 2, false, nullptr, &notes)
                            : mat_SheetSort(w, 2, false, nullptr, &notes);
    if (!work_.isArray())
        return notes.failure ? inner(*notes.failure) : fail({"Sort of the data failed."});
    // Esc stops the sort's walk and leaves the rest in place: the table is
    // then no basis for anything.
    for (int r = 2; r <= work_.rowUb() && !escaped_; ++r)
        if (work_(r, 2).toDouble() < work_(r - 1, 2).toDouble()) escaped_ = true;
    if (escaped_) return fail({"Analysis stopped (Esc)."});
    sites_ = Runs(work_, 2);
    nFocus_ = DistinctCount(work_, 3);
    nDose_ = DistinctCount(work_, 4);
    out_.working = work_;
    out_.focusCount = nFocus_, out_.doseCount = nDose_;
    return StatusOk();
}

void Run::setRanges() {
    const std::vector<double> f = Column(work_, 3), d = Column(work_, 4);
    const auto [fLo, fHi] = f.empty() ? std::pair{0.0, 0.0}
                                      : std::pair{MinOf(f), *std::max_element(f.begin(), f.end())};
    const auto [dLo, dHi] = d.empty() ? std::pair{0.0, 0.0}
                                      : std::pair{MinOf(d), *std::max_element(d.begin(), d.end())};
    if (s_.focusHigh > s_.focusLow)
        focusLow_ = s_.focusLow, focusHigh_ = s_.focusHigh;
    else
        focusLow_ = fLo, focusHigh_ = fHi;
    // 999 and -999 are the seeds of a setup that never saw a dose list.
    if (s_.doseHigh > s_.doseLow && s_.doseHigh < 999 && s_.doseLow > -999)
        doseLow_ = s_.doseLow, doseHigh_ = s_.doseHigh;
    else
        doseLow_ = dLo, doseHigh_ = dHi;
    // Steps: the setup's, else the exposure lists' (the caller's, or the
    // lot's own), else the data's.
    focusStep_ = s_.focusStep > 0 ? s_.focusStep : StepOf(Column(focusValues_, 1));
    if (!(focusStep_ > 0)) focusStep_ = StepOf(Column(lotFoci_, 1));
    if (!(focusStep_ > 0)) focusStep_ = StepOf(f);
    doseStep_ = s_.doseStep > 0 ? s_.doseStep : StepOf(Column(doseValues_, 1));
    if (!(doseStep_ > 0)) doseStep_ = StepOf(Column(lotDoses_, 1));
    if (!(doseStep_ > 0)) doseStep_ = StepOf(d);
}

Status Run::saveSheet(const Datam& table, const std::string& name, const std::string& index,
                      const std::string& title) {
    if (!s_.workbook || !table.isArray()) return StatusOk();
    SaveArrayOptions o;
    o.title = title;
    o.save = false;
    if (Status st = SaveArray(table, name, s_.workbook, o); !st) return inner(st.failure());
    if (Status st = AddIndexItem(s_.workbook, name, index, Value(), false); !st)
        return inner(st.failure());
    out_.sheets.push_back(name);
    return StatusOk();
}

void Run::groupSeries(const Datam& fit, int xFit, int yFit, int xData, int yData,
                      const std::string& label) {
    // The block: fit x, fit y, data x, data y.
    Datam b(fit.rowUb(), 4, 0, 0);
    const int cols[4] = {xFit, yFit, xData, yData};
    for (int r = 0; r <= fit.rowUb(); ++r)
        for (int k = 0; k < 4; ++k) b(r, k + 1) = fit(r, cols[k]);
    const int base = PWChartAddColumns(chart(), b);
    if (base < 0) return;
    ++seriesCount_;
    const int symbol = seriesCount_ > 1 ? static_cast<int>(std::lround(seriesCount_ / 6.0)) : 0;
    const Color color = cGraphic::GetPlotColors(seriesCount_ - 1);
    cSeries& data = chart().Series.Add(label);
    data.Xcol = base + 2, data.Ycol = base + 3;
    data.Connect = false;
    data.Symbol = static_cast<SymbolShape>(1 + symbol % (kSymbolShapes - 1));
    data.ColorFore = color;
    cSeries& line = chart().Series.Add();
    line.Xcol = base, line.Ycol = base + 1;
    line.SymbolDisplay = false;
    line.ColorFore = color;
}

void Run::isoFocalBlock(bool noDoseVariation) {
    rep_.blank();
    rep_.line({Value("IsoFocal Dose:")});
    rep_.line({Value("Variable"), Value("Site"), Value("Dose (mj/cm^2)"), Value("Feature")});
    if (noDoseVariation) {
        rep_.line({Value("No Dose Variation")});
        return;
    }
    for (const PWIsoFocal& i : out_.isoFocal)
        rep_.line({Value(i.feature), L(i.site), Num(i.dose, "####0.00"), Num(i.value, "0.000")});
}

// ---------------------------------------------------------------- kDose

Status Run::doDose() {
    p_.chk = 20;
    if (nDose_ < 2) return fail({kStr2024});
    const int nv = static_cast<int>(vars_.size());
    // Result table: two header rows, a row per focus group.
    const char* h1[] = {"Feature", "Focus", "Site", "Offset", "Slope", "Residuals", "Target",
                        "Dose",    "Dose",  "",     "Target", "UCL",   "LCL"};
    const char* h2[] = {"",         "",          "", "",   "", "Sigma", "Dose",
                        "Latitude", "%Latitude", "", "CD", "", ""};
    Datam res(2 + static_cast<int>(work_.rowUb()), 13, 1, 1);
    for (int c = 1; c <= 13; ++c) res(1, c) = Value(h1[c - 1]), res(2, c) = Value(h2[c - 1]);
    int rr = 2;
    Datam summary(static_cast<int>(sites_.size()) * nv + 2, 6, 1, 1);
    const char* s1[] = {"Feature", "Site", "Best", "Best", "Dose", "Dose"};
    const char* s2[] = {"", "", "Dose", "Focus", "Latitude", "%Latitude"};
    for (int c = 1; c <= 6; ++c) summary(1, c) = Value(s1[c - 1]), summary(2, c) = Value(s2[c - 1]);
    int sr = 2;
    const PWFitLimits limits{s_.range, s_.sigma};
    const double mid = (doseLow_ + doseHigh_) / 2;

    for (const Span& g : sites_) {
        if (escape()) break;
        const long site = siteOf(g);
        const Datam sub = siteRows(g);
        for (const Variable& v : vars_) {
            if (escape()) break;
            p_.chk = 21;
            PWSurfaceFit fitted;
            const Result<bool> fittedOk = siteSurface(sub, v, limits, fitted);
            if (!fittedOk) return inner(fittedOk.failure());
            const PWSurfaceFit* pw = &fitted;
            if (!*fittedOk) break;  // ends this site
            state_.equation = pw->equation;
            Surface7 z(pw->equation);
            double iso = 0;
            if (IsoFocalDose(pw->c, false, iso)) {
                iso = Num(iso, "####0.00").toDouble();
                out_.isoFocal.push_back({v.name, site, iso, Num(z.at(iso, 0), "0.000").toDouble()});
            }
            // Focus groups of at least two values; a lone value is left out.
            const Datam byFocus = sub.rowUb() > 1 ? mat_sort(sub, 3) : sub;
            const int firstRow = rr + 1;
            for (const Span& fg : Runs(byFocus, 3)) {
                if (escape()) break;
                std::vector<double> ds, zs;
                GroupValues(byFocus, fg, 4, v.col, ds, zs);
                if (zs.size() < 2) continue;
                p_.chk = 22;
                const double focus = byFocus(fg.first, 3).toDouble();
                const int n = static_cast<int>(zs.size());
                Datam fit(std::max(40, n), 5, 0, 0);
                const char* fh[] = {"FitFocus", "Dose", "", "Orig_Dose", "", "Residual"};
                for (int c = 0; c <= 5; ++c) fit(0, c) = Value(fh[c]);
                fit(0, 2) = Value(v.name);
                fit(0, 4) = Value("Orig_" + v.name);
                const double step = (doseHigh_ - doseLow_) / 40;
                Datam c;
                double holder = 0;
                if (s_.surfaceAlgorithm) {
                    for (int i = 1; i <= 40; ++i) {
                        const double d = doseLow_ + (i - 1) * step;
                        fit(i, 0) = Value(focus), fit(i, 1) = Value(d),
                               fit(i, 2) = Value(z.at(d, focus));
                    }
                    for (int k = 0; k < n; ++k) {
                        fit(k + 1, 3) = Value(ds[static_cast<size_t>(k)]);
                        fit(k + 1, 4) = Value(zs[static_cast<size_t>(k)]);
                        fit(k + 1, 5) = Value(zs[static_cast<size_t>(k)] -
                                              z.at(ds[static_cast<size_t>(k)], focus));
                    }
                    holder = mat_rcstat1(fit, "STDEV", 5);
                    Notes notes;
                    const CurveFit cf = FitCurve(fit, 1, 2, 1, &notes);
                    if (!cf.coef.isArray())
                        return notes.failure ? inner(*notes.failure) : fail({"Dose fit failed."});
                    c = cf.coef;
                } else {
                    const Datam grp = Rows(byFocus, fg.first, fg.last);
                    Result<PWCurveFit> df = DoseFit(grp, 4, v.col, limits);
                    if (!df) return inner(df.failure());
                    c = df->c;
                    holder = df->chiSquare;
                    for (int i = 1; i <= 40; ++i) {
                        const double d = doseLow_ + (i - 1) * step;
                        fit(i, 0) = Value(focus), fit(i, 1) = Value(d),
                               fit(i, 2) = Value(Poly(c, d));
                    }
                    for (int k = 0; k < n; ++k) {
                        const double d = ds[static_cast<size_t>(k)];
                        fit(k + 1, 3) = Value(d), fit(k + 1, 4) = Value(zs[static_cast<size_t>(k)]);
                        fit(k + 1, 5) = Value(zs[static_cast<size_t>(k)] - Poly(c, d));
                    }
                }
                groupSeries(fit, 1, 2, 3, 4,
                            "Focus: " + Format(focus, "###0.0#") + " " + v.name +
                                " Site: " + std::to_string(site));

                // Doses at the limits.
                const double c1 = Coef(c, 1), c2 = Coef(c, 2), c3 = Coef(c, 3);
                double T = 0, U = 0, Lo = 0;
                bool have = true;
                if (CoefCount(c) > 2 && c3 != 0) {
                    if (c2 == 0) {
                        T = std::sqrt(std::fabs(v.tcl - c1 / c3));
                        U = std::sqrt(std::fabs(v.ucl - c1 / c3));
                        Lo = std::sqrt(std::fabs(v.lcl - c1 / c3));
                    } else {
                        auto root = [&](double limit, double near) {
                            double x1, x2;
                            GetQuadRoots(c3, c2, c1 - limit, x1, x2);
                            return std::fabs(x1 - near) <= std::fabs(x2 - near) ? x1 : x2;
                        };
                        T = root(v.tcl, mid), U = root(v.ucl, doseHigh_),
                        Lo = root(v.lcl, doseLow_);
                    }
                } else if (c2 != 0) {
                    T = (v.tcl - c1) / c2, U = (v.ucl - c1) / c2, Lo = (v.lcl - c1) / c2;
                } else {
                    have = false;
                }
                ++rr;
                if (rr > res.rowUb()) res.redimPreserve(rr + 50, 13);
                res(rr, 1) = Value(v.name), res(rr, 2) = Value(focus), res(rr, 3) = L(site);
                res(rr, 4) = Num(c1, "###0.###"), res(rr, 5) = Num(c2, "####0.0#####");
                res(rr, 6) = Num(std::sqrt(std::max(holder, 0.0)), "###0.###");
                if (have) {
                    res(rr, 7) = Num(T, "0.000");
                    res(rr, 8) = Num(std::fabs(U - Lo), "0.000");
                    if (T != 0) res(rr, 9) = Num(std::fabs((U - Lo) / T) * 100, "###0.00");
                }
                res(rr, 11) = Value(v.tcl), res(rr, 12) = Value(v.ucl), res(rr, 13) = Value(v.lcl);
            }
            const int lastRow = rr;
            if (lastRow < firstRow) continue;

            // Best focus: the turning point of the target dose against focus.
            p_.chk = 23;
            Datam td(lastRow - firstRow + 1, 4, 0, 0);
            td(0, 1) = Value("Focus"), td(0, 2) = Value("Dose"), td(0, 3) = Value("Latitude"),
                  td(0, 4) = Value("%Latitude");
            for (int r = firstRow; r <= lastRow; ++r) {
                td(r - firstRow + 1, 1) = res(r, 2), td(r - firstRow + 1, 2) = res(r, 7);
                td(r - firstRow + 1, 3) = res(r, 8), td(r - firstRow + 1, 4) = res(r, 9);
            }
            double bestFocus, bestDose;
            int near = td.rowUb();
            if (lastRow > firstRow) {
                const CurveFit cf = FitCurve(td, 1, 2, 2);
                const double x1 = cf.tp[0].x, x2 = cf.tp[1].x;
                bestFocus = x1 != kNoRoot && std::fabs(x1) <= std::fabs(x2) ? x1 : x2;
                bestDose = Poly(cf.coef, bestFocus);
                const int k = mv_FindNearest(bestFocus, td, 1);
                if (k >= 1) near = k;
            } else {
                bestFocus = td(1, 1).toDouble();
                bestDose = td(1, 2).toDouble();
            }
            PWSiteBest b;
            b.bestDose = Num(bestDose, "#0.000").toDouble();
            b.bestFocus = Num(bestFocus, "#0.000").toDouble();
            b.latitude = Num(td(near, 3).toDouble(), "0.000").toDouble();
            b.pctLatitude = Num(td(near, 4).toDouble(), "0.00").toDouble();
            ++sr;
            if (sr > summary.rowUb()) summary.redimPreserve(sr + 20, 6);
            summary(sr, 1) = Value(v.name), summary(sr, 2) = L(site),
                        summary(sr, 3) = Value(b.bestDose);
            summary(sr, 4) = Value(b.bestFocus), summary(sr, 5) = Value(b.latitude),
                        summary(sr, 6) = Value(b.pctLatitude);
            title("Site(" + std::to_string(site) + "): " + v.name + " Best (Focus,Dose): (" +
                  Format(bestFocus, "#0.000") + ", " + Format(bestDose, "#0.000") + ")");
            addSite(v, site, b);
        }
        if (escaped_) break;
    }
    res.redimPreserve(rr, 13);
    summary.redimPreserve(sr, 6);
    out_.doseResponse = res;

    // Report: isofocal doses, the best per site, the feature summary.
    isoFocalBlock(false);
    rep_.blank();
    rep_.line({Value("Summary of Dose Response for Max Dose Latitude by Site")});
    for (int r = 1; r <= sr; ++r)
        rep_.line({summary(r, 1), summary(r, 2), summary(r, 3), summary(r, 4), summary(r, 5),
                   summary(r, 6)});
    statsBlock_ = summary;

    p_.chk = 24;
    Datam fs(nv + 2, 6, 1, 1);
    const char* fh[] = {"Feature",   "BestDose",   "DoseRange",
                        "BestFocus", "FocusRange", "Dose_%Latitude"};
    for (int c = 1; c <= 6; ++c) fs(1, c) = Value(fh[c - 1]);
    std::vector<double> allD, allF, allP;
    int fr = 1;
    for (const Variable& v : vars_) {
        std::vector<double> bd, bf, pl;
        for (const PWSiteBest& b : out_.best)
            if (b.feature == v.name)
                bd.push_back(b.bestDose), bf.push_back(b.bestFocus), pl.push_back(b.pctLatitude);
        if (bd.empty()) continue;
        allD.insert(allD.end(), bd.begin(), bd.end());
        allF.insert(allF.end(), bf.begin(), bf.end());
        allP.insert(allP.end(), pl.begin(), pl.end());
        ++fr;
        fs(fr, 1) = Value(v.name), fs(fr, 2) = Num(Mean(bd), "0.00"),
               fs(fr, 3) = Num(Range(bd), "0.00");
        fs(fr, 4) = Num(Mean(bf), "0.000"), fs(fr, 5) = Num(Range(bf), "0.000"),
               fs(fr, 6) = Num(MinOf(pl), "0.00");
    }
    ++fr;
    fs(fr, 1) = Value("Summary"), fs(fr, 2) = Num(Mean(allD), "0.00"),
           fs(fr, 3) = Num(Range(allD), "0.00");
    fs(fr, 4) = Num(Mean(allF), "0.000"), fs(fr, 5) = Num(Range(allF), "0.000"),
           fs(fr, 6) = Num(MinOf(allP), "0.00");
    fs.redimPreserve(fr, 6);
    out_.featureSummary = fs;
    rep_.blank();
    rep_.line({Value("Feature Summary")});
    for (int r = 1; r <= fr; ++r)
        rep_.line({fs(r, 1), fs(r, 2), fs(r, 3), fs(r, 4), fs(r, 5), fs(r, 6)});
    title(" BestDose:" + Format(fs(fr, 2).toDouble(), "0.00") +
          "   BestFocus:" + Format(fs(fr, 4).toDouble(), "0.000") +
          "   Dose_%Latitude:" + Format(fs(fr, 6).toDouble(), "0.00"));
    if (nv > 1)
        title("BestDoseRange: " + Format(fs(fr, 3).toDouble(), "0.00") +
              "   BestFocusRange:" + Format(fs(fr, 5).toDouble(), "0.000"));

    p_.chk = 25;
    CreateDoseUniformity(out_.doseUniformity, out_.best, wafer_);
    if (Status st =
            saveSheet(res, "DoseResponse", "Modeled Dose Response by Feature & Site " + date());
        !st)
        return st;
    if (Status st = saveSheet(out_.doseUniformity, "DoseUniformity",
                              "Dose & Focus Uniformity for Optimum CD size. " + date());
        !st)
        return st;
    return StatusOk();
}

// ---------------------------------------------------------------- kFocus

Status Run::doFocus() {
    p_.chk = 30;
    if (nFocus_ < 2) return fail({kStr2023});
    const char* h1[] = {"Feature", "Dose",   "Site",  "Best Focus", "Feature",
                        "DoF",     "Offset", "Slope", "Quadratic",  "Residuals",
                        "",        "Target", "UCL",   "LCL"};
    const char* h2[] = {"", "", "", "", "'@BestFocus", "", "", "", "", "Sigma", "", "CD", "", ""};
    Datam res(2 + static_cast<int>(work_.rowUb()), 14, 1, 1);
    for (int c = 1; c <= 14; ++c) res(1, c) = Value(h1[c - 1]), res(2, c) = Value(h2[c - 1]);
    int rr = 2;
    Datam maxDoF(static_cast<int>(sites_.size() * vars_.size()) + 1, 6, 1, 1);
    const char* mh[] = {"Feature", "Site", "Dose", "Best Focus", "DoF", "'@BestFocus"};
    for (int c = 1; c <= 6; ++c) maxDoF(1, c) = Value(mh[c - 1]);
    int mr = 1;
    const PWFitLimits limits{s_.range, s_.sigma};
    const double mid = (focusLow_ + focusHigh_) / 2;
    const double scanStep = ((focusHigh_ - focusLow_) + 2 * focusStep_) / 60;

    for (const Span& g : sites_) {
        if (escape()) break;
        const long site = siteOf(g);
        const Datam sub = siteRows(g);
        for (const Variable& v : vars_) {
            if (escape()) break;
            int count = 0;
            for (int r = 1; r <= sub.rowUb(); ++r) count += !IsBlank(sub(r, v.col));
            if (count < 2) continue;
            p_.chk = 31;
            PWSurfaceFit fitted;
            const Result<bool> fittedOk = siteSurface(sub, v, limits, fitted);
            if (!fittedOk) return inner(fittedOk.failure());
            const PWSurfaceFit* pw = &fitted;
            if (!*fittedOk) break;
            state_.equation = pw->equation;
            Surface7 z(pw->equation);
            double iso = 0;
            if (nDose_ > 1 && IsoFocalDose(pw->c, false, iso)) {
                iso = Num(iso, "####0.00").toDouble();
                out_.isoFocal.push_back(
                    {v.name, site, iso, Num(z.at(iso, 0), "#0.000").toDouble()});
            }
            const Datam byDose = sub.rowUb() > 1 ? mat_sort(sub, 4) : sub;
            const int firstRow = rr + 1;
            for (const Span& dg : Runs(byDose, 4)) {
                if (escape()) break;
                std::vector<double> fs, zs;
                GroupValues(byDose, dg, 3, v.col, fs, zs);
                if (zs.size() < 2) continue;
                p_.chk = 32;
                const double dose = byDose(dg.first, 4).toDouble();
                const int n = static_cast<int>(zs.size());
                Datam fit(std::max(62, n), 7, 0, 0);
                const char* fh[] = {"FitDose", "Focus",    "",    "Orig_Focus",
                                    "",        "Residual", "UCL", "LCL"};
                for (int c = 0; c <= 7; ++c) fit(0, c) = Value(fh[c]);
                fit(0, 2) = Value(v.name);
                fit(0, 4) = Value("Orig_" + v.name);
                fit(1, 0) = Num(dose, "#0.0#");

                Datam c;
                double holder = 0, x1 = kNoRoot, x2 = kNoRoot;
                std::string curve;  // FocusFit's equation in X
                if (!s_.surfaceAlgorithm) {
                    const Datam grp = Rows(byDose, dg.first, dg.last);
                    Result<PWCurveFit> ff = FocusFit(grp, 3, v.col, limits);
                    if (!ff) return inner(ff.failure());
                    if (!ff->c.isArray()) continue;  // fewer than 3 rows
                    c = ff->c;
                    holder = ff->chiSquare;
                    x1 = ff->root1, x2 = ff->root2;
                    if ((x2 == 0 || x2 == kNoRoot) && std::fabs(Coef(c, 3)) > 0)
                        x2 = -Coef(c, 2) / (2 * Coef(c, 3));
                }
                auto at = [&](double f) {
                    return s_.surfaceAlgorithm ? z.at(dose, f) : Poly(c, f);
                };
                // The scan: 61 points from a step below the range to a step above.
                double first = 9999, last = -9999;
                int k = 0;
                for (int i = 1; i <= 61; ++i) {
                    const double f =
                        Num(focusLow_ - focusStep_ + (i - 1) * scanStep, "#0.0000").toDouble();
                    const double zf = at(f);
                    if (f >= focusLow_ && f <= focusHigh_) {
                        ++k;
                        fit(k, 1) = Value(f), fit(k, 2) = Value(zf), fit(k, 6) = Value(v.ucl),
                               fit(k, 7) = Value(v.lcl);
                    }
                    if (v.lcl <= zf && zf <= v.ucl)
                        first = std::min(first, f), last = std::max(last, f);
                }
                for (int j = 0; j < n; ++j) {
                    const double f = fs[static_cast<size_t>(j)];
                    fit(j + 1, 3) = Num(f, "#0.000");
                    fit(j + 1, 4) = Value(zs[static_cast<size_t>(j)]);
                    fit(j + 1, 5) = Value(zs[static_cast<size_t>(j)] - at(f));
                }
                if (s_.surfaceAlgorithm) {
                    holder = mat_rcstat1(fit, "STDEV", 5);
                    Notes notes;
                    const CurveFit cf = FitCurve(fit, 1, 2, 3, &notes);
                    if (!cf.coef.isArray())
                        return notes.failure ? inner(*notes.failure) : fail({"Focus fit failed."});
                    c = cf.coef;
                    x1 = cf.tp[0].x, x2 = cf.tp[1].x;
                }
                groupSeries(fit, 1, 2, 3, 4,
                            "Dose: " + Format(dose, "###0.0#") + " " + v.name +
                                " Site: " + std::to_string(site));

                double bf = x2;
                if (x1 != kNoRoot) bf = std::fabs(x1 - mid) <= std::fabs(x2 - mid) ? x1 : x2;
                const double atBF = at(bf);
                const double dof = first <= last ? last - first : 0;
                ++rr;
                if (rr > res.rowUb()) res.redimPreserve(rr + 50, 14);
                res(rr, 1) = Value(v.name), res(rr, 2) = Value(dose), res(rr, 3) = L(site);
                res(rr, 4) = Num(bf, "#0.000"), res(rr, 5) = Num(atBF, "###0.0###"),
                        res(rr, 6) = Num(dof, "#0.000");
                res(rr, 7) = Num(Coef(c, 1), "###0.###"), res(rr, 8) = Num(Coef(c, 2), "###0.###");
                res(rr, 9) = Num(Coef(c, 3), "###0.###"),
                        res(rr, 10) = Num(std::sqrt(std::max(holder, 0.0)), "###0.###");
                res(rr, 12) = Value(v.tcl), res(rr, 13) = Value(v.ucl), res(rr, 14) = Value(v.lcl);
            }
            const int lastRow = rr;
            if (lastRow < firstRow) continue;
            // The row of the largest DoF of this variable (the first on ties).
            int best = firstRow;
            for (int r = firstRow; r <= lastRow; ++r)
                if (res(r, 6).toDouble() > res(best, 6).toDouble()) best = r;
            PWSiteBest b;
            b.bestDose = res(best, 2).toDouble(), b.bestFocus = res(best, 4).toDouble();
            b.dof = res(best, 6).toDouble(), b.featureAtBestFocus = res(best, 5).toDouble();
            ++mr;
            maxDoF(mr, 1) = Value(v.name), maxDoF(mr, 2) = L(site), maxDoF(mr, 3) = res(best, 2);
            maxDoF(mr, 4) = res(best, 4), maxDoF(mr, 5) = res(best, 6),
                       maxDoF(mr, 6) = res(best, 5);
            title(v.name + "(" + std::to_string(site) + "): " + " Dose: " +
                  Format(b.bestDose, "#0.0") + " BestFocus: " + Format(b.bestFocus, "#0.000"));
            addSite(v, site, b);
        }
        if (escaped_) break;
    }
    res.redimPreserve(rr, 14);
    maxDoF.redimPreserve(mr, 6);
    out_.focusResponse = res;
    statsBlock_ = maxDoF;

    isoFocalBlock(nDose_ < 2);
    rep_.blank();
    rep_.line({Value("Summary of Focus for Maximum DoF")});
    for (int r = 1; r <= mr; ++r)
        rep_.line(
            {maxDoF(r, 1), maxDoF(r, 2), maxDoF(r, 3), maxDoF(r, 4), maxDoF(r, 5), maxDoF(r, 6)});

    p_.chk = 33;
    if (rr >= 4) {
        Result<PWBestFocus> bf = BestFocusCreate(res, out_.best, wafer_);
        if (!bf) return inner(bf.failure());
        out_.bestFocus = *bf;
        const Datam& sm = bf->summary;
        rep_.blank();
        rep_.line({Value("Summary:")});
        for (int r = 1; r <= sm.rowUb(); ++r) {
            rep_.line({});
            for (int c = 1; c <= sm.colUb(); ++c) rep_.put(rep_.row(), c, sm(r, c));
        }
    }
    // RawFocus: the site table without its focus columns.
    const Datam& st = out_.bestFocus.sites;
    if (st.isArray()) {
        std::vector<int> keep;
        for (int c = 1; c <= st.colUb(); ++c)
            if (!IContains(st(1, c).toString(), "FOCUS")) keep.push_back(c);
        Datam raw(st.rowUb(), static_cast<int>(keep.size()), 1, 1);
        for (int r = 1; r <= st.rowUb(); ++r)
            for (size_t k = 0; k < keep.size(); ++k)
                raw(r, static_cast<int>(k) + 1) = st(r, keep[k]);
        out_.rawFocus = raw;
    }
    out_.addDoseBFTab = nDose_ > 1;

    p_.chk = 34;
    if (Status s = saveSheet(res, "FocusResponse", "CD Focus Response " + date() + " " + time());
        !s)
        return s;
    if (Status s = saveSheet(out_.bestFocus.detail, "FocusResponseSum",
                             "Summary of Best Focus by Dose sites: " + s_.siteListText + " ...");
        !s)
        return s;
    if (out_.bestFocus.summary.isArray()) {
        // BestFocusData: the summary over the site table.
        const Datam& sm = out_.bestFocus.summary;
        Datam bfd(sm.rowUb() + 1 + st.rowUb(), std::max(sm.colUb(), st.colUb()), 1, 1);
        for (int r = 1; r <= sm.rowUb(); ++r)
            for (int c = 1; c <= sm.colUb(); ++c) bfd(r, c) = sm(r, c);
        for (int r = 1; r <= st.rowUb(); ++r)
            for (int c = 1; c <= st.colUb(); ++c) bfd(sm.rowUb() + 1 + r, c) = st(r, c);
        if (Status s = saveSheet(bfd, "BestFocusData",
                                 "CD calculated Best Focus ... " + FormatDate(now_, "Medium Date") +
                                     " . " + FormatDate(now_, "Medium Time"));
            !s)
            return s;
        if (Status s = saveSheet(out_.rawFocus, "RawFocus", "Raw Focus from : " + lot_->LotName);
            !s)
            return s;
    }
    return StatusOk();
}

// ---------------------------------------------------------------- kDoseBF

Status Run::doDoseBF() {
    p_.chk = 40;
    if (nDose_ < 2) return fail({kStr2024});
    const std::string feature = vars_.size() == 1 ? vars_.front().name : "Feature";
    out_.titleLines.clear();
    title(feature + " vs Dose at Best Focus");
    title(lot_->LotName);
    title("Data Sheet: 'FocusResponse'");
    title(s_.siteListText);
    title("Lot Date: " + lot_->DateMeasured);
    title("Graph Date: " + date() + " " + time());
    // The focus response as saved, or worked out again when there is no sheet.
    Datam fr;
    if (s_.workbook)
        if (Worksheet* ws = s_.workbook->sheet("FOCUSRESPONSE")) fr = ws->usedRange();
    if (!fr.isArray()) {
        PWSetup fs = s_;
        fs.key = kFocus;
        fs.workbook = nullptr;
        fs.waferModelRemoval = fs.fieldModelRemoval = 0;
        PWState scratch;
        PWReport rep;
        Result<std::shared_ptr<cLot>> r =
            PWcalculate(fs, *lot_, focusValues_, doseValues_, scratch, false, &rep);
        if (!r) return fail({r.failure().text});
        fr = rep.focusResponse;
    }
    p_.chk = 41;
    Result<PWDoseBF> bf = DoseBFgraph(s_, fr, chart(), &out_.titleLines);
    if (!bf) return inner(bf.failure());
    out_.doseBFSummary = bf->summary;
    out_.doseBFByFeature = bf->byFeature;
    for (const PWSiteBest& b : bf->best) out_.best.push_back(b);
    for (auto& b : out_.best) {
        const auto it = sitePlace_.find(b.site);
        if (it != sitePlace_.end()) b.x = it->second.first, b.y = it->second.second;
    }
    auto block = [&](const Datam& t) {
        for (int r = t.rowLb(); r <= t.rowUb(); ++r) {
            rep_.line({});
            for (int c = t.colLb(); c <= t.colUb(); ++c)
                rep_.put(rep_.row(), c - t.colLb() + 1, t(r, c));
        }
    };
    rep_.blank();
    rep_.line({Value("Summary:")});
    block(bf->summary);
    rep_.blank();
    rep_.line({Value("Summary by Feature")});
    block(bf->byFeature);
    statsBlock_ = bf->byFeature;
    return StatusOk();
}

// ---------------------------------------------------------------- kPW

Status Run::doPW() {
    p_.chk = 50;
    if (nFocus_ < 2 || nDose_ < 2) return fail({kStr2025});
    out_.titleLines.clear();
    title("Process Window - Lot: " + lot_->LotName);
    title(s_.title);
    title(s_.siteListText);
    title("   Analysis: " + date() + " " + time());
    p_.chk = 51;
    Result<Datam> grid = PWgridSetup(doseLow_, doseHigh_, doseStep_, focusLow_, focusHigh_,
                                     focusStep_, s_.precision);
    if (!grid) return inner(grid.failure());
    cAxis& ax = chart().Axes.Add("X");
    ax.Label = "Focus";
    ax.TickFormat = "###0.00";
    cAxis& ay = chart().Axes.Add("Y");
    ay.Label = "Dose";
    ay.TickFormat = "###0.0";

    std::vector<std::pair<std::string, Datam>> surfaces;
    const PWFitLimits limits{s_.range, s_.sigma};
    double iso = 0;  // a surface without an isofocal dose keeps the one before
    bool firstIso = true;
    size_t isoLine = 0;
    int lines = 0;
    for (const Span& g : sites_) {
        if (escape()) break;
        const long site = siteOf(g);
        const Datam sub = siteRows(g);
        for (const Variable& v : vars_) {
            if (escape()) break;
            p_.chk = 52;
            PWSurfaceFit fitted;
            const Result<bool> fittedOk = siteSurface(sub, v, limits, fitted);
            if (!fittedOk) return inner(fittedOk.failure());
            const PWSurfaceFit* pw = &fitted;
            if (!*fittedOk) break;
            state_.equation = pw->equation;
            double d = 0;
            if (IsoFocalDose(pw->c, true, d)) iso = d;
            if (firstIso) {
                isoLine = out_.titleLines.size();
                title("Isofocal Dose: " + Format(iso, "####0.00"));
            } else {
                out_.titleLines[isoLine] +=
                    ", " + std::to_string(site) + ": " + Format(iso, "####0.00");
            }
            firstIso = false;
            out_.isoFocal.push_back({v.name, site, Num(iso, "####0.00").toDouble(), 0});

            // The isolines of the limits; a limit off the matrix widens the
            // scan ranges, and they stay wide for what follows.
            p_.chk = 53;
            struct Lim {
                const char* name;
                double value;
                Color color;
                int pen;
            };
            const Lim lims[] = {{"UCL", v.ucl, 0, 1},
                                {"TCL", v.tcl, RGB(255, 0, 0), 2},
                                {"LCL", v.lcl, RGB(0, 0, 255), 1}};
            for (const Lim& lim : lims) {
                PWIsoline il;
                int tries = 0;
                for (int t = 1; t <= 4; ++t) {
                    tries = t;
                    Result<PWIsoline> r = PWcurveFill(pw->c, lim.value, doseLow_, doseHigh_,
                                                      focusLow_, focusHigh_, focusStep_);
                    if (!r) return inner(r.failure());
                    il = *r;
                    if (il.table.isArray() && il.table.rowUb() >= 3) break;
                    if (t == 4) break;
                    const double dr = (doseHigh_ - doseLow_) / 10 * t,
                                 fr = (focusHigh_ - focusLow_) / 10 * t;
                    doseLow_ -= dr, doseHigh_ += dr, focusLow_ -= fr, focusHigh_ += fr;
                }
                const int rows = il.table.isArray() ? il.table.rowUb() : 0;
                if (rows < 3)
                    return fail({"Less than 3 data points are available for surface contour: " +
                                     v.name + " (" + Format(lim.value, "") + ")",
                                 "You have requested a feature size outside of the valid area "
                                 "covered by your Focus and Dose matrix."});
                // The fill runs up from the start, then down: drawn in focus order.
                const int base = PWChartAddColumns(chart(), mat_sort(il.table, 1));
                const Color color = lim.color ? lim.color : cGraphic::GetPlotColors(lines);
                ++lines;
                cSeries& line = chart().Series.Add();
                line.Xcol = base, line.Ycol = base + 1;
                line.SymbolDisplay = false;
                line.ColorFore = color;
                const std::string label =
                    v.name + ",Site: " + std::to_string(site) + "=" + Format(lim.value, "");
                cSeries& fn = chart().Series.Add(label);
                fn.DisplayFunction.setEquation(il.equation);
                fn.Xcol = base;
                fn.DisplayFunctionXlow = focusLow_, fn.DisplayFunctionXhigh = focusHigh_;
                fn.SymbolDisplay = false;
                fn.ColorFore = color;
                fn.nPenWidth = lim.pen;
                int low = 1;
                for (int r = 1; r <= rows; ++r)
                    if (il.table(r, 1).toDouble() < il.table(low, 1).toDouble()) low = r;
                out_.annotations.push_back({v.name + "." + Format(lim.value, ""),
                                            il.table(low, 1).toDouble(),
                                            il.table(low, 2).toDouble()});
                out_.isolines.push_back({v.name, site, lim.name, lim.value, rows, tries - 1,
                                         doseLow_, doseHigh_, focusLow_, focusHigh_, il.equation});
            }

            // The painted grid of the cells within the limits.
            p_.chk = 54;
            Datam painted = *grid;
            long count = 0;
            Result<Datam> sf = PWsurfFill(painted, v.lcl, v.ucl, pw->c, count);
            if (!sf) return inner(sf.failure());
            if (count <= 1)
                return fail({"No valid data points: " + v.name + " site: " + std::to_string(site) +
                             " Value: " + Format(v.tcl, "")});
            const std::string key = v.name + "_" + std::to_string(site);
            surfaces.emplace_back(key, std::move(painted));
            out_.surfaceKeys.push_back(key);
        }
        if (escaped_) break;
    }
    out_.doseLow = doseLow_, out_.doseHigh = doseHigh_, out_.focusLow = focusLow_,
    out_.focusHigh = focusHigh_;

    p_.chk = 55;
    status("Inscribing the process window ...");
    Result<PWInscribed> found = GetInscribe(s_, surfaces, state_);
    if (!found) return inner(found.failure());
    if (s_.workbook) out_.sheets.push_back("ProcessWindowSpace");  // GetInscribe wrote it
    out_.processWindowSpace = state_.processWindowSpace;
    out_.rectangles = found->rectangles;
    out_.scan = found->scan;
    p_.chk = 56;
    Result<Datam> ws =
        CreatePWgraphPost(s_, state_.processWindowSpace, *found, chart(), &out_.titleLines);
    if (!ws) return inner(ws.failure());
    out_.windowSeries = *ws;
    p_.chk = 57;
    out_.expoLatChart = std::make_shared<cGraphic>();
    if (Status st = CreateGraphExpoLat_DOF(s_, state_, found->rectangles, *out_.expoLatChart); !st)
        return inner(st.failure());
    // The window's edges as drawn by the scan.
    const Datam& scan = found->scan;
    if (scan.isArray() && scan.rowUb() >= 1) {
        Datam b(scan.rowUb(), 3, 0, 0);
        for (int r = 0; r <= scan.rowUb(); ++r)
            for (int c = 0; c <= 2; ++c) b(r, c + 1) = scan(r, c);
        const int base = PWChartAddColumns(chart(), b);
        for (int k = 1; k <= 2 && base > 0; ++k) {
            cSeries& e = chart().Series.Add(k == 1 ? "UCL" : "LCL");
            e.Xcol = base, e.Ycol = base + k;
            e.nPenWidth = 2;
            e.SymbolDisplay = false;
        }
    }
    chart().TitleObj.TitleString = PWJoinTitle(out_.titleLines);

    // Report: the rectangle and the ellipse.
    p_.chk = 58;
    const PWInscribed& w = *found;
    out_.haveWindow = true;
    out_.rectFocus = w.rectFocus, out_.rectDose = w.rectDose, out_.rectDoF = w.rectDoF;
    out_.rectExpoLatPct = w.rectExpoLatPct, out_.rectExpoLat = w.rectDose * w.rectExpoLatPct / 100;
    out_.ellipseFocus = w.ellipseFocus, out_.ellipseDose = w.ellipseDose;
    out_.ellipseDoF = 2 * w.ellipseFocusRadius, out_.ellipseExpoLat = 2 * w.ellipseDoseRadius;
    out_.ellipseExpoLatPct = w.ellipseDose != 0 ? 2 * w.ellipseDoseRadius / w.ellipseDose * 100 : 0;
    isoFocalBlock(false);
    rep_.blank();
    rep_.line({Value("____ Results ____")});
    rep_.line({Value("PW Rectangle:")});
    rep_.line({Value("...Best Focus"), Num(out_.rectFocus, "#0.000")});
    rep_.line({Value("...Depth of Focus(DoF)"), Num(out_.rectDoF, "#0.000")});
    rep_.line({Value("...Best Dose"), Num(out_.rectDose, "#0.00")});
    rep_.line({Value("...Dose Latitude"), Num(out_.rectExpoLat, "#0.00")});
    rep_.line({Value("...%Dose Latitude"), Num(out_.rectExpoLatPct, "#0.00")});
    rep_.line({Value("PW Ellipse:")});
    rep_.line({Value("...Best Focus"), Num(out_.ellipseFocus, "#0.000")});
    rep_.line({Value("...Depth of Focus(DoF)"), Num(out_.ellipseDoF, "#0.000")});
    rep_.line({Value("...Best Dose"), Num(out_.ellipseDose, "#0.00")});
    rep_.line({Value("...Dose Latitude"), Num(out_.ellipseExpoLat, "#0.00")});
    rep_.line({Value("...%Dose Latitude"), Num(out_.ellipseExpoLatPct, "#0.00")});
    return StatusOk();
}

// ---------------------------------------------------------------- kIsoFocal

Status Run::doIsoFocal() {
    p_.chk = 60;
    if (nDose_ < 2) return fail({kStr2024});
    out_.titleLines.clear();
    title(s_.title + " IsoFocal Behavior");
    title("Data Sheet: 'IsoFocal Response'");
    Result<PWIsoFocalGraph> g = GraphIsoFocal(s_, work_, chart(), &out_.titleLines);
    if (!g) return inner(g.failure());
    out_.isoFocalTable = g->table;
    out_.isoFocal = g->isoFocal;
    isoFocalBlock(false);
    return StatusOk();
}

// ---------------------------------------------------------------- closing

Status Run::closing() {
    p_.chk = 70;
    cGraphic& g = chart();
    if (g.Series.Count() == 0) return fail({"No data available for plotting."});
    int xcol = -1;
    for (int i = 1; i <= g.Series.Count() && xcol < 0; ++i) xcol = g.Series.Item(i)->Xcol;
    // The limits as horizontal lines: target in red with a wider pen.
    if (s_.showLimits && xcol > 0) {
        const Datam& t = g.Data();
        double xlo = 0;
        bool first = true;
        for (int r = 1; r <= t.rowUb(); ++r) {
            double x;
            if (!NumericOf(t(r, xcol), x)) continue;
            xlo = first ? x : std::min(xlo, x);
            first = false;
        }
        for (const Variable& v : vars_) {
            const std::pair<const char*, double> lims[] = {
                {"TCL", v.tcl}, {"UCL", v.ucl}, {"LCL", v.lcl}};
            for (const auto& [name, value] : lims) {
                const bool target = std::string_view(name) == "TCL";
                const std::string text = v.name + " " + name + "=" + Format(value, "");
                cSeries& c = g.Series.Add(text);
                c.DisplayFunction.setEquation(Format(value, "") + " + 0*X");
                c.Xcol = xcol;
                c.SymbolDisplay = false;
                c.ColorFore = target ? RGB(255, 0, 0) : RGB(0, 128, 0);
                c.nPenWidth = target ? 2 : 1;
                out_.annotations.push_back({text, xlo, value});
            }
        }
    }
    // The y axis: as kept from the last response chart, or from 0 up unless
    // the data may go negative (overlay).
    cAxis& ay = g.Axes.Add("Y");
    if (state_.stickyAxes && IsSticky(s_.key)) {
        ay.LowValue = state_.yLow, ay.HighValue = state_.yHigh;
        ay.TickInterval = state_.yTick;
        ay.TickFormat = state_.yFormat;
        ay.AutoScale = false;
    } else if (lot_->DataSource() != eDataSourceOverlay) {
        std::vector<AutoScaleSeries> cols;
        for (int i = 1; i <= g.Series.Count(); ++i) {
            const cSeries* c = g.Series.Item(i);
            cols.push_back({c->Xcol, c->Ycol, c->Y2col, c->DisplayFunction.Equation()});
        }
        Datam t = g.Data();
        if (Status st = g.Axes.CalcAutoScale(AxisRole::Y, t, cols, g.ChartType, false);
            st && ay.LowValue < 0) {
            ay.LowValue =
                static_cast<float>(mv_Max({Value(0.0), Value(static_cast<double>(ay.LowValue))}));
            ay.AutoScale = false;
        }
    }
    if (keepX_) {
        cAxis& ax = g.Axes.Add("X");
        if (ax.SetStyle(&oldX_)) ax.AutoScale = false;
    }
    if (s_.statistics && statsBlock_.isArray()) g.Stats.RegisterArray(statsBlock_);
    g.TitleObj.TitleString = PWJoinTitle(out_.titleLines);
    status("Plotting graph ...");
    if (g.Container()) {
        if (Status st = g.DrawFigure(); !st) return inner(st.failure());
    }
    status("Done");
    return StatusOk();
}

void Run::isoFocalSummary() {
    if (out_.isoFocal.size() <= 1) return;
    status("IsoFocal Dose Summarization ....");
    rep_.blank();
    rep_.line({Value("Summary")});
    rep_.line({Value("Variable"), Value("DoseMean"), Value("DoseRange"), Value("FeatureMean"),
               Value("FeatureRange")});
    std::vector<double> allD, allZ;
    int rows = 0;
    for (const Variable& v : vars_) {
        std::vector<double> d, z;
        for (const PWIsoFocal& i : out_.isoFocal)
            if (i.feature == v.name) d.push_back(i.dose), z.push_back(i.value);
        if (d.empty()) continue;
        allD.insert(allD.end(), d.begin(), d.end());
        allZ.insert(allZ.end(), z.begin(), z.end());
        rep_.line({Value(v.name), Num(Mean(d), "#0.0"), Num(Range(d), "#0.0"),
                   Num(Mean(z), "#0.000"), Num(Range(z), "#0.000")});
        ++rows;
    }
    if (rows > 1)
        rep_.line({Value("PROCESS"), Num(Mean(allD), "#0.0"), Num(Range(allD), "#0.0"),
                   Num(Mean(allZ), "#0.000"), Num(Range(allZ), "#0.000")});
}

// ---------------------------------------------------------------- the run

Result<std::shared_ptr<cLot>> Run::go(cLot& lot, bool update) {
    out_ = PWReport();
    out_.key = s_.key;
    p_.chk = 1;
    lot_ = lot.clone(true);
    if (!lot_) return fail({"The lot could not be copied for the analysis."});
    head(*lot_);
    status("Analysis underway ...");

    p_.chk = 2;
    long sites = 0;
    std::set<long> siteKeys;
    lot_->forEachLiveSite([&](cWafer&, cField&, cSite& s) {
        ++sites;
        siteKeys.insert(s.NumberKey());
    });
    if (sites < 1)
        return fail({"No data points or field-sites selected after site, focus & dose values",
                     "Please check your site-selection."});
    status("Begin PW Analysis: " + s_.title);

    p_.chk = 3;
    long exposures = 0;
    lotDoses_ = lot_->GetUniqueExposures(exposures, lotFoci_);
    int nv = 0;
    for (int r = 1; s_.variables.isArray() && r <= s_.variables.rowUb(); ++r)
        nv += !Trim(s_.variables.get(r, 1).toString()).empty();
    if (nv < 1) return fail({kStr2022});

    p_.chk = 4;
    replaceChart();
    p_.chk = 5;
    if (siteKeys.empty())
        return fail({"Number of data sites < 1.", "Please check data selections."});
    p_.chk = 6;
    if (s_.waferModelRemoval != 0 || s_.fieldModelRemoval != 0) {
        // The lens removal needs the feature: look it up before the table exists.
        for (int r = 1; r <= s_.variables.rowUb(); ++r) {
            const std::string n = s_.variables.get(r, 1).toString();
            if (!Trim(n).empty()) {
                vars_.push_back({n, 0, 0, 0, 0});
                break;
            }
        }
        if (Status st = removeModels(); !st) return st.failure();
        vars_.clear();
    }
    p_.chk = 7;
    if (update)
        if (Status st = updateCulls(); !st) return st.failure();

    p_.chk = 8;
    if (Status st = buildWorking(); !st) return st.failure();
    setRanges();
    out_.doseLow = doseLow_, out_.doseHigh = doseHigh_, out_.doseStep = doseStep_;
    out_.focusLow = focusLow_, out_.focusHigh = focusHigh_, out_.focusStep = focusStep_;
    out_.points = work_.rowUb();

    p_.chk = 9;
    rep_.blank();
    rep_.line({Value("Exposure Range")});
    rep_.line({Value("...Dose:"), Value(doseLow_), Value(doseHigh_)});
    rep_.line({Value("...Focus:"), Value(focusLow_), Value(focusHigh_)});
    rep_.line({Value("# Points:"), L(out_.points)});

    p_.chk = 11;
    struct Names {
        const char* key;
        const char* title;
        const char* row1;
        const char* sheet;
    };
    static const Names names[] = {
        {kDose, " Dose Response", "  vs Dose Response", "DoseResponseReport"},
        {kFocus, " Focus Response", "  vs Focus Response", "FocusResponseReport"},
        {kPW, ": Process Window Setup", " - Process Window Analysis", "ProcessWindowReport"},
        {kDoseBF, ": vs Dose @ Best Focus", " - Dose Response At 'Best Focus'",
         "Dose_atBestFocusReport"},
        {kIsoFocal, "", "", ""},
    };
    const Names* nm = nullptr;
    for (const Names& n : names)
        if (s_.key == n.key) nm = &n;
    if (!nm) return fail({"Unknown analysis: '" + s_.key + "'"});
    title(s_.title + nm->title);
    if (s_.key == kDose || s_.key == kFocus) {
        title("Lot: " + lot_->LotName + "   Sites: " + s_.siteListText);
        title("Analysis method: " + s_.method);
    }
    rep_.put(1, 1, Value(rep_.get(1, 1).toString() + nm->row1));
    reportSheet_ = nm->sheet;
    out_.reportSheet = reportSheet_;

    p_.chk = 12;
    rep_.blank();
    rep_.line({Value("Field Sites:"), Value(s_.siteListText)});
    rep_.line({Value("Variable"), Value("TCL"), Value("UCL"), Value("LCL")});
    for (const Variable& v : vars_)
        rep_.line({Value(v.name), Value(v.tcl), Value(v.ucl), Value(v.lcl)});
    status("Start of ananlysis ...");

    cGraphic& g = chart();
    if (s_.key == kDose || s_.key == kFocus) {
        cAxis& ax = g.Axes.Add("X");
        ax.Label = s_.key == kDose ? "Dose" : "Focus";
        ax.TickFormat = s_.key == kDose ? "###0.0" : "###0.00";
        g.Axes.Add("Y").Label = s_.title;
    }
    Status st = StatusOk();
    if (s_.key == kDose)
        st = doDose();
    else if (s_.key == kFocus)
        st = doFocus();
    else if (s_.key == kDoseBF)
        st = doDoseBF();
    else if (s_.key == kPW)
        st = doPW();
    else
        st = doIsoFocal();
    auto keepReport = [&] { out_.report = rep_.table(); };
    if (!st) {
        keepReport();
        return st.failure();
    }
    if (s_.key != kIsoFocal && s_.key != kPW) {
        if (Status c = closing(); !c) {
            keepReport();
            return c.failure();
        }
    } else {
        g.TitleObj.TitleString = PWJoinTitle(out_.titleLines);
    }

    p_.chk = 80;
    isoFocalSummary();
    keepReport();
    if (!reportSheet_.empty())
        if (Status s = saveSheet(out_.report, reportSheet_, rep_.get(1, 1).toString()); !s)
            return s.failure();
    ResetCulls(*lot_);
    return lot_;
}

}  // namespace

Result<std::shared_ptr<cLot>> PWcalculate(const PWSetup& setup, cLot& lot, const Datam& focusValues,
                                          const Datam& doseValues, PWState& state, bool updateCulls,
                                          PWReport* report) {
    PWReport local;
    PWReport& out = report ? *report : local;
    Run run(setup, state, out, focusValues, doseValues);
    Result<std::shared_ptr<cLot>> r = run.go(lot, updateCulls);
    out.escaped = run.escaped();
    // Whatever failed after Esc failed for want of what Esc cut short.
    if (!r && run.escaped() && r.failure().text.find("Analysis stopped (Esc).") == std::string::npos)
        return Proc("PWcommon(PWcalculate): ").fail("Analysis stopped (Esc).");
    return r;
}

}  // namespace zorv
