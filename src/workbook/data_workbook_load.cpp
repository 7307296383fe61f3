// Import(GetExcelWBLot): builds a cLot from a data workbook. The driver at the
// end reads as the load's steps; each raises its own checkpoints (1 to 29), so
// a failure still tells how far the load got.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/identity.h"
#include "base/marks.h"
#include "base/proc.h"
#include "base/regional.h"
#include "base/report.h"
#include "app/settings.h"
#include "app/strings.h"
#include "lot/lot.h"
#include "workbook/data_workbook.h"
#include "data_workbook_util.h"

namespace zorv {

using namespace dwb;
namespace fs = std::filesystem;

namespace {

bool Exists(const std::string& p) {
    std::error_code ec;
    return fs::is_regular_file(p, ec);
}

// A cell read as a number the way the row loop needs it: numbers as they are,
// text through the numeric test. False for blanks and other text.
inline bool NumberOf(const Value& v, double& out) {
    switch (v.type()) {
        case VType::Double: out = v.toDouble(); return true;
        case VType::Integer:
        case VType::Long:
        case VType::Single:
        case VType::Boolean:
        case VType::Date: out = v.toDouble(); return true;
        case VType::String:
            if (!IsNumericValue(v)) return false;
            if (!ParseNumber(v.str(), out)) {
                std::string s = Replace(v.str(), "%", "");
                return ParseNumber(s, out);
            }
            return true;
        default: return false;
    }
}

// Length at least 1, without formatting numbers (which are never blank).
inline bool NonBlank(const Value& v) {
    if (v.isString()) return !v.str().empty();
    return !(v.isEmpty() || v.isNull());
}

std::string DateText(double serial) {
    CivilTime t = CivilFromSerial(serial);
    char buf[32];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02d", t.year, t.month, t.day);
    return buf;
}
std::string TimeText(double serial) {
    CivilTime t = CivilFromSerial(serial);
    char buf[32];
    std::snprintf(buf, sizeof buf, "%02d:%02d:%02d", t.hour, t.minute, t.second);
    return buf;
}

// The value of a key of the information table (key column 1, value 2),
// case-insensitive; empty when missing.
Value InfoByKey(const Datam& info, std::string_view key) {
    if (!info.isArray()) return Value();
    for (int r = info.rowLb(); r <= info.rowUb(); ++r)
        if (CellIs(info(r, info.colLb()), key)) return info.get(r, info.colLb() + 1);
    return Value();
}

double Num(const Value& v, double def = 0) {
    double d;
    return NumberOf(v, d) ? d : def;
}

void CalcSiteStep(cLot& lot) {
    std::vector<float> xs, ys;
    for (cWafer* w : lot.Wafers()) {
        for (cField* f : w->Fields())
            for (cSite* s : f->sites()) {
                xs.push_back(s->LocationX);
                ys.push_back(s->LocationY);
            }
        for (cSite* s : w->SitesWafer()) {
            xs.push_back(s->LocationX);
            ys.push_back(s->LocationY);
        }
        break;  // the sites of one wafer describe the grid
    }
    auto step = [](std::vector<float>& v) {
        std::sort(v.begin(), v.end());
        float best = 0;
        for (size_t i = 1; i < v.size(); ++i) {
            float d = v[i] - v[i - 1];
            if (d > 0.5f && (best == 0 || d < best)) best = d;
        }
        return best;
    };
    lot.SiteStepX = step(xs);
    lot.SiteStepy = step(ys);
}

float SnapFirst(float est) {
    if (est > 200000) return 300000;
    if (est > 100000) return 200000;
    if (est > 75000) return 100000;
    if (est > 50000) return 75000;
    return 200000;
}
float SnapSecond(float est) {
    if (est < 60000) return 50000;
    if (est < 77000) return 75000;
    if (est < 130000) return 100000;
    if (est < 220000) return 200000;
    if (est < 320000) return 300000;
    if (est < 370000) return 350000;
    if (est < 420000) return 400000;
    return 200000;
}

void ApplyLayoutValues(cLot& lot, const Datam& values) {
    if (!values.isArray() || values.rowUb() < 1) return;
    const int c0 = values.colLb();
    for (cWafer* w : lot.Wafers()) {
        for (int r = values.rowLb() + 1; r <= values.rowUb(); ++r) {
            std::string wk = CellText(values(r, c0));
            if (!wk.empty() && !IEquals(wk, w->KeyName)) continue;
            std::string var = CellText(values.get(r, c0 + 1));
            if (var.empty()) continue;
            cLayout* lay = nullptr;
            for (cLayout& l : w->Layouts)
                if (IEquals(l.VariableName, var)) lay = &l;
            if (!lay) {
                w->Layouts.push_back(cLayout{});
                lay = &w->Layouts.back();
                lay->VariableName = var;
            }
            for (int c = c0 + 2; c <= values.colUb(); ++c) {
                std::string h = Upper(CellText(values(values.rowLb(), c)));
                const Value& v = values(r, c);
                if (h == "DIEXO") lay->DieXo = static_cast<float>(Num(v));
                else if (h == "DIEYO") lay->DieYo = static_cast<float>(Num(v));
                else if (h == "INITIALVALUE") lay->InitialValue = static_cast<float>(Num(v));
                else if (h == "STEP") lay->Step = static_cast<float>(Num(v));
                else if (h == "MEANDER") lay->Meander = CellText(v);
                else if (h == "SCAN1") lay->Scan1 = CellText(v);
                else if (h == "SCAN2") lay->Scan2 = CellText(v);
                else if (h == "CONTROLINDEX") lay->ControlIndex = static_cast<int>(Num(v));
            }
        }
        if (lot.DataSource() == eDataSourceThermal) break;
    }
}

}  // namespace

// Import(FPdata2Lot): the field table of the Layout sheet ("Wafer", "Field",
// "Diex", "Diey", "Focus", "Dose", "NA", "PCinner", "PCouter",
// "ScanDirection") gives each field of the lot its exposure. Rows find their
// field by wafer and column and row; a numeric wafer name is matched with the
// "W" the loader puts before it.
void FPdata2Lot(cLot& lot, const Datam& fp) {
    if (!fp.isArray() || fp.rowUb() < 1 || fp.colUb() < 6) return;
    const int c0 = fp.colLb();
    cWafer* w = nullptr;
    std::string lastKey;
    // The fields of the current wafer by column and row.
    std::map<std::pair<float, float>, cField*> grid;
    for (int r = fp.rowLb() + 1; r <= fp.rowUb(); ++r) {
        std::string key = CellText(fp(r, c0));
        if (key.empty() || !IsNumericValue(fp(r, c0 + 2)) || !IsNumericValue(fp(r, c0 + 3))) continue;
        if (key != lastKey) {
            w = nullptr;
            lastKey = key;
            for (cWafer* x : lot.Wafers())
                if (IEquals(x->KeyName, key) || IEquals(x->WaferID, key) ||
                    (IsNumericValue(fp(r, c0)) && IEquals(x->KeyName, "W" + key)))
                    w = x;
            grid.clear();
            if (w)
                for (cField* f : w->Fields()) grid.emplace(std::make_pair(f->DieX, f->DieY), f);
        }
        if (!w) continue;
        auto it = grid.find({static_cast<float>(fp(r, c0 + 2).toDouble()), static_cast<float>(fp(r, c0 + 3).toDouble())});
        if (it == grid.end()) continue;
        cField* f = it->second;
        auto num = [&](int c, float& out) {
            if (c <= fp.colUb() && IsNumericValue(fp(r, c))) out = static_cast<float>(fp(r, c).toDouble());
        };
        num(c0 + 4, f->Focus);
        num(c0 + 5, f->Dose);
        num(c0 + 6, f->NA);
        num(c0 + 7, f->PCinner);
        num(c0 + 8, f->PCouter);
        if (c0 + 9 <= fp.colUb() && fp(r, c0 + 9).textLength() > 0) f->SetDirection(CellText(fp(r, c0 + 9)));
    }
}

namespace {

// ---------------------------------------------------------------- the steps

// The workbook of one load. A load that fails closes the workbook again when
// it opened it itself ("Close Apps..."); one the process held stays open.
struct LoadSession {
    std::string path;  // the file, with the extension that was found
    std::string baseName, cleanBase, wanted;
    WorkbookPtr wb;
    Worksheet* ws = nullptr;  // the data sheet
    bool openedHere = false;
    bool done = false;
    Area area;  // of the data table, from A1

    LoadSession() = default;
    LoadSession(const LoadSession&) = delete;
    LoadSession& operator=(const LoadSession&) = delete;
    ~LoadSession() {
        if (done || !openedHere || !wb) return;
        SetStatusText("Close Apps...");
        Workbooks::Close(wb);
        SetStatusText("XL Apps Closed");
    }
    // A failure of the load at the current checkpoint, naming the file and
    // the data sheet.
    Failure fail(Proc& p, std::string text) const {
        Failure f = p.fail(std::move(text));
        f.file = path;
        if (ws) f.sheet = ws->name();
        return f;
    }
    // A routine's own failure, told which file it was about.
    Failure located(Failure f) const {
        if (f.file.empty()) f.file = path;
        return f;
    }
};

// Checkpoint 1: the file as given, else with the usual extensions. A workbook
// open in the process counts as found; it is looked up here once.
Status FindWorkbookFile(Proc& p, const std::string& given, LoadSession& s) {
    p.chk = 1;
    s.path = given;
    if (!Exists(s.path)) {
        for (const char* ext : {".xlsx", ".XLS", ".xls", ".XLT"})
            if (Exists(given + ext)) {
                s.path = given + ext;
                break;
            }
    }
    const bool open = Workbooks::Find(s.path) != nullptr;
    if (!Exists(s.path) && !open) {
        Failure f = p.fail("Cannot find file: " + given);
        f.file = given;
        return f;
    }
    s.openedHere = !open;
    return StatusOk();
}

// Checkpoint 6: the data sheet's cells and the size of its table.
Status ReadDataArea(Proc& p, LoadSession& s, bool quiet) {
    p.chk = 6;
    // A sheet whose part cannot be read says why, rather than reading as empty.
    // One that declares its size is not parsed here: its rows stream later,
    // and a damaged part fails then, at this checkpoint.
    if (!s.ws->declaredArea())
        if (Status ls = s.ws->load(); !ls) return s.fail(p, ls.failure().text);
    if (Worksheet* sitesSheet = s.wb->sheet("Sites")) {
        if (Status ls = sitesSheet->load(); !ls) {
            Failure f = s.fail(p, ls.failure().text);
            f.sheet = sitesSheet->name();
            return f;
        }
    }
    s.area = DataSheetArea(s.ws, quiet);
    if (s.area.empty()) return s.fail(p, std::string(LoadResString(resNoDataRows)) + " (" + s.wb->name() + ")");
    SetStatusText(VersionLine() + ": Data Uploaded");
    return StatusOk();
}

// The data sheet's part found damaged while its rows stream: the failure its
// load would have given at checkpoint 6.
Failure DataSheetFailure(Proc& p, const LoadSession& s, const Failure& read) {
    p.chk = 6;
    return s.fail(p, read.text);
}

// Rows 1 to lastRow, columns 1 to nCols, of the data sheet as a table from
// (1, 1), read from the stream of its rows.
Status ReadTopRows(Worksheet& ws, int lastRow, int nCols, Datam& out) {
    out = Datam(lastRow, nCols, 1, 1);
    Value* dst = out.data();
    return ws.forEachRow([&](int row, const Value* cells, int count) {
        if (row > lastRow) return false;
        Value* d = dst + static_cast<size_t>(row - 1) * static_cast<size_t>(nCols);
        for (int c = 0, n = std::min(count, nCols); c < n; ++c) d[c] = cells[c];
        return true;
    });
}

// Checkpoints 3 to 6: the workbook opened, its data sheet found and read.
Status OpenDataSheet(Proc& p, LoadSession& s, const LoadOptions& options) {
    p.chk = 3;
    s.baseName = BaseOf(s.path);
    s.cleanBase = FixSheetName(s.baseName);
    s.wanted = FixSheetName(options.sheetName.empty() ? s.baseName : options.sheetName);
    SetStatusText("Get " + s.baseName + " data...");

    p.chk = 4;
    if (Status opened = OpenExcelWorksheet(s.path, s.wb, &s.ws, false); !opened) {
        s.wb.reset();
        return s.located(opened.failure());
    }
    assert(s.wb);
    if (!s.ws || !IEquals(s.ws->name(), s.wanted)) s.ws = GetDataSheet(s.wb.get(), s.wanted, options.quiet);
    // No sheet: the user answered No to the question, which said it all.
    if (!s.ws) return s.located(p.failure());

    p.chk = 5;
    s.wb->activate(s.ws);
    SetStatusText(ApplicationTitle() + ": Configuring data ...");
    return ReadDataArea(p, s, options.quiet);
}

// One row of the site table, prepared once for the row loop.
struct SiteRow {
    float x = 0, y = 0;  // um
    bool ok = false;     // X and Y present
    long family = 0;     // row of the family table
    std::string key;     // the site number as text
    std::string familyName;
};

// The site table as the row loop uses it, and the family table.
struct SiteTable {
    Datam families;   // "Enum", "FamilyName", "Count", "Selected"
    int famCol = -1;  // the "FAMILY" column of the site table; -1 without one
    std::vector<SiteRow> rows;  // by site number, from 1
    int count() const { return static_cast<int>(rows.size()) - 1; }
};

// Each site row's location, key and family; a family name met for the first
// time gets its row in the family table.
void PrepareSiteRows(const Datam& sites, SiteTable& t) {
    const int n = std::max(0, sites.rowUb());
    t.rows.assign(static_cast<size_t>(n) + 1, SiteRow{});
    std::unordered_map<std::string, long> famIndex;
    for (int r = 1; r <= n; ++r) {
        SiteRow& sr = t.rows[r];
        double x, y;
        const Value& vx = sites.get(r, 1);
        const Value& vy = sites.get(r, 2);
        sr.ok = vx.textLength() > 0 && vy.textLength() > 0 && NumberOf(vx, x) && NumberOf(vy, y);
        if (sr.ok) {
            sr.x = static_cast<float>(x * 1000);
            sr.y = static_cast<float>(y * 1000);
        }
        sr.key = std::to_string(r);
        if (t.famCol < 0) continue;
        std::string fn = CellText(sites.get(r, t.famCol));
        auto it = famIndex.find(fn);
        if (it == famIndex.end()) {
            long row = t.families.rowUb() + 1;
            t.families.redimPreserve(row, 3);
            t.families(row, 0) = static_cast<int32_t>(row);
            t.families(row, 1) = fn;
            t.families(row, 2) = 0;
            t.families(row, 3) = true;
            it = famIndex.emplace(fn, row).first;
        }
        sr.family = it->second;
        sr.familyName = fn;
    }
}

// Checkpoints 7 and 8: the sites and their units, and the family table.
Status ReadSites(Proc& p, const LoadSession& s, WBLotTables& T, SiteTable& t) {
    p.chk = 7;
    Result<Datam> sites = GetWorksheetSites(s.wb.get(), 1.0, T.units);
    if (!sites) return s.located(sites.failure());
    T.sites = std::move(*sites);

    p.chk = 8;
    const Datam& st = T.sites;
    for (int c = st.colLb(); c <= st.colUb(); ++c)
        if (Upper(Trim(CellText(st(0, c)))) == "FAMILY") t.famCol = c;
    t.families = Datam(0, 3, 0, 0);
    t.families(0, 0) = "Enum";
    t.families(0, 1) = "FamilyName";
    t.families(0, 2) = "Count";
    t.families(0, 3) = "Selected";
    if (t.famCol < 0) {
        t.families.redimPreserve(1, 3);
        t.families(1, 0) = 1;
        t.families(1, 1) = "IsoLine";
        t.families(1, 2) = 1;
        t.families(1, 3) = true;
    }
    PrepareSiteRows(st, t);
    return StatusOk();
}

// What the Information sheet says before the lot exists.
struct InfoHeader {
    std::string notchText;
    double givenMm = 0;  // "WaferSize"; 0 when not given
};

// Checkpoint 9: the Information keys. A sheet that cannot be made is told, and the
// load goes on without its keys.
InfoHeader ReadInformation(Proc& p, const LoadSession& s, WBLotTables& T) {
    p.chk = 9;
    Result<Datam> info = GetWorksheetInspection(s.wb.get());
    if (info) T.information = std::move(*info);
    else Report(s.located(info.failure()));
    InfoHeader h;
    h.notchText = CellText(InfoByKey(T.information, "Flat Location"));
    double d;
    if (NumberOf(InfoByKey(T.information, "WaferSize"), d)) h.givenMm = d;
    return h;
}

// Checkpoints 10 and 11: a new lot in place of the old one.
cLot& NewLot(Proc& p, std::shared_ptr<cLot>& lot, const InfoHeader& h, const LoadOptions& options) {
    p.chk = 10;
    if (lot) lot->Kill();
    lot = cLot::create();
    cLot& L = *lot;

    p.chk = 11;
    const std::string n = Lower(Trim(h.notchText));
    L.Notch = n == "left"    ? static_cast<float>(kPi)
              : n == "right" ? 0.0f
              : n == "up"    ? static_cast<float>(kPi / 2)
                             : static_cast<float>(-kPi / 2);
    L.FocusReportCorrections = options.focusReportCorrections;
    if (h.givenMm > 0) L.WaferSize = static_cast<float>(h.givenMm * 1000);
    return L;
}

// The keys the lot takes by position, "Data Type" to "strReticle", and the
// dates they give.
struct KeyRows {
    std::vector<Value> row = std::vector<Value>(kInformationKeyCount + 1);
    double measured = 0, measuredTime = 0, processed = 0;  // serial dates
    double dieSizeXmm = 0, dieSizeYmm = 0;                  // non-numeric: 0
};

// Checkpoint 12: the keys by position.
KeyRows StoreKeysByPosition(Proc& p, cLot& L, const Datam& info, const LoadSession& s) {
    p.chk = 12;
    KeyRows k;
    int r0 = -1, c0 = -1;
    if (info.isArray())
        FindFirstRow(info, r0, c0, "Data Type", kDefaultBound, kDefaultBound, kDefaultBound, kDefaultBound, true);
    if (r0 >= 0)
        for (int i = 1; i <= infoReticle; ++i) k.row[i] = info.get(r0 + i - 1, c0 + 1);
    // A date that is missing, or reads as -1, is today; a time, now.
    auto dateOf = [&](int key, double fallback) {
        double d;
        const Value& v = k.row[key];
        return v.textLength() > 0 && DateExtract(v, d) && d != -1 ? d : fallback;
    };
    k.measured = dateOf(infoDate, SerialToday());
    k.measuredTime = dateOf(infoMeasureTime, SerialNow());
    k.processed = dateOf(infoProcessDate, k.measured);
    k.dieSizeXmm = Num(k.row[infoDieSizeX]);
    k.dieSizeYmm = Num(k.row[infoDieSizeY]);
    L.LotName = CellText(k.row[infoLot]);
    if (L.LotName.empty()) L.LotName = s.baseName;
    L.MetrologyTool = CellText(k.row[infoMetrologynom]);
    L.ExposureTool = CellText(k.row[infoExposureTool]);
    L.ProcessStep = CellText(k.row[infoProcessStep]);
    L.ReWork = CellText(k.row[infoRework]);
    L.UserName = CellText(k.row[infoUserName]);
    L.ReticleName = k.row[infoReticle];
    return k;
}

// The exposure program of the Information keys, for the fields.
struct Exposure {
    double NA = 0, PCinner = 0, PCouter = 0;
    double focus = 0, focusStep = 0;  // "Fo", "FocusStep"
    double dose = 0, doseStep = 0;
};

// Checkpoint 13: the exposure values by key.
Exposure StoreExposureKeys(Proc& p, cLot& L, const Datam& info) {
    p.chk = 13;
    Exposure e;
    e.NA = Num(InfoByKey(info, "NA"));
    e.PCinner = Num(InfoByKey(info, "PCinner"));
    e.PCouter = Num(InfoByKey(info, "PCouter"));
    e.focus = Num(InfoByKey(info, "Fo"));
    e.focusStep = Num(InfoByKey(info, "FocusStep"));
    e.dose = Num(InfoByKey(info, "Dose"));
    e.doseStep = Num(InfoByKey(info, "DoseStep"));
    const Value t = InfoByKey(info, "ExposureToolType");
    double d;
    if (NumberOf(t, d)) L.ExposureToolType = static_cast<long>(d);
    else L.ExposureToolType = Upper(Trim(CellText(t))) == "STEPPER" ? 1 : 0;  // "SCANNER" and anything else: 0
    return e;
}

// Checkpoints 14 to 16: data type, names and geometry (micrometres).
void StoreNamesAndGeometry(Proc& p, cLot& L, const KeyRows& k, const LoadSession& s) {
    p.chk = 14;
    L.DataSource(DataSourceOfText(CellText(k.row[infoDataType])));

    p.chk = 15;
    const std::string& sheet = s.ws->name();
    const bool ownName = IEquals(sheet, s.cleanBase);
    L.FileName = ownName ? s.baseName : s.baseName + " [" + sheet + "]";
    L.DataSheetName = ownName ? std::string() : sheet;
    L.FilePath = FolderOf(s.path);
    L.DateMeasured = DateText(k.measured);
    L.TimeMeasured = TimeText(k.measuredTime);
    L.ProcessDate = k.processed;

    p.chk = 16;
    L.DieSizeX = static_cast<float>(k.dieSizeXmm * 1000);
    L.DieSizeY = static_cast<float>(k.dieSizeYmm * 1000);
    L.SiteXoffset = static_cast<float>(Num(k.row[infoSiteXoffset]) * 1000);
    L.SiteYoffset = static_cast<float>(Num(k.row[infoSiteYoffset]) * 1000);
    L.DieXarray = static_cast<float>(Num(k.row[infoDieXarray]));
    L.DieYarray = static_cast<float>(Num(k.row[infoDieYarray]));
    L.DieXoffset = static_cast<float>(Num(k.row[infoDieXoffset]) * 1000);
    L.DieYoffset = static_cast<float>(Num(k.row[infoDieYoffset]) * 1000);
    L.CullRadiusSetting = L.WaferSize / 2;
    L.xlwb = s.wb;
}

// Where the data sheet keeps its header and columns (sheet rows and columns,
// from 1).
struct DataColumns {
    int headerRow = -1;
    int wafer = -1;          // the wafer column; Test, DieX and DieY follow it
    bool waferIn = false;    // the wafer column lies within the table
    bool indicesIn = false;  // so do Test, DieX and DieY
    int values[8] = {};      // the value columns in order, within the table
    int nValues = 0;
    double dieX = 0, dieY = 0;  // die sizes for the rows, um, from at least 1 mm
};

// The feature names from the header row.
void StoreValueNames(cLot& L, const Datam& head, int hr, int wc, int nCols) {
    auto name = [&](int c) { return Trim(CellText(head.get(hr, c))); };
    L.ValueV_Name = name(wc + 4);
    L.ValueH_Name = name(wc + 5);
    if (nCols > 6) {
        L.valueZ_Name = name(wc + 6);
        if (L.valueZ_Name.empty()) L.valueZ_Name = L.DataSource() == eDataSourceFocus ? "Mean" : "Length";
    } else if (!L.LineWidthType) {
        // The lot keeps no flag for a derived Z; its name tells.
        L.valueZ_Name = "Mean";
    }
    std::string* more[] = {&L.Slope_Name, &L.Pitch_Name, &L.ValueA_Name, &L.ValueB_Name, &L.ValueC_Name};
    for (int i = 0; i < 5; ++i)
        if (wc + 7 + i <= head.colUb()) *more[i] = name(wc + 7 + i);
}

// Checkpoints 17 to 20: the shape of the data table, its header and columns.
Result<DataColumns> FindColumns(Proc& p, const LoadSession& s, cLot& L, const KeyRows& k) {
    p.chk = 17;
    const int nCols = s.area.col2;
    if (nCols < 3) return s.fail(p, "Improper worksheet setup. Only " + std::to_string(nCols) + " columns of data.");
    if (s.area.row2 < 2) return s.fail(p, "There are no data rows to import from worksheet.");

    p.chk = 18;
    Datam head;
    if (Status read = ReadTopRows(*s.ws, std::min(s.area.row2, 1000), nCols, head); !read)
        return DataSheetFailure(p, s, read.failure());
    DataColumns c;
    int hc = -1;
    auto find = [&](const char* text) {
        return FindFirstRow(head, c.headerRow, hc, text, kDefaultBound, kDefaultBound, kDefaultBound,
                            kDefaultBound, true) >= 0;
    };
    if (find("Wafer")) c.wafer = hc;
    else if (find("Test")) c.wafer = hc - 1;
    else if (find("DieX")) c.wafer = hc - 2;
    if (c.wafer < 0 && c.headerRow < 0) return s.fail(p, "This is not a proper format data sheet.");

    p.chk = 19;
    StoreValueNames(L, head, c.headerRow, c.wafer, nCols);
    auto inTable = [&](int col) { return col >= head.colLb() && col <= head.colUb(); };
    c.waferIn = inTable(c.wafer);
    c.indicesIn = inTable(c.wafer + 1) && inTable(c.wafer + 2) && inTable(c.wafer + 3);
    for (int i = 0; i < 8; ++i)
        if (inTable(c.wafer + 4 + i)) c.values[c.nValues++] = c.wafer + 4 + i;

    p.chk = 20;
    c.dieX = std::max(1.0, k.dieSizeXmm) * 1000;
    c.dieY = std::max(1.0, k.dieSizeYmm) * 1000;
    return c;
}

// Checkpoints 21 and 22: the walk of the data rows into the tree. It holds the
// current wafer, field and site between rows; a row costs nothing beyond the
// objects it adds to the tree.
class TreeBuilder {
public:
    TreeBuilder(cLot& lot, const DataColumns& cols, SiteTable& sites, bool splitByField)
        : L_(lot), c_(cols), sites_(sites), split_(splitByField), ds_(lot.DataSource()),
          famCount_(static_cast<size_t>(sites.families.rowUb()) + 1, 0) {}

    // One data row, its cells from column 1 at row[1]. False ends the loop.
    bool addRow(const Value* row) {
        double test, dieX, dieY;
        col_ = c_.wafer + 1;
        if (!c_.indicesIn || !NumberOf(row[c_.wafer + 1], test) || !NumberOf(row[c_.wafer + 2], dieX) ||
            !NumberOf(row[c_.wafer + 3], dieY))
            return true;
        col_ = c_.wafer;
        // A blank name only counts: the row still goes in, under a wafer
        // AddWafer names; five in a row end the loop.
        const bool named = c_.waferIn && NonBlank(row[c_.wafer]);
        if (!named && ++emptyNames_ >= 5) return false;
        if (named) emptyNames_ = 0;
        enterWafer(named ? row[c_.wafer] : kBlank);
        col_ = c_.wafer + 2;
        if (split_) enterField(dieX, dieY);
        col_ = c_.wafer + 1;
        const long siteNo = static_cast<long>(std::floor(test));
        if (!enterSite(siteNo)) return true;
        addPoint(row, siteNo);
        return true;
    }

    // After the rows: families, the field index range, units.
    void finish(const Datam& units) {
        SiteTable& t = sites_;
        if (t.famCol >= 0)
            for (int i = 1; i <= t.families.rowUb(); ++i) t.families(i, 2) = famCount_[i];
        L_.FamilyNames = t.families;
        if (split_ && haveRange()) {
            L_.DieXmax = static_cast<float>(dieXmax_);
            L_.DieYmax = static_cast<float>(dieYmax_);
            L_.DieXmin = static_cast<float>(dieXmin_);
            L_.DieYmin = static_cast<float>(dieYmin_);
        }
        L_.UpdateUnits(units);
    }

    // The column whose cell was being handled, for a failure of the row.
    int column() const { return col_; }
    // Where the field count of the exposure program starts: the value count
    // of the last row plus one, or 0 when no row got that far.
    int nextField() const { return kLeft_; }
    bool haveRange() const { return dieXmin_ <= dieXmax_; }
    double spanX() const { return haveRange() ? dieXmax_ - dieXmin_ : 0; }
    double spanY() const { return haveRange() ? dieYmax_ - dieYmin_ : 0; }

private:
    // A change of name clears the current wafer; AddWafer finds or
    // makes it. A blank name goes in blank, and AddWafer names it.
    void enterWafer(const Value& name) {
        const bool same = haveLast_ && name.type() == last_.type() &&
                          (name.isString() ? name.str() == last_.str() : name.identical(last_));
        if (!same) {
            wafer_ = nullptr;
            last_ = name;
            haveLast_ = true;
        }
        if (wafer_) return;
        const std::string wname =
            name.isNumberType() || IsNumericValue(name) ? "W" + name.toString() : name.toString();
        bool isNew = false;
        wafer_ = L_.AddWafer(wname, isNew);
        if (!wafer_) throw std::runtime_error("Cannot add the wafer '" + wname + "'.");
        field_ = nullptr;
        site_ = nullptr;
        lastDieX_ = lastDieY_ = 1e300;
        lastSiteNo_ = -1;
        if (isNew) {
            wafer_->FieldPitchX = static_cast<float>(c_.dieX);
            wafer_->FieldPitchY = static_cast<float>(c_.dieY);
            if (!split_) {
                auto f = std::make_unique<cField>();
                f->Number = 1;
                f->setParentWafer(wafer_);
                field_ = wafer_->Fields().Add(std::move(f), "W" + std::to_string(wafer_->Number()) + "F1");
            }
        } else if (!split_) {
            field_ = wafer_->Fields().At(1);
        }
    }

    // The field is kept while DieX and DieY stay.
    void enterField(double dieX, double dieY) {
        if (field_ && dieX == lastDieX_ && dieY == lastDieY_) return;
        site_ = nullptr;
        lastSiteNo_ = -1;
        lastDieX_ = dieX;
        lastDieY_ = dieY;
        dieXmin_ = std::min(dieXmin_, dieX);
        dieXmax_ = std::max(dieXmax_, dieX);
        dieYmin_ = std::min(dieYmin_, dieY);
        dieYmax_ = std::max(dieYmax_, dieY);
        bool isNew = false;
        field_ = wafer_->AddField(static_cast<float>(dieX), static_cast<float>(dieY), isNew, true);
        if (!isNew) return;
        // Polar and wafer positions wait for CalcWaferPositions after the walk.
        field_->LocationX = static_cast<float>(dieX * c_.dieX);
        field_->LocationY = static_cast<float>(dieY * c_.dieY);
    }

    // The site of the row, found or made. False: the row is left
    // out (a site number beyond the table, or a table row without X or Y).
    bool enterSite(long siteNo) {
        if (siteNo != lastSiteNo_) site_ = nullptr;
        lastSiteNo_ = siteNo;
        if (site_) return true;
        // A site number beyond the table cannot be in the field either.
        if (siteNo < 1 || siteNo > sites_.count()) return false;
        const SiteRow& sr = sites_.rows[siteNo];
        cSite* found = split_ ? field_->sites().Item(sr.key) : wafer_->SitesWafer().Item(sr.key);
        if (found && found->NumberKey() == siteNo) {
            site_ = found;
            return true;
        }
        if (!sr.ok) return false;
        Ref<cSite> site = cSite::New();
        site->setNumberKey(static_cast<int32_t>(siteNo));
        site->LocationX = sr.x;
        site->LocationY = sr.y;
        // Sites in fields get their polar and wafer positions from
        // CalcWaferPositions once the lot is sized; it never sees the sites
        // a wafer holds without fields.
        if (!split_) {
            const double lx = sr.x + L_.SiteXoffset, ly = sr.y + L_.SiteYoffset;
            site->LocationR = static_cast<float>(std::hypot(lx, ly));
            site->LocationTheta = static_cast<float>(std::atan2(ly, lx == 0 ? 1e-27 : lx));
        }
        // Without the split the wafer's one field is the parent, so that the
        // points know their lot.
        site->setParent(field_);
        if (sites_.famCol >= 0) {
            ++famCount_[sr.family];
            site->setFamily(sr.family);
            site->setFamilyName(sr.familyName);
        }
        site_ = site.get();
        if (split_) field_->sites().Add(std::move(site), sr.key);
        else wafer_->SitesWafer().Add(std::move(site), sr.key);
        return true;
    }

    // The point of the row, unless every value is blank.
    void addPoint(const Value* row, long siteNo) {
        col_ = c_.values[0];
        kLeft_ = c_.nValues + 1;
        bool anyValue = false;
        for (int i = 0; i < c_.nValues && !anyValue; ++i) anyValue = NonBlank(row[c_.values[i]]);
        if (!anyValue) return;
        auto pt = std::make_unique<cPoint>();
        float* slots[8] = {&pt->ValueV, &pt->ValueH, &pt->ValueZ, &pt->Slope,
                           &pt->Pitch,  &pt->ValueA, &pt->ValueB, &pt->ValueC};
        for (int i = 0; i < c_.nValues; ++i) {
            double v;
            if (NumberOf(row[c_.values[i]], v)) *slots[i] = static_cast<float>(v * 1000);
        }
        // A missing V or H goes into Z as its mark, as the rule is written.
        if (pt->ValueZ == kMissingValue) {
            if (ds_ == eDataSourceRegistration || ds_ == eDataSourceOverlay)
                pt->ValueZ = std::sqrt(pt->ValueV * pt->ValueV + pt->ValueH * pt->ValueH);
            else if (ds_ == eDataSourceFocus)
                pt->ValueZ = (pt->ValueV + pt->ValueH) / 2;
        }
        // The site is in its collection already; the point joins it under
        // the site number (a repeated key is renumbered by the site).
        site_->AddPoint(std::move(pt), sites_.rows[siteNo].key);
    }

    static inline const Value kBlank{};

    cLot& L_;
    const DataColumns& c_;
    SiteTable& sites_;
    const bool split_;
    const eDataSource ds_;
    std::vector<int32_t> famCount_;

    cWafer* wafer_ = nullptr;
    cField* field_ = nullptr;
    cSite* site_ = nullptr;
    Value last_;  // the wafer name of the last row
    bool haveLast_ = false;
    int emptyNames_ = 0;
    double lastDieX_ = 1e300, lastDieY_ = 1e300;
    long lastSiteNo_ = -1;
    double dieXmin_ = 1e10, dieXmax_ = -1e10, dieYmin_ = 1e10, dieYmax_ = -1e10;
    int kLeft_ = 0;
    int col_ = 0;
};

// The run-time failure of a row: the error, the checkpoint, the row and its cells.
Failure RowFailure(Proc& p, LoadSession& s, int row, int lastRow, int col, const std::vector<Value>& rowCells) {
    std::string cells;
    for (int c = 1; c <= s.area.col2; ++c) {
        if (c > 1) cells += ", ";
        cells += CellText(rowCells[static_cast<size_t>(c)]);
    }
    Failure f = p.failure();
    f.text += "...Load Error Track: " + ChkText(p.chk) + "... Row " + std::to_string(row) + " of " +
              std::to_string(lastRow) + " on input.\r\n" + cells;
    f.file = s.path;
    f.sheet = s.ws->name();
    f.row = row;
    f.col = col;
    return f;
}

// Checkpoints 21 and 22: every row below the header, taken from the stream of
// the sheet's rows as each is parsed, so that the table never stands whole
// beside the tree.
Status BuildTree(Proc& p, LoadSession& s, const DataColumns& cols, TreeBuilder& tree, const Datam& units) {
    p.chk = 21;
    const int firstRow = cols.headerRow + 1, lastRow = s.area.row2;
    const size_t nCols = static_cast<size_t>(s.area.col2);
    const std::string nText = std::to_string(lastRow - firstRow + 1);
    SetStatusText("    Zorv Data Upload row 1 of " + nText);
    // The row in hand, its cells from column 1 at [1]; a failure names them.
    std::vector<Value> cur(nCols + 1);
    auto blank = [&] { std::fill(cur.begin(), cur.end(), Value()); };
    int r = firstRow;
    // Row r into the tree; false ends the walk.
    bool stopped = false;
    auto step = [&] {
        if ((r - firstRow) % 100 == 0 && r != firstRow) {
            SetStatusText(": Zorv Data Upload: row " + std::to_string(r - firstRow) + " of " + nText);
            if (CheckEscKey()) {
                stopped = true;
                return false;
            }
        }
        return tree.addRow(cur.data());
    };
    bool more = true;
    Status read = StatusOk();
    const bool ok = Guarded(p, [&] {
        read = s.ws->forEachRow([&](int row, const Value* cells, int count) {
            if (row < r) return true;  // the header rows
            // Rows without values in between go in blank, as the table has them.
            if (row > r) {
                blank();
                for (; r < row && r <= lastRow; ++r)
                    if (!step()) return more = false;
            }
            if (r > lastRow) return more = false;
            const size_t n = std::min(nCols, static_cast<size_t>(count));
            for (size_t c = 1; c <= nCols; ++c) cur[c] = c <= n ? cells[c - 1] : Value();
            if (!step()) return more = false;
            ++r;
            return true;
        });
        if (!read) return;
        blank();
        for (; more && r <= lastRow; ++r)
            if (!step()) break;
    });
    if (!ok) return RowFailure(p, s, r, lastRow, tree.column(), cur);
    if (!read) return DataSheetFailure(p, s, read.failure());
    // Esc: a lot of the first rows only would pass for the whole.
    if (stopped) return s.fail(p, std::string(" Aborting data load... ").append(s.path));

    p.chk = 22;
    tree.finish(units);
    return StatusOk();
}

// Checkpoints 23 and 24: the exposure program of the fields, then the layout.
void ApplyExposure(Proc& p, cLot& L, const Exposure& e, int k, WBLotTables& T, Workbook* wb) {
    p.chk = 23;
    SetStatusText("Set up Field exposure display values.");
    for (cWafer* w : L.Wafers()) {
        cField* origin = nullptr;
        for (cField* f : w->Fields()) {
            f->NA = static_cast<float>(e.NA);
            f->PCinner = static_cast<float>(e.PCinner);
            f->PCouter = static_cast<float>(e.PCouter);
            f->Focus = static_cast<float>(e.focus + k * e.focusStep);
            f->Dose = static_cast<float>(e.dose + k * e.doseStep);
            ++k;
            if (!origin || f->DieY < origin->DieY || (f->DieY == origin->DieY && f->DieX < origin->DieX))
                origin = f;
        }
        if (origin)
            for (cLayout& l : w->Layouts) {
                l.DieXo = origin->DieX;
                l.DieYo = origin->DieY;
            }
        if (L.DataSource() == eDataSourceThermal) break;
    }
    if (cWafer* w = L.Wafers().At(1)) {
        L.CurrentWaferKey = w->KeyName;
        if (cField* f = w->Fields().At(1)) L.CurrentFieldKey = f->NumberKey;
    }

    p.chk = 24;
    SetStatusText("Update exposure layout for " + L.LotName);
    if (GetLayoutData(wb, T.layoutSetup, T.layoutValues)) {
        FPdata2Lot(L, T.layoutSetup);
        ApplyLayoutValues(L, T.layoutValues);
    }
}

// Checkpoints 25 to 28: the wafer size, given or estimated from the field grid.
void SizeWafer(Proc& p, cLot& L, const TreeBuilder& tree, const DataColumns& cols, double givenMm,
               int siteRows, double substrateMm) {
    p.chk = 25;
    if (L.WaferSize < 75000 || L.WaferSize == 200000) {
        const double columns = tree.haveRange() ? tree.spanX() + 1 : 1;
        const double rows = tree.haveRange() ? tree.spanY() + 1 : 1;
        L.WaferSize = SnapFirst(static_cast<float>(std::max(cols.dieX * columns, cols.dieY * rows)));
        L.CullRadiusSetting = L.WaferSize / 2;
    }

    p.chk = 26;
    L.CalcWaferPositions();
    if (siteRows > 1) CalcSiteStep(L);

    p.chk = 27;
    if (givenMm < 75) {
        const double est = std::max((tree.spanX() + 3) * cols.dieX, (tree.spanY() + 3) * cols.dieY);
        L.WaferSize = SnapSecond(static_cast<float>(est));
        L.CullRadiusSetting = L.WaferSize / 2;
    }

    p.chk = 28;
    if (L.WaferSize < 75) {
        L.WaferSize = static_cast<float>(substrateMm * 1000);
        L.CullRadiusSetting = L.WaferSize / 2;
    }
}

}  // namespace

LoadOptions LoadOptionsFromSettings() {
    LoadOptions o;
    const std::string fc = Upper(GetSetting(ApplicationTitle(), "Options", "FocusCorrections", "True"));
    o.focusReportCorrections = !(fc == "FALSE" || fc == "0");
    double mm = 200;
    if (ParseNumber(GetSetting(ProductName(), "ToolSettings", "Substrate", "200"), mm)) o.substrateMm = mm;
    return o;
}

void SaveLoadSettings(const WBLotTables& tables) {
    if (!tables.sourceDirectory.empty())
        SaveSetting(ApplicationTitle(), "Options", "SourceDirectory", tables.sourceDirectory);
    if (tables.substrateMm > 0)
        SaveSetting(ProductName(), "ToolSettings", "Substrate", NumberToText(tables.substrateMm));
}

Status GetExcelWBLot(const std::string& path, const LoadOptions& options, std::shared_ptr<cLot>& lot,
                     WBLotTables* tables) {
    Proc p("Import(GetExcelWBLot): ");
    BusyPointer busy;
    InstallDataWorkbookHooks();
    WBLotTables local;
    WBLotTables& T = tables ? *tables : local;
    T = WBLotTables{};
    LoadSession s;

    if (Status st = FindWorkbookFile(p, path, s); !st) return st;
    p.chk = 2;
    T.sourceDirectory = FolderOf(s.path);
    if (Status st = OpenDataSheet(p, s, options); !st) return st;
    SiteTable sites;
    if (Status st = ReadSites(p, s, T, sites); !st) return st;
    const InfoHeader header = ReadInformation(p, s, T);

    cLot& L = NewLot(p, lot, header, options);
    const KeyRows keys = StoreKeysByPosition(p, L, T.information, s);
    const Exposure exposure = StoreExposureKeys(p, L, T.information);
    StoreNamesAndGeometry(p, L, keys, s);
    Result<DataColumns> cols = FindColumns(p, s, L, keys);
    if (!cols) return cols.failure();
    TreeBuilder tree(L, *cols, sites, options.splitByField);
    if (Status st = BuildTree(p, s, *cols, tree, T.units); !st) return st;

    ApplyExposure(p, L, exposure, tree.nextField(), T, s.wb.get());
    SizeWafer(p, L, tree, *cols, header.givenMm, sites.count(), options.substrateMm);
    T.substrateMm = L.WaferSize;

    p.chk = 29;
    SetStatusText(ApplicationTitle() + " Ready");
    T.workbook = s.wb;
    T.sheetName = s.ws->name();
    // The lot holds the workbook, not its parsed cells: a sheet as it stands
    // in the file is parsed again when next read, and saved by copy.
    for (int i = 1; i <= s.wb->sheetCount(); ++i) s.wb->sheet(i)->unload();
    s.done = true;
    SetStatusText("Excel xlwb set.");
    SetStatusText("... Upload complete");
    return StatusOk();
}

}  // namespace zorv
