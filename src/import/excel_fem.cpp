// Import(ImportExcelFEM): focus-exposure matrices kept in a spreadsheet.
//
// Each sheet named "CD_..." holds one wafer's (or one feature's) data: key
// and value rows at the top ("Lot", "Device", "Layer", "MEDIUM DATE",
// "MEDIUM TIME", "Wafer", ...), then a header row that holds "Mark", then one
// row per measurement. Columns are found by name in upper case, in any order:
// "Mark" (the site's name or number), "FAMILY", "Wafer", X and Y (the site in
// the field, mm), Diex and Diey (the field's column and row), "Focus" (um),
// "Dose" (mJ/cm2); every other column that holds numbers is a measured
// feature. A unit in brackets after a name ("CD [nm]", "X (um)") gives the
// feature's unit, or converts a position or a focus. docs/tool-formats.md
// shows a sheet.
//
// Sites are told apart by mark and family and numbered in the order they are
// first met across all sheets, so that a site's number is its row of the
// site table; the mark itself stands in the site table's first column.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <vector>

#include "app/strings.h"
#include "base/format.h"
#include "base/marks.h"
#include "base/report.h"
#include "base/text.h"
#include "reader.h"
#include "readers_fem.h"
#include "workbook/store.h"

namespace zorv {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kSheetPrefix = "CD_";

// A cell that may be blank but, when filled, must be a number.
bool OptionalNumber(const Value& v, double& out, bool& present) {
    present = false;
    if (v.isEmpty() || (v.isString() && Trim(v.str()).empty())) return true;
    present = CellNumber(v, out);
    return present;
}

// Keys of the rows above the header: "Medium Date:", "MEDIUM_DATE" and
// "medium date" are one key.
std::string KeyWord(std::string_view text) {
    std::string k = Upper(Trim(text));
    while (!k.empty() && (k.back() == ':' || k.back() == ' ')) k.pop_back();
    std::string out;
    for (char c : k) {
        if (c == '_') c = ' ';
        if (c == ' ' && (out.empty() || out.back() == ' ')) continue;
        out += c;
    }
    return out;
}

// Millimetres per unit of a length unit; 0 for any other word.
double MmPerUnit(std::string_view unit) {
    const std::string u = Lower(Trim(unit));
    if (u == "mm") return 1;
    if (u == "um" || u == "\xC2\xB5m" || u == "\xCE\xBCm" || u == "micron" || u == "microns") return 1e-3;
    if (u == "nm") return 1e-6;
    return 0;
}

// A header cell: the name looked up ("DIE_X" for "Die X") and the unit in
// brackets after it.
struct HeadCell {
    std::string name, upper, unit;
};

HeadCell SplitHead(const Value& v) {
    HeadCell h;
    std::string text = CellText(v);
    if (!text.empty() && (text.back() == ']' || text.back() == ')')) {
        const size_t open = text.find_last_of(text.back() == ']' ? '[' : '(');
        if (open != std::string::npos && open > 0) {
            h.unit = Trim(std::string_view(text).substr(open + 1, text.size() - open - 2));
            text = Trim(std::string_view(text).substr(0, open));
        }
    }
    h.name = text;
    h.upper = Upper(text);
    std::replace(h.upper.begin(), h.upper.end(), ' ', '_');
    return h;
}

// The columns of a sheet's header row (from 0; -1 when missing).
struct Columns {
    std::vector<HeadCell> heads;
    int mark = -1, family = -1, wafer = -1, x = -1, y = -1, dieX = -1, dieY = -1, focus = -1, dose = -1;
    double xMm = 1, yMm = 1;  // millimetres per unit of X and Y
    double focusUm = 1;       // micrometres per unit of focus

    bool keyword(int c) const {
        return c == mark || c == family || c == wafer || c == x || c == y || c == dieX || c == dieY ||
               c == focus || c == dose;
    }
};

Columns FindColumns(const Value* cells, int count) {
    Columns k;
    std::vector<std::string> words;
    for (int c = 0; c < count; ++c) {
        k.heads.push_back(SplitHead(cells[c]));
        words.push_back(k.heads.back().upper);
    }
    k.mark = FindWord(words, {"MARK"});
    k.family = FindWord(words, {"FAMILY"});
    k.wafer = FindWord(words, {"WAFER", "WAFER_ID", "WAFERID", "SLOT"});
    k.x = FindWord(words, {"X", "X_LOC", "XLOC", "LOCX", "SITE_X", "SITEX", "X_SITE_LOC"});
    k.y = FindWord(words, {"Y", "Y_LOC", "YLOC", "LOCY", "SITE_Y", "SITEY", "Y_SITE_LOC"});
    k.dieX = FindWord(words, {"DIEX", "DIE_X", "FIELDX", "FIELD_X", "COLUMN", "COL"});
    k.dieY = FindWord(words, {"DIEY", "DIE_Y", "FIELDY", "FIELD_Y", "ROW"});
    k.focus = FindWord(words, {"FOCUS", "FOC"});
    k.dose = FindWord(words, {"DOSE", "EXPOSURE", "ENERGY"});
    auto lengthScale = [&](int c, double none) {
        const double f = c >= 0 ? MmPerUnit(k.heads[static_cast<size_t>(c)].unit) : 0;
        return f > 0 ? f : none;
    };
    k.xMm = lengthScale(k.x, 1);
    k.yMm = lengthScale(k.y, 1);
    k.focusUm = lengthScale(k.focus, 1e-3) * 1000;
    return k;
}

// Columns of running numbers and notes that are never a measurement.
bool NeverMeasured(const std::string& upper) {
    static const char* const kWords[] = {"TEST", "SITE", "SITE_NO", "SITE_NAME", "NO", "NO.", "#",
                                         "INDEX", "POINT", "COMMENT", "COMMENTS", "NOTE", "NOTES"};
    if (upper.empty()) return true;
    for (const char* w : kWords)
        if (upper == w) return true;
    return false;
}

// The distinct settings of focus or dose on a sheet, ascending: the field's
// column (focus) or row (dose) when the sheet gives none.
void AddStep(std::vector<double>& steps, double v) {
    auto it = std::lower_bound(steps.begin(), steps.end(), v - 1e-6);
    if (it != steps.end() && std::fabs(*it - v) <= 1e-6) return;
    steps.insert(it, v);
}
long StepIndex(const std::vector<double>& steps, double v) {
    auto it = std::lower_bound(steps.begin(), steps.end(), v - 1e-6);
    return static_cast<long>(it - steps.begin());
}

// What the first walk of a sheet learns.
struct SheetScan {
    int headerRow = 0;
    Columns cols;
    std::unordered_map<std::string, Value> keys;  // the first value of each key above the header
    std::vector<char> numeric;                    // a column holds a number in some data row
    std::vector<double> focusSteps, doseSteps;
    long dataRows = 0;
};

bool IsHeaderRow(const Value* cells, int count) {
    for (int c = 0; c < count; ++c)
        if (cells[c].isString() && KeyWord(cells[c].str()) == "MARK") return true;
    return false;
}

Status ScanSheet(Worksheet& ws, SheetScan& s) {
    return ws.forEachRow([&](int row, const Value* cells, int count) {
        if (!s.headerRow) {
            if (IsHeaderRow(cells, count)) {
                s.headerRow = row;
                s.cols = FindColumns(cells, count);
                s.numeric.assign(static_cast<size_t>(count), 0);
                return true;
            }
            // A key row: the first filled cell names the key, the next one holds its value.
            int c = 0;
            while (c < count && cells[c].isEmpty()) ++c;
            if (c == count || !cells[c].isString()) return true;
            const std::string key = KeyWord(cells[c].str());
            int d = c + 1;
            while (d < count && cells[d].isEmpty()) ++d;
            if (!key.empty()) s.keys.emplace(key, d < count ? cells[d] : Value());
            return true;
        }
        if (CellText(CellAt(cells, count, s.cols.mark)).empty()) return true;
        ++s.dataRows;
        double v = 0;
        const int n = std::min(count, static_cast<int>(s.numeric.size()));
        for (int c = 0; c < n; ++c)
            if (!s.numeric[static_cast<size_t>(c)] && CellNumber(cells[c], v)) s.numeric[static_cast<size_t>(c)] = 1;
        if (s.cols.dieX < 0 && CellNumber(CellAt(cells, count, s.cols.focus), v)) AddStep(s.focusSteps, v);
        if (s.cols.dieY < 0 && CellNumber(CellAt(cells, count, s.cols.dose), v)) AddStep(s.doseSteps, v);
        return true;
    });
}

// --------------------------------------------------------- header keys

const Value* Key(const SheetScan& s, std::initializer_list<const char*> spellings) {
    for (const char* k : spellings) {
        auto it = s.keys.find(k);
        if (it != s.keys.end() && !it->second.isEmpty()) return &it->second;
    }
    return nullptr;
}

std::string DateText(const Value& v) {
    if (v.isDate() || v.isNumberType()) return FormatDate(std::floor(v.toDouble()), "yyyy-mm-dd");
    return CellText(v);
}
std::string TimeText(const Value& v) {
    if (v.isDate() || v.isNumberType()) {
        const double d = v.toDouble();
        return FormatDate(d - std::floor(d), "hh:mm:ss");
    }
    return CellText(v);
}

std::string NotchWord(const std::string& text) {
    const std::string u = Upper(Trim(text));
    if (u == "U" || u == "UP" || u == "0") return "UP";
    if (u == "D" || u == "DOWN" || u == "180") return "DOWN";
    if (u == "R" || u == "RIGHT" || u == "90") return "RIGHT";
    if (u == "L" || u == "LEFT" || u == "270") return "LEFT";
    return {};
}

// The keys of a sheet fill what the sheets before it left empty.
void TakeKeys(const SheetScan& s, ReaderHeader& h) {
    auto text = [&](std::string& field, std::initializer_list<const char*> spellings) {
        if (!field.empty()) return;
        if (const Value* v = Key(s, spellings)) field = CellText(*v);
    };
    auto mm = [&](double& field, std::initializer_list<const char*> spellings) {
        double d = 0;
        if (field > 0) return;
        if (const Value* v = Key(s, spellings); v && CellNumber(*v, d) && d > 0) field = d;
    };
    text(h.lotName, {"LOT", "LOT ID", "LOTID", "LOT NAME"});
    text(h.device, {"DEVICE", "PRODUCT"});
    text(h.layer, {"LAYER", "LEVEL"});
    text(h.job, {"JOB", "JOB PLAN"});
    text(h.recipe, {"RECIPE"});
    text(h.user, {"USER", "OPERATOR"});
    text(h.system, {"TOOL", "SYSTEM", "SYSTEM ID"});
    text(h.exposureTool, {"EXPOSURE TOOL", "SCANNER", "STEPPER"});
    text(h.reticle, {"RETICLE", "MASK"});
    if (h.date.empty())
        if (const Value* v = Key(s, {"MEDIUM DATE", "DATE"})) {
            h.date = DateText(*v);
            // A date cell that carries the time of day stands for both.
            if (h.time.empty() && (v->isDate() || v->isNumberType()) && v->toDouble() != std::floor(v->toDouble()))
                h.time = TimeText(*v);
        }
    if (h.time.empty())
        if (const Value* v = Key(s, {"MEDIUM TIME", "TIME"})) h.time = TimeText(*v);
    mm(h.dieSizeXmm, {"FIELD SIZE X", "DIE SIZE X", "DIESIZEX", "FIELDSIZEX"});
    mm(h.dieSizeYmm, {"FIELD SIZE Y", "DIE SIZE Y", "DIESIZEY", "FIELDSIZEY"});
    mm(h.waferSizeMm, {"WAFER SIZE", "WAFERSIZE", "SUBSTRATE"});
    if (const Value* v = Key(s, {"NOTCH", "FLAT", "ORIENTATION", "FLAT LOCATION"}))
        if (std::string w = NotchWord(CellText(*v)); !w.empty()) h.notch = w;
}

// The wafer of a sheet: its "Wafer" key, else the name after "CD_".
std::string SheetWafer(const SheetScan& s, const std::string& sheetName) {
    if (const Value* v = Key(s, {"WAFER", "WAFER ID", "WAFERID", "SLOT"}))
        if (std::string w = CellText(*v); !w.empty()) return w;
    if (IStartsWith(sheetName, kSheetPrefix) && sheetName.size() > kSheetPrefix.size())
        return sheetName.substr(kSheetPrefix.size());
    return sheetName;
}

// ------------------------------------------------------------ the rows

struct ImportState {
    ReaderTables tables;
    ReaderHeader header;
    FieldExposures fields;
    std::unordered_map<std::string, long> siteOf;    // mark and family -> site number
    std::unordered_map<std::string, int> featureOf;  // upper-case name -> feature
    std::vector<double> featureMm;                   // millimetres per unit of a feature's length unit
};

struct Measured {
    int col;
    int feature;
    double scale;  // the sheet's unit to the feature's
};

// Binds the sheet's measured columns to features, new names after the known.
std::vector<Measured> BindFeatures(const SheetScan& s, ImportState& st) {
    std::vector<Measured> out;
    for (size_t c = 0; c < s.cols.heads.size(); ++c) {
        const HeadCell& h = s.cols.heads[c];
        const int col = static_cast<int>(c);
        if (s.cols.keyword(col) || NeverMeasured(h.upper) || !s.numeric[c]) continue;
        const std::string key = Upper(h.name);
        auto it = st.featureOf.find(key);
        int k;
        if (it == st.featureOf.end()) {
            k = st.tables.featureCount();
            st.tables.setFeature(k, h.name);
            st.featureOf.emplace(key, k);
            st.featureMm.push_back(0);
        } else {
            k = it->second;
        }
        const double mm = MmPerUnit(h.unit);
        double scale = 1;
        if (!h.unit.empty() && st.featureMm[static_cast<size_t>(k)] == 0) {
            // The first unit met is the feature's.
            st.tables.setUnit(k, h.unit);
            st.featureMm[static_cast<size_t>(k)] = mm > 0 ? mm : -1;
        } else if (mm > 0 && st.featureMm[static_cast<size_t>(k)] > 0) {
            scale = mm / st.featureMm[static_cast<size_t>(k)];
        }
        out.push_back({col, k, scale});
    }
    return out;
}

Failure SheetFailure(Proc& p, const std::string& path, const std::string& sheet, long row, std::string text) {
    Failure f = FileFailure(p, path, 0, std::move(text));
    f.sheet = sheet;
    f.row = row;
    return f;
}

std::string RowPrefix(int row, const std::string& sheet) {
    return "Row " + std::to_string(row) + " of worksheet '" + sheet + "': ";
}

Status ReadSheet(Proc& p, const std::string& path, Worksheet& ws, const SheetScan& s,
                 const std::vector<Measured>& measured, ImportState& st) {
    const Columns& k = s.cols;
    const std::string& sheet = ws.name();
    const std::string sheetWafer = SheetWafer(s, sheet);
    const std::string firstFeature = st.tables.featureName(measured.front().feature);
    const std::string defaultFamily = FamilyOfFeature(sheet, FamilyOfFeature(firstFeature, st.header.family));
    std::optional<Failure> bad;
    long done = 0;
    auto fail = [&](int row, const std::string& text) {
        bad = SheetFailure(p, path, sheet, row, RowPrefix(row, sheet) + text);
        return false;
    };
    auto head = [&](int c) { return "'" + k.heads[static_cast<size_t>(c)].name + "'"; };
    // Rows come in runs of one wafer and one site: their texts are kept, not
    // made again for every row.
    Value waferValue;
    std::string siteKey, lastSiteKey;
    long lastTest = 0;

    Status walked = ws.forEachRow([&](int row, const Value* cells, int count) {
        if (row <= s.headerRow) return true;
        const std::string mark = CellText(CellAt(cells, count, k.mark));
        if (mark.empty()) return true;
        if (++done % 100 == 0) {
            SetStatusText("Importing data from worksheet: " + sheet + ", row " + std::to_string(row));
            ShowProgress(static_cast<int>(100.0 * static_cast<double>(done) / static_cast<double>(s.dataRows)));
            if (CheckEscKey()) return fail(row, "Aborting data load...");
        }

        // Every measured cell first: a row without a measurement is no row.
        bool any = false, error = false;
        double v = 0;
        for (const Measured& m : measured) {
            const Value& c = CellAt(cells, count, m.col);
            if (CellNumber(c, v)) any = true;
            else if (c.isError()) error = true;
        }
        if (!any && !error) return true;

        double x = 0, y = 0, focus = 0, dose = 0, dx = 0, dy = 0;
        bool hasX, hasY, hasFocus, hasDose, hasDx, hasDy;
        if (!OptionalNumber(CellAt(cells, count, k.x), x, hasX)) return fail(row, head(k.x) + " is not a number.");
        if (!OptionalNumber(CellAt(cells, count, k.y), y, hasY)) return fail(row, head(k.y) + " is not a number.");
        if (!OptionalNumber(CellAt(cells, count, k.focus), focus, hasFocus))
            return fail(row, head(k.focus) + " is not a number.");
        if (!OptionalNumber(CellAt(cells, count, k.dose), dose, hasDose))
            return fail(row, head(k.dose) + " is not a number.");
        if (!OptionalNumber(CellAt(cells, count, k.dieX), dx, hasDx)) return fail(row, head(k.dieX) + " is not a number.");
        if (!OptionalNumber(CellAt(cells, count, k.dieY), dy, hasDy)) return fail(row, head(k.dieY) + " is not a number.");

        // The field: its column and row, else its place among the sheet's
        // focus (column) and dose (row) settings; a sheet with neither is one field.
        long dieX = 0, dieY = 0;
        if (k.dieX >= 0) {
            if (!hasDx) return fail(row, "the field column " + head(k.dieX) + " is empty.");
            dieX = std::lround(dx);
        } else if (k.focus >= 0) {
            if (!hasFocus) return fail(row, head(k.focus) + " is empty; the field is placed by its focus.");
            dieX = StepIndex(s.focusSteps, focus);
        }
        if (k.dieY >= 0) {
            if (!hasDy) return fail(row, "the field row " + head(k.dieY) + " is empty.");
            dieY = std::lround(dy);
        } else if (k.dose >= 0) {
            if (!hasDose) return fail(row, head(k.dose) + " is empty; the field is placed by its dose.");
            dieY = StepIndex(s.doseSteps, dose);
        }

        std::string wafer = CellText(CellAt(cells, count, k.wafer));
        if (wafer.empty()) wafer = sheetWafer;
        if (waferValue.str() != wafer) waferValue = Value(wafer);
        std::string family = CellText(CellAt(cells, count, k.family));
        if (family.empty()) family = defaultFamily;

        siteKey.assign(mark);
        siteKey += '\x1f';
        siteKey += family;
        long test = lastTest;
        if (siteKey != lastSiteKey || !test) {
            auto [it, fresh] = st.siteOf.emplace(siteKey, st.tables.siteCount() + 1);
            test = it->second;
            if (fresh) {
                st.tables.addSite(test, st.header.dieSizeXmm, st.header.dieSizeYmm, x * k.xMm, y * k.yMm, family);
                st.tables.siteTable()(st.tables.siteCount(), 0) = mark;
            }
            lastSiteKey.assign(siteKey);
            lastTest = test;
        }

        const long r = st.tables.addRow();
        st.tables.cell(r, 1) = waferValue;
        st.tables.cell(r, 2) = static_cast<int32_t>(test);
        st.tables.cell(r, 3) = static_cast<int32_t>(dieX);
        st.tables.cell(r, 4) = static_cast<int32_t>(dieY);
        for (const Measured& m : measured)
            if (CellNumber(CellAt(cells, count, m.col), v)) st.tables.cell(r, 5 + m.feature) = v * m.scale;
        if (hasFocus || hasDose)
            st.fields.note(wafer, dieX, dieY, hasFocus ? focus * k.focusUm : 0, hasDose ? dose : kMissingDose);
        // An error value of the spreadsheet (#N/A, #DIV/0!) marks a failed measurement.
        if (error) st.tables.excludeLastRow(row);
        return true;
    });
    if (!walked) return SheetFailure(p, path, sheet, 0, "Cannot read worksheet '" + sheet + "': " + walked.failure().text);
    if (bad) return *bad;
    return StatusOk();
}

// ------------------------------------------------------- the workbook

Status OpenSource(Proc& p, const std::string& path, WorkbookPtr& wb) {
    // A workbook the program holds open is read as it stands.
    wb = Workbooks::Find(path);
    if (wb) return StatusOk();
    Result<WorkbookPtr> opened = Workbook::open(path, Workbook::Load::Lazy);
    if (!opened) return FileFailure(p, path, 0, "Cannot open workbook: " + opened.failure().text);
    wb = std::move(*opened);
    return StatusOk();
}

// Every "CD_" sheet, or the sheets the request names.
Status ChooseSheets(Proc& p, const ImportRequest& request, Workbook& wb, std::vector<Worksheet*>& out) {
    std::string missing;
    if (request.sheets.empty()) {
        for (int i = 1; i <= wb.sheetCount(); ++i)
            if (IStartsWith(wb.sheet(i)->name(), kSheetPrefix)) out.push_back(wb.sheet(i));
    } else {
        for (const std::string& name : request.sheets) {
            Worksheet* ws = wb.sheet(std::string_view(name));
            if (!ws) {
                if (missing.empty()) missing = name;
            } else if (std::find(out.begin(), out.end(), ws) == out.end()) {
                out.push_back(ws);
            }
        }
    }
    if (out.empty())
        return FileFailure(p, request.path, 0,
                           "No worksheets in workbook '" + wb.name() + "' were selected for import.");
    if (!missing.empty()) {
        Failure f = FileFailure(p, request.path, 0,
                                "There is no worksheet '" + missing + "' in workbook '" + wb.name() + "'.");
        f.sheet = missing;
        return f;
    }
    return StatusOk();
}

bool SameFile(const std::string& a, const std::string& b) {
    std::error_code ec;
    if (fs::equivalent(a, b, ec)) return true;
    return fs::weakly_canonical(a, ec) == fs::weakly_canonical(b, ec);
}

// The data workbook: never the source itself (a workbook path named for it
// is refused; the path made from the source's name already avoids it).
Result<std::string> TargetPath(Proc& p, const ImportRequest& request) {
    const std::string target = ReaderWorkbookPath(request);
    if (SameFile(target, request.path))
        return FileFailure(p, request.path, 0, "The data workbook would replace its source file: " + target);
    return target;
}

std::string ComposeComment(const ReaderHeader& h, const std::vector<Worksheet*>& sheets) {
    std::string c = h.toolName + "\r\n";
    c += "Device: " + h.device + " / Level: " + h.layer + "\r\n";
    c += "LotName No:" + h.lotName + " / Job Plan: " + h.job + "\r\n";
    c += "Worksheets: ";
    for (size_t i = 0; i < sheets.size(); ++i) c += (i ? ", " : "") + sheets[i]->name();
    return c;
}

}  // namespace

Result<std::string> ImportExcelFEM(const ImportRequest& request) {
    Proc p("Import(ImportExcelFEM): ");
    p.chk = 1;
    WorkbookPtr wb;
    if (Status s = OpenSource(p, request.path, wb); !s) return s.failure();
    p.chk = 2;
    std::vector<Worksheet*> sheets;
    if (Status s = ChooseSheets(p, request, *wb, sheets); !s) return s.failure();
    Result<std::string> target = TargetPath(p, request);
    if (!target) return target.failure();

    p.chk = 3;
    ImportState st;
    st.header.toolName = "CDsem";
    st.header.dataType = "CDsem";
    for (Worksheet* ws : sheets) {
        const std::string& name = ws->name();
        SetStatusText("Importing data from worksheet: " + name);
        p.chk = 4;
        SheetScan scan;
        if (Status s = ScanSheet(*ws, scan); !s)
            return SheetFailure(p, request.path, name, 0, "Cannot read worksheet '" + name + "': " + s.failure().text);
        if (!scan.headerRow)
            return SheetFailure(p, request.path, name, 0, "Worksheet '" + name + "' has no header row with 'Mark'.");
        TakeKeys(scan, st.header);
        if (scan.dataRows == 0) continue;  // a sheet not filled yet
        p.chk = 5;
        std::vector<Measured> measured = BindFeatures(scan, st);
        if (measured.empty())
            return SheetFailure(p, request.path, name, scan.headerRow,
                                RowPrefix(scan.headerRow, name) + "no column of measured values.");
        if (Status s = ReadSheet(p, request.path, *ws, scan, measured, st); !s) return s.failure();
    }
    ShowProgress(-1);

    p.chk = 6;
    if (st.tables.rows() < 1) {
        std::string where;
        for (size_t i = 0; i < sheets.size(); ++i) where += (i ? "', '" : "") + sheets[i]->name();
        return SheetFailure(p, request.path, sheets.front()->name(), 0,
                            std::string(LoadResString(resNoDataRows)) + " (worksheet '" + where + "')");
    }
    st.header.comment = ComposeComment(st.header, sheets);
    ImportRequest call = request;
    call.workbookPath = *target;
    sheets.clear();
    wb.reset();  // the source is read; let it go before the save
    p.chk = 7;
    return FinishImport(p, call, st.tables, st.header, &st.fields);
}

}  // namespace zorv
