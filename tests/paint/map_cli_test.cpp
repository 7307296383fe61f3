// zorv-cli plot of the lot: maps, contours, the 3D surface and the selected
// area, on simulated lots with a known truth, opened as a person would.
#include <gtest/gtest.h>

#include <QColor>
#include <QImage>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "cli_run.h"
#include "workbook/store.h"

namespace fs = std::filesystem;

namespace {

fs::path Dir(const char* name) {
    const fs::path d = fs::path(ZORV_TEST_TMP) / "maps" / name;
    fs::remove_all(d);
    fs::create_directories(d);
    return d;
}

// A simulated tool file imported into a data workbook in d; its path.
std::string Simulated(const fs::path& d, const std::string& kind, const std::string& options) {
    const CliRun sim = Cli("simulate " + kind + " --out " + d.string() + " --seed 3 " + options);
    EXPECT_EQ(sim.rc, 0) << sim.out;
    const std::string file = sim.out.substr(0, sim.out.find_first_of("\r\n"));
    const CliRun imp = Cli("import " + file + " --out " + d.string());
    EXPECT_EQ(imp.rc, 0) << imp.out;
    for (const auto& f : fs::directory_iterator(d))
        if (f.path().extension() == ".xlsx") return f.path().string();
    return {};
}

bool White(const QColor& c) { return c.red() > 245 && c.green() > 245 && c.blue() > 245; }

long Ink(const QImage& img) {
    long n = 0;
    for (int y = 0; y < img.height(); ++y)
        for (int x = 0; x < img.width(); ++x) n += !White(img.pixelColor(x, y));
    return n;
}

// The PDF rendered back to an image by pdftoppm; a null image without it.
QImage FromPdf(const fs::path& pdf) {
    if (std::system("command -v pdftoppm >/dev/null 2>&1") != 0) return {};
    const fs::path base = pdf.parent_path() / (pdf.stem().string() + "-pdf");
    if (std::system(("pdftoppm -png -r 96 -singlefile " + pdf.string() + " " + base.string()).c_str()) != 0) return {};
    return QImage((base.string() + ".png").c_str());
}

}  // namespace

TEST(MapCli, WaferVectorMapOfATranslationAsPngAndPdf) {
    const fs::path d = Dir("vector");
    // Every wafer term 0 but a translation of 10 nm in X, no noise.
    const std::string wb = Simulated(d, "overlay", "--noise 0 --outliers 0 --failed 0 --coef Tx=10,Ty=0,ScaleX=0,ScaleY=0,"
                                                   "RotX=0,RotY=0,BowX=0,BowY=0,Trifoil=0,FieldTx=0,FieldTy=0,FieldMagX=0,"
                                                   "FieldMagY=0,FieldRotX=0,FieldRotY=0,FieldCurvX=0,FieldCurvY=0");
    ASSERT_FALSE(wb.empty());
    const CliRun r = Cli("plot " + wb + " --kind wafer-vector --size 800x800 --json --out " + (d / "v.png").string());
    ASSERT_EQ(r.rc, 0) << r.out;
    EXPECT_NE(r.out.find("\"kind\":\"wafer-vector\""), std::string::npos) << r.out;
    QImage png((d / "v.png").string().c_str());
    ASSERT_FALSE(png.isNull());
    EXPECT_EQ(png.width(), 800);
    // Outline, grid, arrows and key (the arrows' direction is checked on the
    // recording surface).
    EXPECT_GT(Ink(png), 3000);
    ASSERT_EQ(Cli("plot " + wb + " --kind wafer-vector --size 800x800 --out " + (d / "v.pdf").string()).rc, 0);
    const QImage pdf = FromPdf(d / "v.pdf");
    if (!pdf.isNull()) {
        EXPECT_GT(Ink(pdf), 3000);
    }
}

TEST(MapCli, ContourOfARadialThermalMapAndItsSurface) {
    const fs::path d = Dir("contour");
    const std::string wb = Simulated(d, "thermal", "--wafers 1 --sites 60");
    ASSERT_FALSE(wb.empty());
    ASSERT_EQ(Cli("plot " + wb + " --kind wafer-contour --size 900x800 --out " + (d / "c.png").string()).rc, 0);
    QImage png((d / "c.png").string().c_str());
    ASSERT_FALSE(png.isNull());
    // Painted inside the wafer, white in the corners outside it.
    EXPECT_TRUE(White(png.pixelColor(3, png.height() - 4)));
    long coloured = 0;
    for (int y = 300; y < 500; y += 10)
        for (int x = 250; x < 550; x += 10) {
            const QColor c = png.pixelColor(x, y);
            coloured += std::abs(c.red() - c.blue()) > 60 || std::abs(c.green() - c.blue()) > 60;
        }
    EXPECT_GT(coloured, 500);
    // As SVG, with its note of the extremes as text.
    ASSERT_EQ(Cli("plot " + wb + " --kind wafer-contour --size 900x800 --out " + (d / "c.svg").string()).rc, 0);
    std::ifstream svg(d / "c.svg");
    const std::string text((std::istreambuf_iterator<char>(svg)), std::istreambuf_iterator<char>());
    EXPECT_NE(text.find("Max/Min: "), std::string::npos);

    ASSERT_EQ(Cli("plot " + wb + " --kind surface3d --view 0,45,60 --size 900x700 --out " + (d / "s.pdf").string()).rc, 0);
    const QImage pdf = FromPdf(d / "s.pdf");
    if (!pdf.isNull()) {
        EXPECT_GT(Ink(pdf), 3000);
    }
    ASSERT_EQ(Cli("plot " + wb + " --kind wafer-map --out " + (d / "m.png").string()).rc, 0);
}

TEST(MapCli, FieldMapsAndTheRadialAnalysisSaved) {
    const fs::path d = Dir("radial");
    fs::copy_file(std::string(ZORV_DATA_DIR) + "/samples/SampleCD.xlsx", d / "SampleCD.xlsx");
    const std::string wb = (d / "SampleCD.xlsx").string();
    for (const char* kind : {"field-map", "field-contour"}) {
        const fs::path out = d / (std::string(kind) + ".png");
        ASSERT_EQ(Cli("plot " + wb + " --kind " + kind + " --out " + out.string()).rc, 0) << kind;
        QImage png(out.string().c_str());
        ASSERT_FALSE(png.isNull()) << kind;
        EXPECT_GT(Ink(png), 1000) << kind;
    }
    const CliRun r = Cli("plot " + wb + " --kind radial --rect -150,-150,150,150 --order 2 --save --json --out " +
                         (d / "radial.png").string());
    ASSERT_EQ(r.rc, 0) << r.out;
    EXPECT_NE(r.out.find("\"fits\":[\"Fit_"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"Radius (mm)\""), std::string::npos) << r.out;
    auto w = zorv::Workbook::open(wb);
    ASSERT_TRUE(w);
    EXPECT_NE((*w)->sheet("RadialZones_Measure"), nullptr);
    EXPECT_NE((*w)->sheet("RadialFit_Measure"), nullptr);
}

TEST(MapCli, BadInputLeavesNoFile) {
    const fs::path d = Dir("bad");
    fs::copy_file(std::string(ZORV_DATA_DIR) + "/samples/SampleCD.xlsx", d / "SampleCD.xlsx");
    const std::string wb = (d / "SampleCD.xlsx").string(), out = (d / "a.png").string();
    const CliRun feature = Cli("plot " + wb + " --kind wafer-map --feature Nope --out " + out);
    EXPECT_EQ(feature.rc, 1);
    EXPECT_NE(feature.out.find("Feature 'Nope' is not in lot: SampleCD"), std::string::npos) << feature.out;
    const CliRun wafer = Cli("plot " + wb + " --kind wafer-contour --wafer 99 --out " + out);
    EXPECT_EQ(wafer.rc, 1);
    EXPECT_NE(wafer.out.find("Wafer '99' is not in lot: SampleCD"), std::string::npos) << wafer.out;
    const CliRun none = Cli("plot " + wb + " --kind radial --rect 500,500,600,600 --out " + out);
    EXPECT_EQ(none.rc, 1);
    EXPECT_NE(none.out.find("No data rows in selection."), std::string::npos) << none.out;
    EXPECT_EQ(Cli("plot " + wb + " --kind radial --out " + out).rc, 2);  // no rectangle
    EXPECT_EQ(Cli("plot " + wb + " --kind surface3d --view 1,2 --out " + out).rc, 2);
    for (const auto& f : fs::directory_iterator(d)) EXPECT_EQ(f.path().filename(), "SampleCD.xlsx") << f.path();
}
