// A table of the core shown in a grid.
#pragma once

#include <QString>

#include "base/datam.h"

class QTableWidget;

namespace zorv::ui {

// The table's first row becomes the column heads and the rest the cells,
// numbers aligned right; `text` writes each value as the view wants it.
// An empty table empties the grid.
void FillGrid(QTableWidget* table, const zorv::Datam& d, QString (*text)(const zorv::Value&));

}  // namespace zorv::ui
