// A data workbook written by SaveData, opened by a real spreadsheet program:
// LibreOffice converts it headless, sheet by sheet, to CSV. Skipped where
// LibreOffice is not installed.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "base/report.h"
#include "workbook/data_workbook.h"
#include "workbook/data_workbook_sample.h"
#include "workbook/store.h"

namespace fs = std::filesystem;
using namespace zorv;

namespace {

std::vector<std::vector<std::string>> readCsv(const fs::path& p) {
    std::vector<std::vector<std::string>> rows;
    std::ifstream in(p);
    std::string line;
    while (std::getline(in, line)) {
        std::vector<std::string> cells;
        std::string cell;
        bool quoted = false;
        for (char c : line) {
            if (c == '"') quoted = !quoted;
            else if (c == ',' && !quoted) { cells.push_back(cell); cell.clear(); }
            else cell += c;
        }
        cells.push_back(cell);
        rows.push_back(cells);
    }
    return rows;
}

}  // namespace

TEST(DataWorkbookLibreOffice, SaveDataWorkbookOpensInLibreOffice) {
    if (std::system("command -v soffice >/dev/null 2>&1") != 0) GTEST_SKIP() << "LibreOffice not installed";
    const fs::path dir = fs::path(ZORV_TEST_TMP) / "datawb_libreoffice";
    fs::remove_all(dir);
    fs::create_directories(dir / "profile");
    StreamReporter quiet(stderr);
    SetReporter(&quiet);
    SampleSpec shape;
    shape.dataTable = "LoLot";
    shape.workbookPath = (dir / "LoLot.xlsx").string();
    shape.blankEvery = 3;
    shape.excludedRows = 2;
    SampleTables t = MakeSampleTables(shape);
    Result<std::string> written = SaveData(t.data, t.excluded, t.sites, t.information);
    ASSERT_TRUE(written.ok()) << written.failure().message();
    Workbooks::CloseAll();
    SetReporter(nullptr);

    // Every sheet to its own CSV (the last filter token), full precision
    // as stored rather than as formatted.
    const std::string cmd = "cd '" + dir.string() + "' && HOME='" + (dir / "profile").string() +
                            "' timeout 180 soffice --headless -env:UserInstallation=file://" +
                            (dir / "profile").string() +
                            " --convert-to 'csv:Text - txt - csv (StarCalc):44,34,76,1,,0,false,"
                            "true,false,false,false,-1' --outdir csv LoLot.xlsx > lo.log 2>&1";
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    const fs::path data = dir / "csv" / "LoLot-LoLot.csv";
    const fs::path sites = dir / "csv" / "LoLot-Sites.csv";
    ASSERT_TRUE(fs::exists(data) && fs::exists(sites)) << "LibreOffice wrote no sheets";
    EXPECT_TRUE(fs::exists(dir / "csv" / "LoLot-Information.csv"));
    EXPECT_TRUE(fs::exists(dir / "csv" / "LoLot-Excluded.csv"));

    const auto rows = readCsv(data);
    ASSERT_EQ(t.data.lb(1), 0);
    ASSERT_EQ(static_cast<int>(rows.size()), t.data.ub(1) + 1);  // header and every data row
    EXPECT_EQ(rows[0][1], "Wafer");
    EXPECT_EQ(rows[0][5], "X_reg");
    // Every value cell as SaveData received it; blanks stay blank.
    int checked = 0;
    for (int r = 1; r < static_cast<int>(rows.size()); ++r) {
        for (int c = 5; c <= 7; ++c) {
            const Value& v = t.data(r, c);
            ASSERT_EQ(t.data.lb(2), 0);  // column 0 is sheet column A
            const std::string& cell = rows[r][static_cast<size_t>(c)];
            if (v.isEmpty() || v.textLength() == 0) {
                EXPECT_TRUE(cell.empty()) << "row " << r << " col " << c << ": " << cell;
                continue;
            }
            ASSERT_FALSE(cell.empty()) << "row " << r << " col " << c;
            EXPECT_NEAR(std::stod(cell), v.toDouble(), 1e-9 * (1 + std::fabs(v.toDouble())));
            ++checked;
        }
    }
    EXPECT_GT(checked, 100);
    const auto srows = readCsv(sites);
    ASSERT_GE(srows.size(), 2u);
    EXPECT_EQ(srows[0][0], "Sites");
    EXPECT_EQ(srows[0][4], "X_LOC");
}
