// The monitor run end to end, as a factory host meets it: simulated tool
// files with a known answer through a template of each kind, the result files
// and trend rows they leave, and the faults that must still leave a file.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "app/settings.h"
#include "base/report.h"
#include "common/capture_reporter.h"
#include "common/json_lite.h"
#include "import/import.h"
#include "import/simulate.h"
#include "lot/lot.h"
#include "monitor/dm_run.h"
#include "workbook/store.h"

namespace fs = std::filesystem;

namespace zorv {
namespace {

class DMRunTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir = fs::path(ZORV_TEST_TMP) / "dm_run" / ::testing::UnitTest::GetInstance()->current_test_info()->name();
        fs::remove_all(dir);
        fs::create_directories(dir / "out");
        SetReporter(&rep);
        Workbooks::CloseAll();
        GetLogFile((dir / "RemoteCall.Log").string());
    }
    void TearDown() override {
        Workbooks::CloseAll();
        SetLogging(false);
        SetReporter(nullptr);
    }

    // A simulated tool file; its truth stays beside it.
    std::string simulate(const std::string& kind, SimulateOptions o, const std::string& sub) {
        o.outDir = (dir / sub).string();
        auto r = Simulate(kind, o);
        EXPECT_TRUE(r.ok()) << (r.ok() ? "" : r.failure().message());
        return r.ok() ? (fs::path(o.outDir) / r->file).string() : std::string();
    }
    // A template of a shipped kind made from the tool file's data workbook.
    std::string makeTemplate(const std::string& toolFile, const std::string& kind, const std::string& name,
                             bool combine = true) {
        const std::string wb = importOnce(toolFile);
        const std::string out = (dir / "templates" / name).string();
        fs::create_directories(dir / "templates");
        auto made = NewDMTemplate(wb, kind, out);
        EXPECT_TRUE(made.ok()) << (made.ok() ? "" : made.failure().message());
        if (!combine) setHeader(out, "CombineWafers", Value(false));
        Workbooks::CloseAll();
        return made.ok() ? made->path : std::string();
    }
    // The data workbook of a tool file, as the import writes it.
    std::string importOnce(const std::string& toolFile) {
        const fs::path store = dir / "imported";
        fs::create_directories(store);
        auto req = GetDataFile(toolFile);
        EXPECT_TRUE(req.ok()) << (req.ok() ? "" : req.failure().message());
        if (!req.ok()) return {};
        req->workbookPath = (store / (fs::path(toolFile).stem().string() + ".xlsx")).string();
        auto wb = ImportRawData(*req);
        EXPECT_TRUE(wb.ok()) << (wb.ok() ? "" : wb.failure().message());
        Workbooks::CloseAll();
        return wb.ok() ? *wb : std::string();
    }
    static DMRunRequest request(const std::string& tpl, const std::string& data) {
        DMRunRequest req;
        req.templatePath = tpl;
        req.dataPath = data;
        return req;
    }
    // Sets one key of a template's header block.
    void setHeader(const std::string& path, const std::string& key, const Value& v) {
        auto wb = Workbook::open(path);
        ASSERT_TRUE(wb.ok());
        Worksheet* ws = (*wb)->sheet(kTemplateSheet);
        ASSERT_NE(ws, nullptr);
        for (int r = 1; r <= ws->lastRow(); ++r)
            if (ws->cell(r, 1).toString() == key) {
                ws->setCell(r, 2, v);
                break;
            }
        ASSERT_TRUE((*wb)->save().ok());
    }

    static std::string read(const fs::path& p) {
        std::ifstream f(p, std::ios::binary);
        std::stringstream s;
        s << f.rdbuf();
        return s.str();
    }
    // The key-value rows of a result file.
    static std::vector<std::pair<std::string, std::string>> csvRows(const fs::path& p) {
        std::vector<std::pair<std::string, std::string>> rows;
        std::istringstream in(read(p));
        for (std::string line; std::getline(in, line);) {
            if (!line.empty() && line.back() == '\r') line.pop_back();
            const size_t comma = line.find(',');
            rows.emplace_back(line.substr(0, comma), comma == std::string::npos ? "" : line.substr(comma + 1));
        }
        return rows;
    }
    // The value of key within the block "[column]" of the results.
    static double resultValue(const std::vector<std::pair<std::string, std::string>>& rows, const std::string& column,
                              const std::string& key) {
        bool in = false;
        for (const auto& [k, v] : rows) {
            if (k.size() > 1 && k.front() == '[') in = k == "[" + column + "]";
            else if (in && k == key) return std::stod(v);
        }
        return NAN;
    }
    // The data rows of a trend sheet.
    static int trendRows(const std::string& templatePath, const std::string& sheet) {
        auto wb = Workbook::open(templatePath);
        if (!wb.ok()) return -1;
        Worksheet* ws = (*wb)->sheet(sheet);
        if (!ws) return -1;
        int head = 0;
        for (int r = 1; r <= ws->lastRow() && !head; ++r)
            if (ws->cell(r, 1).toString() == "Date") head = r;
        return head ? ws->lastRow() - head : -1;
    }

    fs::path dir;
    zorv::testing::CaptureReporter rep;
};

// The statistics of a simulated overlay CSV read straight from the file: the
// column of a feature, per wafer.
std::map<std::string, std::vector<double>> CsvColumn(const std::string& path, const std::string& head) {
    std::ifstream f(path);
    std::map<std::string, std::vector<double>> out;
    std::vector<std::string> heads;
    for (std::string line; std::getline(f, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        std::vector<std::string> cells;
        std::stringstream s(line);
        for (std::string c; std::getline(s, c, ',');) cells.push_back(c);
        if (heads.empty()) {
            heads = cells;
            continue;
        }
        size_t wafer = 0, col = 0;
        for (size_t i = 0; i < heads.size(); ++i) {
            if (heads[i].rfind("Wafer", 0) == 0) wafer = i;
            if (heads[i].rfind(head, 0) == 0) col = i;
        }
        if (col < cells.size() && !cells[col].empty()) out[cells[wafer]].push_back(std::stod(cells[col]));
    }
    return out;
}

TEST_F(DMRunTest, OverlayRunPerWaferMatchesTheFileAndAddsTrendRows) {
    SimulateOptions o;
    o.seed = 11;
    o.outliers = 0, o.failed = 0;
    const std::string data = simulate("overlay", o, "ov");
    const std::string tpl = makeTemplate(data, "overlay", "Overlay.xlt", false);
    ASSERT_FALSE(tpl.empty());

    const std::string line = "-t \"" + tpl + "\" -f " + data + " -o " + (dir / "out").string();
    DMAOptions opt;
    opt.saveSettings = false;
    DMAResult r = RunDMA(line, opt);
    ASSERT_TRUE(r.succeeded) << r.resultText;
    EXPECT_EQ(r.exitCode(), 0);
    const auto rows = csvRows(r.files.csv);
    ASSERT_GE(rows.size(), 20u);
    EXPECT_EQ(rows.front().first, "[Data]");
    EXPECT_EQ(rows[1], (std::pair<std::string, std::string>{"Program:", "Zorv DMA"}));
    EXPECT_EQ(rows.back().first, "[END]");

    // Each wafer's mean, maximum and count against the file itself.
    const auto x = CsvColumn(data, "X_reg");
    ASSERT_EQ(x.size(), 2u);
    for (const auto& [wafer, values] : x) {
        double sum = 0, mx = -1e300;
        for (double v : values) sum += v, mx = std::max(mx, v);
        const std::string col = "X_reg " + wafer;
        EXPECT_NEAR(resultValue(rows, col, "Mean."), sum / static_cast<double>(values.size()), 1e-4) << col;
        EXPECT_NEAR(resultValue(rows, col, "Maximum."), mx, 1e-4) << col;
        EXPECT_EQ(resultValue(rows, col, "Count."), static_cast<double>(values.size())) << col;
    }
    // Per wafer, one trend row each; a second run replaces the files and adds more.
    EXPECT_EQ(trendRows(tpl, "TC_X_reg"), 2);
    Workbooks::CloseAll();
    const auto before = fs::last_write_time(r.files.csv);
    DMAResult again = RunDMA(line, opt);
    ASSERT_TRUE(again.succeeded) << again.resultText;
    EXPECT_EQ(again.files.csv, r.files.csv);
    EXPECT_GE(fs::last_write_time(again.files.csv), before);
    EXPECT_EQ(trendRows(tpl, "TC_X_reg"), 4);
    size_t results = 0;
    for (const auto& e : fs::directory_iterator(dir / "out")) results += e.path().extension() == ".csv";
    EXPECT_EQ(results, 1u);
}

TEST_F(DMRunTest, WaferModelOfAPureOffsetIsTheOffset) {
    // Every term zero but the wafer offsets, little noise: the model's
    // offset is the offset and its tilts vanish.
    SimulateOptions o;
    o.seed = 3, o.noise = 0.05, o.outliers = 0, o.failed = 0;
    for (const char* name : {"ScaleX", "ScaleY", "RotX", "RotY", "BowX", "BowY", "Trifoil", "FieldMagX", "FieldMagY",
                             "FieldRotX", "FieldRotY", "FieldCurvX", "FieldCurvY"})
        o.coefficients.emplace_back(name, 0.0);
    o.coefficients.emplace_back("Tx", 3.0);
    o.coefficients.emplace_back("Ty", -2.0);
    const std::string data = simulate("overlay", o, "ov");
    const std::string tpl = makeTemplate(data, "overlay", "Offset.xlt");
    auto run = DoDailyMonitor(request(tpl, data));
    ASSERT_TRUE(run.ok()) << run.failure().message();
    const Datam& s = run->stats;
    auto at = [&](const std::string& row, const std::string& col) {
        int r = -1, c = -1;
        for (int i = 1; i <= s.rowUb(); ++i)
            if (s(i, 0).toString() == row) r = i;
        for (int j = 1; j <= s.colUb(); ++j)
            if (s(0, j).toString() == col) c = j;
        return r > 0 && c > 0 ? s(r, c).toDouble() : NAN;
    };
    // 450 points of sigma 0.05 (rounded to 0.01): the means within 0.02.
    EXPECT_NEAR(at("Wafer Offset", "X_reg"), 3.0, 0.02);
    EXPECT_NEAR(at("Wafer Offset", "Y_reg"), -2.0, 0.02);
    EXPECT_NEAR(at("Wafer TiltX", "X_reg"), 0.0, 1e-3);
    EXPECT_NEAR(at("Mean", "X_reg"), 3.0, 0.02);
    EXPECT_LT(at("Range", "Y_reg"), 0.5);
    // The same term of the field model keeps a row of its own.
    EXPECT_FALSE(std::isnan(at("Field TiltX", "X_reg")));
    EXPECT_EQ(run->units.size(), 1u);  // combined
    // The model tables went into the data workbook.
    Workbooks::CloseAll();
    auto wb = Workbook::open(run->dataWorkbookPath);
    ASSERT_TRUE(wb.ok());
    EXPECT_NE((*wb)->sheet("WaferModel_All"), nullptr);
    EXPECT_NE((*wb)->sheet("MeanModelAll"), nullptr);
    EXPECT_NE((*wb)->sheet("Layout"), nullptr);
}

TEST_F(DMRunTest, ProcessWindowRunReadsTheReport) {
    SimulateOptions o;
    o.seed = 7;
    const std::string data = simulate("fem", o, "fem");
    const std::string tpl = makeTemplate(data, "fem", "FEM.xlt");
    auto run = DoDailyMonitor(request(tpl, data));
    ASSERT_TRUE(run.ok()) << run.failure().message();
    ASSERT_EQ(run->units.size(), 1u);
    const Datam& pw = run->units[0].processWindow;
    ASSERT_TRUE(pw.isArray());
    std::map<std::string, double> v;
    for (int r = 1; r <= pw.rowUb(); ++r) v[pw(r, 0).toString()] = pw(r, 1).toDouble();
    // The window lies inside the matrix and the dose latitude is a share of
    // the best dose.
    ASSERT_TRUE(v.count("Best Focus") && v.count("Best Dose") && v.count("Dose Latitude") && v.count("%Dose Latitude"));
    EXPECT_GT(v["Depth of Focus(DoF)"], 0);
    EXPECT_NEAR(v["%Dose Latitude"], 100 * v["Dose Latitude"] / v["Best Dose"], 0.1);
    EXPECT_EQ(trendRows(tpl, "TC_MEAS_1"), 1);

    // The CD's limits go on the chart of its mean, not on the best dose's.
    auto charts = DMTrendCharts(*run->templateWorkbook, run->tpl.tables, "MEAS_1");
    ASSERT_TRUE(charts.ok()) << charts.failure().message();
    std::map<std::string, int> series;
    for (const auto& g : *charts) series[g->TitleObj.TitleString] = g->Series.Count();
    EXPECT_EQ(series["MEAS_1: Mean"], 4);
    EXPECT_EQ(series["MEAS_1: Best Dose"], 1);
    EXPECT_EQ(series.size(), 5u);  // Mean and the four window figures
}

TEST_F(DMRunTest, FixedFocusConvertsByTheSampleTemplateUnlessNamedNone) {
    SimulateOptions o;
    o.seed = 5;
    const std::string data = simulate("psfm", o, "psfm");
    const std::string tpl = makeTemplate(data, "psfm", "PSFM.xlt");
    ASSERT_TRUE(fs::exists(fs::path(tpl).parent_path() / "ZORVpsfm.tpl"));
    const DMRunRequest req = request(tpl, data);
    auto converted = DoDailyMonitor(req);
    ASSERT_TRUE(converted.ok()) << converted.failure().message();
    EXPECT_NE(converted->description.find("Focus template: PSFMsample"), std::string::npos);

    Workbooks::CloseAll();
    setHeader(tpl, "FocusTemplate", Value("NONE"));
    auto raw = DoDailyMonitor(req);
    ASSERT_TRUE(raw.ok()) << raw.failure().message();
    EXPECT_EQ(raw->description.find("Focus template"), std::string::npos);
    // Unconverted, the first column is the file's first image shift.
    const auto shifts = CsvColumn(data, "Shift_X");
    double sum = 0;
    size_t n = 0;
    for (const auto& [w, v] : shifts)
        for (double d : v) sum += d, ++n;
    ASSERT_GT(n, 0u);
    EXPECT_EQ(raw->stats(0, 1).toString().rfind("Shift_X", 0), 0u);
    int meanRow = -1;
    for (int r = 1; r <= raw->stats.rowUb(); ++r)
        if (raw->stats(r, 0).toString() == "Mean") meanRow = r;
    ASSERT_GT(meanRow, 0);
    EXPECT_NEAR(raw->stats(meanRow, 1).toDouble(), sum / static_cast<double>(n), 1e-3);
}

TEST_F(DMRunTest, FocusMatrixIsCalibratedToEachSitesFocusAtZeroShift) {
    // Linear image shifts: a site's focus at zero shift is -offset / slope
    // less its focus offset.
    SimulateOptions o;
    o.seed = 4, o.noise = 0.2, o.outliers = 0, o.failed = 0;
    for (const char* name : {"X2", "Y2", "X3", "Y3"}) o.coefficients.emplace_back(name, 0.0);
    const std::string data = simulate("psfm", o, "psfm");
    const std::string tpl = makeTemplate(data, "matrix", "Matrix.xlt");
    auto run = DoDailyMonitor(request(tpl, data));
    ASSERT_TRUE(run.ok()) << run.failure().message();

    const zorv::testing::Json truth = zorv::testing::ReadJsonFile((fs::path(data).parent_path() / "truth.json").string());
    const auto& sites = truth["model"]["siteModel"];
    double want = 0;
    for (size_t i = 0; i < sites.size(); ++i)
        want += -sites[i]["offsetX"].number() / sites[i]["slopeX"].number() - sites[i]["focusOffset"].number();
    want /= static_cast<double>(sites.size());
    double got = 0;
    long n = 0;
    run->dmLot->forEachLive([&](cWafer&, cField&, cSite&, cPoint& p) { got += p.ValueV / 1000.0, ++n; });
    ASSERT_EQ(n, static_cast<long>(sites.size()));  // one point per site and exposure set
    EXPECT_NEAR(got / static_cast<double>(n), want, 0.01);

    // The calibration and its focus stay beside the data.
    Workbooks::CloseAll();
    auto wb = Workbook::open(run->dataWorkbookPath);
    ASSERT_TRUE(wb.ok());
    ASSERT_NE((*wb)->sheet("Calibration"), nullptr);
    EXPECT_EQ((*wb)->sheet("Calibration")->cell(1, 1).toString().rfind("Calibration Statistics: ", 0), 0u);
    EXPECT_NE((*wb)->sheet("RawFocus"), nullptr);
}

TEST_F(DMRunTest, FaultsLeaveAResultFileAndTheTemplateUntouched) {
    SimulateOptions o;
    o.seed = 9;
    const std::string psfm = simulate("psfm", o, "psfm");
    const std::string matrix = makeTemplate(psfm, "matrix", "Matrix.xlt");
    o.focusSpan = 0.04;
    const std::string narrow = simulate("psfm", o, "narrow");
    const std::string tplBytes = read(matrix);

    // A data workbook renamed as a template has no "TemplateHeader".
    const fs::path noHeader = dir / "templates" / "NoHeader.xlt";
    fs::copy_file(matrix, noHeader);
    {
        auto wb = Workbook::open(noHeader.string());
        ASSERT_TRUE(wb.ok());
        ASSERT_TRUE((*wb)->removeSheet(kTemplateSheet));
        ASSERT_TRUE((*wb)->save().ok());
    }
    const fs::path corrupt = dir / "templates" / "Corrupt.xlt";
    std::ofstream(corrupt, std::ios::binary) << "PK\x03\x04 this is no workbook";
    const fs::path wrong = dir / "notes.txt";
    std::ofstream(wrong) << "nothing a tool would write\r\n1 2 3\r\n";

    struct Case {
        std::string what, data, tpl, expect;
    };
    const std::vector<Case> cases = {
        {"missing data", (dir / "gone.csv").string(), matrix, "File file '"},
        {"wrong format", wrong.string(), matrix, ""},
        {"no TemplateHeader", psfm, noHeader.string(), "TemplateHeader"},
        {"corrupt template", psfm, corrupt.string(), ""},
        {"focus range 0.04", narrow, matrix, "Isufficient focus-matrix range for data."},
    };
    DMAOptions opt;
    opt.saveSettings = false;
    for (const Case& c : cases) {
        Workbooks::CloseAll();
        const fs::path out = dir / "out" / (c.what.substr(0, 4) + std::to_string(&c - cases.data()));
        const DMAResult r = RunDMA("-f " + c.data + " -t " + c.tpl + " -o " + out.string() + " -x " + out.string(), opt);
        EXPECT_FALSE(r.succeeded) << c.what;
        EXPECT_NE(r.exitCode(), 0) << c.what;
        if (!r.parsed) {
            // The parse refuses a missing file: no result file at all.
            EXPECT_NE(r.resultText.find(c.expect), std::string::npos) << c.what << ": " << r.resultText;
            EXPECT_FALSE(fs::exists(out) && !fs::is_empty(out)) << c.what;
            continue;
        }
        ASSERT_FALSE(r.files.csv.empty()) << c.what;
        const std::string csv = read(r.files.csv);
        EXPECT_NE(csv.find("Fault in data ouput or computation"), std::string::npos) << c.what;
        EXPECT_NE(csv.find("Please see 'RemoteCall.log' file. chk: "), std::string::npos) << c.what;
        EXPECT_TRUE(fs::exists(r.files.xls)) << c.what;
        EXPECT_NE(r.resultText.find("Failed."), std::string::npos) << c.what;
        if (!c.expect.empty()) {
            EXPECT_NE(r.resultText.find(c.expect), std::string::npos) << c.what << ": " << r.resultText;
        }
    }
    EXPECT_EQ(read(matrix), tplBytes);
    const std::string log = read(dir / "RemoteCall.Log");
    EXPECT_NE(log.find("_____Analaysis NOT successful! ______"), std::string::npos);
    EXPECT_NE(log.find(" Analysis in ERROR! "), std::string::npos);
}

TEST_F(DMRunTest, BatchRunsEachFileAndEscapeStopsBetweenFiles) {
    SimulateOptions o;
    std::vector<std::pair<std::string, std::string>> files;
    std::string first;
    for (int i = 0; i < 5; ++i) {
        o.seed = 20 + static_cast<std::uint64_t>(i);
        o.name = "ov" + std::to_string(i);
        const std::string f = simulate("overlay", o, "batch");
        if (first.empty()) first = f;
        files.emplace_back(fs::path(f).filename().string(), fs::path(f).parent_path().string());
    }
    const std::string tpl = makeTemplate(first, "overlay", "Batch.xlt");
    {
        auto wb = Workbook::open(tpl);
        ASSERT_TRUE(wb.ok());
        ASSERT_TRUE(SaveBatchSheet(**wb, "Nightly", files).ok());
        EXPECT_EQ(GetBatchSheets(**wb), std::vector<std::string>{"Nightly"});
    }
    Workbooks::CloseAll();
    DMRunRequest base;
    base.templatePath = tpl;
    SetLogging(true);
    auto all = RunBatch(base, "Nightly");
    ASSERT_TRUE(all.ok()) << all.failure().message();
    EXPECT_EQ(all->files, 5);
    EXPECT_EQ(all->done, 5);
    EXPECT_EQ(all->log.front(), "####################################");
    EXPECT_EQ(all->log[1], "___________Batch file ______________");
    EXPECT_EQ(all->log[5], "      File1: " + files[0].first + " [" + files[0].second + "]");
    EXPECT_EQ(all->log[all->log.size() - 2], "___________Batch [Nightly] Successful ______________");
    EXPECT_EQ(trendRows(tpl, "TC_X_reg"), 5);

    // Escape after the second file: the third never starts.
    Workbooks::CloseAll();
    int seen = 0;
    auto stopped = RunBatch(base, "Nightly", [&](int i, const std::string&, const Result<DMRunOutcome>& r) {
        EXPECT_TRUE(r.ok());
        seen = i;
        if (i == 2) SetEscPressed(true);
    });
    ASSERT_FALSE(stopped.ok());
    EXPECT_EQ(stopped.failure().text, "User interrupted analysis...");
    EXPECT_EQ(seen, 2);
    EXPECT_EQ(trendRows(tpl, "TC_X_reg"), 7);

    // The batch list goes after its question.
    auto wb = Workbook::open(tpl);
    ASSERT_TRUE(wb.ok());
    std::string asked;
    auto gone = DeleteBatch(**wb, "Nightly", [&](const std::string& q) { return asked = q, true; }, false);
    ASSERT_TRUE(gone.ok());
    EXPECT_EQ(*gone, 1);
    EXPECT_EQ(asked, "This command will delete Batch:  [Nightly] \r\nAre you sure you wish to proceed?");
    EXPECT_TRUE(GetBatchSheets(**wb).empty());
}

TEST_F(DMRunTest, LongLogIsCutToItsNewestLinesAndGoesOnInTheNewFile) {
    SimulateOptions o;
    o.seed = 2;
    const std::string data = simulate("overlay", o, "ov");
    const std::string tpl = makeTemplate(data, "overlay", "Log.xlt");
    // "DMAminLines" 10 keeps 150 lines; "DMAmaxLines" -1 cuts past 10 + 150.
    SaveSetting("Zorv Daily Monitor", "DailyMonitor", "DMAlimitFileSize", "1");
    SaveSetting("Zorv Daily Monitor", "DailyMonitor", "DMAminLines", "10");
    SaveSetting("Zorv Daily Monitor", "DailyMonitor", "DMAmaxLines", "-1");
    DMAOptions opt;
    opt.saveSettings = false;
    const fs::path log = dir / "RemoteCall.Log", bak = dir / "RemoteCall.BAK";
    auto lines = [](const fs::path& p) {
        std::ifstream f(p);
        std::vector<std::string> v;
        for (std::string l; std::getline(f, l);) {
            if (!l.empty() && l.back() == '\r') l.pop_back();
            v.push_back(l);
        }
        return v;
    };
    for (int run = 0; run < 8 && !fs::exists(bak); ++run) {
        Workbooks::CloseAll();
        ASSERT_TRUE(RunDMA("-f " + data + " -t " + tpl + " -o " + (dir / "out").string(), opt).succeeded);
    }
    DeleteSetting("Zorv Daily Monitor", "DailyMonitor");
    ASSERT_TRUE(fs::exists(bak));
    const auto kept = lines(log);
    EXPECT_EQ(kept.front().rfind("____ Backup____: ", 0), 0u);
    // The head, the newest 150 lines, and the run's last lines after the cut.
    EXPECT_GT(kept.size(), 150u);
    EXPECT_LT(kept.size(), 200u);
    EXPECT_EQ(kept.back(), "++++++++++++++++++ END ++++++++++++++++++++++");
    EXPECT_FALSE(lines(bak).empty());
}

// ---- the pieces, against hand-made tables

TEST(DMRunPieces, StatNamesComeFromTheFirstStatisticsTable) {
    WorkbookPtr wb = Workbook::create("/nonexistent/names.xlsx", "Information");
    auto none = GetStatNames(wb.get());
    ASSERT_FALSE(none.ok());
    EXPECT_EQ(none.failure().text, "Worksheet 'TemplateHeader' could not be found in workbook: names.xlsx");
    Worksheet* ws = wb->addSheet(kTemplateSheet);
    ws->setCell(1, 1, Value("Template"));
    auto empty = GetStatNames(wb.get());
    ASSERT_TRUE(empty.ok());
    EXPECT_EQ(*empty, std::vector<std::string>{"No Statistics"});
    ws->setCell(3, 1, Value("WaferModelStatistics"));
    ws->setCell(4, 1, Value("Offset"));
    ws->setCell(5, 1, Value("TiltX"));
    auto names = GetStatNames(wb.get());
    ASSERT_TRUE(names.ok());
    EXPECT_EQ(*names, (std::vector<std::string>{"Offset", "TiltX"}));
}


TEST(DMRunPieces, FormatStatisticsPassesOverTheFixedRowsAndKeepsTheAxes) {
    Datam raw = Datam::fromRows({{Value("Lot"), Value("X"), Value("Y"), Value("Length"), Value("Mean")},
                                 {Value("Count"), Value(10.0), Value(), Value(), Value()},
                                 {Value("IFDxy_max"), Value(4.0), Value(), Value(), Value()},
                                 {Value("Astig(YXmax)"), Value("Astig-Max"), Value(-1.0), Value(), Value()},
                                 {Value("________"), Value("________"), Value(), Value(), Value()},
                                 {Value("Mean"), Value(1.0), Value(2.0), Value(3.0), Value(1.5)}},
                                0, 0);
    const Datam one = FormatStatistics(raw, false, "Y");
    ASSERT_EQ(one.colUb(), 1);
    EXPECT_EQ(one(0, 1).toString(), "Y");
    ASSERT_EQ(one.rowUb(), 1);  // Count has no Y; the fixed rows go
    EXPECT_EQ(one(1, 0).toString(), "Mean");
    EXPECT_EQ(one(1, 1).toDouble(), 2.0);
    const Datam all = FormatStatistics(raw, true, "Y");
    ASSERT_EQ(all.colUb(), 3);  // X, Y and Mean; not Length
    EXPECT_EQ(all(0, 3).toString(), "Mean");
    EXPECT_EQ(all.rowUb(), 2);
}

TEST(DMRunPieces, LotAverageRowsHoldTheColumnMeans) {
    Datam t = Datam::fromRows({{Value("Field"), Value("Piston"), Value("Tilt")},
                               {Value("F1"), Value(1.0), Value(-2.0)},
                               {Value("F2"), Value(3.0), Value()},
                               {Value("F3"), Value(8.0), Value(4.0)}},
                              0, 0);
    UpdateLotAverageModelValues(t);
    ASSERT_EQ(t.rowUb(), 5);
    EXPECT_EQ(t(4, 0).toString(), "=======");
    EXPECT_EQ(t(5, 0).toString(), "  Mean:");
    EXPECT_DOUBLE_EQ(t(5, 1).toDouble(), 4.0);
    EXPECT_DOUBLE_EQ(t(5, 2).toDouble(), 1.0);  // the empty cell is no zero
}

TEST(DMRunPieces, ProcessWindowReportIsReadByItsRows) {
    WorkbookPtr wb = Workbook::create("/nonexistent/pw.xlsx", "Index");
    auto missing = GetPWmodeled(wb.get(), "PW");
    ASSERT_FALSE(missing.ok());
    EXPECT_EQ(missing.failure().text, "DM Macro does not contain the needed spreadsheet: ProcessWindowReport");
    Worksheet* ws = wb->addSheet("ProcessWindowReport");
    ws->setCell(1, 1, Value("Process window"));
    auto empty = GetPWmodeled(wb.get(), "PW");
    ASSERT_FALSE(empty.ok());
    EXPECT_EQ(empty.failure().text, "No process window/focus/dose data in sheet: ProcessWindowReport");
    const Datam rows = Datam::fromRows({{Value("# Points:"), Value(120.0)},
                                        {Value("PW Rectangle:"), Value()},
                                        {Value("...Best Focus"), Value(-0.05)},
                                        {Value("...Depth of Focus(DoF)"), Value(0.3)},
                                        {Value(), Value()},
                                        {Value("PW Ellipse:"), Value()},
                                        {Value("...Best Focus"), Value(0.01)}},
                                       1, 1);
    ws->setRange(2, 1, rows);
    auto got = GetPWmodeled(wb.get(), "PW");
    ASSERT_TRUE(got.ok()) << got.failure().message();
    ASSERT_EQ(got->rowUb(), 4);
    EXPECT_EQ((*got)(1, 1).toString(), "Points");
    EXPECT_EQ((*got)(1, 2).toDouble(), 120.0);
    EXPECT_EQ((*got)(2, 1).toString(), "Best Focus");
    EXPECT_EQ((*got)(2, 2).toDouble(), -0.05);
    EXPECT_EQ((*got)(4, 1).toString(), "Ellipse Best Focus");
    EXPECT_EQ(PWReportSheet("DoseBF"), "Dose_atBestFocusReport");
}

}  // namespace
}  // namespace zorv
