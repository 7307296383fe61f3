// The frame every reader fills and the ending through SaveData.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <memory>

#include "base/regional.h"
#include "base/report.h"
#include "base/text.h"
#include "lot/lot.h"
#include "reader.h"
#include "workbook/data_workbook.h"

namespace zorv {

namespace fs = std::filesystem;

namespace {
constexpr int kFirstFeature = 5;
constexpr int kSiteUnitsColumn = 7;
const char* const kDataHeads[] = {"", "Wafer", "Test", "Diex", "Diey"};
const char* const kSiteHeads[] = {"Sites", "X_DIE_SIZE", "Y_DIE_SIZE", "TEST", "X_LOC", "Y_LOC", "FAMILY"};
}  // namespace

// ------------------------------------------------------------ the tables

// The data table starts with the four index columns; the features widen it
// while it is still small, so that the rows never need moving sideways.
ReaderTables::ReaderTables() : data_(256, 4, 0, 0), excl_(0, 4, 0, 0), sites_(64, 6, 0, 0) {
    for (int c = 1; c <= 4; ++c) {
        data_(0, c) = kDataHeads[c];
        excl_(0, c) = kDataHeads[c];
    }
    excl_(0, 0) = "Orig.\r\nRow";
    for (int c = 0; c < 7; ++c) sites_(0, c) = kSiteHeads[c];
}

void ReaderTables::setFeature(int k, const std::string& name) {
    const int col = kFirstFeature + k;
    if (col > data_.colUb()) {
        data_.redim(data_.rowUb(), col, 0, 0, true);
        excl_.redim(excl_.rowUb(), col, 0, 0, true);
    }
    if (k >= features_) {
        features_ = k + 1;
        names_.resize(features_);
        units_.resize(features_);
    }
    if (!names_[k].empty()) return;
    names_[k] = name;
    data_(0, col) = name;
    excl_(0, col) = name;
}

void ReaderTables::reserveRows(long rows) {
    if (rows > data_.rowUb()) data_.redimPreserve(static_cast<int>(std::min<long>(rows, 0x7ffffff0)), data_.colUb());
}

long ReaderTables::addRow() {
    if (rows_ + 1 > data_.rowUb()) {
        long grow = std::max<long>(256, data_.rowUb() / 2);
        data_.redimPreserve(static_cast<int>(data_.rowUb() + grow), data_.colUb());
    }
    ++rows_;
    return rows_;
}

void ReaderTables::excludeLastRow(long sourceLine) {
    if (rows_ < 1) return;
    ++xrows_;
    if (xrows_ > excl_.rowUb()) excl_.redimPreserve(static_cast<int>(xrows_ + xrows_ / 2 + 16), excl_.colUb());
    const int r = static_cast<int>(rows_);
    excl_(static_cast<int>(xrows_), 0) = static_cast<int32_t>(sourceLine);
    for (int c = 1; c <= data_.colUb(); ++c) {
        excl_(static_cast<int>(xrows_), c) = std::move(data_(r, c));
        data_(r, c) = Value();
    }
    --rows_;
}

bool ReaderTables::hasSite(long test) const { return siteRow_.count(test) != 0; }

void ReaderTables::addSite(long test, double dieSizeXmm, double dieSizeYmm, double xMm, double yMm,
                           const std::string& family) {
    if (test < 1 || hasSite(test)) return;
    ++srows_;
    if (srows_ > sites_.rowUb()) sites_.redimPreserve(srows_ + srows_ / 2, sites_.colUb());
    siteRow_[test] = srows_;
    sites_(srows_, 1) = dieSizeXmm;
    sites_(srows_, 2) = dieSizeYmm;
    sites_(srows_, 3) = static_cast<int32_t>(test);
    sites_(srows_, 4) = xMm;
    sites_(srows_, 5) = yMm;
    if (!family.empty()) sites_(srows_, 6) = family;
}

void ReaderTables::setUnit(int k, const std::string& unit) {
    if (k < 0) return;
    if (k >= features_) setFeature(k, "Value" + std::to_string(k + 1));
    units_[k] = unit;
}

void ReaderTables::trim() {
    // Only the features that have a header; rows as filled.
    const int lastCol = kFirstFeature + features_ - 1;
    data_.redim(static_cast<int>(rows_), std::max(4, lastCol), 0, 0, true);
    excl_.redim(static_cast<int>(xrows_), std::max(4, lastCol), 0, 0, true);
    // The unit columns: "<feature>_UNITS", the unit in the first site row.
    int nUnits = 0;
    for (int k = 0; k < features_; ++k)
        if (!units_[k].empty()) ++nUnits;
    // The loader finds site n on row n of the table: each site goes to the
    // row of its number, whatever order the file met them in. Rows of numbers
    // no row used stay empty, and the loader passes them by.
    long lastSite = 1;
    for (const auto& [test, row] : siteRow_) lastSite = std::max(lastSite, test);
    if (lastSite > 65536 && lastSite > 2L * srows_) {
        // Numbers so sparse would make a huge table: number the sites in the
        // order they were met, and the rows with them.
        std::unordered_map<long, long> renumber;
        for (auto& [test, row] : siteRow_) renumber[test] = row;
        for (Datam* t : {&data_, &excl_})
            for (int r = 1; r <= t->rowUb(); ++r) {
                auto it = renumber.find(static_cast<long>((*t)(r, 2).toDouble()));
                if (it != renumber.end()) (*t)(r, 2) = static_cast<int32_t>(it->second);
            }
        std::unordered_map<long, int> byRow;
        for (auto& [test, row] : siteRow_) {
            sites_(row, 3) = static_cast<int32_t>(row);
            byRow[row] = row;
        }
        siteRow_ = std::move(byRow);
        lastSite = srows_;
    }
    Datam s(static_cast<int>(lastSite), kSiteUnitsColumn - 1 + nUnits, 0, 0);
    for (int c = 0; c < kSiteUnitsColumn; ++c) s(0, c) = sites_.get(0, c);
    for (const auto& [test, row] : siteRow_)
        for (int c = 0; c < kSiteUnitsColumn; ++c) s(static_cast<int>(test), c) = sites_.get(row, c);
    int col = kSiteUnitsColumn;
    for (int k = 0; k < features_; ++k) {
        if (units_[k].empty()) continue;
        s(0, col) = names_[k] + "_UNITS";
        s(1, col) = units_[k];
        ++col;
    }
    sites_ = std::move(s);
}

// -------------------------------------------------------- field exposures

void FieldExposures::note(const std::string& wafer, long dieX, long dieY, double focus, double dose) {
    if (!rows_.empty()) {
        const Row& l = rows_[last_];
        if (l.dieX == dieX && l.dieY == dieY && l.wafer == wafer) return;
    }
    std::string key = wafer;
    key += '|';
    key += std::to_string(dieX);
    key += '|';
    key += std::to_string(dieY);
    auto [it, fresh] = index_.emplace(std::move(key), rows_.size());
    if (fresh) rows_.push_back(Row{wafer, dieX, dieY, focus, dose});
    last_ = it->second;
}

void FieldExposures::shift(long dx, long dy) {
    if (dx == 0 && dy == 0) return;
    for (Row& r : rows_) {
        r.dieX += dx;
        r.dieY += dy;
    }
    index_.clear();
}

Datam FieldExposures::layoutSheet() const {
    static const char* const fieldHeads[] = {"Wafer", "Field", "Diex",    "Diey",    "Focus",
                                             "Dose",  "NA",    "PCinner", "PCouter", "ScanDirection"};
    static const char* const setupHeads[] = {"Wafer", "Variable", "Meander", "DieXo", "DieYo",
                                             "InitialValue", "Step", "ControlIndex", "Scan1", "Scan2"};
    // Wafers in order of appearance, each with its first field (the start
    // of the layout program) and its field count.
    std::vector<std::string> wafers;
    std::vector<size_t> first;
    for (size_t i = 0; i < rows_.size(); ++i)
        if (std::find(wafers.begin(), wafers.end(), rows_[i].wafer) == wafers.end()) {
            wafers.push_back(rows_[i].wafer);
            first.push_back(i);
        }
    const int setupRows = static_cast<int>(wafers.size()) * 2;
    const int n = std::max(static_cast<int>(rows_.size()), setupRows);
    Datam t(n, 21, 0, 0);
    for (int c = 0; c < 10; ++c) {
        t(0, c) = fieldHeads[c];
        t(0, 11 + c) = setupHeads[c];
    }
    std::vector<int> fieldNo(wafers.size(), 0);
    for (size_t i = 0; i < rows_.size(); ++i) {
        const Row& r = rows_[i];
        const int row = static_cast<int>(i) + 1;
        size_t w = std::find(wafers.begin(), wafers.end(), r.wafer) - wafers.begin();
        t(row, 0) = r.wafer;
        t(row, 1) = static_cast<int32_t>(++fieldNo[w]);
        t(row, 2) = static_cast<int32_t>(r.dieX);
        t(row, 3) = static_cast<int32_t>(r.dieY);
        t(row, 4) = r.focus;
        t(row, 5) = r.dose;
        t(row, 9) = "Up";
    }
    int row = 1;
    for (size_t w = 0; w < wafers.size(); ++w) {
        const Row& f = rows_[first[w]];
        for (int v = 0; v < 2; ++v, ++row) {
            t(row, 11) = wafers[w];
            t(row, 12) = v == 0 ? "Focus" : "Dose";
            t(row, 13) = "Constant";
            t(row, 14) = static_cast<int32_t>(f.dieX);
            t(row, 15) = static_cast<int32_t>(f.dieY);
            t(row, 16) = v == 0 ? f.focus : f.dose;
            t(row, 17) = 0.0;
            t(row, 18) = static_cast<int32_t>(1);
            t(row, 19) = "Right";
            t(row, 20) = "Up";
        }
    }
    return t;
}

// ------------------------------------------------------------- helpers

Failure FileFailure(Proc& p, const std::string& path, long line, std::string text) {
    if (line > 0) text += "\r\nFile: " + path + ", line " + std::to_string(line);
    else text += "\r\nFile: " + path;
    Failure f = p.fail(std::move(text));
    f.file = path;
    f.row = line;
    return f;
}

std::string ReaderWorkbookPath(const ImportRequest& request) {
    if (!request.workbookPath.empty()) return request.workbookPath;
    fs::path src(request.path);
    fs::path folder = request.dataFolder.empty() ? src.parent_path() : fs::path(request.dataFolder);
    // A name without a dot keeps it whole; otherwise the extension goes.
    std::string name = src.filename().string();
    if (name.find('.') != std::string::npos) name = src.stem().string();
    fs::path out = folder / (name + ".xlsx");
    // A spreadsheet source is never overwritten by its own data workbook.
    std::error_code ec;
    if (fs::exists(src, ec) && fs::equivalent(src, out, ec)) out = folder / (name + "_Zorv.xlsx");
    return out.string();
}

int FindWord(const std::vector<std::string>& upperWords, std::initializer_list<const char*> spellings) {
    for (size_t i = 0; i < upperWords.size(); ++i)
        for (const char* s : spellings)
            if (upperWords[i] == s) return static_cast<int>(i);
    return -1;
}

std::string FamilyOfFeature(std::string_view feature, const std::string& fallback) {
    std::string u = Upper(feature);
    if (u.find("VIA") != std::string::npos) return "Via";
    if (u.find("SPACE") != std::string::npos) return "DensePack";
    if (u.find("LINE") != std::string::npos) return "IsoLine";
    return fallback;
}

bool ParseFileNumber(std::string_view text, double& out) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    if (text.empty()) return false;
    if (text.front() == '+') text.remove_prefix(1);
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    if (ec == std::errc() && end == text.data() + text.size()) return std::isfinite(out);
    // A machine with a decimal comma, or thousands separators.
    return ParseMachineNumber(text, out) && std::isfinite(out);
}

std::string IncompleteDataText(std::string_view fileName) {
    return "Incomplete data file: " + std::string(fileName) +
           "\r\nEncountered end of data file. Please check import format.";
}

bool CellNumber(const Value& v, double& out) {
    switch (v.type()) {
        case VType::Integer:
        case VType::Long:
        case VType::Single:
        case VType::Double: out = v.toDouble(); return std::isfinite(out);
        case VType::String: return ParseFileNumber(v.str(), out);
        default: return false;
    }
}

std::string CellText(const Value& v) { return v.isString() ? Trim(v.str()) : v.toString(); }

const Value& CellAt(const Value* cells, int count, int col) {
    static const Value kEmpty;
    return col >= 0 && col < count ? cells[col] : kEmpty;
}

void ReaderLineReplacements(std::string& line) {
    // " PM" and " AM" keep a time one word; a tab-separated line keeps its
    // blanks inside fields as "_"; "(0,0)" is one word; commas are blanks.
    auto replaceSameLength = [&](std::string_view from, std::string_view to) {
        for (size_t at = line.find(from); at != std::string::npos; at = line.find(from, at + to.size()))
            line.replace(at, from.size(), to);
    };
    replaceSameLength(" PM", "_PM");
    replaceSameLength(" AM", "_AM");
    if (line.find('\t') != std::string::npos) {
        std::replace(line.begin(), line.end(), ' ', '_');
        std::replace(line.begin(), line.end(), '\t', ' ');
    }
    replaceSameLength("(0,0)", "(0_0)");
    if (line.find("(0, 0)") != std::string::npos) line = Replace(line, "(0, 0)", "(0_0)");
    std::replace(line.begin(), line.end(), ',', ' ');
}

// ------------------------------------------------------------- the end

namespace {

Datam InformationTable(const ImportRequest& request, const ReaderHeader& h, const cLot& lot,
                       const std::string& workbookPath) {
    Datam info(kInformationKeyCount, 1, 1, 0);
    for (int i = 1; i <= kInformationKeyCount; ++i) info(i, 0) = kInformationKeys[i - 1];
    auto set = [&](int row, Value v) { info(row, 1) = std::move(v); };
    char dec = '.', tho = ',';
    GetRegionalSeparators(dec, tho);
    set(infoDataType, h.dataType);
    // The data sheet takes the workbook's name, so that the loader finds it
    // by name whatever the source was called.
    set(infoDataTable, fs::path(workbookPath).stem().string());
    set(infoInspection, h.recipe);
    set(infoDevice, h.device);
    set(infoLevel, h.layer);
    set(infoDieSizeX, h.dieSizeXmm);
    set(infoDieSizeY, h.dieSizeYmm);
    set(infoSiteXoffset, h.siteXoffsetMm);
    set(infoSiteYoffset, h.siteYoffsetMm);
    set(infoDieXoffset, static_cast<double>(lot.DieXoffset) / 1000);
    set(infoDieYoffset, static_cast<double>(lot.DieYoffset) / 1000);
    set(infoDieXarray, static_cast<double>(lot.DieXarray));
    set(infoDieYarray, static_cast<double>(lot.DieYarray));
    set(infoFlatLocation, h.notch);
    set(infoMetrologynom, h.toolName);
    set(infoLot, h.lotName);
    set(infoJob, h.job);
    // Dates as the file writes them, repaired for this machine's separators.
    if (!h.date.empty()) {
        Value d = FixRegionalDate(h.date, dec, tho);
        set(infoDate, d.isEmpty() ? Value(h.date) : d);
    }
    if (!h.time.empty()) {
        Value t = FixRegionalDate(h.time, dec, tho);
        set(infoMeasureTime, t.isEmpty() ? Value(h.time) : t);
    }
    set(infoTitle, h.lotName);
    set(infoExposureTool, h.exposureTool);
    set(infoUserName, h.user);
    set(infoStepperID, h.system);
    set(infoReticle, h.reticle);
    set(infoFilePath, request.path);
    set(infoWorkBookPath, workbookPath);
    set(infoDataFolder, fs::path(workbookPath).parent_path().string());
    if (h.waferSizeMm > 0) set(infoWaferSize, h.waferSizeMm);
    return info;
}

// The field index of the first data row with numeric indices, or false.
bool FirstIndices(const Datam& d, long& x, long& y) {
    for (int r = 1; r <= d.rowUb(); ++r)
        if (IsNumericValue(d(r, 3)) && IsNumericValue(d(r, 4))) {
            x = std::lround(d(r, 3).toDouble());
            y = std::lround(d(r, 4).toDouble());
            return true;
        }
    return false;
}

}  // namespace

Result<std::string> FinishImport(Proc& p, const ImportRequest& request, ReaderTables& t, ReaderHeader& h,
                                 FieldExposures* fields) {
    if (t.rows() < 1) return FileFailure(p, request.path, 0, "No data rows were imported.");
    t.trim();

    // The field size from the sites when the file gave none.
    if (h.dieSizeXmm <= 0 || h.dieSizeYmm <= 0) {
        double sx = 0, sy = 0, stepX = 0, stepY = 0;
        if (Status s = FindFieldSize(t.siteTable(), sx, sy, stepX, stepY, false); s) {
            if (h.dieSizeXmm <= 0) h.dieSizeXmm = sx;
            if (h.dieSizeYmm <= 0) h.dieSizeYmm = sy;
        }
        for (int r = 1; r <= t.siteTable().rowUb(); ++r) {
            if (t.siteTable()(r, 3).isEmpty()) continue;
            t.siteTable()(r, 1) = h.dieSizeXmm;
            t.siteTable()(r, 2) = h.dieSizeYmm;
        }
    }

    // The field grid around index 0; the excluded rows and the field table
    // move with the data.
    auto lot = cLot::create();
    lot->DieSizeX = static_cast<float>(h.dieSizeXmm * 1000);
    lot->DieSizeY = static_cast<float>(h.dieSizeYmm * 1000);
    long bx = 0, by = 0, ax = 0, ay = 0;
    const bool had = FirstIndices(t.dataTable(), bx, by);
    if (Status s = CenterWaferGrid(t.dataTable(), true, lot.get()); !s) {
        p.quiet();
        return s.failure();
    }
    if (had && FirstIndices(t.dataTable(), ax, ay) && (ax != bx || ay != by)) {
        const long dx = ax - bx, dy = ay - by;
        Datam& x = t.excludedTable();
        for (int r = 1; r <= x.rowUb(); ++r) {
            if (IsNumericValue(x(r, 3))) x(r, 3) = static_cast<int32_t>(std::lround(x(r, 3).toDouble()) + dx);
            if (IsNumericValue(x(r, 4))) x(r, 4) = static_cast<int32_t>(std::lround(x(r, 4).toDouble()) + dy);
        }
        if (fields) fields->shift(dx, dy);
    }

    const std::string path = ReaderWorkbookPath(request);
    Datam info = InformationTable(request, h, *lot, path);
    Datam layout;
    if (fields && !fields->empty()) layout = fields->layoutSheet();
    SetStatusText("Saving data for " + h.lotName);
    std::error_code ec;
    const bool existed = fs::exists(path, ec);
    Result<std::string> saved = SaveData(t.dataTable(), t.excludedTable(), t.siteTable(), info, h.comment,
                                         layout.isArray() ? &layout : nullptr);
    if (!saved) {
        if (!existed) fs::remove(path, ec);
        p.quiet();
        return saved.failure();
    }
    return saved;
}

}  // namespace zorv
