// zorv-cli plot end to end: the files it writes opened as a person would
// (the PNG as an image, the PDF through pdftoppm, the SVG through rsvg-convert)
// and checked for a chart in them; bad input leaves no file.
#include <gtest/gtest.h>

#include <QImage>
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
    const fs::path d = fs::path(ZORV_TEST_TMP) / "plot" / name;
    fs::remove_all(d);
    fs::create_directories(d);
    fs::copy_file(std::string(ZORV_DATA_DIR) + "/samples/SampleCD.xlsx", d / "SampleCD.xlsx");
    return d;
}

// Pixels far from white in the middle of the image, where the plot is.
long InkInPlot(const QImage& img) {
    long n = 0;
    for (int y = img.height() / 5; y < img.height() * 4 / 5; ++y)
        for (int x = img.width() / 8; x < img.width() * 3 / 4; ++x) {
            const QColor c = img.pixelColor(x, y);
            n += c.red() + c.green() + c.blue() < 600;
        }
    return n;
}

std::string Slurp(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

TEST(PlotCli, XyChartAsPngSvgAndPdf) {
    const fs::path d = Dir("xy");
    const std::string common = (d / "SampleCD.xlsx").string() +
                               " --x Test --y Measure,Height --err Measure --stats --title \"Two curves\" --size 900x600";
    ASSERT_EQ(Cli("plot " + common + " --out " + (d / "c.png").string()).rc, 0);
    QImage png((d / "c.png").string().c_str());
    ASSERT_FALSE(png.isNull());
    EXPECT_EQ(png.width(), 900);
    EXPECT_EQ(png.height(), 600);
    EXPECT_GT(InkInPlot(png), 2000);

    ASSERT_EQ(Cli("plot " + common + " --out " + (d / "c.svg").string()).rc, 0);
    const std::string svg = Slurp(d / "c.svg");
    EXPECT_NE(svg.find("<svg"), std::string::npos);
    EXPECT_NE(svg.find("Two curves"), std::string::npos);
    EXPECT_NE(svg.find("Statistics"), std::string::npos);
    if (std::system("command -v rsvg-convert >/dev/null 2>&1") == 0) {
        ASSERT_EQ(std::system(("rsvg-convert -w 900 -h 600 " + (d / "c.svg").string() + " -o " +
                               (d / "svg.png").string())
                                  .c_str()),
                  0);
        QImage fromSvg((d / "svg.png").string().c_str());
        ASSERT_FALSE(fromSvg.isNull());
        EXPECT_GT(InkInPlot(fromSvg), 2000);
    }

    ASSERT_EQ(Cli("plot " + common + " --out " + (d / "c.pdf").string()).rc, 0);
    EXPECT_EQ(Slurp(d / "c.pdf").rfind("%PDF", 0), 0u);
    if (std::system("command -v pdftoppm >/dev/null 2>&1") == 0) {
        ASSERT_EQ(std::system(("pdftoppm -png -r 96 -singlefile " + (d / "c.pdf").string() + " " +
                               (d / "pdf").string())
                                  .c_str()),
                  0);
        QImage fromPdf((d / "pdf.png").string().c_str());
        ASSERT_FALSE(fromPdf.isNull());
        EXPECT_GT(InkInPlot(fromPdf), 2000);
    }
}

TEST(PlotCli, HistogramWithBoxPlot) {
    const fs::path d = Dir("hist");
    const CliRun r = Cli("plot " + (d / "SampleCD.xlsx").string() + " --kind boxplot --y Measure --group Wafer --bins 12 --json --out " +
                      (d / "h.png").string());
    ASSERT_EQ(r.rc, 0) << r.out;
    EXPECT_NE(r.out.find("\"kind\":\"boxplot\""), std::string::npos) << r.out;
    QImage png((d / "h.png").string().c_str());
    ASSERT_FALSE(png.isNull());
    EXPECT_GT(InkInPlot(png), 5000);  // the bars are solid
}

TEST(PlotCli, BadInputLeavesNoFile) {
    const fs::path d = Dir("bad");
    const std::string wb = (d / "SampleCD.xlsx").string();
    const CliRun col = Cli("plot " + wb + " --y Nope --out " + (d / "a.png").string());
    EXPECT_EQ(col.rc, 1);
    EXPECT_NE(col.out.find("Column 'Nope' is not in sheet 'SampleCD'."), std::string::npos) << col.out;
    const CliRun sheet = Cli("plot " + wb + " --sheet Nowhere --out " + (d / "a.png").string());
    EXPECT_EQ(sheet.rc, 1);
    EXPECT_NE(sheet.out.find("Sheet 'Nowhere' is not in workbook"), std::string::npos) << sheet.out;
    {
        auto w = zorv::Workbook::open(wb);
        ASSERT_TRUE(w);
        (*w)->addSheet("Empty");
        ASSERT_TRUE((*w)->save());
    }
    const CliRun empty = Cli("plot " + wb + " --sheet Empty --out " + (d / "a.png").string());
    EXPECT_EQ(empty.rc, 1) << empty.out;
    EXPECT_NE(empty.out.find("Sheet 'Empty' holds no data."), std::string::npos) << empty.out;
    const CliRun unwritable = Cli("plot " + wb + " --out " + (d / "no" / "such" / "a.png").string());
    EXPECT_EQ(unwritable.rc, 1);
    EXPECT_NE(unwritable.out.find("a.png"), std::string::npos) << unwritable.out;
    const CliRun kind = Cli("plot " + wb + " --out " + (d / "a.bmp").string());
    EXPECT_EQ(kind.rc, 1);
    EXPECT_NE(kind.out.find("Unknown chart file type: bmp"), std::string::npos) << kind.out;
    EXPECT_EQ(Cli("plot " + wb).rc, 2);
    for (const auto& f : fs::directory_iterator(d)) EXPECT_EQ(f.path().filename(), "SampleCD.xlsx") << f.path();
}

TEST(PlotCli, CullAnalysisTableAndItsTwoGraphs) {
    const fs::path d = Dir("analysis");
    const CliRun r = Cli("cull " + (d / "SampleCD.xlsx").string() + " --feature Measure --analysis --json --chart " +
                         (d / "cull.png").string());
    ASSERT_EQ(r.rc, 0) << r.out;
    EXPECT_NE(r.out.find("\"label\":"), std::string::npos);
    EXPECT_NE(r.out.find("\"Culls\""), std::string::npos) << r.out;
    for (const char* name : {"cull.png", "cull-sigma.png"}) {
        QImage img((d / name).string().c_str());
        ASSERT_FALSE(img.isNull()) << name;
        EXPECT_GT(InkInPlot(img), 300) << name;
    }
}
