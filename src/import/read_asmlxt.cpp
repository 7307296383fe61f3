// The ASML XT scanner log: blocks of "key = value" nested in braces, read as
// a stream of tokens so that "na=", "na = " and "image_size= {" all read
// alike and a block may open and close on one line or many.
//   lot_id, machine_id, layer_id, device, recipe, date, time   the lot (top level)
//   wafer_id (or wafer_nr, slot) in any enclosing block      the wafer
//   field_cluster_result = { exposure_position = {...} device_result = {...} }
//   exposure_position = { image_id, reticle_id or matching_reticle_id,
//       energy (mJ/cm2), focus_z_offset (um), na, sigma_outer, sigma_inner,
//       lens_temperature, lens_pressure, wafer_scan_velocity, scan_direction,
//       image_size = { x y } (field, mm), actual_position = { x y } (field
//       centre on the wafer, mm) }
//   device_result = { meas_device_id, component, mark_result = {...} ... }
//   mark_result = { component (X, Y or XY), result_type, valid,
//       nominal_position = { x y } (mark in the field, mm),
//       actual_position = { x y } (where it was found, mm), or
//       deviation = { x y } (nm); focus_offset (nm) for
//       MEAS_RESULT_TYPE_FOCUS_OFFSET }
// A mark's X and Y results may come as two mark_results; they meet in one
// row. An invalid result sends its row to the excluded table.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/report.h"
#include "base/text.h"
#include "import/getline.h"
#include "reader.h"
#include "readers_biorad_asml.h"

namespace zorv {

namespace fs = std::filesystem;

namespace {

constexpr double kNone = std::numeric_limits<double>::quiet_NaN();

// The field an exposure_position block describes.
struct Field {
    bool known = false;
    long col = 0, row = 0;
    double focus = 0, dose = 0;
};

// One mark result, before it meets its field.
struct Mark {
    std::string wafer;
    double placeX = 0, placeY = 0;  // in the field, mm
    double x = kNone, y = kNone, fo = kNone;  // micrometres
    bool valid = true;
    long line = 0;
};

struct Block {
    std::string name;  // lower case
    std::unordered_map<std::string, std::string> vals;
    std::vector<Mark> marks;  // of a field cluster, until it closes
    Field field;
};

// One row of the data, the X and Y of a mark joined.
struct Point {
    std::string wafer;
    long col, row, site;
    double placeX, placeY;  // the site in the field, mm
    double x = kNone, y = kNone, fo = kNone;
    double focus, dose;
    bool valid;
    long line;
};

class XtReader {
public:
    XtReader() { stack_.push_back(Block{}); }

    // Feeds one line; false with `error` set on a structural fault.
    bool line(std::string_view s, long lineNo, std::string& error);
    bool balanced() const { return stack_.size() == 1; }
    void finish(ReaderHeader& h);
    const std::vector<Point>& points() const { return points_; }
    bool anyFocusOffset() const { return anyFo_; }
    std::string notes;

private:
    void token(std::string tok, bool quoted, long lineNo, std::string& error);
    void close(long lineNo);
    const std::string* find(std::initializer_list<const char*> keys, const Block* own = nullptr) const;
    Field ASML_ExpoPosition(const Block& b);
    Mark ASMLxt_MarkInput(const Block& b, long lineNo);
    void ASMLxt_DataInput(const Mark& m, const Field& f);
    void ASMLxt_DataInputFO(const Mark& m, Point& pt);
    void ASMLxt_LotInput(ReaderHeader& h) const;

    std::vector<Block> stack_;
    std::string key_;
    bool eq_ = false;
    Field lastField_;
    double sizeX_ = 0, sizeY_ = 0;
    bool exposureNoted_ = false;
    std::string reticle_;
    std::vector<Point> points_;
    std::map<std::tuple<std::string, long, long, long>, size_t> pointOf_;
    std::map<std::pair<long, long>, long> siteOf_;  // by place in um
    bool anyFo_ = false;
    long results_ = 0;
};

double Num(const std::string* s, double fallback) {
    double v;
    return s && ParseFileNumber(*s, v) ? v : fallback;
}

bool IsDelim(char c) { return c == ' ' || c == '\t' || c == ',' || c == ';' || c == '=' || c == '{' || c == '}'; }

bool XtReader::line(std::string_view s, long lineNo, std::string& error) {
    size_t i = 0;
    while (i < s.size() && error.empty()) {
        const char c = s[i];
        if (c == ' ' || c == '\t' || c == ',' || c == ';') {
            ++i;
        } else if (c == '#') {
            break;  // a comment to the end of the line
        } else if (c == '=' || c == '{' || c == '}') {
            token(std::string(1, c), false, lineNo, error);
            ++i;
        } else if (c == '"') {
            size_t j = s.find('"', i + 1);
            if (j == std::string_view::npos) j = s.size();
            token(std::string(s.substr(i + 1, j - i - 1)), true, lineNo, error);
            i = j + 1;
        } else {
            size_t j = i;
            while (j < s.size() && !IsDelim(s[j])) ++j;
            token(std::string(s.substr(i, j - i)), false, lineNo, error);
            i = j;
        }
    }
    return error.empty();
}

void XtReader::token(std::string tok, bool quoted, long lineNo, std::string& error) {
    if (!quoted && tok == "=") {
        eq_ = !key_.empty();
        return;
    }
    if (!quoted && tok == "{") {
        Block b;
        b.name = Lower(key_);
        stack_.push_back(std::move(b));
        key_.clear();
        eq_ = false;
        return;
    }
    if (!quoted && tok == "}") {
        if (stack_.size() < 2) {
            error = "This is not a proper format data sheet.";
            return;
        }
        close(lineNo);
        key_.clear();
        eq_ = false;
        return;
    }
    if (eq_) {
        stack_.back().vals[Lower(key_)] = std::move(tok);
        key_.clear();
        eq_ = false;
    } else {
        key_ = std::move(tok);  // a key, or a stray word the next key replaces
    }
}

// A key in the block in hand or in the blocks around it, innermost first.
const std::string* XtReader::find(std::initializer_list<const char*> keys, const Block* own) const {
    if (own)
        for (const char* k : keys)
            if (auto it = own->vals.find(k); it != own->vals.end()) return &it->second;
    for (auto b = stack_.rbegin(); b != stack_.rend(); ++b)
        for (const char* k : keys)
            if (auto it = b->vals.find(k); it != b->vals.end()) return &it->second;
    return nullptr;
}

void XtReader::close(long lineNo) {
    Block b = std::move(stack_.back());
    stack_.pop_back();
    Block& parent = stack_.back();
    if (b.name == "exposure_position") {
        parent.field = ASML_ExpoPosition(b);
        lastField_ = parent.field;
    } else if (b.name == "mark_result") {
        Mark m = ASMLxt_MarkInput(b, lineNo);
        // To the field cluster around it, which knows the field when it closes.
        for (auto it = stack_.rbegin(); it != stack_.rend(); ++it)
            if (it->name == "field_cluster_result") {
                it->marks.push_back(std::move(m));
                return;
            }
        ASMLxt_DataInput(m, lastField_);
    } else if (b.name == "field_cluster_result") {
        const Field& f = b.field.known ? b.field : lastField_;
        for (const Mark& m : b.marks) ASMLxt_DataInput(m, f);
    } else {
        // A small block ("image_size", "actual_position") becomes keys of its
        // parent: "image_size.x".
        for (auto& [k, v] : b.vals) parent.vals[b.name + "." + k] = std::move(v);
        if (b.field.known) parent.field = b.field;
        for (Mark& m : b.marks) parent.marks.push_back(std::move(m));
    }
}

Field XtReader::ASML_ExpoPosition(const Block& b) {
    auto get = [&](const char* k) -> const std::string* {
        auto it = b.vals.find(k);
        return it == b.vals.end() ? nullptr : &it->second;
    };
    Field f;
    f.known = true;
    if (double sx = Num(get("image_size.x"), 0), sy = Num(get("image_size.y"), 0); sx > 0 && sy > 0) {
        sizeX_ = sx > 500 ? sx / 1000 : sx;
        sizeY_ = sy > 500 ? sy / 1000 : sy;
    }
    const double cx = Num(get("actual_position.x"), 0), cy = Num(get("actual_position.y"), 0);
    f.col = sizeX_ > 0 ? std::lround(cx / sizeX_) : 0;
    f.row = sizeY_ > 0 ? std::lround(cy / sizeY_) : 0;
    f.dose = Num(get("energy"), 0);
    f.focus = Num(get("focus_z_offset"), 0);
    if (reticle_.empty()) {
        if (const std::string* r = get("reticle_id")) reticle_ = *r;
        else if (const std::string* m = get("matching_reticle_id")) reticle_ = *m;
    }
    if (!exposureNoted_) {
        exposureNoted_ = true;
        static const char* const keys[] = {"image_id", "na", "sigma_outer", "sigma_inner", "lens_temperature",
                                           "lens_pressure", "wafer_scan_velocity", "scan_direction"};
        for (const char* k : keys)
            if (const std::string* v = get(k)) notes += std::string("\r\n") + k + ": " + *v;
    }
    return f;
}

Mark XtReader::ASMLxt_MarkInput(const Block& b, long lineNo) {
    Mark m;
    m.line = lineNo;
    if (const std::string* w = find({"wafer_id", "wafer_nr", "wafer_seq_nr", "wafer", "slot_id", "slot"}, &b))
        m.wafer = *w;
    if (m.wafer.empty()) m.wafer.push_back('1');  // assigning "1" trips a GCC 12 -Wrestrict false positive
    auto own = [&](const char* k) -> const std::string* {
        auto it = b.vals.find(k);
        return it == b.vals.end() ? nullptr : &it->second;
    };
    const std::string* nx = own("nominal_position.x");
    if (!nx) nx = own("expected_position.x");
    const std::string* ny = own("nominal_position.y");
    if (!ny) ny = own("expected_position.y");
    m.placeX = Num(nx, 0);
    m.placeY = Num(ny, 0);
    if (std::fabs(m.placeX) > 500 || std::fabs(m.placeY) > 500) {
        m.placeX /= 1000;
        m.placeY /= 1000;
    }
    if (const std::string* v = own("valid")) {
        const std::string u = Upper(*v);
        m.valid = !(u == "FALSE" || u == "0" || u == "NO" || u == "INVALID" || u == "F");
    }
    const std::string* type = find({"result_type"}, &b);
    const std::string* comp = find({"component"}, &b);
    const std::string c = comp ? Upper(*comp) : std::string("XY");
    if (type && Upper(*type).find("FOCUS_OFFSET") != std::string::npos) {
        m.fo = Num(own("focus_offset"), kNone) / 1000;
        return m;
    }
    // A position: found less nominal (mm), or a deviation (nm).
    double dx = kNone, dy = kNone;
    if (nx && own("actual_position.x")) dx = (Num(own("actual_position.x"), 0) - Num(nx, 0)) * 1000;
    else if (own("deviation.x")) dx = Num(own("deviation.x"), kNone) / 1000;
    if (ny && own("actual_position.y")) dy = (Num(own("actual_position.y"), 0) - Num(ny, 0)) * 1000;
    else if (own("deviation.y")) dy = Num(own("deviation.y"), kNone) / 1000;
    if (c.find('X') != std::string::npos) m.x = dx;
    if (c.find('Y') != std::string::npos) m.y = dy;
    return m;
}

void XtReader::ASMLxt_DataInputFO(const Mark& m, Point& pt) {
    if (std::isnan(m.fo)) return;
    pt.fo = m.fo;
    anyFo_ = true;
}

void XtReader::ASMLxt_DataInput(const Mark& m, const Field& f) {
    if (std::isnan(m.x) && std::isnan(m.y) && std::isnan(m.fo)) return;
    const auto place = std::make_pair(std::lround(m.placeX * 1000), std::lround(m.placeY * 1000));
    auto s = siteOf_.find(place);
    if (s == siteOf_.end()) s = siteOf_.emplace(place, static_cast<long>(siteOf_.size()) + 1).first;
    auto key = std::make_tuple(m.wafer, f.col, f.row, s->second);
    auto [it, fresh] = pointOf_.emplace(key, points_.size());
    if (fresh) points_.push_back(Point{m.wafer, f.col, f.row, s->second, m.placeX, m.placeY, kNone, kNone, kNone, f.focus, f.dose, true, m.line});
    Point& pt = points_[it->second];
    if (!std::isnan(m.x)) pt.x = m.x;
    if (!std::isnan(m.y)) pt.y = m.y;
    ASMLxt_DataInputFO(m, pt);
    pt.valid = pt.valid && m.valid;
    if (!m.valid) pt.line = m.line;
    if ((++results_ % 100) == 0) SetStatusText("Data Import Row " + std::to_string(results_));
}

void XtReader::ASMLxt_LotInput(ReaderHeader& h) const {
    const Block& root = stack_.front();
    auto get = [&](std::initializer_list<const char*> keys) -> std::string {
        for (const char* k : keys)
            if (auto it = root.vals.find(k); it != root.vals.end()) return it->second;
        return {};
    };
    h.lotName = get({"lot_id", "lot_name", "lot"});
    h.system = get({"machine_id", "machine", "system_id"});
    h.layer = get({"layer_id", "layer"});
    h.device = get({"device", "device_id", "product_id"});
    h.job = get({"job", "job_name", "recipe"});
    h.recipe = get({"recipe", "recipe_id"});
    h.user = get({"user", "operator"});
    h.date = get({"date"});
    h.time = get({"time"});
    if (h.date.empty()) {
        // "2026-11-23 10:11:12" as one timestamp
        std::string ts = get({"timestamp", "date_time"});
        size_t sp = ts.find(' ');
        h.date = ts.substr(0, sp);
        if (sp != std::string::npos) h.time = ts.substr(sp + 1);
    }
}

void XtReader::finish(ReaderHeader& h) {
    ASMLxt_LotInput(h);
    h.reticle = reticle_;
    h.dieSizeXmm = sizeX_;
    h.dieSizeYmm = sizeY_;
}

}  // namespace

Result<std::string> ImportASMLxt(const ImportRequest& request) {
    Proc p("Import(ImportASMLxt): ");
    p.chk = 1;
    const std::string& source = request.path;
    const std::string name = fs::path(source).filename().string();
    auto failed = [&](long line, std::string text) { return FileFailure(p, source, line, std::move(text)); };
    TextStream in;
    if (Status s = in.open(source); !s) {
        p.quiet();
        return s.failure();
    }

    p.chk = 2;
    XtReader xt;
    std::string_view v;
    std::string lastLine, error;
    while (in.readLine(v)) {
        if (in.sawNul()) return failed(in.lineNumber(), "File type incorrect: " + source + "\r\nWrong data format.");
        if (v.find_first_not_of(" \t") == std::string_view::npos) continue;
        lastLine.assign(v);
        if (!xt.line(v, in.lineNumber(), error)) return failed(in.lineNumber(), error + "\r\nLast Line: '" + lastLine + "'");
        if (CheckEscKey()) return failed(in.lineNumber(), " Aborting data load...");
    }
    const long lastNo = in.lineNumber();
    in.close();
    if (lastNo == 0)
        return failed(0, IncompleteDataText(name));
    if (!xt.balanced())
        return failed(lastNo, "End of file encountered early.\r\nLast Line: '" + lastLine + "'");
    if (xt.points().empty())
        return failed(lastNo, IncompleteDataText(name));

    p.chk = 3;
    ReaderHeader h;
    h.dataType = "Registration";
    h.toolName = "ASML";
    h.exposureTool = "Scanner";
    xt.finish(h);
    ReaderTables t;
    FieldExposures fields;
    t.reserveRows(static_cast<long>(xt.points().size()));
    t.setFeature(0, "X");
    t.setFeature(1, "Y");
    t.setUnit(0, "um");
    t.setUnit(1, "um");
    const bool fo = xt.anyFocusOffset();
    if (fo) {
        t.setFeature(2, "FocusOffset");
        t.setUnit(2, "um");
    }
    for (const Point& pt : xt.points()) {
        const long r = t.addRow();
        double num;
        t.cell(r, 1) = ParseFileNumber(pt.wafer, num) && num == std::floor(num) && std::fabs(num) < 2e9
                           ? Value(static_cast<int32_t>(num))
                           : Value(pt.wafer);
        t.cell(r, 2) = static_cast<int32_t>(pt.site);
        t.cell(r, 3) = static_cast<int32_t>(pt.col);
        t.cell(r, 4) = static_cast<int32_t>(pt.row);
        if (!std::isnan(pt.x)) t.cell(r, 5) = pt.x;
        if (!std::isnan(pt.y)) t.cell(r, 6) = pt.y;
        if (fo && !std::isnan(pt.fo)) t.cell(r, 7) = pt.fo;
        if (!t.hasSite(pt.site)) t.addSite(pt.site, h.dieSizeXmm, h.dieSizeYmm, pt.placeX, pt.placeY, h.family);
        fields.note(pt.wafer, pt.col, pt.row, pt.focus, pt.dose);
        if (!pt.valid) t.excludeLastRow(pt.line);
    }
    h.comment = h.toolName + "\r\nDevice: " + h.device + " / Level: " + h.layer + "\r\nLotName No:" + h.lotName +
                " / Job Plan: " + h.job + "\r\nLotName: " + h.lotName + "\r\nSystem: " + h.system +
                "\r\nUser: " + h.user + xt.notes;
    return FinishImport(p, request, t, h, &fields);
}

}  // namespace zorv
