// The analysis of one unit of a monitor run and the tables it reads and
// writes: the raw statistics kept for the results, the model means, the
// process window report, the result statistics and the trend charts.
#include "dm_unit.h"

#include <algorithm>
#include <map>

#include "base/format.h"
#include "base/report.h"
#include "base/text.h"
#include "dm_log.h"
#include "dm_template_util.h"
#include "lot/lot.h"
#include "model/lot_fit.h"
#include "model/model_sets.h"
#include "numerics/matrix.h"
#include "procwin/pw_calculate.h"
#include "procwin/pw_setup.h"
#include "stats/lot_stats.h"
#include "workbook/workbook_ops.h"

namespace zorv {

using dmlog::Log;
using dmt::CellText;

namespace dmu {

namespace {

int FeatureOfName(const cLot& lot, const std::string& name) {
    const int k = lot.GetPlotFeature(name);
    if (k >= ePlotFeatureV && k <= ePlotFeatureC) return k;
    const std::string up = Upper(Trim(name));
    if (up == "V" || up == "X" || up == "VERTICAL" || up == "FEATURE_1") return ePlotFeatureV;
    if (up == "H" || up == "Y" || up == "HORIZONTAL" || up == "FEATURE_2") return ePlotFeatureH;
    return 0;
}

int HeadCol(const Datam& t, int row, std::string_view name) {
    if (!t.isArray() || t.dims() != 2 || row < t.rowLb() || row > t.rowUb()) return -1;
    for (int c = t.colLb(); c <= t.colUb(); ++c)
        if (IEquals(Trim(CellText(t(row, c))), Trim(name))) return c;
    return -1;
}

// A model report (rows of "Wafer"/"Model" heads, a row per wafer or field and
// feature) as one row per term: the mean over the rows of each feature.
Datam ModelMeans(const Datam& report, const std::vector<std::string>& columns) {
    if (!report.isArray() || report.dims() != 2) return {};
    // The head row: the first whose cells hold "Feature".
    int head = -1, featureCol = -1;
    for (int r = report.rowLb(); r <= report.rowUb() && head < 0; ++r)
        if ((featureCol = HeadCol(report, r, "Feature")) >= 0) head = r;
    if (head < 0) return {};
    static constexpr std::string_view kNotTerms[] = {"Wafer", "Field", "Model", "Feature", "Family",
                                                     "Focus", "Dose",  "NA",    "PCi",     "PCo"};
    std::vector<std::pair<int, std::string>> terms;
    for (int c = report.colLb(); c <= report.colUb(); ++c) {
        const std::string h = Trim(CellText(report(head, c)));
        if (h.empty() || IEndsWith(h, "_SE")) continue;
        bool skip = false;
        for (std::string_view n : kNotTerms) skip = skip || IEquals(h, n);
        if (!skip) terms.emplace_back(c, h);
    }
    Datam out(static_cast<int>(terms.size()), static_cast<int>(columns.size()), 0, 0);
    for (size_t j = 0; j < columns.size(); ++j) out(0, static_cast<int>(j) + 1) = Value(columns[j]);
    for (size_t i = 0; i < terms.size(); ++i) {
        out(static_cast<int>(i) + 1, 0) = Value(terms[i].second);
        for (size_t j = 0; j < columns.size(); ++j) {
            double sum = 0;
            long n = 0;
            for (int r = head + 1; r <= report.rowUb(); ++r) {
                if (Trim(CellText(report(r, report.colLb()))).rfind("___", 0) == 0) break;
                if (!IEquals(Trim(CellText(report(r, featureCol))), columns[j])) continue;
                const Value& v = report(r, terms[i].first);
                if (IsNumericValue(v) && !v.isEmpty()) sum += v.toDouble(), ++n;
            }
            if (n) out(static_cast<int>(i) + 1, static_cast<int>(j) + 1) = Value(sum / static_cast<double>(n));
        }
    }
    return out;
}

// The process window analysis of the template's caption.
std::string PWKindOfCaption(std::string_view caption, std::string& kind) {
    const std::string up = Upper(caption);
    if (up.find("BEST") != std::string::npos || up.find("DOSEBF") != std::string::npos) return kind = "DoseBF", kDoseBF;
    if (up.find("DOSE") != std::string::npos) return kind = "Dose", kDose;
    if (up.find("FOCUS") != std::string::npos || up.find("BOSSUNG") != std::string::npos)
        return kind = "Focus", kFocus;
    return kind = "PW", kPW;
}

// frmDM(ProcessWindowAnalysis) with frmDM(pwAnalysisUpdate): the run of the
// template's analysis on the unit's lot, read back by GetPWmodeled.
Result<Datam> ProcessWindowAnalysis(cLot& lot, const DMTemplate& t, const std::vector<DMFeature>& features,
                                    Workbook* wb) {
    Proc p("frmDM(ProcessWindowAnalysis): ");
    const DMAnalysis& a = t.analysis;
    std::string kind;
    PWSetup setup;
    setup.key = PWKindOfCaption(a.pwAnalysis.caption, kind);
    setup.variables = Datam(static_cast<int>(features.size()), 4, 0, 0);
    const char* heads[] = {"Feature", "Target", "UCL", "LCL"};
    for (int c = 0; c < 4; ++c) setup.variables(0, c + 1) = Value(heads[c]);
    int r = 0;
    for (const DMFeature& f : features) {
        ++r;
        setup.variables(r, 1) = Value(f.name);
        const double target = f.row ? f.row->target : 0;
        const double mx = f.row ? f.row->max : 0, mn = f.row ? f.row->min : 0;
        setup.variables(r, 2) = Value(target);
        setup.variables(r, 3) = Value(std::max(mx, mn));
        setup.variables(r, 4) = Value(std::min(mx, mn));
        setup.title += (setup.title.empty() ? "" : ", ") + f.name;
    }
    if (!a.pwSites.empty() && !IEquals(a.pwSites, "ALL") && !IStartsWith(a.pwSites, "All Sites"))
        setup.siteListText = a.pwSites;
    setup.precision = std::clamp(a.pwPrecision > 0 ? a.pwPrecision : 10, 1, 100);
    setup.statistics = false;
    setup.showLimits = a.pwShowLimits;
    if (a.pwFeatureCull.index > 0 && !a.pwFeatureCull.caption.empty() && !IEquals(a.pwFeatureCull.caption, "NONE")) {
        setup.cullVariable = a.pwFeatureCull.caption;
        setup.cullMax = a.pwFeatureCullMax, setup.cullMin = a.pwFeatureCullMin;
    }
    long exposures = 0;
    Datam focusValues;
    const Datam doseValues = lot.GetUniqueExposures(exposures, focusValues);
    ScanSpan(focusValues, setup.focusLow, setup.focusHigh, setup.focusStep);
    ScanSpan(doseValues, setup.doseLow, setup.doseHigh, setup.doseStep);
    setup.focusArray = focusValues, setup.doseArray = doseValues;
    setup.workbook = wb;
    PWState state;
    PWReport report;
    p.chk = 1;
    SetStatusText("Setting up Trend Chart Entries . . .");
    if (auto ran = PWcalculate(setup, lot, focusValues, doseValues, state, true, &report); !ran) return ran.failure();
    p.chk = 2;
    return GetPWmodeled(wb, kind);
}

// A model table as a sheet of the data workbook, saved with the run.
Status SaveModelSheet(const UnitContext& cx, const Datam& table, const std::string& sheet, const std::string& title) {
    if (!cx.dataWorkbook || !table.isArray()) return StatusOk();
    SaveArrayOptions o;
    o.title = title;
    o.save = false;
    return SaveArray(table, FixSheetName(sheet), cx.dataWorkbook, o);
}

}  // namespace

// The features to analyse: those of the template's table marked, found on
// the lot; none such, the lot's first feature.
std::vector<DMFeature> AnalysedFeatures(const cLot& lot, const DMTemplate& t) {
    std::vector<DMFeature> out;
    for (const DMFeatureRow& r : t.tables.features) {
        if (!r.analyze) continue;
        const int k = FeatureOfName(lot, r.name);
        if (!k) continue;
        bool seen = false;
        for (const DMFeature& f : out) seen = seen || f.number == k;
        if (!seen) out.push_back({k, lot.GetPlotFeatureName(k), &r});
    }
    if (out.empty()) out.push_back({ePlotFeatureV, lot.GetPlotFeatureName(ePlotFeatureV), nullptr});
    return out;
}

bool AllAxes(const DMTemplate& t) {
    for (const DMAxisRow& a : t.tables.axes)
        if (IEquals(Trim(a.name), "All (X, Y and Mean)")) return dmt::CellBool(a.display);
    return false;
}

Status AnalyseUnit(cLot& lot, UnitContext& cx, DMUnitResult& u) {
    Proc p("frmDM(ModelFeature): ");
    const DMAnalysis& a = cx.tpl.analysis;
    std::vector<std::string> names;
    for (const DMFeature& f : cx.features) names.push_back(f.name);
    SetStatusText("Calculating Statistics ....");
    Datam raw(0, 0, 0, 0);
    lot.PlotFeature(cx.features.front().number);
    if (Status st = CalcRawStats(lot, &raw); !st) return st;
    u.raw = FormatStatistics(raw, cx.allAxes, cx.features.size() == 1 ? names.front() : std::string());
    // Several features chosen without "All": their columns.
    if (!cx.allAxes && cx.features.size() > 1) {
        Datam keep = FormatStatistics(raw, true, {});
        std::vector<int> cols;
        for (const std::string& n : names)
            if (const int c = HeadCol(keep, 0, n); c > 0) cols.push_back(c);
        Datam t(keep.rowUb(), static_cast<int>(cols.size()), 0, 0);
        for (int r = 0; r <= keep.rowUb(); ++r) {
            t(r, 0) = keep(r, 0);
            for (size_t j = 0; j < cols.size(); ++j) t(r, static_cast<int>(j) + 1) = keep(r, cols[j]);
        }
        u.raw = std::move(t);
    }
    std::vector<std::string> columns;
    for (int c = 1; u.raw.isArray() && c <= u.raw.colUb(); ++c) columns.push_back(Trim(CellText(u.raw(0, c))));

    p.chk = 2;
    Log("    ...Modeled Lot Date: " + lot.DateMeasured);
    Log("    ...Wafer Model Terms: " + a.waferTerms + "... Field Model:" + a.fieldModel.caption);
    LotFitSetup fit;
    fit.doWafer = a.doWaferModel && !a.waferTerms.empty();
    fit.doField = a.fieldModelOn;
    if (fit.doWafer || fit.doField) {
        if (Status st = LoadGlobalModelLibraries(); !st) return st;
        for (cWafer* w : lot.Wafers()) {
            if (w->cull()) continue;
            if (fit.doWafer) {
                SetStatusText("Feature: " + names.front() + "Calculating Wafer model [" + a.waferTerms + "] ...");
                if (Status st = LoadWaferModelObject(*w, a.waferTerms, &WaferModelLibrary()); !st) return st;
            }
            if (!fit.doField) continue;
            SetStatusText("Model field: " + a.fieldModel.caption);
            const cModelSet* set = FieldModelLibrary().Find(a.fieldModel.caption);
            for (cField* f : w->Fields()) {
                if (set) {
                    if (Status st = LoadFieldModelObject(*f, a.fieldModel.caption, &FieldModelLibrary()); !st)
                        return st;
                    continue;
                }
                // Not a set of the library: the process window's field model,
                // the field modelled as one ("Full Field").
                ModelsField& mf = FieldModels(*f);
                mf.Clear();
                auto m = LoadPWModel(cx.features.front().number);
                m->FamilyType = 0;
                m->FieldModelType = 3;
                const std::string key = m->Key;
                mf.models.Add(std::move(m), key);
            }
        }
        p.chk = 3;
        auto fitted = LotModelFit(lot, fit);
        if (!fitted) return fitted.failure();
        const std::string unit = u.waferId.empty() ? std::string("All") : u.waferId;
        if (fit.doWafer) {
            u.waferModel = ModelMeans(fitted->waferReport, columns);
            if (Status st = SaveModelSheet(cx, fitted->waferReport, "WaferModel_" + unit,
                                           " Modeled Values for " + lot.LotName);
                !st)
                return st;
        }
        if (fit.doField) {
            Log("    ...Field Model: " + a.fieldModel.caption);
            u.fieldModel = ModelMeans(fitted->fieldReport, columns);
            Datam field = fitted->fieldReport;
            UpdateLotAverageModelValues(field);
            if (Status st = SaveModelSheet(cx, field, "MeanModel " + unit, " Modeled Values for " + lot.LotName); !st)
                return st;
            Log("    ...Field Model Successful .... chk: " + ChkText(p.chk));
        }
    }
    if (a.pwAnalysis.index >= 0 && !a.pwAnalysis.caption.empty() && !IContains(a.pwAnalysis.caption, "NONE") &&
        a.kind != DMKind::FixedFocus) {
        p.chk = 4;
        auto pw = ProcessWindowAnalysis(lot, cx.tpl, cx.features, cx.pwWorkbook);
        if (!pw) return pw.failure();
        Datam t(pw->rowUb(), 1, 0, 0);
        t(0, 1) = Value(columns.empty() ? std::string("Value") : columns.front());
        for (int r = 1; r <= pw->rowUb(); ++r) t(r, 0) = (*pw)(r, 1), t(r, 1) = (*pw)(r, 2);
        u.processWindow = std::move(t);
    }
    Log("     _Feature: " + names.front() + " Wafer #: " + (u.waferId.empty() ? std::string("All") : u.waferId));
    Log("    ____________ Exit Successful_________________");
    return StatusOk();
}

std::vector<Value> UnitTrendValues(const DMUnitResult& u, const std::string& column, const std::vector<TrendItem>& items) {
    std::vector<Value> out;
    for (const TrendItem& it : items) {
        const Datam* t = it.group == TrendGroup::Wafer   ? &u.waferModel
                         : it.group == TrendGroup::Field ? &u.fieldModel
                         : it.group == TrendGroup::ProcessWindow ? &u.processWindow
                                                                 : &u.raw;
        int c = HeadCol(*t, 0, column);
        if (c < 0 && it.group == TrendGroup::ProcessWindow) c = 1;
        out.push_back(c > 0 ? TrendValuesFromStats(*t, c, {it}).front() : Value());
    }
    return out;
}

}  // namespace dmu

using dmu::HeadCol;

TrendStatistics TrendNames(const DMTemplateTables& t) {
    TrendStatistics s;
    auto pick = [](const DMStatTable& table, std::vector<std::string>& out) {
        for (const DMStatRow& r : table.rows)
            if (r.trend) out.push_back(r.name);
    };
    pick(t.raw, s.raw);
    pick(t.waferModel, s.waferModel);
    pick(t.fieldModel, s.fieldModel);
    pick(t.processWindow, s.processWindow);
    return s;
}

Datam FormatStatistics(const Datam& raw, bool allAxes, const std::string& feature) {
    SetStatusText("Calculating Statistics ....");
    if (!raw.isArray() || raw.dims() != 2) return {};
    static constexpr std::string_view kPassed[] = {"Astig(YXmax)", "IFDxy_max", "SS", "Sum", "RMSS", "Variance", "SS"};
    std::vector<int> cols;
    for (int c = 1; c <= raw.colUb(); ++c) {
        const std::string h = Trim(CellText(raw(0, c)));
        if (h.empty()) continue;
        if (allAxes ? !IEquals(h, "Length") : (feature.empty() ? c == 1 : IEquals(h, feature))) cols.push_back(c);
    }
    if (cols.empty() && raw.colUb() >= 1) cols.push_back(1);
    std::vector<int> rows;
    for (int r = 1; r <= raw.rowUb(); ++r) {
        const std::string name = Trim(CellText(raw(r, 0)));
        bool pass = name.empty() || name.rfind("__", 0) == 0;
        for (std::string_view k : kPassed) pass = pass || name == k;
        // A row with no number in the kept columns tells nothing.
        bool any = false;
        for (int c : cols) any = any || (IsNumericValue(raw(r, c)) && !raw(r, c).isEmpty());
        if (!pass && any) rows.push_back(r);
    }
    Datam t(static_cast<int>(rows.size()), static_cast<int>(cols.size()), 0, 0);
    t(0, 0) = raw(0, 0);
    for (size_t j = 0; j < cols.size(); ++j) t(0, static_cast<int>(j) + 1) = raw(0, cols[j]);
    for (size_t i = 0; i < rows.size(); ++i) {
        t(static_cast<int>(i) + 1, 0) = Value(Trim(CellText(raw(rows[i], 0))));
        for (size_t j = 0; j < cols.size(); ++j) t(static_cast<int>(i) + 1, static_cast<int>(j) + 1) = raw(rows[i], cols[j]);
    }
    return t;
}

Result<std::vector<std::string>> GetStatNames(Workbook* workbook) {
    Proc p("frmDM(GetStatNames): ");
    Worksheet* ws = workbook ? workbook->sheet(kTemplateSheet) : nullptr;
    if (!ws) return p.fail("Worksheet 'TemplateHeader' could not be found in workbook: " + (workbook ? workbook->name() : std::string()));
    const Datam used = ws->usedRange();
    if (!used.isArray() || used.rowUb() < 1) return p.fail("No data for statistics are stored in 'TemplateHeader' spreadsheet.");
    static constexpr std::string_view kHeads[] = {"RawStatistics", "FieldModelStatistics", "WaferModelStatistics",
                                                  "ModelStatistics"};
    int head = -1;
    for (int r = 1; r <= used.rowUb() && head < 0; ++r)
        for (std::string_view h : kHeads)
            if (IEquals(Trim(CellText(used(r, 1))), h)) head = r;
    std::vector<std::string> names;
    if (head < 0) {
        names.emplace_back("No Statistics");
        return names;
    }
    std::string logLine = "Header: ";
    for (int r = head + 1; r <= used.rowUb(); ++r) {
        const std::string n = Trim(CellText(used(r, 1)));
        if (n.empty()) break;
        names.push_back(n);
        logLine += n + " ";
    }
    Log(logLine);
    return names;
}

std::string PWReportSheet(const std::string& kind) {
    if (IEquals(kind, "DoseBF")) return "Dose_atBestFocusReport";
    if (IEquals(kind, "Dose")) return "DoseResponseReport";
    if (IEquals(kind, "Focus")) return "FocusResponseReport";
    return "ProcessWindowReport";
}

Result<Datam> GetPWmodeled(Workbook* workbook, const std::string& kind) {
    Proc p("DMcommon(GetPWmodeled): ");
    const std::string name = PWReportSheet(kind);
    Worksheet* ws = workbook ? workbook->sheet(name) : nullptr;
    if (!ws) return p.fail("DM Macro does not contain the needed spreadsheet: " + name);
    const Datam s = ws->usedRange();
    auto rowOf = [&](std::string_view key, int from = 1) {
        for (int r = from; s.isArray() && r <= s.rowUb(); ++r)
            if (IEquals(Trim(CellText(s(r, 1))), key)) return r;
        return -1;
    };
    const int points = rowOf("# Points:");
    if (points < 0) return p.fail("No process window/focus/dose data in sheet: " + name);
    std::vector<std::pair<std::string, Value>> rows;
    // The first number right of a row's label.
    auto valueOf = [&](int r, int from = 2) {
        for (int c = from; c <= s.colUb(); ++c)
            if (IsNumericValue(s(r, c)) && !s(r, c).isEmpty()) return s(r, c);
        return Value();
    };
    rows.emplace_back("Points", valueOf(points));
    if (const int iso = rowOf("IsoFocal Dose:"); iso > 0) {
        // A head row, then one row per variable and site until a blank row.
        for (int r = iso + 2; r <= s.rowUb(); ++r) {
            const std::string v = Trim(CellText(s(r, 1)));
            if (v.empty()) break;
            const Value site = valueOf(r), dose = valueOf(r, 3);
            if (site.toLong() != 1 && !IsBlank(site)) continue;  // the first site stands for the feature
            rows.emplace_back("IsoFocal Dose " + v, dose);
        }
    }
    // A block of "...Name  value" rows under a head; numbers only.
    auto block = [&](std::string_view head, std::string_view prefix) {
        const int h = rowOf(head);
        if (h < 0) return;
        for (int r = h + 1; r <= s.rowUb(); ++r) {
            std::string n = Trim(CellText(s(r, 1)));
            if (n.empty() || n.back() == ':') break;
            while (!n.empty() && n.front() == '.') n.erase(0, 1);
            const Value v = valueOf(r);
            if (!IsBlank(v)) rows.emplace_back(std::string(prefix) + n, v);
        }
    };
    if (IEquals(kind, "PW")) {
        block("PW Rectangle:", "");
        block("PW Ellipse:", "Ellipse ");
    } else if (IEquals(kind, "Dose") || IEquals(kind, "DoseBF")) {
        block("Summary", "");
    } else {
        block("Summary:", "");
    }
    Datam t(static_cast<int>(rows.size()), 2, 0, 0);
    t(0, 1) = Value("Variable"), t(0, 2) = Value("Value");
    for (size_t i = 0; i < rows.size(); ++i) {
        t(static_cast<int>(i) + 1, 1) = Value(rows[i].first);
        t(static_cast<int>(i) + 1, 2) = rows[i].second;
    }
    return t;
}

void UpdateLotAverageModelValues(Datam& table) {
    Proc p("DMcommon(UpdateLotAverageModelValues: )");
    if (!table.isArray() || table.dims() != 2) return;
    const int last = table.rowUb();
    Datam out(last + 2, table.colUb(), table.rowLb(), table.colLb());
    for (int r = table.rowLb(); r <= last; ++r)
        for (int c = table.colLb(); c <= table.colUb(); ++c) out(r, c) = table(r, c);
    out(last + 1, table.colLb()) = Value("=======");
    out(last + 2, table.colLb()) = Value("  Mean:");
    for (int c = table.colLb() + 1; c <= table.colUb(); ++c) {
        double sum = 0;
        long n = 0;
        for (int r = 1; r <= last; ++r)
            if (IsNumericValue(table(r, c)) && !table(r, c).isEmpty()) sum += table(r, c).toDouble(), ++n;
        if (n) out(last + 2, c) = Value(sum / static_cast<double>(n));
    }
    table = std::move(out);
}

Datam DMStatsTable(const std::vector<DMUnitResult>& units) {
    // Rows: every group's names in the order first met; a column per unit
    // and feature.
    struct Group {
        const char* head;
        const Datam DMUnitResult::*table;
    };
    static constexpr Group kGroups[] = {{nullptr, &DMUnitResult::raw},
                                        {"__ Wafer Model __", &DMUnitResult::waferModel},
                                        {"__ Field Model __", &DMUnitResult::fieldModel},
                                        {"__ Process Window __", &DMUnitResult::processWindow}};
    std::vector<std::string> rowNames;
    std::map<std::pair<int, std::string>, int> rowOf;
    std::vector<std::string> colNames;
    for (int g = 0; g < 4; ++g) {
        bool headDone = false;
        for (const DMUnitResult& u : units) {
            const Datam& t = u.*kGroups[g].table;
            for (int r = 1; t.isArray() && r <= t.rowUb(); ++r) {
                const std::string n = Trim(CellText(t(r, 0)));
                if (n.empty() || rowOf.count({g, n})) continue;
                if (kGroups[g].head && !headDone) rowNames.emplace_back(kGroups[g].head), headDone = true;
                rowOf[{g, n}] = static_cast<int>(rowNames.size()) + 1;
                // A model's terms named as their trend columns are: the same
                // term of the wafer and the field model stays apart.
                rowNames.push_back(g == 1 ? "Wafer " + n : g == 2 ? "Field " + n : n);
            }
        }
    }
    std::vector<std::pair<const DMUnitResult*, std::string>> cols;
    for (const DMUnitResult& u : units)
        for (int c = 1; u.raw.isArray() && c <= u.raw.colUb(); ++c) {
            const std::string f = Trim(CellText(u.raw(0, c)));
            cols.emplace_back(&u, f);
            colNames.push_back(u.waferId.empty() ? f : f + " " + u.waferId);
        }
    Datam out(static_cast<int>(rowNames.size()), static_cast<int>(cols.size()), 0, 0);
    out(0, 0) = Value("Statistic");
    for (size_t i = 0; i < rowNames.size(); ++i) out(static_cast<int>(i) + 1, 0) = Value(rowNames[i]);
    for (size_t j = 0; j < cols.size(); ++j) {
        const int c = static_cast<int>(j) + 1;
        out(0, c) = Value(colNames[j]);
        for (int g = 0; g < 4; ++g) {
            const Datam& t = cols[j].first->*kGroups[g].table;
            int tc = HeadCol(t, 0, cols[j].second);
            if (tc < 0 && g == 3 && t.isArray() && j == 0) tc = 1;
            if (tc < 1) continue;
            for (int r = 1; r <= t.rowUb(); ++r) {
                auto it = rowOf.find({g, Trim(CellText(t(r, 0)))});
                if (it != rowOf.end()) out(it->second, c) = t(r, tc);
            }
        }
    }
    return out;
}

Result<std::vector<std::unique_ptr<cGraphic>>> DMTrendCharts(Workbook& workbook, const DMTemplateTables& tables,
                                                            const std::string& feature, const std::string& stat,
                                                            int* rows) {
    Proc p("DailyMonitor(TrendCharts): ");
    TrendLimits limits;
    for (const DMFeatureRow& f : tables.features)
        if (IEquals(f.name, feature)) limits = {f.target, f.max, f.min};
    TrendStatistics names = TrendNames(tables);
    if (!stat.empty())
        for (std::vector<std::string>* v : {&names.raw, &names.waferModel, &names.fieldModel, &names.processWindow})
            v->erase(std::remove_if(v->begin(), v->end(), [&](const std::string& n) { return !IEquals(n, stat); }),
                     v->end());
    auto data = GetDMTrendChartData(&workbook, feature, limits);
    if (!data) return data.failure();
    if (rows) *rows = data->rowUb();
    if (data->rowUb() < 1) return p.fail("Trend Statistics have no data.");
    // The feature's target and limits are levels of the feature: they belong
    // on the charts of its level (mean, median, extremes), not on those of a
    // spread, a count, a model term or a process window figure, whose scale
    // they would only squash.
    static constexpr std::string_view kLevels[] = {"Mean", "Median", "Maximum", "Minimum", "Mean+3Sigma",
                                                   "Mean3Sigma", "Max99%"};
    TrendStatistics levels, others = names;
    others.raw.clear();
    for (const std::string& n : names.raw) {
        bool level = false;
        for (std::string_view l : kLevels) level = level || IEquals(n, l);
        (level ? levels.raw : others.raw).push_back(n);
    }
    TrendChartSetup setup;
    setup.feature = feature;
    auto charts = CreateTrendPlots(*data, TrendPlotSetup(levels), setup);
    if (!charts) return charts.failure();
    setup.showLimits = false;
    auto rest = CreateTrendPlots(*data, TrendPlotSetup(others), setup);
    if (!rest) return rest.failure();
    for (auto& g : *rest) {
        // Not in the feature's units: the axis tells what it shows.
        const std::string& title = g->TitleObj.TitleString;
        if (cAxis* ay = g->Axes.Item("Y")) ay->Label = title.substr(std::min(title.size(), feature.size() + 2));
        charts->push_back(std::move(g));
    }
    if (charts->empty())
        return p.fail("No trended statistic" + (stat.empty() ? std::string() : " '" + stat + "'") + " in the template.");
    return charts;
}

}  // namespace zorv
