// The chart on a window: drawn into the widget, zoomed by a dragged box and
// back by a double-click, what lies under the mouse, copied to the clipboard
// and saved to a file, and a chart that cannot draw.
#include <QClipboard>
#include <QGuiApplication>
#include <QHelpEvent>
#include <QImage>
#include <QKeyEvent>
#include <QMimeData>
#include <QMouseEvent>
#include <QToolTip>
#include <filesystem>
#include <fstream>
#include <memory>

#include "ui/chart_view.h"
#include "ui_fixture.h"

using namespace zorv;
using namespace zorv::ui;
using namespace zorv::uitest;
namespace fs = std::filesystem;

namespace {

// The line y = 10 + 3x at x = 0..10.
void LineChart(cGraphic& g) {
    Datam t(11, 2, 0, 0);
    t(0, 1) = Value("Dose");
    t(0, 2) = Value("CD");
    for (int i = 0; i <= 10; ++i) {
        t(i + 1, 1) = Value(double(i));
        t(i + 1, 2) = Value(10.0 + 3 * i);
    }
    ASSERT_TRUE(g.RegisterData(t));
    cSeries& s = g.Series.Add("Line");
    s.Xcol = 1;
    s.Ycol = 2;
    g.Axes.Add("X").Label = "Dose";
    g.Axes.Add("Y").Label = "CD";
}

void Mouse(QWidget& w, QEvent::Type type, QPointF pos, Qt::MouseButton button, Qt::MouseButtons buttons) {
    QMouseEvent e(type, pos, w.mapToGlobal(pos), button, buttons, Qt::NoModifier);
    QCoreApplication::sendEvent(&w, &e);
}

void Press(QWidget& w, QPointF p) { Mouse(w, QEvent::MouseButtonPress, p, Qt::LeftButton, Qt::LeftButton); }
void DragTo(QWidget& w, QPointF p) { Mouse(w, QEvent::MouseMove, p, Qt::NoButton, Qt::LeftButton); }
void Release(QWidget& w, QPointF p) { Mouse(w, QEvent::MouseButtonRelease, p, Qt::LeftButton, Qt::NoButton); }
void Hover(QWidget& w, QPointF p) { Mouse(w, QEvent::MouseMove, p, Qt::NoButton, Qt::NoButton); }

bool IsWhite(QRgb c) { return qRed(c) > 245 && qGreen(c) > 245 && qBlue(c) > 245; }

// Some pixel within r of p close to colour c.
bool HasColourNear(const QImage& img, QPointF p, Color c, int r = 3) {
    for (int y = int(p.y()) - r; y <= int(p.y()) + r; ++y)
        for (int x = int(p.x()) - r; x <= int(p.x()) + r; ++x) {
            if (!img.rect().contains(x, y)) continue;
            const QRgb q = img.pixel(x, y);
            if (std::abs(qRed(q) - RedOf(c)) + std::abs(qGreen(q) - GreenOf(c)) + std::abs(qBlue(q) - BlueOf(c)) < 90)
                return true;
        }
    return false;
}

// Data values at a widget pixel, from the frame the chart was drawn in.
double XAt(const PlotFrame& f, double px) { return f.xLow + (px - f.left) / f.width * (f.xHigh - f.xLow); }
double YAt(const PlotFrame& f, double py) { return f.yLow + (f.top + f.height - py) / f.height * (f.yHigh - f.yLow); }

}  // namespace

class ChartViewTest : public UiTest {
protected:
    void SetUp() override {
        UiTest::SetUp();
        cv = std::make_unique<ChartView>();  // after the application exists
        LineChart(g);
        cv->setGraphic(&g);
        cv->resize(600, 400);
        cv->show();
        QCoreApplication::processEvents();
        img = cv->grab().toImage();
        f = g.Frame();
    }
    QPointF at(double x, double y) const { return {std::round(f.px(x)), std::round(f.py(y))}; }

    cGraphic g;
    std::unique_ptr<ChartView> cv;  // goes before the chart it shows
    QImage img;
    PlotFrame f;
};

TEST_F(ChartViewTest, DrawsTheChartIntoTheWidget) {
    ChartView& view = *cv;
    EXPECT_EQ(view.graphic(), &g);
    EXPECT_TRUE(view.failureText().isEmpty());
    ASSERT_EQ(img.size(), QSize(600, 400));
    ASSERT_GT(f.width, 100);  // the graph box
    // The X range by hand: 1..10 (a 0 holds no range) in steps of 1, one step
    // of margin either side.
    EXPECT_FLOAT_EQ(g.Axes.Item("X")->LowValue, 0.0f);
    EXPECT_FLOAT_EQ(g.Axes.Item("X")->HighValue, 11.0f);
    // The line in the curve's colour where the points are, nothing far from it.
    const Color c = cGraphic::GetPlotColors(0);
    for (double x : {1.0, 4.0, 5.5, 9.0}) EXPECT_TRUE(HasColourNear(img, at(x, 10 + 3 * x), c)) << x;
    EXPECT_TRUE(IsWhite(img.pixel(at(2, 37).toPoint())));
    EXPECT_TRUE(IsWhite(img.pixel(at(9, 15).toPoint())));
    // The container was only for the drawing.
    EXPECT_EQ(g.Container(), nullptr);
    // Paints show the drawing kept from before until the chart is
    // invalidated: a change of data then is what the next paint shows.
    Datam t = g.Data();
    for (int r = 1; r <= t.rowUb(); ++r) t(r, 2) = Value(40.0 - 3 * (r - 1));
    ASSERT_TRUE(g.RegisterData(t));
    EXPECT_TRUE(view.grab().toImage() == img);
    view.invalidate();
    const QImage again = view.grab().toImage();
    const PlotFrame f2 = g.Frame();
    EXPECT_TRUE(HasColourNear(again, QPointF(std::round(f2.px(1)), std::round(f2.py(37))), c));
    EXPECT_TRUE(IsWhite(again.pixel(QPoint(int(std::round(f2.px(9))), int(std::round(f2.py(37)))))));
}

TEST_F(ChartViewTest, DraggedBoxZoomsDoubleClickAndEscapeDoNot) {
    ChartView& view = *cv;
    const cAxis* x = g.Axes.Item("X");
    const cAxis* y = g.Axes.Item("Y");
    const float yLow = y->LowValue, yHigh = y->HighValue;

    // Escape during a drag: nothing changes.
    Press(view, at(2, 30));
    DragTo(view, at(6, 15));
    QKeyEvent esc(QEvent::KeyPress, Qt::Key_Escape, Qt::NoModifier);
    QCoreApplication::sendEvent(&view, &esc);
    Release(view, at(6, 15));
    EXPECT_TRUE(x->AutoScale);
    EXPECT_FLOAT_EQ(x->LowValue, 0.0f);
    EXPECT_FLOAT_EQ(x->HighValue, 11.0f);

    // A box of two pixels is a slip, not a zoom.
    Press(view, at(2, 30));
    DragTo(view, at(2, 30) + QPointF(12, 2));
    Release(view, at(2, 30) + QPointF(12, 2));
    EXPECT_TRUE(x->AutoScale);

    // From dose 2, CD 30 down to dose 6, CD 15, the rubber band on the way.
    const QPointF a = at(2, 30), b = at(6, 15);
    Press(view, a);
    DragTo(view, (a + b) / 2);
    DragTo(view, b);
    const QImage band = view.grab().toImage();
    // The dotted frame: of two neighbouring pixels on its top edge, one is
    // inverted (dark on the white plot).
    const int mid = int((a.x() + b.x()) / 2);
    EXPECT_TRUE(!IsWhite(band.pixel(mid, int(a.y()))) || !IsWhite(band.pixel(mid + 1, int(a.y()))));
    Release(view, b);
    EXPECT_FALSE(x->AutoScale);
    EXPECT_NEAR(x->LowValue, XAt(f, a.x()), 1e-3);
    EXPECT_NEAR(x->HighValue, XAt(f, b.x()), 1e-3);
    EXPECT_NEAR(y->LowValue, YAt(f, b.y()), 1e-3);
    // Within a pixel of the values dragged over.
    const double px = (f.xHigh - f.xLow) / f.width, py = (f.yHigh - f.yLow) / f.height;
    EXPECT_NEAR(x->LowValue, 2, px);
    EXPECT_NEAR(x->HighValue, 6, px);
    EXPECT_NEAR(y->LowValue, 15, py);
    EXPECT_NEAR(y->HighValue, 30, py);
    // Drawn zoomed: dose 4, CD 22 is now near the middle of the box.
    const QImage zoomed = view.grab().toImage();
    const PlotFrame z = g.Frame();
    EXPECT_NEAR(z.xLow, x->LowValue, 1e-4);
    EXPECT_TRUE(HasColourNear(zoomed, QPointF(std::round(z.px(4)), std::round(z.py(22))), cGraphic::GetPlotColors(0)));

    // A double-click: the automatic scale again.
    Mouse(view, QEvent::MouseButtonDblClick, at(4, 22), Qt::LeftButton, Qt::LeftButton);
    Release(view, at(4, 22));
    view.grab();
    EXPECT_TRUE(x->AutoScale);
    EXPECT_FLOAT_EQ(x->LowValue, 0.0f);
    EXPECT_FLOAT_EQ(x->HighValue, 11.0f);
    EXPECT_FLOAT_EQ(y->LowValue, yLow);
    EXPECT_FLOAT_EQ(y->HighValue, yHigh);
    EXPECT_DOUBLE_EQ(g.Frame().xHigh, 11.0);
}

TEST_F(ChartViewTest, TellsWhatLiesUnderTheMouse) {
    ChartView& view = *cv;
    QStringList hovers;
    QObject::connect(&view, &ChartView::hovered, [&](const QString& s) { hovers << s; });
    std::vector<cGraphic::ChartElement> clicks;
    QObject::connect(&view, &ChartView::elementClicked,
                     [&](const cGraphic::ChartElement& e) { clicks.push_back(e); });

    // The fifth point of the line, dose 4 and CD 22.
    Hover(view, at(4, 22));
    ASSERT_EQ(hovers.size(), 1);
    EXPECT_EQ(hovers.back(), "Line: X = 4, Y = 22");
    Hover(view, at(4, 22) + QPointF(1, 0));  // same point: no new signal
    EXPECT_EQ(hovers.size(), 1);
    // An empty spot of the plot: its values.
    const QPointF empty = at(2, 37);
    Hover(view, empty);
    ASSERT_EQ(hovers.size(), 2);
    EXPECT_TRUE(hovers.back().startsWith("X = ")) << hovers.back().toStdString();
    EXPECT_EQ(view.describeAt(QPoint(1, 1)), "");
    // The tooltip says the same.
    QHelpEvent tip(QEvent::ToolTip, at(4, 22).toPoint(), view.mapToGlobal(at(4, 22).toPoint()));
    QCoreApplication::sendEvent(&view, &tip);
    EXPECT_EQ(QToolTip::text(), "Line: X = 4, Y = 22");
    QToolTip::hideText();

    // A click without a drag names the element.
    Press(view, at(7, 31));
    Release(view, at(7, 31));
    ASSERT_EQ(clicks.size(), 1u);
    EXPECT_EQ(clicks[0].kind, cGraphic::ChartElement::Point);
    EXPECT_EQ(clicks[0].series, 1);
    EXPECT_EQ(clicks[0].point, 8);
    EXPECT_EQ(clicks[0].x, 7);
    EXPECT_EQ(clicks[0].y, 31);
    Press(view, empty);
    Release(view, empty);
    ASSERT_EQ(clicks.size(), 2u);
    EXPECT_EQ(clicks[1].kind, cGraphic::ChartElement::Plot);
    EXPECT_NEAR(clicks[1].x, XAt(f, empty.x()), 1e-9);
}

TEST_F(ChartViewTest, CopiesImageAndSvgToTheClipboard) {
    ChartView& view = *cv;
    QAction* copy = view.copyAction();
    ASSERT_NE(copy, nullptr);
    EXPECT_TRUE(view.actions().contains(copy));
    EXPECT_EQ(copy->shortcut(), QKeySequence(QKeySequence::Copy));
    EXPECT_EQ(copy->shortcutContext(), Qt::WidgetShortcut);
    QGuiApplication::clipboard()->clear();
    copy->trigger();
    const QMimeData* mime = QGuiApplication::clipboard()->mimeData();
    ASSERT_NE(mime, nullptr);
    ASSERT_TRUE(mime->hasImage());
    const QImage image = qvariant_cast<QImage>(mime->imageData());
    EXPECT_EQ(image.size(), QSize(600, 400));
    EXPECT_TRUE(HasColourNear(image, at(4, 22), cGraphic::GetPlotColors(0)));
    ASSERT_TRUE(mime->hasFormat("image/svg+xml"));
    const QByteArray svg = mime->data("image/svg+xml");
    EXPECT_TRUE(svg.contains("<svg"));
    EXPECT_TRUE(svg.contains("Dose"));  // the axis title as text, not pixels
    EXPECT_TRUE(rec.boxes.empty());
    // The chart is still the screen's for the mouse afterwards.
    EXPECT_EQ(view.describeAt(at(4, 22).toPoint()), "Line: X = 4, Y = 22");
}

TEST_F(ChartViewTest, SavesToFilesAndReportsFailures) {
    ChartView& view = *cv;
    const fs::path dir = fs::path(ZORV_TEST_TMP) / ("chartview-" + std::to_string(getpid()));
    fs::remove_all(dir);
    fs::create_directories(dir);
    const QString png = QString::fromStdString((dir / "chart.png").string());
    ASSERT_TRUE(view.saveTo(png));
    QImage back;
    ASSERT_TRUE(back.load(png));
    EXPECT_EQ(back.size(), QSize(600, 400));
    // The file is drawn at 96 dots an inch: its frame is the chart's now.
    const PlotFrame ff = g.Frame();
    EXPECT_TRUE(HasColourNear(back, QPointF(std::round(ff.px(4)), std::round(ff.py(22))), cGraphic::GetPlotColors(0)));
    EXPECT_TRUE(rec.boxes.empty());

    // A folder that cannot be: its parent is a file.
    { std::ofstream(dir / "blocker") << "x"; }
    const fs::path bad = dir / "blocker" / "chart.png";
    EXPECT_FALSE(view.saveTo(QString::fromStdString(bad.string())));
    EXPECT_FALSE(fs::exists(bad));
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_NE(rec.boxes[0].text.find("Cannot write the chart file"), std::string::npos);
    EXPECT_FALSE(view.saveTo(QString::fromStdString((dir / "chart.txt").string())));
    ASSERT_EQ(rec.boxes.size(), 2u);
    EXPECT_NE(rec.boxes[1].text.find("Unknown chart file type: txt"), std::string::npos);
    // Only the good chart and the blocker are left.
    int files = 0;
    for (const auto& e : fs::directory_iterator(dir)) (void)e, ++files;
    EXPECT_EQ(files, 2);
    fs::remove_all(dir);
}

TEST_F(ChartViewTest, AChartThatCannotDrawShowsWhy) {
    ChartView& view = *cv;
    cGraphic none;  // data, but no curve to draw
    Datam t = g.Data();
    ASSERT_TRUE(none.RegisterData(t));
    view.setGraphic(&none);
    const QImage shot = view.grab().toImage();
    EXPECT_EQ(view.failureText(), "Total number of data points in graph = 0");
    EXPECT_EQ(none.Container(), nullptr);
    // The text across the middle, nothing in the corners.
    int dark = 0;
    for (int y = 180; y <= 220; ++y)
        for (int x = 0; x < 600; ++x) dark += qGray(shot.pixel(x, y)) < 128;
    EXPECT_GT(dark, 20);
    EXPECT_TRUE(IsWhite(shot.pixel(5, 5)));
    EXPECT_TRUE(IsWhite(shot.pixel(594, 394)));
    // Copying and saving say why instead.
    EXPECT_FALSE(view.copyToClipboard());
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_NE(rec.boxes[0].text.find("Total number of data points in graph = 0"), std::string::npos);
    const fs::path file = fs::path(ZORV_TEST_TMP) / ("chartview-none-" + std::to_string(getpid()) + ".png");
    EXPECT_FALSE(view.saveTo(QString::fromStdString(file.string())));
    EXPECT_FALSE(fs::exists(file));
    ASSERT_EQ(rec.boxes.size(), 2u);
    EXPECT_NE(rec.boxes[1].text.find("Total number of data points in graph = 0"), std::string::npos);

    // Without a chart: an empty widget that does nothing.
    view.setGraphic(nullptr);
    view.grab();
    EXPECT_FALSE(view.copyToClipboard());
    EXPECT_FALSE(view.saveTo(QString::fromStdString(file.string())));
    EXPECT_EQ(rec.boxes.size(), 2u);
}

TEST_F(ChartViewTest, SelectModeKeepsTheBoxInsteadOfZooming) {
    ChartView& view = *cv;
    view.setSelectMode(true);
    QRect emitted;
    QObject::connect(&view, &ChartView::boxSelected, [&](const QRect& r) { emitted = r; });
    const QPointF a = at(2, 30), b = at(6, 15);
    Press(view, a);
    DragTo(view, (a + b) / 2);
    DragTo(view, b);
    Release(view, b);
    EXPECT_TRUE(g.Axes.Item("X")->AutoScale) << "no zoom in select mode";
    EXPECT_EQ(emitted, QRect(a.toPoint(), b.toPoint()).normalized());
    EXPECT_EQ(view.selectedBox(), emitted);
    // The box in the chart's values: dose 2..6, CD 15..30, within a pixel.
    const QRectF v = view.selectedValues();
    const double px = (f.xHigh - f.xLow) / f.width, py = (f.yHigh - f.yLow) / f.height;
    EXPECT_NEAR(v.left(), 2, 1.5 * px);
    EXPECT_NEAR(v.right(), 6, 1.5 * px);
    EXPECT_NEAR(v.top(), 15, 1.5 * py);
    EXPECT_NEAR(v.bottom(), 30, 1.5 * py);
    // The box stays on screen: its edge differs from the plain chart there.
    const QImage shown = view.grab().toImage();
    const int mid = int((a.x() + b.x()) / 2);
    EXPECT_NE(shown.pixel(mid, int(a.y())), img.pixel(mid, int(a.y())));
    view.clearSelection();
    EXPECT_TRUE(view.selectedBox().isNull());
    EXPECT_TRUE(view.selectedValues().isNull());
    // Out of select mode a drag zooms again.
    view.setSelectMode(false);
    Press(view, a);
    DragTo(view, b);
    Release(view, b);
    EXPECT_FALSE(g.Axes.Item("X")->AutoScale);
}
