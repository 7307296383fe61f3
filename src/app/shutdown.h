// Process exit: the Exiting flag and CloseExcel, the exit step of the
// workbook store. The store registers its hooks here at start; without them
// there is no open workbook and CloseExcel goes straight on.
#pragma once

#include <functional>
#include <string>

namespace zorv {

// True once the exit path runs; workbook close events read it to tell a close
// by the program from one by the user.
bool Exiting();
void SetExiting(bool on);

struct CloseWorkbooksHook {
    // Number of workbooks open in the store.
    std::function<int()> openCount;
    // Closes every workbook (CloseExcelSavesWorkbook tells which are saved)
    // and ends the store's application.
    std::function<void()> closeAll;
    // Ends the store's application at once (no workbook is open).
    std::function<void()> quit;
};

// Registers the store's hooks; an empty hook removes them.
void SetCloseWorkbooksHook(CloseWorkbooksHook hook);

// Whether the exit closes a workbook with saving: every name that does not
// contain "SHEET" (case-insensitive).
bool CloseExcelSavesWorkbook(const std::string& workbookName);

// Decides what happens to the open workbooks at exit. Status "Exiting
// application ...", then an empty status. With workbooks open it asks string
// 1642 ("Close all workbooks?"), Yes/No/Cancel, titled with the VersionLine:
// Yes closes them all, No leaves them; both return 1. Cancel returns -1 (stay).
// With none open the store is told to quit and it returns 1.
int CloseExcel();

}  // namespace zorv
