// zorv-cli layout on a sample workbook: the printed grid, the saved sheet.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "paint/cli_run.h"
#include "workbook/store.h"

namespace fs = std::filesystem;

namespace {

class LayoutCli : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::path(ZORV_TEST_TMP) / "layout-cli" /
              (std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + "-" +
               std::to_string(getpid()));
        fs::remove_all(dir);
        fs::create_directories(dir);
        book = (dir / "fem.xlsx").string();
        const CliRun made = Cli("sample-workbook " + book + " --wafers 1 --fields 3");
        ASSERT_EQ(made.rc, 0) << made.out;
    }
    void TearDown() override {
        if (!HasFailure()) fs::remove_all(dir);
    }
    fs::path dir;
    std::string book;
};

// The printed grid: row label (DieY) to the values left to right.
std::map<std::string, std::vector<std::string>> GridRows(const std::string& out) {
    std::map<std::string, std::vector<std::string>> rows;
    std::istringstream in(out);
    std::string line;
    bool inGrid = false;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::vector<std::string> w;
        for (std::string s; words >> s;) w.push_back(s);
        if (!w.empty() && w[0] == "DieY\\DieX") {
            inGrid = true;
            rows["DieX"] = std::vector<std::string>(w.begin() + 1, w.end());
            continue;
        }
        if (!inGrid || w.size() < 2 || w[1] == "fields") continue;
        rows[w[0]] = std::vector<std::string>(w.begin() + 1, w.end());
    }
    return rows;
}

using Row = std::vector<std::string>;

TEST_F(LayoutCli, SerpentineGridPrintedAndSaved) {
    const CliRun r = Cli("layout " + book +
                         " --variable Dose --meander ULRight --program Serpentine --initial 10 --step 1 --save");
    ASSERT_EQ(r.rc, 0) << r.out;
    auto rows = GridRows(r.out);
    EXPECT_EQ(rows["DieX"], (Row{"-1", "0", "1"}));
    // From the upper left corner: right along the top row, back along the
    // middle one, right again along the bottom.
    EXPECT_EQ(rows["1"], (Row{"10", "11", "12"}));
    EXPECT_EQ(rows["0"], (Row{"15", "14", "13"}));
    EXPECT_EQ(rows["-1"], (Row{"16", "17", "18"}));
    EXPECT_NE(r.out.find("9 fields set"), std::string::npos) << r.out;

    // The sheet holds the doses by field.
    auto wb = zorv::Workbook::open(book);
    ASSERT_TRUE(wb.ok());
    zorv::Worksheet* ws = wb.value()->sheet("Layout");
    ASSERT_NE(ws, nullptr);
    EXPECT_EQ(ws->cell(1, 6).toString(), "Dose");
    std::map<std::pair<int, int>, double> dose;
    for (int row = 2; row <= 10; ++row)
        dose[{ws->cell(row, 3).toLong(), ws->cell(row, 4).toLong()}] = ws->cell(row, 6).toDouble();
    EXPECT_EQ(dose[std::make_pair(-1, 1)], 10);
    EXPECT_EQ(dose[std::make_pair(-1, 0)], 15);
    EXPECT_EQ(dose[std::make_pair(1, -1)], 18);

    // A second run reads the saved sheet: fields off a middle start keep it.
    const CliRun again = Cli("layout " + book + " --variable Dose --meander LRLeft --program SingleScan "
                             "--initial 50 --step -5 --start 0,-1");
    ASSERT_EQ(again.rc, 0) << again.out;
    rows = GridRows(again.out);
    // Leftward lines from (0, -1), one above the other: the column DieX 1
    // lies off the path and keeps the first run's doses.
    EXPECT_EQ(rows["1"], (Row{"45", "50", "12"}));
    EXPECT_EQ(rows["0"], (Row{"45", "50", "13"}));
    EXPECT_EQ(rows["-1"], (Row{"45", "50", "18"}));
}

TEST_F(LayoutCli, JsonChartAndFailures) {
    const CliRun j = Cli("layout " + book + " --program MultiScan --meander LLUp --initial 0 --step 0.1 --json");
    ASSERT_EQ(j.rc, 0) << j.out;
    EXPECT_NE(j.out.find("\"scan1\":\"Up\""), std::string::npos) << j.out;
    // Lines go up the columns from the lower left: the top row is 0.2, 0.5, 0.8.
    EXPECT_NE(j.out.find("{\"dieY\":1,\"values\":[0.2,0.5,0.8]}"), std::string::npos) << j.out;

    const std::string png = (dir / "map.png").string();
    const CliRun c = Cli("layout " + book + " --program Serpentine --initial 1 --step 1 --chart " + png);
    if (c.out.find("without the drawing library") == std::string::npos) {
        ASSERT_EQ(c.rc, 0) << c.out;
        EXPECT_GT(fs::file_size(png), 1000u);
    }

    const CliRun off = Cli("layout " + book + " --program Serpentine --start 7,7");
    EXPECT_EQ(off.rc, 1);
    EXPECT_NE(off.out.find("Error: Layout not updated."), std::string::npos) << off.out;
    EXPECT_EQ(Cli("layout " + book + " --meander Sideways").rc, 2);
    EXPECT_EQ(Cli("layout " + book + " --program Zigzag").rc, 2);
    EXPECT_EQ(Cli("layout " + book + " --variable Temperature").rc, 2);
}

}  // namespace
