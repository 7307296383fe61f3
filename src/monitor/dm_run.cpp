// The monitor run: template, data, lot, the kind's flow, then the analysis of
// each wafer and its trend rows. Log lines keep their original texts, as the
// hosts that watch the log look for them.
#include "monitor/dm_run.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>

#include "app/settings.h"
#include "base/format.h"
#include "base/identity.h"
#include "base/regional.h"
#include "base/report.h"
#include "base/text.h"
#include "calib/calibrate.h"
#include "calib/convert.h"
#include "calib/template_library.h"
#include "dm_log.h"
#include "dm_template_util.h"
#include "import/import.h"
#include "lot/lot.h"
#include "model/lot_fit.h"
#include "numerics/matrix.h"
#include "model/model_sets.h"
#include "procwin/pw_calculate.h"
#include "procwin/pw_setup.h"
#include "stats/lot_stats.h"
#include "workbook/data_workbook.h"
#include "workbook/workbook_ops.h"

namespace zorv {

namespace fs = std::filesystem;
using dmt::CellText;
using dmt::FileOfPath;
using dmt::FolderOfPath;

using dmlog::DateNow;
using dmlog::kApp;
using dmlog::kSection;
using dmlog::Log;
using dmlog::TimeNow;

namespace {

Failure Interrupted(Proc& p, bool batch) {
    return p.fail(batch ? "User interrupted analysis..." : "Esc key pressed.");
}

// A key's value in the template's header block (keys in column 1).
std::string HeaderValue(const Datam& h, std::string_view key) {
    for (int r = h.rowLb(); h.isArray() && h.dims() == 2 && r <= h.rowUb(); ++r)
        if (IEquals(Trim(CellText(h(r, 1))), key)) return Trim(CellText(h(r, 2)));
    return {};
}

bool HasSheet(Workbook& wb, std::string_view name) {
    for (const std::string& s : wb.sheetNames())
        if (IEquals(s, name)) return true;
    return false;
}
Worksheet* SheetNoCase(Workbook& wb, std::string_view name) {
    for (const std::string& s : wb.sheetNames())
        if (IEquals(s, name)) return wb.sheet(s);
    return nullptr;
}

// A feature of the template resolved on the lot: its number, and the name
// its column and trend sheet carry.
struct DMFeature {
    int number = 0;
    std::string name;
    const DMFeatureRow* row = nullptr;
};

int FeatureOfName(const cLot& lot, const std::string& name) {
    const int k = lot.GetPlotFeature(name);
    if (k >= ePlotFeatureV && k <= ePlotFeatureC) return k;
    const std::string up = Upper(Trim(name));
    if (up == "V" || up == "X" || up == "VERTICAL" || up == "FEATURE_1") return ePlotFeatureV;
    if (up == "H" || up == "Y" || up == "HORIZONTAL" || up == "FEATURE_2") return ePlotFeatureH;
    return 0;
}

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

struct UnitContext {
    const DMTemplate& tpl;
    std::vector<DMFeature> features;
    bool allAxes = false;
    Workbook* pwWorkbook = nullptr;
    Workbook* dataWorkbook = nullptr;  // where the model tables go
    int sheetsWritten = 0;
};

// A model table as a sheet of the data workbook, saved with the run.
Status SaveModelSheet(UnitContext& cx, const Datam& table, const std::string& sheet, const std::string& title) {
    if (!cx.dataWorkbook || !table.isArray()) return StatusOk();
    SaveArrayOptions o;
    o.title = title;
    o.save = false;
    if (Status st = SaveArray(table, FixSheetName(sheet), cx.dataWorkbook, o); !st) return st;
    ++cx.sheetsWritten;
    return StatusOk();
}

// The per-wafer analysis: statistics, the models of frmDM(ModelFeature) and
// the process window, each a table by the unit's columns.
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

// The trend values of one column of a unit, each from its group's table.
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

// The reading of the lot: the data workbook direct or the import of a raw
// file into the storage folder (steps 7 to 11).
Status LoadDataLot(const DMRunRequest& req, Workbook& tplWb, DMRunOutcome& out, Proc& p) {
    const std::string dataName = FileOfPath(req.dataPath);
    // The filter asked for, else the template's, else the last one used.
    std::string filter = req.importFilter;
    if (filter.size() < 4) filter = HeaderValue(out.tpl.tables.header, "DataImport");
    if (filter.size() < 4) filter = GetSetting(kApp, kSection, "ImportFilter", "");
    SetStatusText("Opening Data File ...");
    const std::string upName = Upper(dataName);
    const bool direct = upName.find("XLS") != std::string::npos || upName.find("XLT") != std::string::npos ||
                        Upper(filter).find("XL") != std::string::npos;
    std::error_code ec;
    if (!fs::is_regular_file(req.dataPath, ec)) {
        p.chk = 8;
        return p.fail("Data file '" + dataName + "' not found. Abort analysis.\r\n   Import Filter: " + filter +
                      " ... Output WorkBook: " + dataName);
    }
    std::string wbPath;
    if (direct) {
        p.chk = 8;
        Log("___________Loading Data Direct from XLS Workbook_________ chk: " + ChkText(p.chk));
        Log("    ...(XLS,XLT location 'rwXL') = " + req.dataPath);
        Log("    ...Opening data worksheet " + dataName);
        Log("    ...Data Worksheet:        " + dataName);
        wbPath = req.dataPath;
    } else {
        p.chk = 9;
        SetStatusText("Loading data from data file ...");
        // Where the workbook goes: the data's own folder unless a reachable
        // storage folder is set.
        std::string store = FolderOfPath(req.dataPath);
        if (!req.storeInDataDirectory) {
            std::string folder = req.dataStorageDirectory;
            for (const char* s : {"\\\\", "/\\", "\\/"}) ReplaceAll(folder, s, "\\");
            if (!folder.empty() && fs::is_directory(folder, ec)) store = folder;
            else Log("Warning: Data storage directory: '" + folder + "' is not accessable.");
        }
        if (store.empty()) store = ".";
        Log("_____________Data WorkBook Open____________________");
        Log("__________Loading Data from Raw Data File chk: " + ChkText(p.chk));
        Log("   ...Data Storage Folder: " + store);
        Log("   .....Data: " + req.dataPath);
        Log("   ...Import: " + (filter.empty() ? std::string("(detected)") : filter));
        std::string why;
        auto request = GetDataFile(req.dataPath, filter, &why);
        if (!request) return request.failure();
        request->dataFolder = store;
        // The workbook of the import replaces an older one of the same name.
        request->workbookPath = (fs::path(store) / (fs::path(dataName).stem().string() + ".xlsx")).string();
        Log("   ...Output: " + request->workbookPath);
        if (WorkbookPtr open = Workbooks::Find(request->workbookPath)) Workbooks::Close(open);
        auto imported = ImportRawData(*request);
        if (!imported) return imported.failure();
        if (imported->size() < 2)
            return p.fail("Data set '" + dataName + "' not imported. WorkBook path is empty.");
        wbPath = *imported;
    }
    out.dataWorkbookPath = wbPath;

    p.chk = 11;
    LoadOptions options;
    options.quiet = true;
    std::shared_ptr<cLot> lot;
    WBLotTables tables;
    SetStatusText("Loading lot: " + dataName);
    if (Status st = GetExcelWBLot(wbPath, options, lot, &tables); !st) {
        if (st.failure().text.empty()) return p.fail("Data not imported into lot.");
        return st;
    }
    // A raw file carries no exposure layout: the template's stands in.
    if (!tables.layoutSetup.isArray()) {
        Datam setup, values;
        if (GetLayoutData(&tplWb, setup, values) && lot->TotalWafers() == 1) FPdata2Lot(*lot, setup);
        if (tables.workbook && !HasSheet(*tables.workbook, "LAYOUT")) {
            if (Worksheet* from = SheetNoCase(tplWb, "LAYOUT")) {
                Workbook& dwb = *tables.workbook;
                Worksheet* to = dwb.addSheet("Layout", std::max(0, dwb.sheetCount() - 1));
                const Area used = from->usedArea();
                if (to && !used.empty()) to->setRange(used.row1, used.col1, from->usedRange());
            }
        }
    }
    if (out.tpl.analysis.dieXArray > 0) lot->DieXarray = out.tpl.analysis.dieXArray;
    if (out.tpl.analysis.dieYArray > 0) lot->DieYarray = out.tpl.analysis.dieYArray;
    out.lot = lot;
    out.dataWorkbook = tables.workbook;
    return StatusOk();
}

// Step 13: the reticle's own signature out of the lot.
Status RemoveReticleData(const DMRunRequest& req, DMRunOutcome& out, Proc& p) {
    const DMAnalysis& a = out.tpl.analysis;
    if (!a.removeReticle || a.reticleName.empty() || IContains(a.reticleName, "(NONE)")) return StatusOk();
    p.chk = 13;
    SetStatusText("Removing reticle data for: " + a.reticleName);
    const std::string path = a.reticlePath.empty() ? a.reticleName : (fs::path(a.reticlePath) / a.reticleName).string();
    std::error_code ec;
    if (!fs::is_regular_file(path, ec)) {
        const std::string q = "Reticle Template: " + path + " does not exist.\r\nProceed with analysis without removing reticle?";
        const bool goOn = req.proceedWithoutReticle ? req.proceedWithoutReticle(q)
                                                     : MsgBox(q, vbYesNo | vbQuestion) == vbYes;
        if (!goOn) return p.fail(q);
        return StatusOk();
    }
    SetStatusText("Loading Reticle Info: " + a.reticleName);
    LoadOptions options;
    options.quiet = true;
    std::shared_ptr<cLot> reticle;
    if (Status st = GetExcelWBLot(path, options, reticle); !st) return st;
    Log("    ...Reticle Removal: " + path);
    Log("    ...Removing reticle data for: " + a.reticleName);
    if (auto l = out.lot->RemoveReticle(reticle.get())) out.lot = l;
    if (out.dmLot)
        if (auto l = out.dmLot->RemoveReticle(reticle.get())) out.dmLot = l;
    out.description += "Remove: " + a.reticleName + "\r\n";
    return StatusOk();
}

// Step 16: a focus matrix, calibrated in the run at fit order 6; dmLot
// becomes the best focus of each site.
Status MatrixFlow(const DMRunRequest& req, DMRunOutcome& out, Proc& p) {
    const DMAnalysis& a = out.tpl.analysis;
    p.chk = 16;
    SetStatusText("Focus/Expo Analysis Setup . . .");
    cLot& lot = *out.lot;
    double fMin = 999, fMax = -999;
    long fields = 0;
    for (cWafer* w : lot.Wafers()) {
        for (cField* f : w->Fields()) {
            if (f->Focus > a.focusMax || f->Focus < a.focusMin) f->setCull(true);
            if (f->cull()) continue;
            fMin = std::min(fMin, static_cast<double>(f->Focus));
            fMax = std::max(fMax, static_cast<double>(f->Focus));
            ++fields;
        }
    }
    if (fMax - fMin < 0.05 || fields < 3)
        return p.fail("Isufficient focus-matrix range for data.\r\n Macro: " + FileOfPath(req.templatePath) +
                      " requires a focus-matrix.");
    SetStatusText("Lens Best Focus Calculation . . .");
    CalControls controls;
    controls.fitOrder = 6;  // whatever the calibration window holds
    controls.astigCull = a.cullAstig > 0 ? a.cullAstig : 0;
    controls.range = a.cullRange;
    CalibrateOptions options;
    options.charts = false;
    std::shared_ptr<cLot> joined;
    Datam results;
    auto calibrate = [&](cLot& part, const cWafer* source) -> Status {
        CalFormState state;
        auto run = CalibratePSFM(part, controls, state, options);
        if (!run) return run.failure();
        if (run->escaped) return Interrupted(p, req.batch);
        std::shared_ptr<cLot> bf = run->tpl->GetLot();
        if (!bf) return p.fail("Data not imported into lot.");
        if (!results.isArray()) results = run->results;
        if (source)
            for (cWafer* w : bf->Wafers()) w->WaferID = source->WaferID, w->WaferSlot = source->WaferSlot, w->setNumber(source->Number());
        if (!joined) {
            joined = bf;
            return StatusOk();
        }
        for (cWafer* w : bf->Wafers()) {
            bool isNew = false;
            cWafer* into = joined->AddWafer(w->WaferID, isNew);
            if (!into) return p.fail("Data not imported into lot.");
            for (cField* f : w->Fields()) {
                if (!into->AddFieldObj(f)) return p.fail("Data not imported into lot.");
            }
        }
        return StatusOk();
    };
    const int wafers = lot.TotalWafers();
    if (!a.combineWafers && wafers > 1) {
        for (cWafer* w : lot.Wafers()) {
            if (w->cull()) continue;
            auto one = lot.clone(true);
            for (cWafer* o : one->Wafers()) o->setCull(o->WaferID != w->WaferID);
            if (Status st = calibrate(*one, w); !st) return st;
        }
    } else if (Status st = calibrate(lot, nullptr); !st) {
        return st;
    }
    if (!joined) return p.fail("Data not imported into lot.");
    // The calibration's lot holds each site's best focus in X and Y.
    if (joined->ValueV_Name.empty()) joined->ValueV_Name = "BestFocusX";
    if (joined->ValueH_Name.empty()) joined->ValueH_Name = "BestFocusY";
    joined->LotName = lot.LotName;
    joined->MetrologyTool = lot.MetrologyTool;
    joined->DateMeasured = lot.DateMeasured;
    out.dmLot = joined;
    Log("...Focus/Expo: " + TimeNow());
    return StatusOk();
}

// Step 17: image shifts into focus by the library template.
Status FixedFocusFlow(const DMRunRequest& req, DMRunOutcome& out, Proc& p) {
    const DMAnalysis& a = out.tpl.analysis;
    p.chk = 17;
    Log("    Fixed Focus: ");
    Log("    ...Focus Template:      " + a.focusTemplate);
    Log("    ...LotConversionMethod: " + a.conversionMethod);
    Log("    ...Data File Name:      " + FileOfPath(req.dataPath));
    out.dmLot = out.lot->clone(true);
    if (!a.focusConversion || Upper(a.focusTemplate).find("NONE") != std::string::npos) return StatusOk();
    if (a.cullRange > 0 || a.cullSigma > 0) FocusRangeCull(*out.lot, a.cullRange, a.cullSigma, false);
    // A library beside the monitor template travels with it; else the user's.
    std::string folder = req.libraryFolder;
    std::error_code ec;
    if (folder.empty() && fs::is_regular_file(fs::path(FolderOfPath(req.templatePath)) / kTemplateFileName, ec))
        folder = FolderOfPath(req.templatePath);
    cTemplateLibrary library(folder);
    if (Status st = library.FileGet(); !st) return st;
    ConvertOptions o;
    o.templateName = a.focusTemplate;
    const std::string method = Upper(Trim(a.conversionMethod));
    o.mode = method == "CENTER"          ? SiteMatch::Center
             : method == "CENTER COLUMN" ? SiteMatch::CenterColumn
             : method == "ALL SITES"     ? SiteMatch::AllSites
                                         : SiteMatch::CenterRow;
    o.lotName = FileOfPath(req.dataPath) + "DM";
    o.noDose = o.noNA = o.noPCi = o.noPCo = true;
    o.continueMissing = [](const std::string&) { return true; };
    auto converted = ConvertLot(*out.lot, library, o);
    if (!converted || !*converted) {
        Log("    !!!!_______dmLot focus conversion  UNSUCCESSFUL.____ chk: " + ChkText(p.chk));
        if (!converted) return converted.failure();
        return p.fail("Data not imported into lot.");
    }
    Log("...Data Lot focus conversion SUCCESSFUL. chk: " + ChkText(p.chk));
    out.lot = *converted;
    out.dmLot = out.lot->clone(true);
    out.description += "Focus template: " + a.focusTemplate + "\r\n";
    return StatusOk();
}

void LogSummary(const Datam& summary) {
    if (!summary.isArray()) return;
    Log(" ________ Analysis Summary _______________");
    for (int r = summary.rowLb(); r <= summary.rowUb(); ++r) {
        std::string name = CellText(summary(r, 1));
        if (name.size() < 18) name.append(18 - name.size(), ' ');
        Log("     " + name + CellText(summary(r, 2)));
    }
    Log(" _______________________________________");
}

}  // namespace

std::string DMFailedText(const std::string& dataFile) {
    return "    ________The Analysis of " + dataFile + " Failed._______\r\n      Please examine the Analysis log file.";
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
    TrendChartSetup setup;
    setup.feature = feature;
    auto charts = CreateTrendPlots(*data, TrendPlotSetup(names), setup);
    if (!charts) return charts.failure();
    if (charts->empty())
        return p.fail("No trended statistic" + (stat.empty() ? std::string() : " '" + stat + "'") + " in the template.");
    return charts;
}

Result<DMRunOutcome> DoDailyMonitor(const DMRunRequest& req) {
    Proc p("ZorvDM(doDailyMonitor): ");
    DMRunOutcome out;
    const std::string dataName = FileOfPath(req.dataPath);
    auto failed = [&](const Failure& f) -> Failure {
        // Step 22: the log has the whole story; the caller shows the text.
        Log(f.tag + f.text + " chk: " + ChkText(f.chk));
        Log("      ***** Termination With Error *****");
        Log(" Analysis in ERROR! ");
        Log("        Program Exit: " + TimeNow());
        Log("     ================END========================= ");
        SetStatusText("Completed with errors");
        return f;
    };
    p.chk = 1;
    Log(" +++++++++++++++++START++++++++++++++++++++++");
    Log("_____________ Manual Logging ________________");
    Log("Zorv DM logging: ver: " + VersionString());
    {
        std::string sys = GetSystemInfo();
        ReplaceAll(sys, "\r\n", " ");
        Log(sys);
    }
    Log(DateNow() + " " + TimeNow());
    Log(p.tag() + " Analysis Start: " + TimeNow());
    Log("     Default data import: " + req.importFilter + " Folder: " + FolderOfPath(req.dataPath));

    // The template (step 5, 6).
    p.chk = 5;
    SetStatusText("Opening Zorv Macro ...");
    Log("_________Zorv Macro Open___________________");
    Log("    Open Macro " + TimeNow() + " chk: " + ChkText(p.chk));
    Log("        ...Folder: " + FolderOfPath(req.templatePath));
    Log("        ...Macro:  " + FileOfPath(req.templatePath));
    std::error_code ec;
    if (!fs::is_regular_file(req.templatePath, ec))
        return failed(p.fail("Template file '" + req.templatePath + "' does not exist."));
    // A template of the same name from another folder is let go first.
    if (WorkbookPtr other = Workbooks::Find(FileOfPath(req.templatePath)); other && other->path() != req.templatePath)
        Workbooks::Close(other);
    auto opened = Workbooks::Open(req.templatePath);
    if (!opened) return failed(opened.failure());
    WorkbookPtr tplWb = *opened;
    if (!HasSheet(*tplWb, "LAYOUT"))
        return failed(p.fail(tplWb->name() + " does not contain any layout information."));
    p.chk = 6;
    Log("    ...'GetDMtemplateTables':  chk: " + ChkText(p.chk));
    auto tpl = ReadDMTemplate(tplWb.get());
    if (!tpl) return failed(tpl.failure());
    Log("    ...'GetDMtemplateTables':Return ");
    out.tpl = std::move(*tpl);
    out.templateWorkbook = tplWb;
    LogSummary(out.tpl.summary);
    if (CheckEscKey()) return failed(Interrupted(p, req.batch));
    const DMAnalysis& a = out.tpl.analysis;

    // The data and the lot (steps 7 to 12).
    if (Status st = LoadDataLot(req, *tplWb, out, p); !st) return failed(st.failure());
    p.chk = 12;
    Log("_____Begin Setup of dmLot____chk: " + ChkText(p.chk));
    out.dmLot = out.lot->clone(true);
    SetStatusText("Lot setup ...");
    if (Status st = RemoveReticleData(req, out, p); !st) return failed(st.failure());

    // The kind's flow (steps 14 to 18).
    p.chk = 14;
    Log("    ...Analysis Format: " + a.caption);
    out.description += "Analysis:" + a.caption + "\r\n";
    SetStatusText(a.caption + " Data conversion . . .");
    Status flow = StatusOk();
    if (a.kind == DMKind::Matrix) flow = MatrixFlow(req, out, p);
    else if (a.kind == DMKind::FixedFocus) flow = FixedFocusFlow(req, out, p);
    else out.dmLot = out.lot->clone(true);
    if (!flow) return failed(flow.failure());
    if (!out.dmLot) return failed(p.fail("Data not imported into lot."));

    // Step 19: a component of the field out.
    if (a.removeComponent && !a.component.caption.empty() && !IContains(a.component.caption, "(NONE)")) {
        p.chk = 19;
        Log("...Component Removed: " + a.component.caption);
        if (auto l = out.dmLot->RemoveFieldValue(nullptr)) out.dmLot = l;
        out.description += "Component: " + a.component.caption + "\r\n";
    }

    // Step 20: the wafers.
    p.chk = 20;
    cLot& dm = *out.dmLot;
    std::vector<cWafer*> wafers;
    for (cWafer* w : dm.Wafers())
        if (!w->cull()) wafers.push_back(w);
    const bool combined = a.combineWafers || wafers.size() <= 1;
    const long n = combined ? 1 : static_cast<long>(wafers.size());
    Log("________Begin analysis of " + std::to_string(wafers.size()) + " wafers____chk: " + ChkText(p.chk));
    UnitContext cx{out.tpl, AnalysedFeatures(dm, out.tpl), AllAxes(out.tpl), nullptr, out.dataWorkbook.get()};
    WorkbookPtr pwBook;
    if (a.pwAnalysis.index >= 0) {
        pwBook = Workbook::create((fs::temp_directory_path() / "ZorvDM_pw.xlsx").string(), "Index");
        cx.pwWorkbook = pwBook.get();
    }
    const TrendPlotList trend = TrendPlotSetup(TrendNames(out.tpl.tables));
    TrendRun run;
    run.when = NowSerial();
    run.dataSet = dataName;
    const std::string dataSet = dataName;
    run.comments = a.comments;
    for (long i = 0; i < n; ++i) {
        if (CheckEscKey()) return failed(Interrupted(p, req.batch));
        DMUnitResult u;
        if (!combined) {
            // One wafer live at a time, in place: no copy of the lot per wafer.
            u.waferId = wafers[static_cast<size_t>(i)]->WaferID;
            for (cWafer* w : wafers) w->setCull(w != wafers[static_cast<size_t>(i)]);
            const std::string line = "...Wafer #: " + std::to_string(i + 1) + " of " + std::to_string(n) + ", " + u.waferId;
            Log(line);
            SetStatusText(line);
        }
        Status analysed = AnalyseUnit(dm, cx, u);
        if (!combined)
            for (cWafer* w : wafers) w->setCull(false);
        if (!analysed) return failed(analysed.failure());
        // The trend rows of this wafer, saved with the template at the end.
        std::vector<TrendFeatureValues> rows;
        for (int c = 1; u.raw.isArray() && c <= u.raw.colUb(); ++c) {
            const std::string column = Trim(CellText(u.raw(0, c)));
            rows.push_back({column, trend.items, UnitTrendValues(u, column, trend.items)});
            if (std::find(out.trendFeatures.begin(), out.trendFeatures.end(), column) == out.trendFeatures.end())
                out.trendFeatures.push_back(column);
        }
        // Each wafer's row tells its wafer beside the file.
        run.dataSet = combined ? dataSet : dataSet + " [" + u.waferId + "]";
        if (req.saveTrend && !trend.items.empty())
            if (Status st = SaveTrendData(*tplWb, rows, run, false); !st) return failed(st.failure());
        out.units.push_back(std::move(u));
        ShowProgress(static_cast<int>(100 * (i + 1) / n));
    }
    if (req.saveTrend && !trend.items.empty())
        if (Status st = SaveWorkbookChecked(*tplWb, kTemplateSheet, false); !st) return failed(st.failure());
    if (cx.sheetsWritten && out.dataWorkbook)
        if (Status st = SaveWorkbookChecked(*out.dataWorkbook, out.dataWorkbook->sheetNames().front(), false); !st)
            return failed(st.failure());

    // The result's identity.
    out.stats = DMStatsTable(out.units);
    out.info.dataFile = dataName;
    out.info.dataFolder = FolderOfPath(req.dataPath);
    out.info.templateName = FileOfPath(req.templatePath);
    out.info.templateFolder = FolderOfPath(req.templatePath);
    out.info.tool = out.lot->MetrologyTool;
    out.info.when = run.when;
    out.info.wafers = static_cast<long>(wafers.size());
    // The header block: its rows down to the first empty key.
    const Datam& h = out.tpl.tables.header;
    int last = h.rowLb() - 1;
    while (last < h.rowUb() && !Trim(CellText(h(last + 1, 1))).empty()) ++last;
    out.header = last >= 1 ? Datam(last, 3, 1, 1) : Datam();
    for (int r = 1; r <= last; ++r)
        for (int c = 1; c <= 3; ++c) out.header(r, c) = h(r, c);

    p.chk = 21;
    SetStatusText(dataName + ": Analysis Done . . .");
    Log("     Analysis End: " + TimeNow() + " chk: " + ChkText(p.chk));
    Log("    _____ Analysis Successful! _____");
    Log("     ================END========================= ");
    SetStatusText("Done.");
    return out;
}

}  // namespace zorv
