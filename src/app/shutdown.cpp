#include "app/shutdown.h"

#include <cctype>

#include "base/identity.h"
#include "base/proc.h"
#include "base/report.h"
#include "app/strings.h"

namespace zorv {

namespace {
bool g_exiting = false;

CloseWorkbooksHook& hook() {
    static CloseWorkbooksHook h;
    return h;
}

ToolLibraryHook& toolHook() {
    static ToolLibraryHook h;
    return h;
}

std::function<void(bool)>& templateRelease() {
    static std::function<void(bool)> f;
    return f;
}
}  // namespace

void SetToolLibraryHook(ToolLibraryHook h) { toolHook() = std::move(h); }

int CloseToolLibrary() {
    Proc p("frmMain(Form_Unload): ");
    int answer = 0;
    Guarded(p, [&] {
        const ToolLibraryHook& h = toolHook();
        p.chk = 1;
        if (!h.isOpen || !h.isOpen()) return;
        if (h.changed && h.changed()) {
            p.chk = 2;
            answer = MsgBox(std::string(LoadResString(resToolLibraryChanged)) + "\r\n" +
                                LoadResString(resSaveToolLibrary),
                            vbYesNo | vbQuestion, ApplicationTitle());
            if (answer == vbYes && h.save) h.save();
        }
        p.chk = 3;
        if (h.close) h.close();
    });
    p.report();
    return answer;
}

void SetTemplateLibraryRelease(std::function<void(bool)> release) {
    templateRelease() = std::move(release);
}

void ReleaseTemplateLibrary(bool dropLibrary) {
    if (templateRelease()) templateRelease()(dropLibrary);
}

bool WorkbookBeforeClose(const std::string& workbookName) {
    if (Exiting()) {
        SetStatusText("Workbook " + workbookName + " has been closed.");
        return false;
    }
    MsgBox("Workbook '" + workbookName + "' should not be manually closed .\r\n" +
               "Please close from within " + ApplicationTitle(),
           vbInformation, ApplicationTitle());
    return true;
}

bool Exiting() { return g_exiting; }
void SetExiting(bool on) { g_exiting = on; }

void SetCloseWorkbooksHook(CloseWorkbooksHook h) { hook() = std::move(h); }

bool CloseExcelSavesWorkbook(const std::string& workbookName) {
    std::string up;
    up.reserve(workbookName.size());
    for (unsigned char c : workbookName) up += static_cast<char>(std::toupper(c));
    return up.find("SHEET") == std::string::npos;
}

int CloseExcel() {
    Proc p("frmMain(CloseExcel): ");
    int ret = 1;
    Guarded(p, [&] {
        p.chk = 1;
        SetStatusText("Exiting application ...");
        SetStatusText("");
        const CloseWorkbooksHook& h = hook();
        p.chk = 2;
        const int open = h.openCount ? h.openCount() : 0;
        if (open < 1) {
            if (h.quit) h.quit();
            return;
        }
        p.chk = 3;
        const int answer = MsgBox(LoadResString(1642), vbYesNoCancel | vbQuestion, VersionLine());
        if (answer == vbYes) {
            p.chk = 4;
            if (h.closeAll) h.closeAll();
        } else if (answer == vbCancel) {
            ret = -1;
        }
    });
    p.report();
    return ret;
}

}  // namespace zorv
