#include "ui/lot_open.h"

#include "base/report.h"
#include "lot/lot.h"
#include "ui/qtext.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"

namespace zorv::ui {

bool OpenLotWorkbook(const QString& path, std::shared_ptr<cLot>& lot, std::shared_ptr<Workbook>& wb) {
    SetStatusText("Open: " + S(path));
    LoadOptions options = LoadOptionsFromSettings();
    options.quiet = true;
    std::shared_ptr<cLot> loaded;
    WBLotTables tables;
    const Status st = GetExcelWBLot(S(path), options, loaded, &tables);
    if (!st || !loaded) {
        if (!st && !st.failure().text.empty()) Report(st.failure());
        SetStatusText("Ready");
        return false;
    }
    if (loaded->DataSheetName.empty()) loaded->DataSheetName = tables.sheetName;
    lot = std::move(loaded);
    wb = tables.workbook;
    return true;
}

}  // namespace zorv::ui
