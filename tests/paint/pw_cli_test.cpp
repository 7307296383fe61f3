// zorv-cli pw end to end on simulated focus-exposure lots with a known law:
// the isofocal dose of noise-free data, the window with its bootstrap
// intervals, the charts as files, and bad input leaving the data alone.
#include <gtest/gtest.h>

#include <QImage>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "cli_run.h"
#include "workbook/store.h"

namespace fs = std::filesystem;

namespace {

fs::path Dir(const char* name) {
    const fs::path d = fs::path(ZORV_TEST_TMP) / "pw" / name;
    fs::remove_all(d);
    fs::create_directories(d);
    return d;
}

// A `simulate fem` lot (truth: isofocal dose 22) imported into d.
std::string FemWorkbook(const fs::path& d, const std::string& options) {
    EXPECT_EQ(Cli("simulate fem --out " + d.string() + " --seed 4 " + options).rc, 0);
    EXPECT_EQ(Cli("import " + (d / "fem.txt").string() + " --out " + d.string()).rc, 0);
    return (d / "fem.xlsx").string();
}

std::string Slurp(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

long Ink(const QImage& img) {
    long n = 0;
    for (int y = 0; y < img.height(); ++y)
        for (int x = 0; x < img.width(); ++x) {
            const QColor c = img.pixelColor(x, y);
            n += c.red() + c.green() + c.blue() < 600;
        }
    return n;
}

}  // namespace

TEST(PwCli, NoiseFreeIsofocalDoseIsTheLaws) {
    const fs::path d = Dir("isofocal");
    const std::string wb = FemWorkbook(d, "--noise 0 --outliers 0 --failed 0");
    const CliRun r = Cli("pw " + wb + " --analysis isofocal --var MEAS_1:0.09 --json");
    ASSERT_EQ(r.rc, 0) << r.out;
    // Every site: -c4/c7 = 880/40.
    size_t at = 0;
    int sites = 0;
    while ((at = r.out.find("\"dose\":", at)) != std::string::npos) {
        at += 7;
        EXPECT_NEAR(std::atof(r.out.c_str() + at), 22.0, 0.005) << r.out;
        ++sites;
    }
    EXPECT_GE(sites, 5);
}

TEST(PwCli, WindowWithIntervalsChartsAndSheets) {
    const fs::path d = Dir("window");
    const std::string wb = FemWorkbook(d, "");
    const CliRun r = Cli("pw " + wb + " --analysis window --var MEAS_1:0.09:0.099:0.081 --ci 90 --resamples 40 --json --save --chart " +
                         (d / "w.png").string());
    ASSERT_EQ(r.rc, 0) << r.out;
    for (const char* key : {"\"rectangle\":{\"focus\":", "\"ellipse\":{\"focus\":", "\"ci\":{\"level\":0.9",
                            "\"name\":\"RectangleDoF\"", "\"name\":\"IsoFocal_MEAS_1\"", "\"ProcessWindowSpace\""})
        EXPECT_NE(r.out.find(key), std::string::npos) << key << "\n" << r.out;
    for (const char* png : {"w.png", "w-dof.png"}) {
        QImage img((d / png).string().c_str());
        ASSERT_FALSE(img.isNull()) << png;
        EXPECT_GT(Ink(img), 3000) << png;
    }
    auto w = zorv::Workbook::open(wb);
    ASSERT_TRUE(w);
    EXPECT_NE((*w)->sheet("ProcessWindowSpace"), nullptr);
    // Bossung and dose response charts, as PDF.
    for (const char* a : {"focus", "dose"}) {
        const fs::path pdf = d / (std::string(a) + ".pdf");
        ASSERT_EQ(Cli("pw " + wb + " --analysis " + a + " --var MEAS_1:0.09 --chart " + pdf.string()).rc, 0) << a;
        EXPECT_EQ(Slurp(pdf).rfind("%PDF", 0), 0u) << a;
    }
}

TEST(PwCli, BadInputLeavesTheDataAlone) {
    const fs::path d = Dir("bad");
    const std::string wb = FemWorkbook(d, "");
    const std::string before = Slurp(wb);
    struct Case {
        std::string args, message;
    };
    const Case cases[] = {
        {"--analysis window --var MEAS_1:0.09 --focus 0",
         "There is not enough Exposure and/or Focus variation to calculate a process window."},
        {"--analysis window --var MEAS_1:0.09 --dose 18",
         "There is not enough Exposure and/or Focus variation to calculate a process window."},
        {"--analysis window --var NOPE:0.09", "Could not locate variable: 'NOPE'"},
        {"--analysis window", "No process variables have been selected for analysis."},
        {"--analysis window --var MEAS_1:5:5.1:4.9", "Less than 3 data points are available for surface contour"},
    };
    for (const Case& c : cases) {
        const CliRun r = Cli("pw " + wb + " " + c.args + " --save --chart " + (d / "x.png").string());
        EXPECT_EQ(r.rc, 1) << c.args << "\n" << r.out;
        EXPECT_NE(r.out.find(c.message), std::string::npos) << c.args << "\n" << r.out;
        EXPECT_FALSE(fs::exists(d / "x.png")) << c.args;
    }
    EXPECT_EQ(Slurp(wb), before);
    EXPECT_EQ(Cli("pw " + wb + " --analysis nothing --var MEAS_1:1").rc, 2);
    EXPECT_EQ(Cli("pw " + wb + " --analysis dose --var MEAS_1").rc, 2);
}
