// Opening, saving and indexing workbooks through the store.
#include "workbook/workbook_ops.h"

#include <chrono>
#include <filesystem>
#include <mutex>

#include "base/identity.h"
#include "base/proc.h"
#include "base/regional.h"
#include "base/report.h"
#include "app/shutdown.h"
#include "data_workbook_util.h"

namespace zorv {

using namespace dwb;
namespace fs = std::filesystem;

namespace {
void LogStep(const std::string& line) {
    if (Logging()) AppendLogLine(line);
}
std::string ChkStr(const Proc& p) { return ChkText(p.chk); }

// A failure about the workbook at `path`.
Failure FailAt(Proc& p, std::string text, const std::string& path) {
    Failure f = p.fail(std::move(text));
    f.file = path;
    return f;
}

bool FileExists(const std::string& path) {
    std::error_code ec;
    return fs::is_regular_file(path, ec);
}

// Prefix of a sheet name's "link" form: 'Name'!A1
std::string SheetLink(std::string_view name) {
    std::string s("'");
    s.append(name);
    s += "'!A1";
    return s;
}
}  // namespace

bool DateExtract(const Value& v, double& serial) {
    switch (v.type()) {
        case VType::Date:
        case VType::Double:
        case VType::Single:
        case VType::Long:
        case VType::Integer:
            serial = v.toDouble();
            return true;
        case VType::String: {
            if (ParseDateText(v.str(), serial)) return true;
            double d = 0;
            if (ParseNumber(v.str(), d)) {
                serial = d;
                return true;
            }
            return false;
        }
        default:
            return false;
    }
}

void InstallWorkbookCloseHook() {
    static std::once_flag once;
    std::call_once(once, [] {
        CloseWorkbooksHook hook;
        hook.openCount = [] { return Workbooks::Count(); };
        hook.closeAll = [] {
            for (const WorkbookPtr& wb : Workbooks::All()) {
                if (wb && !wb->readOnly() && !wb->saved() && CloseExcelSavesWorkbook(wb->name())) {
                    Status s = wb->save();
                    if (!s) MsgBox("Error Saving: " + wb->path(), vbInformation, ProductName());
                }
            }
            Workbooks::CloseAll();
        };
        hook.quit = [] { Workbooks::CloseAll(); };
        SetCloseWorkbooksHook(std::move(hook));
    });
}

void SetWorkbookProperties(Workbook& wb) {
    const std::string author = VersionLine();
    if (wb.property("Author") != author) wb.setProperty("Author", author);
    if (wb.property("Last author") != author) wb.setProperty("Last author", author);
    if (wb.property("Company") != kCompanyName) wb.setProperty("Company", kCompanyName);
    if (wb.property("Subject") != "Zorv Wavefront Analysis Data")
        wb.setProperty("Subject", "Zorv Wavefront Analysis Data");
}

Status OpenExcelWorksheet(const std::string& path, WorkbookPtr& workbook, Worksheet** sheet, bool create) {
    Proc p("Utility(OpenExcelWorksheet): ");
    InstallWorkbookCloseHook();
    if (sheet) *sheet = nullptr;
    p.chk = 1;
    LogStep("    ...Loading: " + path);
    std::string name = FileOf(path);

    // 1. Already open in the process.
    if (WorkbookPtr open = Workbooks::Find(path)) {
        LogStep("    ...Workbook:  '" + name + "' already exists.  chk:" + ChkStr(p));
        workbook = open;
        if (sheet) *sheet = workbook->activeSheet();
        return StatusOk();
    }
    p.chk = 2;
    LogStep("    ...Start Excel Application.  chk:" + ChkStr(p));
    if (FileExists(path)) {
        p.chk = 3;
        LogStep("    ...Load '" + name + "' from existing workbook. chk:" + ChkStr(p));
        Result<WorkbookPtr> r = Workbooks::Open(path);
        if (!r) return FailAt(p, r.failure().text.empty() ? "Cannot open workbook: " + path : r.failure().text, path);
        workbook = *r;
        if (sheet) *sheet = workbook->activeSheet();
        if (!workbook->readOnly()) {
            // Only differing properties are written, so a workbook of ours
            // stays saved.
            LogStep("    ...Save Workbook properties.");
            SetWorkbookProperties(*workbook);
        }
        LogStep("    ...Workbook: '" + name + "' successfully loaded/saved. ");
        return StatusOk();
    }

    p.chk = 4;
    if (!create) {
        if (IEndsWith(path, ".XLT") || IEndsWith(path, ".XLTX"))
            return FailAt(p, "A Zorv Macro Template '.XLT' has not been loaded.", path);
        return FailAt(p, "Cannot find file: " + path, path);
    }

    // 4. Create: the file part gets an extension when it has none and loses
    // its spaces.
    std::string folder = FolderOf(path);
    std::string file = FileOf(path);
    if (file.empty()) return FailAt(p, "Cannot create a workbook without a file name: " + path, path);
    file = Replace(file, " ", "_");
    if (file.find('.') == std::string::npos) file += ".xlsx";
    std::string target = folder.empty() ? file : folder + "/" + file;
    SetStatusText("Create new workbook ...");
    LogStep("    ...SaveAS Workbook: " + target);
    if (!folder.empty()) {
        std::error_code ec;
        if (!fs::is_directory(folder, ec)) return FailAt(p, "Error Saving: " + target, target);
    }
    LogStep("    ...File Checked, now create..: " + target);
    p.chk = 5;
    WorkbookPtr wb = Workbooks::Add(target, "Information");
    LogStep("    ...Saveas Workbook properties.");
    SetWorkbookProperties(*wb);
    if (!wb->save()) {
        Workbooks::Close(wb);
        return FailAt(p, "Error Saving: " + target, target);
    }
    workbook = wb;
    if (sheet) *sheet = workbook->activeSheet();
    LogStep("    ...Workbook: '" + FileOf(target) + "' successfully loaded/saved. ");
    return StatusOk();
}

Status OpenExcelWorkBook(const std::string& path, WorkbookPtr& workbook, bool create) {
    Proc p("Import(OpenExcelWorkBook): ");
    p.chk = 1;
    SetStatusText("Opening Excel file: " + path);
    InstallWorkbookCloseHook();
    if (WorkbookPtr open = Workbooks::Find(path)) {
        SetStatusText("Activate workbook ...");
        workbook = open;
        return StatusOk();
    }
    SetStatusText("File Check.");
    if (FileExists(path)) {
        p.chk = 2;
        Result<WorkbookPtr> r = Workbooks::Open(path);
        if (!r) return FailAt(p, r.failure().text, path);
        workbook = *r;
        SetStatusText("Activate workbook ...");
        return StatusOk();
    }
    if (!create) return FailAt(p, "Cannot find file: " + path, path);
    p.chk = 3;
    SetStatusText("Create new workbook ...");
    WorkbookPtr wb = Workbooks::Add(path, "Sheet1");
    SetWorkbookProperties(*wb);
    if (!wb->save()) {
        Workbooks::Close(wb);
        return FailAt(p, "Error Saving: " + path, path);
    }
    workbook = wb;
    SetStatusText("Activate workbook ...");
    return StatusOk();
}

Status SaveWorkbookChecked(Workbook& wb, const std::string& sheetName, bool dataSheet) {
    Proc p("Import(SaveArray): ");
    p.chk = 10;
    Status s = wb.save();
    // The store saves synchronously; the wait only runs while the Saved flag
    // lags, which it does when the save failed.
    auto t0 = std::chrono::steady_clock::now();
    while (s && !wb.saved()) {
        double elapsed =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        if (elapsed > 60) {
            SetStatusText("Time out!");
            Failure f = FailAt(p, "Time-out! Could not save WorkSheet '" + sheetName, wb.path());
            f.sheet = sheetName;
            return f;
        }
        if (elapsed > 3)
            SetStatusText("Waiting for workbook '" + wb.name() + "' to save. " +
                          " Elapsed Time remaining: " + std::to_string(static_cast<int>(5 - elapsed)));
        s = wb.save();
    }
    if (!s) {
        std::string text = "Error Saving: " + wb.path();
        if (!s.failure().text.empty()) text += "\r\n" + s.failure().text;
        return FailAt(p, std::move(text), wb.path());
    }
    if (dataSheet)
        SetStatusText("Worksheet (" + sheetName + ") saved as data sheet.");
    else
        SetStatusText("Worksheet " + sheetName + " saved.");
    return StatusOk();
}

namespace {
// The last row of a table that holds anything.
int LastUsedRow(const Datam& t) {
    const int nc = t.colCount();
    for (int r = t.rowUb(); r >= t.rowLb(); --r) {
        const Value* row = t.data() + static_cast<size_t>(r - t.rowLb()) * nc;
        for (int c = 0; c < nc; ++c)
            if (!row[c].isEmpty()) return r;
    }
    return t.rowLb() - 1;
}
}  // namespace

Status SaveArray(const Datam& table, const std::string& sheetName, Workbook* workbook,
                 const SaveArrayOptions& o) {
    Proc p("Import(SaveArray): ");
    p.chk = 1;
    if (!workbook) return p.fail("Workbook not provided.");
    if (!table.isArray() || table.dims() != 2) return FailAt(p, "Input matrix is not an array.", workbook->path());
    std::string name = Replace(sheetName, " ", "");
    SetStatusText("Save to Worksheet: " + name);
    p.chk = 2;
    Worksheet* ws = workbook->sheet(name);
    if (!ws) ws = workbook->addSheet(name);
    if (!ws) {
        Failure f = FailAt(p, "Cannot add the worksheet '" + name + "'.", workbook->path());
        f.sheet = name;
        return f;
    }
    p.chk = 3;
    ws->clear();
    int lastRow = LastUsedRow(table);
    int top = o.title.empty() ? 1 : 2;
    if (!o.title.empty()) ws->setCell(1, 1, o.title);
    if (lastRow >= table.rowLb()) {
        if (lastRow == table.rowUb()) {
            ws->setRange(top, 1, table);
        } else {
            Datam cut = table;
            cut.redimPreserve(lastRow, table.colUb());
            ws->setRange(top, 1, cut);
        }
        int rows = lastRow - table.rowLb() + 1;
        ws->setNumberFormat(Area{top, 1, top + rows - 1, table.colCount()}, "0.0000");
    }
    p.chk = 4;
    if (o.dataSheet || o.batchFile) {
        ws->setComment(1, 1, o.batchFile ? "BATCHFILE" : "DATASHEET", false);
        if (o.dataSheet) ws->setComment(2, 1, o.fileName, false);
    }
    SetWorkbookProperties(*workbook);
    workbook->activate(ws);
    if (!o.save) return StatusOk();
    p.chk = 5;
    return SaveWorkbookChecked(*workbook, name, o.dataSheet);
}

Status SaveArray(const Datam& table, const std::string& sheetName, const std::string& title,
                 Workbook* workbook) {
    SaveArrayOptions o;
    o.title = title;
    return SaveArray(table, sheetName, workbook, o);
}

Status AddIndexItem(Workbook* workbook, const std::string& sheetName, const std::string& description,
                    const Value& date, bool save) {
    Proc p("Import(AddIndexItem): ");
    p.chk = 1;
    SetStatusText("AddIndexItem activated.");
    WorkbookPtr held;
    if (!workbook) {
        std::vector<WorkbookPtr> all = Workbooks::All();
        if (!all.empty()) held = all.back();
        workbook = held.get();
    }
    if (!workbook) return p.fail("Workbook not provided.");
    p.chk = 2;
    double when = 0;
    if (date.isEmpty() || !DateExtract(date, when)) when = SerialNow();

    Worksheet* ix = workbook->sheet("Index");
    if (!ix) {
        Datam head(0, 2);
        head(0, 0) = "Sheet Name";
        head(0, 1) = "Date";
        head(0, 2) = "Description";
        SaveArrayOptions o;
        o.title = "Index of Data SpreadSheets";
        o.save = false;
        // SaveArray's own failure is not shown: the index says it in its words.
        if (!SaveArray(head, "Index", workbook, o) || !(ix = workbook->sheet("Index"))) {
            Failure f = FailAt(p, "Cannot make the 'Index' worksheet.", workbook->path());
            f.sheet = "Index";
            return f;
        }
        Worksheet* sites = workbook->sheet("Sites");
        workbook->moveSheet("Index", sites ? sites->index() - 1 : 0);
        ix->setBold(Area{1, 1, 2, 3});
    }

    p.chk = 3;
    SetStatusText("AddIndexItem: Cell Scan");
    int headRow = 0, nameCol = 0;
    Area used = ix->usedArea();
    for (int r = used.row1; r <= used.row2 && !headRow; ++r)
        for (int c = used.col1; c <= used.col2; ++c)
            if (Upper(Trim(CellText(ix->cell(r, c)))) == "SHEET NAME") {
                headRow = r;
                nameCol = c;
                break;
            }
    if (!headRow) {
        // A damaged index: the table starts again below the title.
        headRow = 2;
        nameCol = 1;
        ix->setCell(headRow, 1, "Sheet Name");
        ix->setCell(headRow, 2, "Date");
        ix->setCell(headRow, 3, "Description");
    }
    std::string wanted = Replace(Replace(sheetName, "  ", "_"), " ", "_");
    int last = ix->lastRow();
    int target = 0;
    for (int r = headRow + 1; r <= last; ++r) {
        std::string n = CellText(ix->cell(r, nameCol));
        if (n.empty()) continue;
        std::string clean = Replace(Replace(n, "  ", "_"), " ", "_");
        if (clean != n) ix->setCell(r, nameCol, clean);
        if (IEquals(clean, wanted)) target = r;
    }
    if (!target) target = std::max(last, headRow) + 1;
    ix->setCell(target, nameCol, wanted);
    ix->setCell(target, nameCol + 1, Value::date(when));
    ix->setNumberFormat(target, nameCol + 1, "d-mmm-yy hh:mm:ss");
    ix->setCell(target, nameCol + 2, description);

    p.chk = 4;
    SetStatusText("AddIndexItem: hyperlinks");
    ix->clearHyperlinks();
    last = ix->lastRow();
    for (int r = headRow + 1; r <= last; ++r) {
        std::string n = CellText(ix->cell(r, nameCol));
        if (n.empty() || !workbook->sheet(n)) continue;
        ix->addHyperlink(r, nameCol, SheetLink(workbook->sheet(n)->name()));
    }
    if (!save) return StatusOk();
    p.chk = 5;
    SetWorkbookProperties(*workbook);
    if (!workbook->save()) return FailAt(p, "Error Saving: " + workbook->path(), workbook->path());
    return StatusOk();
}

Status CheckExcel(WorkbookPtr& workbook, const std::string& folder, const std::string& name) {
    Proc p("Util(CheckExcel): ");
    p.chk = 1;
    if (workbook) {
        for (const WorkbookPtr& wb : Workbooks::All())
            if (wb == workbook) return StatusOk();
    }
    std::string path = folder;
    if (!path.empty() && path.back() != '/' && path.back() != '\\') path += "/";
    std::string file = name.empty() && workbook ? workbook->name() : name;
    path += file;
    if (FileOf(path).find('.') == std::string::npos) path += ".xlsx";
    p.chk = 2;
    Result<WorkbookPtr> r = Workbooks::Open(path);
    if (!r) {
        workbook.reset();
        return FailAt(p, r.failure().text.empty() ? "Cannot open workbook: " + path : r.failure().text, path);
    }
    workbook = *r;
    return StatusOk();
}

Status UpdateSpreadsheets(std::vector<std::string>* menu, Workbook* workbook) {
    Proc p("Utility(UpdateSpreadsheets): ");
    p.chk = 1;
    if (!menu) return p.fail("A form was not provided.");
    if (!workbook) return p.fail("A workbook was not provided.");
    std::vector<std::string> names = workbook->sheetNames();
    size_t n = std::max(menu->size(), names.size());
    menu->assign(n, "Empty");
    for (size_t i = 0; i < names.size(); ++i) (*menu)[i] = names[i];
    return StatusOk();
}

void xlwb_BeforeClose(const Workbook& xlwb, bool& cancel) { cancel = WorkbookBeforeClose(xlwb.name()); }

}  // namespace zorv
