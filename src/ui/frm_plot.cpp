#include "ui/frm_plot.h"

#include <QAbstractTableModel>
#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QHeaderView>
#include <QKeySequence>
#include <QMenu>
#include <QTableView>
#include <QVBoxLayout>
#include <QToolBar>
#include <map>
#include <set>

#include "base/format.h"
#include "base/report.h"
#include "graphics/chart.h"
#include "ui/chart_view.h"
#include "workbook/store.h"
#include "ui/qtext.h"

namespace zorv::ui {

namespace {


// A cell as the grid shows it: numbers to 10 significant digits, the rest
// as its text form.
QString CellText(const Value& v) {
    if (v.isEmpty()) return {};
    if (v.isNumberType() && !v.isBool()) return Q(CStrNumber(v.toDouble(), 10));
    return Q(v.toString());
}

// Spreadsheet column names: A..Z, AA..
QString ColumnName(int n) {
    QString s;
    for (++n; n > 0; n = (n - 1) / 26) s.prepend(QChar('A' + (n - 1) % 26));
    return s;
}

// The table's cells for the grid, read in place: a table of a million rows
// costs no copy into items.
class DatamModel : public QAbstractTableModel {
public:
    DatamModel(const Datam& table, QObject* parent) : QAbstractTableModel(parent), t_(table) {}
    int rowCount(const QModelIndex& parent = {}) const override { return parent.isValid() ? 0 : t_.rowCount(); }
    int columnCount(const QModelIndex& parent = {}) const override {
        return parent.isValid() || !t_.isArray() ? 0 : t_.dims() == 1 ? 1 : t_.colCount();
    }
    QVariant data(const QModelIndex& i, int role) const override {
        if (!i.isValid() || (role != Qt::DisplayRole && role != Qt::TextAlignmentRole)) return {};
        const Value& v = t_.dims() == 1 ? t_.at(t_.rowLb() + i.row())
                                        : t_(t_.rowLb() + i.row(), t_.colLb() + i.column());
        if (role == Qt::TextAlignmentRole)
            return QVariant::fromValue(Qt::Alignment((v.isNumberType() ? Qt::AlignRight : Qt::AlignLeft) |
                                                     Qt::AlignVCenter));
        return CellText(v);
    }
    QVariant headerData(int section, Qt::Orientation o, int role) const override {
        if (role != Qt::DisplayRole) return {};
        return o == Qt::Horizontal ? QVariant(ColumnName(section)) : QVariant(t_.rowLb() + section);
    }
    Qt::ItemFlags flags(const QModelIndex& i) const override {
        return i.isValid() ? Qt::ItemIsEnabled | Qt::ItemIsSelectable : Qt::NoItemFlags;
    }
    // The table it reads changes: the views start again.
    void replace(Datam& held, const Datam& table) {
        beginResetModel();
        held = table;
        endResetModel();
    }

private:
    const Datam& t_;
};

int g_clones = 0;

}  // namespace

// ------------------------------------------------------------------ frmPlot

frmPlot::frmPlot(QWidget* parent) : ZorvForm("frmPlot", "Zorv Plot", parent) {
    setMinimumSize(420, 320);
    resize(900, 640);
    view_ = new ChartView(contentArea());
    view_->setObjectName("chtPlot");
    contentLayout()->addWidget(view_, 1);
    auto* tools = addToolBar(tr("Plot"));
    tools->setObjectName("tbPlot");
    tools->setMovable(false);
    QAction* clone = tools->addAction(tr("Clone"));
    clone->setObjectName("cmdClone");
    clone->setToolTip(tr("The same chart in a new window, to change and compare side by side"));
    connect(clone, &QAction::triggered, this, [this] { cmdClone(); });
    QAction* save = tools->addAction(tr("Save As..."));
    save->setObjectName("mnuFileSaveAs");
    connect(save, &QAction::triggered, view_, &ChartView::saveAs);
    tools->addAction(view_->copyAction());
    // A plot window never asks before it closes: it holds no data of its own.
    asksOnClose_ = false;
}

frmPlot::~frmPlot() { view_->setGraphic(nullptr); }

void frmPlot::setGraphic(const cGraphic& graphic) {
    view_->setGraphic(nullptr);
    graphic_ = std::make_unique<cGraphic>(graphic);
    view_->setGraphic(graphic_.get());
    if (!graphic_->TitleObj.TitleString.empty() && !windowTitle().contains(" - Clone: "))
        setWindowTitle("Zorv Plot: " + Q(graphic_->TitleObj.TitleString));
}

frmPlot* frmPlot::cmdClone() {
    if (!graphic_) return nullptr;
    SetStatusText("Clone of plot interface, Graph:" + graphic_->TitleObj.TitleString);
    auto* clone = new frmPlot;
    clone->setGraphic(*graphic_);
    QString base = windowTitle();
    if (const int at = base.indexOf(" - Clone: "); at >= 0) base.truncate(at);
    clone->setWindowTitle(base + QString(" - Clone: %1").arg(++g_clones));
    clone->Load();
    clone->resize(size());
    clone->move(pos() + QPoint(32, 32));
    clone->show();
    return clone;
}

// ----------------------------------------------------------- frmSpreadsheet

frmSpreadsheet::frmSpreadsheet(QWidget* parent) : ZorvForm("frmSpreadsheet", "Zorv Spreadsheet", parent) {
    setMinimumSize(420, 300);
    resize(900, 600);
    grid_ = new QTableView(contentArea());
    grid_->setObjectName("grdSheet");
    grid_->setSelectionMode(QAbstractItemView::ExtendedSelection);
    grid_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    grid_->verticalHeader()->setDefaultSectionSize(grid_->fontMetrics().height() + 6);
    grid_->horizontalHeader()->setDefaultSectionSize(96);
    model_ = new DatamModel(table_, this);
    grid_->setModel(model_);
    contentLayout()->addWidget(grid_, 1);
    auto* copy = new QAction(tr("Copy"), grid_);
    copy->setObjectName("mnuEditCopy");
    copy->setShortcut(QKeySequence::Copy);
    copy->setShortcutContext(Qt::WidgetShortcut);
    connect(copy, &QAction::triggered, this, [this] { copySelection(); });
    grid_->addAction(copy);
    grid_->setContextMenuPolicy(Qt::ActionsContextMenu);
    asksOnClose_ = false;
}

frmSpreadsheet::~frmSpreadsheet() = default;

void frmSpreadsheet::setTable(const Datam& table, const QString& caption) {
    static_cast<DatamModel*>(model_)->replace(table_, table);
    setWindowTitle("Zorv Spreadsheet: " + caption);
}

bool frmSpreadsheet::setSheet(Workbook& workbook, const QString& sheet) {
    Worksheet* ws = workbook.sheet(sheet.toStdString());
    if (!ws) {
        Proc p("frmSpreadsheet(setSheet): ");
        Failure f = p.fail("Sheet '" + sheet.toStdString() + "' is not in workbook: " + workbook.name());
        f.file = workbook.path();
        f.sheet = sheet.toStdString();
        Report(f);
        return false;
    }
    // From A1, so that rows and columns are named as in the sheet.
    const Area used = ws->usedArea();
    setTable(used.empty() ? Datam() : ws->range(Area{1, 1, used.row2, used.col2}),
             QString::fromStdString(workbook.name()) + " - " + sheet);
    return true;
}

QString frmSpreadsheet::copySelection() {
    const QModelIndexList cells = grid_->selectionModel() ? grid_->selectionModel()->selectedIndexes()
                                                          : QModelIndexList();
    if (cells.isEmpty()) return {};
    // The rectangle around the selection; unselected cells inside it stay empty.
    std::set<int> rows, cols;
    std::map<std::pair<int, int>, QString> text;
    for (const QModelIndex& i : cells) {
        rows.insert(i.row());
        cols.insert(i.column());
        text[{i.row(), i.column()}] = model_->data(i, Qt::DisplayRole).toString();
    }
    QString out;
    for (int r = *rows.begin(); r <= *rows.rbegin(); ++r) {
        for (int c = *cols.begin(); c <= *cols.rbegin(); ++c) {
            if (c > *cols.begin()) out += '\t';
            if (auto it = text.find({r, c}); it != text.end()) out += it->second;
        }
        out += '\n';
    }
    QGuiApplication::clipboard()->setText(out);
    return out;
}

}  // namespace zorv::ui
