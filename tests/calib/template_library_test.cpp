// The template library: objects, the ZORVpsfm.tpl file (versions 1 to 3),
// FileSave / FileGet, the sample template and malformed files.
#include "calib/template_library.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "app/settings.h"
#include "base/format.h"
#include "base/identity.h"
#include "base/regional.h"
#include "base/report.h"
#include "lot/lot.h"

namespace zorv {
namespace {

namespace fs = std::filesystem;

// Answers questions with a set answer and records what was shown.
class TestReporter : public Reporter {
public:
    int answer = vbNo;
    int boxes = 0;
    std::string lastMessage, lastTitle, lastStatus;
    std::vector<std::string> statuses;
    int lastFlags = 0;
    int showBox(const std::string& m, int flags, const std::string& title) override {
        ++boxes;
        lastMessage = m;
        lastFlags = flags;
        lastTitle = title;
        return answer;
    }
    void status(const std::string& text) override {
        lastStatus = text;
        statuses.push_back(text);
    }
    std::string currentStatus() const override { return lastStatus; }
};

// ASCII lines as UTF-16 LE with a mark and CR LF, written out by hand.
std::string Utf16(const std::vector<std::string>& lines, bool bom = true) {
    std::string b;
    if (bom) b += "\xFF\xFE";
    for (const std::string& l : lines) {
        for (char c : l) {
            b += c;
            b += '\0';
        }
        b += std::string("\r\0\n\0", 4);
    }
    return b;
}

std::string ReadBytes(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void WriteBytes(const fs::path& p, const std::string& b) {
    fs::create_directories(p.parent_path());
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out.write(b.data(), static_cast<std::streamsize>(b.size()));
}

class TemplateLib : public ::testing::Test {
protected:
    void SetUp() override {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        dir = fs::path(ZORV_TEST_TMP) / "tpllib" / (std::string(info->test_suite_name()) + "_" + info->name());
        fs::remove_all(dir);
        fs::create_directories(dir);
        settings = (dir / "settings.ini").string();
        setenv("ZORV_SETTINGS_FILE", settings.c_str(), 1);
        SetReporter(&rep);
    }
    void TearDown() override {
        SetReporter(nullptr);
        unsetenv("ZORV_SETTINGS_FILE");
    }
    std::string folder() const { return (dir / "Templates").string(); }
    fs::path tpl() const { return dir / "Templates" / "ZORVpsfm.tpl"; }

    fs::path dir;
    std::string settings;
    TestReporter rep;
};

std::shared_ptr<cTemplate> MakeTemplate(const std::string& name) {
    auto t = std::make_shared<cTemplate>();
    t->NameTemplate = name;
    t->DataSetName = "LotA";
    t->ReticleName = "R1";
    t->DateCreated = DateSerial(2020, 3, 4, 5, 6, 7);
    t->DateModified = DateSerial(2021, 8, 9, 10, 11, 12);
    auto s = std::make_unique<cSiteCal>();
    s->NumberKey = "7_20_0.8_0.5_0.9";
    s->Dose = 20;
    s->NA = 0.8f;
    s->PCinner = 0.5f;
    s->PCouter = 0.9f;
    s->LocationX = -1250.5f;
    s->LocationY = 3000;
    s->OffsetX = 0.02809f;
    s->OffsetXse = 1.234567e-7f;
    s->OffsetY = -0.06f;
    s->OffsetYse = 0.00247f;
    s->SlopeX = -6.91f;
    s->SlopeXse = 0.00742f;
    s->SlopeY = 7.35f;
    s->SlopeYse = 3.4028e38f;
    s->X2nd = 1.0f / 3.0f;
    s->X2ndSE = 2;
    s->Y2nd = -0.125f;
    s->Y2ndSE = 3;
    s->X3rd = 4;
    s->X3rdSE = 5;
    s->Y3rd = 6;
    s->Y3rdSE = 7;
    s->X4th = 8.5f;
    s->X4thSE = 9;
    s->Y4th = 10;
    s->Y4thSE = 11e-9f;
    t->AddSite(std::move(s));
    auto s2 = std::make_unique<cSiteCal>();
    s2->NumberKey = "12_20_0.8_0.5_0.9";
    s2->Dose = 20;
    s2->NA = 0.8f;
    s2->PCinner = 0.5f;
    s2->PCouter = 0.9f;
    s2->LocationX = 11000;
    s2->LocationY = -4000;
    s2->SlopeX = 1e-3f;
    t->AddSite(std::move(s2));
    auto b = std::make_unique<cBestFocus>();
    b->Dose = 20;
    b->NA = 0.8f;
    b->PCinner = 0.5f;
    b->PCouter = 0.9f;
    cCalRow r;
    r.KeyName = "R1";
    r.Location = -5.5f;
    r.Piston = 0.1f;
    r.PistonSE = 0.01f;
    r.Tilt = 2;
    r.TiltSE = 0.2f;
    r.Curvature = -0.3f;
    r.CurvatureSE = 0.03f;
    r.IFDresidulaseSE = 0.004f;
    b->UpdateRowData(r);
    cCalColumn c;
    c.KeyName = "C1";
    c.Location = 7.25f;
    c.Piston = -0.2f;
    c.IFDresidulaseSE = 1e-5f;
    b->UpdateColData(c);
    t->AddBestFocus(std::move(b), "k");
    return t;
}

void ExpectSameSite(const cSiteCal& a, const cSiteCal& b) {
    EXPECT_EQ(a.Number, b.Number);
    EXPECT_EQ(a.NumberKey, b.NumberKey);
    const float va[] = {a.Dose, a.NA, a.PCinner, a.PCouter, a.LocationX, a.LocationY, a.OffsetX, a.OffsetXse,
                        a.OffsetY, a.OffsetYse, a.SlopeX, a.SlopeXse, a.SlopeY, a.SlopeYse, a.X2nd, a.X2ndSE,
                        a.Y2nd, a.Y2ndSE, a.X3rd, a.X3rdSE, a.Y3rd, a.Y3rdSE, a.X4th, a.X4thSE, a.Y4th, a.Y4thSE};
    const float vb[] = {b.Dose, b.NA, b.PCinner, b.PCouter, b.LocationX, b.LocationY, b.OffsetX, b.OffsetXse,
                        b.OffsetY, b.OffsetYse, b.SlopeX, b.SlopeXse, b.SlopeY, b.SlopeYse, b.X2nd, b.X2ndSE,
                        b.Y2nd, b.Y2ndSE, b.X3rd, b.X3rdSE, b.Y3rd, b.Y3rdSE, b.X4th, b.X4thSE, b.Y4th, b.Y4thSE};
    for (size_t i = 0; i < std::size(va); ++i) EXPECT_EQ(va[i], vb[i]) << "field " << i;
}

void ExpectSameLine(const cCalLine& a, const cCalLine& b) {
    EXPECT_EQ(a.KeyName, b.KeyName);
    EXPECT_EQ(a.Location, b.Location);
    EXPECT_EQ(a.Piston, b.Piston);
    EXPECT_EQ(a.PistonSE, b.PistonSE);
    EXPECT_EQ(a.Tilt, b.Tilt);
    EXPECT_EQ(a.TiltSE, b.TiltSE);
    EXPECT_EQ(a.Curvature, b.Curvature);
    EXPECT_EQ(a.CurvatureSE, b.CurvatureSE);
    EXPECT_EQ(a.IFDresidulaseSE, b.IFDresidulaseSE);
}

// The sample's lines as listed, the two date lines aside.
const std::vector<std::string> kSampleHead = {"Version: 3", "TemplatesTotal: 1", "PSFMsample", "CommentLines: 1", "",
                                              "PSFMsample", "7/1/2007"};
std::vector<std::string> SampleTail() {
    std::vector<std::string> t = {"",       "0",       "SitesTotal: 1", "BestFocusSets: 0", "19",
                                  "0.75",   "0",       "0",             "5",                "0",
                                  "39_19_0.75_0_0", "2.809E-02", "2.57E-03", "6.0E-02", "2.47E-03",
                                  "-6.91",  "7.42E-03", "7.35",         "7.14E-03"};
    for (int i = 0; i < 12; ++i) t.push_back("0");
    return t;
}

// ---- the sample ----

TEST_F(TemplateLib, SampleTemplateIsTheListedFiftyFiveLinesByteForByte) {
    ASSERT_TRUE(CreateTemplateBase(folder()).ok());
    const std::string bytes = ReadBytes(tpl());
    const std::string head = Utf16(kSampleHead);
    const std::string tail = Utf16(SampleTail(), false);
    // The listed lines: 12 of the header (two of them dates) and 27 of the site.
    EXPECT_EQ(kSampleHead.size() + 1 + SampleTail().size(), 39u);
    EXPECT_EQ(DecodeTemplateFile(bytes).size(), 39u);
    ASSERT_GT(bytes.size(), head.size() + tail.size());
    EXPECT_EQ(bytes.substr(0, head.size()), head);
    EXPECT_EQ(bytes.substr(bytes.size() - tail.size()), tail);
    // What is between is today's date and CR LF.
    const std::string mid = bytes.substr(head.size(), bytes.size() - head.size() - tail.size());
    ASSERT_GE(mid.size(), 4u);
    EXPECT_EQ(mid.substr(mid.size() - 4), std::string("\r\0\n\0", 4));
    std::string date;
    for (size_t i = 0; i + 4 < mid.size(); i += 2) date += mid[i];
    double serial = 0;
    ASSERT_TRUE(ParseDateText(date, serial)) << date;
    EXPECT_NEAR(serial, std::floor(TemplateNow()), 1.0);

    // An existing file is replaced, not appended to.
    ASSERT_TRUE(CreateTemplateBase(folder()).ok());
    EXPECT_EQ(ReadBytes(tpl()).size(), bytes.size());
}

TEST_F(TemplateLib, SampleReadsAsSite39WithTheFirstOrderPolynomials) {
    ASSERT_TRUE(CreateTemplateBase(folder()).ok());
    cTemplateLibrary lib(folder());
    ASSERT_TRUE(lib.FileGet().ok());
    ASSERT_EQ(lib.Count(), 1);
    auto t = lib.GetTemplate("psfmSAMPLE");
    ASSERT_TRUE(t);
    EXPECT_EQ(t->NameTemplate, "psfmSAMPLE");
    EXPECT_EQ(t->Comment, "");
    EXPECT_EQ(t->DataSetName, "PSFMsample");
    EXPECT_DOUBLE_EQ(t->DateCreated, DateSerial(2007, 7, 1));
    EXPECT_EQ(t->Version, 3.0f);
    EXPECT_EQ(t->TemplateType, 0);
    EXPECT_EQ(t->parent, &lib);
    ASSERT_EQ(t->sites.Count(), 1);
    const cSiteCal* s = t->sites.Item("39_19_0.75_0_0");
    ASSERT_TRUE(s);
    EXPECT_EQ(s->Number, 39);
    EXPECT_EQ(s->Dose, 19.0f);
    EXPECT_EQ(s->NA, 0.75f);
    EXPECT_EQ(s->LocationX, 5.0f);
    EXPECT_EQ(s->OffsetX, 0.02809f);
    EXPECT_EQ(s->OffsetY, 0.06f);
    EXPECT_EQ(s->SlopeX, -6.91f);
    EXPECT_EQ(s->SlopeY, 7.35f);
    EXPECT_EQ(s->SlopeYse, 0.00714f);
    EXPECT_EQ(s->X2nd, 0.0f);
    EXPECT_EQ(t->BestFocusSets.Count(), 0);
}

// ---- older versions, written by hand ----

TEST_F(TemplateLib, VersionOneAndTwoFilesReadWithoutTheirMissingLines) {
    // Version 1: no "Version" line, no dose lines, no higher orders.
    std::vector<std::string> v1 = {"TemplatesTotal: 1", "Old", "CommentLines: 2", "first", "second", "DS1",
                                   "1/2/2003", "2/3/2004", "Ret", "0", "SitesTotal: 1", "BestFocusSets: 1",
                                   // site: NA, PCinner, PCouter, X, Y, key, 8 numbers
                                   "0.6", "0.3", "0.7", "100", "-200", "5_0_0.6_0.3_0.7", "0.1", "0.01", "0.2",
                                   "0.02", "-3", "0.03", "4", "0.04",
                                   // best focus: key, NA, PCinner, PCouter, rows, columns
                                   "0_0.6_0.3_0.7", "0.6", "0.3", "0.7", "Rows: 1", "Columns: 0", "r1", "1.5", "0.25",
                                   "0.05", "3", "0.3", "-1", "0.1", "0.02"};
    WriteBytes(tpl(), Utf16(v1));
    cTemplateLibrary lib(folder());
    ASSERT_TRUE(lib.FileGet().ok());
    ASSERT_EQ(lib.Count(), 1);
    auto t = lib.GetTemplate("Old");
    ASSERT_TRUE(t);
    EXPECT_EQ(t->Version, 1.0f);
    EXPECT_EQ(t->Comment, "first\r\nsecond");
    EXPECT_DOUBLE_EQ(t->DateModified, DateSerial(2004, 2, 3));
    EXPECT_EQ(t->ReticleName, "Ret");
    const cSiteCal* s = t->sites.Item(1);
    EXPECT_EQ(s->Dose, 0.0f);
    EXPECT_EQ(s->NA, 0.6f);
    EXPECT_EQ(s->LocationY, -200.0f);
    EXPECT_EQ(s->Number, 5);
    EXPECT_EQ(s->SlopeYse, 0.04f);
    EXPECT_EQ(s->X2nd, 0.0f);
    EXPECT_EQ(s->Y4thSE, 0.0f);
    ASSERT_EQ(t->BestFocusSets.Count(), 1);
    const cBestFocus* b = t->BestFocusSets.Item(1);
    EXPECT_EQ(b->Dose, 0.0f);
    EXPECT_EQ(b->PCouter, 0.7f);
    EXPECT_EQ(b->KeyName, "0_0.6_0.3_0.7");
    ASSERT_EQ(b->CalRows.Count(), 1);
    EXPECT_EQ(b->CalRows.Item(1)->Location, 1.5f);
    EXPECT_EQ(b->CalRows.Item(1)->IFDresidulaseSE, 0.02f);

    // Version 2: dose lines, no higher orders.
    std::vector<std::string> v2 = {"Version: 2", "TemplatesTotal: 1", "Mid", "CommentLines: 1", "", "DS2",
                                   "2010-05-06 07:08:09", "2010-05-07", "", "1", "SitesTotal: 2", "BestFocusSets: 1"};
    for (int k = 0; k < 2; ++k) {
        const std::vector<std::string> site = {k ? "22" : "21", "0.8", "0", "0", k ? "10" : "0", "0",
                                               k ? "2_22_0.8_0_0" : "1_21_0.8_0_0", "0.5", "0.05", "-0.5", "0.05",
                                               "1.5", "0.1", "-1.5", "0.1"};
        v2.insert(v2.end(), site.begin(), site.end());
    }
    const std::vector<std::string> bf = {"21_0.8_0_0", "21", "0.8", "0", "0", "Rows: 0", "Columns: 1",
                                         "c1", "-2", "1", "0.1", "2", "0.2", "3", "0.3", "0.4"};
    v2.insert(v2.end(), bf.begin(), bf.end());
    WriteBytes(tpl(), Utf16(v2));
    ASSERT_TRUE(lib.FileGet().ok());
    ASSERT_EQ(lib.Count(), 1);  // the version 1 template went with the re-read
    t = lib.GetTemplate("MID");
    ASSERT_TRUE(t);
    EXPECT_EQ(t->Version, 2.0f);
    EXPECT_EQ(t->TemplateType, 1);
    EXPECT_DOUBLE_EQ(t->DateCreated, DateSerial(2010, 5, 6, 7, 8, 9));
    ASSERT_EQ(t->sites.Count(), 2);
    EXPECT_EQ(t->sites.Item(1)->Dose, 21.0f);
    EXPECT_EQ(t->sites.Item(2)->Dose, 22.0f);
    EXPECT_EQ(t->sites.Item(2)->Number, 2);
    EXPECT_EQ(t->sites.Item(2)->SlopeY, -1.5f);
    EXPECT_EQ(t->sites.Item(2)->X2nd, 0.0f);
    ASSERT_EQ(t->BestFocusSets.Count(), 1);
    EXPECT_EQ(t->BestFocusSets.Item(1)->Dose, 21.0f);
    ASSERT_EQ(t->BestFocusSets.Item(1)->CalColumns.Count(), 1);
    EXPECT_EQ(t->BestFocusSets.Item(1)->CalColumns.Item(1)->CurvatureSE, 0.3f);
}

TEST_F(TemplateLib, RowsEqualToTwoDecimalsEndAsOneRowTheLaterWinning) {
    cBestFocus b;
    cCalRow r1;
    r1.KeyName = "a";
    r1.Location = 12.001f;
    r1.Piston = 1;
    cCalRow r2 = r1;
    r2.KeyName = "b";
    r2.Location = 12.004f;
    r2.Piston = 2;
    b.UpdateRowData(r1);
    b.UpdateRowData(r2);
    ASSERT_EQ(b.CalRows.Count(), 1);
    EXPECT_EQ(b.CalRows.Item(1)->Piston, 2.0f);
    EXPECT_EQ(b.CalRows.Item(1)->Location, 12.004f);
    cCalRow r3 = r1;
    r3.KeyName = "c";
    r3.Location = 12.01f;
    b.UpdateRowData(r3);
    EXPECT_EQ(b.CalRows.Count(), 2);

    // The same through a file.
    std::vector<std::string> f = {"Version: 3", "TemplatesTotal: 1", "T", "CommentLines: 1", "", "", "", "", "", "0",
                                  "SitesTotal: 0", "BestFocusSets: 1", "19_0.75_0_0", "19", "0.75", "0", "0",
                                  "Rows: 2", "Columns: 0", "x", "3.001", "10", "0", "0", "0", "0", "0", "0",
                                  "y", "3.002", "20", "0", "0", "0", "0", "0", "0"};
    WriteBytes(tpl(), Utf16(f));
    cTemplateLibrary lib(folder());
    ASSERT_TRUE(lib.FileGet().ok());
    const cBestFocus* bf = lib.Templates()[0]->BestFocusSets.Item(1);
    ASSERT_EQ(bf->CalRows.Count(), 1);
    EXPECT_EQ(bf->CalRows.Item(1)->Piston, 20.0f);
    EXPECT_EQ(bf->CalRows.Item(1)->KeyName, "y");

    // The tables.
    const Datam d = b.GetRowData();
    EXPECT_EQ(d.rowLb(), 0);
    EXPECT_EQ(d.rowUb(), 2);
    EXPECT_EQ(d.colUb(), 7);
    EXPECT_EQ(d(0, 0).toString(), "Row (mm)");
    EXPECT_EQ(d(0, 7).toString(), "IFDresidualsSE(um)");
    EXPECT_EQ(d(1, 1).toDouble(), 2.0);
    EXPECT_EQ(b.GetColData()(0, 0).toString(), "Column (mm)");
    EXPECT_EQ(b.GetColData().rowUb(), 0);
}

// ---- writing and reading back ----

TEST_F(TemplateLib, WrittenThenReadBackEqualFieldByField) {
    cTemplateLibrary lib(folder());
    auto t = MakeTemplate("RoundTrip");
    t->Comment = "line one\r\nline two\r\nline three";
    lib.AddTemplate(t);
    auto u = MakeTemplate("Second");
    u->Comment = "";
    lib.AddTemplate(u);
    ASSERT_TRUE(lib.FileSave().ok());

    const std::vector<std::string> lines = lib.FileLines();
    EXPECT_EQ(lines[0], "Version: 3");
    EXPECT_EQ(lines[1], "TemplatesTotal: 2");
    EXPECT_EQ(lines[3], "CommentLines: 3");
    EXPECT_EQ(lines[4], "line one");
    EXPECT_EQ(lines[6], "line three");
    EXPECT_EQ(DecodeTemplateFile(ReadBytes(tpl())), lines);
    // UTF-16 LE with a mark, CR LF ends.
    const std::string bytes = ReadBytes(tpl());
    EXPECT_EQ(bytes.substr(0, 6), std::string("\xFF\xFEV\0e\0", 6));
    EXPECT_EQ(bytes.substr(bytes.size() - 4), std::string("\r\0\n\0", 4));

    cTemplateLibrary back(folder());
    ASSERT_TRUE(back.FileGet().ok());
    ASSERT_EQ(back.Count(), 2);
    for (int k = 0; k < 2; ++k) {
        const cTemplate& a = *lib.Templates()[k];
        const cTemplate& b = *back.Templates()[k];
        EXPECT_EQ(a.NameTemplate, b.NameTemplate);
        EXPECT_EQ(a.Comment, b.Comment);
        EXPECT_EQ(a.DataSetName, b.DataSetName);
        EXPECT_NEAR(a.DateCreated, b.DateCreated, 1e-6);
        EXPECT_NEAR(a.DateModified, b.DateModified, 1e-6);
        EXPECT_EQ(a.ReticleName, b.ReticleName);
        EXPECT_EQ(a.TemplateType, b.TemplateType);
        ASSERT_EQ(a.sites.Count(), b.sites.Count());
        for (int i = 1; i <= a.sites.Count(); ++i) ExpectSameSite(*a.sites.Item(i), *b.sites.Item(i));
        ASSERT_EQ(a.BestFocusSets.Count(), b.BestFocusSets.Count());
        const cBestFocus& fa = *a.BestFocusSets.Item(1);
        const cBestFocus& fb = *b.BestFocusSets.Item(1);
        EXPECT_EQ(fa.KeyName, fb.KeyName);
        EXPECT_EQ(fa.KeyName, "20_0.8_0.5_0.9");
        EXPECT_EQ(fa.NA, fb.NA);
        EXPECT_EQ(fa.Dose, fb.Dose);
        ASSERT_EQ(fb.CalRows.Count(), 1);
        ASSERT_EQ(fb.CalColumns.Count(), 1);
        ExpectSameLine(*fa.CalRows.Item(1), *fb.CalRows.Item(1));
        ExpectSameLine(*fa.CalColumns.Item(1), *fb.CalColumns.Item(1));
    }
    // An empty comment is one empty line.
    const auto second = std::find(lines.begin(), lines.end(), "Second");
    ASSERT_NE(second, lines.end());
    EXPECT_EQ(*(second + 1), "CommentLines: 1");
    EXPECT_EQ(*(second + 2), "");

    // The settings section: name:DateModified:comment per template.
    EXPECT_EQ(GetSetting(ApplicationTitle(), "Templates", "2"),
              "Second:" + TemplateDateText(u->DateModified) + ":");
    EXPECT_EQ(GetSetting(ApplicationTitle(), "Templates", "1"),
              "RoundTrip:" + TemplateDateText(t->DateModified) + ":line one\r\nline two\r\nline three");
}

TEST_F(TemplateLib, OrdersFiveAndSixAreLostOnReload) {
    cTemplateLibrary lib(folder());
    auto t = MakeTemplate("Hi");
    cSiteCal* s = t->sites.Item(1);
    s->X5th = 1.5f;
    s->X5thSE = 0.1f;
    s->Y5th = 2.5f;
    s->Y6th = -3.5f;
    s->X6thSE = 0.2f;
    lib.AddTemplate(t);
    ASSERT_TRUE(lib.FileSave().ok());
    cTemplateLibrary back(folder());
    ASSERT_TRUE(back.FileGet().ok());
    const cSiteCal* r = back.Templates()[0]->sites.Item(1);
    EXPECT_EQ(r->X5th, 0.0f);
    EXPECT_EQ(r->X5thSE, 0.0f);
    EXPECT_EQ(r->Y5th, 0.0f);
    EXPECT_EQ(r->Y6th, 0.0f);
    EXPECT_EQ(r->X6thSE, 0.0f);
    EXPECT_EQ(r->X4th, 8.5f);
    EXPECT_EQ(r->Y4thSE, 11e-9f);
    EXPECT_EQ(r->X2nd, 1.0f / 3.0f);
}

TEST_F(TemplateLib, TwoSavesKeepThePreviousFileAsStp) {
    cTemplateLibrary lib(folder());
    EXPECT_TRUE(lib.FileGet().ok());  // no folder: an empty library, no message
    EXPECT_EQ(lib.Count(), 0);
    EXPECT_EQ(rep.boxes, 0);
    lib.AddTemplate(MakeTemplate("One"));
    ASSERT_TRUE(lib.FileSave().ok());
    EXPECT_FALSE(fs::exists(dir / "Templates" / "ZORVpsfm.stp"));
    const std::string first = ReadBytes(tpl());
    lib.AddTemplate(MakeTemplate("Two"));
    ASSERT_TRUE(lib.FileSave().ok());
    EXPECT_EQ(ReadBytes(dir / "Templates" / "ZORVpsfm.stp"), first);
    const std::vector<std::string> now = DecodeTemplateFile(ReadBytes(tpl()));
    EXPECT_EQ(now[1], "TemplatesTotal: 2");
    const std::string second = ReadBytes(tpl());
    ASSERT_TRUE(lib.FileSave().ok());
    EXPECT_EQ(ReadBytes(dir / "Templates" / "ZORVpsfm.stp"), second);
}

// ---- malformed files ----

TEST_F(TemplateLib, MalformedFilesLoadAsFarAsTheyReadWithTheirMessage) {
    cTemplateLibrary lib(folder());
    lib.AddTemplate(MakeTemplate("A"));
    lib.AddTemplate(MakeTemplate("B"));
    const std::vector<std::string> good = lib.FileLines();

    // Truncated inside the second template: the first stays.
    std::vector<std::string> cut(good.begin(), good.end() - 10);
    WriteBytes(tpl(), Utf16(cut));
    cTemplateLibrary a(folder());
    Status st = a.FileGet();
    ASSERT_FALSE(st.ok());
    EXPECT_EQ(st.failure().tag, "cTemplateLibrary(FileGet): ");
    EXPECT_EQ(st.failure().text,
              "Input past end of file\r\nFile: " + tpl().string() + ", line " + std::to_string(cut.size()));
    EXPECT_EQ(st.failure().chk, 3.0f);
    EXPECT_EQ(st.failure().file, tpl().string());
    ASSERT_EQ(a.Count(), 1);
    EXPECT_EQ(a.Templates()[0]->NameTemplate, "A");

    // A bad number inside a site, line number given.
    std::vector<std::string> bad = good;
    bad[16] = "zero point five";
    WriteBytes(tpl(), Utf16(bad));
    st = a.FileGet();
    ASSERT_FALSE(st.ok());
    EXPECT_EQ(st.failure().text, "Type mismatch\r\nFile: " + tpl().string() + ", line 17");
    EXPECT_EQ(st.failure().row, 17);
    EXPECT_EQ(a.Count(), 0);

    // Wrong version text: nothing read, the library as it was.
    cTemplateLibrary held(folder());
    held.AddTemplate(MakeTemplate("Kept"));
    std::vector<std::string> wrong = good;
    wrong[0] = "Version: three";
    WriteBytes(tpl(), Utf16(wrong));
    st = held.FileGet();
    ASSERT_FALSE(st.ok());
    EXPECT_EQ(st.failure().text, "Type mismatch\r\nFile: " + tpl().string() + ", line 1");
    EXPECT_EQ(st.failure().chk, 2.0f);
    ASSERT_EQ(held.Count(), 1);
    EXPECT_EQ(held.Templates()[0]->NameTemplate, "Kept");

    // An empty file and an absurd total.
    WriteBytes(tpl(), "");
    EXPECT_FALSE(held.FileGet().ok());
    WriteBytes(tpl(), Utf16({"Version: 3", "TemplatesTotal: 1e30"}));
    st = held.FileGet();
    ASSERT_FALSE(st.ok());
    EXPECT_EQ(st.failure().text.substr(0, 10), "Overflow\r\n");

    // Garbage bytes of every kind: a value, never a crash.
    std::mt19937 rng(12345);
    for (int round = 0; round < 200; ++round) {
        std::string bytes;
        const int n = static_cast<int>(rng() % 400);
        if (round % 3 == 0) bytes = Utf16(good).substr(0, rng() % (Utf16(good).size() + 1));
        for (int i = 0; i < n; ++i) bytes += static_cast<char>(rng() & 0xFF);
        if (round % 4 == 1 && !bytes.empty()) bytes[rng() % bytes.size()] = '\n';
        WriteBytes(tpl(), bytes);
        cTemplateLibrary g(folder());
        const Status s = g.FileGet();
        if (!s.ok()) {
            EXPECT_FALSE(s.failure().text.empty());
        }
    }
}

// ---- library operations ----

TEST_F(TemplateLib, GetAddUpdateAndTheirCaseRules) {
    cTemplateLibrary lib(folder());
    auto a = MakeTemplate("Alpha");
    lib.AddTemplate(a);
    EXPECT_EQ(a->parent, &lib);
    // Case-sensitive on purpose: "ALPHA" is another name here.
    auto a2 = MakeTemplate("x");
    lib.AddTemplate(a2, "ALPHA");
    EXPECT_EQ(lib.Count(), 2);
    EXPECT_EQ(a2->NameTemplate, "ALPHA");
    auto a3 = MakeTemplate("y");
    lib.AddTemplate(a3, "Alpha");
    EXPECT_EQ(lib.Count(), 2);
    EXPECT_EQ(a3->NameTemplate, "Alpha");  // named although not added
    EXPECT_EQ(a3->parent, nullptr);

    // GetTemplate: case-insensitive, the first match, renamed to the name asked.
    auto g = lib.GetTemplate("alpha");
    EXPECT_EQ(g, a);
    EXPECT_EQ(a->NameTemplate, "alpha");
    EXPECT_EQ(lib.GetTemplate("nope"), nullptr);

    // Update, not held: added with DateCreated now.
    auto n = MakeTemplate("New");
    const double before = TemplateNow();
    lib.Update(n);
    EXPECT_EQ(lib.Count(), 3);
    EXPECT_EQ(n->parent, &lib);
    EXPECT_GE(n->DateCreated, before - 1.0 / 86400);

    // Update, held, another calibration: fields and sites handed over, the
    // stored DateCreated and Version stay, the caller gets the stored object.
    n->Version = 2;
    const double created = n->DateCreated;
    auto other = std::make_shared<cTemplate>();
    other->NameTemplate = "NEW";
    other->Comment = "c";
    other->DataSetName = "ds";
    other->ReticleName = "rr";
    other->TemplateType = 4;
    other->DieSizeX = 12;
    other->DateModified = 5000;
    other->GetSite("3_1_0.5_0_0")->SlopeX = 9;
    auto stored = n;
    ASSERT_NE(other->CalID(), stored->CalID());
    lib.Update(other);
    EXPECT_EQ(other, stored);
    EXPECT_EQ(lib.Count(), 3);
    EXPECT_EQ(stored->NameTemplate, "NEW");
    EXPECT_EQ(stored->Comment, "c");
    EXPECT_EQ(stored->ReticleName, "rr");
    EXPECT_EQ(stored->TemplateType, 4);
    EXPECT_EQ(stored->DieSizeX, 12.0f);
    EXPECT_EQ(stored->DateModified, 5000.0);
    EXPECT_EQ(stored->DateCreated, created);
    EXPECT_EQ(stored->Version, 2.0f);
    ASSERT_EQ(stored->sites.Count(), 1);
    EXPECT_EQ(stored->sites.Item(1)->SlopeX, 9.0f);
    EXPECT_EQ(stored->sites.Item(1)->parent, stored.get());
    EXPECT_EQ(stored->BestFocusSets.Count(), 0);

    // Same calibration (the stored object itself): the sites stay.
    auto same = lib.GetTemplate("new");
    same->Comment = "d";
    lib.Update(same);
    EXPECT_EQ(stored->sites.Count(), 1);
}

TEST_F(TemplateLib, RemoveAsksAndShowsItsStatusText) {
    cTemplateLibrary lib(folder());
    lib.AddTemplate(MakeTemplate("Keep"));
    lib.AddTemplate(MakeTemplate("Gone"));

    EXPECT_EQ(lib.Remove("absent", false), -1);
    EXPECT_EQ(rep.boxes, 0);
    EXPECT_EQ(rep.lastStatus, "Are you sure you wish to remove template: ABSENT");

    rep.answer = vbNo;
    EXPECT_EQ(lib.Remove("gone", false), -1);
    EXPECT_EQ(rep.boxes, 1);
    EXPECT_EQ(rep.lastMessage, "Are you sure you wish to remove template: GONE");
    EXPECT_EQ(rep.lastTitle, "Zorving Calibration Templates");
    EXPECT_EQ(rep.lastFlags & 7, static_cast<int>(vbYesNo));
    EXPECT_EQ(lib.Count(), 2);

    rep.answer = vbYes;
    auto gone = lib.GetTemplate("Gone");
    EXPECT_EQ(lib.Remove("Gone", false), 1);
    EXPECT_EQ(lib.Count(), 1);
    EXPECT_EQ(gone->parent, nullptr);

    EXPECT_EQ(lib.Remove("keep", true), 1);
    EXPECT_EQ(rep.boxes, 2);  // silent asks nothing
    EXPECT_EQ(lib.Count(), 0);
}

TEST_F(TemplateLib, SaveTemplateNamesUpdatesAndSaves) {
    cTemplateLibrary lib(folder());
    auto t = MakeTemplate("");
    t->TemplateType = 3;
    // No name and no lot: nothing saved.
    auto r0 = t->SaveTemplate("", &lib);
    ASSERT_TRUE(r0.ok());
    EXPECT_FALSE(*r0);
    EXPECT_FALSE(fs::exists(tpl()));

    auto r = t->SaveTemplate("", &lib, "LotName7");
    ASSERT_TRUE(r.ok());
    EXPECT_TRUE(*r);
    EXPECT_EQ(t->NameTemplate, "LotName7");
    EXPECT_EQ(t->TemplateType, 0);
    EXPECT_NEAR(t->DateModified, TemplateNow(), 2.0 / 86400);
    ASSERT_EQ(lib.Count(), 1);
    EXPECT_EQ(lib.Templates()[0], t);
    EXPECT_TRUE(fs::exists(tpl()));
    ASSERT_GE(rep.statuses.size(), 3u);
    EXPECT_EQ(rep.statuses[rep.statuses.size() - 3], "Update template interface....");
    EXPECT_EQ(rep.statuses[rep.statuses.size() - 2], "Save Template Library with entry for: LotName7");
    EXPECT_EQ(rep.lastStatus, "");

    // A template the caller holds on the stack is stored as a copy.
    cTemplate onStack;
    onStack.GetSite("4_1_1_0_0")->OffsetX = 2;
    auto r2 = onStack.SaveTemplate("Stack", &lib);
    ASSERT_TRUE(r2.ok());
    auto held = lib.GetTemplate("stack");
    ASSERT_TRUE(held);
    ASSERT_EQ(held->sites.Count(), 1);
    EXPECT_EQ(held->sites.Item(1)->OffsetX, 2.0f);
    EXPECT_EQ(held->CalID(), onStack.CalID());

    // A save that cannot write carries the template's tag.
    WriteBytes(dir / "file", "x");
    cTemplateLibrary broken((dir / "file" / "Templates").string());
    auto t2 = MakeTemplate("Z");
    auto r3 = t2->SaveTemplate("", &broken);
    ASSERT_FALSE(r3.ok());
    EXPECT_EQ(r3.failure().tag, "cTemplate(Save): ");
}

// ---- template operations ----

TEST_F(TemplateLib, SitesAndBestFocusLookups) {
    cTemplate t;
    // GetNumber: digits before the first "_".
    cSiteCal* s = t.GetSite("39_19_0.75_0_0");
    EXPECT_EQ(s->Number, 39);
    EXPECT_EQ(s->parent, &t);
    EXPECT_EQ(t.GetSite("39"), s);  // numeric: by Number
    EXPECT_EQ(t.GetSite("39_19_0.75_0_0"), s);
    cSiteCal* n = t.GetSite("40");  // nothing matches: added under that key
    EXPECT_EQ(t.sites.Count(), 2);
    EXPECT_EQ(n->NumberKey, "40");
    EXPECT_EQ(n->Number, 40);

    // GetBestFocus: "####0.000" text; dose 0 or less matches any dose.
    auto b1 = std::make_unique<cBestFocus>();
    b1->Dose = 20;
    b1->NA = 0.75f;
    auto b2 = std::make_unique<cBestFocus>();
    b2->Dose = 22;
    b2->NA = 0.75f;
    cBestFocus* p1 = t.AddBestFocus(std::move(b1));
    cBestFocus* p2 = t.AddBestFocus(std::move(b2), "second");
    EXPECT_EQ(p1->KeyName, "20_0.75_0_0");
    EXPECT_EQ(p1->parent, &t);
    EXPECT_EQ(t.GetBestFocus(0.75f, 0, 0, 0), p1);
    EXPECT_EQ(t.GetBestFocus(0.7504f, 0, 0, -1), p1);
    EXPECT_EQ(t.GetBestFocus(0.75f, 0, 0, 22.0004f), p2);
    EXPECT_EQ(t.BestFocusSets.Count(), 2);
    cBestFocus* p3 = t.GetBestFocus(0.8f, 0.12345f, 0.5f, 21.00049f);
    EXPECT_EQ(t.BestFocusSets.Count(), 3);
    EXPECT_EQ(p3->PCinner, 0.123f);
    EXPECT_EQ(p3->Dose, 21.0f);
    EXPECT_EQ(p3->KeyName, "21_0.8_0.123_0.5");
    EXPECT_EQ(t.BestFocusSets.Item("21_0.8_0.123_0.5"), p3);
    EXPECT_EQ(t.GetBestFocus(0.8f, 0.123f, 0.5f, 21), p3);

    // Unique exposures, rounded to three decimals; BestFocus within 0.01.
    cTemplate u;
    auto add = [&u](const std::string& key, float dose, float na, float x) {
        auto s = std::make_unique<cSiteCal>();
        s->NumberKey = key;
        s->Dose = dose;
        s->NA = na;
        s->LocationX = x;
        s->LocationY = -x / 2;
        u.AddSite(std::move(s));
    };
    add("1_20_0.75_0_0", 20, 0.75f, -3000);
    add("2_20_0.75_0_0", 20.0001f, 0.75f, 5000);
    add("1_22_0.75_0_0", 22, 0.75f, 1000);
    auto bf = std::make_unique<cBestFocus>();
    bf->Dose = 22.005f;
    bf->NA = 0.745f;
    u.AddBestFocus(std::move(bf));
    int count = 0;
    const Datam e = u.GetUniqueExposures(count);
    ASSERT_EQ(count, 2);
    EXPECT_EQ(e.rowUb(), 2);
    const char* head[] = {"  ", "Dose", "NA", "PCinnter", "PCouter", "BestFocus"};
    for (int c = 0; c < 6; ++c) EXPECT_EQ(e(0, c).toString(), head[c]);
    EXPECT_EQ(e(1, 1).toDouble(), 20.0);
    EXPECT_EQ(e(1, 5).toDouble(), 0.0);
    EXPECT_EQ(e(2, 1).toDouble(), 22.0);
    EXPECT_EQ(e(2, 5).toDouble(), 1.0);

    // Field size: span 8000 um -> 8 mm + 10; span 4000 -> 14.
    float fx = 0, fy = 0;
    u.FindFieldSize(fx, fy);
    EXPECT_FLOAT_EQ(fx, 18.0f);
    EXPECT_FLOAT_EQ(fy, 14.0f);
    EXPECT_FLOAT_EQ(u.DieSizeX, 18000.0f);
    EXPECT_FLOAT_EQ(u.DieSizeY, 14000.0f);
}

TEST_F(TemplateLib, CloneIsDeepWithANewCalID) {
    auto t = MakeTemplate("Orig");
    t->Version = 1;
    auto c = t->clone();
    EXPECT_NE(c->CalID(), t->CalID());
    EXPECT_EQ(c->Version, 3.0f);
    EXPECT_EQ(c->NameTemplate, "Orig");
    EXPECT_NEAR(c->DateModified, TemplateNow(), 2.0 / 86400);
    ASSERT_EQ(c->sites.Count(), 2);
    ExpectSameSite(*c->sites.Item(1), *t->sites.Item(1));
    EXPECT_NE(c->sites.Item(1), t->sites.Item(1));
    EXPECT_EQ(c->sites.Item(1)->parent, c.get());
    c->sites.Item(1)->SlopeX = 100;
    EXPECT_EQ(t->sites.Item(1)->SlopeX, -6.91f);
    ASSERT_EQ(c->BestFocusSets.Count(), 1);
    EXPECT_EQ(c->BestFocusSets.Item("k")->CalRows.Item(1)->Piston, 0.1f);
    EXPECT_EQ(c->BestFocusSets.Item(1)->CalRows.Item(1)->parent, c->BestFocusSets.Item(1));
}

TEST_F(TemplateLib, GetLotShowsOneFieldPerExposureSet) {
    auto t = MakeTemplate("L");
    auto s = std::make_unique<cSiteCal>();
    s->NumberKey = "9_25_0.8_0.5_0.9";
    s->Dose = 25;
    s->NA = 0.8f;
    s->PCinner = 0.5f;
    s->PCouter = 0.9f;
    s->OffsetX = 0.01f;
    s->OffsetY = 0.03f;
    s->SlopeX = -2;
    s->SlopeY = 4;
    t->AddSite(std::move(s));
    auto lot = t->GetLot();
    ASSERT_TRUE(lot);
    EXPECT_EQ(lot->WaferSize, 200.0f);
    EXPECT_EQ(lot->valueZ_Name, "Mean");
    EXPECT_EQ(lot->LotName, "L");
    EXPECT_FLOAT_EQ(lot->DieSizeX, 22300.0f);  // span 12250.5 um: 22.25 mm rounds to 22.3
    ASSERT_EQ(lot->Wafers().Count(), 1);
    cWafer* w = lot->Wafers().At(1);
    EXPECT_EQ(w->KeyName, "1");
    ASSERT_EQ(w->Fields().Count(), 2);
    cField* f1 = w->Fields().At(1);
    cField* f2 = w->Fields().At(2);
    EXPECT_EQ(f1->DieX, -1.0f);
    EXPECT_EQ(f2->DieX, 0.0f);
    EXPECT_EQ(f2->NumberKey, "W1F2");
    EXPECT_EQ(f2->Dose, 25.0f);
    EXPECT_EQ(f1->SiteCount(), 2);
    ASSERT_EQ(f2->SiteCount(), 1);
    bool exact = false;
    cSite* site = f2->GetSite(1, exact);
    ASSERT_TRUE(site);
    EXPECT_EQ(site->NumberKey(), 9);
    ASSERT_EQ(site->Points().Count(), 1);
    const cPoint* p = site->Points().Item(1);
    EXPECT_FLOAT_EQ(p->ValueV, 10.0f);
    EXPECT_FLOAT_EQ(p->ValueH, 30.0f);
    EXPECT_FLOAT_EQ(p->ValueZ, 20.0f);
    EXPECT_FLOAT_EQ(p->ValueV_fit, -2.0f);
    EXPECT_FLOAT_EQ(p->ValueH_fit, 4.0f);
    EXPECT_FLOAT_EQ(p->ValueZ_fit, 3.0f);
}

// ---- texts and the folder ----

TEST(TemplateText, NumbersAreTheShortestFormThatReadsBack) {
    EXPECT_EQ(TemplateNumberText(0.75f), "0.75");
    EXPECT_EQ(TemplateNumberText(-6.91f), "-6.91");
    EXPECT_EQ(TemplateNumberText(19.0f), "19");
    EXPECT_EQ(TemplateNumberText(0.0f), "0");
    for (float v : {0.02809f, 1.0f / 3.0f, 1.234567e-7f, 3.4028e38f, -1250.5f, 16777217.0f, 0.1f}) {
        const std::string t = TemplateNumberText(v);
        double back = 0;
        ASSERT_TRUE(ParseNumber(t, back)) << t;
        EXPECT_EQ(static_cast<float>(back), v) << t;
    }
    EXPECT_LE(TemplateNumberText(0.1f).size(), 3u);
}

TEST(TemplateText, FolderOverrideAndEncoding) {
    EXPECT_EQ(TemplateFolder("/some/where"), "/some/where");
    EXPECT_FALSE(TemplateFolder().empty());
    EXPECT_NE(TemplateFolder().find("Templates"), std::string::npos);
    // Non-ASCII text survives the UTF-16 file.
    const std::vector<std::string> lines = {"Größe \xE2\x82\xAC", "", "\xF0\x9F\x98\x80 x"};
    EXPECT_EQ(DecodeTemplateFile(EncodeTemplateFile(lines)), lines);
    // Big-endian with a mark, and plain 8-bit text, read too.
    EXPECT_EQ(DecodeTemplateFile(std::string("\xFE\xFF\0A\0\r\0\n\0B", 10)), (std::vector<std::string>{"A", "B"}));
    EXPECT_EQ(DecodeTemplateFile("A\r\nB\nC"), (std::vector<std::string>{"A", "B", "C"}));
}

}  // namespace
}  // namespace zorv
