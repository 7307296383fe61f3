// One run of the daily monitor: a template and a data file in, per wafer (or
// for the combined lot) the statistics, models and process window values the
// template asks for out, with a row added to each feature's trend sheet. The
// run needs no window: the desktop, the automation and zorv-cli call the same
// routine with a plain record of what the monitor window would hold.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "monitor/dm_automation.h"
#include "monitor/dm_template.h"
#include "monitor/dm_trend.h"
#include "workbook/store.h"

namespace zorv {

class cLot;

// What frmDailyMonitor holds when the run starts.
struct DMRunRequest {
    std::string templatePath;  // the template workbook
    std::string dataPath;      // a raw tool file or a data workbook
    std::string importFilter;  // the format's description; empty: detected from the file
    // "StoreInDataDirectory" and "DataStorageDirectory": where an imported
    // data workbook goes.
    bool storeInDataDirectory = true;
    std::string dataStorageDirectory;
    std::string libraryFolder;  // the focus template library; empty: the default
    bool batch = false;         // the text of an interrupted run
    bool saveTrend = true;      // false: the template is not written
    // A reticle file that is missing: true goes on without removing it. Unset
    // asks through the reporting path.
    std::function<bool(const std::string& question)> proceedWithoutReticle;
};

// The values of one analysed unit: a wafer, or the lot with "CombineWafers".
// Each table has the names in column 0 from row 1 and a column per analysed
// feature headed in row 0.
struct DMUnitResult {
    std::string waferId;  // empty for the combined lot
    Datam raw, waferModel, fieldModel, processWindow;
};

struct DMRunOutcome {
    DMTemplate tpl;
    std::shared_ptr<cLot> lot, dmLot;
    std::vector<DMUnitResult> units;
    // The statistics of the result files: names in column 0 (the groups'
    // heads as "__ Wafer Model __" ...), a column per unit and feature.
    Datam stats;
    DMRunInfo info;
    Datam header;  // the template's header rows: keys column 1, values column 2
    std::string description;
    std::string dataWorkbookPath;
    WorkbookPtr dataWorkbook;  // gains the model tables of the run
    WorkbookPtr templateWorkbook;
    std::vector<std::string> trendFeatures;  // the features given a trend row
};

// ZorvDM(doDailyMonitor). Writes the run's log lines when logging is on. A
// failure carries the step's text; the trend rows are saved only when the
// whole run succeeded, so a failing run never changes the template.
[[nodiscard]] Result<DMRunOutcome> DoDailyMonitor(const DMRunRequest& request);

// The text that ends a failed run (step 22).
std::string DMFailedText(const std::string& dataFile);

// frmDM(FormatStatistics): the rows worth a trend or a result of a lot's raw
// statistics (CalcRawStats), the rows of the fixed list passed over; with
// allAxes the feature columns stay, else only `feature`'s.
Datam FormatStatistics(const Datam& rawStats, bool allAxes, const std::string& feature);

// frmDM(GetStatNames): the names of the first statistics table of the
// template's sheet, or the single name "No Statistics".
[[nodiscard]] Result<std::vector<std::string>> GetStatNames(Workbook* workbook);

// DMcommon(GetPWmodeled): the "Variable", "Value" table (rows from 1, header
// row 0) of a process window report sheet. kind: "Dose", "Focus", "PW" or
// "DoseBF".
[[nodiscard]] Result<Datam> GetPWmodeled(Workbook* workbook, const std::string& kind);
// The report sheet of a kind.
std::string PWReportSheet(const std::string& kind);

// DMcommon(UpdateLotAverageModelValues): the rows "=======" and "  Mean:"
// (the mean of each numeric column over the table's rows) added to a model
// table whose data rows run from 1.
void UpdateLotAverageModelValues(Datam& table);

// The unit tables as the result table's statistics.
Datam DMStatsTable(const std::vector<DMUnitResult>& units);

// ---- automation

// frmDM(Load) and frmDM(runDM) of a command line: the parse, the run, the
// result files, the log size control and the settings of the last run. The
// log has every line; the notice is the closing notice's text.
struct DMAOptions {
    std::string templateFolder, dataFolder;  // "TemplateSource", "DataFolder"; empty: the settings
    std::string importFilter;                // empty: "ImportFilter"
    std::string libraryFolder;               // the focus template library; empty: the default
    bool saveSettings = true;                // the "DMA_" keys of the last run
    std::function<bool(const std::string&)> proceedWithoutReticle;
};
struct DMAResult {
    bool parsed = false, succeeded = false;
    std::string resultText;  // "1" or the failure's text
    DMResultFiles files;
    std::string dataName;
    std::string notice;        // the closing notice
    std::string noticeTitle;
    std::shared_ptr<DMRunOutcome> outcome;  // null when the run failed
    int exitCode() const { return succeeded ? 0 : parsed ? 1 : 2; }
};
DMAResult RunDMA(const std::string& commandLine, const DMAOptions& options = {});

// The trend charts of a feature from the template's trend sheet: one per
// statistic the template trends (or the one named); those of the feature's
// level (mean, median, extremes) first, against its target and limits.
// rows gets the trend's row count. No rows: "Trend Statistics have no
// data."; nothing trended: "No trended statistic".
[[nodiscard]] Result<std::vector<std::unique_ptr<cGraphic>>> DMTrendCharts(Workbook& workbook,
                                                                          const DMTemplateTables& tables,
                                                                          const std::string& feature,
                                                                          const std::string& stat = {},
                                                                          int* rows = nullptr);

// ---- templates of the shipped kinds

// Fills a fresh setup with a kind's choices for a lot: "overlay" (raw metrology with a wafer and a
// field model), "psfm" (fixed focus, converted by the sample calibration
// template), "matrix" (a PSFM focus matrix calibrated in the run), "fem" (a
// process window). False for another word.
bool DMSetupOfKind(const std::string& kind, const cLot& lot, DMSetup& setup);
// A template of a kind saved from a data workbook (its layout included) at
// `out`; a "psfm" template gets the sample calibration library beside it.
struct DMNewTemplate {
    std::string path, caption;
};
[[nodiscard]] Result<DMNewTemplate> NewDMTemplate(const std::string& dataWorkbook, const std::string& kind,
                                                  const std::string& out);

// The statistics the template trends, by table.
TrendStatistics TrendNames(const DMTemplateTables& t);

// ---- batch

// frmDM(GetBatchSheets): the sheets that carry a comment "BATCHFILE".
std::vector<std::string> GetBatchSheets(Workbook& workbook);
// A batch list: a sheet of the template with the comment, heads "File",
// "Folder", a row per data file.
[[nodiscard]] Status SaveBatchSheet(Workbook& workbook, const std::string& sheet,
                                    const std::vector<std::pair<std::string, std::string>>& files,
                                    bool save = true);
// frmDM(cmdBatch): every file of the batch sheet through DoDailyMonitor; the
// cancel flag (Escape) is looked at before each file. perFile gets each
// file's outcome (or failure) as it ends.
struct DMBatchResult {
    int files = 0, done = 0;
    std::vector<std::string> log;
};
[[nodiscard]] Result<DMBatchResult> RunBatch(
    const DMRunRequest& base, const std::string& sheet,
    const std::function<void(int index, const std::string& file, const Result<DMRunOutcome>&)>& perFile = {});
// DMcommon(BatchFile) with delete set: deletes the sheet, or every batch
// sheet when none is named, after the question; answers how many went.
[[nodiscard]] Result<int> DeleteBatch(Workbook& workbook, const std::string& sheet,
                                      const std::function<bool(const std::string&)>& confirm, bool save = true);

}  // namespace zorv
