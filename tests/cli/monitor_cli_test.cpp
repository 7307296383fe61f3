// zorv-cli monitor as a factory host runs it: the shipped templates on
// simulated data, the result files opened by a spreadsheet reader of its own,
// the exit codes a host branches on; and the exposure tool library.
#include <gtest/gtest.h>

#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace zorv {
namespace {

namespace fs = std::filesystem;

struct CliResult {
    int rc = -1;
    std::string out;
};

std::string Bytes(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

class MonitorCli : public ::testing::Test {
protected:
    void SetUp() override {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        dir = fs::path(ZORV_TEST_TMP) / "cli-monitor" / (std::string(info->name()) + "-" + std::to_string(getpid()));
        fs::remove_all(dir);
        fs::create_directories(dir / "templates");
        for (const auto& e : fs::directory_iterator(fs::path(ZORV_DATA_DIR) / "templates"))
            fs::copy_file(e.path(), dir / "templates" / e.path().filename());
    }
    void TearDown() override {
        if (!HasFailure()) fs::remove_all(dir);
    }

    CliResult run(const std::string& args) {
        const std::string cmd = "ZORV_SETTINGS_FILE=" + (dir / "settings.ini").string() + " " + ZORV_CLI_PATH + " " +
                                args + " 2>" + (dir / "stderr.txt").string();
        CliResult r;
        FILE* p = popen(cmd.c_str(), "r");
        if (!p) return r;
        std::array<char, 4096> buf;
        size_t n;
        while ((n = fread(buf.data(), 1, buf.size(), p)) > 0) r.out.append(buf.data(), n);
        const int st = pclose(p);
        r.rc = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
        return r;
    }
    std::string simulate(const std::string& kind, const std::string& extra = {}) {
        const fs::path out = dir / ("sim-" + kind);
        EXPECT_EQ(run("simulate " + kind + " --out " + out.string() + " --seed 12 " + extra).rc, 0);
        for (const auto& e : fs::directory_iterator(out))
            if (e.path().filename() != "truth.json") return e.path().string();
        return {};
    }
    std::string tpl(const std::string& name) const { return (dir / "templates" / name).string(); }

    fs::path dir;
};

TEST_F(MonitorCli, ShippedOverlayMonitorLeavesFilesASpreadsheetReaderOpens) {
    const std::string data = simulate("overlay");
    const fs::path out = dir / "out";
    const CliResult r = run("monitor -f " + data + " -t " + tpl("OverlayMonitor.xlt") + " -o " + out.string() + " -x " +
                            out.string() + " -w " + out.string() + " --charts " + (dir / "charts").string() + " --json");
    ASSERT_EQ(r.rc, 0) << r.out << Bytes(dir / "stderr.txt");
    EXPECT_NE(r.out.find("\"ok\":true"), std::string::npos) << r.out;
    for (const char* ext : {".csv", ".json", ".xls", ".html"}) EXPECT_TRUE(fs::exists(out / ("overlay_ZorvDMA" + std::string(ext)))) << ext;
    EXPECT_TRUE(fs::exists(dir / "charts" / "trend_X_reg__Mean.png"));

    fs::copy_file(out / "overlay_ZorvDMA.xls", dir / "copy.xlsx");
    // LibreOffice, where installed, reads the workbook sheet by sheet.
    if (std::system("command -v soffice >/dev/null 2>&1") == 0) {
        const fs::path profile = dir / "profile";
        const std::string cmd = "cd '" + dir.string() + "' && HOME='" + profile.string() +
                                "' timeout 300 soffice --headless -env:UserInstallation=file://" + profile.string() +
                                " --convert-to 'csv:Text - txt - csv (StarCalc):44,34,76,1,,0,false,true,false,false,"
                                "false,-1' --outdir lo copy.xlsx > lo.log 2>&1";
        ASSERT_EQ(std::system(cmd.c_str()), 0);
        const std::string results = Bytes(dir / "lo" / "copy-Results.csv");
        EXPECT_EQ(results.rfind("[Data],", 0), 0u) << results.substr(0, 80);
        EXPECT_NE(results.find("[END]"), std::string::npos);
        EXPECT_TRUE(fs::exists(dir / "lo" / "copy-SIM0001.csv"));
    }
    // The workbook as another reader sees it: "Results" from "[Data]" to
    // "[END]", its numbers as numbers, and the lot's data beside it.
    if (std::system("/usr/bin/python3 -c 'import openpyxl' 2>/dev/null") != 0) GTEST_SKIP() << "no openpyxl";
    const std::string py = "import openpyxl\n"
                           "wb = openpyxl.load_workbook('" + (dir / "copy.xlsx").string() + "')\n"
                           "ws = wb['Results']\n"
                           "rows = [r for r in ws.iter_rows(values_only=True)]\n"
                           "keys = [r[0] for r in rows]\n"
                           "assert keys[0] == '[Data]' and keys[-1] == '[END]', keys[:3]\n"
                           "mean = [r[1] for r in rows if r[0] == 'Mean.'][0]\n"
                           "assert isinstance(mean, float), type(mean)\n"
                           "data = [n for n in wb.sheetnames if n != 'Results']\n"
                           "assert len(data) == 1 and wb[data[0]].max_row > 400, wb.sheetnames\n"
                           "print('ok')\n";
    std::ofstream(dir / "check.py") << py;
    EXPECT_EQ(std::system(("/usr/bin/python3 " + (dir / "check.py").string()).c_str()), 0);
}

TEST_F(MonitorCli, ExitCodesTellAFaultFromABadLine) {
    // No switches at all: a line to refuse, and no file.
    EXPECT_EQ(run("monitor nothing here").rc, 2);
    EXPECT_EQ(run("monitor -f " + (dir / "missing.csv").string() + " -t " + tpl("MatrixMonitor.xlt") + " -o " +
                  (dir / "none").string())
                  .rc,
              2);
    EXPECT_FALSE(fs::exists(dir / "none" / "missing_ZorvDMA.csv"));
    // A matrix of 0.04 um: a fault, with its file.
    const std::string narrow = simulate("psfm", "--focus-span 0.04");
    const CliResult r = run("monitor -f " + narrow + " -t " + tpl("MatrixMonitor.xlt") + " -o " + (dir / "out").string());
    EXPECT_EQ(r.rc, 1);
    const std::string csv = Bytes(dir / "out" / (fs::path(narrow).stem().string() + "_ZorvDMA.csv"));
    EXPECT_NE(csv.find("Fault in data ouput or computation"), std::string::npos) << csv;
    EXPECT_NE(Bytes(dir / "stderr.txt").find("Isufficient focus-matrix range for data."), std::string::npos);
}

TEST_F(MonitorCli, ProcessWindowMonitorReportsItsWindow) {
    const std::string data = simulate("fem");
    const CliResult r = run("monitor -d " + data + " -t " + tpl("FEMMonitor.xlt") + " -0 " + (dir / "out").string());
    ASSERT_EQ(r.rc, 0) << r.out << Bytes(dir / "stderr.txt");
    const std::string csv = Bytes(dir / "out" / "fem_ZorvDMA.csv");
    for (const char* key : {"Best Focus.,", "Depth of Focus(DoF).,", "Best Dose.,", "%Dose Latitude.,"})
        EXPECT_NE(csv.find(std::string("\r\n") + key), std::string::npos) << key;
    const CliResult chart = run("monitor --trend " + tpl("FEMMonitor.xlt") + " --feature MEAS_1 --stat \"Best Dose\" --out " +
                                (dir / "bd.png").string());
    EXPECT_EQ(chart.rc, 0) << Bytes(dir / "stderr.txt");
    EXPECT_TRUE(fs::exists(dir / "bd.png"));
}

// The exposure tool library from a shell: a tool set, changed, read back.
TEST_F(MonitorCli, ToolsAreSetByNameAndReadBack) {
    const std::string lib = " --library " + (dir / "Reticles" / "ExposureToolLibrary.xlsx").string();
    EXPECT_EQ(run("tools set \"Scanner 4\" NA=0.75 PCinner=0.55" + lib).rc, 0);
    EXPECT_EQ(run("tools set \"scanner 4\" NA=0.8" + lib).rc, 0);
    const CliResult list = run("tools list --json" + lib);
    ASSERT_EQ(list.rc, 0);
    EXPECT_NE(list.out.find("\"tools\":[\"ASM 700\",\"Scanner 4\"]"), std::string::npos) << list.out;
    const CliResult show = run("tools show \"Scanner 4\" --json" + lib);
    ASSERT_EQ(show.rc, 0);
    EXPECT_NE(show.out.find("\"NA\":\"0.8\""), std::string::npos) << show.out;
    EXPECT_NE(show.out.find("\"PCinner\":\"0.55\""), std::string::npos) << show.out;
    EXPECT_EQ(run("tools show Nope" + lib).rc, 1);
    EXPECT_NE(Bytes(dir / "stderr.txt").find("Could not locate exposure tool 'Nope' in the library."), std::string::npos);
    EXPECT_EQ(run("tools set X Bogus=1" + lib).rc, 1);
    EXPECT_EQ(run("tools frobnicate" + lib).rc, 2);
}

}  // namespace
}  // namespace zorv
