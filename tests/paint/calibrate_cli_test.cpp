// zorv-cli calibrate end to end on simulated PSFM matrices: the per-site
// slopes and offsets against the simulator's truth, the charts as files, the
// template in the library, the "Calibration" sheet, and bad input.
#include <gtest/gtest.h>

#include <QImage>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <string>

#include "cli_run.h"
#include "common/json_lite.h"
#include "workbook/store.h"

namespace fs = std::filesystem;
using zorv::testing::Json;
using zorv::testing::JsonParser;

namespace {

fs::path Dir(const char* name) {
    const fs::path d = fs::path(ZORV_TEST_TMP) / "calibrate" / name;
    fs::remove_all(d);
    fs::create_directories(d);
    return d;
}

// A `simulate psfm` lot imported into d; its truth.json beside it.
std::string PsfmWorkbook(const fs::path& d, const std::string& options) {
    EXPECT_EQ(Cli("simulate psfm --out " + d.string() + " --seed 3 " + options).rc, 0);
    EXPECT_EQ(Cli("import " + (d / "psfm.csv").string() + " --out " + d.string()).rc, 0);
    return (d / "psfm.xlsx").string();
}

std::string Slurp(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

TEST(CalibrateCli, FirstOrderRecoversTheSimulatedSitesWithinThreeStandardErrors) {
    const fs::path d = Dir("first");
    const std::string wb = PsfmWorkbook(d, "--noise 0.5 --outliers 0 --coef X2=0,Y2=0,X3=0,Y3=0");
    const CliRun r = Cli("calibrate " + wb + " --order 1 --json");
    ASSERT_EQ(r.rc, 0) << r.out;
    const Json out = JsonParser(r.out).parse();
    const Json truth = zorv::testing::ReadJsonFile((d / "truth.json").string());
    const Json& model = truth["model"]["siteModel"];
    const Json& sites = out["sites"];
    ASSERT_EQ(sites.size(), model.size());
    const Json& rows = out["results"]["rows"];
    for (size_t i = 0; i < model.size(); ++i) {
        const Json& t = model[i];
        const Json& s = sites[i];
        ASSERT_EQ(s["site"].integer(), t["site"].integer());
        // Shift = offset + slope (F + fo) nm: forward intercept offset + slope fo.
        const double fo = t["focusOffset"].number();
        const Json& row = rows[i]["values"];
        const double xSlope = row["Xslope"].number(), xOff = row["Xoffset"].number();
        EXPECT_LT(std::fabs(xSlope - t["slopeX"].number()), 3 * s["slopeXse"].number()) << i;
        EXPECT_LT(std::fabs(xOff - (t["offsetX"].number() + t["slopeX"].number() * fo)),
                  3 * row["Xoffset_sigma"].number()) << i;
        const double ySlope = row["Yslope"].number();
        EXPECT_LT(std::fabs(ySlope - t["slopeY"].number()), 3 * s["slopeYse"].number()) << i;
        // The focus at zero shift: -offset / slope - fo, within its error.
        const double f0 = -t["offsetX"].number() / t["slopeX"].number() - fo;
        EXPECT_LT(std::fabs(s["offsetX"].number() - f0), 3 * row["Xoffset_sigma"].number() / xSlope) << i;
        EXPECT_NEAR(s["slopeX"].number(), 1 / xSlope, 1e-6);
    }
}

TEST(CalibrateCli, ChartsTemplateAndSheet) {
    const fs::path d = Dir("outputs");
    const std::string wb = PsfmWorkbook(d, "--fields-x 7 --fields-y 1 --sites 4");
    const std::string lib = (d / "lib").string();
    const CliRun r = Cli("calibrate " + wb + " --order 3 --charts " + (d / "charts").string() + " --template MyCal --folder " +
                         lib + " --save");
    ASSERT_EQ(r.rc, 0) << r.out;
    EXPECT_NE(r.out.find("Saved as template 'MyCal'."), std::string::npos) << r.out;
    int charts = 0;
    for (const auto& e : fs::directory_iterator(d / "charts")) {
        QImage img(QString::fromStdString(e.path().string()));
        EXPECT_FALSE(img.isNull()) << e.path();
        ++charts;
    }
    EXPECT_EQ(charts, 4);
    // The library file: UTF-16 with its byte order mark, holding the template.
    const std::string tpl = Slurp(fs::path(lib) / "ZORVpsfm.tpl");
    ASSERT_GE(tpl.size(), 2u);
    EXPECT_EQ(static_cast<unsigned char>(tpl[0]), 0xFF);
    EXPECT_EQ(static_cast<unsigned char>(tpl[1]), 0xFE);
    std::string ascii;
    for (size_t i = 2; i < tpl.size(); i += 2) ascii += tpl[i];
    EXPECT_NE(ascii.find("MyCal"), std::string::npos);
    EXPECT_NE(ascii.find("1_24_0_0_0"), std::string::npos);
    // The sheet with its title and headers.
    auto book = zorv::Workbook::open(wb);
    ASSERT_TRUE(book) << book.failure().text;
    zorv::Worksheet* ws = (*book)->sheet("Calibration");
    ASSERT_NE(ws, nullptr);
    EXPECT_EQ(ws->cell(1, 1).toString().rfind("PSFM Calibration Statistics", 0), 0u);
}

TEST(CalibrateCli, BadInputFailsWithItsMessageAndLeavesTheLibraryAlone) {
    const fs::path d = Dir("bad");
    const std::string wb = PsfmWorkbook(d, "--fields-x 3 --fields-y 1 --sites 2 --focus-span 0");
    const std::string lib = (d / "lib").string();
    CliRun r = Cli("calibrate " + wb + " --template X --folder " + lib);
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.out.find("Bad Data: Only one Focus value = "), std::string::npos) << r.out;
    EXPECT_FALSE(fs::exists(fs::path(lib) / "ZORVpsfm.tpl"));
    r = Cli("calibrate " + wb + " --focus-max 0.1 --focus-min 0.1");
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.out.find("Focus maximum value must be greater than the minimum setting."), std::string::npos) << r.out;
    EXPECT_EQ(Cli("calibrate " + wb + " --order 7").rc, 2);
    EXPECT_EQ(Cli("calibrate").rc, 2);
}
