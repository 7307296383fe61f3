// A data workbook opened into a lot by a workbench window.
#pragma once

#include <QString>
#include <memory>

namespace zorv {
class cLot;
class Workbook;
}  // namespace zorv

namespace zorv::ui {

// Loads the workbook at `path` with the load options of the settings: the
// status line names it and a failure is reported once. False, with `lot` and
// `wb` as they were, when it did not load.
bool OpenLotWorkbook(const QString& path, std::shared_ptr<zorv::cLot>& lot, std::shared_ptr<zorv::Workbook>& wb);

}  // namespace zorv::ui
