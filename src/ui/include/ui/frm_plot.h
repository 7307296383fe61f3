// Two light windows any chart or table can go to: frmPlot holds one chart of
// its own (cloned to stand views side by side), frmSpreadsheet shows a table
// read-only in a grid that copies what is selected.
#pragma once

#include <QString>
#include <memory>

#include "base/datam.h"
#include "ui/forms.h"

class QAbstractTableModel;
class QTableView;

namespace zorv {
class cGraphic;
class Workbook;
}  // namespace zorv

namespace zorv::ui {

class ChartView;

class frmPlot : public ZorvForm {
    Q_OBJECT
public:
    explicit frmPlot(QWidget* parent = nullptr);
    ~frmPlot() override;

    // The chart shown: the window keeps a copy of its own, so the chart it
    // came from may change or go.
    void setGraphic(const zorv::cGraphic& graphic);
    zorv::cGraphic* graphic() const { return graphic_.get(); }
    ChartView* view() const { return view_; }

    // cmdClone: a new frmPlot with a copy of this chart, shown, its caption
    // this one's with " - Clone: <n>".
    frmPlot* cmdClone();

protected:
    WindowPlace place() const override { return {"frmPlot", ""}; }

private:
    std::unique_ptr<zorv::cGraphic> graphic_;
    ChartView* view_ = nullptr;
};

class frmSpreadsheet : public ZorvForm {
    Q_OBJECT
public:
    explicit frmSpreadsheet(QWidget* parent = nullptr);
    ~frmSpreadsheet() override;

    // The table, as it stands, under a caption; the window keeps a copy.
    void setTable(const zorv::Datam& table, const QString& caption);
    // A sheet of a workbook: its used range. False, with the message, when
    // the workbook has no such sheet.
    bool setSheet(zorv::Workbook& workbook, const QString& sheet);
    const zorv::Datam& table() const { return table_; }
    QTableView* grid() const { return grid_; }

    // The selected cells as tab-separated text, rows on lines, on the
    // clipboard; answers the text.
    QString copySelection();

protected:
    WindowPlace place() const override { return {"frmSpreadsheet", ""}; }

private:
    zorv::Datam table_;
    QTableView* grid_ = nullptr;
    QAbstractTableModel* model_ = nullptr;
};

}  // namespace zorv::ui
