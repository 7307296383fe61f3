// The QPainter surface and chart files: pixels checked against where the
// scene put things, vector files checked through independent renderers.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QColor>
#include <QImage>
#include <QPainter>
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>

#include "paint/chart_file.h"
#include "paint/qpainter_surface.h"

using namespace zorv;
namespace fs = std::filesystem;

namespace {

constexpr int W = 400, H = 200;
const Color Red = RGB(255, 0, 0), Blue = RGB(0, 0, 255), Green = RGB(0, 160, 0), Black = 0;
const Color White = RGB(255, 255, 255);

// Where the scene put its text.
struct TextBox {
    double x0, y0, x1, y1;
};

TextBox DrawScene(Surface& s) {
    s.BackColor = White;
    s.Cls();
    s.Line(20, 20, 79, 59, Red, LineForm::FilledBox);  // centre (49.5, 39.5)
    s.Line(100, 20, 300, 20, Blue);
    s.FillStyle = FillStyle::Solid;
    s.FillColor = Green;
    s.Circle(150, 100, 30, Black);
    s.FillColor = RGB(255, 200, 0);
    s.Polygon({{200, 80}, {260, 80}, {230, 130}});
    s.FillStyle = FillStyle::Transparent;
    s.ForeColor = RGB(200, 0, 200);
    s.Polyline({{280, 60}, {300, 100}, {320, 60}, {340, 100}});
    s.ForeColor = Black;
    s.Font.size = 10;
    s.CurrentX = 20;
    s.CurrentY = 150;
    TextBox box{20, 150, 0, 150 + s.TextHeight("Wafer 3 µm")};
    s.Print("Wafer 3 µm");
    box.x1 = s.CurrentX;
    return box;
}

bool Dark(QRgb c) { return qGray(c) < 100; }

QColor At(const QImage& img, int x, int y) { return QColor(img.pixel(x, y)); }

bool IsColor(const QImage& img, int x, int y, Color c) {
    const QColor q = At(img, x, y);
    return q.red() == RedOf(c) && q.green() == GreenOf(c) && q.blue() == BlueOf(c);
}

int DarkPixels(const QImage& img, const TextBox& b) {
    int n = 0;
    for (int y = static_cast<int>(b.y0); y < static_cast<int>(b.y1); ++y)
        for (int x = static_cast<int>(b.x0); x < static_cast<int>(b.x1); ++x) n += Dark(img.pixel(x, y));
    return n;
}

std::string ReadAll(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::set<std::string> Listing(const fs::path& dir) {
    std::set<std::string> names;
    for (const auto& e : fs::directory_iterator(dir)) names.insert(e.path().filename().string());
    return names;
}

bool HaveTool(const char* path) { return access(path, X_OK) == 0; }

class Paint : public ::testing::Test {
protected:
    void SetUp() override {
        EnsureGuiApplication();
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        dir_ = fs::path(ZORV_TEST_TMP) / ("paint-" + std::to_string(getpid()) + "-" + info->name());
        fs::remove_all(dir_);
        fs::create_directories(dir_);
    }
    void TearDown() override {
        std::error_code ec;
        fs::permissions(dir_, fs::perms::owner_all, fs::perm_options::add, ec);
        fs::remove_all(dir_, ec);
    }
    // A white image with a surface on it; the painter ends with the fixture.
    QPainterSurface& Canvas(int w, int h) {
        image_ = QImage(w, h, QImage::Format_ARGB32_Premultiplied);
        image_.setDotsPerMeterX(3780);
        image_.setDotsPerMeterY(3780);
        image_.fill(Qt::white);
        painter_.emplace(&image_);
        surface_.emplace(*painter_);
        return *surface_;
    }
    QImage Finish() {
        surface_.reset();
        painter_->end();
        painter_.reset();
        return image_;
    }
    int NonWhite(const QImage& img) const {
        int n = 0;
        for (int y = 0; y < img.height(); ++y)
            for (int x = 0; x < img.width(); ++x) n += (img.pixel(x, y) & 0xFFFFFF) != 0xFFFFFF;
        return n;
    }

    fs::path dir_;
    QImage image_;
    std::optional<QPainter> painter_;
    std::optional<QPainterSurface> surface_;
};

void CheckScenePixels(const QImage& img, const TextBox& text) {
    ASSERT_EQ(img.width(), W);
    ASSERT_EQ(img.height(), H);
    EXPECT_TRUE(IsColor(img, 49, 39, Red)) << At(img, 49, 39).name().toStdString();
    EXPECT_TRUE(IsColor(img, 50, 40, Red));
    EXPECT_TRUE(IsColor(img, 150, 100, Green)) << "circle filled";
    EXPECT_TRUE(IsColor(img, 230, 95, RGB(255, 200, 0))) << "polygon filled";
    for (auto [x, y] : {std::pair{0, 0}, {W - 1, 0}, {0, H - 1}, {W - 1, H - 1}})
        EXPECT_TRUE(IsColor(img, x, y, White)) << x << "," << y;
    // About one pixel in five of a line of text is ink.
    EXPECT_GT(DarkPixels(img, text), 40);
    EXPECT_GT(text.x1 - text.x0, 40);
}

}  // namespace

TEST_F(Paint, PngHoldsTheSceneWhereItWasDrawn) {
    TextBox text{};
    const fs::path png = dir_ / "scene.png";
    Status st = RenderToFile(png.string(), W, H, [&](Surface& s) { text = DrawScene(s); });
    ASSERT_TRUE(st.ok()) << st.failure().message();
    QImage img(QString::fromStdString(png.string()));
    ASSERT_FALSE(img.isNull());
    EXPECT_TRUE(img.hasAlphaChannel());
    CheckScenePixels(img, text);
    // One-pixel lines on whole coordinates cover their pixel row fully and
    // nothing beside it.
    EXPECT_TRUE(IsColor(img, 200, 20, Blue));
    EXPECT_TRUE(IsColor(img, 200, 19, White));
    EXPECT_TRUE(IsColor(img, 200, 21, White));
    // Slanted lines are antialiased: some pixels of the polyline are partly covered.
    int partial = 0;
    for (int y = 60; y <= 100; ++y)
        for (int x = 278; x <= 342; ++x) {
            const QColor c = At(img, x, y);
            partial += c.green() > 0 && c.green() < 255;
        }
    EXPECT_GT(partial, 10);
    // Nothing but the scene ends up in the folder.
    EXPECT_EQ(Listing(dir_), std::set<std::string>{"scene.png"});
}

TEST_F(Paint, SvgAndPdfHoldTheScene) {
    TextBox text{};
    const fs::path svg = dir_ / "scene.SVG", pdf = dir_ / "scene.Pdf";  // extensions in any case
    Status st = RenderToFile(svg.string(), W, H, [&](Surface& s) { text = DrawScene(s); });
    ASSERT_TRUE(st.ok()) << st.failure().message();
    st = RenderToFile(pdf.string(), W, H, [&](Surface& s) { DrawScene(s); });
    ASSERT_TRUE(st.ok()) << st.failure().message();

    const std::string svgText = ReadAll(svg);
    EXPECT_EQ(svgText.rfind("<?xml", 0), 0u);
    EXPECT_NE(svgText.find("<svg"), std::string::npos);
    EXPECT_NE(svgText.find("Wafer 3 µm"), std::string::npos);
    EXPECT_NE(svgText.find("viewBox=\"0 0 400 200\""), std::string::npos);
    EXPECT_EQ(ReadAll(pdf).rfind("%PDF", 0), 0u);

    // Drawn again by other programs, the pixels land where the PNG has them.
    if (HaveTool("/usr/bin/rsvg-convert")) {
        const fs::path out = dir_ / "svg.png";
        ASSERT_EQ(std::system(("/usr/bin/rsvg-convert -w 400 -h 200 -o '" + out.string() + "' '" + svg.string() + "'").c_str()), 0);
        QImage img(QString::fromStdString(out.string()));
        ASSERT_FALSE(img.isNull());
        // rsvg leaves the page transparent where nothing was drawn: put it on white.
        QImage flat(img.size(), QImage::Format_RGB32);
        flat.fill(Qt::white);
        QPainter(&flat).drawImage(0, 0, img);
        CheckScenePixels(flat, text);
    }
    if (!HaveTool("/usr/bin/pdftoppm")) GTEST_SKIP() << "no pdftoppm to look at the PDF";
    const fs::path page = dir_ / "page";
    ASSERT_EQ(std::system(("/usr/bin/pdftoppm -scale-to-x 400 -scale-to-y 200 -png -singlefile '" + pdf.string() + "' '" + page.string() + "'")
                              .c_str()),
              0);
    QImage img(QString::fromStdString(page.string() + ".png"));
    ASSERT_FALSE(img.isNull());
    EXPECT_GT(NonWhite(img), 1000);
    CheckScenePixels(img, text);
}

TEST_F(Paint, FailuresLeaveNoFileBehind) {
    const auto none = [](Surface& s) { s.Cls(); };
    const std::set<std::string> before{};
    Status st = RenderToFile((dir_ / "chart.bmp").string(), W, H, none);
    ASSERT_FALSE(st.ok());
    EXPECT_EQ(st.failure().tag, "Paint(RenderToFile): ");
    EXPECT_EQ(st.failure().text, "Unknown chart file type: bmp");
    st = RenderToFile((dir_ / "chart").string(), W, H, none);
    ASSERT_FALSE(st.ok());
    EXPECT_EQ(st.failure().text, "Unknown chart file type: ");
    EXPECT_EQ(Listing(dir_), before);

    // A folder that does not exist.
    const std::string missing = (dir_ / "no-such" / "chart.png").string();
    st = RenderToFile(missing, W, H, none);
    ASSERT_FALSE(st.ok());
    EXPECT_EQ(st.failure().file, missing);
    EXPECT_NE(st.failure().text.find(missing), std::string::npos) << st.failure().text;
    EXPECT_EQ(Listing(dir_), before);

    // A read-only folder (root writes there anyway).
    if (geteuid() != 0) {
        const fs::path ro = dir_ / "ro";
        fs::create_directory(ro);
        fs::permissions(ro, fs::perms::owner_read | fs::perms::owner_exec);
        st = RenderToFile((ro / "chart.pdf").string(), W, H, none);
        ASSERT_FALSE(st.ok());
        EXPECT_EQ(st.failure().file, (ro / "chart.pdf").string());
        fs::permissions(ro, fs::perms::owner_all);
        EXPECT_TRUE(Listing(ro).empty());
        fs::remove(ro);
    }

    // The target is a folder: everything is written, the last move fails.
    fs::create_directory(dir_ / "taken.svg");
    st = RenderToFile((dir_ / "taken.svg").string(), W, H, none);
    ASSERT_FALSE(st.ok());
    EXPECT_EQ(st.failure().file, (dir_ / "taken.svg").string());
    EXPECT_EQ(Listing(dir_), std::set<std::string>{"taken.svg"});
    EXPECT_TRUE(fs::is_directory(dir_ / "taken.svg"));

    // A drawing that throws leaves an earlier chart of that name as it was.
    { std::ofstream(dir_ / "old.png") << "old"; }
    for (const char* name : {"old.png", "old.svg", "old.pdf"}) {
        st = RenderToFile((dir_ / name).string(), W, H, [](Surface&) { throw std::runtime_error("drawing broke"); });
        ASSERT_FALSE(st.ok()) << name;
        EXPECT_TRUE(st.failure().runtime);
        EXPECT_EQ(st.failure().text, "drawing broke");
    }
    EXPECT_EQ(Listing(dir_), (std::set<std::string>{"taken.svg", "old.png"}));
    EXPECT_EQ(ReadAll(dir_ / "old.png"), "old");

    // And a good chart replaces it.
    st = RenderToFile((dir_ / "old.png").string(), 10, 10, none);
    ASSERT_TRUE(st.ok()) << st.failure().message();
    EXPECT_EQ(QImage(QString::fromStdString((dir_ / "old.png").string())).size(), QSize(10, 10));
    EXPECT_EQ(Listing(dir_), (std::set<std::string>{"taken.svg", "old.png"}));
}

TEST_F(Paint, TextExtentsFollowTheFont) {
    QPainterSurface& s = Canvas(50, 50);
    s.Font.size = 10;
    // 10 pt at 96 dots an inch: 13.33 pixels, whole pixels as the old fonts.
    EXPECT_EQ(s.qfont().pixelSize(), 13);
    s.Font.size = 8;
    EXPECT_EQ(s.qfont().pixelSize(), 11);
    s.Font.size = 10;
    const double www = s.TextWidth("WWW"), iii = s.TextWidth("iii");
    EXPECT_GT(iii, 0);
    EXPECT_GT(www, iii);
    EXPECT_GT(s.TextHeight("x"), 10);
    EXPECT_LT(s.TextHeight("x"), 20);
    // Twice the points, about twice the width.
    s.Font.size = 20;
    EXPECT_NEAR(s.TextWidth("WWW") / www, 2.0, 0.2);
    s.Font.bold = true;
    EXPECT_GT(s.TextWidth("WWW"), 0);
    // Print advances CurrentX by the width and leaves CurrentY.
    s.CurrentX = 3;
    s.CurrentY = 4;
    const double w = s.TextWidth("ab");
    s.Print("ab");
    EXPECT_DOUBLE_EQ(s.CurrentX, 3 + w);
    EXPECT_EQ(s.CurrentY, 4);
    Finish();
}

TEST_F(Paint, PixelsBoxesAndHatches) {
    QPainterSurface& s = Canvas(60, 60);
    // A single pixel on the pixel the coordinates round to.
    s.PSet(10.4, 20.6, Red);
    // A filled box covers both corners: 5 x 3 pixels.
    s.Line(9, 7, 5, 5, Blue, LineForm::FilledBox);
    EXPECT_EQ(s.CurrentX, 5);
    EXPECT_EQ(s.CurrentY, 5);
    QImage img = Finish();
    EXPECT_TRUE(IsColor(img, 10, 21, Red));
    EXPECT_TRUE(IsColor(img, 5, 5, Blue));
    EXPECT_TRUE(IsColor(img, 9, 7, Blue));
    EXPECT_EQ(NonWhite(img), 1 + 15);

    // Box: outline in the line's colour, inside by the fill.
    QPainterSurface& b = Canvas(60, 60);
    b.FillStyle = FillStyle::Solid;
    b.FillColor = Green;
    b.Line(10, 10, 40, 30, Black, LineForm::Box);
    img = Finish();
    EXPECT_TRUE(IsColor(img, 10, 20, Black));
    EXPECT_TRUE(IsColor(img, 40, 30, Black));
    EXPECT_TRUE(IsColor(img, 25, 20, Green));
    EXPECT_TRUE(IsColor(img, 41, 20, White));

    // Hatches: "/" rises to the right, "\" falls; horizontal lines are rows.
    const auto hatch = [&](FillStyle f) {
        QPainterSurface& h = Canvas(40, 40);
        h.DrawStyle = DrawStyle::Transparent;
        h.FillStyle = f;
        h.FillColor = Black;
        h.Line(0, 0, 39, 39, -1, LineForm::Box);
        return Finish();
    };
    const auto inked = [](const QImage& i, int x, int y) { return Dark(i.pixel(x, y)); };
    const auto firstInk = [&](const QImage& i) {
        for (int x = 15; x < 25; ++x)
            if (inked(i, x, 20)) return x;
        return -1;
    };
    for (auto [f, dy] : {std::pair{FillStyle::UpwardDiagonal, -1}, {FillStyle::DownwardDiagonal, 1}}) {
        const QImage h = hatch(f);
        const int x = firstInk(h);
        ASSERT_GE(x, 0);
        EXPECT_TRUE(inked(h, x + 1, 20 + dy)) << static_cast<int>(f);
        EXPECT_FALSE(inked(h, x + 1, 20 - dy)) << static_cast<int>(f);
        EXPECT_GT(NonWhite(h), 40 * 40 / 16);
        EXPECT_LT(NonWhite(h), 40 * 40 / 2);
    }
    const QImage hor = hatch(FillStyle::Horizontal);
    for (int y = 5; y < 35; ++y) {
        int n = 0;
        for (int x = 5; x < 35; ++x) n += inked(hor, x, y);
        EXPECT_TRUE(n == 0 || n == 30) << y;
    }
    EXPECT_EQ(NonWhite(hatch(FillStyle::Transparent)), 0);
}

TEST_F(Paint, DashedLinesAreDashed) {
    const auto transitions = [&](zorv::DrawStyle style, int width) {
        QPainterSurface& s = Canvas(400, 20);
        s.DrawStyle = style;
        s.DrawWidth = width;
        s.Line(10, 10, 390, 10, Black);
        const QImage img = Finish();
        int n = 0;
        for (int x = 11; x < 390; ++x) n += Dark(img.pixel(x, 10)) != Dark(img.pixel(x - 1, 10));
        return n;
    };
    EXPECT_EQ(transitions(DrawStyle::Solid, 1), 0);
    // 381 pixels of 18-on 6-off: 16 dashes, 31 changes.
    const int dash = transitions(DrawStyle::Dash, 1);
    EXPECT_GE(dash, 25);
    EXPECT_LE(dash, 35);
    EXPECT_GT(transitions(DrawStyle::Dot, 1), dash);
    EXPECT_EQ(transitions(DrawStyle::Transparent, 1), 0);
    // Wide pens draw the dashed styles solid.
    EXPECT_EQ(transitions(DrawStyle::Dash, 3), 0);

    // The same through a PNG file.
    const fs::path png = dir_ / "dash.png";
    Status st = RenderToFile(png.string(), 400, 20, [](Surface& s) {
        s.DrawStyle = DrawStyle::Dash;
        s.Line(10, 10, 390, 10, Blue);
    });
    ASSERT_TRUE(st.ok()) << st.failure().message();
    QImage img(QString::fromStdString(png.string()));
    int changes = 0;
    for (int x = 11; x < 390; ++x) changes += IsColor(img, x, 10, Blue) != IsColor(img, x - 1, 10, Blue);
    EXPECT_GE(changes, 25);
}

TEST_F(Paint, FocusRectDrawnTwiceErasesItself) {
    QPainterSurface& s = Canvas(50, 50);
    s.Line(0, 0, 49, 49, RGB(10, 200, 30), LineForm::FilledBox);
    s.Line(5, 5, 30, 45, Red);
    QImage before = Finish();

    auto drawFocus = [&](int times) {
        image_ = before.copy();
        painter_.emplace(&image_);
        surface_.emplace(*painter_);
        for (int i = 0; i < times; ++i) surface_->DrawFocusRect(40, 35, 10, 12);
        return Finish();
    };
    const QImage once = drawFocus(1);
    EXPECT_NE(once, before);
    // Every other pixel of the border is inverted, nothing else changes.
    int changed = 0;
    for (int y = 0; y < 50; ++y)
        for (int x = 0; x < 50; ++x)
            if (once.pixel(x, y) != before.pixel(x, y)) {
                ++changed;
                EXPECT_TRUE(x == 10 || x == 40 || y == 12 || y == 35) << x << "," << y;
                EXPECT_EQ(once.pixel(x, y) & 0xFFFFFF, ~before.pixel(x, y) & 0xFFFFFF);
            }
    // The border has 2 * 31 + 2 * 22 = 106 pixels; half are dots.
    EXPECT_EQ(changed, 53);
    EXPECT_EQ(drawFocus(2), before);

    // A vector file cannot invert: its dots are black on the white page.
    if (!HaveTool("/usr/bin/rsvg-convert")) GTEST_SKIP() << "no rsvg-convert to look at the SVG";
    const fs::path svg = dir_ / "focus.svg", out = dir_ / "focus.png";
    Status st = RenderToFile(svg.string(), 50, 50, [](Surface& f) {
        f.Cls();
        f.DrawFocusRect(10, 10, 40, 40);
    });
    ASSERT_TRUE(st.ok()) << st.failure().message();
    ASSERT_EQ(std::system(("/usr/bin/rsvg-convert -w 50 -h 50 -b white -o '" + out.string() + "' '" + svg.string() + "'")
                              .c_str()),
              0);
    const QImage img(QString::fromStdString(out.string()));
    int darkest = 255;
    for (int x = 20; x <= 30; ++x) darkest = std::min(darkest, qGray(img.pixel(x, 10)));
    EXPECT_LT(darkest, 128);
    EXPECT_EQ(img.pixel(25, 25) & 0xFFFFFF, 0xFFFFFFu);
}
