// Format detection: tiny files made of each format's own words, the samples,
// spreadsheets, and the answers when nothing or two formats fit.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/text.h"
#include "import/import.h"
#include "import_test_util.h"
#include "workbook/store.h"

namespace zorv {
namespace {

using namespace testing;
namespace fs = std::filesystem;

class Detect : public ::testing::Test {
protected:
    void SetUp() override {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        dir = FreshDir(std::string("detect_") + info->name());
    }
    Detection detect(const std::string& name, const std::string& bytes) {
        WriteBytes(dir / name, bytes);
        return DetectFormat((dir / name).string());
    }
    fs::path dir;
};

struct Tiny {
    const char* description;
    const char* text;
};

// A few lines of each format, written from the words its reader looks for.
const Tiny kTiny[] = {
    {"Accent Optical CDS", "TOOL: CDS-1  OPER: jd\nDIEX DIEY SITE XPOSITION YPOSITION FEATURE LINE/SPACE THK SWA %RMSE\n"},
    {"Accent Overlay", "AUTORUN 3\nFIDUCIAL 1 2\nMISREGISTRATION DATA\nXtis Ytis Pass/Fail\n"},
    {"AMAT NanoSEM 3D", "DETAILED REPORT\nRECIPE: R1  LOT: L1\n+------+------+\nEDGES 2 SUCCESS\n"},
    {"ASML Registration", "SCAN_EXPO 1\nMARK_OFFSET 0.1 0.2\nREDBLUE ON\nANNULAR 0.5\n"},
    {"CDE ResMap Probe", "TEMPLATEFILE=a.tpl\nNumProbePoints=49\nFLATORNOTCH=NOTCH\nDATA_UNITS=ohm/sq\n"},
    {"Hitachi_CDSEM (multi-point)", "<IDW_INFO>\nMP_NAME,TOTAL_OF_MP_NAME\nMAP_ORIGIN 0 0\nSLOT_NO 3\n"},
    {"Hitachi LAXXX Overlay", "No\tXreg\tYreg\n1\t0.01\t0.02\n"},
    {"KLA Archer overlay", "Lot Start Time: 10:00\nWafer Column(X)  Wafer Row(Y)  Field_XPos  MREG X(nm)  Flyer Flag\n"},
    {"KLA ZspinFocus", "Zspin\nLot Start Time: 10:00\nWafer Column(X)  Wafer Row(Y)  TestNumber  Flyer Flag\n"},
    {"KLA ASET F5 Ellipsometer", "MACHINE: F5\nRCP CNT 1\nMEAS SET 2\nSITE #  MATERIAL  STD DEV\n"},
    {"KLA 5xxx", "PROGRAM: OVL1\nSTATISTICS: all\nMISR_X MISR_Y ELM_X\nWAFER PASS\n"},
    {"KLA 8xxx CD-SEM",
     "KLA-Tencor 8250 CD SEM  Measurement Report\n"
     "PROCESS_DEVICE  BEAM_FILE  LAYER  JOB  LOT  NUM_ROWS\nDEV7 BF_500V POLY FEMJOB LT0001 9\n\n"
     "WAFER_ID  SLOT  COLUMN  ROW  SITE  X_SITE_LOC  Y_SITE_LOC  FEATURE  MEAS_1  IMAGE_PATH\n"},
    {"KLA ProData Files", "TYPEOFDATA=CD\nFORMATOFDATA=1\nPARAMETER CD\n"},
    {"NanoMetrics OCD", "TITLE: OCD run\nLOTID L1\nDIEROW DIECOL POINT# X(MM)\n"},
    {"NanoMetrics OCD(strReticle)", "TITLE: OCD run\nLOTID L1\nPOINT# X(MM) OFFW\nSTAT mean\nNOTE none\n"},
    {"Nikon NRM Series OL (*.msr, *.XLS)", "L1: NRM\nL2: lot\nF1: 1\nF2: 2\nM1: a\nW1: 1\nW2: 2\n"},
    {"Nova Track 2020-3030 OL (*.*)", "TOOL_ID: N1\nWAFER_DIA 300\nFIELD_X_COORD SITE_X_COORD X_OVERLAY Y_OVERLAY\n"},
    {"OnWafer Thermal Map (*.*)", "[WAFER DATA]\nVENDOR=OnWafer\nRESOLUTION=0.1\n#DATA\n"},
    {"Yield data summary (*.*)", "LOT_ID SLOT_ID DIE_X STRUCT_X TARGET_NAME DUMMY_FILL\n"},
    {"SensArray Thermal Map(*.xls,*.*)", "*DATA*\nSENSORS 65\nSENSOR TYPE RTD\nWAFER S/N 123\n"},
    {"Soluris IVS Overlay family(IVS135 etc.)", "SYSTEM IVS135\nPIVOT_X 0\nEXPOSURE_AXIS_X 1\nSITE_LOCATION 3\n"},
    {"Soluris Yosemite CD-SEM family", "DIE_X_ARRAY 5\nSTEPSIZE_X 26\nTEMPLATE_NAME T1\nOUTPUT_NAME O\n"},
    {"Therma-Wave RTCD (*.csv)",
     "FILE: a.csv\nMEASUREMENT POINT NUMBER,HORIZONTAL,HORIXONTAL,VERTICAL,GOF\n1,2,3,4,0.9\n2,2,3,4,0.9\n"},
    {"Timbre Tech. ODP (*.odp;*.csv)", "MDLN=ODP\nSOFTREV=2\nRECIPENAME=R\nCARRIERID=C\n"},
    {kDelimitedDescription, "Wafer,Site,X,Y,CD\n1,1,0,0,90.1\n1,2,5,5,90.3\n"},
};

// Every format row but the spreadsheet one has a tiny file that finds it,
// and each reader's rows are all reachable.
TEST_F(Detect, EachFormatFromItsOwnWords) {
    std::vector<std::string> found;
    for (const Tiny& t : kTiny) {
        SCOPED_TRACE(t.description);
        const Detection d = detect("tiny.txt", t.text);
        EXPECT_EQ(d.description, t.description) << d.why;
        EXPECT_EQ(d.why.rfind(std::string(t.description) + ": ", 0), 0u) << d.why;
        found.push_back(d.description);
    }
    const Datam& table = FormatTable();
    for (int r = 1; r <= table.rowUb(); ++r) {
        const std::string desc(table(r, 0).str());
        // The spreadsheet row is told by its sheets, the second rows of a
        // shared reader give way to the first.
        if (desc == "Focus/Dose(FEM) spreadsheets" || desc == "BioRad Questar Overlay" ||
            desc == "AMAT NanoSEM 3D(Family)" || desc == "Hitachi_CDSEM (statistical)")
            continue;
        EXPECT_NE(std::find(found.begin(), found.end(), desc), found.end()) << desc;
    }
}

// The words that decided, strongest first.
TEST_F(Detect, WhyNamesTheWords) {
    const Detection d = detect("kla.txt", kTiny[11].text);
    EXPECT_EQ(d.description, "KLA 8xxx CD-SEM");
    EXPECT_EQ(d.why.rfind("KLA 8xxx CD-SEM: BEAM_FILE, X_SITE_LOC, Y_SITE_LOC, IMAGE_PATH, ", 0), 0u) << d.why;
    // The same answer every time.
    EXPECT_EQ(detect("kla.txt", kTiny[11].text).why, d.why);
}

// Words count only where they stand alone: inside longer names they say nothing.
TEST_F(Detect, WordsMatchAtWordBoundaries) {
    const Detection d = detect("inside.txt", "MAX_SITE_LOCX ABEAM_FILES XSCAN_EXPO\nPROGRAM_STATISTICS:X\n");
    EXPECT_FALSE(d.ok()) << d.why;
    EXPECT_EQ(d.why.rfind("No known format for this file", 0), 0u) << d.why;
}

TEST_F(Detect, NothingOrTwoFormatsGiveNoAnswer) {
    Detection d = detect("prose.txt", "Dear colleague,\nplease find the numbers attached.\n");
    EXPECT_FALSE(d.ok());
    EXPECT_EQ(d.why, "No known format for this file: no reader's words were found.");

    // Two strong words each of the Archer and the 5xxx reports.
    d = detect("both.txt", "MISR_X 1\nELM_X 2\nFLYER FLAG 0\nTESTNUMBER 3\n");
    EXPECT_FALSE(d.ok());
    EXPECT_EQ(d.why, "Not clear which format: KLA Archer overlay (8.0) or KLA 5xxx (8.0).");

    d = detect("binary.bin", std::string("\x01\x02\x00\x03 BEAM_FILE X_SITE_LOC", 24));
    EXPECT_FALSE(d.ok());
    EXPECT_EQ(d.why, "No known format for this file: it is not text.");

    d = DetectFormat((dir / "missing.txt").string());
    EXPECT_FALSE(d.ok());
    EXPECT_EQ(d.why, "Cannot open file: " + (dir / "missing.txt").string());
}

// A tool's CSV holds a table too: its own words outweigh the table's shape.
TEST_F(Detect, ToolWordsOutweighATableShape) {
    std::string s = "MDLN,SOFTREV,RECIPENAME,CARRIERID,SLOTNUMBER,GLOBAL_X,CD\n";
    for (int i = 0; i < 10; ++i) s += "ODP,2,R,C,3," + std::to_string(i) + ",90.5\n";
    EXPECT_EQ(detect("odp.csv", s).description, "Timbre Tech. ODP (*.odp;*.csv)");
}

TEST_F(Detect, Samples) {
    for (const char* name : {"delimited_cd.csv", "delimited_overlay.tsv", "delimited_euro.txt"}) {
        const Detection d = DetectFormat(SamplePath(name).string());
        EXPECT_EQ(d.description, kDelimitedDescription) << name << ": " << d.why;
    }
    for (const char* name : {"kla_cdsem_fem.txt", "kla_cdsem_mac.txt"}) {
        const Detection d = DetectFormat(SamplePath(name).string());
        EXPECT_EQ(d.description, "KLA 8xxx CD-SEM") << name << ": " << d.why;
    }
}

// A workbook of "CD_" sheets is a FEM workbook; another is read from its
// first sheet's rows, as its text copy would be.
TEST_F(Detect, Spreadsheets) {
    const std::string fem = (dir / "fem.xlsx").string();
    {
        WorkbookPtr wb = Workbook::create(fem, "CD_1");
        wb->addSheet("CD_2");
        wb->sheet(1)->setCell(1, 1, Value("Wafer"));
        ASSERT_TRUE(wb->save().ok());
    }
    Detection d = DetectFormat(fem);
    EXPECT_EQ(d.description, "Focus/Dose(FEM) spreadsheets") << d.why;
    EXPECT_EQ(d.why, "Focus/Dose(FEM) spreadsheets: sheets CD_1, CD_2");

    const std::string lax = (dir / "lax.xlsx").string();
    {
        WorkbookPtr wb = Workbook::create(lax, "Data");
        Worksheet* ws = wb->sheet(1);
        ws->setCell(1, 1, Value("No"));
        ws->setCell(1, 2, Value("Xreg"));
        ws->setCell(1, 3, Value("Yreg"));
        ws->setCell(2, 1, Value(1.0));
        ws->setCell(2, 2, Value(0.01));
        ws->setCell(2, 3, Value(-0.02));
        ASSERT_TRUE(wb->save().ok());
    }
    d = DetectFormat(lax);
    EXPECT_EQ(d.description, "Hitachi LAXXX Overlay") << d.why;

    // Not a workbook at all, though named one.
    d = detect("fake.xlsx", "Wafer,Site,CD\n1,1,2\n");
    EXPECT_FALSE(d.ok());
    EXPECT_EQ(d.why.rfind("Cannot read the workbook: ", 0), 0u) << d.why;
}

}  // namespace
}  // namespace zorv
