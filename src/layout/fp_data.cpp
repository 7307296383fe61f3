// The field table of a lot, the "Layout" sheet and the layout templates.
#include "layout/fp_data.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <filesystem>

#include "base/format.h"
#include "base/identity.h"
#include "base/regional.h"
#include "base/report.h"
#include "base/text.h"
#include "base/value.h"
#include "layout/meander.h"
#include "lot/lot.h"
#include "workbook/store.h"
#include "workbook/workbook_ops.h"

namespace fs = std::filesystem;

namespace zorv {

namespace {

// A single as the double its shortest text reads as, so that 0.1f goes into
// the sheet as 0.1.
Value FloatValue(float f) {
    if (f == std::floor(f) && std::fabs(f) < 2e9f) return Value(static_cast<int32_t>(f));
    char buf[32];
    const auto end = std::to_chars(buf, buf + sizeof buf, f).ptr;
    double d = f;
    std::from_chars(buf, end, d);
    return Value(d);
}

std::string CellString(const Value& v) { return v.isError() ? std::string() : v.toString(); }

// The start field of a wafer: the lowest row, then the lowest column.
const cField* StartField(const cWafer& w) {
    const cField* s = nullptr;
    for (const cField* f : w.Fields())
        if (!s || f->DieY < s->DieY || (f->DieY == s->DieY && f->DieX < s->DieX)) s = f;
    return s;
}

double FieldExposure(const cField& f, int column) {
    switch (column) {
        case 5: return f.Focus;
        case 6: return f.Dose;
        case 7: return f.NA;
        case 8: return f.PCinner;
        case 9: return f.PCouter;
        default: return static_cast<double>(f.Direction);
    }
}

constexpr const char* kSetupRowNames[] = {"Meander", "DieXo", "DieYo", "InitialValue",
                                          "Step",    "ControlIndex", "Scan1", "Scan2"};
constexpr const char* kSetupHeads[] = {"selWafer", "Variable", "Focus", "Dose",
                                       "NA",       "PCinner",  "PCouter", "ScanDirection"};
constexpr const char* kLayoutRowHeads[] = {"Wafer", "Variable", "Meander",      "DieXo", "DieYo",
                                           "InitialValue", "Step", "ControlIndex", "Scan1", "Scan2"};

bool Writable(const fs::path& dir) {
    std::error_code ec;
    if (fs::is_directory(dir, ec)) return ::access(dir.c_str(), W_OK) == 0;
    const fs::path parent = dir.parent_path();
    return !parent.empty() && fs::is_directory(parent, ec) && ::access(parent.c_str(), W_OK) == 0;
}

bool IsTemplateFile(const fs::path& p) {
    const std::string e = Lower(p.extension().string());
    return e == ".xlsx" || e == ".xltx" || e == ".xlt" || e == ".xls";
}

}  // namespace

ExposureStandard GetExposureStandard(const cLot& lot, const Datam* information) {
    ExposureStandard s;
    if (cWafer* w = lot.Wafers().At(1))
        if (cField* f = w->Fields().At(1)) {
            s.focus = f->Focus, s.dose = f->Dose, s.NA = f->NA;
            s.PCinner = f->PCinner, s.PCouter = f->PCouter;
        }
    if (!information || !information->isArray() || information->dims() != 2 ||
        information->colUb() <= information->colLb())
        return s;
    const int c0 = information->colLb();
    for (int r = information->rowLb(); r <= information->rowUb(); ++r) {
        const std::string key = Trim(CellString((*information)(r, c0)));
        const Value& v = (*information)(r, c0 + 1);
        if (!IsNumericValue(v)) continue;
        const double d = v.toDouble();
        if (IEquals(key, "Fo")) s.focus = d;
        else if (IEquals(key, "Dose")) s.dose = d;
        else if (IEquals(key, "NA")) s.NA = d;
        else if (IEquals(key, "PCinner")) s.PCinner = d;
        else if (IEquals(key, "PCouter")) s.PCouter = d;
    }
    return s;
}

Result<Datam> MakeFPdata(const cLot* lot) {
    Proc p("PSFManalysis(MakeFPdata): ");
    p.chk = 1;
    long n = 0;
    if (lot)
        for (cWafer* w : lot->Wafers()) n += w->Fields().Count();
    if (n == 0) return p.fail("No data in lot object.");
    p.chk = 2;
    GetExposureStandard(*lot);
    Datam t(static_cast<int>(n), 10, 0, 1);
    for (int c = 1; c <= 10; ++c) t(0, c) = Value(kFPdataHeads[c - 1]);
    int r = 0;
    for (cWafer* w : lot->Wafers())
        for (cField* f : w->Fields()) {
            ++r;
            t(r, 1) = Value(w->KeyName);
            t(r, 2) = Value(f->NumberKey);
            t(r, 3) = FloatValue(f->DieX);
            t(r, 4) = FloatValue(f->DieY);
            t(r, 5) = FloatValue(f->Focus);
            t(r, 6) = FloatValue(f->Dose);
            t(r, 7) = FloatValue(f->NA);
            t(r, 8) = FloatValue(f->PCinner);
            t(r, 9) = FloatValue(f->PCouter);
            t(r, 10) = Value(DirectionWord(f->Direction));
        }
    return t;
}

Datam MakeSetup(const cLot& lot) {
    const int nw = lot.Wafers().Count();
    Datam t(8 * nw, 8, 0, 1);
    for (int c = 1; c <= 8; ++c) t(0, c) = Value(kSetupHeads[c - 1]);
    int block = 0;
    for (cWafer* w : lot.Wafers()) {
        const cField* start = StartField(*w);
        const cField* first = w->Fields().At(1);
        for (int k = 0; k < 8; ++k) {
            const int r = block * 8 + k + 1;
            t(r, 1) = Value(w->KeyName);
            t(r, 2) = Value(kSetupRowNames[k]);
            for (int c = 3; c <= 8; ++c) {
                Value v;
                switch (k) {
                    case 0: v = Value("Constant"); break;
                    case 1: v = start ? FloatValue(start->DieX) : Value(int32_t(0)); break;
                    case 2: v = start ? FloatValue(start->DieY) : Value(int32_t(0)); break;
                    case 3: v = first ? FloatValue(static_cast<float>(FieldExposure(*first, c + 2))) : Value(0.0); break;
                    case 4: v = Value(int32_t(0)); break;
                    case 5: v = Value(int32_t(1)); break;
                    case 6: v = Value("Right"); break;
                    default: v = Value("Up"); break;
                }
                t(r, c) = v;
            }
        }
        ++block;
    }
    return t;
}

int FEMlayout(cLot& lot, const Datam* setup) {
    Datam made;
    if (!setup || !setup->isArray() || setup->dims() != 2) {
        made = MakeSetup(lot);
        setup = &made;
    }
    const Datam& s = *setup;
    const int c0 = s.colLb();
    int count = 0;
    for (cWafer* w : lot.Wafers()) {
        if (!w->Layouts.empty()) continue;
        for (int c = c0 + 2; c <= s.colUb(); ++c) {
            cLayout l;
            l.VariableName = CellString(s(s.rowLb(), c));
            if (l.VariableName.empty()) continue;
            bool any = false;
            for (int r = s.rowLb() + 1; r <= s.rowUb(); ++r) {
                if (!IEquals(CellString(s(r, c0)), w->KeyName)) continue;
                const std::string name = CellString(s(r, c0 + 1));
                const Value& v = s(r, c);
                const float num = static_cast<float>(IsNumericValue(v) ? v.toDouble() : 0.0);
                any = true;
                if (IEquals(name, "Meander")) l.Meander = CellString(v);
                else if (IEquals(name, "DieXo")) l.DieXo = num;
                else if (IEquals(name, "DieYo")) l.DieYo = num;
                else if (IEquals(name, "InitialValue")) l.InitialValue = num;
                else if (IEquals(name, "Step")) l.Step = num;
                else if (IEquals(name, "ControlIndex")) l.ControlIndex = static_cast<int>(std::lround(num));
                else if (IEquals(name, "Scan1")) l.Scan1 = CellString(v);
                else if (IEquals(name, "Scan2")) l.Scan2 = CellString(v);
            }
            if (any) w->Layouts.push_back(std::move(l));
        }
        if (!w->Layouts.empty()) ++count;
    }
    return count;
}

Datam LayoutSetupRows(const cLot& lot) {
    int n = 0;
    for (cWafer* w : lot.Wafers()) n += static_cast<int>(w->Layouts.size());
    Datam t(n, 10, 0, 1);
    for (int c = 1; c <= 10; ++c) t(0, c) = Value(kLayoutRowHeads[c - 1]);
    int r = 0;
    for (cWafer* w : lot.Wafers())
        for (const cLayout& l : w->Layouts) {
            ++r;
            t(r, 1) = Value(w->KeyName);
            t(r, 2) = Value(l.VariableName);
            t(r, 3) = Value(l.Meander);
            t(r, 4) = FloatValue(l.DieXo);
            t(r, 5) = FloatValue(l.DieYo);
            t(r, 6) = FloatValue(l.InitialValue);
            t(r, 7) = FloatValue(l.Step);
            t(r, 8) = Value(static_cast<int32_t>(l.ControlIndex));
            t(r, 9) = Value(l.Scan1);
            t(r, 10) = Value(l.Scan2);
        }
    return t;
}

Datam LayoutSheetTable(cLot& lot, const Datam& fp) {
    FEMlayout(lot);
    const Datam setup = LayoutSetupRows(lot);
    long count = 0;
    Datam foci;
    const Datam ex = lot.GetUniqueExposures(count, foci);
    const int fpRows = fp.isArray() ? fp.rowCount() : 0;
    const int exRows = 2 + std::max(ex.rowCount(), foci.rowCount());
    const int rows = std::max({fpRows, setup.rowCount(), exRows, 1});
    Datam t(rows, kLayoutExposureColumn + 4, 1, 1);
    for (int r = 0; r < fpRows; ++r)
        for (int c = 0; c < std::min(fp.colCount(), 10); ++c)
            t(r + 1, c + 1) = fp(fp.rowLb() + r, fp.colLb() + c);
    for (int r = 0; r < setup.rowCount(); ++r)
        for (int c = 0; c < 10; ++c) t(r + 1, kLayoutSetupColumn + c) = setup(r, c + 1);
    t(1, kLayoutExposureColumn) = Value("Unique Exposures for Layout:");
    for (int r = 0; r < ex.rowCount(); ++r)
        for (int c = 0; c < 4; ++c) t(r + 2, kLayoutExposureColumn + c) = ex(ex.rowLb() + r, ex.colLb() + c);
    for (int r = 0; r < foci.rowCount(); ++r) t(r + 2, kLayoutExposureColumn + 4) = foci(foci.rowLb() + r, foci.colLb());
    return t;
}

Status SaveFPdata(cLot& lot, const Datam& fpData, Workbook* workbook, bool save) {
    Proc p("PSFManalysis(SaveFPdata): ");
    p.chk = 1;
    if (!workbook) return p.fail("Workbook not provided.");
    if (!fpData.isArray() || fpData.dims() != 2) return p.fail("No data in lot object.");
    p.chk = 2;
    const Datam table = LayoutSheetTable(lot, fpData);
    Worksheet* ws = workbook->sheet("Layout");
    if (!ws) {
        // Before "Excluded", which stays the last sheet.
        Worksheet* ex = workbook->sheet("Excluded");
        ws = workbook->addSheet("Layout", ex ? ex->index() - 1 : -1);
    }
    if (!ws) {
        Failure f = p.fail("Cannot add the 'Layout' worksheet.");
        f.file = workbook->path();
        return f;
    }
    ws->clear();
    ws->setRange(1, 1, table);
    ws->setBold(Area{1, 1, 1, table.colCount()});
    p.chk = 3;
    if (Status s = AddIndexItem(workbook, "Layout", "Wafer Layout last saved: " + FormatDate(NowSerial(), "yyyy-mm-dd hh:mm:ss"), Value(), false); !s)
        return s;
    if (!save) return StatusOk();
    p.chk = 4;
    return SaveWorkbookChecked(*workbook, "Layout", false);
}

Status SaveFPdataFromLot(cLot& lot, Workbook* workbook, bool save) {
    Proc p("LayoutPrograms(SaveFPdataFromLot): ");
    p.chk = 1;
    if (Trim(lot.LotName).empty()) return p.fail("File not saved");
    p.chk = 2;
    Result<Datam> fp = MakeFPdata(&lot);
    if (!fp) return fp.failure();
    return SaveFPdata(lot, fp.value(), workbook, save);
}

std::string LayoutTemplateFolder(const std::string& folder) {
    if (!folder.empty()) return folder;
    if (!ProgramFolder().empty()) {
        const fs::path beside = fs::path(ProgramFolder()) / "LayoutTemplates";
        if (Writable(beside)) return beside.string();
    }
    fs::path data;
    if (const char* x = std::getenv("XDG_DATA_HOME"); x && *x) data = x;
    else if (const char* h = std::getenv("HOME"); h && *h) data = fs::path(h) / ".local" / "share";
    else data = fs::temp_directory_path();
    return (data / "zorv" / "LayoutTemplates").string();
}

Result<std::string> SaveAsLayout(cLot& lot, const std::string& name, const std::string& folder) {
    Proc p("Import(SaveAsLayout): ");
    p.chk = 1;
    std::string stem = Trim(name.empty() ? lot.LotName : name);
    if (stem.empty()) return p.fail("File not saved");
    if (IsTemplateFile(fs::path(stem))) stem = fs::path(stem).stem().string();
    // The sheet as the workbook holds it, else as it would be saved.
    Datam table;
    if (auto wb = std::static_pointer_cast<Workbook>(lot.xlwb))
        if (Worksheet* ws = wb->sheet("Layout")) table = ws->range(Area{1, 1, std::max(1, ws->lastRow()), std::max(1, ws->lastCol())});
    if (!table.isArray()) {
        Result<Datam> fp = MakeFPdata(&lot);
        if (!fp) return fp.failure();
        table = LayoutSheetTable(lot, fp.value());
    }
    p.chk = 2;
    const fs::path dir = LayoutTemplateFolder(folder);
    std::error_code ec;
    fs::create_directories(dir, ec);
    const std::string path = (dir / FixWorkbookPathName(stem + ".xlsx")).string();
    WorkbookPtr out = Workbook::create(path, "Layout");
    out->sheet("Layout")->setRange(1, 1, table);
    out->sheet("Layout")->setBold(Area{1, 1, 1, table.colCount()});
    SetWorkbookProperties(*out);
    p.chk = 3;
    if (Status s = out->save(); !s) {
        Failure f = p.fail("Error Saving: " + path);
        f.file = path;
        return f;
    }
    return path;
}

std::vector<std::string> UpdateLayoutTemplates(const std::string& folder) {
    SetStatusText("Update FEM Layout Templates ...");
    std::vector<std::string> files;
    std::error_code ec;
    for (fs::directory_iterator it(LayoutTemplateFolder(folder), ec), end; !ec && it != end; it.increment(ec))
        if (it->is_regular_file(ec) && IsTemplateFile(it->path())) files.push_back(it->path().filename().string());
    std::sort(files.begin(), files.end());
    if (files.empty()) files.push_back("Empty");
    files.insert(files.begin(), "Files");
    return files;
}

}  // namespace zorv
