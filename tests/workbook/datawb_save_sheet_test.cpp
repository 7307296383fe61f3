// The data sheet SaveData writes, against the same sheet built here cell by
// cell through ordinary ranges: a real spreadsheet library (Debian's
// python3-openpyxl) reads both alike, values, number formats, bold and
// comments, and the defined names point at the value columns.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "base/report.h"
#include "workbook/data_workbook.h"
#include "workbook/data_workbook_sample.h"

namespace fs = std::filesystem;
using namespace zorv;

namespace {
const char* kDump = R"PY(
import sys, openpyxl
wb = openpyxl.load_workbook(sys.argv[1])
s = wb[sys.argv[2]]
out = ["dims %d %d" % (s.max_row, s.max_column)]
for row in s.iter_rows():
    for c in row:
        if c.value is None and c.comment is None and c.number_format == "General" and not c.font.b:
            continue
        v = c.value
        if isinstance(v, float): v = repr(v)
        out.append("%s|%r|%s|%s|%s" % (c.coordinate, v, c.number_format, bool(c.font.b),
                                       c.comment.text if c.comment else ""))
if len(sys.argv) > 3:
    for n in sorted(wb.defined_names.definedName, key=lambda n: n.name):
        out.append("name %s %s" % (n.name, n.attr_text))
open(sys.argv[-1], "w").write("\n".join(out) + "\n")
)PY";

std::string Slurp(const fs::path& p) {
    std::ifstream in(p);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

int Dump(const fs::path& script, const std::string& book, const std::string& sheet, bool names, const fs::path& out) {
    std::string cmd = "/usr/bin/python3 " + script.string() + " " + book + " " + sheet + (names ? " names " : " ") +
                      out.string() + " 2>&1";
    return std::system(cmd.c_str());
}
}  // namespace

TEST(DataWorkbookSaveSheet, DataSheetReadsAsOneBuiltCellByCell) {
    if (!fs::exists("/usr/bin/python3")) GTEST_SKIP() << "no /usr/bin/python3";
    if (std::system("/usr/bin/python3 -c 'import openpyxl' 2>/dev/null") != 0) GTEST_SKIP() << "no openpyxl";
    fs::path dir = fs::path(ZORV_TEST_TMP) / "datawb_save_sheet";
    fs::remove_all(dir);
    fs::create_directories(dir);
    StreamReporter quiet(stderr);
    SetReporter(&quiet);
    SampleSpec shape;
    shape.dataTable = "SheetCmp";
    shape.workbookPath = (dir / "SheetCmp.xlsx").string();
    shape.values = 5;  // X_reg, Y_reg, Mean, Slope, Pitch
    shape.blankEvery = 3;
    shape.excludedRows = 2;
    SampleTables t = MakeSampleTables(shape);
    // Text and a date among the numbers.
    t.data(3, 7) = "n/a";
    t.data(5, 8) = Value::date(45678.5);
    t.data(6, 6) = " lead";
    Result<std::string> written = SaveData(t.data, t.excluded, t.sites, t.information);
    ASSERT_TRUE(written.ok()) << written.failure().message();
    const std::string saved = *written;
    Workbooks::CloseAll();
    SetReporter(nullptr);

    // The same sheet through ordinary cells, with what SaveData gives it.
    const std::string built = (dir / "Built.xlsx").string();
    {
        WorkbookPtr wb = Workbook::create(built, "SheetCmp");
        wb->setProperty("Author", "Zorv");
        Worksheet* ws = wb->sheet("SheetCmp");
        ws->setRange(1, 1, t.data);
        ws->setComment(1, 1, "DATASHEET");
        ws->setComment(2, 1, "SheetCmp");
        const int n = t.data.rowCount();
        ws->setNumberFormat(Area{2, 6, n, 7}, "##0.000");  // X_reg, Y_reg
        ws->setNumberFormat(Area{2, 9, n, 9}, "###0.00");  // Slope
        ws->setBold(Area{1, 1, 1, t.data.colCount()});
        ASSERT_TRUE(wb->save().ok());
    }

    fs::path script = dir / "dump.py";
    std::ofstream(script) << kDump;
    ASSERT_EQ(Dump(script, saved, "SheetCmp", true, dir / "saved.txt"), 0) << Slurp(dir / "saved.txt");
    ASSERT_EQ(Dump(script, built, "SheetCmp", false, dir / "built.txt"), 0) << Slurp(dir / "built.txt");
    std::string a = Slurp(dir / "saved.txt"), b = Slurp(dir / "built.txt");
    const int n = t.data.rowCount();
    std::string names;
    for (const char* h : {"Mean", "Pitch", "Slope", "X_reg", "Y_reg"}) {
        int col = 0;
        for (int c = 0; c <= t.data.colUb(); ++c)
            if (t.data(0, c).str() == h) col = c + 1;
        std::string letter(1, static_cast<char>('A' + col - 1));
        names += std::string("name ") + h + " SheetCmp!$" + letter + "$2:$" + letter + "$" + std::to_string(n) + "\n";
    }
    EXPECT_GT(b.size(), 1000u);
    EXPECT_NE(b.find("|'n/a'|"), std::string::npos) << b.substr(0, 400);
    EXPECT_NE(b.find("A1|None|General|True|DATASHEET"), std::string::npos) << b.substr(0, 400);
    EXPECT_EQ(a, b + names);
}
