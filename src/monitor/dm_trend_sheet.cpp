// The trend sheets of a template workbook: their names, their table, the row
// each run appends and the comments the trend tab writes back.
#include <algorithm>
#include <cmath>
#include <ctime>
#include <string>
#include <vector>

#include "base/regional.h"
#include "base/report.h"
#include "base/text.h"
#include "monitor/dm_trend.h"
#include "workbook/workbook_ops.h"

namespace zorv {

namespace {

// The heads every trend table begins with, and the one it ends with.
constexpr std::string_view kDateHead = "Date";
constexpr std::string_view kTimeHead = "Time";
constexpr std::string_view kDataSetHead = "DataSet";
constexpr std::string_view kCommentsHead = "Comments";

std::string CellText(const Value& v) { return Trim(v.isString() ? std::string(v.str()) : v.toString()); }

// The column of a head in the head row, 0 when absent.
int HeadColumn(Worksheet& ws, int headRow, int fromCol, std::string_view head) {
    const int last = ws.lastCol();
    for (int c = fromCol; c <= last; ++c)
        if (IEquals(CellText(ws.cell(headRow, c)), head)) return c;
    return 0;
}

// The last head of the head row (the table's right edge).
int LastHead(Worksheet& ws, const TrendStart& at) {
    int last = at.col;
    for (int c = at.col; c <= ws.lastCol(); ++c)
        if (!CellText(ws.cell(at.headRow, c)).empty()) last = c;
    return last;
}

// The last data row: the last row below the heads with a date.
int LastDataRow(Worksheet& ws, const TrendStart& at) {
    int last = at.headRow;
    for (int r = at.firstRow; r <= ws.lastRow(); ++r)
        if (!ws.cell(r, at.col).isEmpty()) last = r;
    return last;
}

// A new trend sheet: the head rows and the table's first heads.
Worksheet* MakeTrendSheet(Workbook& wb, const std::string& feature) {
    Worksheet* ws = wb.addSheet(TrendSheetName(feature));
    if (!ws) return nullptr;
    ws->setCell(1, 1, Value(kTrendHead));
    std::string title = feature;
    title.append(kTrendTitleTail);
    ws->setCell(1, 2, Value(title));
    ws->setBold(Area{1, 1, 1, 2});
    (void)GetTrendDataStart(*ws);
    return ws;
}

// The feature's sheet, old names renamed first, made when missing.
Worksheet* TrendSheet(Workbook& wb, const std::string& feature) {
    FixTrendSheetName(wb);
    if (Worksheet* ws = wb.sheet(TrendSheetName(feature))) return ws;
    return MakeTrendSheet(wb, feature);
}

// The date and time formats over a sheet's data rows.
void FormatDateTime(Worksheet& ws, const TrendStart& at, int lastRow) {
    if (lastRow < at.firstRow) return;
    ws.setNumberFormat(Area{at.firstRow, at.col, lastRow, at.col}, kTrendDateFormat);
    if (const int tc = HeadColumn(ws, at.headRow, at.col, kTimeHead))
        ws.setNumberFormat(Area{at.firstRow, tc, lastRow, tc}, kTrendTimeFormat);
}

// The column of a statistic, added ahead of "Comments" when missing (the
// comments move one column right).
int StatisticColumn(Worksheet& ws, const TrendStart& at, const TrendItem& item) {
    const int last = LastHead(ws, at);
    Datam heads = ws.range(Area{at.headRow, at.col, at.headRow, last});
    if (const int c = FindTrendColumn(heads, 1, item)) return at.col + c - 1;
    int commentsCol = HeadColumn(ws, at.headRow, at.col, kCommentsHead);
    if (!commentsCol) {
        ws.setCell(at.headRow, last + 1, Value(TrendColumnName(item)));
        ws.setBold(Area{at.headRow, last + 1, at.headRow, last + 1});
        return last + 1;
    }
    const int lastRow = std::max(ws.lastRow(), at.headRow);
    for (int c = last; c >= commentsCol; --c)
        for (int r = at.headRow; r <= lastRow; ++r) ws.setCell(r, c + 1, ws.cell(r, c));
    for (int r = at.headRow; r <= lastRow; ++r) ws.setCell(r, commentsCol, Value());
    ws.setCell(at.headRow, commentsCol, Value(TrendColumnName(item)));
    ws.setBold(Area{at.headRow, commentsCol, at.headRow, last + 1});
    return commentsCol;
}

}  // namespace

std::string TrendSheetName(std::string_view feature) {
    std::string name;
    for (char ch : feature)
        if (ch != ' ') name += ch;
    for (size_t at; (at = Upper(name).find("FEATURE_")) != std::string::npos;) name.erase(at, 8);
    std::string out = "TC_";
    out.append(name);
    if (out.size() > kMaxSheetName) out.resize(kMaxSheetName);  // a sheet name holds 31 characters
    return out;
}

std::string RenamedTrendSheet(std::string_view oldName) {
    struct Old {
        std::string_view from, to;
    };
    static constexpr Old kOld[] = {{"TrendChartsMean", "TC_Mean"},       {"TrendChartsH", "TC_Horizontal"},
                                   {"TrendCharts_H", "TC_Horizontal"}, {"TrendChartsV", "TC_Vertical"},
                                   {"TrendCharts_V", "TC_Vertical"}};
    for (const Old& o : kOld)
        if (IEquals(oldName, o.from)) return std::string(o.to);
    return {};
}

int FixTrendSheetName(Workbook& workbook) {
    int moved = 0;
    for (const std::string& name : workbook.sheetNames()) {
        const std::string to = RenamedTrendSheet(name);
        if (to.empty() || workbook.sheet(to)) continue;
        if (Worksheet* ws = workbook.sheet(name); ws && ws->setName(to)) ++moved;
    }
    return moved;
}

bool IsTrendSheet(std::string_view sheetName) {
    return IStartsWith(sheetName, "TrendCharts") || IStartsWith(sheetName, "TC_");
}

TrendStart GetTrendDataStart(Worksheet& sheet) {
    const Area used = sheet.usedArea();
    if (!used.empty())
        for (int r = used.row1; r <= used.row2; ++r)
            for (int c = used.col1; c <= used.col2; ++c) {
                const Value& v = sheet.cell(r, c);
                if (v.isString() && IEquals(Trim(v.str()), "DATE")) return {r, c, r + 1};
            }
    // A sheet without a table gets its heads: row 2 of an empty one (row 1
    // is the title), else the row below what it holds.
    const int row = used.empty() ? 2 : std::max(2, used.row2 + 1);
    sheet.setCell(row, 1, Value(kDateHead));
    sheet.setCell(row, 2, Value(kTimeHead));
    sheet.setCell(row, 3, Value(kDataSetHead));
    sheet.setCell(row, 4, Value(kCommentsHead));
    sheet.setBold(Area{row, 1, row, 4});
    return {row, 1, row + 1};
}

Result<Datam> GetDMTrendChartData(Workbook* workbook, const std::string& feature, const TrendLimits& limits) {
    Proc p("DMcommon(GetDMTrendChartData): ");
    if (!workbook) return p.fail("A workbook was not provided.");
    p.chk = 1;
    SetStatusText("Uploading data for " + feature);
    Worksheet* ws = TrendSheet(*workbook, feature);
    if (!ws) return p.fail("Could not create trend sheet: " + TrendSheetName(feature));
    p.chk = 2;
    const TrendStart at = GetTrendDataStart(*ws);
    const int lastCol = LastHead(*ws, at), lastRow = LastDataRow(*ws, at);
    const int cols = lastCol - at.col + 1, rows = lastRow - at.headRow;
    Datam t(rows, cols + 3, 0, 1);
    for (int r = 0; r <= rows; ++r)
        for (int c = 1; c <= cols; ++c) t(r, c) = ws->cell(at.headRow + r, at.col + c - 1);
    // The limits ride along on every row so that a chart draws them as curves.
    const std::optional<double> lim[3] = {limits.max, limits.min, limits.target};
    const char* head[3] = {"UCL", "LCL", "Target"};
    for (int k = 0; k < 3; ++k) {
        t(0, cols + 1 + k) = Value(head[k]);
        if (lim[k])
            for (int r = 1; r <= rows; ++r) t(r, cols + 1 + k) = Value(*lim[k]);
    }
    return t;
}

Status SaveTrendData(Workbook& workbook, const std::vector<TrendFeatureValues>& features, const TrendRun& run,
                     bool save) {
    Proc p("DMcommon(SaveTrendData): ");
    const double day = std::floor(run.when);
    for (const TrendFeatureValues& f : features) {
        p.chk = 1;
        Worksheet* ws = TrendSheet(workbook, f.feature);
        if (!ws) return p.fail("Could not create trend sheet: " + TrendSheetName(f.feature));
        p.chk = 2;
        const TrendStart at = GetTrendDataStart(*ws);
        std::vector<int> cols;
        for (const TrendItem& item : f.items)
            cols.push_back(item.separator || item.blank ? 0 : StatisticColumn(*ws, at, item));
        p.chk = 3;
        const int row = LastDataRow(*ws, at) + 1;
        ws->setCell(row, at.col, Value::date(day));
        if (const int c = HeadColumn(*ws, at.headRow, at.col, kTimeHead))
            ws->setCell(row, c, Value::date(run.when - day));
        if (const int c = HeadColumn(*ws, at.headRow, at.col, kDataSetHead)) ws->setCell(row, c, Value(run.dataSet));
        for (size_t i = 0; i < cols.size() && i < f.values.size(); ++i)
            if (cols[i]) ws->setCell(row, cols[i], f.values[i]);
        int commentsCol = HeadColumn(*ws, at.headRow, at.col, kCommentsHead);
        if (!commentsCol) {
            commentsCol = LastHead(*ws, at) + 1;
            ws->setCell(at.headRow, commentsCol, Value(kCommentsHead));
        }
        if (!run.comments.empty()) ws->setCell(row, commentsCol, Value(run.comments));
        FormatDateTime(*ws, at, row);
    }
    if (!save) return StatusOk();
    p.chk = 4;
    if (Status st = workbook.save(); !st) return st;
    return StatusOk();
}

Status UpdateTrendComments(Workbook& workbook, const std::vector<std::string>& comments, bool save) {
    SetStatusText("   Updating comments into trend-data ....");
    for (const std::string& name : workbook.sheetNames()) {
        if (!IsTrendSheet(name)) continue;
        Worksheet* ws = workbook.sheet(name);
        if (!ws) continue;
        const TrendStart at = GetTrendDataStart(*ws);
        // "Comments" or "COMMENTS": the compare is blind to case.
        const int col = HeadColumn(*ws, at.headRow, at.col, kCommentsHead);
        const int lastRow = LastDataRow(*ws, at);
        if (col)
            for (size_t i = 0; i < comments.size(); ++i) {
                const int r = at.firstRow + static_cast<int>(i);
                if (r > lastRow) break;
                ws->setCell(r, col, comments[i].empty() ? Value() : Value(comments[i]));
            }
        FormatDateTime(*ws, at, lastRow);
    }
    if (!save) return StatusOk();
    if (Status st = workbook.save(); !st) return st;
    return StatusOk();
}

double TrendNow() { return NowSerial(); }

bool TrendEntryAllowed(const std::string& appName,
                       const std::function<std::string(const std::string&, const std::string&)>& ask) {
    if (!ask) return false;
    std::string title = appName;
    title.append(": Trend Chart Entry");
    return ask("Enter password: ", title) == "Qalm7Vx204";
}

}  // namespace zorv
