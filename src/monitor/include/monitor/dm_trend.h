// The daily monitor's trend history: one sheet per feature inside the
// template workbook, a row appended by every run, and the trend charts drawn
// from those rows against the feature's target and limits.
//
// What the routines need of the template (the statistics marked "Trend", the
// feature's "Target", "Max" and "Min") comes in as plain values, so that they
// run without the template reader and without a window.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "graphics/chart.h"
#include "workbook/store.h"

namespace zorv {

// ---- sheet names

// "TC_" and the feature name without blanks and without the word "Feature_":
// "Feature_Mean" and "Mean" both give "TC_Mean". Cut to the 31 characters
// of a sheet name.
std::string TrendSheetName(std::string_view feature);
// The name an older template's trend sheet takes now ("TrendChartsH" and
// "TrendCharts_H" become "TC_Horizontal" ...); empty for any other name.
std::string RenamedTrendSheet(std::string_view oldName);
// frmDM(FixTrendSheetName): renames every old trend sheet of the workbook.
// A sheet whose new name is taken keeps its old one. Answers how many moved.
int FixTrendSheetName(Workbook& workbook);
// A sheet that holds trend rows: its name begins "TrendCharts" or "TC_".
bool IsTrendSheet(std::string_view sheetName);

// The texts of a trend sheet.
inline constexpr std::string_view kTrendHead = "Trend Chart Data";
inline constexpr std::string_view kTrendTitleTail = " Feature data for Trend Charts";
inline constexpr std::string_view kTrendDateFormat = "dd-mmm-yyyy";
inline constexpr std::string_view kTrendTimeFormat = "hh:mm:ss";

// ---- the table of a sheet

// Where a sheet's table stands: the row of its heads, the column of "Date",
// and the first data row (the row below the heads).
struct TrendStart {
    int headRow = 0;
    int col = 0;
    int firstRow = 0;
};
// DMcommon(GetTrendDataStart): the cell "DATE" (any case) marks the table.
// An empty sheet gets the heads "Date", "Time", "DataSet" in row 2; a sheet
// with other content but no "Date" gets them below its last row.
TrendStart GetTrendDataStart(Worksheet& sheet);

// The feature's row of the template's "Feature" table. Max is the upper
// control limit, Min the lower; an absent value draws no line.
struct TrendLimits {
    std::optional<double> target, max, min;
};

// DMcommon(GetDMTrendChartData): the trend table of a feature, its sheet made
// when missing (old names renamed first). Header row 0 holds the sheet's
// heads ("Date", "Time", "DataSet", the statistics, "Comments") and then
// "UCL", "LCL", "Target"; rows 1.. are the sheet's data rows with the limits
// repeated on each. No workbook: "A workbook was not provided.".
[[nodiscard]] Result<Datam> GetDMTrendChartData(Workbook* workbook, const std::string& feature,
                                                const TrendLimits& limits = {});

// ---- trend names

// The group a trend statistic belongs to.
enum class TrendGroup { Raw, Wafer, Field, ProcessWindow };
std::string_view TrendGroupName(TrendGroup g);  // "Raw", "Wafer", "Field", "Process Window"

struct TrendItem {
    std::string name;              // as the template shows it
    TrendGroup group = TrendGroup::Raw;
    bool fitted = false;           // "_FITTED" / "_ FITTED" in the name
    bool separator = false;        // a group's head row ("__ Process", "Window __")
    bool blank = false;            // "--": a free row
    std::string second;            // the separator's second cell
};

// DMcommon(UpdateDMTrendArrays): sorts the names into their groups. A name
// with "_" and "MODEL" or "WINDOW" heads a group: "WAFER(S)" the wafer model,
// "FIELD(S)" the field model, "PROCESS" the process window; the names after
// it belong to that group until the next head. The first group is the raw one.
std::vector<TrendItem> UpdateDMTrendArrays(const std::vector<std::string>& names);

// The name of a statistic's column in the trend sheet: the raw name as it
// is, a model term with its group ahead ("Wafer Tx", "Field Piston") so that
// the same term of two models keeps two columns.
std::string TrendColumnName(const TrendItem& item);

// DMcommon(FindTrendColumn): the column (in the table's own numbering) of a
// statistic among the heads of row `headRow`: the exact name first, then a
// head holding the same name and the group's word ("FIELD", "WAFER"). 0 when
// none.
int FindTrendColumn(const Datam& heads, int headRow, const TrendItem& item);

// frmDM(GetDataColumn): the column of a result table whose head matches a
// trend name: the name itself (any case), else "CURVATURE" takes a head with
// "curv" or "bow", "PISTON" one of "Offset", "BestFocus", "BF(fitted)", "BF",
// "X TILT" a head with "xtilt", "Y TILT" one with "ytilt" (blanks ignored).
// 0 when none.
int GetDataColumn(const Datam& heads, int headRow, std::string_view trendName);

// DailyMonitor(StatsAlias): the row name of the statistics table for a name
// shown ("Fields" is "#Dice", "Mean" "Best Focus", ...). "Curvature" is
// "Curv(um/cm2)", or "Curv(nm/cm2)" when the table (keys in its first
// column) lacks the first. A name without alias stands for itself.
std::string StatsAlias(std::string_view shown, const Datam* statsTable = nullptr);

// The value of each name in a statistics table (row keys in its first
// column, heads in row `headRow`), looked up through StatsAlias, from column
// `valueCol`. A statistic not in the table gives an empty value.
std::vector<Value> TrendValuesFromStats(const Datam& statsTable, int valueCol, const std::vector<TrendItem>& items);

// ---- saving

// The run a trend row records.
struct TrendRun {
    double when = 0;      // date serial, the fraction the time of day
    std::string dataSet;  // the data file's name
    std::string comments;
};
// One feature's values of the run, in the order of items (an empty value
// leaves its cell empty).
struct TrendFeatureValues {
    std::string feature;  // "Mean", "Horizontal", "Vertical" or the feature's name
    std::vector<TrendItem> items;
    std::vector<Value> values;
};
// DMcommon(SaveTrendData): per feature, finds or makes its sheet, adds the
// columns of new statistics ahead of "Comments", appends one row (date as
// "dd-mmm-yyyy", time as "hh:mm:ss", data set, values, comments) and, with
// save, saves the workbook.
[[nodiscard]] Status SaveTrendData(Workbook& workbook, const std::vector<TrendFeatureValues>& features,
                                   const TrendRun& run, bool save = true);

// DMcommon(UpdateTrendComments): in every trend sheet, the "Comments" column
// takes the grid's texts (the first for the first data row, ...; rows past
// the grid stay), and the date and time columns their formats. Saves with save.
[[nodiscard]] Status UpdateTrendComments(Workbook& workbook, const std::vector<std::string>& comments,
                                         bool save = true);

// The current date and time as a serial.
double TrendNow();

// ---- charts

// The trend statistics of the template, by table ("Trend" marked True).
struct TrendStatistics {
    std::vector<std::string> raw, waferModel, fieldModel, processWindow;
};
struct TrendPlotList {
    std::vector<TrendItem> items;  // separators and blanks included
    std::string tickFormat = "#0.000";
};
// DailyMonitor(TrendPlotSetup): raw statistics, then each model's terms and
// the process window names, each group after its separator row
// ("__ Wafer", "Model __"; "__ Field", "Model __"; "__ Process", "Window __").
TrendPlotList TrendPlotSetup(const TrendStatistics& stats);

// DailyMonitor(CreateTrendTabs): (key, caption) per plotted statistic;
// with none, the one tab "No Statistics" under "kNo Statistics".
std::vector<std::pair<std::string, std::string>> CreateTrendTabs(const TrendPlotList& plots);

struct TrendChartSetup {
    std::string feature;     // the Y axis' label
    bool focus = false;      // the values are focus: Y axis "Focus"
    bool showLimits = true;  // "Show UCL/LCL limits"
    std::string dateFormat = "dd-mmm-yy";  // the X axis' tick labels
};
// frmDM(CreateTrendPlots): one chart per statistic of the list found in the
// trend table (GetDMTrendChartData). A chart's table has the heads "Date"
// (date and time as one serial), "Data", "UCL", "LCL", "Target"; its curve
// "Data" reads the column "Data", and with showLimits the limit lines read
// their columns. X axis "Date", Y axis by the feature. A statistic without a
// column gets an empty chart (no rows) that PlotDMstats refuses.
[[nodiscard]] Result<std::vector<std::unique_ptr<cGraphic>>> CreateTrendPlots(const Datam& trend,
                                                                              const TrendPlotList& plots,
                                                                              const TrendChartSetup& setup);

// DailyMonitor(PlotDMstats): draws a chart made by CreateTrendPlots (trend)
// or a statistics chart. With no rows: "Trend Statistics have no data." or
// "Statistics have no data.".
[[nodiscard]] Status PlotDMstats(cGraphic* chart, Surface& surface, bool trend = true);

// The manual entry of a trend row: the password asked under the title
// appName ": Trend Chart Entry" must be the fixed one. ask(prompt, title)
// returns what the user typed.
bool TrendEntryAllowed(const std::string& appName,
                       const std::function<std::string(const std::string&, const std::string&)>& ask);

}  // namespace zorv
