#include "ui/grid_fill.h"

#include <QStringList>
#include <QTableWidget>

namespace zorv::ui {

void FillGrid(QTableWidget* table, const Datam& d, QString (*text)(const Value&)) {
    table->clear();
    if (!d.isArray() || d.rowUb() < d.rowLb()) {
        table->setRowCount(0);
        table->setColumnCount(0);
        return;
    }
    const int r0 = d.rowLb(), c0 = d.colLb();
    table->setColumnCount(d.colUb() - c0 + 1);
    table->setRowCount(d.rowUb() - r0);
    QStringList heads;
    for (int c = c0; c <= d.colUb(); ++c) heads << text(d(r0, c)).trimmed();
    table->setHorizontalHeaderLabels(heads);
    for (int r = r0 + 1; r <= d.rowUb(); ++r)
        for (int c = c0; c <= d.colUb(); ++c) {
            const Value& v = d(r, c);
            auto* item = new QTableWidgetItem(text(v));
            if (v.isNumberType()) item->setTextAlignment(Qt::AlignRight | Qt::AlignVCenter);
            table->setItem(r - r0 - 1, c - c0, item);
        }
    table->resizeColumnsToContents();
}

}  // namespace zorv::ui
