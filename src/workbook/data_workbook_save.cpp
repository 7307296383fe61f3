// Import(SaveData): writes the data workbook of an import.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>

#include "base/identity.h"
#include "base/proc.h"
#include "base/regional.h"
#include "base/report.h"
#include "workbook/data_workbook.h"
#include "data_workbook_util.h"

namespace zorv {

using namespace dwb;

namespace {

// Trailing rows and columns that hold nothing are not written.
void UsedExtent(const Datam& t, int& lastRow, int& lastCol) {
    lastRow = t.rowLb() - 1;
    lastCol = t.colLb() - 1;
    const int nc = t.colCount();
    for (int r = t.rowLb(); r <= t.rowUb(); ++r) {
        const Value* row = t.data() + static_cast<size_t>(r - t.rowLb()) * nc;
        for (int c = nc - 1; c >= 0; --c)
            if (!row[c].isEmpty()) {
                lastRow = r;
                lastCol = std::max(lastCol, t.colLb() + c);
                break;
            }
    }
}

const Datam& Trimmed(const Datam& t, Datam& holder) {
    int lr, lc;
    UsedExtent(t, lr, lc);
    if (lr == t.rowUb() && lc == t.colUb()) return t;
    holder = Datam(std::max(lr, t.rowLb()), std::max(lc, t.colLb()), t.rowLb(), t.colLb());
    for (int r = t.rowLb(); r <= holder.rowUb(); ++r)
        for (int c = t.colLb(); c <= holder.colUb(); ++c) holder(r, c) = t(r, c);
    return holder;
}

std::string JoinLines(const Value& v) {
    if (!v.isArray()) return CellText(v);
    const Datam& a = v.array();
    std::string out;
    auto add = [&](const Value& x) {
        std::string s = CellText(x);
        if (s.empty()) return;
        if (!out.empty()) out += "\r\n";
        out += s;
    };
    if (a.dims() == 1) {
        for (int i = a.rowLb(); i <= a.rowUb(); ++i) add(a.at(i));
    } else {
        for (int r = a.rowLb(); r <= a.rowUb(); ++r)
            for (int c = a.colLb(); c <= a.colUb(); ++c) add(a(r, c));
    }
    return out;
}

// A text a spreadsheet accepts as a defined name and that cannot be read as a
// cell reference ("C", "R", "AB12").
bool IsPlainName(std::string_view n) {
    if (n.empty() || n.size() > 255) return false;
    if (!(std::isalpha(static_cast<unsigned char>(n[0])) || n[0] == '_')) return false;
    for (char ch : n)
        if (!(std::isalnum(static_cast<unsigned char>(ch)) || ch == '_' || ch == '.')) return false;
    if (IEquals(n, "C") || IEquals(n, "R")) return false;
    size_t i = 0;
    while (i < n.size() && std::isalpha(static_cast<unsigned char>(n[i]))) ++i;
    if (i >= 1 && i <= 3 && i < n.size()) {
        size_t j = i;
        while (j < n.size() && std::isdigit(static_cast<unsigned char>(n[j]))) ++j;
        if (j == n.size()) return false;
    }
    return true;
}

bool IsBlank(const Value& v) { return v.textLength() < 1; }

// Column statistics of the data, the value columns only (after Wafer, Test,
// Diex, Diey): the summary table of the "MEAN" statistic, row labels in
// column 0, one column per data column.
Datam SummaryOf(const Datam& data, int firstCol) {
    static const char* const labels[] = {"Count",       "Mean",   "Median", "SEM",      "Maximum",
                                         "Minimum",     "Range",  "StDev",  "Mean+3Sigma", "MinMax",
                                         "Variance",    "SS",     "Sum",    "RMSS"};
    const int nl = 14;
    int ncol = data.colUb() - firstCol + 1;
    if (ncol < 1) return Datam();
    Datam s(nl, ncol, 0, 0);
    for (int i = 0; i < nl; ++i) s(i + 1, 0) = labels[i];
    const float missing = -999.9f;
    const int stride = data.colCount();
    for (int k = 0; k < ncol; ++k) {
        int c = firstCol + k;
        s(0, k + 1) = data(data.rowLb(), c);
        double n = 0, sum = 0, ss = 0, mn = 0, mx = 0;
        const Value* cell = data.data() + static_cast<size_t>(1) * stride + (c - data.colLb());
        for (int r = data.rowLb() + 1; r <= data.rowUb(); ++r, cell += stride) {
            const Value& v = *cell;
            float x;
            if (v.isNumberType() && v.type() != VType::Boolean) {
                x = v.toSingle();
            } else if (v.isDate()) {
                x = static_cast<float>(v.toDouble());
            } else if (v.isString() && v.isNumericPlain() && v.textLength() > 0) {
                x = v.toSingle();
            } else {
                continue;
            }
            if (x == missing) continue;
            if (n == 0) mn = mx = x;
            mn = std::min<double>(mn, x);
            mx = std::max<double>(mx, x);
            n += 1;
            sum += x;
            ss += static_cast<double>(x) * x;
        }
        if (n == 0) continue;
        double mean = sum / n;
        double var = n >= 2 ? Round((n * ss - sum * sum) / (n * (n - 1)), 10) : 0;
        double sd = std::sqrt(std::fabs(var));
        s(1, k + 1) = n;
        s(2, k + 1) = mean;
        s(3, k + 1) = (mx + mn) / 2;
        s(4, k + 1) = std::sqrt(std::fabs(var / n));
        s(5, k + 1) = mx;
        s(6, k + 1) = mn;
        s(7, k + 1) = mx - mn;
        s(8, k + 1) = sd;
        s(9, k + 1) = std::fabs(mean) + std::fabs(3 * sd);
        s(10, k + 1) = std::fabs(mn) > std::fabs(mx) ? mn : mx;
        s(11, k + 1) = var;
        s(12, k + 1) = ss;
        s(13, k + 1) = sum;
        s(14, k + 1) = std::sqrt(ss / n);
    }
    return s;
}

}  // namespace

Result<std::string> SaveData(const Datam& data, const Datam& excluded, const Datam& sites,
                             const Datam& information, const std::string& comments, const Datam* layout) {
    Proc p("Import(SaveData):  ");
    BusyPointer busy;
    p.chk = 1;
    if (!data.isArray() || data.dims() != 2 || data.rowCount() < 2)
        return p.fail("No rows in data matrix as provided.");

    // 2. The information by its fixed rows.
    p.chk = 2;
    std::vector<Value> info(kInformationKeyCount + 1);
    if (information.isArray() && information.dims() == 2) {
        int row = -1, col = -1;
        FindFirstRow(information, row, col, "Data Type", kDefaultBound, kDefaultBound, kDefaultBound,
                     kDefaultBound, true);
        int valueCol = col >= 0 ? col + 1 : information.colLb() + 1;
        int first = row >= 0 ? row : information.rowLb() + (information.rowLb() == 0 ? 1 : 0);
        for (int i = 1; i <= kInformationKeyCount; ++i) info[i] = information.get(first + i - 1, valueCol);
    }
    auto text = [&](int i) { return CellText(info[i]); };
    {
        std::string c = JoinLines(info[infoComments]);
        std::string all = comments;
        if (!c.empty()) all += (all.empty() ? "" : "\r\n") + c;
        all += (all.empty() ? "" : "\r\n") + ApplicationTitle() + " ver: " + VersionString();
        info[infoComments] = all;
    }

    // 3. Normalise.
    p.chk = 3;
    for (int i : {infoXDiceField, infoYDiceField})
        if (!IsNumericValue(info[i]) || info[i].toDouble() < 1) info[i] = 1;
    {
        const Value& t = info[infoExposureToolType];
        bool stepper = IsNumericValue(t) ? t.toDouble() == 1 : Upper(Trim(CellText(t))) == "STEPPER";
        info[infoExposureToolType] = stepper ? "Stepper" : "Scanner";
    }
    if (info[infoDataType].isNumberType()) info[infoDataType] = DataTypeWord(info[infoDataType].toLong());
    else if (IsNumericValue(info[infoDataType]))
        info[infoDataType] = DataTypeWord(info[infoDataType].toLong());
    if (text(infoDataTable).size() < 3) info[infoDataTable] = BaseOf(text(infoFilePath));
    if (IsBlank(info[infoLot])) info[infoLot] = text(infoDataTable);
    if (IsBlank(info[infoDevice])) info[infoDevice] = info[infoInspection];
    for (int i : {infoDieSizeX, infoDieSizeY})
        if (!IsNumericValue(info[i]) || info[i].toDouble() < 1) info[i] = 1;
    for (int i : {infoSiteXoffset, infoSiteYoffset, infoDieXoffset, infoDieYoffset, infoDieXarray,
                  infoDieYarray})
        if (!IsNumericValue(info[i])) info[i] = 0;
    if (text(infoFlatLocation).size() < 2) info[infoFlatLocation] = "DOWN";
    if (text(infoDate).size() < 2) info[infoDate] = Value::date(SerialToday());
    // Date and time texts go in as dates, as a spreadsheet takes them on entry.
    for (int i : {infoDate, infoProcessDate, infoMeasureTime}) {
        double serial;
        if (info[i].isString() && ParseDateText(info[i].str(), serial)) info[i] = Value::date(serial);
    }

    // 4. Sheet name and workbook path.
    p.chk = 4;
    std::string name = FileOf(text(infoDataTable));
    if (name.empty()) name = "Data";
    {
        size_t dot = name.rfind('.');
        if (dot != std::string::npos && name.size() - dot - 1 <= 3) name.resize(dot);
    }
    name = Replace(Replace(name, ".", "_"), " ", "_");
    std::string sheetName = FixSheetName(name).substr(0, kMaxSheetName);
    std::string path = text(infoWorkBookPath);
    if (path.empty()) {
        std::string folder = text(infoDataFolder);
        if (folder.empty()) folder = FolderOf(text(infoFilePath));
        path = (folder.empty() ? std::string(".") : folder) + "/" + name + ".xlsx";
    } else if (IEndsWith(path, ".xls") || IEndsWith(path, ".xlt")) {
        path += "x";  // the store writes the Open XML form
    }
    info[infoWorkBookPath] = path;
    // A failure of the workbook names it.
    auto fail = [&](std::string text) {
        Failure f = p.fail(std::move(text));
        f.file = path;
        return f;
    };

    // 5. Open or create.
    p.chk = 5;
    WorkbookPtr wb;
    if (Status opened = OpenExcelWorksheet(path, wb, nullptr, true); !opened) return opened.failure();
    if (wb->readOnly()) return fail("Error Saving: " + path);

    // 6. The data sheet: an existing one with this name, with or without "-".
    p.chk = 6;
    SetStatusText("Workbook configuration ...");
    Worksheet* ws = wb->sheet(sheetName);
    if (!ws) {
        std::string dashed = Replace(sheetName, "_", "-");
        for (int i = 1; i <= wb->sheetCount() && !ws; ++i) {
            const std::string& n = wb->sheet(i)->name();
            if (IEquals(Replace(n, "-", "_"), sheetName) || IEquals(n, dashed)) ws = wb->sheet(i);
        }
        if (ws) ws->setName(sheetName);
    }
    if (!ws) ws = wb->addSheet(sheetName);
    if (!ws) return fail("Cannot add the worksheet '" + sheetName + "' to " + path);
    wb->activate(ws);

    // 7. The data, its comments.
    p.chk = 7;
    wb->setProperty("Author", VersionLine());
    ws->clear();
    ws->clearComments();
    Datam holder;
    const Datam& d = Trimmed(data, holder);
    {
        Datam header(d.rowLb(), d.colUb(), d.rowLb(), d.colLb());
        for (int c = d.colLb(); c <= d.colUb(); ++c) header(d.rowLb(), c) = d(d.rowLb(), c);
        ws->setRange(1, 1, header);
    }
    // The body stays in the caller's table until the save writes it; should
    // the save not happen, the sheet takes its own copy.
    ws->referRows(2, 1, d, d.rowLb() + 1, d.rowUb());
    struct HoldOnExit {
        Worksheet* ws;
        ~HoldOnExit() { ws->holdCells(); }
    } hold{ws};
    ws->setComment(1, 1, "DATASHEET", false);
    ws->setComment(2, 1, BaseOf(path), false);

    // 8. Sites, first.
    p.chk = 8;
    Worksheet* ss = wb->sheet("Sites");
    if (!ss) ss = wb->addSheet("Sites", 0);
    if (!ss) return fail("Cannot add the 'Sites' worksheet.");
    ss->clear();
    if (sites.isArray() && sites.dims() == 2) {
        Datam sh;
        ss->setRange(1, 1, Trimmed(sites, sh));
    }

    // 9. Information, second.
    p.chk = 9;
    Worksheet* is = wb->sheet("Information");
    if (!is) is = wb->addSheet("Information", std::min(1, wb->sheetCount()));
    if (!is) return fail("Cannot add the 'Information' worksheet.");
    is->clear();
    Datam it(kInformationKeyCount, 2, 1, 1);
    for (int i = 1; i <= kInformationKeyCount; ++i) {
        it(i, 1) = kInformationKeys[i - 1];
        it(i, 2) = info[i];
    }
    is->setRange(1, 1, it);

    // 10. Statistics of the value columns.
    p.chk = 10;
    SetStatusText("Calculating Raw Data Statistics...");
    Datam summary = SummaryOf(d, d.colLb() + 5);
    SetStatusText("Saving Raw Data Statistics...");
    is->setCell(1, 5, "Summary");
    if (summary.isArray()) is->setRange(2, 5, summary);

    // 11. Excluded rows.
    p.chk = 11;
    if (excluded.isArray() && excluded.dims() == 2) {
        Datam eh;
        const Datam& e = Trimmed(excluded, eh);
        if (e.rowCount() > 1) {
            SaveArrayOptions o;
            o.title = "Excluded Data Values for: " + sheetName;
            o.save = false;
            if (Status saved = SaveArray(e, "Excluded", wb.get(), o); !saved) return saved.failure();
        } else if (wb->sheet("Excluded")) {
            wb->removeSheet("Excluded");
        }
    }

    // 12. Formats.
    p.chk = 12;
    is->setAlignment(Area{1, 1, kInformationKeyCount, 1}, HAlign::Left);
    is->setAlignment(Area{1, 2, kInformationKeyCount, 2}, HAlign::Right);
    is->setNumberFormat(Area{1, 2, kInformationKeyCount, 2}, "General");
    is->setNumberFormat(infoDate, 2, "d-mmm-yy");
    is->setNumberFormat(infoProcessDate, 2, "d-mmm-yy");
    is->setNumberFormat(infoMeasureTime, 2, "hh:mm:ss");
    if (summary.isArray())
        is->setNumberFormat(Area{2, 4, 2 + summary.rowUb(), 6}, "General");
    is->setBold(Area{1, 1, 1, 2});
    // Each value column is a workbook name over its data cells.
    for (int c = d.colLb() + 5; c <= d.colUb(); ++c) {
        std::string h = Trim(CellText(d(d.rowLb(), c)));
        if (!IsPlainName(h)) continue;
        int col = c - d.colLb() + 1;
        wb->addName(h, FormatRangeRef(ws->name(), Area{2, col, d.rowCount(), col}));
    }
    for (const DefinedName& dn : std::vector<DefinedName>(wb->names())) {
        std::string fmt;
        for (const char* k : {"X_reg", "Y_reg", "Measure", "Height", "Vertical", "Horizontal"})
            if (IEquals(dn.name, k)) fmt = "##0.000";
        if (IEquals(dn.name, "Slope")) fmt = "###0.00";
        if (fmt.empty()) continue;
        std::optional<RangeRef> rr = wb->nameRange(dn.name);
        if (!rr) continue;
        if (Worksheet* t = wb->sheet(rr->sheet)) t->setNumberFormat(rr->area, fmt);
    }
    ws->setBold(Area{1, 1, 1, d.colCount()});
    if (layout && layout->isArray() && layout->dims() == 2) {
        Worksheet* ls = wb->sheet("Layout");
        if (!ls) {
            // Before "Excluded", which stays the last sheet.
            Worksheet* ex = wb->sheet("Excluded");
            ls = wb->addSheet("Layout", ex ? ex->index() - 1 : -1);
        }
        if (!ls) return fail("Cannot add the 'Layout' worksheet.");
        ls->clear();
        ls->setRange(1, 1, *layout);
        ls->setBold(Area{1, 1, 1, layout->colCount()});
    }
    SetStatusText(VersionLine() + ": Data loaded");

    // 13. Properties, stray sheets, save.
    p.chk = 13;
    SetWorkbookProperties(*wb);
    for (const std::string& n : wb->sheetNames())
        if (n.find("Sheet") != std::string::npos && n != ws->name() && wb->sheetCount() > 1)
            wb->removeSheet(n);
    wb->activate(ws);
    if (Status s = wb->save(); !s) {
        std::string text = "Error Saving: " + path;
        if (!s.failure().text.empty()) text += "\r\n" + s.failure().text;
        return fail(std::move(text));
    }
    SetStatusText("Worksheet (" + sheetName + ") saved as data sheet.");
    return wb->path();
}

}  // namespace zorv
