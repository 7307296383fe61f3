// The monitor template: a setup written into a data workbook, saved as the
// template and read back; header tables made by hand for the reader's rules;
// the refusals; the lock of "Password:".
#include "monitor/dm_template.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "base/report.h"
#include "common/capture_reporter.h"
#include "workbook/data_workbook.h"
#include "workbook/data_workbook_sample.h"
#include "workbook/workbook_ops.h"

namespace fs = std::filesystem;
using namespace zorv;

namespace {

class DMTemplateTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir = fs::path(ZORV_TEST_TMP) / "dm_template" /
              ::testing::UnitTest::GetInstance()->current_test_info()->name();
        fs::remove_all(dir);
        fs::create_directories(dir);
        SetReporter(&rep);
        Workbooks::CloseAll();
    }
    void TearDown() override {
        Workbooks::CloseAll();
        SetReporter(nullptr);
    }

    // A data workbook as an import leaves it: "Information", data, sites.
    WorkbookPtr dataWorkbook() {
        SampleSpec shape;
        shape.dataTable = "MonitorLot";
        shape.workbookPath = (dir / "MonitorLot.xlsx").string();
        SampleTables t = MakeSampleTables(shape);
        Result<std::string> saved = SaveData(t.data, t.excluded, t.sites, t.information);
        EXPECT_TRUE(saved.ok()) << saved.failure().message();
        Workbooks::CloseAll();
        Result<WorkbookPtr> wb = Workbooks::Open(*saved);
        EXPECT_TRUE(wb.ok());
        return wb.ok() ? *wb : nullptr;
    }

    // A workbook whose "TemplateHeader" holds exactly these rows from A1.
    WorkbookPtr handMade(const Datam& rows, bool information = true) {
        WorkbookPtr wb =
            Workbook::create((dir / "hand.xlsx").string(), information ? "Information" : "Sheet1");
        wb->addSheet(kTemplateSheet)->setRange(1, 1, rows);
        return wb;
    }

    fs::path dir;
    zorv::testing::CaptureReporter rep;
};

// A fixed-focus monitor that uses every part of the header.
DMSetup FullSetup(const std::string& folder) {
    DMSetup s;
    s.templateName = "PSFM_Daily.XLS";
    s.templateFolder = folder;
    s.dateSaved = 46350.5;
    s.dataImport = "ASML PSFM";
    s.dataFolder = "/data/psfm";
    s.analysisType = {1, "Fixed Focus"};
    s.focusTemplate = "PSFM_Cal_193";
    s.conversionMethod = "Center Column";
    s.modelData = true;
    s.removeReticle = true;
    s.reticleName = "ret_sig.xlsx";
    s.reticlePath = "/data/reticles";
    s.removeComponent = true;
    s.componentRemoval = {2, "Field Average"};
    s.combineWafers = true;
    s.dieXArray = 7;
    s.dieYArray = 9;
    s.doWaferModel = true;
    s.waferTerms = "3rd";
    s.waferTermCount = 10;
    s.fieldModel = {3, "Scanner Model"};
    s.statistics = true;
    s.graphic = true;
    s.pwAnalysis = {0, "Process Window"};
    s.pwEllipse = true;
    s.pwRectangle = false;
    s.pwModel = {1, "Quadratic"};
    s.graphicData = {2, "Residuals"};
    s.waferFieldGraphic = "Field";
    s.graphicPlot = "Vector";
    s.graphicDataFormat = "Mean";
    s.comments = "Scanner 4 daily";
    s.focusMax = 0.25f;
    s.focusMin = -0.25f;
    s.password = "fab7";
    s.rangeCull = 2.5f;
    s.sigmaCull = 3;
    s.astigCull = 0.1f;
    s.pwGraphData = {1, "DoF"};
    s.pwGraphType = {0, "Bossung"};
    s.pwPwGraph = {2, "ED Window"};
    s.pwFeatureCull = {1, "CD"};
    s.pwFeatureCullMax = 120;
    s.pwFeatureCullMin = 80;
    s.pwSites = "Center";
    s.pwSiteID = {5, "Site 5"};
    s.pwPrecision = 3;
    s.pwShowLimits = true;
    s.rawStats = {{"Mean", true, true}, {"StDev", true, false}, {"IFD Residuals", false, true}};
    s.waferModelStats = {{"Tx", true, true}, {"Ty", false, false}};
    s.fieldModelStats = {{"Piston", true, false}, {"Curvature", true, true}};
    s.processWindowStats = {{"DoF", true, true}};
    s.features = {{"Feature_1", true, "V", 0, 0.05, -0.05},
                  {"Feature_2", false, "H", 0.01, 0.06, -0.04}};
    s.axes = {{"All (X, Y and Mean)", Value(false)},
              {"X (Slit) Axis", Value(true)},
              {"X (Slit)", Value(false)},
              {"Mean Axis", Value(true)},
              {"Chart1", Value("Mean trend")},
              {"Chart2", Value("Range trend")}};
    return s;
}

Datam Header(std::initializer_list<std::initializer_list<Value>> rows) {
    return Datam::fromRows(rows, 1, 1);
}

std::string SummaryValue(const Datam& summary, const std::string& name) {
    if (!summary.isArray()) return "<none>";
    for (int r = summary.rowLb(); r <= summary.rowUb(); ++r)
        if (summary(r, 1).toString() == name) return summary(r, 2).toString();
    return "<none>";
}

void ExpectStats(const DMStatTable& got, const std::string& head,
                 const std::vector<DMStatRow>& want) {
    EXPECT_EQ(got.head, head);
    ASSERT_EQ(got.rows.size(), want.size()) << head;
    for (size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(got.rows[i].name, want[i].name);
        EXPECT_EQ(got.rows[i].display, want[i].display) << want[i].name;
        EXPECT_EQ(got.rows[i].trend, want[i].trend) << want[i].name;
    }
}

}  // namespace

TEST_F(DMTemplateTest, SavedTemplateReadsBackFieldByField) {
    WorkbookPtr wb = dataWorkbook();
    ASSERT_TRUE(wb);
    DMSetup s = FullSetup((dir / "templates").string());
    Result<DMSavedTemplate> saved = SaveDMTemplate(wb, s);
    ASSERT_TRUE(saved.ok()) << saved.failure().message();
    EXPECT_EQ(saved->path, (dir / "templates" / "PSFM_Daily.XLT").string());
    ASSERT_TRUE(fs::exists(saved->path));

    // The log in the order of the save.
    std::vector<std::string> heads = {
        "    Header Saved.",       "    Statistics Saved.",
        "    strXLSsourceName: ",  "    strXLSoutputName: PSFM_Daily.XLT",
        "    strTemplateFolder: ", "    txtTemplateFolder: ",
        "    strXlwbPathName: ",   "SaveAsTemplate :  Successful"};
    ASSERT_EQ(saved->log.size(), heads.size());
    for (size_t i = 0; i < heads.size(); ++i)
        EXPECT_EQ(saved->log[i].rfind(heads[i], 0), 0u) << saved->log[i];

    // Read from the file itself, by a fresh open.
    Workbooks::CloseAll();
    Result<WorkbookPtr> file = Workbook::open(saved->path);
    ASSERT_TRUE(file.ok()) << file.failure().message();
    WorkbookPtr t = *file;
    EXPECT_TRUE(t->sheet("MonitorLot")) << "the data sheet stays";
    EXPECT_EQ(t->property("Subject"), "Zorv Daily Monitor Macro");
    EXPECT_EQ(
        t->property("Comments"),
        "Analysis:PSFM_Daily.Fixed Focus (Center Column)\r\nWafer Model: 10 terms.\r\n"
        "Field Model: Scanner Model\r\nReticle Removal: ret_sig.xlsx\r\nRemove: Field Average\r\n"
        "Residuals Graphic/ Graph: Vector");
    EXPECT_NE(t->property("Author").find("ver: "), std::string::npos);

    // The writer's cull names stand on the sheet, scrambled lock and all.
    Worksheet* ws = t->sheet(kTemplateSheet);
    ASSERT_TRUE(ws);
    std::map<std::string, Value> cells;
    for (int r = 1; r <= ws->lastRow(); ++r)
        cells.emplace(ws->cell(r, 1).toString(), ws->cell(r, 2));
    EXPECT_FLOAT_EQ(static_cast<float>(cells["RangeCull:"].toDouble()), 2.5f);
    EXPECT_EQ(cells.count("CullRange:"), 0u);
    EXPECT_NE(cells["Password:"].toString(), "fab7");
    EXPECT_FALSE(cells["Password:"].toString().empty());
    EXPECT_EQ(cells["pwEllipse"].toString(), "True");

    Result<DMTemplate> rt = ReadDMTemplate(t.get());
    ASSERT_TRUE(rt.ok()) << rt.failure().message();
    const DMAnalysis& a = rt->analysis;
    EXPECT_EQ(a.kind, DMKind::FixedFocus);
    EXPECT_EQ(a.caption, "Fixed Focus");
    EXPECT_TRUE(a.statistics);
    EXPECT_TRUE(a.graphic);
    EXPECT_TRUE(a.removeReticle);
    EXPECT_EQ(a.reticleName, "ret_sig.xlsx");
    EXPECT_EQ(a.reticlePath, "/data/reticles");
    EXPECT_TRUE(a.removeComponent);
    EXPECT_EQ(a.component.index, 2);
    EXPECT_EQ(a.component.caption, "Field Average");
    EXPECT_TRUE(a.modelData);
    EXPECT_TRUE(a.combineWafers);
    EXPECT_FLOAT_EQ(a.dieXArray, 7);
    EXPECT_FLOAT_EQ(a.dieYArray, 9);
    EXPECT_EQ(a.conversionMethod, "Center Column");
    EXPECT_EQ(a.focusTemplate, "PSFM_Cal_193");
    EXPECT_TRUE(a.focusConversion);
    EXPECT_FLOAT_EQ(a.focusMax, 0.25f);
    EXPECT_FLOAT_EQ(a.focusMin, -0.25f);
    // Written as "RangeCull:" ..., so the run culls nothing.
    EXPECT_EQ(a.cullRange, 0);
    EXPECT_EQ(a.cullSigma, 0);
    EXPECT_EQ(a.cullAstig, 0);
    EXPECT_EQ(a.pwAnalysis.caption, "Process Window");
    EXPECT_EQ(a.pwAnalysis.index, 0);
    EXPECT_TRUE(a.pwShowLimits);
    EXPECT_EQ(a.pwSites, "Center");
    EXPECT_EQ(a.pwSiteID.index, 5);
    EXPECT_EQ(a.pwSiteID.caption, "Site 5");
    EXPECT_EQ(a.pwPrecision, 3);
    EXPECT_EQ(a.pwFeatureCull.caption, "CD");
    EXPECT_FLOAT_EQ(a.pwFeatureCullMax, 120);
    EXPECT_FLOAT_EQ(a.pwFeatureCullMin, 80);
    EXPECT_EQ(a.pwGraph.caption, "ED Window");
    EXPECT_EQ(a.pwModel.caption, "Quadratic");
    EXPECT_TRUE(a.pwEllipse);
    EXPECT_FALSE(a.pwRectangle);
    EXPECT_EQ(a.pwGraphData.caption, "DoF");
    EXPECT_EQ(a.pwGraphType.caption, "Bossung");
    EXPECT_TRUE(a.doWaferModel);
    EXPECT_EQ(a.waferTerms, "3rd");
    EXPECT_EQ(a.fieldModel.caption, "Scanner Model");
    EXPECT_TRUE(a.fieldModelOn);
    EXPECT_EQ(a.graphicDataFormat, "Mean");
    EXPECT_EQ(a.graphicData.caption, "Residuals");
    EXPECT_EQ(a.waferFieldGraphic, "Field");
    EXPECT_EQ(a.graphicPlot, "Vector");
    EXPECT_EQ(a.comments, "Scanner 4 daily");
    EXPECT_EQ(a.password, "fab7");
    EXPECT_EQ(a.summary, t->property("Comments"));

    const Datam& sum = rt->summary;
    EXPECT_EQ(SummaryValue(sum, "Analysis:"), "Fixed Focus");
    EXPECT_EQ(SummaryValue(sum, "ReticleRemove:"), "ret_sig.xlsx");
    EXPECT_EQ(SummaryValue(sum, "Combine Wafers:"), "True");
    EXPECT_EQ(SummaryValue(sum, "FocusConversion:"), "PSFM_Cal_193");
    EXPECT_EQ(SummaryValue(sum, "ConversionMethod:"), "Center Column");
    EXPECT_EQ(SummaryValue(sum, "ComponentRemoval:"), "Field Average");
    EXPECT_EQ(SummaryValue(sum, "PWanalysis:"), "Process Window");
    EXPECT_EQ(SummaryValue(sum, "PWsites:"), "Center");
    EXPECT_EQ(SummaryValue(sum, "PW Feature Cull:"), "CD");
    EXPECT_EQ(SummaryValue(sum, "PW Graph:"), "ED Window");
    EXPECT_EQ(SummaryValue(sum, "PW GraphData:"), "DoF");
    EXPECT_EQ(SummaryValue(sum, "PW GraphType:"), "Bossung");
    EXPECT_EQ(SummaryValue(sum, "WaferModel:"), "3rd order");
    EXPECT_EQ(SummaryValue(sum, "FieldModel:"), "Scanner Model");
    EXPECT_EQ(SummaryValue(sum, "GraphicDataFormat:"), "Mean");
    EXPECT_EQ(SummaryValue(sum, "Graph:"), "Residuals");
    EXPECT_EQ(SummaryValue(sum, "GraphType:"), "Vector");

    const DMTemplateTables& tb = rt->tables;
    EXPECT_GT(tb.passwordRow, 0);
    EXPECT_GT(tb.focusMinRow, 0);
    EXPECT_GT(tb.commentsRow, 0);
    EXPECT_EQ(tb.header(tb.analysisTypeRow, 1).toString(), "AnalysisType");
    ExpectStats(tb.raw, "RawStatistics", s.rawStats);
    ExpectStats(tb.waferModel, "WaferModelStatistics", s.waferModelStats);
    ExpectStats(tb.fieldModel, "FieldModelStatistics", s.fieldModelStats);
    ExpectStats(tb.processWindow, "ProcessWindowStatistics", s.processWindowStats);
    EXPECT_TRUE(tb.model.head.empty());
    ASSERT_EQ(tb.features.size(), 2u);
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(tb.features[i].key, s.features[i].key);
        EXPECT_EQ(tb.features[i].analyze, s.features[i].analyze);
        EXPECT_EQ(tb.features[i].name, s.features[i].name);
        EXPECT_DOUBLE_EQ(tb.features[i].target, s.features[i].target);
        EXPECT_DOUBLE_EQ(tb.features[i].max, s.features[i].max);
        EXPECT_DOUBLE_EQ(tb.features[i].min, s.features[i].min);
    }
    EXPECT_FALSE(tb.axesDefaulted);
    ASSERT_EQ(tb.axes.size(), s.axes.size());
    for (size_t i = 0; i < s.axes.size(); ++i) {
        EXPECT_EQ(tb.axes[i].name, s.axes[i].name);
        EXPECT_EQ(tb.axes[i].display.toString(), s.axes[i].display.toString());
    }

    // The sheet is registered in the index.
    Worksheet* ix = t->sheet("Index");
    ASSERT_TRUE(ix);
    bool listed = false;
    for (int r = 1; r <= ix->lastRow(); ++r)
        for (int c = 1; c <= ix->lastCol(); ++c)
            listed |=
                ix->cell(r, c).toString().rfind("Statistics & setup for Daily Monitor. ", 0) == 0;
    EXPECT_TRUE(listed);
}

TEST_F(DMTemplateTest, SavingTwiceKeepsOneSetOfTables) {
    WorkbookPtr wb = dataWorkbook();
    ASSERT_TRUE(wb);
    DMSetup s = FullSetup(dir.string());
    s.doWaferModel = false;  // a model table only when its model is on
    s.fieldModel = {0, "NO MODEL"};
    ASSERT_TRUE(SaveTemplateHeader(wb.get(), s).ok());
    ASSERT_TRUE(SaveTemplateStats(wb.get(), s).ok());
    s.rawStats = {{"Count", true, false}};
    ASSERT_TRUE(SaveTemplateHeader(wb.get(), s).ok());
    ASSERT_TRUE(SaveTemplateStats(wb.get(), s).ok());
    ASSERT_TRUE(SaveTemplateStats(wb.get(), s).ok());
    Result<DMTemplate> rt = ReadDMTemplate(wb.get());
    ASSERT_TRUE(rt.ok()) << rt.failure().message();
    ExpectStats(rt->tables.raw, "RawStatistics", s.rawStats);
    EXPECT_TRUE(rt->tables.waferModel.head.empty());
    EXPECT_TRUE(rt->tables.fieldModel.head.empty());
    EXPECT_FALSE(rt->analysis.fieldModelOn);
    EXPECT_FALSE(rt->analysis.doWaferModel);
    EXPECT_EQ(SummaryValue(rt->summary, "WaferModel:"), "<none>");
    int templates = 0;
    Worksheet* ws = wb->sheet(kTemplateSheet);
    for (int r = 1; r <= ws->lastRow(); ++r) templates += ws->cell(r, 1).toString() == "Template";
    EXPECT_EQ(templates, 2);
}

TEST_F(DMTemplateTest, AbsentKeysLeaveTheDefaults) {
    Datam summary;
    DMAnalysis a = LoadAnalysisSequence(Header({{"Template", "x.xlt"}, {"Folder", "/t"}}), summary);
    DMAnalysis d;
    EXPECT_EQ(a.kind, DMKind::None);
    EXPECT_FLOAT_EQ(a.focusMax, 999);
    EXPECT_FLOAT_EQ(a.focusMin, -999);
    EXPECT_EQ(a.cullRange, 0);
    EXPECT_EQ(a.statistics, d.statistics);
    EXPECT_EQ(a.pwPrecision, d.pwPrecision);
    EXPECT_EQ(a.password, "");
    EXPECT_FALSE(summary.isArray());

    // Not an array at all: the defaults too.
    a = LoadAnalysisSequence(Datam(), summary);
    EXPECT_FLOAT_EQ(a.focusMax, 999);
}

TEST_F(DMTemplateTest, CullRangeIsHonouredAndRangeCullIsNot) {
    Datam summary;
    DMAnalysis a = LoadAnalysisSequence(Header({{"Template", "x"},
                                                {"RangeCull:", 3.0},
                                                {"SigmaCull:", 4.0},
                                                {"AstigCull:", 9.0},
                                                {"CullRange:", 5.0},
                                                {"CullSigma:", "2.5"},
                                                {"CullAstig:", "wide"}}),
                                        summary);
    EXPECT_FLOAT_EQ(a.cullRange, 5);
    EXPECT_FLOAT_EQ(a.cullSigma, 2.5f);  // numeric text counts
    EXPECT_EQ(a.cullAstig, 0);           // a word does not
}

TEST_F(DMTemplateTest, OlderAnalysisKeyRunsAsTheNewerForm) {
    Datam oldSum, newSum;
    DMAnalysis older =
        LoadAnalysisSequence(Header({{"Template", "x"}, {"Analysis", "Raw Metrology"}}), oldSum);
    DMAnalysis newer = LoadAnalysisSequence(
        Header({{"Template", "x"}, {"AnalysisType", int32_t(2), "Raw Metrology"}}), newSum);
    EXPECT_EQ(older.kind, DMKind::Metrology);
    EXPECT_EQ(newer.kind, DMKind::Metrology);
    EXPECT_EQ(older.caption, "Raw Metrology");
    EXPECT_EQ(newer.caption, "Raw Metrology");
    EXPECT_EQ(SummaryValue(oldSum, "Analysis:"), "Raw Metrology");
    EXPECT_EQ(SummaryValue(newSum, "Analysis:"), "Raw Metrology");
}

TEST_F(DMTemplateTest, KindIsTakenFromTheWordInTheCaption) {
    struct Case {
        const char* caption;
        DMKind kind;
        const char* shown;
    };
    for (const Case& c : {Case{"Focus/Expo", DMKind::Matrix, "Focus/Expo"},
                          Case{"PSFM Focus Matrix", DMKind::Matrix, "PSFM Focus Matrix"},
                          Case{"Metrology", DMKind::Metrology, "Metrology"},
                          Case{"fixed focus (PSFM)", DMKind::FixedFocus, "Fixed Focus"},
                          Case{"Tool Monitor", DMKind::None, "Tool Monitor"}}) {
        Datam summary;
        DMAnalysis a = LoadAnalysisSequence(
            Header({{"Template", "x"}, {"AnalysisType", 1.0, c.caption}}), summary);
        EXPECT_EQ(a.kind, c.kind) << c.caption;
        EXPECT_EQ(a.caption, c.shown);
    }
}

TEST_F(DMTemplateTest, FocusTemplateNamedNoneConvertsNothing) {
    Datam summary;
    DMAnalysis a = LoadAnalysisSequence(Header({{"Template", "x"},
                                                {"AnalysisType", 1.0, "Fixed Focus"},
                                                {"FocusTemplate", "None"},
                                                {"ConversionMethod", "All Sites"}}),
                                        summary);
    EXPECT_EQ(a.kind, DMKind::FixedFocus);
    EXPECT_FALSE(a.focusConversion);
    EXPECT_EQ(SummaryValue(summary, "FocusConversion:"), "None");
    EXPECT_EQ(a.conversionMethod, "All Sites");
    // The conversion keys belong to the fixed focus kind only.
    a = LoadAnalysisSequence(Header({{"Template", "x"},
                                     {"AnalysisType", 0.0, "Focus/Expo"},
                                     {"FocusTemplate", "Cal"},
                                     {"ConversionMethod", "Center"}}),
                             summary);
    EXPECT_FALSE(a.focusConversion);
    EXPECT_EQ(a.conversionMethod, "");
}

TEST_F(DMTemplateTest, AxesDefaultWithoutMeanAxisAndOldModelTableIsRead) {
    WorkbookPtr wb = handMade(Header({{"Template", "old.xlt"},
                                      {"Analysis", "Metrology"},
                                      {"RawStatistics", "Display", "Trend"},
                                      {"Mean", true, true},
                                      {"Range", true, false},
                                      {"ModelStatistics", "Display", "Trend"},
                                      {"Tx", "True", "False"},
                                      {"Feature", "Analyze", "Name", "Target", "Max", "Min"},
                                      {"Feature_1", "True", "Overlay X", 0.0, 10.0, -10.0},
                                      {"AxesDisplayed", "Display"},
                                      {"X (Slit) Axis", true}}));
    Result<DMTemplateTables> t = GetDMtemplateTables(wb.get());
    ASSERT_TRUE(t.ok()) << t.failure().message();
    ExpectStats(t->raw, "RawStatistics", {{"Mean", true, true}, {"Range", true, false}});
    ExpectStats(t->model, "ModelStatistics", {{"Tx", true, false}});
    ASSERT_EQ(t->features.size(), 1u);
    EXPECT_EQ(t->features[0].name, "Overlay X");
    EXPECT_DOUBLE_EQ(t->features[0].max, 10);
    EXPECT_TRUE(t->axesDefaulted);
    ASSERT_EQ(t->axes.size(), 3u);
    EXPECT_EQ(t->axes[0].name, "All (X, Y and Mean)");
    EXPECT_EQ(t->axes[1].name, "X (Slit) Axis");
    EXPECT_EQ(t->axes[2].name, "X (Slit)");

    // No "AxesDisplayed" table at all: the same defaults.
    WorkbookPtr bare = handMade(Header({{"Template", "bare.xlt"}}));
    Result<DMTemplateTables> b = GetDMtemplateTables(bare.get());
    ASSERT_TRUE(b.ok());
    EXPECT_TRUE(b->axesDefaulted);
    EXPECT_EQ(b->axes.size(), 3u);
    EXPECT_TRUE(b->raw.rows.empty());
    EXPECT_TRUE(b->features.empty());
}

TEST_F(DMTemplateTest, HeaderBlockStartsAtItsTemplateRow) {
    // Rows above "Template" are no part of the header.
    WorkbookPtr wb =
        handMade(Header({{"Notes"}, {"FocusMax:", 1.0}, {"Template", "x"}, {"FocusMax:", 0.5}}));
    Result<DMTemplate> t = ReadDMTemplate(wb.get());
    ASSERT_TRUE(t.ok()) << t.failure().message();
    EXPECT_EQ(t->tables.header(1, 1).toString(), "Template");
    EXPECT_FLOAT_EQ(t->analysis.focusMax, 0.5f);
}

TEST_F(DMTemplateTest, WorkbooksThatAreNoTemplateAreRefused) {
    WorkbookPtr noInfo = handMade(Header({{"Template", "x"}}), false);
    Result<DMTemplateTables> r = GetDMtemplateTables(noInfo.get());
    ASSERT_FALSE(r.ok());
    EXPECT_EQ(
        r.failure().text,
        "This is not a proper Zorv DM template. The 'Information' spreadsheet is not present.");
    EXPECT_EQ(r.failure().tag, "DMcommon(GetDMtemplateTables): ");

    WorkbookPtr noHeader = Workbook::create((dir / "plain.xlsx").string(), "Information");
    r = GetDMtemplateTables(noHeader.get());
    ASSERT_FALSE(r.ok());
    EXPECT_EQ(r.failure().text,
              "Could not find WorkSheet 'TemplateHeader' in workbook: plain.xlsx");
    EXPECT_EQ(r.failure().sheet, "TemplateHeader");

    WorkbookPtr garbled = handMade(Header({{"%%%", 3.0}, {"Folder", "/t"}}));
    r = GetDMtemplateTables(garbled.get());
    ASSERT_FALSE(r.ok());
    EXPECT_NE(r.failure().text.find("'Template'"), std::string::npos);

    WorkbookPtr empty = handMade(Header({{Value()}}));
    EXPECT_FALSE(GetDMtemplateTables(empty.get()).ok());
    EXPECT_FALSE(GetDMtemplateTables(nullptr).ok());

    // A file that is no workbook.
    fs::path bad = dir / "broken.xlt";
    std::ofstream(bad, std::ios::binary) << "PK\x03\x04 not really a zip archive";
    Result<DMTemplate> t = ReadDMTemplate(bad.string());
    EXPECT_FALSE(t.ok());
    EXPECT_FALSE(ReadDMTemplate((dir / "missing.xlt").string()).ok());
    EXPECT_TRUE(rep.boxes.empty()) << rep.joined();
}

TEST_F(DMTemplateTest, SavingWithoutAWorkbookOrFolderFails) {
    DMSetup s = FullSetup(dir.string());
    Result<Datam> h = SaveTemplateHeader(nullptr, s);
    ASSERT_FALSE(h.ok());
    EXPECT_EQ(h.failure().text, "Workbook for template is not loaded. Please reselect template.");
    Result<Datam> st = SaveTemplateStats(nullptr, s);
    ASSERT_FALSE(st.ok());
    EXPECT_EQ(st.failure().text, "Template Workbook is not loaded.");
    Result<DMSavedTemplate> sv = SaveDMTemplate(nullptr, s);
    ASSERT_FALSE(sv.ok());
    EXPECT_EQ(sv.failure().text, "Please select a template source before saving.");

    // A folder below a plain file cannot be made.
    std::ofstream(dir / "afile") << "x";
    WorkbookPtr wb = Workbook::create((dir / "src.xlsx").string(), "Information");
    Result<DMSavedTemplate> r = SaveAsTemplate(wb, "mon.xls", (dir / "afile" / "sub").string());
    ASSERT_FALSE(r.ok());
    EXPECT_EQ(r.failure().text.rfind("Could not create output template folder: ", 0), 0u);
    EXPECT_NE(r.failure().text.find(
                  "\r\nMake sure you have not specified a CD-ROM or write protected drive"),
              std::string::npos);
}

TEST_F(DMTemplateTest, TemplateNamesTakeTheXltExtension) {
    EXPECT_EQ(DMTemplateFileName("Mon.XLS"), "Mon.XLT");
    EXPECT_EQ(DMTemplateFileName("mon.xls"), "mon.xlt");
    EXPECT_EQ(DMTemplateFileName("mon.xlsx"), "mon.xlt");
    EXPECT_EQ(DMTemplateFileName("mon"), "mon.xlt");
    EXPECT_EQ(DMTemplateFileName("mon.XLT"), "mon.XLT");
    EXPECT_EQ(DMTemplateFileName("lot.v2"), "lot.v2.xlt");

    // A saved template opens again under its .xlt name with the same sheets.
    WorkbookPtr wb = Workbook::create((dir / "src.xlsx").string(), "Information");
    wb->addSheet("Layout");
    Result<DMSavedTemplate> r = SaveAsTemplate(wb, "night.xls", dir.string());
    ASSERT_TRUE(r.ok()) << r.failure().message();
    EXPECT_EQ(fs::path(r->path).filename(), "night.xlt");
    Result<WorkbookPtr> back = Workbook::open(r->path);
    ASSERT_TRUE(back.ok());
    EXPECT_EQ((*back)->sheetNames(), (std::vector<std::string>{"Information", "Layout"}));
}

TEST(DMPassword, ScramblingIsReversibleAndHidesTheText) {
    const std::vector<std::string> texts = {
        "", "a", "fab7", "aaaa", "Pass word!", "Kennwort \xC3\xBC\xC3\x9F", std::string(64, 'z')};
    for (const std::string& plain : texts) {
        std::string s = ScramblePassword(plain);
        EXPECT_EQ(UnscramblePassword(s), plain);
        EXPECT_EQ(s.size(), plain.size() * 2);
        EXPECT_EQ(s.find_first_not_of("0123456789ABCDEF"), std::string::npos) << s;
        if (!plain.empty()) {
            EXPECT_EQ(s.find(plain), std::string::npos);
        }
    }
    EXPECT_EQ(ScramblePassword(""), "");
    // Repeated letters do not repeat in the lock.
    std::string s = ScramblePassword("aaaa");
    EXPECT_FALSE(s.substr(0, 2) == s.substr(2, 2) && s.substr(2, 2) == s.substr(4, 2));
    // A lock typed by hand (no hex pairs) reads as it stands.
    EXPECT_EQ(UnscramblePassword("abc"), "abc");
    EXPECT_EQ(UnscramblePassword("zz"), "zz");
}
