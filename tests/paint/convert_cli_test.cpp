// zorv-cli calibrate then convert, as a user runs them: a simulated PSFM
// matrix becomes a template, and a simulated lot exposed at one known focus
// converts back to that focus at every site, less the site's zero-shift focus
// that the simulator's law gives.
#include <gtest/gtest.h>

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
    const fs::path d = fs::path(ZORV_TEST_TMP) / "convert" / name;
    fs::remove_all(d);
    fs::create_directories(d);
    return d;
}

std::string Simulated(const fs::path& d, const std::string& options) {
    EXPECT_EQ(Cli("simulate psfm --out " + d.string() + " --seed 5 --noise 0.3 --outliers 0 " + options).rc, 0);
    EXPECT_EQ(Cli("import " + (d / "psfm.csv").string() + " --out " + d.string()).rc, 0);
    return (d / "psfm.xlsx").string();
}

std::string Slurp(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), {});
}

// The tool focus at which the site's X shift is 0: off + k1 u + k2 u^2 + k3 u^3
// = 0 in u = F + fo, by Newton from the linear root.
double ZeroShiftFocus(const Json& site, double k2, double k3) {
    const double off = site["offsetX"].number(), k1 = site["slopeX"].number(), fo = site["focusOffset"].number();
    double u = -off / k1;
    for (int i = 0; i < 50; ++i) u -= (off + k1 * u + k2 * u * u + k3 * u * u * u) / (k1 + 2 * k2 * u + 3 * k3 * u * u);
    return u - fo;
}

}  // namespace

TEST(ConvertCli, AKnownFocusComesBackAtEverySite) {
    const fs::path d = Dir("known");
    const std::string matrix = Simulated(d / "matrix", "");
    const std::string lib = (d / "lib").string();
    ASSERT_EQ(Cli("calibrate " + matrix + " --order 3 --template Mark --folder " + lib).rc, 0);
    const std::string lot = Simulated(d / "lot", "--focus-centre 0.1 --focus-span 0 --fields-x 4");
    const CliRun r = Cli("convert " + lot + " --template Mark --folder " + lib + " --json");
    ASSERT_EQ(r.rc, 0) << r.out;
    const Json out = JsonParser(r.out.substr(r.out.find('{'))).parse();
    const Json truth = zorv::testing::ReadJsonFile((d / "matrix" / "truth.json").string());
    const Json& model = truth["model"]["siteModel"];
    double k2 = 0, k3 = 0;
    for (const Json& c : truth["model"]["coefficients"].items) {
        if (c["name"].text() == "X2") k2 = c["value"].number();
        if (c["name"].text() == "X3") k3 = c["value"].number();
    }
    ASSERT_EQ(k3, -20);
    const Json& rows = out["focus"]["rows"];
    ASSERT_EQ(rows.size(), 4u * 3 * model.size());
    for (const Json& row : rows.items) {
        const Json& v = row["values"];
        const long site = v["Site"].integer();
        const double f0 = ZeroShiftFocus(model[static_cast<size_t>(site - 1)], k2, k3);
        // The lot reports corrections: the sign is reversed. The noise of 0.3 nm
        // on a slope of ~150 nm/um is 0.002 um a point; three of it, and the
        // template's own error beside it.
        EXPECT_NEAR(v["Slit"].number(), -(0.1 - f0), 0.008) << "site " << site;
    }
}

TEST(ConvertCli, ATemplateNotInTheLibraryLeavesTheWorkbookAlone) {
    const fs::path d = Dir("missing");
    const std::string lot = Simulated(d, "--fields-x 2 --fields-y 1 --sites 2");
    std::ifstream in(lot, std::ios::binary);
    const std::string before((std::istreambuf_iterator<char>(in)), {});
    const CliRun r = Cli("convert " + lot + " --template Nowhere --folder " + (d / "lib").string() + " --save");
    EXPECT_EQ(r.rc, 1);
    EXPECT_NE(r.out.find("PSFM Focus Calibration Template 'Nowhere' could not be located in the library."), std::string::npos)
        << r.out;
    std::ifstream again(lot, std::ios::binary);
    EXPECT_EQ(std::string((std::istreambuf_iterator<char>(again)), {}), before);
    EXPECT_EQ(Cli("convert " + lot).rc, 2);
    EXPECT_EQ(Cli("convert " + lot + " --template X --mode sideways").rc, 2);
}

// A matrix whose sites share one offset and slope: the focus at zero shift of
// a site is minus its best focus offset, so the rows show minus the field's
// TiltX (1.5 nm/mm = 1.5 urad), the columns minus its TiltY (-1.0), and both
// minus its curvature (0.1 nm/mm2 = 10 nm/cm2).
TEST(BestFocusCli, TheFieldsTiltAndCurvatureComeBack) {
    const fs::path d = Dir("bestfocus");
    const std::string wb = Simulated(d, "--sites 25 --coef OffsetSpread=0,SlopeSpread=0");
    const CliRun r = Cli("bestfocus " + wb + " --order 3 --json --save --store BF --folder " + (d / "lib").string());
    ASSERT_EQ(r.rc, 0) << r.out;
    const Json out = JsonParser(r.out.substr(r.out.find('{'))).parse();
    const Json& set = out["sets"][0];
    auto mean = [](const Json& table, const char* col) {
        for (const Json& row : table["rows"].items)
            if (row["label"].text() == "MEAN") return row["values"][col].number();
        return 1e9;
    };
    EXPECT_NEAR(mean(set["rows"], "Tilt(urad)"), -1.5, 0.05);
    EXPECT_NEAR(mean(set["columns"], "Tilt(urad)"), 1.0, 0.05);
    EXPECT_NEAR(mean(set["rows"], "Curv(nm/cm2)"), -10, 0.5);
    EXPECT_NEAR(mean(set["columns"], "Curv(nm/cm2)"), -10, 0.5);
    const Json& whole = set["whole"]["rows"][0]["values"];
    EXPECT_LT(std::fabs(whole["Curv(nm/cm2)"].number() + 10), 3 * whole["CurvSE(um/cm2"].number());
    auto book = zorv::Workbook::open(wb);
    ASSERT_TRUE(book);
    EXPECT_NE((*book)->sheet("BestFocusModel"), nullptr);
    const std::string lib = Slurp(d / "lib" / "ZORVpsfm.tpl");
    EXPECT_GT(lib.size(), 1000u);
}
