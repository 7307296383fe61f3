// The light windows: a plot window that keeps its own chart and clones it,
// and the read-only spreadsheet that copies what is selected.
#include <QAbstractItemModel>
#include <QClipboard>
#include <QItemSelectionModel>
#include <QTableView>

#include "graphics/chart.h"
#include "ui/chart_view.h"
#include "ui/frm_plot.h"
#include "ui_fixture.h"
#include "workbook/store.h"

using namespace zorv;
using namespace zorv::ui;
using namespace zorv::uitest;

class PlotWindows : public UiTest {};

TEST_F(PlotWindows, AClonedPlotIsAWindowOfItsOwn) {
    cGraphic g;
    ASSERT_TRUE(g.RegisterData(Datam::fromRows({{"", "X", "Y"}, {1, 1.0, 2.0}, {2, 2.0, 3.5}, {3, 3.0, 3.0}})));
    cSeries& c = g.Series.Add("CD");
    c.Xcol = 1;
    c.Ycol = 2;
    g.TitleObj.TitleString = "CD through dose";

    QPointer<frmPlot> plot = new frmPlot;
    plot->setGraphic(g);
    // The window's chart is a copy: the one it came from may go.
    g.TitleObj.TitleString = "changed";
    plot->Load();
    plot->resize(640, 480);
    plot->show();
    ASSERT_TRUE(plot->view()->render());
    EXPECT_TRUE(plot->view()->failureText().isEmpty());
    EXPECT_EQ(plot->graphic()->TitleObj.TitleString, "CD through dose");
    EXPECT_EQ(plot->windowTitle(), "Zorv Plot: CD through dose");

    QPointer<frmPlot> clone = plot->cmdClone();
    ASSERT_TRUE(clone);
    EXPECT_TRUE(clone->windowTitle().startsWith("Zorv Plot: CD through dose - Clone: "));
    EXPECT_TRUE(rec.sawStatus("Clone of plot interface, Graph:CD through dose"));
    EXPECT_NE(clone->graphic(), plot->graphic());
    // A clone of the clone is numbered on, not " - Clone: 1 - Clone: 2".
    QPointer<frmPlot> again = clone->cmdClone();
    EXPECT_EQ(again->windowTitle().count(" - Clone: "), 1);
    // Closing the first leaves the clones drawing.
    plot->Unload();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_FALSE(plot);
    ASSERT_TRUE(clone->view()->render());
    EXPECT_TRUE(clone->view()->failureText().isEmpty());
}

TEST_F(PlotWindows, SpreadsheetShowsATableReadOnlyAndCopiesTheSelection) {
    QPointer<frmSpreadsheet> s = new frmSpreadsheet;
    s->Load();
    s->setTable(Datam::fromRows({{"Site", "X", "CD"}, {1, 1.5, 0.123456789012}, {2, -2.0, Value()}}), "t");
    QAbstractItemModel* m = s->grid()->model();
    ASSERT_EQ(m->rowCount(), 3);
    ASSERT_EQ(m->columnCount(), 3);
    EXPECT_EQ(m->headerData(2, Qt::Horizontal).toString(), "C");
    EXPECT_EQ(m->data(m->index(1, 2)).toString(), "0.123456789");  // ten digits
    EXPECT_FALSE(m->flags(m->index(1, 1)) & Qt::ItemIsEditable);

    // A block of two rows by two columns, with an empty cell in it.
    QItemSelectionModel* sel = s->grid()->selectionModel();
    sel->select(QItemSelection(m->index(1, 1), m->index(2, 2)), QItemSelectionModel::Select);
    EXPECT_EQ(s->copySelection(), "1.5\t0.123456789\n-2\t\n");
    EXPECT_EQ(QGuiApplication::clipboard()->text(), "1.5\t0.123456789\n-2\t\n");

    // A sheet by name; a missing one says so and leaves the table.
    WorkbookPtr wb = Workbook::create("/tmp/unsaved.xlsx", "Data");
    wb->sheet(1)->setCell(2, 2, Value(7.0));
    ASSERT_TRUE(s->setSheet(*wb, "Data"));
    EXPECT_EQ(s->table().get(2, 2).toDouble(), 7.0);
    EXPECT_FALSE(s->setSheet(*wb, "Nope"));
    ASSERT_EQ(rec.boxes.size(), 1u);
    EXPECT_NE(rec.boxes[0].text.find("Sheet 'Nope' is not in workbook"), std::string::npos);
    EXPECT_EQ(s->table().get(2, 2).toDouble(), 7.0);
}
