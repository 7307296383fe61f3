// Reading the sheets of a data workbook: the data sheet, Sites, Information,
// Layout; making and updating Information.
#include <algorithm>
#include <cmath>

#include "base/identity.h"
#include "base/proc.h"
#include "base/report.h"
#include "app/strings.h"
#include "lot/lot.h"
#include "workbook/data_workbook.h"
#include "data_workbook_util.h"

namespace zorv {

using namespace dwb;

namespace {
std::string CutDataSheetSuffix(std::string s) {
    for (const char* suffix : {".XLSX", ".XLS", ".XLT"})
        if (IEndsWith(s, suffix)) return s.substr(0, s.size() - std::string_view(suffix).size());
    return s;
}
}  // namespace

Worksheet* GetDataSheet(Workbook* workbook, std::string_view name, bool quiet) {
    assert(workbook);
    std::string wanted = name.empty() ? BaseOf(workbook->name()) : std::string(name);
    std::string want = Upper(CutDataSheetSuffix(wanted)).substr(0, kMaxSheetName);
    const int n = workbook->sheetCount();
    for (int i = 1; i <= n; ++i)
        if (Upper(workbook->sheet(i)->name()) == want) return workbook->sheet(i);
    for (int i = 1; i <= n; ++i) {
        std::string up = Upper(workbook->sheet(i)->name());
        if (!want.empty() && up.rfind(want, 0) == 0) return workbook->sheet(i);
        for (const char* cut : {".XLS", ".X"}) {
            size_t at = up.rfind(cut);
            if (at != std::string::npos && at + std::string_view(cut).size() == up.size() &&
                up.substr(0, at) == want)
                return workbook->sheet(i);
        }
    }
    if (!quiet) {
        for (int i = 1; i <= n; ++i) {
            std::vector<Comment> cs = workbook->sheet(i)->comments();
            if (!cs.empty() && IEquals(Trim(cs.front().text), "DataSheet")) return workbook->sheet(i);
        }
    }
    Worksheet* first = workbook->sheet(1);
    if (!first) return nullptr;
    std::string q = "Cannot locate data sheet:'" + wanted + "' in workbook:'" + workbook->name() +
                    "'\r\nUse data from sheet: " + first->name() + " instead?";
    if (MsgBox(q, vbYesNo, ProductName()) == vbYes) {
        std::string newName = IEquals(first->name(), "Sheet1")
                                  ? std::string("OriginalData")
                                  : FixSheetName(CutDataSheetSuffix(wanted));
        if (!workbook->sheet(newName)) first->setName(newName);
        return first;
    }
    SetStatusText(" Aborting data load...");
    return nullptr;
}

namespace {
// The used area, from the sheet's own declaration when it has one, so that a
// large sheet need not be parsed to be measured.
Area UsedAreaOf(Worksheet& ws) {
    if (std::optional<Area> a = ws.declaredArea()) return *a;
    return ws.usedArea();
}
}  // namespace

Area DataSheetArea(Worksheet*& sheet, bool quiet) {
    assert(sheet);
    Area a = UsedAreaOf(*sheet);
    if (a.rows() < 2 || a.cols() < 2) {
        Worksheet* other = GetDataSheet(&sheet->workbook(), sheet->name(), quiet);
        if (other && other != sheet) {
            sheet = other;
            a = UsedAreaOf(*sheet);
        }
    }
    if (a.empty()) return Area{};
    SetStatusText(VersionLine() + ": Loading " + std::to_string(a.rows()) + " lines of data...");
    // From A1, so that a sheet's columns keep their letters (column A is 1).
    return Area{1, 1, a.row2, a.col2};
}

Datam GetWorksheetData(Worksheet*& sheet, long& rows, bool quiet) {
    rows = 0;
    Area a = DataSheetArea(sheet, quiet);
    if (a.empty()) return Datam();
    Datam t = sheet->range(a);
    rows = t.rowCount();
    SetStatusText(VersionLine() + ": Data Uploaded");
    return t;
}

Datam GetDataUnits(const Datam& table) {
    Datam units(0, 3, 0, 1);
    units(0, 1) = "Variable";
    units(0, 2) = "Units";
    units(0, 3) = "PlotFeature";
    if (!table.isArray() || table.dims() != 2 || table.rowCount() < 1) return units;
    const int hr = table.rowLb();
    int start = -1;
    for (int c = table.colLb(); c <= table.colUb() && start < 0; ++c)
        if (Upper(Trim(CellText(table(hr, c)))) == "FAMILY") start = c;
    for (int c = table.colLb(); c <= table.colUb() && start < 0; ++c)
        if (Upper(Trim(CellText(table(hr, c)))) == "Y_LOC") start = c;
    if (start < 0) return units;
    int n = 0;
    for (int c = start + 1; c <= table.colUb(); ++c) {
        const Value& h = table(hr, c);
        if (h.isError()) break;
        std::string head = CellText(h);
        size_t at = Upper(head).find("_UNITS");
        if (at == std::string::npos) continue;
        std::string unit;
        for (int r = hr + 1; r <= table.rowUb(); ++r) {
            const Value& v = table(r, c);
            if (v.isError()) break;
            if (v.textLength() > 0) unit = v.toString();
        }
        ++n;
        units.redimPreserve(n, 3);
        units(n, 1) = head.substr(0, at);
        units(n, 2) = unit;
    }
    return units;
}

Result<Datam> GetWorksheetSites(Workbook* workbook, double scale, Datam& units) {
    Proc p("Import(GetWorksheetSites): ");
    p.chk = 1;
    if (!workbook) return p.fail("Workbook not provided.");
    Worksheet* ws = workbook->sheet("Sites");
    if (!ws) {
        Failure f = p.fail(LoadResString(resNoSitesSheet));
        f.file = workbook->path();
        f.sheet = "Sites";
        return f;
    }
    if (ws->index() > 2) workbook->moveSheet(ws->name(), 0);
    p.chk = 2;
    auto empty = [&] {
        Failure f = p.fail(LoadResString(resSitesSheetEmpty));
        f.file = workbook->path();
        f.sheet = ws->name();
        return f;
    };
    Area a = ws->usedArea();
    if (a.row2 < 2 || a.col2 < 2) return empty();
    // The whole table with sheet row 1 as row 0 and column A as column 0.
    Datam raw = ws->range(Area{1, 1, a.row2, a.col2});
    Datam full(a.row2 - 1, a.col2 - 1, 0, 0);
    for (int r = 1; r <= a.row2; ++r)
        for (int c = 1; c <= a.col2; ++c) full(r - 1, c - 1) = raw(r, c);
    units = GetDataUnits(full);
    p.chk = 3;
    int xcol = -1;
    for (int c = 0; c <= full.colUb() && xcol < 0; ++c) {
        std::string h = Upper(Trim(CellText(full(0, c))));
        if (h == "X_LOC" || h == "XLOC" || h == "LOCX") xcol = c;
    }
    if (xcol < 0) xcol = 4;  // column E
    if (xcol > full.colUb()) return empty();
    Datam sites(full.rowUb(), full.colUb() - xcol + 1, 0, 1);
    for (int r = 0; r <= full.rowUb(); ++r)
        for (int c = xcol; c <= full.colUb(); ++c) sites(r, c - xcol + 1) = full(r, c);
    if (scale != 1.0) {
        for (int r = 1; r <= sites.rowUb(); ++r)
            for (int c = 1; c <= std::min(2, sites.colUb()); ++c)
                if (sites(r, c).isNumberType()) sites(r, c) = sites(r, c).toDouble() * scale;
    }
    return sites;
}

namespace {
// The key and value table of the Information sheet's cells (rows from 1).
Datam InfoTableFromSheet(Worksheet* ws) {
    int last = ws->lastRow();
    if (last < 1) return Datam();
    Datam cells = ws->range(Area{1, 1, last, 4});
    int row = -1, col = -1;
    FindFirstRow(cells, row, col, "DATA TYPE", kDefaultBound, 4, kDefaultBound, 1, true);
    if (row < 0) return Datam();
    Datam t(last - row + 1, 2, 1, 1);
    for (int r = row; r <= last; ++r) {
        t(r - row + 1, 1) = cells(r, col);
        t(r - row + 1, 2) = cells.get(r, col + 1);
    }
    return t;
}
}  // namespace

Status CreateInfoWorksheet(Workbook* workbook, Datam& table) {
    Proc p("Import(CreateInfoWorksheet): ");
    p.chk = 1;
    if (!workbook) return p.fail("A workbook reference was not provided.");
    table = Datam(kInformationKeyCount, 2, 1, 1);
    for (int i = 0; i < kInformationKeyCount; ++i) table(i + 1, 1) = kInformationKeys[i];
    table(infoDataTable, 2) = BaseOf(workbook->name());
    double dsx = 20, dsy = 20;
    if (Worksheet* s = workbook->sheet("Sites")) {
        const Value& b2 = s->cell(2, 2);
        const Value& c2 = s->cell(2, 3);
        if (IsNumericValue(b2)) dsx = b2.toDouble();
        if (IsNumericValue(c2)) dsy = c2.toDouble();
    }
    table(infoDieSizeX, 2) = dsx;
    table(infoDieSizeY, 2) = dsy;
    table(infoXDiceField, 2) = 1;
    table(infoYDiceField, 2) = 1;
    table(infoFlatLocation, 2) = "DOWN";
    p.chk = 2;
    Worksheet* ws = workbook->sheet("Information");
    if (!ws) ws = workbook->addSheet("Information");
    if (!ws) {
        Failure f = p.fail("Cannot add the 'Information' worksheet.");
        f.file = workbook->path();
        f.sheet = "Information";
        return f;
    }
    ws->setRange(1, 1, table);
    return StatusOk();
}

Result<Datam> GetWorksheetInspection(Workbook* workbook) {
    Proc p("Import(GetWorksheetInspection): ");
    p.chk = 1;
    if (!workbook) return p.fail("Workbook not provided.");
    Worksheet* ws = workbook->sheet("Information");
    Datam t;
    if (ws) t = InfoTableFromSheet(ws);
    if (!t.isArray()) {
        p.chk = 2;
        if (Status made = CreateInfoWorksheet(workbook, t); !made) return made.failure();
    }
    return t;
}

Result<bool> xlDataTypeCD(Workbook* workbook) {
    Proc p("Import(xlDataTypeCD): ");
    p.chk = 1;
    if (!workbook) return p.fail("Excel workbook not provided.");
    auto fail = [&](std::string text) {
        Failure f = p.fail(std::move(text));
        f.file = workbook->path();
        f.sheet = "Information";
        return f;
    };
    Worksheet* ws = workbook->sheet("Information");
    if (!ws) return fail("Not a proper data workbook. 'Information' data sheet not present.");
    Datam cells = ws->range(Area{1, 1, 5, 11});
    int row = -1, col = -1;
    FindFirstRow(cells, row, col, "Data Type", 5, 10, 1, 1, true);
    if (row < 0) return fail(workbook->name() + " does not contain a Zorv Information data sheet.");
    std::string t = Upper(Trim(CellText(cells(row, col + 1))));
    return t == "SCATTER" || t == "CDSEM";
}

Status UpdateXLInformation(Workbook* workbook, const cLot* lot) {
    Proc p("Import(UpdateXLInformation): ");
    p.chk = 1;
    if (!workbook || !lot) return p.fail("Please reload data.");
    Worksheet* ws = workbook->sheet("Information");
    if (!ws) {
        Datam t;
        if (Status made = CreateInfoWorksheet(workbook, t); !made) return made;
        ws = workbook->sheet("Information");
    }
    p.chk = 2;
    struct Item {
        std::vector<const char*> keys;
        Value value;
    };
    const Item items[] = {
        {{"DieSizeX"}, Value(lot->DieSizeX / 1000.0)},
        {{"DieSizeY", "DiesizeY"}, Value(lot->DieSizeY / 1000.0)},
        {{"SiteXoffset", "Site_x_offset", "SiteOffsetX"}, Value(lot->SiteXoffset / 1000.0)},
        {{"SiteYoffset", "Site_y_offset", "SiteOffsetY"}, Value(lot->SiteYoffset / 1000.0)},
        {{"Die_x_offset", "Die_X_offset"}, Value(lot->DieXoffset / 1000.0)},
        {{"Die_y_offset", "Die_Y_offset"}, Value(lot->DieYoffset / 1000.0)},
        {{"Die_x_array", "Die_X_array"}, Value(static_cast<double>(lot->DieXarray))},
        {{"Die_y_array", "Die_Y_array"}, Value(static_cast<double>(lot->DieYarray))},
        {{"Flat Location", "Notch"}, Value(Upper(lot->GetNotchString()))},
        {{"WaferSize", "Wafer Size", "WAFERSIZE"}, Value(lot->WaferSize / 1000.0)},
    };
    int last = std::max(1, ws->lastRow());
    for (const Item& it : items) {
        int found = 0;
        for (int r = 1; r <= last && !found; ++r) {
            std::string k = Trim(CellText(ws->cell(r, 1)));
            for (const char* key : it.keys)
                if (IEquals(k, key)) found = r;
        }
        if (!found) {
            if (std::string_view(it.keys[0]) != "WaferSize") continue;
            found = ++last;
            ws->setCell(found, 1, "WaferSize");
        }
        ws->setCell(found, 2, it.value);
    }
    p.chk = 3;
    if (!workbook->readOnly() && !workbook->save()) {
        Failure f = p.fail("Error Saving: " + workbook->path());
        f.file = workbook->path();
        return f;
    }
    return StatusOk();
}

bool GetLayoutData(Workbook* workbook, Datam& layoutSetup, Datam& layoutValues) {
    layoutSetup = Datam();
    layoutValues = Datam();
    if (!workbook) return false;
    Worksheet* ws = workbook->sheet("Layout");
    if (!ws) return false;
    Area a = ws->usedArea();
    if (a.empty()) return false;
    Datam u = ws->range(Area{1, 1, a.row2, a.col2});
    // The first table stands at the left: of the "Variable" and "Wafer"
    // headers the one in the lower column (the second table has both words).
    int hr = -1, hc = -1, wr = -1, wcol = -1;
    FindFirstRow(u, hr, hc, "Variable", kDefaultBound, kDefaultBound, kDefaultBound, kDefaultBound, true);
    FindFirstRow(u, wr, wcol, "Wafer", kDefaultBound, kDefaultBound, kDefaultBound, kDefaultBound, true);
    if (hr < 0 || (wr >= 0 && wcol < hc)) {
        hr = wr;
        hc = wcol;
    }
    if (hr < 0) return false;
    auto blankRow = [&](int r, int c0, int width) {
        for (int c = c0; c < c0 + width; ++c)
            if (u.get(r, c).textLength() > 0) return false;
        return true;
    };
    // Header width of the first table: up to the first empty header cell.
    int width = 0;
    while (hc + width <= u.colUb() && u(hr, hc + width).textLength() > 0) ++width;
    int take = std::min(width, 10);
    if (take < 8) take = std::min(8, u.colUb() - hc + 1);
    int last = hr;
    while (last + 1 <= u.rowUb() && !blankRow(last + 1, hc, std::max(1, std::min(take, 8)))) ++last;
    layoutSetup = Datam(last - hr, 10, 0, 1);
    for (int r = hr; r <= last; ++r)
        for (int c = 0; c < take; ++c) layoutSetup(r - hr, c + 1) = u.get(r, hc + c);
    static const char* const defaults[] = {"Wafer", "Field", "Diex",    "Diey",    "Focus",
                                           "Dose",  "NA",    "PCinner", "PCouter", "ScanDirection"};
    for (int c = 1; c <= 10; ++c)
        if (layoutSetup(0, c).textLength() == 0) layoutSetup(0, c) = defaults[c - 1];

    int vr = -1, vc = -1;
    FindFirstRow(u, vr, vc, "Wafer", kDefaultBound, kDefaultBound, kDefaultBound, hc + std::max(width, 1),
                 true);
    if (vr >= 0) {
        int vw = 0;
        while (vc + vw <= u.colUb() && u(vr, vc + vw).textLength() > 0) ++vw;
        vw = std::max(vw, 2);
        int vl = vr;
        while (vl + 1 <= u.rowUb() && !blankRow(vl + 1, vc, 2)) ++vl;
        layoutValues = Datam(vl - vr, vw, 0, 1);
        for (int r = vr; r <= vl; ++r)
            for (int c = 0; c < vw; ++c) layoutValues(r - vr, c + 1) = u.get(r, vc + c);
    }
    return true;
}

Status WriteUnitsToWorkbook(cLot& lot) {
    Proc p("cLot(UpdateUnits2Workbook): ");
    p.chk = 1;
    auto wb = std::static_pointer_cast<Workbook>(lot.xlwb);
    if (!wb) return p.fail("Please reload data.");
    Worksheet* ws = wb->sheet("Sites");
    if (!ws) {
        Failure f = p.fail(LoadResString(resNoSitesSheet));
        f.file = wb->path();
        f.sheet = "Sites";
        return f;
    }
    p.chk = 2;
    const int lastCol = ws->lastCol(), lastRow = std::max(2, ws->lastRow());
    int written = 0;
    for (int c = 1; c <= lastCol; ++c) {
        std::string head = CellText(ws->cell(1, c));
        size_t at = Upper(head).find("_UNITS");
        if (at == std::string::npos) continue;
        int feature = lot.GetPlotFeature(head.substr(0, at));
        if (feature < 1 || feature > 8) continue;
        std::string text;
        long code = 0;
        if (!lot.GetPlotFeatureUnits(feature, text, code)) continue;
        // The unit is the last filled cell of the column.
        int row = 2;
        for (int r = lastRow; r >= 2; --r)
            if (ws->cell(r, c).textLength() > 0) {
                row = r;
                break;
            }
        ws->setCell(row, c, text);
        ++written;
    }
    p.chk = 3;
    if (written && !wb->readOnly() && !wb->save()) {
        Failure f = p.fail("Error Saving: " + wb->path());
        f.file = wb->path();
        return f;
    }
    return StatusOk();
}

void InstallDataWorkbookHooks() {
    static bool done = false;
    if (done) return;
    done = true;
    // The lot's hook answers 1 or -1, so the failure is shown where it stops.
    cLot::UpdateUnits2WorkbookHook() = [](cLot& lot) {
        Status s = WriteUnitsToWorkbook(lot);
        if (!s) Report(s.failure());
        return s ? 1 : -1;
    };
}

}  // namespace zorv
