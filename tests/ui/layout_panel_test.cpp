// The layout tab as a user works it, on a simulated focus-exposure lot: a
// serpentine of doses from a corner held against a walk of the die grid made
// here, "Constant" clearing the step, bad entries that change nothing, a
// click on the map choosing the start field, and files dropped on it.
#include <QApplication>
#include <QComboBox>
#include <QDropEvent>
#include <QLineEdit>
#include <QListWidget>
#include <QMimeData>
#include <QMouseEvent>
#include <QPushButton>
#include <QToolTip>
#include <QUrl>
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <tuple>

#include "import/import.h"
#include "import/simulate.h"
#include "lot/lot.h"
#include "ui/layout_panel.h"
#include "ui_fixture.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"

using namespace zorv;
using namespace zorv::ui;
using namespace zorv::uitest;
namespace fs = std::filesystem;

namespace {

// The sheet's cells as text, for a before-and-after comparison.
std::vector<std::string> SheetText(Workbook& wb, const char* name) {
    std::vector<std::string> cells;
    Worksheet* ws = wb.sheet(name);
    if (!ws) return cells;
    const Datam t = ws->usedRange();
    for (int r = t.rowLb(); t.isArray() && r <= t.rowUb(); ++r)
        for (int c = t.colLb(); c <= t.colUb(); ++c) cells.push_back(t(r, c).toString());
    return cells;
}

std::map<std::tuple<std::string, int, int>, float> Doses(const cLot& lot) {
    std::map<std::tuple<std::string, int, int>, float> d;
    for (cWafer* w : lot.Wafers())
        for (cField* f : w->Fields())
            d[{w->KeyName, static_cast<int>(std::lround(f->DieX)), static_cast<int>(std::lround(f->DieY))}] = f->Dose;
    return d;
}

}  // namespace

class LayoutPanelUi : public UiTest {
protected:
    void SetUp() override {
        UiTest::SetUp();
        dir = FreshTestDir("layout-panel-ui");
        SimulateOptions o;
        o.outDir = dir.string();
        o.wafers = 2;
        o.fieldsX = Grid().first;
        o.fieldsY = Grid().second;
        o.sites = 2;
        o.seed = 5;
        Result<SimulateOutput> sim = Simulate("fem", o);
        ASSERT_TRUE(sim.ok()) << sim.failure().message();
        Result<ImportRequest> req = GetDataFile(sim->file);
        ASSERT_TRUE(req.ok()) << req.failure().message();
        Result<std::string> written = ImportCall(*req);
        ASSERT_TRUE(written.ok()) << written.failure().message();
        workbookPath = *written;
        Workbooks::CloseAll();
        LoadOptions lo;
        lo.quiet = true;
        Status st = GetExcelWBLot(workbookPath, lo, lot, &tables);
        ASSERT_TRUE(st.ok()) << st.failure().message();
        ASSERT_TRUE(lot && tables.workbook);
        fileBefore = FileBytes(workbookPath);

        // The die grid, found here from the fields.
        bool first = true;
        for (cWafer* w : lot->Wafers())
            for (cField* f : w->Fields()) {
                const int x = static_cast<int>(std::lround(f->DieX)), y = static_cast<int>(std::lround(f->DieY));
                if (first) xmin = xmax = x, ymin = ymax = y;
                xmin = std::min(xmin, x), xmax = std::max(xmax, x);
                ymin = std::min(ymin, y), ymax = std::max(ymax, y);
                first = false;
            }
        ASSERT_EQ(xmax - xmin + 1, Grid().first);
        ASSERT_EQ(ymax - ymin + 1, Grid().second);
    }
    virtual std::pair<int, int> Grid() const { return {7, 5}; }
    void TearDown() override {
        delete panel;
        panel = nullptr;
        lot.reset();
        tables.workbook.reset();
        Workbooks::CloseAll();
        UiTest::TearDown();
        fs::remove_all(dir);
    }

    void MakePanel(int width, int height) {
        panel = new LayoutPanel;
        panel->resize(width, height);
        panel->setLot(lot, tables.workbook.get());
        panel->show();
        QCoreApplication::processEvents();
        panel->DisplayVariables();
    }
    template <class T>
    T* Child(const char* name) {
        T* w = panel->findChild<T*>(name);
        EXPECT_NE(w, nullptr) << name;
        return w;
    }
    void Choose(const char* combo, const QString& text) {
        auto* c = Child<QComboBox>(combo);
        int k = c->findText(text);
        if (k < 0) k = c->findData(text);
        ASSERT_GE(k, 0) << combo << " " << text.toStdString();
        c->setCurrentIndex(k);
        emit c->activated(k);  // as the user's pick
    }
    void Type(const char* box, const QString& text) { Child<QLineEdit>(box)->setText(text); }
    void Calculate() { Child<QPushButton>("cmdCalculate")->click(); }
    void Click(double x, double y) {
        QWidget* pic = panel->picture();
        QMouseEvent e(QEvent::MouseButtonPress, QPointF(x, y), pic->mapToGlobal(QPointF(x, y)), Qt::LeftButton,
                      Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(pic, &e);
    }
    void Shot(const QString& name) {
        QCoreApplication::processEvents();
        const QString path = QString::fromUtf8(ZORV_TEST_TMP) + "/" + name;
        EXPECT_TRUE(panel->grab().save(path));
    }

    fs::path dir;
    std::string workbookPath, fileBefore;
    std::shared_ptr<cLot> lot;
    WBLotTables tables;
    LayoutPanel* panel = nullptr;
    int xmin = 0, xmax = 0, ymin = 0, ymax = 0;
};

TEST_F(LayoutPanelUi, SerpentineFromACornerWalksTheDieGrid) {
    MakePanel(1200, 800);
    // The first display's status texts, in order.
    const char* expected[] = {"Wafer set to wafer 1", "layout set", "Setup up cmdArray", "call DisplayVariables...",
                              "call DisplayVariables...done "};
    size_t at = 0;
    for (const std::string& s : rec.statuses)
        if (at < std::size(expected) && s == expected[at]) ++at;
    EXPECT_EQ(at, std::size(expected));
    EXPECT_EQ(rec.statuses.back(), "call DisplayVariables...done ");
    EXPECT_EQ(Child<QComboBox>("cmbVariable")->currentText(), "Focus");
    EXPECT_EQ(Child<QComboBox>("cmbWafer")->count(), 3);  // "All" and two wafers

    struct Walk {
        const char* kind;
        // A cell's line number and place on its line, counted from the corner.
        std::function<std::pair<int, int>(int x, int y)> place;
        int lineLength;
        int startX, startY;
    };
    const int cols = xmax - xmin + 1, rows = ymax - ymin + 1;
    const Walk walks[] = {
        // Rows from the top, each walked right; every second one back left.
        {"ULRight", [&](int x, int y) { return std::pair{ymax - y, x - xmin}; }, cols, xmin, ymax},
        // Columns from the right, each walked up; every second one down.
        {"LRUp", [&](int x, int y) { return std::pair{xmax - x, y - ymin}; }, rows, xmax, ymin},
    };
    Choose("cmbWafer", "All");
    Choose("cmbVariable", "Dose");
    Choose("cmbMeander", "Serpentine");
    for (const Walk& w : walks) {
        Choose("cmbStart", w.kind);
        // The kind's corner fills the start boxes.
        EXPECT_EQ(Child<QLineEdit>("txtDieXo")->text(), QString::number(w.startX)) << w.kind;
        EXPECT_EQ(Child<QLineEdit>("txtDieYo")->text(), QString::number(w.startY)) << w.kind;
        Type("txtInitial", "20");
        Type("txtStep", "1");
        int changed = 0;
        auto c = QObject::connect(panel, &LayoutPanel::layoutChanged, [&] { ++changed; });
        Calculate();
        QObject::disconnect(c);
        EXPECT_EQ(changed, 1);
        EXPECT_TRUE(rec.boxes.empty()) << rec.boxes.front().text;

        auto want = [&](int x, int y) {
            auto [line, k] = w.place(x, y);
            if (line % 2 == 1) k = w.lineLength - 1 - k;
            return 20.0 + line * w.lineLength + k;
        };
        for (cWafer* wf : lot->Wafers())
            for (cField* f : wf->Fields()) {
                const int x = static_cast<int>(std::lround(f->DieX)), y = static_cast<int>(std::lround(f->DieY));
                EXPECT_FLOAT_EQ(f->Dose, want(x, y)) << w.kind << " " << wf->KeyName << " (" << x << ", " << y << ")";
            }
        // The Layout sheet in memory has them too, under "Dose"; the file is untouched.
        Worksheet* ws = tables.workbook->sheet("Layout");
        ASSERT_NE(ws, nullptr);
        ASSERT_EQ(ws->cell(1, 6).toString(), "Dose");
        int rowsSeen = 0;
        for (int r = 2; r <= ws->lastRow() && !ws->cell(r, 3).isEmpty(); ++r, ++rowsSeen)
            EXPECT_FLOAT_EQ(ws->cell(r, 6).toDouble(), want(static_cast<int>(std::lround(ws->cell(r, 3).toDouble())),
                                                            static_cast<int>(std::lround(ws->cell(r, 4).toDouble()))))
                << w.kind << " sheet row " << r;
        EXPECT_EQ(rowsSeen, 2 * cols * rows);
        // The list shows the values of wafer 1 beside their fields.
        EXPECT_EQ(Child<QListWidget>("lstValues")->count(), cols * rows);
    }
    EXPECT_EQ(FileBytes(workbookPath), fileBefore);
    Shot("layout-panel-1200x800.png");
}

TEST_F(LayoutPanelUi, ConstantClearsTheStepAndBadEntriesChangeNothing) {
    MakePanel(800, 600);
    Choose("cmbVariable", "Dose");
    Choose("cmbMeander", "Constant");
    Type("txtInitial", "31.5");
    Type("txtStep", "5");
    Calculate();
    EXPECT_EQ(Child<QLineEdit>("txtStep")->text(), "0");
    const cWafer* w1 = lot->Wafers().Item(1);
    for (const cField* f : w1->Fields()) EXPECT_FLOAT_EQ(f->Dose, 31.5f);
    Shot("layout-panel-800x600.png");

    const auto doses = Doses(*lot);
    const std::vector<std::string> sheet = SheetText(*tables.workbook, "Layout");
    ASSERT_FALSE(sheet.empty());
    int changed = 0;
    QObject::connect(panel, &LayoutPanel::layoutChanged, [&] { ++changed; });

    Choose("cmbMeander", "Serpentine");
    Type("txtStep", "1.5x");
    Calculate();
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_EQ(rec.boxes[0].text, "A numeric value must be entered into this field Step for a Dose variable.");
    EXPECT_EQ(rec.boxes[0].title, "Zorv Setup Error");
    EXPECT_EQ(rec.boxes[0].flags & vbExclamation, vbExclamation);

    Type("txtStep", "2");
    Type("txtDieXo", "one");
    Calculate();
    ASSERT_EQ(rec.boxes.size(), 2u);
    EXPECT_EQ(rec.boxes[1].text, "Entered value of 'one' is not valid.");

    // A field box too: the field keeps its dose.
    Type("txtDieXo", QString::number(xmin));
    Click(panel->picture()->width() / 3.0, panel->picture()->height() / 2.0);
    ASSERT_TRUE(Child<QPushButton>("cmdUpdateField")->isEnabled());
    Type("txtFieldDose", "");
    Child<QPushButton>("cmdUpdateField")->click();
    ASSERT_EQ(rec.boxes.size(), 3u);
    EXPECT_EQ(rec.boxes[2].text, "A numeric value must be entered into this field Dose for a Dose variable.");

    EXPECT_EQ(changed, 0);
    EXPECT_EQ(Doses(*lot), doses);
    EXPECT_EQ(SheetText(*tables.workbook, "Layout"), sheet);
    EXPECT_EQ(FileBytes(workbookPath), fileBefore);
}

TEST_F(LayoutPanelUi, ClickingTheMapChoosesTheFieldAndItsExposureIsEdited) {
    MakePanel(1000, 700);
    QWidget* pic = panel->picture();
    // Across the middle, left to right: every column once, in order; the row
    // stays. Down the middle: the rows from the highest DieY to the lowest.
    auto scan = [&](bool across) {
        std::vector<std::pair<int, int>> seen;
        const int n = across ? pic->width() : pic->height();
        // A click off the fields leaves the boxes as they were.
        Type("txtDieXo", "");
        Type("txtDieYo", "");
        for (int i = 0; i < n; i += 2) {
            across ? Click(i, pic->height() / 2.0) : Click(pic->width() * 0.45, i);
            bool okX = false, okY = false;
            const int x = Child<QLineEdit>("txtDieXo")->text().toInt(&okX);
            const int y = Child<QLineEdit>("txtDieYo")->text().toInt(&okY);
            if (!okX || !okY) continue;
            if (seen.empty() || seen.back() != std::pair{x, y}) seen.push_back({x, y});
        }
        return seen;
    };
    const auto row = scan(true);
    ASSERT_EQ(static_cast<int>(row.size()), xmax - xmin + 1);
    for (size_t i = 0; i < row.size(); ++i) {
        EXPECT_EQ(row[i].first, xmin + static_cast<int>(i));
        EXPECT_EQ(row[i].second, row[0].second);
    }
    const auto column = scan(false);
    ASSERT_EQ(static_cast<int>(column.size()), ymax - ymin + 1);
    for (size_t i = 0; i < column.size(); ++i) EXPECT_EQ(column[i].second, ymax - static_cast<int>(i));
    EXPECT_TRUE(rec.boxes.empty());

    // The last click chose the lowest row's field: its boxes show its exposure.
    const int x = Child<QLineEdit>("txtDieXo")->text().toInt(), y = Child<QLineEdit>("txtDieYo")->text().toInt();
    cWafer* w1 = lot->Wafers().Item(1);
    cField* field = nullptr;
    for (cField* f : w1->Fields())
        if (std::lround(f->DieX) == x && std::lround(f->DieY) == y) field = f;
    ASSERT_NE(field, nullptr);
    // Shown to six significant digits.
    EXPECT_NEAR(Child<QLineEdit>("txtFieldFocus")->text().toDouble(), field->Focus, 1e-5 * std::max(1.0f, std::fabs(field->Focus)));
    EXPECT_NEAR(Child<QLineEdit>("txtFieldDose")->text().toDouble(), field->Dose, 1e-5 * std::max(1.0f, std::fabs(field->Dose)));

    // The pointer over the middle of the map names the field under it.
    {
        const QPointF mid(pic->width() * 0.45, pic->height() / 2.0);
        QMouseEvent move(QEvent::MouseMove, mid, pic->mapToGlobal(mid), Qt::NoButton, Qt::NoButton, Qt::NoModifier);
        QApplication::sendEvent(pic, &move);
        EXPECT_TRUE(QToolTip::text().startsWith("Field ")) << QToolTip::text().toStdString();
        EXPECT_TRUE(QToolTip::text().contains("\nFocus: ")) << QToolTip::text().toStdString();
    }

    int changed = 0;
    QObject::connect(panel, &LayoutPanel::layoutChanged, [&] { ++changed; });
    Type("txtFieldDose", "44.25");
    Type("txtFieldFocus", "-0.125");
    Child<QComboBox>("cmbFieldDirection")->setCurrentText("Left");
    Child<QPushButton>("cmdUpdateField")->click();
    EXPECT_TRUE(rec.boxes.empty());
    EXPECT_EQ(changed, 1);
    EXPECT_FLOAT_EQ(field->Dose, 44.25f);
    EXPECT_FLOAT_EQ(field->Focus, -0.125f);
    EXPECT_EQ(field->Direction, 1);  // Left
    // The sheet's row of that field took it.
    Worksheet* ws = tables.workbook->sheet("Layout");
    ASSERT_NE(ws, nullptr);
    int hits = 0;
    for (int r = 2; r <= ws->lastRow() && !ws->cell(r, 3).isEmpty(); ++r)
        if (ws->cell(r, 1).toString() == w1->KeyName && ws->cell(r, 3).toDouble() == x && ws->cell(r, 4).toDouble() == y) {
            ++hits;
            EXPECT_FLOAT_EQ(ws->cell(r, 6).toDouble(), 44.25);
            EXPECT_EQ(ws->cell(r, 10).toString(), "Left");
        }
    EXPECT_EQ(hits, 1);
    EXPECT_EQ(FileBytes(workbookPath), fileBefore);
}

TEST_F(LayoutPanelUi, DroppedFilesAndTheEmptyGrid) {
    panel = new LayoutPanel;
    panel->resize(800, 600);
    panel->show();
    QCoreApplication::processEvents();
    EXPECT_EQ(panel->picture()->objectName(), "pctLayout");
    EXPECT_FALSE(Child<QPushButton>("cmdCalculate")->isEnabled());
    EXPECT_FALSE(Child<QComboBox>("cmbVariable")->isEnabled());
    panel->DisplayVariables();  // nothing to draw but the empty grid
    EXPECT_TRUE(rec.boxes.empty());
    Shot("layout-panel-empty.png");

    QStringList got;
    QObject::connect(panel, &LayoutPanel::filesDropped, [&](const QStringList& p) { got = p; });
    const QString file = QString::fromStdString((dir / "dropped run.csv").string());
    QMimeData mime;
    mime.setUrls({QUrl::fromLocalFile(file), QUrl("https://example.com/remote.csv")});
    QWidget* pic = panel->picture();
    QDragEnterEvent enter(QPoint(20, 20), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    enter.ignore();
    QApplication::sendEvent(pic, &enter);
    EXPECT_TRUE(enter.isAccepted());
    QDropEvent drop(QPointF(20, 20), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(pic, &drop);
    EXPECT_EQ(got, QStringList{file});

    // Text without files is not taken.
    QMimeData text;
    text.setText("not a file");
    QDragEnterEvent enterText(QPoint(20, 20), Qt::CopyAction, &text, Qt::LeftButton, Qt::NoModifier);
    enterText.ignore();
    QApplication::sendEvent(pic, &enterText);
    EXPECT_FALSE(enterText.isAccepted());

    // A lot, then none again: the controls follow.
    panel->setLot(lot, tables.workbook.get());
    EXPECT_TRUE(Child<QPushButton>("cmdCalculate")->isEnabled());
    panel->setLot(nullptr, nullptr);
    EXPECT_FALSE(Child<QPushButton>("cmdCalculate")->isEnabled());
    EXPECT_EQ(Child<QListWidget>("lstValues")->count(), 0);
}

// A production-sized matrix: focus values of several digits on small cells.
class LayoutPanelDenseUi : public LayoutPanelUi {
protected:
    std::pair<int, int> Grid() const override { return {15, 11}; }
};

TEST_F(LayoutPanelDenseUi, FocusSerpentineOnADenseGrid) {
    for (const QSize size : {QSize(800, 600), QSize(1200, 800)}) {
        delete panel;
        MakePanel(size.width(), size.height());
        Choose("cmbMeander", "Serpentine");
        Choose("cmbStart", "ULDown");
        Type("txtInitial", "-0.2125");
        Type("txtStep", "0.0125");
        Calculate();
        EXPECT_TRUE(rec.boxes.empty());
        // Down the first column from the upper left, up the next one.
        const cWafer* w1 = lot->Wafers().Item(1);
        const int rows = ymax - ymin + 1;
        for (const cField* f : w1->Fields()) {
            const int line = static_cast<int>(std::lround(f->DieX)) - xmin;
            int k = ymax - static_cast<int>(std::lround(f->DieY));
            if (line % 2 == 1) k = rows - 1 - k;
            EXPECT_NEAR(f->Focus, -0.2125 + 0.0125 * (line * rows + k), 1e-5);
        }
        QWidget* pic = panel->picture();
        Click(pic->width() * 0.4, pic->height() * 0.5);
        Shot(QString("layout-panel-dense-%1x%2.png").arg(size.width()).arg(size.height()));
    }
}
