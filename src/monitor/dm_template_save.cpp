// Saving a workbook as a monitor template: the ".XLT" name, the folder, the
// document properties, and the reopened template.
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "base/identity.h"
#include "base/report.h"
#include "base/text.h"
#include "dm_template_util.h"
#include "monitor/dm_template.h"

namespace zorv {

using namespace dmt;
namespace fs = std::filesystem;

namespace {

class SaveLog {
  public:
    explicit SaveLog(std::vector<std::string>& lines) : lines_(lines) {}
    void operator()(std::string line) {
        if (Logging()) AppendLogLine(line);
        lines_.push_back(std::move(line));
    }

  private:
    std::vector<std::string>& lines_;
};

std::string UserName() {
    for (const char* var : {"USER", "USERNAME", "LOGNAME"})
        if (const char* v = std::getenv(var); v && *v) return v;
    return {};
}

// What can be told of the drive beneath a folder that could not be made.
void LogDrive(SaveLog& log, const std::string& folder) {
    std::error_code ec;
    fs::path at = fs::absolute(fs::path(folder), ec);
    while (!at.empty() && !fs::exists(at, ec) && at != at.parent_path()) at = at.parent_path();
    log("    Drive: " + at.root_path().string() + "  (nearest existing folder: " + at.string() +
        ")");
    fs::space_info sp = fs::space(at, ec);
    if (ec)
        log("    Drive free space: unknown (" + ec.message() + ")");
    else
        log("    Drive free space: " + std::to_string(sp.available) + " bytes of " +
            std::to_string(sp.capacity));
    fs::file_status st = fs::status(at, ec);
    bool writable = (st.permissions() & fs::perms::owner_write) != fs::perms::none;
    log(std::string("    Drive type: ") + (writable ? "writable" : "write protected") +
        ", file system: not reported");
}

// The "Summary" cell of the header block.
std::string SummaryText(Workbook& wb) {
    Worksheet* ws = wb.sheet(kTemplateSheet);
    if (!ws) return {};
    for (int r = 1, last = ws->lastRow(); r <= last; ++r)
        if (IEquals(KeyOf(ws->cell(r, 1)), "Summary")) return CellText(ws->cell(r, 2));
    return {};
}

void SetTemplateProperties(Workbook& wb) {
    wb.setProperty("Comments", SummaryText(wb));
    wb.setProperty("Subject", "Zorv Daily Monitor Macro");
    std::string user = UserName();
    std::string author = user.empty() ? VersionLine() : user + ", " + VersionLine();
    wb.setProperty("Author", author);
    wb.setProperty("Last author", author);
}

}  // namespace

std::string DMTemplateFileName(const std::string& name) {
    std::string file = name;
    size_t dot = file.rfind('.');
    size_t sep = LastSep(file);
    bool hasExt = dot != std::string::npos && (sep == std::string::npos || dot > sep);
    std::string ext = hasExt ? file.substr(dot) : std::string();
    if (!hasExt) return file + ".xlt";
    bool lower = ext.size() > 1 && ext[1] >= 'a' && ext[1] <= 'z';
    if (IEquals(ext, ".xls") || IEquals(ext, ".xlsx") || IEquals(ext, ".xltx"))
        return file.substr(0, dot) + (lower ? ".xlt" : ".XLT");
    if (IEquals(ext, ".xlt")) return file;
    // Any other dot belongs to the name.
    return file + ".xlt";
}

Result<DMSavedTemplate> SaveAsTemplate(const WorkbookPtr& workbook, const std::string& name,
                                       const std::string& folder) {
    Proc p("DMsetup(SaveAsTemplate): ");
    DMSavedTemplate out;
    SaveLog log(out.log);
    auto fail = [&](std::string text, const std::string& file) {
        log("    " + text);
        Failure f = p.fail(std::move(text));
        f.file = file;
        return f;
    };

    // 1. The target name.
    p.chk = 1;
    std::string outName = DMTemplateFileName(FileOfPath(name));
    std::string outFolder = folder;
    if (outFolder.empty()) outFolder = FolderOfPath(name);
    if (outFolder.empty() && workbook) outFolder = FolderOfPath(workbook->path());
    while (outFolder.size() > 1 && (outFolder.back() == '/' || outFolder.back() == '\\'))
        outFolder.pop_back();
    out.path = outFolder.empty() ? outName : outFolder + "/" + outName;
    log("    strXLSsourceName: " + (workbook ? workbook->path() : std::string()));
    log("    strXLSoutputName: " + outName);
    log("    strTemplateFolder: " + outFolder);
    log("    txtTemplateFolder: " + folder);
    log("    strXlwbPathName: " + out.path);
    if (!workbook || BaseOfName(outName).empty())
        return fail("Could not find source  or output workbook:" + out.path, out.path);

    // 2. The folder.
    p.chk = 2;
    if (!outFolder.empty()) {
        std::error_code ec;
        if (!fs::is_directory(outFolder, ec)) {
            fs::create_directories(outFolder, ec);
            if (!fs::is_directory(outFolder, ec)) {
                LogDrive(log, outFolder);
                return fail(std::string("Could not create output template folder: ")
                                .append(outFolder)
                                .append("\r\nMake sure you have not specified a CD-ROM or write "
                                        "protected drive"),
                            outFolder);
            }
        }
    }

    // 4. The properties go with the save.
    p.chk = 4;
    SetTemplateProperties(*workbook);

    // 3. Saved as the template and reopened from there.
    p.chk = 3;
    if (Status s = workbook->saveAs(out.path); !s) {
        log("    " + s.failure().text);
        return fail("Also could not find or create output template: " + out.path, out.path);
    }
    Workbooks::Close(workbook);
    Result<WorkbookPtr> reopened = Workbooks::Open(out.path);
    if (!reopened)
        return fail("Also could not find or create output template: " + out.path, out.path);
    out.workbook = *reopened;

    // 5.
    p.chk = 5;
    log("SaveAsTemplate :  Successful");
    return out;
}

Result<DMSavedTemplate> SaveDMTemplate(const WorkbookPtr& workbook, const DMSetup& setup) {
    Proc p("frmDailyMonitorSetup(cmdSaveTemplate): ");
    p.chk = 1;
    if (!workbook) return p.fail("Please select a template source before saving.");
    std::vector<std::string> lines;
    SaveLog log(lines);
    SetStatusText("Saving Template: " + setup.templateName);
    p.chk = 2;
    if (Result<Datam> h = SaveTemplateHeader(workbook.get(), setup); !h) return h.failure();
    log("    Header Saved.");
    p.chk = 3;
    if (Result<Datam> t = SaveTemplateStats(workbook.get(), setup); !t) return t.failure();
    log("    Statistics Saved.");
    p.chk = 4;
    Result<DMSavedTemplate> saved =
        SaveAsTemplate(workbook, setup.templateName, setup.templateFolder);
    if (!saved) return saved.failure();
    lines.insert(lines.end(), saved->log.begin(), saved->log.end());
    saved->log = std::move(lines);
    return saved;
}

}  // namespace zorv
