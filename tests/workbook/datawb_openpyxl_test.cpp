// A data workbook written by SaveData, read by a real spreadsheet library
// (Debian's python3-openpyxl): sheets in order, cells, hidden comments,
// defined names, document properties.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "base/report.h"
#include "lot/lot.h"
#include "workbook/data_workbook.h"
#include "workbook/data_workbook_sample.h"

namespace fs = std::filesystem;
using namespace zorv;

namespace {
const char* kScript = R"PY(
import sys, zipfile, openpyxl
path = sys.argv[1]
wb = openpyxl.load_workbook(path)
def check(cond, what):
    if not cond:
        print("FAIL:", what); sys.exit(1)
check(wb.sheetnames == ["Sites", "Information", "OpenPy", "Excluded"], "sheet order %r" % wb.sheetnames)
d = wb["OpenPy"]
check([c.value for c in d[1]][1:8] == ["Wafer", "Test", "Diex", "Diey", "X_reg", "Y_reg", "Mean"], "data header")
check(d["B2"].value == 1 and d["C2"].value == 1 and d["D2"].value == -1 and d["E2"].value == -1, "row 2 ids")
check(abs(d["F2"].value - float(sys.argv[2])) < 1e-12, "F2 %r" % d["F2"].value)
check(d["F3"].value is None, "blank value stays blank")
check(d.max_row == 1 + 2 * 9 * 4, "rows %d" % d.max_row)
check(d["A1"].comment is not None and d["A1"].comment.text == "DATASHEET", "A1 comment")
check(d["A2"].comment is not None and d["A2"].comment.text == "OpenPy", "A2 comment")
s = wb["Sites"]
check([c.value for c in s[1]][:6] == ["Sites", "X_DIE_SIZE", "Y_DIE_SIZE", "TEST", "X_LOC", "Y_LOC"], "sites header")
check(s["B2"].value == 26 and s["E2"].value == -1 and s["F2"].value == 1, "site 1")
i = wb["Information"]
keys = [i.cell(row=r, column=1).value for r in range(1, 48)]
check(keys[0] == "Data Type" and keys[46] == "WaferSize" and len(set(keys)) == 47, "47 keys")
check(i["B1"].value == "Overlay", "data type word")
check(i["B36"].value == "Scanner", "tool type word")
check(i["A1"].font.b, "row 1 bold")
check(i["B20"].number_format == "d-mmm-yy", "date format")
check(i["B24"].number_format == "hh:mm:ss", "time format")
check(i["E1"].value == "Summary" and i["E3"].value == "Count", "summary at E2")
e = wb["Excluded"]
check(e["A1"].value == "Excluded Data Values for: OpenPy", "excluded title")
# CR is written escaped as _x000D_, as Excel writes it; openpyxl leaves the escape
check(e["A2"].value in ("Orig.\r\nRow", "Orig._x000D_\nRow"), "excluded header %r" % e["A2"].value)
names = {n.name: n.attr_text for n in wb.defined_names.definedName}
check(names.get("X_reg") == "OpenPy!$F$2:$F$73", "name X_reg %r" % names)
check(d["F2"].number_format == "##0.000", "named range format")
p = wb.properties
check(p.creator == "Zorv Wavefront Engineering ver: 5.1.0", "author")
check(p.lastModifiedBy == "Zorv Wavefront Engineering ver: 5.1.0", "last author")
check(p.subject == "Zorv Wavefront Analysis Data", "subject")
z = zipfile.ZipFile(path)
app = z.read("docProps/app.xml").decode()
check("<Company>Palvex</Company>" in app, "company")
vml = [n for n in z.namelist() if n.endswith(".vml")]
check(vml, "comment drawing present")
for n in vml:
    t = z.read(n).decode()
    check("<x:Visible" not in t, "comments hidden")
print("OK")
)PY";
}  // namespace

TEST(DataWorkbookOpenpyxl, SaveDataWorkbookReadsBackInOpenpyxl) {
    if (!fs::exists("/usr/bin/python3")) GTEST_SKIP() << "no /usr/bin/python3";
    if (std::system("/usr/bin/python3 -c 'import openpyxl' 2>/dev/null") != 0) GTEST_SKIP() << "no openpyxl";
    fs::path dir = fs::path(ZORV_TEST_TMP) / "datawb_openpyxl";
    fs::remove_all(dir);
    fs::create_directories(dir);
    StreamReporter quiet(stderr);
    SetReporter(&quiet);
    SampleSpec shape;
    shape.dataTable = "OpenPy";
    shape.workbookPath = (dir / "OpenPy.xlsx").string();
    shape.blankEvery = 2;
    shape.excludedRows = 3;
    SampleTables t = MakeSampleTables(shape);
    Result<std::string> written = SaveData(t.data, t.excluded, t.sites, t.information);
    ASSERT_TRUE(written.ok()) << written.failure().message();
    const std::string saved = *written;
    Workbooks::CloseAll();
    SetReporter(nullptr);
    fs::path script = dir / "check.py";
    std::ofstream(script) << kScript;
    char f2[64];
    std::snprintf(f2, sizeof f2, "%.17g", SampleValue(1, -1, -1, 1, 0));
    std::string cmd = "/usr/bin/python3 " + script.string() + " " + saved + " " + f2 + " > " +
                      (dir / "out.txt").string() + " 2>&1";
    int rc = std::system(cmd.c_str());
    std::ifstream in(dir / "out.txt");
    std::string out((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(rc, 0) << out;
    EXPECT_NE(out.find("OK"), std::string::npos) << out;
}

namespace {
const char* kWriter = R"PY(
import sys, datetime, openpyxl
wb = openpyxl.Workbook()
s = wb.active
s.title = "Sites"
s.append(["Sites", "X_DIE_SIZE", "Y_DIE_SIZE", "TEST", "X_LOC", "Y_LOC", "FAMILY", "CD_UNITS"])
s.append([None, 20, 30, 1, -1.5, 2.5, "Dense", "nm"])
s.append([None, 20, 30, 2, 1.5, -2.5, "Iso", None])
i = wb.create_sheet("Information")
rows = [("Data Type", "CDsem"), ("Data Table", "PyLot"), ("Inspection", "x"), ("Device", "d"), ("Level", "l"),
        ("DieSizeX", 20), ("DieSizeY", 30)]
for r in rows: i.append(list(r))
for k in range(len(rows) + 1, 20): i.append(["Key%d" % k, None])
i.append(["Date", datetime.datetime(2025, 3, 14, 0, 0)])
i.append(["Title", None]); i.append(["Comments", "made by openpyxl"]); i.append(["Exposure Tool", "T1"])
i.append(["MeasureTime", datetime.time(9, 26, 53)])
i.append(["WaferSize", 300])
d = wb.create_sheet("PyLot")
d.append([None, "Wafer", "Test", "Diex", "Diey", "CD", "Height"])
for w in ("A01", "A02"):
    for dx in (-1, 0, 1):
        for t in (1, 2):
            d.append([None, w, t, dx, 0, 0.05 + 0.01 * dx + 0.001 * t, 0.2 if w == "A01" else None])
wb.save(sys.argv[1])
)PY";
}  // namespace

TEST(DataWorkbookOpenpyxl, WorkbookWrittenByOpenpyxlLoadsIntoALot) {
    if (std::system("/usr/bin/python3 -c 'import openpyxl' 2>/dev/null") != 0) GTEST_SKIP() << "no openpyxl";
    fs::path dir = fs::path(ZORV_TEST_TMP) / "datawb_openpyxl_writer";
    fs::remove_all(dir);
    fs::create_directories(dir);
    fs::path script = dir / "write.py";
    std::ofstream(script) << kWriter;
    std::string path = (dir / "PyLot.xlsx").string();
    ASSERT_EQ(std::system(("/usr/bin/python3 " + script.string() + " " + path).c_str()), 0);
    StreamReporter quiet(stderr);
    SetReporter(&quiet);
    Workbooks::CloseAll();
    std::shared_ptr<cLot> lot;
    Status rc = GetExcelWBLot(path, {}, lot);
    Workbooks::CloseAll();
    SetReporter(nullptr);
    ASSERT_TRUE(rc.ok()) << rc.failure().message();
    EXPECT_EQ(lot->DataSource(), 2);
    EXPECT_TRUE(lot->LineWidthType);
    EXPECT_EQ(lot->DateMeasured, "2025-03-14");
    EXPECT_EQ(lot->TimeMeasured, "09:26:53");
    EXPECT_FLOAT_EQ(lot->WaferSize, 300000);
    EXPECT_EQ(lot->ValueV_Name, "CD");
    EXPECT_EQ(lot->ValueV_Units, 2);
    ASSERT_EQ(lot->Wafers().Count(), 2);
    EXPECT_EQ(lot->Wafers().At(1)->KeyName, "A01");
    cWafer* w = lot->Wafers().At(2);
    ASSERT_EQ(w->Fields().Count(), 3);
    cField* f = w->Fields().At(3);
    EXPECT_FLOAT_EQ(f->DieX, 1);
    ASSERT_EQ(f->sites().Count(), 2);
    cSite* s = f->sites().Item(2);
    EXPECT_FLOAT_EQ(s->LocationX, 1500);
    EXPECT_FLOAT_EQ(s->LocationY, -2500);
    EXPECT_EQ(s->FamilyName(), "Iso");
    cPoint* p = s->Points().Item(1);
    ASSERT_TRUE(p);
    EXPECT_NEAR(p->ValueV, (0.05 + 0.01 + 0.002) * 1000, 1e-3);
    EXPECT_EQ(p->ValueH, -999.9f);  // the blank Height of wafer A02
}
