// The summary sheets of the wafer and field model fits and their charts.
#include "procwin/model_reports.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <map>
#include <set>
#include <tuple>

#include "base/format.h"
#include "base/identity.h"
#include "base/marks.h"
#include "base/regional.h"
#include "base/report.h"
#include "base/text.h"
#include "graphics/chart.h"
#include "lot/lot.h"
#include "model/model_sets.h"
#include "numerics/matrix.h"
#include "workbook/workbook_ops.h"

namespace zorv {

namespace {

constexpr const char* kEndRow = "________";

// ---------------------------------------------------------------- the sheet

// Rows of any width, made into one table at the end.
class Sheet {
public:
    void add(std::vector<Value> row = {}) { rows_.push_back(std::move(row)); }
    Datam table() const {
        size_t width = 1;
        for (const auto& r : rows_) width = std::max(width, r.size());
        Datam t(static_cast<int>(rows_.size()) - 1, static_cast<int>(width) - 1, 0, 0);
        for (size_t r = 0; r < rows_.size(); ++r)
            for (size_t c = 0; c < rows_[r].size(); ++c) t(static_cast<int>(r), static_cast<int>(c)) = rows_[r][c];
        return t;
    }
    void append(const Datam& t) {
        if (!t.isArray()) return;
        for (int r = t.rowLb(); r <= t.rowUb(); ++r) {
            std::vector<Value> row;
            for (int c = t.colLb(); c <= t.colUb(); ++c) row.push_back(t(r, c));
            while (!row.empty() && IsBlank(row.back())) row.pop_back();
            add(std::move(row));
        }
    }

private:
    std::vector<std::vector<Value>> rows_;
};

// A statistic, or an empty cell when there was nothing to take it of.
Value Num(double v, bool have = true) { return have && std::isfinite(v) ? Value(v) : Value(); }

std::string Text(const Value& v) { return Trim(v.toString()); }

bool Numeric(const Value& v, double& out) { return !IsBlank(v) && NumericOf(v, out); }

// ---------------------------------------------------------------- statistics

RcStats Stats(const std::vector<double>& v) {
    RcMoments m;
    for (double x : v) m.add(x);
    return RcFinish(m);
}

double Rmss(const std::vector<double>& v) { return v.empty() ? 0.0 : Stats(v).rmss; }

// |mean| + |3 sigma|, as the statistics summary has it.
double Mean3Sigma(const RcStats& s) { return std::fabs(s.mean) + std::fabs(3 * s.sd); }

// ---------------------------------------------------------------- the fit tables

// One run of fit rows under a header row that names "Feature" and "Family".
struct Section {
    int header = 0;
    std::vector<int> rows;
    int feature = -1, family = -1, focus = -1, dose = -1, mse = -1;
    // Value columns in the header's order; a term's error column beside it.
    struct Term {
        std::string name;
        int col = -1, se = -1;
    };
    std::vector<Term> terms;
    // Where the columns of the header row stand, in order, for copying it.
    std::vector<std::pair<int, std::string>> valueCols;
    int piston = 0;  // index into terms

    std::string pistonName() const { return terms.empty() ? std::string() : terms[static_cast<size_t>(piston)].name; }
};

bool IsHeaderRow(const Datam& t, int r) {
    bool feature = false, family = false;
    for (int c = t.colLb(); c <= t.colUb(); ++c) {
        const std::string s = Text(t(r, c));
        feature = feature || IEquals(s, "Feature");
        family = family || IEquals(s, "Family");
    }
    return feature && family;
}

bool IsEndRow(const Datam& t, int r) { return Text(t(r, t.colLb())).rfind("____", 0) == 0; }

bool IsIdentity(const std::string& s) {
    for (const char* id : {"Model", "FullField", "Field", "Wafer", "Feature", "Family", "Focus", "Dose"})
        if (IEquals(s, id)) return true;
    return false;
}

// The fit rows of a lot fit's report: a section per header row, up to the
// first row of "____" (where the model summaries start).
std::vector<Section> ParseSections(const Datam& t) {
    std::vector<Section> out;
    if (!t.isArray() || t.dims() != 2) return out;
    for (int r = t.rowLb(); r <= t.rowUb(); ++r) {
        if (IsEndRow(t, r)) break;
        if (IsHeaderRow(t, r)) {
            Section s;
            s.header = r;
            std::map<std::string, int> seCols;
            for (int c = t.colLb(); c <= t.colUb(); ++c) {
                const std::string h = Text(t(r, c));
                if (h.empty()) continue;
                if (IEquals(h, "Feature")) s.feature = c;
                else if (IEquals(h, "Family")) s.family = c;
                else if (IEquals(h, "Focus")) s.focus = c;
                else if (IEquals(h, "Dose")) s.dose = c;
                if (IsIdentity(h)) continue;
                s.valueCols.emplace_back(c, h);
                if (IEquals(h, "MSE")) s.mse = c;
                else if (h.size() > 3 && IEquals(h.substr(h.size() - 3), "_SE"))
                    seCols[Upper(h.substr(0, h.size() - 3))] = c;
                else s.terms.push_back({h, c, -1});
            }
            for (size_t k = 0; k < s.terms.size(); ++k) {
                auto it = seCols.find(Upper(s.terms[k].name));
                if (it != seCols.end()) s.terms[k].se = it->second;
                if (IEquals(s.terms[k].name, "Piston")) s.piston = static_cast<int>(k);
            }
            out.push_back(std::move(s));
            continue;
        }
        if (out.empty()) continue;
        bool any = false;
        for (int c = t.colLb(); c <= t.colUb() && !any; ++c) any = !IsBlank(t(r, c));
        if (any) out.back().rows.push_back(r);
    }
    return out;
}

// The values of a column over some rows (numbers only).
std::vector<double> Column(const Datam& t, const std::vector<int>& rows, int col) {
    std::vector<double> v;
    if (col < 0) return v;
    for (int r : rows) {
        double x;
        if (Numeric(t(r, col), x)) v.push_back(x);
    }
    return v;
}

// A group key's value: a number compares as one, text as text.
struct Key {
    bool numeric = false;
    double x = 0;
    std::string text;
    static Key of(const Value& v) {
        Key k;
        k.text = Text(v);
        k.numeric = Numeric(v, k.x);
        if (k.numeric) k.x = std::round(k.x * 1e6) / 1e6;
        return k;
    }
    bool operator<(const Key& o) const {
        if (numeric != o.numeric) return numeric;  // numbers first
        return numeric ? x < o.x : text < o.text;
    }
    bool operator==(const Key& o) const { return !(*this < o) && !(o < *this); }
    Value value() const { return numeric ? Value(x) : Value(text); }
};

// The mean of each term and the RMSS of each error and the MSE over some
// rows, in the order of the header's value columns.
std::vector<Value> SummaryCells(const Datam& t, const Section& s, const std::vector<int>& rows) {
    std::vector<Value> cells;
    for (const auto& [col, name] : s.valueCols) {
        const std::vector<double> v = Column(t, rows, col);
        bool isTerm = false;
        for (const Section::Term& term : s.terms) isTerm = isTerm || term.col == col;
        cells.push_back(v.empty() ? Value() : Value(isTerm ? Stats(v).mean : Rmss(v)));
    }
    return cells;
}

// The header's value columns, the constant term named "Piston" where no term is.
std::vector<Value> SummaryHeads(const Section& s) {
    std::vector<Value> heads;
    const bool named = !s.terms.empty() && IEquals(s.pistonName(), "Piston");
    for (const auto& [col, name] : s.valueCols) {
        std::string h = name;
        if (!named && !s.terms.empty()) {
            const Section::Term& p = s.terms[static_cast<size_t>(s.piston)];
            if (col == p.col) h = "Piston";
            else if (col == p.se) h = "Piston_SE";
        }
        heads.emplace_back(h);
    }
    return heads;
}

// ---------------------------------------------------------------- the head

void Head(Sheet& sh, const std::string& title, const ModelReportSetup& setup, const std::string& feature) {
    const double date = setup.date > 0 ? setup.date : NowSerial();
    sh.add({Value(title + " - Feature: " + feature + " Ver: " + VersionString() + "  " +
                  FormatDate(date, "yyyy-mm-dd hh:mm"))});
    sh.add({Value("   Lot: "), Value(setup.lotName)});
    sh.add({Value("   Path: "), Value(setup.path)});
    sh.add();
    sh.add({Value("Data Culling")});
    sh.add({Value("Method"), Value("Setting"), Value("#Culled")});
    sh.add({Value("   Range:"), Value(double(setup.range)), Value(int32_t(setup.rangeCulled))});
    sh.add({Value("   Sigma:"), Value(double(setup.sigma)), Value(int32_t(setup.sigmaCulled))});
    sh.add({Value(kEndRow)});
}

std::string FirstFeature(const Datam& t, const std::vector<Section>& sections) {
    for (const Section& s : sections)
        for (int r : s.rows)
            if (s.feature >= 0 && !Text(t(r, s.feature)).empty()) return Text(t(r, s.feature));
    return {};
}

Status Save(const Datam& report, const std::string& name, const std::string& description, Workbook* wb) {
    if (!wb) return StatusOk();
    const std::string sheet = FixSheetName(Replace(name, " ", ""));
    SaveArrayOptions o;
    o.save = false;
    if (Status s = SaveArray(report, sheet, wb, o); !s) return s;
    if (Status s = AddIndexItem(wb, sheet, description, Value(), false); !s) return s;
    return SaveWorkbookChecked(*wb, sheet, false);
}

// ---------------------------------------------------------------- the lot

std::string FamilyName(const cLot& lot, long family) {
    if (family == 0) return kAllFeatures;
    const Datam& names = lot.FamilyNames;
    if (names.isArray() && names.inRange(static_cast<int>(family), 1) && !IsBlank(names(static_cast<int>(family), 1)))
        return names(static_cast<int>(family), 1).toString();
    return "Family " + std::to_string(family);
}

const Cmodel* WaferModelOf(const cWafer& w, const std::string& key) {
    const auto* m = dynamic_cast<const Models*>(w.Models.get());
    return m ? m->models.Item(key) : nullptr;
}

bool InFamily(const cSite& s, long family) { return family == 0 || s.Family() == family; }

// The last "_" or "~" fields of a model key: name, variable, family.
bool ParseModelKey(const std::string& key, long& feature, long& family) {
    const size_t b = key.find_last_of("_~");
    if (b == std::string::npos) return false;
    const size_t a = key.find_last_of("_~", b == 0 ? 0 : b - 1);
    if (a == std::string::npos || a >= b) return false;
    double f, v;
    if (!ParseNumber(key.substr(b + 1), f) || !ParseNumber(key.substr(a + 1, b - a - 1), v)) return false;
    family = static_cast<long>(f);
    feature = static_cast<long>(v);
    return true;
}

// A model summary block of the wafer report: "  Model" " Summary" key,
// the term heads, then "MEAN" and "RMSS".
struct ModelBlock {
    std::string key;
    int header = 0, mean = -1, rmss = -1;
    int feature = ePlotFeatureV;
    long family = 0;
};

std::vector<ModelBlock> ModelBlocks(const Datam& t, const cLot& lot) {
    std::vector<ModelBlock> out;
    const auto* mw = dynamic_cast<const ModelWafer*>(lot.ModelWafer.get());
    for (int r = t.rowLb(); r <= t.rowUb(); ++r) {
        if (Text(t(r, t.colLb())) != "Model" || Text(t.get(r, t.colLb() + 1)) != "Summary") continue;
        ModelBlock b;
        b.key = t.get(r, t.colLb() + 2).toString();
        b.header = r;
        for (int k = r + 1; k <= std::min(r + 2, t.rowUb()); ++k) {
            if (Text(t(k, t.colLb())) == "MEAN") b.mean = k;
            if (Text(t(k, t.colLb())) == "RMSS") b.rmss = k;
        }
        const Cmodel* m = mw ? mw->models.Item(b.key) : nullptr;
        long feature = -1, family = 0;
        if (m) {
            feature = m->PlotFeature;
            family = m->FamilyType;
        } else if (!ParseModelKey(b.key, feature, family)) {
            feature = -1;
        }
        b.feature = feature >= 0 ? static_cast<int>(feature) : lot.PlotFeature();
        b.family = family;
        out.push_back(std::move(b));
    }
    return out;
}

// The wafer model's value at each live point of a family, less its constant
// term: the systematic signature across the wafer.
std::vector<double> WaferSignature(const cLot& lot, const ModelBlock& b) {
    std::vector<double> v;
    for (cWafer* w : lot.Wafers()) {
        if (w->cull()) continue;
        const Cmodel* m = WaferModelOf(*w, b.key);
        if (!m) continue;
        struct Term {
            cCoefficient* c;
            int sx, sy, sr, st;
        };
        std::vector<Term> terms;
        for (cCoefficient* c : m->Coefficients) {
            if (c->ValueString() == "1" || c->Value == 0) continue;
            clsEquation& eq = c->ValueEqn();
            terms.push_back({c, eq.VarSlot("x"), eq.VarSlot("y"), eq.VarSlot("r"), eq.VarSlot("theta")});
        }
        for (cField* f : w->Fields()) {
            if (f->cull()) continue;
            for (cSite* s : f->sites()) {
                if (s->cull() || !InFamily(*s, b.family)) continue;
                double value = 0;
                for (Term& t : terms) {
                    clsEquation& eq = t.c->ValueEqn();
                    eq.SetSlot(t.sx, s->LocationXabs / 1000.0);
                    eq.SetSlot(t.sy, s->LocationYabs / 1000.0);
                    eq.SetSlot(t.sr, s->LocationRabs / 1000.0);
                    eq.SetSlot(t.st, s->LocationThetaAbs);
                    value += t.c->Value * eq.Solution();
                }
                for (cPoint* p : s->Points()) {
                    const float* raw = p->FeatureSlot(b.feature, eRaw);
                    if (!p->cull() && raw && !IsMissing(*raw)) v.push_back(value);
                }
            }
        }
    }
    return v;
}

// ---------------------------------------------------------------- family blocks

struct FamilyGroup {
    Key family;
    std::string feature;
    std::vector<int> rows;
};

// A section's rows by feature (in order of appearance) and family (rising).
std::vector<FamilyGroup> FamilyGroups(const Datam& t, const Section& s) {
    std::vector<std::string> features;
    std::map<std::pair<std::string, Key>, std::vector<int>> groups;
    for (int r : s.rows) {
        const std::string f = s.feature >= 0 ? Text(t(r, s.feature)) : std::string();
        if (std::find(features.begin(), features.end(), f) == features.end()) features.push_back(f);
        groups[{f, Key::of(s.family >= 0 ? t(r, s.family) : Value())}].push_back(r);
    }
    std::vector<FamilyGroup> out;
    for (const std::string& f : features)
        for (const auto& [k, rows] : groups)
            if (k.first == f) out.push_back({k.second, f, rows});
    return out;
}

// Over the live points of a family: the modelled values, their deviation
// from their field's mean, and the residuals.
struct FieldResponse {
    std::vector<double> fitted, deviation, residual;
};

FieldResponse FieldResponseOf(const cLot& lot, int feature, long family) {
    FieldResponse out;
    for (cWafer* w : lot.Wafers()) {
        if (w->cull()) continue;
        for (cField* f : w->Fields()) {
            if (f->cull()) continue;
            std::vector<double> fit;
            for (cSite* s : f->sites()) {
                if (s->cull() || !InFamily(*s, family)) continue;
                for (cPoint* p : s->Points()) {
                    if (p->cull()) continue;
                    const float* a = p->FeatureSlot(feature, eFitted);
                    const float* b = p->FeatureSlot(feature, eResidual);
                    if (!a || !b || IsMissing(*a) || IsMissing(*b)) continue;
                    fit.push_back(*a / 1000.0);
                    out.residual.push_back(*b / 1000.0);
                }
            }
            if (fit.empty()) continue;
            const double mean = Stats(fit).mean;
            for (double x : fit) {
                out.fitted.push_back(x);
                out.deviation.push_back(x - mean);
            }
        }
    }
    return out;
}

void FamilyBlocks(Sheet& sh, const Datam& t, const std::vector<Section>& sections, const cLot* lot) {
    sh.add({Value(kFamilyOffsetTitle)});
    for (const Section& s : sections) {
        std::vector<Value> head{Value("Family"), Value("Feature"), Value("Fields"), Value("Piston"), Value("SE")};
        for (size_t k = 0; k < s.terms.size(); ++k) {
            if (static_cast<int>(k) == s.piston) continue;
            head.emplace_back(s.terms[k].name);
            head.emplace_back(s.terms[k].name + "_SE");
        }
        head.emplace_back("MSE_Fit");
        head.emplace_back("StDev_Fit");
        sh.add(head);
        for (const FamilyGroup& g : FamilyGroups(t, s)) {
            std::vector<Value> row{g.family.value(), Value(g.feature), Value(int32_t(g.rows.size()))};
            auto term = [&](const Section::Term& x) {
                const std::vector<double> v = Column(t, g.rows, x.col), e = Column(t, g.rows, x.se);
                row.push_back(Num(Stats(v).mean, !v.empty()));
                row.push_back(Num(Rmss(e), !e.empty()));
            };
            if (!s.terms.empty()) term(s.terms[static_cast<size_t>(s.piston)]);
            else row.insert(row.end(), 2, Value());
            for (size_t k = 0; k < s.terms.size(); ++k)
                if (static_cast<int>(k) != s.piston) term(s.terms[k]);
            const std::vector<double> mse = Column(t, g.rows, s.mse);
            row.push_back(Num(Rmss(mse), !mse.empty()));
            row.push_back(Num(std::sqrt(Rmss(mse)), !mse.empty()));
            sh.add(row);
        }
    }
    sh.add({Value(kEndRow)});
    sh.add();

    sh.add({Value(kFamilyVarianceTitle)});
    sh.add({Value("Family"), Value("Feature"), Value("Term"), Value("Mean"), Value("RMSS"), Value("Mean+3Sigma")});
    for (const Section& s : sections)
        for (const FamilyGroup& g : FamilyGroups(t, s))
            for (const Section::Term& x : s.terms) {
                const std::vector<double> v = Column(t, g.rows, x.col);
                const RcStats st = Stats(v);
                sh.add({g.family.value(), Value(g.feature), Value(x.name), Num(st.mean, !v.empty()),
                        Num(st.rmss, !v.empty()), Num(Mean3Sigma(st), !v.empty())});
            }
    sh.add({Value(kEndRow)});
    if (!lot) return;

    sh.add();
    sh.add({Value(kFamilyResidualTitle)});
    sh.add({Value("Family"), Value("Feature"), Value("Count"), Value("Mean"), Value("SEM"), Value("System StDev"),
            Value("System Range"), Value("Residual StDev"), Value("Residual Range")});
    std::set<std::pair<std::string, Key>> done;
    for (const Section& s : sections)
        for (const FamilyGroup& g : FamilyGroups(t, s)) {
            if (!done.insert({g.feature, g.family}).second) continue;
            const int feature = lot->GetPlotFeature(g.feature);
            const long family = g.family.numeric ? static_cast<long>(g.family.x) : 0;
            const FieldResponse fr = FieldResponseOf(*lot, feature < 0 ? lot->PlotFeature() : feature, family);
            const bool have = !fr.fitted.empty();
            const RcStats a = Stats(fr.fitted), d = Stats(fr.deviation), e = Stats(fr.residual);
            sh.add({g.family.value(), Value(g.feature), Value(int32_t(fr.fitted.size())), Num(a.mean, have),
                    Num(a.sem, have), Num(d.sd, have), Num(d.range, have), Num(e.sd, have), Num(e.range, have)});
        }
    sh.add({Value(kEndRow)});
}

// ---------------------------------------------------------------- charts

void SeriesColour(cSeries& c, int index) { c.ColorFore = cGraphic::GetPlotColors(index); }

// Rows of a block: the row of its title, the header under it, rows to its
// end row. False when the title is missing; `ended` tells whether the end
// row was met.
struct Block {
    int header = -1;
    std::vector<int> rows;
    bool ended = false;
};

bool FindBlock(const Datam& t, const std::string& title, Block& b) {
    if (!t.isArray() || t.dims() != 2) return false;
    int r = t.rowLb();
    while (r <= t.rowUb() && Text(t(r, t.colLb())) != title) ++r;
    if (r > t.rowUb()) return false;
    b.header = r + 1;
    for (int k = r + 2; k <= t.rowUb(); ++k) {
        if (IsEndRow(t, k)) {
            b.ended = true;
            break;
        }
        if (Text(t(k, t.colLb())) == "Family") continue;  // a further header of the block
        b.rows.push_back(k);
    }
    return b.header <= t.rowUb();
}

// The column of a header in the header row of a row's block: the nearest
// header row above it.
int HeaderCol(const Datam& t, int row, int firstHeader, const std::string& name) {
    int h = row - 1;
    while (h > firstHeader && Text(t(h, t.colLb())) != "Family") --h;
    for (int c = t.colLb(); c <= t.colUb(); ++c)
        if (IEquals(Text(t(h, c)), name)) return c;
    return -1;
}

std::shared_ptr<cGraphic> NewChart(const std::string& key, const std::string& title, const std::string& xLabel,
                                   const std::string& yLabel) {
    auto g = std::make_shared<cGraphic>();
    g->KeyName = key;
    g->TitleObj.TitleString = title;
    g->Axes.Add("X").Label = xLabel;
    cAxis& y = g->Axes.Add("Y");
    y.Label = yLabel;
    y.PlotGridline = true;
    return g;
}

// ---------------------------------------------------------------- three ways

enum class Way { FamilyDoseFocus, DoseFamilyFocus, FocusFamilyDose };

Result<std::shared_ptr<cGraphic>> GraphThreeWays(const Datam& table, const ChartSetup& setup, Way way,
                                                 const char* tag, const char* key) {
    Proc p(tag);
    // Columns 1..3 of the working table: "Family", "Focus", "Dose".
    int header = -1, cols[3] = {-1, -1, -1};
    const char* names[3] = {"Family", "Focus", "Dose"};
    if (table.isArray() && table.dims() == 2)
        for (int r = table.rowLb(); r <= table.rowUb() && header < 0; ++r) {
            int found[3] = {-1, -1, -1};
            for (int c = table.colLb(); c <= table.colUb(); ++c)
                for (int k = 0; k < 3; ++k)
                    if (found[k] < 0 && IEquals(Text(table(r, c)), names[k])) found[k] = c;
            if (found[0] >= 0 && found[1] >= 0 && found[2] >= 0) {
                header = r;
                std::copy(found, found + 3, cols);
            }
        }
    p.chk = 1;
    if (header < 0) return p.fail("Could not find the columns 'Family', 'Focus' and 'Dose'.");
    struct Row {
        Key family;
        double focus, dose;
    };
    std::vector<Row> rows;
    bool textFamily = false;
    for (int r = header + 1; r <= table.rowUb(); ++r) {
        if (IsEndRow(table, r)) break;
        Row x{Key::of(table(r, cols[0])), 0, 0};
        if (x.family.text.empty() || !Numeric(table(r, cols[1]), x.focus) || !Numeric(table(r, cols[2]), x.dose))
            continue;
        textFamily = textFamily || !x.family.numeric;
        rows.push_back(x);
    }
    p.chk = 2;
    if (rows.empty()) return p.fail("No data for graph generation.");
    // Families that are names stand at their place in the sorted list.
    std::map<Key, double> familyX;
    for (const Row& x : rows) familyX[x.family] = 0;
    int place = 0;
    for (auto& [k, v] : familyX) v = textFamily ? ++place : k.x;

    Datam data(static_cast<int>(rows.size()), 3, 0, 0);
    data(0, 1) = Value("Family");
    data(0, 2) = Value("Focus");
    data(0, 3) = Value("Dose");
    for (size_t i = 0; i < rows.size(); ++i) {
        const int r = static_cast<int>(i) + 1;
        data(r, 1) = Value(familyX[rows[i].family]);
        data(r, 2) = Value(rows[i].focus);
        data(r, 3) = Value(rows[i].dose);
    }
    int seriesCol = 1, xCol = 2, yCol = 3;
    std::string title = " - Dose vs Focus by Family";
    if (way == Way::DoseFamilyFocus) seriesCol = 3, xCol = 2, yCol = 1, title = " - Family vs Focus by Dose";
    if (way == Way::FocusFamilyDose) seriesCol = 2, xCol = 3, yCol = 1, title = " - Family vs Dose by Focus";

    auto g = NewChart(key, setup.name + title, data(0, xCol).toString(), data(0, yCol).toString());
    p.chk = 3;
    if (Status st = g->RegisterData(data); !st) return st.failure();
    // The series: distinct values of their column, each a table of its rows
    // in rising x.
    std::map<Key, std::vector<int>> members;
    for (int r = 1; r <= data.rowUb(); ++r) members[Key::of(data(r, seriesCol))].push_back(r);
    int i = 0;
    for (const auto& [k, rs] : members) {
        std::vector<int> order = rs;
        std::stable_sort(order.begin(), order.end(),
                         [&](int a, int b) { return data(a, xCol).toDouble() < data(b, xCol).toDouble(); });
        std::string label;
        if (seriesCol == 1) {
            for (const auto& [fk, fx] : familyX)
                if (fx == k.x) label = "Family: " + fk.text;
        } else {
            label = std::string(seriesCol == 3 ? "Dose: " : "Focus: ") + Format(k.x, "0.00");
        }
        cSeries& c = g->Series.Add(label);
        Datam own(static_cast<int>(order.size()), 3, 0, 0);
        for (int col = 1; col <= 3; ++col) own(0, col) = data(0, col);
        for (size_t j = 0; j < order.size(); ++j)
            for (int col = 1; col <= 3; ++col) own(static_cast<int>(j) + 1, col) = data(order[j], col);
        c.PlotData = own;
        c.Xcol = xCol;
        c.Ycol = yCol;
        SeriesColour(c, i++);
    }
    return g;
}

}  // namespace

// ---------------------------------------------------------------- public

ModelReportSetup ReportSetupFor(const cLot& lot) {
    ModelReportSetup s;
    s.lotName = lot.LotName;
    s.path = lot.FilePath;
    if (!lot.FileName.empty()) s.path += (s.path.empty() || s.path.back() == '/' ? "" : "/") + lot.FileName;
    long code = 0;
    if (!lot.GetPlotFeatureUnits(lot.PlotFeature(), s.unit, code)) s.unit.clear();
    return s;
}

std::string WaferReportSheet(const std::string& feature) { return "WaferReport_" + feature; }
std::string FieldReportSheet(const std::string& feature) { return "FieldResponse_" + feature; }

Result<Datam> CreateWaferReport(const cLot& lot, const Datam& table, const ModelReportSetup& setup) {
    Proc p("PWcommon(CreateWaferReport): ");
    const std::vector<Section> sections = ParseSections(table);
    p.chk = 1;
    if (sections.empty()) return p.fail("Could not find first 'Family' row.");
    const std::vector<ModelBlock> blocks = ModelBlocks(table, lot);
    if (blocks.empty()) return p.fail("No model summary in the wafer report.");
    const std::string feature = !setup.feature.empty() ? setup.feature : FirstFeature(table, sections);

    Sheet sh;
    Head(sh, "Modeled Wafer Uniformity Response", setup, feature);
    sh.add();

    p.chk = 2;
    sh.add({Value(" Summary of Modeled Offset and Residuals")});
    std::vector<std::string> lastHeads;
    for (const ModelBlock& b : blocks) {
        // The block's term heads; a header row where they change.
        std::vector<std::string> heads;
        std::vector<int> cols;
        for (int c = table.colLb() + 3; c <= table.colUb(); ++c)
            if (!Text(table(b.header, c)).empty()) heads.push_back(Text(table(b.header, c))), cols.push_back(c);
        if (heads != lastHeads) {
            std::vector<Value> h{Value("Feature"), Value("Family")};
            for (const std::string& s : heads) h.emplace_back(s);
            sh.add(h);
            lastHeads = heads;
        }
        std::vector<Value> row{Value(lot.GetPlotFeatureName(b.feature)), Value(FamilyName(lot, b.family))};
        for (int c : cols) {
            double v;
            if (b.mean >= 0 && Numeric(table(b.mean, c), v)) row.emplace_back(v);
            else if (b.rmss >= 0 && Numeric(table(b.rmss, c), v)) row.emplace_back(v);
            else row.emplace_back();
        }
        sh.add(row);
    }
    sh.add({Value(kEndRow)});
    sh.add();

    p.chk = 3;
    sh.add({Value("Systematic Across-Wafer Variance")});
    sh.add({Value("Feature"), Value("Family"), Value("Count"), Value("Mean"), Value("StDev"), Value("Maximum"),
            Value("Minimum"), Value("Range"), Value("MinMax"), Value("Mean+3Sigma")});
    for (const ModelBlock& b : blocks) {
        const std::vector<double> v = WaferSignature(lot, b);
        const RcStats s = Stats(v);
        const bool have = !v.empty();
        sh.add({Value(lot.GetPlotFeatureName(b.feature)), Value(FamilyName(lot, b.family)),
                Value(int32_t(v.size())), Num(s.mean, have), Num(s.sd, have), Num(s.mx, have), Num(s.mn, have),
                Num(s.range, have), Num(s.minmax(), have), Num(Mean3Sigma(s), have)});
    }
    sh.add({Value(kEndRow)});
    sh.add();

    p.chk = 4;
    sh.add({Value("Culled Data Statistics")});
    sh.add({Value("Feature"), Value("Family"), Value("Count"), Value("Mean"), Value("StDev"), Value("Maximum"),
            Value("Minimum")});
    std::set<long> families;
    lot.forEachLiveSite([&](cWafer&, cField&, cSite& s) { families.insert(s.Family()); });
    std::vector<int> features;
    for (const ModelBlock& b : blocks)
        if (std::find(features.begin(), features.end(), b.feature) == features.end()) features.push_back(b.feature);
    for (int f : features)
        for (long fam : families) {
            std::vector<double> v;
            lot.forEachLiveSite([&](cWafer&, cField&, cSite& s) {
                if (s.Family() != fam) return;
                for (cPoint* pt : s.Points()) {
                    const float* raw = pt->FeatureSlot(f, eRaw);
                    if (pt->cull() && raw && !IsMissing(*raw)) v.push_back(*raw / 1000.0);
                }
            });
            const RcStats s = Stats(v);
            const bool have = !v.empty();
            sh.add({Value(lot.GetPlotFeatureName(f)), Value(FamilyName(lot, fam)), Value(int32_t(v.size())),
                    Num(s.mean, have), Num(s.sd, have), Num(s.mx, have), Num(s.mn, have)});
        }
    sh.add({Value(kEndRow)});

    Datam report = sh.table();
    p.chk = 5;
    if (Status s = Save(report, WaferReportSheet(feature), "Modeled Wafer Uniformity Response: " + setup.lotName,
                        setup.workbook);
        !s)
        return s.failure();
    return report;
}

Result<Datam> FamilyReport(const Datam& table, const cLot* lot) {
    Proc p("PWcommon(FamilyReport): ");
    const std::vector<Section> sections = ParseSections(table);
    p.chk = 1;
    if (sections.empty()) return p.fail("Could not find first 'Family' row.");
    Sheet sh;
    FamilyBlocks(sh, table, sections, lot);
    return sh.table();
}

Result<Datam> CreateFieldReport(const Datam& table, const ModelReportSetup& setup, const cLot* lot) {
    Proc p("PWcommon(CreateFieldReport): ");
    SetStatusText("Creating Field-Model Summary Report");
    const std::vector<Section> sections = ParseSections(table);
    p.chk = 1;
    if (sections.empty()) return p.fail("Could not find first 'Family' row.");
    const std::string feature = !setup.feature.empty() ? setup.feature : FirstFeature(table, sections);

    Sheet sh;
    Head(sh, "Modeled Field Uniformity Response", setup, feature);
    sh.add();

    p.chk = 2;
    std::set<double> focus, dose;
    for (const Section& s : sections)
        for (int r : s.rows) {
            double v;
            if (s.focus >= 0 && Numeric(table(r, s.focus), v)) focus.insert(std::round(v * 1e6) / 1e6);
            if (s.dose >= 0 && Numeric(table(r, s.dose), v)) dose.insert(std::round(v * 1e6) / 1e6);
        }
    auto range = [&](const char* what, const std::set<double>& v) {
        const std::string w = what;
        sh.add({Value(w + " Max:"), v.empty() ? Value() : Value(*v.rbegin())});
        sh.add({Value(w + " Steps:"), Value(int32_t(v.size()))});
        sh.add({Value(w + " Min:"), v.empty() ? Value() : Value(*v.begin())});
    };
    sh.add({Value("Exposure Range")});
    range("Focus", focus);
    range("Dose", dose);
    sh.add({Value(kEndRow)});
    sh.add();

    p.chk = 3;
    sh.add({Value("Summary by Exposure: Modeled Offset and Residuals")});
    for (const Section& s : sections) {
        std::vector<Value> head{Value("Feature"), Value("Family"), Value("Focus"), Value("Dose"), Value("Fields")};
        for (Value& h : SummaryHeads(s)) head.push_back(std::move(h));
        sh.add(head);
        std::map<std::tuple<std::string, Key, Key, Key>, std::vector<int>> groups;
        std::vector<std::string> features;
        for (int r : s.rows) {
            const std::string f = s.feature >= 0 ? Text(table(r, s.feature)) : std::string();
            if (std::find(features.begin(), features.end(), f) == features.end()) features.push_back(f);
            groups[{f, Key::of(s.family >= 0 ? table(r, s.family) : Value()),
                    Key::of(s.focus >= 0 ? table(r, s.focus) : Value()),
                    Key::of(s.dose >= 0 ? table(r, s.dose) : Value())}]
                .push_back(r);
        }
        for (const std::string& f : features)
            for (const auto& [k, rows] : groups) {
                if (std::get<0>(k) != f) continue;
                std::vector<Value> row{Value(f), std::get<1>(k).value(), std::get<2>(k).value(),
                                       std::get<3>(k).value(), Value(int32_t(rows.size()))};
                for (Value& c : SummaryCells(table, s, rows)) row.push_back(std::move(c));
                sh.add(row);
            }
    }
    sh.add({Value(kEndRow)});
    sh.add();

    p.chk = 4;
    auto fam = FamilyReport(table, lot);
    if (!fam) return fam.failure();
    sh.append(*fam);

    Datam report = sh.table();
    p.chk = 5;
    if (Status s = Save(report, FieldReportSheet(feature), "Modeled Field Uniformity Response: " + setup.lotName,
                        setup.workbook);
        !s)
        return s.failure();
    return report;
}

Result<std::vector<std::shared_ptr<cGraphic>>> CreateFieldReportGraphs(const Datam& table,
                                                                       const FieldGraphSetup& setup) {
    Proc p("PWcommon(CreateFieldReportGraphs): ");
    const std::vector<Section> sections = ParseSections(table);
    double chosen = 0;
    const bool one = ParseNumber(Trim(setup.selection), chosen);
    // Per feature the exposures: family, focus, dose; the mean piston and
    // the RMSS of its error.
    struct Exposure {
        Key family;
        double focus, dose, piston, se;
        bool hasSe;
    };
    std::vector<std::string> features;
    std::map<std::string, std::vector<Exposure>> byFeature;
    for (const Section& s : sections) {
        if (s.terms.empty() || s.focus < 0 || s.dose < 0) continue;
        const Section::Term& piston = s.terms[static_cast<size_t>(s.piston)];
        std::map<std::tuple<std::string, Key, double, double>, std::vector<int>> groups;
        for (int r : s.rows) {
            double f, d;
            if (!Numeric(table(r, s.focus), f) || !Numeric(table(r, s.dose), d)) continue;
            const std::string feature = s.feature >= 0 ? Text(table(r, s.feature)) : std::string();
            if (std::find(features.begin(), features.end(), feature) == features.end()) features.push_back(feature);
            groups[{feature, Key::of(s.family >= 0 ? table(r, s.family) : Value()), std::round(f * 1e6) / 1e6,
                    std::round(d * 1e6) / 1e6}]
                .push_back(r);
        }
        for (const auto& [k, rows] : groups) {
            const std::vector<double> v = Column(table, rows, piston.col), e = Column(table, rows, piston.se);
            if (v.empty()) continue;
            byFeature[std::get<0>(k)].push_back(
                {std::get<1>(k), std::get<2>(k), std::get<3>(k), Stats(v).mean, Rmss(e), !e.empty()});
        }
    }
    std::vector<std::shared_ptr<cGraphic>> charts;
    for (const std::string& feature : features) {
        std::vector<Exposure> ex;
        std::set<Key> families;
        for (const Exposure& e : byFeature[feature]) {
            families.insert(e.family);
            const double key = setup.seriesByDose ? e.dose : e.focus;
            if (!one || std::fabs(key - chosen) < 1e-6) ex.push_back(e);
        }
        if (ex.empty()) continue;
        Datam data(static_cast<int>(ex.size()), 5, 0, 0);
        const char* heads[] = {"Focus", "Dose", "Piston", "SE", "Family"};
        for (int c = 0; c < 5; ++c) data(0, c + 1) = Value(heads[c]);
        // Series by series, each in rising x.
        std::stable_sort(ex.begin(), ex.end(), [&](const Exposure& a, const Exposure& b) {
            const double ka = setup.seriesByDose ? a.dose : a.focus, kb = setup.seriesByDose ? b.dose : b.focus;
            const double xa = setup.seriesByDose ? a.focus : a.dose, xb = setup.seriesByDose ? b.focus : b.dose;
            return std::tie(a.family, ka, xa) < std::tie(b.family, kb, xb);
        });
        for (size_t i = 0; i < ex.size(); ++i) {
            const int r = static_cast<int>(i) + 1;
            data(r, 1) = Value(ex[i].focus);
            data(r, 2) = Value(ex[i].dose);
            data(r, 3) = Value(ex[i].piston);
            if (ex[i].hasSe) data(r, 4) = Value(ex[i].se);
            data(r, 5) = ex[i].family.value();
        }
        const std::string title = setup.name + " - Modeled Field Piston, Feature:" + feature +
                                  " & Spreadsheet: (" + FieldReportSheet(feature) + ")";
        auto g = NewChart("FieldResponse_" + feature, title, setup.seriesByDose ? "Focus" : "Dose",
                          "Modeled Field Piston");
        p.chk = 1;
        if (Status st = g->RegisterData(data); !st) return st.failure();
        int i = 0;
        for (size_t a = 0; a < ex.size();) {
            size_t b = a;
            const double key = setup.seriesByDose ? ex[a].dose : ex[a].focus;
            while (b < ex.size() && ex[b].family == ex[a].family &&
                   std::fabs((setup.seriesByDose ? ex[b].dose : ex[b].focus) - key) < 1e-9)
                ++b;
            std::string label = std::string(setup.seriesByDose ? "Dose: " : "Focus: ") + Format(key, "0.00");
            if (families.size() > 1) label += " Family: " + ex[a].family.text;
            cSeries& c = g->Series.Add(label);
            Datam own(static_cast<int>(b - a), 5, 0, 0);
            for (int col = 1; col <= 5; ++col) own(0, col) = data(0, col);
            for (size_t j = a; j < b; ++j)
                for (int col = 1; col <= 5; ++col)
                    own(static_cast<int>(j - a) + 1, col) = data(static_cast<int>(j) + 1, col);
            c.PlotData = own;
            c.Xcol = setup.seriesByDose ? 1 : 2;
            c.Ycol = 3;
            c.YerrCol1 = c.YerrCol2 = 4;
            SeriesColour(c, i++);
            a = b;
        }
        charts.push_back(std::move(g));
    }
    p.chk = 2;
    if (charts.empty()) return p.fail("No data for graph generation.");
    return charts;
}

Result<FamilyCharts> GraphFamilyPlot(const Datam& report, const ChartSetup& setup) {
    Proc p("PWcommon(GraphFamilyPlot): ");
    Block offset, resid;
    const bool haveOffset = FindBlock(report, kFamilyOffsetTitle, offset);
    // The family rows of the feature: the first feature when none is named.
    std::string feature = setup.feature;
    std::vector<int> rows;
    if (haveOffset)
        for (int r : offset.rows) {
            const int fc = HeaderCol(report, r, offset.header, "Feature");
            const std::string f = fc >= 0 ? Text(report(r, fc)) : std::string();
            if (feature.empty()) feature = f;
            if (f == feature && !Text(report(r, report.colLb())).empty()) rows.push_back(r);
        }
    p.chk = 1;
    if (rows.empty()) return p.fail("No data for graph generation.");
    p.chk = 2;
    if (!FindBlock(report, kFamilyResidualTitle, resid) || !resid.ended)
        return p.fail("Could not find end row of residual report");

    // The chart table: a row per family, x its number (or place when a name).
    const char* heads[] = {"Family",       "Piston",         "StDev",        "Mean",          "SEM",
                           "System Range", "Residual Range", "System StDev", "Residual StDev"};
    std::map<Key, int> order;
    for (int r : rows) order[Key::of(report(r, report.colLb()))] = r;
    const bool textFamily = std::any_of(order.begin(), order.end(), [](const auto& e) { return !e.first.numeric; });
    Datam data(static_cast<int>(order.size()), 9, 0, 0);
    data(0, 0) = Value("Key");
    for (int c = 0; c < 9; ++c) data(0, c + 1) = Value(heads[c]);
    auto cell = [&](int r, int first, const char* name) {
        const int c = HeaderCol(report, r, first, name);
        double v;
        return c >= 0 && Numeric(report(r, c), v) ? Value(v) : Value();
    };
    int i = 0;
    for (const auto& [fam, r] : order) {
        ++i;
        data(i, 0) = Value(fam.text);
        data(i, 1) = Value(textFamily ? double(i) : fam.x);
        data(i, 2) = cell(r, offset.header, "Piston");
        for (int rr : resid.rows) {
            const int fc = HeaderCol(report, rr, resid.header, "Feature");
            if (!(Key::of(report(rr, report.colLb())) == fam) || (fc >= 0 && Text(report(rr, fc)) != feature))
                continue;
            data(i, 3) = cell(rr, resid.header, "Residual StDev");
            data(i, 4) = cell(rr, resid.header, "Mean");
            data(i, 5) = cell(rr, resid.header, "SEM");
            data(i, 6) = cell(rr, resid.header, "System Range");
            data(i, 7) = cell(rr, resid.header, "Residual Range");
            data(i, 8) = cell(rr, resid.header, "System StDev");
            data(i, 9) = cell(rr, resid.header, "Residual StDev");
        }
    }

    p.chk = 3;
    FamilyCharts out;
    using Curve = std::tuple<const char*, int, int>;  // label, y column, error column (0: none)
    auto chart = [&](const std::string& key, const std::string& title, const std::string& yLabel,
                     std::initializer_list<Curve> series) -> Result<std::shared_ptr<cGraphic>> {
        auto g = NewChart(key, setup.name + title, "Family", yLabel);
        if (Status st = g->RegisterData(data); !st) return st.failure();
        int k = 0;
        for (const auto& [label, y, err] : series) {
            cSeries& c = g->Series.Add(label);
            c.Xcol = 1;
            c.Ycol = y;
            if (err > 0) c.YerrCol1 = c.YerrCol2 = err;
            SeriesColour(c, k++);
        }
        return g;
    };
    auto piston = chart("kFamilyPiston", " - Family Piston Response",
                        "Modeled Field Piston (" + setup.unit + ") with Residual StDev Uncertainty, " +
                            "Systematic Field Mean with SEM Uncertainty",
                        {{"Piston", 2, 3}, {"Mean", 4, 5}});
    if (!piston) return piston.failure();
    auto range = chart("kFamilyRange", " - Family Range Response", "Systematic and Residual Range for " + feature,
                       {{"System Range", 6, 0}, {"Residual Range", 7, 0}});
    if (!range) return range.failure();
    auto stdev = chart("kFamilyStDev", " - Family 'StDev' Response",
                       "Systematic and Residual Standard Deviation for " + feature,
                       {{"System StDev", 8, 0}, {"Residual StDev", 9, 0}});
    if (!stdev) return stdev.failure();
    out.piston = *piston;
    out.range = *range;
    out.stdev = *stdev;
    return out;
}

Result<std::shared_ptr<cGraphic>> GraphFamily_DoseVfocus(const Datam& table, const ChartSetup& setup) {
    return GraphThreeWays(table, setup, Way::FamilyDoseFocus, "PWcommon(GraphFamily_DoseVfocus): ",
                          "kFamily_DoseVfocus");
}

Result<std::shared_ptr<cGraphic>> GraphDose_FamilyVfocus(const Datam& table, const ChartSetup& setup) {
    return GraphThreeWays(table, setup, Way::DoseFamilyFocus, "PWcommon(GraphDose_FamilyVfocus): ",
                          "kDose_FamilyVfocus");
}

Result<std::shared_ptr<cGraphic>> GraphFocus_FamilyVdose(const Datam& table, const ChartSetup& setup) {
    return GraphThreeWays(table, setup, Way::FocusFamilyDose, "PWcommon(GraphFocus_FamilyVdose): ",
                          "kFocus_FamilyVdose");
}

}  // namespace zorv
