// The host's side of the monitor: the command line, the log size control and
// the result files a host reads back.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "monitor/dm_automation.h"
#include "workbook/store.h"

namespace fs = std::filesystem;

namespace zorv {
namespace {

fs::path Dir(const std::string& name) {
    const fs::path d = fs::path(ZORV_TEST_TMP) / "dma" / name;
    fs::remove_all(d);
    fs::create_directories(d);
    return d;
}

void Touch(const fs::path& p) { std::ofstream(p) << "x\n"; }

std::string Slurp(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), {});
}

TEST(DMCommandLine, SwitchesInAnyOrderAndTheirAliases) {
    const fs::path d = Dir("parse");
    fs::create_directories(d / "My Data");
    Touch(d / "My Data" / "Lot-d1.csv");
    Touch(d / "Mon.xlt");
    // "-0" is "-o", "-d" is "-f"; quotes go; a hyphen inside a path is no switch.
    const std::string line = "-T " + (d / "Mon.xlt").string() + " -0 " + (d / "out").string() + " -d \"" +
                             (d / "My Data" / "Lot-d1.csv").string() + "\" -x " + (d / "xls").string();
    auto r = ParseDMCommandLine(line);
    ASSERT_TRUE(r) << r.failure().text;
    EXPECT_EQ(r->dataPath, (d / "My Data" / "Lot-d1.csv").string());
    EXPECT_EQ(r->dataName, "Lot-d1.csv");
    EXPECT_EQ(r->templateName, "Mon.xlt");
    EXPECT_EQ(fs::path(r->asciiFolder).filename(), "out");
    EXPECT_TRUE(fs::is_directory(d / "out"));
    EXPECT_TRUE(fs::is_directory(d / "xls"));
    EXPECT_EQ(r->log.front(), "   ===== Command Line Parse =====");
    EXPECT_EQ(r->log.back(), "   ===== Commands End =====");

    // A template found beneath the template folder; a missing data file.
    auto rel = ParseDMCommandLine("-t Mon.xlt -f nowhere.csv", d.string(), d.string());
    ASSERT_FALSE(rel);
    EXPECT_EQ(rel.failure().text, "File file 'nowhere.csv' does not exist.");
    auto tpl = ParseDMCommandLine("-f " + (d / "My Data" / "Lot-d1.csv").string() + " -t Gone.xlt", d.string());
    ASSERT_FALSE(tpl);
    EXPECT_EQ(tpl.failure().text, "Template file 'Gone.xlt' does not exist.");
    EXPECT_FALSE(ParseDMCommandLine("ab"));
}

TEST(DMLogSize, LimitsAndTheCut) {
    long mn = 10, mx = 1000;
    LogLineLimits(mn, mx);
    EXPECT_EQ(mn, 150);  // 10 counts as 150
    mn = 100, mx = -1;
    LogLineLimits(mn, mx);
    EXPECT_EQ(mx, 250);  // -1 with the limit on: min + 150
    mn = 100, mx = 100;
    LogLineLimits(mn, mx);
    EXPECT_EQ(mx, 250);  // 100 and 100 count as 250
    EXPECT_EQ(mn, 150);
    mn = 200, mx = 100;
    LogLineLimits(mn, mx);
    EXPECT_EQ(mx, 350);

    const fs::path d = Dir("log");
    const fs::path log = d / "RemoteCall.log";
    {
        std::ofstream f(log, std::ios::binary);
        for (int i = 1; i <= 400; ++i) f << "line " << i << "\r\n";
    }
    auto cut = LogFileSizeControl(log.string(), 150, 300);
    ASSERT_TRUE(cut);
    EXPECT_TRUE(*cut);
    const std::string kept = Slurp(log), bak = Slurp(d / "RemoteCall.BAK");
    EXPECT_EQ(kept.rfind("____ Backup____: ", 0), 0u);
    EXPECT_NE(kept.find("line 251\r\n"), std::string::npos);  // the newest 150 lines
    EXPECT_EQ(kept.find("line 250\r\n"), std::string::npos);
    EXPECT_NE(bak.find("line 1\r\n"), std::string::npos);
    EXPECT_NE(bak.find("line 251\r\n"), std::string::npos);  // the first (lines - min + 1)
    EXPECT_EQ(bak.find("line 252\r\n"), std::string::npos);
    auto again = LogFileSizeControl(log.string(), 150, 300);
    ASSERT_TRUE(again);
    EXPECT_FALSE(*again);
    EXPECT_EQ(LogFileSizeControl((d / "none.log").string(), 150, 300).failure().text, "File 'none.log' does not exist.");
}

TEST(DMOutputFiles, ResultsOrTheFaultAlways) {
    const fs::path d = Dir("out");
    DMOutput out;
    out.table = Datam(4, 2, 1, 1);
    const char* rows[][2] = {{"[Data]", ""}, {"Program:", "Zorv DMA"}, {"Wafers:", "3"}, {"[END]", ""}};
    for (int r = 0; r < 4; ++r) out.table(r + 1, 1) = Value(rows[r][0]), out.table(r + 1, 2) = Value(rows[r][1]);
    out.lotData = Datam(2, 2, 0, 1);
    out.lotData(0, 1) = Value("Site"), out.lotData(0, 2) = Value("CD");
    out.lotData(1, 1) = Value(1.0), out.lotData(1, 2) = Value(0.09);
    out.lotData(2, 1) = Value(2.0), out.lotData(2, 2) = Value(0.091);
    out.lotName = "LOT1";
    auto f = WriteDMOutput(out, "lot7.csv", d.string(), d.string(), d.string());
    ASSERT_TRUE(f) << f.failure().text;
    EXPECT_EQ(fs::path(f->csv).filename(), "lot7_ZorvDMA.csv");
    EXPECT_EQ(Slurp(f->csv), "[Data],\r\nProgram:,Zorv DMA\r\nWafers:,3\r\n[END],\r\n");
    EXPECT_NE(Slurp(f->json).find("[\"Program:\", \"Zorv DMA\"]"), std::string::npos);
    EXPECT_NE(Slurp(f->html).find("<td>Zorv DMA</td>"), std::string::npos);
    auto wb = Workbook::open(f->xls);
    ASSERT_TRUE(wb) << wb.failure().text;
    EXPECT_EQ((*wb)->sheetNames(), (std::vector<std::string>{"Results", "LOT1"}));
    EXPECT_EQ((*wb)->sheet("Results")->cell(2, 2).toString(), "Zorv DMA");

    // A run that left nothing: the fault, in every file, replacing the old ones.
    DMOutput fault;
    fault.checkpoint = "7";
    auto g = WriteDMOutput(fault, "lot7.csv", d.string(), d.string(), d.string());
    ASSERT_TRUE(g);
    const std::string csv = Slurp(g->csv);
    EXPECT_NE(csv.find("Fault in data ouput or computation"), std::string::npos);
    EXPECT_NE(csv.find("Please see 'RemoteCall.log' file. chk: 7"), std::string::npos);
    auto wb2 = Workbook::open(g->xls);
    ASSERT_TRUE(wb2);
    EXPECT_EQ((*wb2)->sheet("Results")->cell(2, 1).toString(), "Fault in data ouput or computation");
}

}  // namespace
}  // namespace zorv

namespace zorv {
namespace {

TEST(DMResultTable, RowsInTheHostsOrderWithTheHeaderRules) {
    Datam header(9, 2, 1, 1);
    const char* h[][2] = {{"Template", "Mon.xlt"},      {"Folder", "/t"},          {"DataType", "Overlay"},
                          {"RemoveReticle", "True"},    {"Reticle Name", "R 1"},   {"Reticle Mag", "4"},
                          {"RemoveComponent", "False"}, {"ComponentRemoval", "(NONE)"}, {"DateSaved", "2026-11-02"}};
    for (int r = 0; r < 9; ++r) header(r + 1, 1) = Value(h[r][0]), header(r + 1, 2) = Value(h[r][1]);
    Datam stats(2, 2, 0, 0);
    stats(0, 1) = Value("X_reg"), stats(0, 2) = Value("Y_reg");
    stats(1, 0) = Value("Mean"), stats(2, 0) = Value("Sigma");
    stats(1, 1) = Value(1.5), stats(2, 1) = Value("n/a"), stats(1, 2) = Value(-0.25), stats(2, 2) = Value(0.5);
    DMRunInfo info;
    info.dataFile = "lot.csv", info.dataFolder = "/d", info.templateName = "Mon.xlt", info.templateFolder = "/t";
    info.tool = "Archer", info.wafers = 3;
    auto t = BuildDMResultTable(info, header, stats);
    ASSERT_TRUE(t) << t.failure().text;
    std::vector<std::string> keys;
    for (int r = 1; r <= t->rowUb(); ++r) keys.push_back((*t)(r, 1).toString() + "=" + (*t)(r, 2).toString());
    const std::vector<std::string> want = {
        "[Data]=", "Program:=Zorv DMA", "=", "=", "DataFile:=lot.csv", "DataFolder:=/d", "Template:=Mon.xlt",
        "TemplateFolder:=/t"};
    for (size_t i = 0; i < want.size(); ++i) EXPECT_EQ(keys[i], want[i]) << i;
    EXPECT_EQ(keys[10], "Tool:=Archer");
    EXPECT_EQ(keys[11], "Wafers:=3");
    EXPECT_EQ(keys[13], "[Header]=");
    EXPECT_EQ(keys[14], "DataType=Overlay");  // Template and Folder left out
    EXPECT_EQ(keys[15], "RemoveReticle:=True");
    EXPECT_EQ(keys[16], "ReticleName.=R 1");
    EXPECT_EQ(keys[17], "ReticleMag.=4");
    EXPECT_EQ(keys[18].rfind("DateTemplateSaved:=", 0), 0u);  // the component removal is off
    EXPECT_EQ(keys[19], "[EndHeader]=");
    EXPECT_EQ(keys[22], "[Results]=");
    EXPECT_EQ(keys[24], "[X_reg]=");
    EXPECT_EQ(keys[25], "Mean.=1.5");  // "n/a" is no number
    EXPECT_EQ(keys[27], "[Y_reg]=");
    EXPECT_EQ(keys.back(), "[END]=");
    EXPECT_EQ(keys[keys.size() - 2], "[EndResults]=");
    EXPECT_EQ(BuildDMResultTable(info, Datam(), stats).failure().text, "Header table for analysis not found.");
}

}  // namespace
}  // namespace zorv
