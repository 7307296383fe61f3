// Process exit: the Exiting flag and CloseExcel, the exit step of the
// workbook store.
//
// The hooks below are upcalls: the exit path runs here, at the bottom, but
// closes what higher subsystems own (the workbook store, the exposure tool
// library, the template library). Each owner registers its hook when it
// starts; without one there is nothing of that kind open and the exit goes
// straight on.
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

// The exposure tool library workbook, as its owner registers it.
struct ToolLibraryHook {
    std::function<bool()> isOpen;
    std::function<bool()> changed;
    // Saves the library and its workbook.
    std::function<void()> save;
    // Closes the workbook and drops the references to it.
    std::function<void()> close;
};
void SetToolLibraryHook(ToolLibraryHook hook);

// At the unload of frmMain: when the library's workbook is open and changed,
// asks string 2074 and, on a new line, string 2075 (Yes/No) and saves on Yes;
// then closes it. Returns the answer (0 when nothing was asked).
int CloseToolLibrary();

// Take-down of the process-wide template library at the unload of frmMain:
// every template loses its parent and is killed, the entries removed; with
// dropLibrary (frmMain has no caller) the library itself goes too.
void SetTemplateLibraryRelease(std::function<void(bool dropLibrary)> release);
void ReleaseTemplateLibrary(bool dropLibrary);

// xlwb_BeforeClose: a workbook the program holds is being closed. While the
// program is not exiting the close is refused with a box and the answer is
// true (cancel); on the exit path the status tells it was closed and the
// answer is false.
bool WorkbookBeforeClose(const std::string& workbookName);

// Decides what happens to the open workbooks at exit. Status "Exiting
// application ...", then an empty status. With workbooks open it asks string
// 1642 ("Close all workbooks?"), Yes/No/Cancel, titled with the VersionLine:
// Yes closes them all, No leaves them; both return 1. Cancel returns -1 (stay).
// With none open the store is told to quit and it returns 1.
int CloseExcel();

}  // namespace zorv
