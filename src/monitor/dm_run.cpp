// The monitor run: template, data, lot, the kind's flow, then the analysis of
// each wafer and its trend rows. Log lines keep their original texts, as the
// hosts that watch the log look for them.
#include "monitor/dm_run.h"

#include <algorithm>
#include <filesystem>

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
#include "dm_unit.h"
#include "import/import.h"
#include "lot/lot.h"
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
using dmu::AllAxes;
using dmu::AnalysedFeatures;
using dmu::AnalyseUnit;
using dmu::UnitContext;
using dmu::UnitTrendValues;

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

Worksheet* SheetNoCase(Workbook& wb, std::string_view name) {
    for (const std::string& s : wb.sheetNames())
        if (IEquals(s, name)) return wb.sheet(s);
    return nullptr;
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
            const std::string folder = StorageFolderOnDisk(NormaliseStoragePath(req.dataStorageDirectory));
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
        if (!why.empty()) Log("   ...Format: " + why);
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
    if (direct) {
        SetStatusText("Workbook Lot import complete");
        Log("    ... Data Worksheet opened successfully.");
    }
    // A raw file carries no exposure layout: the template's stands in.
    if (!tables.layoutSetup.isArray()) {
        Datam setup, values;
        if (GetLayoutData(&tplWb, setup, values) && lot->TotalWafers() == 1) FPdata2Lot(*lot, setup);
        if (tables.workbook && !SheetNoCase(*tables.workbook, "LAYOUT")) {
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
    // The calibration and its focus beside the data, saved with the run.
    if (Workbook* wb = out.dataWorkbook.get()) {
        SaveArrayOptions o;
        o.save = false;
        o.title = "Calibration Statistics: " + lot.LotName;
        if (Status st = SaveArray(results, "Calibration", wb, o); !st) return st;
        o.title = "Raw Focus from : " + lot.LotName;
        if (Status st = SaveArray(MakeFocusData(*joined), "RawFocus", wb, o); !st) return st;
    }
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
    if (!SheetNoCase(*tplWb, "LAYOUT"))
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
    // The data workbook keeps what the run added: the layout, the
    // calibration, the model tables.
    if (out.dataWorkbook && out.dataWorkbook->isDirty())
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
