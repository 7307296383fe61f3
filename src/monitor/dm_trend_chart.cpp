// The trend statistics: their groups, where their values are found, and the
// trend charts drawn from the trend table.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <string>
#include <vector>

#include "base/regional.h"
#include "base/report.h"
#include "base/text.h"
#include "monitor/dm_trend.h"
#include "numerics/matrix.h"
#include "workbook/workbook_ops.h"

namespace zorv {

namespace {

std::string CellText(const Value& v) { return Trim(v.isString() ? std::string(v.str()) : v.toString()); }

// Upper case without blanks and underscores: how names are compared by their words.
std::string Squeezed(std::string_view s) {
    std::string out;
    for (char ch : s)
        if (ch != ' ' && ch != '_') out += UpChar(ch);
    return out;
}

// The words of a name, upper case, split at anything not a letter or digit.
std::vector<std::string> Words(std::string_view s) {
    std::vector<std::string> words;
    std::string w;
    for (char ch : s) {
        if (std::isalnum(static_cast<unsigned char>(ch))) {
            w += UpChar(ch);
        } else if (!w.empty()) {
            words.push_back(std::move(w));
            w.clear();
        }
    }
    if (!w.empty()) words.push_back(std::move(w));
    return words;
}

bool HasWord(const std::vector<std::string>& words, std::initializer_list<std::string_view> any) {
    for (const std::string& w : words)
        for (std::string_view a : any)
            if (w == a) return true;
    return false;
}

// The column of a head in row `headRow`, 0 when absent.
int HeadColumn(const Datam& t, int headRow, std::string_view head) {
    for (int c = t.colLb(); c <= t.colUb(); ++c)
        if (IEquals(CellText(t(headRow, c)), head)) return c;
    return 0;
}

// The row of a key in the first column of a table, -1 when absent.
int KeyRow(const Datam& t, std::string_view key) {
    if (!t.isArray() || t.dims() != 2) return -1;
    for (int r = t.rowLb(); r <= t.rowUb(); ++r)
        if (IEquals(CellText(t(r, t.colLb())), key)) return r;
    return -1;
}

// A date, time or date-and-time cell as a serial; false when it is none.
bool SerialOf(const Value& v, double& out) {
    if (v.isEmpty()) return false;
    if (v.isDate() || v.isNumberType()) return out = v.toDouble(), true;
    return v.isString() && ParseDateText(v.str(), out);
}

// The key of a statistic's tab and chart: "k" and its column name.
std::string TabKey(const TrendItem& it) {
    std::string key = "k";
    return key.append(TrendColumnName(it));
}

const char* const kCurveHeads[] = {"Date", "Data", "UCL", "LCL", "Target"};

// The chart of one statistic: its rows of the trend table with a date and a
// numeric value, X the date and time as one serial.
Datam ChartTable(const Datam& trend, int valueCol, int dateCol, int timeCol, const int limitCols[3]) {
    std::vector<int> rows;
    for (int r = 1; r <= trend.rowUb(); ++r) {
        double d, v;
        if (valueCol && SerialOf(trend(r, dateCol), d) && NumericOf(trend(r, valueCol), v)) rows.push_back(r);
    }
    Datam t(static_cast<int>(rows.size()), 5, 0, 1);
    for (int c = 0; c < 5; ++c) t(0, c + 1) = Value(kCurveHeads[c]);
    for (size_t i = 0; i < rows.size(); ++i) {
        const int r = rows[i], o = static_cast<int>(i) + 1;
        double d = 0, tm = 0, v = 0;
        SerialOf(trend(r, dateCol), d);
        // A date cell may carry its time already; the time cell adds only
        // the time of day.
        if (timeCol && SerialOf(trend(r, timeCol), tm)) d = std::floor(d) + (tm - std::floor(tm));
        NumericOf(trend(r, valueCol), v);
        t(o, 1) = Value(d);
        t(o, 2) = Value(v);
        for (int k = 0; k < 3; ++k)
            if (limitCols[k]) t(o, 3 + k) = trend(r, limitCols[k]);
    }
    return t;
}

// X axis over whole days, a tick per day or per a few days.
void DateAxis(cAxis& ax, const Datam& t, const TrendChartSetup& setup) {
    double lo = 0, hi = 0;
    for (int r = 1; r <= t.rowUb(); ++r) {
        const double x = t(r, 1).toDouble();
        lo = r == 1 ? x : std::min(lo, x);
        hi = r == 1 ? x : std::max(hi, x);
    }
    const double first = std::floor(lo);
    const double step = std::max(1.0, std::ceil((hi - first) / 8));
    ax.Label = "Date";
    ax.TickFormat = setup.dateFormat;
    ax.LowValue = static_cast<float>(first);
    ax.HighValue = static_cast<float>(first + step * (std::ceil((hi - first) / step) + 1));
    ax.TickInterval = static_cast<float>(step);
    ax.AutoScale = false;
    ax.OriginLowValue = ax.LowValue, ax.OriginHighValue = ax.HighValue;
    ax.OriginTickInterval = ax.TickInterval, ax.OriginTickFormat = ax.TickFormat;
}

// Y axis over every drawn column, limits included (the engine's auto-scale
// lets no 0 set the range, and a limit of 0 must show): a step of 1, 2 or 5
// times a power of ten, about eight of them, one to spare at each end.
void ValueAxis(cAxis& ay, const Datam& t, const Series& series) {
    double lo = 0, hi = 0;
    bool any = false;
    for (int i = 1; i <= series.Count(); ++i)
        for (int r = 1; r <= t.rowUb(); ++r) {
            double v;
            if (!NumericOf(t(r, series.Item(i)->Ycol), v)) continue;
            lo = any ? std::min(lo, v) : v;
            hi = any ? std::max(hi, v) : v;
            any = true;
        }
    double span = hi - lo;
    if (!(span > 0)) span = lo != 0 ? std::fabs(lo) : 1;
    const double raw = span / 8, mag = std::pow(10.0, std::floor(std::log10(raw)));
    const double f = raw / mag;
    const double step = (f <= 1 ? 1 : f <= 2 ? 2 : f <= 5 ? 5 : 10) * mag;
    ay.LowValue = static_cast<float>((std::floor(lo / step + 1e-9) - 1) * step);
    ay.HighValue = static_cast<float>((std::ceil(hi / step - 1e-9) + 1) * step);
    ay.TickInterval = static_cast<float>(step);
    ay.UnitsPerTick = ay.TickInterval;
    ay.AutoScale = false;
    ay.OriginLowValue = ay.LowValue, ay.OriginHighValue = ay.HighValue;
    ay.OriginTickInterval = ay.TickInterval;
}

}  // namespace

std::string_view TrendGroupName(TrendGroup g) {
    switch (g) {
        case TrendGroup::Raw: return "Raw";
        case TrendGroup::Wafer: return "Wafer";
        case TrendGroup::Field: return "Field";
        case TrendGroup::ProcessWindow: return "Process Window";
    }
    return {};
}

std::vector<TrendItem> UpdateDMTrendArrays(const std::vector<std::string>& names) {
    std::vector<TrendItem> items;
    TrendGroup group = TrendGroup::Raw;
    for (const std::string& raw : names) {
        TrendItem it;
        const std::string name = Trim(raw);
        const std::string up = Upper(name);
        const std::vector<std::string> words = Words(name);
        if (name.rfind("--", 0) == 0) {
            it.blank = true;
        } else if (name.find('_') != std::string::npos && HasWord(words, {"MODEL", "WINDOW"})) {
            // A group's head: its words choose the group of what follows.
            if (HasWord(words, {"WAFER", "WAFERS"})) group = TrendGroup::Wafer;
            else if (HasWord(words, {"FIELD", "FIELDS"})) group = TrendGroup::Field;
            else if (HasWord(words, {"PROCESS"})) group = TrendGroup::ProcessWindow;
            it.separator = true;
        }
        it.fitted = up.find("_FITTED") != std::string::npos || up.find("_ FITTED") != std::string::npos;
        it.group = group;
        it.name = name;
        if (it.separator) {
            // Shown as two cells: "__ Process", "Window __".
            const size_t first = name.find(' ');
            const size_t second = first == std::string::npos ? first : name.find(' ', first + 1);
            if (second != std::string::npos) {
                it.name = name.substr(0, second);
                it.second = Trim(name.substr(second + 1));
            }
        }
        items.push_back(std::move(it));
    }
    return items;
}

std::string TrendColumnName(const TrendItem& item) {
    if (item.group != TrendGroup::Wafer && item.group != TrendGroup::Field) return item.name;
    std::string out(TrendGroupName(item.group));
    out.append(" ").append(item.name);
    return out;
}

int FindTrendColumn(const Datam& heads, int headRow, const TrendItem& item) {
    if (!heads.isArray() || heads.dims() != 2 || headRow < heads.rowLb() || headRow > heads.rowUb()) return 0;
    const std::string exact = TrendColumnName(item);
    if (const int c = HeadColumn(heads, headRow, exact)) return c;
    // An older sheet may name a model's column in its own way ("Field_Piston",
    // "WAFER Tx"): the group's word and the rest of the name must both match.
    const char* word = item.group == TrendGroup::Wafer ? "WAFER" : item.group == TrendGroup::Field ? "FIELD" : nullptr;
    if (!word) return 0;
    const std::string want = Squeezed(item.name);
    for (int c = heads.colLb(); c <= heads.colUb(); ++c) {
        std::string h = Squeezed(CellText(heads(headRow, c)));
        const size_t at = h.find(word);
        if (at == std::string::npos) continue;
        h.erase(at, std::string_view(word).size());
        // "FIELDS" leaves its "S" where the word stood.
        if (h == want || (h.compare(at, 1, "S") == 0 && h.substr(0, at) + h.substr(at + 1) == want)) return c;
    }
    return 0;
}

int GetDataColumn(const Datam& heads, int headRow, std::string_view trendName) {
    if (!heads.isArray() || heads.dims() != 2 || headRow < heads.rowLb() || headRow > heads.rowUb()) return 0;
    if (const int c = HeadColumn(heads, headRow, Trim(trendName))) return c;
    auto containing = [&](std::string_view part) {
        const std::string want = Squeezed(part);
        for (int c = heads.colLb(); c <= heads.colUb(); ++c)
            if (Squeezed(CellText(heads(headRow, c))).find(want) != std::string::npos) return c;
        return 0;
    };
    const std::string up = Upper(trendName);
    const std::string sq = Squeezed(trendName);
    if (up.find("CURVATURE") != std::string::npos) {
        for (std::string_view w : {"curv", "bow"})
            if (const int c = containing(w)) return c;
        return 0;
    }
    if (up.find("PISTON") != std::string::npos) {
        static constexpr std::string_view kPiston[] = {"Offset", "BestFocus", "BF(fitted)", "BF"};
        for (std::string_view w : kPiston)
            if (const int c = HeadColumn(heads, headRow, w)) return c;
        for (std::string_view w : kPiston)
            if (const int c = containing(w)) return c;
        return 0;
    }
    if (sq.find("XTILT") != std::string::npos) return containing("xtilt");
    if (sq.find("YTILT") != std::string::npos) return containing("ytilt");
    return 0;
}

std::string StatsAlias(std::string_view shown, const Datam* statsTable) {
    struct Alias {
        std::string_view shown, row;
    };
    static constexpr Alias kAlias[] = {
        {"Fields", "#Dice"},           {"Mean", "Best Focus"},           {"Max99%", "Max_99.7%"},
        {"Mean3Sigma", "Mean+3Sigma"}, {"Piston", "BF(Fitted)"},         {"Curvature", "Curv(um/cm2)"},
        {"IFD Residuals", "IFDresid(um)"}, {"Sites", "Sites/Die"},       {"StdErr", "StDev"},
        {"XTilt(urad)", "X Tilt(urad)"}, {"YTilt(urad)", "Y Tilt(urad)"},
    };
    const std::string name = Trim(shown);
    for (const Alias& a : kAlias) {
        if (!IEquals(name, a.shown)) continue;
        if (a.shown == "Curvature" && statsTable && KeyRow(*statsTable, a.row) < 0) return "Curv(nm/cm2)";
        return std::string(a.row);
    }
    return name;
}

std::vector<Value> TrendValuesFromStats(const Datam& statsTable, int valueCol, const std::vector<TrendItem>& items) {
    std::vector<Value> out;
    for (const TrendItem& it : items) {
        Value v;
        if (!it.separator && !it.blank && statsTable.isArray() && statsTable.dims() == 2 &&
            valueCol >= statsTable.colLb() && valueCol <= statsTable.colUb()) {
            int r = KeyRow(statsTable, StatsAlias(it.name, &statsTable));
            if (r < 0) r = KeyRow(statsTable, it.name);
            if (r >= 0) v = statsTable(r, valueCol);
        }
        out.push_back(std::move(v));
    }
    return out;
}

TrendPlotList TrendPlotSetup(const TrendStatistics& stats) {
    std::vector<std::string> names(stats.raw);
    auto group = [&](const std::vector<std::string>& terms, const char* head) {
        if (terms.empty()) return;
        names.emplace_back(head);
        names.insert(names.end(), terms.begin(), terms.end());
    };
    group(stats.waferModel, "__ Wafer Model __");
    group(stats.fieldModel, "__ Field Model __");
    group(stats.processWindow, "__ Process Window __");
    TrendPlotList list;
    list.items = UpdateDMTrendArrays(names);
    return list;
}

std::vector<std::pair<std::string, std::string>> CreateTrendTabs(const TrendPlotList& plots) {
    std::vector<std::pair<std::string, std::string>> tabs;
    for (const TrendItem& it : plots.items)
        if (!it.separator && !it.blank) tabs.emplace_back(TabKey(it), TrendColumnName(it));
    if (tabs.empty()) tabs.emplace_back("kNo Statistics", "No Statistics");
    return tabs;
}

Result<std::vector<std::unique_ptr<cGraphic>>> CreateTrendPlots(const Datam& trend, const TrendPlotList& plots,
                                                               const TrendChartSetup& setup) {
    Proc p("frmDM(CreateTrendPlots): ");
    if (!trend.isArray() || trend.dims() != 2 || trend.rowLb() != 0) return p.fail("Trend Statistics have no data.");
    p.chk = 1;
    const int dateCol = HeadColumn(trend, 0, "Date"), timeCol = HeadColumn(trend, 0, "Time");
    if (!dateCol) return p.fail("Trend Statistics have no data.");
    const int limitCols[3] = {HeadColumn(trend, 0, "UCL"), HeadColumn(trend, 0, "LCL"), HeadColumn(trend, 0, "Target")};
    std::vector<std::unique_ptr<cGraphic>> charts;
    for (const TrendItem& it : plots.items) {
        if (it.separator || it.blank) continue;
        p.chk = 2;
        auto g = std::make_unique<cGraphic>();
        g->KeyName = TabKey(it);
        std::string title = setup.feature;
        if (!title.empty()) title.append(": ");
        g->TitleObj.TitleString = title.append(TrendColumnName(it));
        const Datam t = ChartTable(trend, FindTrendColumn(trend, 0, it), dateCol, timeCol, limitCols);
        cAxis& ay = g->Axes.Add("Y");
        ay.Label = setup.focus ? "Focus" : setup.feature;
        cAxis& ax = g->Axes.Add("X");
        ax.Label = "Date";
        if (t.rowUb() < 1) {
            charts.push_back(std::move(g));
            continue;
        }
        DateAxis(ax, t, setup);
        // The limits run across the whole axis, so that they show also
        // when every run fell on one day.
        Datam shown = t;
        if (setup.showLimits) {
            const int n = t.rowUb();
            shown = Datam(n + 2, 5, 0, 1);
            for (int c = 1; c <= 5; ++c) shown(0, c) = t(0, c);
            for (int r = 1; r <= n; ++r)
                for (int c = 1; c <= 5; ++c) shown(r + 1, c) = t(r, c);
            shown(1, 1) = Value(static_cast<double>(ax.LowValue));
            shown(n + 2, 1) = Value(static_cast<double>(ax.HighValue));
            for (int c = 3; c <= 5; ++c) shown(1, c) = t(1, c), shown(n + 2, c) = t(n, c);
        }
        if (Status st = g->RegisterData(shown); !st) return st.failure();
        cSeries& data = g->Series.Add(it.name);
        data.Xcol = 1, data.Ycol = 2;
        data.ColorFore = RGB(0, 0, 255);
        data.Symbol = SymbolShape::FilledCircle;
        if (setup.showLimits) {
            struct Line {
                const char* label;
                int col;
                Color color;
                DrawStyle style;
            };
            const Line lines[] = {{"UCL", 3, RGB(255, 0, 0), DrawStyle::Dash},
                                  {"LCL", 4, RGB(255, 0, 0), DrawStyle::Dash},
                                  {"Target", 5, RGB(0, 128, 0), DrawStyle::Solid}};
            for (const Line& l : lines) {
                if (t(1, l.col).isEmpty()) continue;
                cSeries& s = g->Series.Add(l.label);
                s.Xcol = 1, s.Ycol = l.col;
                s.ColorFore = l.color;
                s.LineType = static_cast<int>(l.style);
                s.SymbolDisplay = false;
                s.Symbol = SymbolShape::None;
            }
        }
        p.chk = 3;
        ValueAxis(ay, g->Data(), g->Series);
        ay.TickFormat = plots.tickFormat;
        ay.AutoScale = false;
        ay.OriginTickFormat = ay.TickFormat;
        charts.push_back(std::move(g));
    }
    SetStatusText("Trend chart setup completed.");
    return charts;
}

Status PlotDMstats(cGraphic* chart, Surface& surface, bool trend) {
    Proc p("DailyMonitor(PlotDMstats): ");
    if (!chart || !chart->Data().isArray() || chart->Data().rowUb() < 1 || chart->Series.Count() == 0)
        return p.fail(trend ? "Trend Statistics have no data." : "Statistics have no data.");
    p.chk = 1;
    chart->Container(&surface);
    return chart->DrawFigure();
}

}  // namespace zorv
