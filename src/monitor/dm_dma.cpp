// The monitor without a user: a host's command line run to its result files,
// and the batch lists stored in a template.
#include <chrono>
#include <filesystem>

#include "app/settings.h"
#include "base/format.h"
#include "base/identity.h"
#include "base/regional.h"
#include "base/report.h"
#include "base/text.h"
#include "dm_log.h"
#include "dm_template_util.h"
#include "lot/lot.h"
#include "monitor/dm_run.h"
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

std::string Setting(const char* key, const std::string& fallback = {}) {
    return GetSetting(kApp, kSection, key, fallback);
}

// The lot's points as the data sheet of the result workbook.
Datam LotTable(cLot* lot) {
    if (!lot) return {};
    Datam m = lot->GetDataMatrix();
    return m.isArray() ? m : Datam();
}

}  // namespace

DMAResult RunDMA(const std::string& commandLine, const DMAOptions& options) {
    DMAResult r;
    r.noticeTitle = std::string(kProductName) + "... Automation analysis complete.";
    const bool wasLogging = Logging();
    // A host may keep the log apart from the program ("RemoteCallLogFolder").
    if (const std::string folder = Setting("RemoteCallLogFolder"); folder.size() > 2)
        GetLogFile((fs::path(folder) / "RemoteCall.Log").string());
    SetLogging(true);
    const std::string filter = options.importFilter.empty() ? Setting("ImportFilter") : options.importFilter;
    Log("+++++++++++++++++START++++++++++++++++++++++");
    Log("_________ Zorv DMA Auto-Run Logging ________");
    Log("Start DMA: " + DateNow() + "  " + TimeNow());
    Log("... Import Filter: " + filter);

    const std::string tplFolder = options.templateFolder.empty() ? Setting("TemplateSource", ProgramFolder()) : options.templateFolder;
    const std::string dataFolder = options.dataFolder.empty() ? Setting("DataFolder", ProgramFolder()) : options.dataFolder;
    auto parsed = ParseDMCommandLine(commandLine, tplFolder, dataFolder);
    auto finish = [&](const std::string& result) {
        Log("    ...Date/Time");
        Log("    Zorv DMA Analysis End: " + DateNow() + " " + TimeNow());
        if (r.succeeded) {
            Log("_________Analysis was SUCCESSFUL____________");
        } else {
            Log("    ERROR: " + result);
            Log("_____________Analysis FAILED________________");
        }
        Log("++++++++++++++++++ END ++++++++++++++++++++++");
        SetLogging(GetSetting(kApp, "Settings", "chkLogData", "0") == "1" || wasLogging);
        SetStatusText("Ready");
        r.notice = "Analysis of file: " + r.dataName + " Complete.\r\n\r\n" + result +
                   "\r\n\r\nSelect 'Log' to display the 'RemoteCall.log' file.\r\n"
                   "Select 'Analysis' to display the analysis results.\r\n\r\nThis window will close in ";
    };
    if (!parsed) {
        // No result file: the host learns of a bad line from the log.
        const std::string text = "     =====================\r\n" + parsed.failure().text + "\r\n     =====================";
        Log(text);
        r.resultText = parsed.failure().text;
        finish(r.resultText);
        return r;
    }
    r.parsed = true;
    for (const std::string& l : parsed->log) Log(l);
    r.dataName = parsed->dataName;
    Log("___System ID___");
    Log("    Zorv DMA: ver: " + VersionString());
    {
        std::string sys = GetSystemInfo();
        ReplaceAll(sys, "\r\n", " ");
        Log("    System ID: " + sys);
    }
    Log("    DMA Analysis Start: " + TimeNow());
    Log("    CommandLine: ");
    Log("      '" + commandLine + "'");

    // frmDM(runDM)
    Log("    runDM/ DMA Start: " + TimeNow());
    SetStatusText(parsed->dataName + " DMA Start: " + TimeNow());
    DMRunRequest req;
    req.templatePath = parsed->templatePath;
    req.dataPath = parsed->dataPath;
    req.importFilter = filter;
    req.storeInDataDirectory = Setting("StoreInDataDirectory", "1") != "0";
    req.dataStorageDirectory = Setting("DataStorageDirectory");
    req.proceedWithoutReticle = options.proceedWithoutReticle;
    req.libraryFolder = options.libraryFolder;
    auto run = DoDailyMonitor(req);

    DMOutput out;
    if (run) {
        auto table = BuildDMResultTable(run->info, run->header, run->stats);
        if (table) out.table = std::move(*table);
        else out.checkpoint = ChkText(table.failure().chk), Log(table.failure().message());
        out.lotData = LotTable(run->lot.get());
        if (run->lot && !run->lot->LotName.empty()) out.lotName = run->lot->LotName;
    } else {
        out.checkpoint = ChkText(run.failure().chk);
    }
    if (!parsed->asciiFolder.empty()) Log("    ___ Write Output to ASCII File: " + parsed->asciiFolder);
    if (!parsed->xlsFolder.empty()) Log("    ___ Write Output to WorkBook File: " + parsed->xlsFolder);
    if (!parsed->htmlFolder.empty()) Log("    ___ Write Output to WorkBook File to Web: " + parsed->htmlFolder);
    auto files = WriteDMOutput(out, parsed->dataName, parsed->asciiFolder, parsed->xlsFolder, parsed->htmlFolder);
    if (files) {
        r.files = *files;
        if (!files->csv.empty()) Log("    ...ASCII Output: " + files->csv);
        if (!files->xls.empty()) Log("    ...Output XLS: " + files->xls);
        if (out.table.isArray()) {
            // The statistics are the rows "name." with a number.
            long n = 0;
            for (int i = 1; i <= out.table.rowUb(); ++i) {
                const std::string key = out.table(i, 1).toString();
                n += !key.empty() && key.back() == '.' && out.table(i, 2).isNumberType();
            }
            Log("    ...Output of " + std::to_string(n) + " statistics.");
        }
    } else {
        Log(files.failure().message());
    }

    // The log kept short when the settings ask.
    if (Setting("DMAlimitFileSize", "0") != "0") {
        long minLines = std::atol(Setting("DMAminLines", "100").c_str());
        long maxLines = std::atol(Setting("DMAmaxLines", "-1").c_str());
        const std::string log = GetLogFile();
        CloseLogFile();
        if (auto cut = LogFileSizeControl(log, minLines, maxLines); !cut) Log(cut.failure().message());
    }
    if (options.saveSettings) {
        SaveSetting(kApp, kSection, "DMA_OutputAsciiPath", r.files.csv);
        SaveSetting(kApp, kSection, "DMA_OutputXLSPath", r.files.xls);
        SaveSetting(kApp, kSection, "DMA_OutputHTMLPath", r.files.html);
        SaveSetting(kApp, kSection, "DMA_FileName", parsed->dataName);
    }
    if (run && files) {
        r.succeeded = true;
        r.resultText = "1";
        r.outcome = std::make_shared<DMRunOutcome>(std::move(*run));
        Log("    >>>>>>>>>> run DM successful <<<<<<<<<<<< ");
        finish(r.resultText);
    } else {
        r.resultText = run ? files.failure().message() : DMFailedText(parsed->dataName) + "\r\n" + run.failure().message();
        Log("_____Analaysis NOT successful! ______");
        finish(r.resultText);
    }
    return r;
}

std::vector<std::string> GetBatchSheets(Workbook& workbook) {
    std::vector<std::string> out;
    for (const std::string& name : workbook.sheetNames()) {
        Worksheet* ws = workbook.sheet(name);
        if (!ws) continue;
        for (const Comment& c : ws->comments())
            if (Upper(Trim(c.text)).find("BATCHFILE") != std::string::npos) {
                out.push_back(name);
                break;
            }
    }
    return out;
}

Status SaveBatchSheet(Workbook& workbook, const std::string& sheet,
                      const std::vector<std::pair<std::string, std::string>>& files, bool save) {
    Proc p("frmOptionsDM(SaveBatch): ");
    if (files.empty()) return p.fail("No files selected for Batch Processing");
    Datam t(static_cast<int>(files.size()), 2, 0, 1);
    t(0, 1) = Value("File"), t(0, 2) = Value("Folder");
    for (size_t i = 0; i < files.size(); ++i) {
        t(static_cast<int>(i) + 1, 1) = Value(files[i].first);
        t(static_cast<int>(i) + 1, 2) = Value(files[i].second);
    }
    SaveArrayOptions o;
    o.batchFile = true;
    o.save = save;
    if (Status st = SaveArray(t, sheet, &workbook, o); !st) return st;
    Log("Batch list saved to: '" + sheet + "' in '" + workbook.name() + "'");
    return StatusOk();
}

Result<DMBatchResult> RunBatch(const DMRunRequest& base, const std::string& sheet,
                               const std::function<void(int, const std::string&, const Result<DMRunOutcome>&)>& perFile) {
    Proc p("frmDM(cmdBatch): ");
    DMBatchResult out;
    auto log = [&](const std::string& l) {
        out.log.push_back(l);
        Log(l);
    };
    const auto start = std::chrono::steady_clock::now();
    log("####################################");
    log("___________Batch file ______________");
    log("    Start: " + DateNow() + " " + TimeNow());
    log("    Batch: " + sheet);
    auto fail = [&](Failure f) -> Failure {
        log("     Error Abort: " + TimeNow());
        log("_______ Batch Analysis NOT Successful ____________");
        log("##################################################");
        return f;
    };
    p.chk = 1;
    auto opened = Workbooks::Open(base.templatePath);
    if (!opened) return fail(opened.failure());
    Worksheet* ws = (*opened)->sheet(sheet);
    if (!ws) return fail(p.fail("Batch sheet '" + sheet + "' not found in " + (*opened)->name()));
    p.chk = 2;
    const Datam used = ws->usedRange();
    int head = -1, col = -1;
    for (int r = 1; used.isArray() && r <= used.rowUb() && head < 0; ++r)
        for (int c = 1; c <= used.colUb(); ++c)
            if (IEquals(Trim(CellText(used(r, c))), "File")) head = r, col = c;
    if (head < 0) return fail(p.fail("No files selected for Batch Processing"));
    std::vector<std::pair<std::string, std::string>> files;
    for (int r = head + 1; r <= used.rowUb(); ++r) {
        const std::string f = Trim(CellText(used(r, col)));
        if (f.empty()) break;
        files.emplace_back(f, col + 1 <= used.colUb() ? Trim(CellText(used(r, col + 1))) : std::string());
    }
    out.files = static_cast<int>(files.size());
    log("    ___BatchFileList___");
    for (size_t i = 0; i < files.size(); ++i)
        log("      File" + std::to_string(i + 1) + ": " + files[i].first + " [" + files[i].second + "]");
    for (size_t i = 0; i < files.size(); ++i) {
        p.chk = 4;
        if (CheckEscKey()) return fail(p.fail("User interrupted analysis..."));
        ProgressBar(static_cast<int>(100 * i / files.size()));
        SetStatusText("Batch File: [" + sheet + "]  " + files[i].first + "=#" + std::to_string(i + 1) + " of " +
                      std::to_string(files.size()));
        DMRunRequest req = base;
        req.batch = true;
        req.dataPath = files[i].second.empty() ? files[i].first : (fs::path(files[i].second) / files[i].first).string();
        log("    ______________________________");
        auto run = DoDailyMonitor(req);
        log("    ______________________________");
        if (perFile) perFile(static_cast<int>(i) + 1, req.dataPath, run);
        if (!run) return fail(run.failure());
        ++out.done;
    }
    const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    log("    Batch: [" + sheet + "] Total Files=" + std::to_string(files.size()));
    log("   Files total: " + std::to_string(files.size()) + " in " +
        (secs < 60 ? Format(secs, "0") + "s" : Format(secs / 60, "0.0") + " minutes"));
    log("    Batch End: " + DateNow());
    log("___________Batch [" + sheet + "] Successful ______________");
    log("########################################");
    ProgressBar(-1);
    return out;
}

Result<int> DeleteBatch(Workbook& workbook, const std::string& sheet, const std::function<bool(const std::string&)>& confirm,
                        bool save) {
    Proc p("DMcommon(BatchFile): ");
    const std::string q = sheet.empty() ? "This command will delete ALL Batch listing. "
                                        : "This command will delete Batch:  [" + sheet + "] \r\nAre you sure you wish to proceed?";
    const bool yes = confirm ? confirm(q) : MsgBox(q, vbYesNo | vbQuestion) == vbYes;
    if (!yes) return 0;
    int gone = 0;
    for (const std::string& s : GetBatchSheets(workbook))
        if ((sheet.empty() || IEquals(s, sheet)) && workbook.sheetCount() > 1 && workbook.removeSheet(s)) ++gone;
    if (gone && save)
        if (Status st = SaveWorkbookChecked(workbook, kTemplateSheet, false); !st) return st.failure();
    return gone;
}

}  // namespace zorv
