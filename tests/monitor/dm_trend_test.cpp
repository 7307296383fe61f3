// Trend sheets kept in a template workbook and the trend charts drawn from them.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "base/format.h"
#include "graphics/recording_surface.h"
#include "monitor/dm_trend.h"

namespace zorv {
namespace {

namespace fs = std::filesystem;

std::string TmpFile(const std::string& name) {
    const fs::path dir = fs::path(ZORV_TEST_TMP) / "dm_trend";
    fs::create_directories(dir);
    const fs::path p = dir / name;
    fs::remove(p);
    return p.string();
}

// 2026-01-01 is serial 46023 (2025-01-01 is 45658, plus 365 days).
constexpr double kMar5 = 46023 + 31 + 28 + 4;
constexpr double kMar6 = kMar5 + 1;
const double kTime1 = (8 * 3600 + 30 * 60 + 15) / 86400.0;  // 08:30:15
const double kTime2 = (14 * 3600 + 5 * 60) / 86400.0;       // 14:05:00

// A statistics table as the run makes it: keys in column 0, a value column per axis.
Datam Stats(double bestFocus, double stdev) {
    return Datam::fromRows({{"Statistic", "X", "Y", "Mean"},
                            {"#Dice", 12, 12, 12},
                            {"Best Focus", bestFocus - 0.01, bestFocus + 0.01, bestFocus},
                            {"StDev", stdev, stdev, stdev},
                            {"Curv(nm/cm2)", 1.5, 1.5, 1.5}});
}

TrendFeatureValues MeanValues(const TrendPlotList& plots, const Datam& stats) {
    return {"Mean", plots.items, TrendValuesFromStats(stats, 3, plots.items)};
}

TEST(DmTrendNames, SheetNamesAndOldNames) {
    EXPECT_EQ(TrendSheetName("Mean"), "TC_Mean");
    EXPECT_EQ(TrendSheetName("Feature_Horizontal"), "TC_Horizontal");
    EXPECT_EQ(TrendSheetName("Line Width Feature_2"), "TC_LineWidth2");
    EXPECT_EQ(TrendSheetName("Critical Dimension Of Dense Lines At Center"), "TC_CriticalDimensionOfDenseLine");
    EXPECT_EQ(RenamedTrendSheet("TrendChartsMean"), "TC_Mean");
    EXPECT_EQ(RenamedTrendSheet("TrendChartsH"), "TC_Horizontal");
    EXPECT_EQ(RenamedTrendSheet("TrendCharts_H"), "TC_Horizontal");
    EXPECT_EQ(RenamedTrendSheet("TrendChartsV"), "TC_Vertical");
    EXPECT_EQ(RenamedTrendSheet("TrendCharts_V"), "TC_Vertical");
    EXPECT_EQ(RenamedTrendSheet("TC_Mean"), "");
    EXPECT_TRUE(IsTrendSheet("TrendChartsH"));
    EXPECT_TRUE(IsTrendSheet("TC_Mean"));
    EXPECT_FALSE(IsTrendSheet("TemplateHeader"));

    // A sheet whose new name is taken keeps its own.
    WorkbookPtr wb = Workbook::create(TmpFile("names.xlsx"), "Information");
    wb->addSheet("TrendChartsH")->setCell(5, 1, Value("kept"));
    wb->addSheet("TrendChartsMean");
    wb->addSheet("TC_Mean");
    EXPECT_EQ(FixTrendSheetName(*wb), 1);
    EXPECT_EQ(wb->sheetNames(), (std::vector<std::string>{"Information", "TC_Horizontal", "TrendChartsMean", "TC_Mean"}));
    EXPECT_EQ(wb->sheet("TC_Horizontal")->cell(5, 1).str(), "kept");
}

TEST(DmTrendNames, AliasTable) {
    const std::pair<const char*, const char*> table[] = {
        {"Fields", "#Dice"},        {"Mean", "Best Focus"},           {"Max99%", "Max_99.7%"},
        {"Mean3Sigma", "Mean+3Sigma"}, {"Piston", "BF(Fitted)"},      {"Curvature", "Curv(um/cm2)"},
        {"IFD Residuals", "IFDresid(um)"}, {"Sites", "Sites/Die"},    {"StdErr", "StDev"},
        {"XTilt(urad)", "X Tilt(urad)"}, {"YTilt(urad)", "Y Tilt(urad)"}};
    for (const auto& [shown, row] : table) EXPECT_EQ(StatsAlias(shown), row) << shown;
    EXPECT_EQ(StatsAlias("Range"), "Range");
    // Curvature falls back to the nm row only where the um row is missing.
    const Datam withUm = Datam::fromRows({{"Curv(um/cm2)", 1}, {"Curv(nm/cm2)", 2}});
    const Datam nmOnly = Datam::fromRows({{"Curv(nm/cm2)", 2}});
    EXPECT_EQ(StatsAlias("Curvature", &withUm), "Curv(um/cm2)");
    EXPECT_EQ(StatsAlias("Curvature", &nmOnly), "Curv(nm/cm2)");

    const std::vector<TrendItem> items = UpdateDMTrendArrays({"Mean", "StdErr", "Curvature", "Range"});
    const std::vector<Value> v = TrendValuesFromStats(Stats(0.05, 0.02), 3, items);
    ASSERT_EQ(v.size(), 4u);
    EXPECT_DOUBLE_EQ(v[0].toDouble(), 0.05);
    EXPECT_DOUBLE_EQ(v[1].toDouble(), 0.02);
    EXPECT_DOUBLE_EQ(v[2].toDouble(), 1.5);
    EXPECT_TRUE(v[3].isEmpty());  // not in the table: an empty cell
}

TEST(DmTrendNames, GroupsAndColumns) {
    const std::vector<TrendItem> it = UpdateDMTrendArrays(
        {"Mean", "__ Wafer Model __", "Tx", "Ty_FITTED", "--", "__ Field Model __", "Piston",
         "__ Process Window __", "DoF"});
    ASSERT_EQ(it.size(), 9u);
    EXPECT_EQ(it[0].group, TrendGroup::Raw);
    EXPECT_TRUE(it[1].separator);
    EXPECT_EQ(it[1].name, "__ Wafer");
    EXPECT_EQ(it[1].second, "Model __");
    EXPECT_EQ(it[2].group, TrendGroup::Wafer);
    EXPECT_TRUE(it[3].fitted);
    EXPECT_FALSE(it[2].fitted);
    EXPECT_TRUE(it[4].blank);
    EXPECT_EQ(it[6].group, TrendGroup::Field);
    EXPECT_EQ(it[7].name, "__ Process");
    EXPECT_EQ(it[7].second, "Window __");
    EXPECT_EQ(it[8].group, TrendGroup::ProcessWindow);

    // The plot list puts each group after its separator row.
    const TrendPlotList plots = TrendPlotSetup({{"Mean"}, {}, {"Piston"}, {"DoF"}});
    EXPECT_EQ(plots.tickFormat, "#0.000");
    ASSERT_EQ(plots.items.size(), 5u);
    EXPECT_EQ(plots.items[1].name, "__ Field");
    EXPECT_EQ(plots.items[3].name, "__ Process");
    EXPECT_EQ(plots.items[3].second, "Window __");
    EXPECT_EQ(plots.items[4].group, TrendGroup::ProcessWindow);
    const auto tabs = CreateTrendTabs(plots);
    ASSERT_EQ(tabs.size(), 3u);
    EXPECT_EQ(tabs[1].first, "kField Piston");
    const auto none = CreateTrendTabs(TrendPlotSetup({}));
    ASSERT_EQ(none.size(), 1u);
    EXPECT_EQ(none[0].first, "kNo Statistics");
    EXPECT_EQ(none[0].second, "No Statistics");

    // Sheet columns: the raw "Piston" and the field model's stay apart; an
    // older head "FIELD_Piston" is still found.
    const Datam heads = Datam::fromRows({{"Date", "Time", "DataSet", "Piston", "FIELD_Piston", "Comments"}}, 0, 1);
    EXPECT_EQ(FindTrendColumn(heads, 0, it[0]), 0);
    EXPECT_EQ(FindTrendColumn(heads, 0, UpdateDMTrendArrays({"Piston"})[0]), 4);
    EXPECT_EQ(FindTrendColumn(heads, 0, it[6]), 5);

    // Result columns by their other names.
    const Datam res = Datam::fromRows({{"Wafer", "BF(fitted)", "X tilt(urad)", "YTilt", "Bow(nm)"}}, 0, 1);
    EXPECT_EQ(GetDataColumn(res, 0, "Piston"), 2);
    EXPECT_EQ(GetDataColumn(res, 0, "X Tilt(urad)"), 3);
    EXPECT_EQ(GetDataColumn(res, 0, "Y TILT"), 4);
    EXPECT_EQ(GetDataColumn(res, 0, "Curvature"), 5);
    EXPECT_EQ(GetDataColumn(res, 0, "wafer"), 1);
    EXPECT_EQ(GetDataColumn(res, 0, "Astigmatism"), 0);
}

TEST(DmTrendSheet, TwoRunsAppendTwoRows) {
    const std::string path = TmpFile("fresh.xlsx");
    const TrendPlotList plots = TrendPlotSetup({{"Mean", "StdErr", "Curvature", "Range"}, {}, {}, {}});
    {
        WorkbookPtr wb = Workbook::create(path, "Information");
        ASSERT_TRUE(SaveTrendData(*wb, {MeanValues(plots, Stats(0.05, 0.02))}, {kMar5 + kTime1, "lot1.csv", "first"}));
    }
    {
        auto wb = Workbook::open(path);
        ASSERT_TRUE(wb.ok()) << wb.failure().text;
        ASSERT_TRUE(SaveTrendData(**wb, {MeanValues(plots, Stats(0.07, 0.03))}, {kMar6 + kTime2, "lot2.csv", ""}));
    }
    auto wb = Workbook::open(path);
    ASSERT_TRUE(wb.ok()) << wb.failure().text;
    Worksheet* ws = (*wb)->sheet("TC_Mean");
    ASSERT_NE(ws, nullptr);
    EXPECT_EQ(ws->cell(1, 1).str(), "Trend Chart Data");
    EXPECT_EQ(ws->cell(1, 2).str(), "Mean Feature data for Trend Charts");
    const char* heads[] = {"Date", "Time", "DataSet", "Mean", "StdErr", "Curvature", "Range", "Comments"};
    for (int c = 0; c < 8; ++c) EXPECT_EQ(ws->cell(2, c + 1).str(), heads[c]) << c;
    EXPECT_EQ(ws->lastRow(), 4);

    struct Row {
        double day, time;
        const char *set, *date, *clock;
        double mean, sd;
        const char* comment;
    };
    const Row rows[] = {{kMar5, kTime1, "lot1.csv", "05-Mar-2026", "08:30:15", 0.05, 0.02, "first"},
                        {kMar6, kTime2, "lot2.csv", "06-Mar-2026", "14:05:00", 0.07, 0.03, ""}};
    for (int i = 0; i < 2; ++i) {
        const int r = 3 + i;
        const Row& w = rows[i];
        EXPECT_NEAR(ws->cell(r, 1).toDouble(), w.day, 1e-9);
        EXPECT_NEAR(ws->cell(r, 2).toDouble(), w.time, 1e-9);
        EXPECT_EQ(ws->numberFormat(r, 1), "dd-mmm-yyyy");
        EXPECT_EQ(ws->numberFormat(r, 2), "hh:mm:ss");
        EXPECT_EQ(FormatDate(ws->cell(r, 1).toDouble(), ws->numberFormat(r, 1)), w.date);
        EXPECT_EQ(FormatDate(ws->cell(r, 2).toDouble(), ws->numberFormat(r, 2)), w.clock);
        EXPECT_EQ(ws->cell(r, 3).str(), w.set);
        EXPECT_DOUBLE_EQ(ws->cell(r, 4).toDouble(), w.mean);
        EXPECT_DOUBLE_EQ(ws->cell(r, 5).toDouble(), w.sd);
        EXPECT_DOUBLE_EQ(ws->cell(r, 6).toDouble(), 1.5);  // "Curv(nm/cm2)": no um row in the table
        EXPECT_TRUE(ws->cell(r, 7).isEmpty());             // "Range" is not a statistic of the table
        EXPECT_EQ(ws->cell(r, 8).str(), w.comment);
    }

    // The trend tab's comments go back into the sheet.
    ASSERT_TRUE(UpdateTrendComments(**wb, {"", "re-run"}));
    auto again = Workbook::open(path);
    ASSERT_TRUE(again.ok());
    Worksheet* ws2 = (*again)->sheet("TC_Mean");
    EXPECT_TRUE(ws2->cell(3, 8).isEmpty());
    EXPECT_EQ(ws2->cell(4, 8).str(), "re-run");
}

TEST(DmTrendSheet, OldTemplateEndsWithNewName) {
    const std::string path = TmpFile("old.xlsx");
    {
        WorkbookPtr wb = Workbook::create(path, "Information");
        Worksheet* old = wb->addSheet("TrendChartsH");
        old->setCell(1, 1, Value("Trend Chart Data"));
        const char* heads[] = {"DATE", "TIME", "DataSet", "Mean", "COMMENTS"};
        for (int c = 0; c < 5; ++c) old->setCell(3, c + 1, Value(heads[c]));
        old->setCell(4, 1, Value::date(kMar5));
        old->setCell(4, 2, Value::date(kTime1));
        old->setCell(4, 3, Value("old.csv"));
        old->setCell(4, 4, Value(0.01));
        old->setCell(4, 5, Value("old note"));
        ASSERT_TRUE(wb->save());
    }
    auto wb = Workbook::open(path);
    ASSERT_TRUE(wb.ok());
    const TrendPlotList plots = TrendPlotSetup({{"Mean", "StdErr"}, {}, {}, {}});
    TrendFeatureValues h{"Horizontal", plots.items, TrendValuesFromStats(Stats(0.04, 0.01), 1, plots.items)};
    ASSERT_TRUE(SaveTrendData(**wb, {h}, {kMar6 + kTime2, "new.csv", ""}));

    auto back = Workbook::open(path);
    ASSERT_TRUE(back.ok());
    EXPECT_EQ((*back)->sheet("TrendChartsH"), nullptr);
    Worksheet* ws = (*back)->sheet("TC_Horizontal");
    ASSERT_NE(ws, nullptr);
    // The new statistic's column comes ahead of the comments, which move along.
    EXPECT_EQ(ws->cell(3, 5).str(), "StdErr");
    EXPECT_EQ(ws->cell(3, 6).str(), "COMMENTS");
    EXPECT_EQ(ws->cell(4, 6).str(), "old note");
    EXPECT_TRUE(ws->cell(4, 5).isEmpty());
    EXPECT_EQ(ws->cell(5, 3).str(), "new.csv");
    EXPECT_DOUBLE_EQ(ws->cell(5, 4).toDouble(), 0.04 - 0.01);  // column 1 of the table: X
    EXPECT_DOUBLE_EQ(ws->cell(5, 5).toDouble(), 0.01);
    EXPECT_EQ(ws->lastRow(), 5);
}

TEST(DmTrendChart, SeriesAndLimitLines) {
    auto noBook = GetDMTrendChartData(nullptr, "Mean");
    ASSERT_FALSE(noBook.ok());
    EXPECT_EQ(noBook.failure().text, "A workbook was not provided.");

    WorkbookPtr wb = Workbook::create(TmpFile("chart.xlsx"), "Information");
    const TrendPlotList plots = TrendPlotSetup({{"Mean", "Range"}, {}, {}, {}});
    ASSERT_TRUE(SaveTrendData(*wb, {MeanValues(plots, Stats(0.05, 0.02))}, {kMar5 + kTime1, "a", ""}, false));
    ASSERT_TRUE(SaveTrendData(*wb, {MeanValues(plots, Stats(0.07, 0.03))}, {kMar6 + kTime2, "b", ""}, false));
    const TrendLimits limits{0.06, 0.1, 0.0};
    auto trend = GetDMTrendChartData(wb.get(), "Mean", limits);
    ASSERT_TRUE(trend.ok()) << trend.failure().text;
    ASSERT_EQ(trend->rowUb(), 2);

    TrendChartSetup setup;
    setup.feature = "Mean";
    setup.focus = true;
    auto charts = CreateTrendPlots(*trend, plots, setup);
    ASSERT_TRUE(charts.ok()) << charts.failure().text;
    ASSERT_EQ(charts->size(), 2u);
    cGraphic& g = *(*charts)[0];
    EXPECT_EQ(g.Axes.Item("X")->Label, "Date");
    EXPECT_EQ(g.Axes.Item("Y")->Label, "Focus");
    EXPECT_EQ(g.Axes.Item("Y")->TickFormat, "#0.000");
    // The runs, between two rows at the axis' ends that carry only the limits.
    const Datam& t = g.Data();
    const cAxis& ax = *g.Axes.Item("X");
    ASSERT_EQ(t.rowUb(), 4);
    EXPECT_EQ(t(0, 2).str(), "Data");
    EXPECT_NEAR(t(1, 1).toDouble(), ax.LowValue, 1e-9);
    EXPECT_TRUE(t(1, 2).isEmpty());
    EXPECT_NEAR(t(2, 1).toDouble(), kMar5 + kTime1, 1e-9);
    EXPECT_NEAR(t(3, 1).toDouble(), kMar6 + kTime2, 1e-9);
    EXPECT_DOUBLE_EQ(t(2, 2).toDouble(), 0.05);
    EXPECT_DOUBLE_EQ(t(3, 2).toDouble(), 0.07);
    EXPECT_NEAR(t(4, 1).toDouble(), ax.HighValue, 1e-9);
    EXPECT_TRUE(t(4, 2).isEmpty());
    EXPECT_LE(ax.LowValue, kMar5);
    EXPECT_GT(ax.HighValue, kMar6 + kTime2);
    ASSERT_EQ(g.Series.Count(), 4);
    const char* labels[] = {"Mean", "UCL", "LCL", "Target"};
    const double level[] = {0, 0.1, 0.0, 0.06};
    for (int i = 1; i <= 4; ++i) {
        const cSeries* s = g.Series.Item(i);
        EXPECT_EQ(s->Label, labels[i - 1]);
        EXPECT_EQ(t(0, s->Ycol).str(), i == 1 ? "Data" : labels[i - 1]);
        if (i == 1) continue;
        for (int r = 1; r <= 4; ++r) {
            EXPECT_DOUBLE_EQ(t(r, s->Ycol).toDouble(), level[i - 1]);
        }
    }

    // Drawn: each limit is flat at its level from one end of the axis to the other.
    RecordingSurface surface(800, 600);
    ASSERT_TRUE(PlotDMstats(&g, surface));
    const PlotFrame& f = g.Frame();
    for (int i = 2; i <= 4; ++i) {
        const double y = f.py(level[i - 1]);
        double lo = 1e9, hi = -1e9;
        for (const auto* c : surface.of(RecordingSurface::Op::Polyline)) {
            if (c->color != g.Series.Item(i)->ColorFore) continue;
            for (const auto& pt : c->points) {
                if (std::fabs(pt.y - y) > 1e-6) continue;
                lo = std::min(lo, pt.x);
                hi = std::max(hi, pt.x);
            }
        }
        EXPECT_NEAR(lo, f.px(ax.LowValue), 0.5) << labels[i - 1];
        EXPECT_NEAR(hi, f.px(ax.HighValue), 0.5) << labels[i - 1];
    }

    // "Range" has no values: its chart draws nothing.
    Status empty = PlotDMstats((*charts)[1].get(), surface);
    ASSERT_FALSE(empty);
    EXPECT_EQ(empty.failure().text, "Trend Statistics have no data.");
    EXPECT_EQ(PlotDMstats(nullptr, surface, false).failure().text, "Statistics have no data.");

    // Without "Show UCL/LCL limits" only the data curve.
    setup.showLimits = false;
    auto bare = CreateTrendPlots(*trend, plots, setup);
    ASSERT_TRUE(bare.ok());
    EXPECT_EQ((*bare)[0]->Series.Count(), 1);
}

TEST(DmTrendChart, ManualEntryPassword) {
    std::string title;
    auto answer = [&](std::string typed) {
        return [&title, typed](const std::string& prompt, const std::string& t) {
            EXPECT_EQ(prompt, "Enter password: ");
            title = t;
            return typed;
        };
    };
    EXPECT_TRUE(TrendEntryAllowed("Zorv", answer("Qalm7Vx204")));
    EXPECT_EQ(title, "Zorv: Trend Chart Entry");
    EXPECT_FALSE(TrendEntryAllowed("Zorv", answer("qalm7vx204")));
}

}  // namespace
}  // namespace zorv
