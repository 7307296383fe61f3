// Writing .xlsx packages: our own writer of the SpreadsheetML parts. Sheets
// that did not change are copied from the original archive as they stand;
// changed sheets are generated piecewise while libzip deflates them.
#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <set>
#include <unordered_map>

#include "base/identity.h"
#include "xlsx_internal.h"

namespace zorv {

using namespace xlsx;

namespace {

constexpr const char* kHeader = "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n";
constexpr const char* kNsMain = "http://schemas.openxmlformats.org/spreadsheetml/2006/main";
constexpr const char* kNsRel = "http://schemas.openxmlformats.org/officeDocument/2006/relationships";
constexpr const char* kRelBase = "http://schemas.openxmlformats.org/officeDocument/2006/relationships/";

constexpr const char* kCtWorkbook = "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet.main+xml";
constexpr const char* kCtSheet = "application/vnd.openxmlformats-officedocument.spreadsheetml.worksheet+xml";
constexpr const char* kCtStyles = "application/vnd.openxmlformats-officedocument.spreadsheetml.styles+xml";
constexpr const char* kCtSst = "application/vnd.openxmlformats-officedocument.spreadsheetml.sharedStrings+xml";
constexpr const char* kCtComments = "application/vnd.openxmlformats-officedocument.spreadsheetml.comments+xml";
constexpr const char* kCtCore = "application/vnd.openxmlformats-package.core-properties+xml";
constexpr const char* kCtApp = "application/vnd.openxmlformats-officedocument.extended-properties+xml";
constexpr const char* kCtVml = "application/vnd.openxmlformats-officedocument.vmlDrawing";

std::string Esc(std::string_view s, bool attr = false) {
    std::string out;
    AppendEscaped(out, s, attr);
    return out;
}

// Relative target of a part from the folder of another part.
std::string RelativeTarget(std::string_view from, std::string_view to) {
    size_t slash = from.rfind('/');
    std::string_view dir = slash == std::string_view::npos ? std::string_view() : from.substr(0, slash + 1);
    if (!dir.empty() && to.substr(0, dir.size()) == dir) return std::string(to.substr(dir.size()));
    return "/" + std::string(to);
}

std::string NowW3C() {
    std::time_t t = std::time(nullptr);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return buf;
}

void AppendNumber(std::string& out, double d) {
    char buf[32];
    auto r = std::to_chars(buf, buf + sizeof buf, d);
    out.append(buf, static_cast<size_t>(r.ptr - buf));
}

void AppendInt(std::string& out, long long v) {
    char buf[24];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, static_cast<size_t>(r.ptr - buf));
}

const char* AlignName(HAlign a) {
    switch (a) {
    case HAlign::Left: return "left";
    case HAlign::Center: return "center";
    case HAlign::Right: return "right";
    case HAlign::Fill: return "fill";
    case HAlign::Justify: return "justify";
    case HAlign::CenterAcross: return "centerContinuous";
    case HAlign::Distributed: return "distributed";
    default: return nullptr;
    }
}

// Shared strings of the save: the original table first, so that sheets
// copied unchanged keep their indexes, then the new texts.
struct StringTable {
    std::vector<Value> vals;
    std::unordered_map<std::string_view, uint32_t> index;
    size_t original = 0;
    size_t refs = 0;
    uint32_t add(const Value& v) {
        ++refs;
        auto it = index.find(v.str());
        if (it != index.end()) return it->second;
        vals.push_back(v);
        auto id = static_cast<uint32_t>(vals.size() - 1);
        index.emplace(vals.back().str(), id);
        return id;
    }
    uint32_t find(std::string_view s) const {
        auto it = index.find(s);
        return it == index.end() ? 0 : it->second;
    }
};

// What the save knows of each sheet.
struct SheetPlan {
    Worksheet* ws;
    bool copy;  // copied unchanged from the original archive
    std::string part, rels, comments, vml;
    int sheetId;
    int vmlNumber = 0;
};

// A number format id for each code used by new styles.
struct FormatIds {
    std::map<std::string, int> custom;  // code -> id
    int next = 164;
    int id(const std::string& code) {
        if (code.empty()) return 0;
        int b = BuiltinFormatId(code);
        if (b >= 0) return b;
        auto it = custom.find(code);
        if (it != custom.end()) return it->second;
        custom[code] = next;
        return next++;
    }
};

std::string XfXml(const Style& s, int fmtId, int fontId, const std::string& pfx) {
    std::string x = "<" + pfx + "xf numFmtId=\"" + std::to_string(fmtId) + "\" fontId=\"" + std::to_string(fontId) +
                    "\" fillId=\"0\" borderId=\"0\" xfId=\"0\"";
    if (fmtId) x += " applyNumberFormat=\"1\"";
    if (fontId) x += " applyFont=\"1\"";
    const char* al = AlignName(s.align);
    if (al) x += " applyAlignment=\"1\"><" + pfx + "alignment horizontal=\"" + al + "\"/></" + pfx + "xf>";
    else x += "/>";
    return x;
}

std::string FreshStyles(const StyleTable& st) {
    FormatIds ids;
    std::string xfs;
    for (size_t i = 0; i < st.size(); ++i) {
        const Style& s = st.at(static_cast<uint16_t>(i));
        xfs += XfXml(s, ids.id(s.numFmt), s.bold ? 1 : 0, "");
    }
    std::string x = kHeader;
    x += "<styleSheet xmlns=\"";
    x += kNsMain;
    x += "\">";
    if (!ids.custom.empty()) {
        x += "<numFmts count=\"" + std::to_string(ids.custom.size()) + "\">";
        for (auto& [code, id] : ids.custom)
            x += "<numFmt numFmtId=\"" + std::to_string(id) + "\" formatCode=\"" + Esc(code, true) + "\"/>";
        x += "</numFmts>";
    }
    // No theme part: fonts name their face rather than a theme slot.
    x += "<fonts count=\"2\"><font><sz val=\"11\"/><name val=\"Calibri\"/><family val=\"2\"/></font>"
         "<font><b/><sz val=\"11\"/><name val=\"Calibri\"/><family val=\"2\"/></font></fonts>"
         "<fills count=\"2\"><fill><patternFill patternType=\"none\"/></fill>"
         "<fill><patternFill patternType=\"gray125\"/></fill></fills>"
         "<borders count=\"1\"><border><left/><right/><top/><bottom/><diagonal/></border></borders>"
         "<cellStyleXfs count=\"1\"><xf numFmtId=\"0\" fontId=\"0\" fillId=\"0\" borderId=\"0\"/></cellStyleXfs>";
    x += "<cellXfs count=\"" + std::to_string(st.size()) + "\">" + xfs + "</cellXfs>";
    x += "<cellStyles count=\"1\"><cellStyle name=\"Normal\" xfId=\"0\" builtinId=\"0\"/></cellStyles>"
         "<dxfs count=\"0\"/><tableStyles count=\"0\" defaultTableStyle=\"TableStyleMedium9\" "
         "defaultPivotStyle=\"PivotStyleLight16\"/></styleSheet>";
    return x;
}

// Finds "</pfx:name>" and returns its position and the prefix ("x:" or "").
bool FindClose(const std::string& x, std::string_view name, size_t& pos, std::string& pfx) {
    std::string needle = std::string(name) + ">";
    for (size_t k = x.find(needle); k != std::string::npos; k = x.find(needle, k + 1)) {
        size_t lt = x.rfind("</", k);
        if (lt == std::string::npos) continue;
        std::string_view between(x.data() + lt + 2, k - lt - 2);
        if (between.empty() || (between.back() == ':' && between.find_first_of(" <>/\"") == std::string_view::npos)) {
            pos = lt;
            pfx = std::string(between);
            return true;
        }
    }
    return false;
}

// Sets count="n" in the start tag of an element.
void SetCount(std::string& x, const std::string& pfx, std::string_view name, size_t n) {
    std::string open = "<" + pfx + std::string(name);
    size_t k = x.find(open + " ");
    if (k == std::string::npos) k = x.find(open + ">");
    if (k == std::string::npos) return;
    size_t gt = x.find('>', k);
    size_t c = x.find("count=\"", k);
    if (c != std::string::npos && c < gt) {
        size_t q = x.find('"', c + 7);
        x.replace(c + 7, q - c - 7, std::to_string(n));
    } else {
        x.insert(k + open.size(), " count=\"" + std::to_string(n) + "\"");
    }
}

int CountOf(const std::string& x, const std::string& pfx, std::string_view name) {
    std::string open = "<" + pfx + std::string(name);
    size_t k = x.find(open + " ");
    if (k == std::string::npos) return -1;
    size_t gt = x.find('>', k);
    size_t c = x.find("count=\"", k);
    if (c == std::string::npos || c > gt) return -1;
    return std::atoi(x.c_str() + c + 7);
}

// The original styles part with the new formats, the bold font and the new
// xfs added in place, so that fills, borders and conditional formats of
// sheets copied unchanged stay. Empty when the part cannot be extended.
std::string ExtendStyles(const std::string& orig, const WorkbookImpl& im) {
    std::string x = orig;
    size_t pos;
    std::string pfx;
    if (!FindClose(x, "cellXfs", pos, pfx)) return {};
    FormatIds ids;
    ids.custom = im.numFmtIds;
    ids.next = im.maxNumFmtId + 1;
    std::map<std::string, int> before = ids.custom;
    bool needBold = false;
    for (size_t i = im.styles.original; i < im.styles.size(); ++i) needBold |= im.styles.at(static_cast<uint16_t>(i)).bold;
    int boldFont = im.boldFont;
    std::string fontXml;
    if (needBold && boldFont < 0) {
        boldFont = im.fontCount;
        fontXml = "<" + pfx + "font><" + pfx + "b/><" + pfx + "sz val=\"11\"/><" + pfx + "name val=\"Calibri\"/><" +
                  pfx + "family val=\"2\"/></" + pfx + "font>";
    }
    std::string xfs;
    for (size_t i = im.styles.original; i < im.styles.size(); ++i) {
        const Style& s = im.styles.at(static_cast<uint16_t>(i));
        xfs += XfXml(s, ids.id(s.numFmt), s.bold ? boldFont : 0, pfx);
    }
    x.insert(pos, xfs);
    SetCount(x, pfx, "cellXfs", im.styles.size());
    if (!fontXml.empty()) {
        if (!FindClose(x, "fonts", pos, pfx)) return {};
        x.insert(pos, fontXml);
        SetCount(x, pfx, "fonts", static_cast<size_t>(im.fontCount + 1));
    }
    std::string fmts;
    size_t added = 0;
    for (auto& [code, id] : ids.custom)
        if (!before.count(code)) {
            fmts += "<" + pfx + "numFmt numFmtId=\"" + std::to_string(id) + "\" formatCode=\"" + Esc(code, true) + "\"/>";
            ++added;
        }
    if (added) {
        if (FindClose(x, "numFmts", pos, pfx)) {
            int n = CountOf(x, pfx, "numFmts");
            x.insert(pos, fmts);
            SetCount(x, pfx, "numFmts", (n < 0 ? before.size() : static_cast<size_t>(n)) + added);
        } else {
            size_t k = x.find("styleSheet");
            size_t gt = k == std::string::npos ? k : x.find('>', k);
            if (gt == std::string::npos || x[gt - 1] == '/') return {};
            x.insert(gt + 1, "<" + pfx + "numFmts count=\"" + std::to_string(added) + "\">" + fmts + "</" + pfx + "numFmts>");
        }
    }
    return x;
}

// ------------------------------------------------------------ sheet XML

const Value kNoValue;

// One row of a sheet as the save sees it: its ordinary cells and, in the
// area the sheet refers to a table, that table's cells. Columns 0-based.
struct RowCells {
    const Row* row = nullptr;
    const Value* ref = nullptr;
    const uint16_t* refStyle = nullptr;
    size_t refCol0 = 0, refCols = 0;
    size_t width = 0;
    const Value& v(size_t c) const {
        if (c - refCol0 < refCols) return ref[c - refCol0];
        return row && c < row->v.size() ? row->v[c] : kNoValue;
    }
    uint16_t s(size_t c) const {
        if (c - refCol0 < refCols) return refStyle[c - refCol0];
        return row && c < row->s.size() ? row->s[c] : 0;
    }
};

size_t RowCount(const Worksheet::Data& d) {
    return d.ref ? std::max(d.rows.size(), static_cast<size_t>(d.ref->lastRow())) : d.rows.size();
}

// Row i (0-based) of the sheet.
RowCells CellsOf(const Worksheet::Data& d, size_t i) {
    RowCells rc;
    if (i < d.rows.size()) {
        rc.row = &d.rows[i];
        rc.width = rc.row->v.size();
    }
    const int r = static_cast<int>(i) + 1;
    if (d.ref && r >= d.ref->row && r <= d.ref->lastRow()) {
        const TableRef& t = *d.ref;
        rc.ref = t.cells + static_cast<size_t>(r - t.row) * t.stride;
        rc.refStyle = t.style.data();
        rc.refCol0 = static_cast<size_t>(t.col) - 1;
        rc.refCols = static_cast<size_t>(t.cols);
        rc.width = std::max(rc.width, static_cast<size_t>(t.lastCol()));
    }
    return rc;
}

class SheetWriter {
public:
    SheetWriter(Worksheet::Data& d, const StyleTable& styles, const std::vector<uint16_t>& dateStyle,
                const StringTable& sst, bool date1904, bool selected, const std::string& legacyRid)
        : d_(d), styles_(styles), dateStyle_(dateStyle), sst_(sst), date1904_(date1904), selected_(selected),
          legacyRid_(legacyRid) {}

    bool next(std::string& out) {
        if (stage_ == 0) {
            head(out);
            stage_ = 1;
            return true;
        }
        if (stage_ == 1) {
            const size_t n = RowCount(d_);
            while (row_ < n && out.size() < (256u << 10)) rowXml(out, row_++);
            if (row_ >= n) {
                out += "</sheetData>";
                tail(out);
                stage_ = 2;
                return false;
            }
            return true;
        }
        return false;
    }

private:
    void head(std::string& out) {
        Area a = used();
        out += kHeader;
        out += "<worksheet xmlns=\"";
        out += kNsMain;
        out += "\" xmlns:r=\"";
        out += kNsRel;
        out += "\"><dimension ref=\"";
        if (a.empty()) {
            out += "A1";
        } else {
            out += CellAddress(a.row1, a.col1);
            if (a.row2 != a.row1 || a.col2 != a.col1) out += ":" + CellAddress(a.row2, a.col2);
        }
        out += "\"/><sheetViews><sheetView ";
        if (selected_) out += "tabSelected=\"1\" ";
        out += "workbookViewId=\"0\"/></sheetViews><sheetFormatPr defaultRowHeight=\"15\"/><sheetData>";
        size_t w = 0;
        for (auto& r : d_.rows) w = std::max(w, r.v.size());
        if (d_.ref) w = std::max(w, static_cast<size_t>(d_.ref->lastCol()));
        letters_.resize(w);
        for (size_t c = 0; c < w; ++c) letters_[c] = ColumnLetters(static_cast<int>(c) + 1);
    }

    Area used() const {
        int r1 = 0, r2 = 0, c1 = kMaxCols + 1, c2 = 0;
        const size_t n = RowCount(d_);
        for (size_t i = 0; i < n; ++i) {
            const RowCells r = CellsOf(d_, i);
            for (size_t c = 0; c < r.width; ++c) {
                if (r.v(c).isEmpty() && r.s(c) == 0) continue;
                if (!r1) r1 = static_cast<int>(i) + 1;
                r2 = static_cast<int>(i) + 1;
                c1 = std::min(c1, static_cast<int>(c) + 1);
                c2 = std::max(c2, static_cast<int>(c) + 1);
            }
        }
        return r1 ? Area{r1, c1, r2, c2} : Area{};
    }

    void rowXml(std::string& out, size_t i) {
        const RowCells r = CellsOf(d_, i);
        size_t first = r.width, last = 0;
        for (size_t c = 0; c < r.width; ++c) {
            if (r.v(c).isEmpty() && r.s(c) == 0) continue;
            if (first == r.width) first = c;
            last = c;
        }
        if (first == r.width) return;
        char rowNum[16];
        auto rn = std::to_chars(rowNum, rowNum + sizeof rowNum, i + 1);
        std::string_view rowText(rowNum, static_cast<size_t>(rn.ptr - rowNum));
        out += "<row r=\"";
        out += rowText;
        out += "\" spans=\"";
        AppendInt(out, static_cast<long long>(first + 1));
        out += ':';
        AppendInt(out, static_cast<long long>(last + 1));
        out += "\">";
        for (size_t c = first; c <= last; ++c) {
            const Value& v = r.v(c);
            uint16_t s = r.s(c);
            VType t = v.type();
            if ((t == VType::Empty || t == VType::Null || t == VType::Array) && s == 0) continue;
            if (t == VType::Date && !styles_.isDate(s)) s = dateStyle_[s];
            out += "<c r=\"";
            out += letters_[c];
            out += rowText;
            out += '"';
            if (s) {
                out += " s=\"";
                AppendInt(out, s);
                out += '"';
            }
            switch (t) {
            case VType::Double:
            case VType::Single:
            case VType::Integer:
            case VType::Long:
            case VType::Date: {
                double d = v.toDouble();
                if (t == VType::Date && date1904_) d -= 1462;
                if (!std::isfinite(d)) {
                    out += " t=\"e\"><v>#NUM!</v></c>";
                } else {
                    out += "><v>";
                    AppendNumber(out, d);
                    out += "</v></c>";
                }
                break;
            }
            case VType::String:
                out += " t=\"s\"><v>";
                AppendInt(out, sst_.find(v.str()));
                out += "</v></c>";
                break;
            case VType::Boolean:
                out += v.toBool() ? " t=\"b\"><v>1</v></c>" : " t=\"b\"><v>0</v></c>";
                break;
            case VType::Error:
                out += " t=\"e\"><v>";
                out += ErrorText(v.errorCode());
                out += "</v></c>";
                break;
            default: out += "/>"; break;
            }
        }
        out += "</row>";
    }

    void tail(std::string& out) {
        if (!d_.links.empty()) {
            out += "<hyperlinks>";
            for (auto& h : d_.links) {
                out += "<hyperlink ref=\"" + CellAddress(h.row, h.col) + "\" location=\"";
                AppendEscaped(out, h.location, true);
                out += "\" display=\"";
                AppendEscaped(out, h.location, true);
                out += '"';
                if (!h.tooltip.empty()) {
                    out += " tooltip=\"";
                    AppendEscaped(out, h.tooltip, true);
                    out += '"';
                }
                out += "/>";
            }
            out += "</hyperlinks>";
        }
        out += "<pageMargins left=\"0.7\" right=\"0.7\" top=\"0.75\" bottom=\"0.75\" header=\"0.3\" footer=\"0.3\"/>";
        if (!legacyRid_.empty()) out += "<legacyDrawing r:id=\"" + legacyRid_ + "\"/>";
        out += "</worksheet>";
    }

    Worksheet::Data& d_;
    const StyleTable& styles_;
    const std::vector<uint16_t>& dateStyle_;
    const StringTable& sst_;
    bool date1904_, selected_;
    std::string legacyRid_;
    std::vector<std::string> letters_;
    int stage_ = 0;
    size_t row_ = 0;
};

std::string CommentsXml(const Worksheet::Data& d, const std::string& defaultAuthor) {
    std::vector<std::string> authors;
    auto authorId = [&](const std::string& a) {
        const std::string& name = a.empty() ? defaultAuthor : a;
        auto it = std::find(authors.begin(), authors.end(), name);
        if (it != authors.end()) return static_cast<size_t>(it - authors.begin());
        authors.push_back(name);
        return authors.size() - 1;
    };
    std::string list;
    for (auto& [k, c] : d.comments) {
        list += "<comment ref=\"" + CellAddress(c.row, c.col) + "\" authorId=\"" + std::to_string(authorId(c.author)) +
                "\"><text><r><rPr><sz val=\"8\"/><color indexed=\"81\"/><rFont val=\"Tahoma\"/><family val=\"2\"/>"
                "</rPr><t xml:space=\"preserve\">";
        AppendEscaped(list, c.text);
        list += "</t></r></text></comment>";
    }
    std::string x = kHeader;
    x += "<comments xmlns=\"";
    x += kNsMain;
    x += "\"><authors>";
    for (auto& a : authors) x += "<author>" + Esc(a) + "</author>";
    x += "</authors><commentList>" + list + "</commentList></comments>";
    return x;
}

std::string VmlXml(const Worksheet::Data& d, int number) {
    std::string x =
        "<xml xmlns:v=\"urn:schemas-microsoft-com:vml\" xmlns:o=\"urn:schemas-microsoft-com:office:office\" "
        "xmlns:x=\"urn:schemas-microsoft-com:office:excel\">\n"
        " <o:shapelayout v:ext=\"edit\">\n  <o:idmap v:ext=\"edit\" data=\"" +
        std::to_string(number) +
        "\"/>\n </o:shapelayout>"
        "<v:shapetype id=\"_x0000_t202\" coordsize=\"21600,21600\" o:spt=\"202\" path=\"m,l,21600r21600,l21600,xe\">\n"
        "  <v:stroke joinstyle=\"miter\"/>\n  <v:path gradientshapeok=\"t\" o:connecttype=\"rect\"/>\n"
        " </v:shapetype>";
    int k = 0;
    for (auto& [key, c] : d.comments) {
        int r = c.row - 1, col = c.col - 1;
        int id = 1024 * number + 1 + k++;
        // The box sits to the right of the cell, as Excel places it.
        std::string anchor = std::to_string(col + 1) + ", 15, " + std::to_string(r > 0 ? r - 1 : 0) + ", " +
                             std::to_string(r > 0 ? 10 : 2) + ", " + std::to_string(col + 3) + ", 15, " +
                             std::to_string(r > 0 ? r + 3 : 4) + ", " + std::to_string(r > 0 ? 16 : 16);
        x += "<v:shape id=\"_x0000_s" + std::to_string(id) +
             "\" type=\"#_x0000_t202\" style=\"position:absolute;margin-left:59.25pt;margin-top:1.5pt;"
             "width:108pt;height:59.25pt;z-index:" +
             std::to_string(k) + (c.visible ? ";visibility:visible" : ";visibility:hidden") +
             "\" fillcolor=\"#ffffe1\" o:insetmode=\"auto\">"
             "<v:fill color2=\"#ffffe1\"/><v:shadow on=\"t\" color=\"black\" obscured=\"t\"/>"
             "<v:path o:connecttype=\"none\"/><v:textbox style=\"mso-direction-alt:auto\">"
             "<div style=\"text-align:left\"></div></v:textbox>"
             "<x:ClientData ObjectType=\"Note\"><x:MoveWithCells/><x:SizeWithCells/><x:Anchor>" +
             anchor + "</x:Anchor><x:AutoFill>False</x:AutoFill><x:Row>" + std::to_string(r) + "</x:Row><x:Column>" +
             std::to_string(col) + "</x:Column>" + (c.visible ? "<x:Visible/>" : "") + "</x:ClientData></v:shape>";
    }
    x += "</xml>";
    return x;
}

std::string RelsXml(const std::vector<Rel>& rels, std::string_view sourcePart) {
    std::string x = kHeader;
    x += "<Relationships xmlns=\"http://schemas.openxmlformats.org/package/2006/relationships\">";
    for (auto& r : rels) {
        x += "<Relationship Id=\"" + Esc(r.id, true) + "\" Type=\"" + Esc(r.type, true) + "\" Target=\"" +
             Esc(r.external ? r.target : RelativeTarget(sourcePart, r.target), true) + "\"";
        if (r.external) x += " TargetMode=\"External\"";
        x += "/>";
    }
    x += "</Relationships>";
    return x;
}

std::string CoreXml(const Workbook& wb) {
    auto p = [&](const char* k) { return Esc(wb.property(k)); };
    std::string now = NowW3C();
    std::string created = wb.property("Creation date");
    if (created.empty()) created = now;
    std::string x = kHeader;
    x += "<cp:coreProperties xmlns:cp=\"http://schemas.openxmlformats.org/package/2006/metadata/core-properties\" "
         "xmlns:dc=\"http://purl.org/dc/elements/1.1/\" xmlns:dcterms=\"http://purl.org/dc/terms/\" "
         "xmlns:dcmitype=\"http://purl.org/dc/dcmitype/\" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">";
    if (!wb.property("Title").empty()) x += "<dc:title>" + p("Title") + "</dc:title>";
    if (!wb.property("Subject").empty()) x += "<dc:subject>" + p("Subject") + "</dc:subject>";
    x += "<dc:creator>" + p("Author") + "</dc:creator>";
    if (!wb.property("Keywords").empty()) x += "<cp:keywords>" + p("Keywords") + "</cp:keywords>";
    if (!wb.property("Comments").empty()) x += "<dc:description>" + p("Comments") + "</dc:description>";
    x += "<cp:lastModifiedBy>" + p("Last author") + "</cp:lastModifiedBy>";
    x += "<dcterms:created xsi:type=\"dcterms:W3CDTF\">" + Esc(created) + "</dcterms:created>";
    x += "<dcterms:modified xsi:type=\"dcterms:W3CDTF\">" + now + "</dcterms:modified>";
    if (!wb.property("Category").empty()) x += "<cp:category>" + p("Category") + "</cp:category>";
    x += "</cp:coreProperties>";
    return x;
}

std::string AppXml(const Workbook& wb) {
    auto names = wb.sheetNames();
    std::string x = kHeader;
    x += "<Properties xmlns=\"http://schemas.openxmlformats.org/officeDocument/2006/extended-properties\" "
         "xmlns:vt=\"http://schemas.openxmlformats.org/officeDocument/2006/docPropsVTypes\">"
         "<Application>Microsoft Excel</Application><DocSecurity>0</DocSecurity><ScaleCrop>false</ScaleCrop>"
         "<HeadingPairs><vt:vector size=\"2\" baseType=\"variant\"><vt:variant><vt:lpstr>Worksheets</vt:lpstr>"
         "</vt:variant><vt:variant><vt:i4>" +
         std::to_string(names.size()) +
         "</vt:i4></vt:variant></vt:vector></HeadingPairs><TitlesOfParts><vt:vector size=\"" +
         std::to_string(names.size()) + "\" baseType=\"lpstr\">";
    for (auto& n : names) x += "<vt:lpstr>" + Esc(n) + "</vt:lpstr>";
    x += "</vt:vector></TitlesOfParts>";
    if (!wb.property("Manager").empty()) x += "<Manager>" + Esc(wb.property("Manager")) + "</Manager>";
    x += "<Company>" + Esc(wb.property("Company")) + "</Company>";
    x += "<LinksUpToDate>false</LinksUpToDate><SharedDoc>false</SharedDoc><HyperlinksChanged>false</HyperlinksChanged>"
         "<AppVersion>12.0000</AppVersion></Properties>";
    return x;
}

std::string SstXml(const StringTable& t) {
    std::string x = kHeader;
    x += "<sst xmlns=\"";
    x += kNsMain;
    x += "\" count=\"" + std::to_string(std::max(t.refs, t.vals.size())) + "\" uniqueCount=\"" +
         std::to_string(t.vals.size()) + "\">";
    for (auto& v : t.vals) {
        std::string_view s = v.str();
        bool pad = !s.empty() && (std::isspace(static_cast<unsigned char>(s.front())) ||
                                  std::isspace(static_cast<unsigned char>(s.back())));
        x += pad ? "<si><t xml:space=\"preserve\">" : "<si><t>";
        AppendEscaped(x, s);
        x += "</t></si>";
    }
    x += "</sst>";
    return x;
}

}  // namespace

Status WorkbookImpl::write(Workbook& wb, const std::string& path) {
    WorkbookImpl& im = *wb.impl_;
    const ZipReader* orig = im.legacy ? nullptr : im.zip.get();
    auto fail = [&](const std::string& why) {
        Failure f;
        f.tag = "Workbook(Save): ";
        f.text = "Error Saving: " + path + (why.empty() ? "" : " (" + why + ")");
        return f;
    };

    // Names of the original archive, so that new parts do not collide.
    std::set<std::string> taken;
    if (orig)
        for (auto& n : orig->names()) taken.insert(Lower(n));
    auto fresh = [&](const std::string& stem, const std::string& ext) {
        for (int k = 1;; ++k) {
            std::string n = stem + std::to_string(k) + ext;
            if (taken.insert(Lower(n)).second) return n;
        }
    };

    // Which sheets are copied and which written
    std::vector<SheetPlan> plan;
    int maxSheetId = 0;
    for (auto& s : wb.sheets_)
        if (s->src_) maxSheetId = std::max(maxSheetId, s->src_->sheetId);
    int vmlCount = 0;
    for (auto& s : wb.sheets_) {
        SheetPlan p{s.get(), false, "", "", "", "", 0};
        if (orig && s->src_ && !s->dirty_) {
            p.copy = true;
            p.part = s->src_->part;
            p.rels = s->src_->rels;
            p.comments = s->src_->comments;
            p.vml = s->src_->vml;
            p.sheetId = s->src_->sheetId;
        } else {
            p.part = fresh("xl/worksheets/sheet", ".xml");
            p.rels = RelsPartOf(p.part);
            if (!s->d_->comments.empty()) {
                p.comments = fresh("xl/comments", ".xml");
                p.vml = fresh("xl/drawings/vmlDrawing", ".vml");
                p.vmlNumber = ++vmlCount;
            }
            p.sheetId = (s->src_ && s->src_->sheetId > 0) ? s->src_->sheetId : ++maxSheetId;
        }
        plan.push_back(std::move(p));
    }
    // Sheet ids must be unique
    {
        std::set<int> ids;
        for (auto& p : plan)
            if (!ids.insert(p.sheetId).second) p.sheetId = ++maxSheetId, ids.insert(p.sheetId);
    }
    // VML idmap numbers (and so shape ids) of written sheets must not meet
    // those of the drawings copied as they stand.
    if (vmlCount) {
        std::set<int> used;
        for (auto& p : plan) {
            if (!p.copy || p.vml.empty() || !orig || orig->find(p.vml) < 0) continue;
            std::string v;
            if (!orig->readAll(p.vml, v, 64u << 20)) continue;
            for (size_t k = v.find("idmap"); k != std::string::npos; k = v.find("idmap", k + 5)) {
                size_t d = v.find("data=\"", k);
                if (d == std::string::npos || d > v.find('>', k)) continue;
                for (size_t i = d + 6; i < v.size() && v[i] != '"';) {
                    int n = std::atoi(v.c_str() + i);
                    if (n > 0) used.insert(n);
                    size_t comma = v.find_first_of(",\"", i);
                    i = comma == std::string::npos || v[comma] == '"' ? v.size() : comma + 1;
                }
            }
        }
        int next = 1;
        for (auto& p : plan) {
            if (!p.vmlNumber) continue;
            while (used.count(next)) ++next;
            p.vmlNumber = next++;
        }
    }

    // Shared strings and the styles that dates without a date format get
    StringTable sst;
    sst.vals = im.sst;
    sst.original = sst.vals.size();
    for (size_t i = 0; i < sst.vals.size(); ++i) sst.index.emplace(sst.vals[i].str(), static_cast<uint32_t>(i));
    std::vector<uint16_t> dateStyle;
    for (auto& p : plan) {
        if (p.copy) continue;
        const Worksheet::Data& d = *p.ws->d_;
        for (size_t i = 0, n = RowCount(d); i < n; ++i) {
            const RowCells row = CellsOf(d, i);
            for (size_t c = 0; c < row.width; ++c) {
                const Value& v = row.v(c);
                if (v.isString()) {
                    sst.add(v);
                } else if (v.isDate()) {
                    uint16_t s = row.s(c);
                    if (im.styles.isDate(s)) continue;
                    if (dateStyle.size() < im.styles.size()) dateStyle.resize(im.styles.size(), 0);
                    if (dateStyle[s] == 0) {
                        Style st = im.styles.at(s);
                        double frac = v.toDouble() - std::floor(v.toDouble());
                        st.numFmt = frac != 0 ? "m/d/yyyy h:mm" : "m/d/yyyy";
                        dateStyle[s] = im.styles.intern(st);
                    }
                }
            }
        }
    }
    dateStyle.resize(im.styles.size(), 0);
    bool sstNew = sst.vals.size() > sst.original || (im.sstPart.empty() && !sst.vals.empty());
    std::string sstPart = im.sstPart.empty() ? "xl/sharedStrings.xml" : im.sstPart;
    bool haveSst = !sst.vals.empty() || !im.sstPart.empty();

    std::string stylesPart = im.stylesPart.empty() ? "xl/styles.xml" : im.stylesPart;
    std::string stylesXml;
    bool stylesCopy = orig && !im.stylesPart.empty() && im.styles.size() == im.styles.original;
    if (!stylesCopy) {
        if (orig && !im.stylesPart.empty()) {
            std::string o;
            if (auto st = orig->readAll(im.stylesPart, o, 256ull << 20); !st) return fail(st.failure().text);
            stylesXml = ExtendStyles(o, im);
        }
        if (stylesXml.empty()) stylesXml = FreshStyles(im.styles);
    }

    // Parts not copied from the original: what this save writes anew.
    std::set<std::string> skip = {"[content_types].xml", "_rels/.rels", Lower(im.workbookPart),
                                  Lower(RelsPartOf(im.workbookPart)), "docprops/core.xml", "docprops/app.xml"};
    if (!im.corePart.empty()) skip.insert(Lower(im.corePart));
    if (!im.appPart.empty()) skip.insert(Lower(im.appPart));
    // styles and strings are added explicitly, copied or written
    skip.insert(Lower(stylesPart));
    skip.insert(Lower(sstPart));
    for (auto& s : im.sheetParts) skip.insert(s);
    for (auto& p : plan) {
        if (!p.copy) continue;
        for (const std::string* q : {&p.part, &p.rels, &p.comments, &p.vml}) skip.erase(Lower(*q));
    }
    std::string mainType = kCtWorkbook;
    if (auto it = im.ctOverrides.find(Lower(im.workbookPart)); it != im.ctOverrides.end()) mainType = it->second;
    // A chain of calculation lists cells of sheets that may have changed:
    // Excel rebuilds it when missing.
    for (auto& r : im.keepWorkbookRels)
        if (RelIs(r, "calcChain")) skip.insert(Lower(r.target));

    auto zw = ZipWriter::create(path);
    if (!zw) return fail(zw.failure().text);
    ZipWriter& w = **zw;

    // Content types
    std::map<std::string, std::string> overrides;  // part -> type
    std::map<std::string, std::string> defaults = {{"rels", "application/vnd.openxmlformats-package.relationships+xml"},
                                                   {"xml", "application/xml"}};
    if (vmlCount || orig) defaults["vml"] = kCtVml;
    for (auto& [ext, type] : im.ctDefaults)
        if (!defaults.count(ext)) defaults[ext] = type;
    const std::string workbookPart = im.workbookPart;
    overrides[workbookPart] = mainType;
    overrides["docProps/core.xml"] = kCtCore;
    overrides["docProps/app.xml"] = kCtApp;
    overrides[stylesPart] = kCtStyles;
    if (haveSst) overrides[sstPart] = kCtSst;
    for (auto& p : plan) {
        overrides[p.part] = kCtSheet;
        if (!p.copy && !p.comments.empty()) overrides[p.comments] = kCtComments;
    }
    std::vector<std::pair<std::string, int64_t>> copies;
    if (orig) {
        int64_t n = static_cast<int64_t>(orig->names().size());
        for (int64_t i = 0; i < n; ++i) {
            std::string name = orig->nameAt(i);
            if (name.empty() || name.back() == '/' || skip.count(Lower(name))) continue;
            copies.emplace_back(name, i);
            auto it = im.ctOverrides.find(Lower(name));
            if (it != im.ctOverrides.end() && !overrides.count(name)) overrides[name] = it->second;
        }
    }
    {
        std::string x = kHeader;
        x += "<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\">";
        for (auto& [ext, type] : defaults)
            x += "<Default Extension=\"" + Esc(ext, true) + "\" ContentType=\"" + Esc(type, true) + "\"/>";
        for (auto& [part, type] : overrides)
            x += "<Override PartName=\"/" + Esc(part, true) + "\" ContentType=\"" + Esc(type, true) + "\"/>";
        x += "</Types>";
        w.addBytes("[Content_Types].xml", std::move(x));
    }

    // Package relationships
    {
        std::vector<Rel> rels = {{"rId1", std::string(kRelBase) + "officeDocument", workbookPart, false},
                                 {"rId2", "http://schemas.openxmlformats.org/package/2006/relationships/metadata/core-properties",
                                  "docProps/core.xml", false},
                                 {"rId3", std::string(kRelBase) + "extended-properties", "docProps/app.xml", false}};
        int k = 4;
        for (auto r : im.keepRootRels) {
            r.id = "rId" + std::to_string(k++);
            rels.push_back(r);
        }
        w.addBytes("_rels/.rels", RelsXml(rels, ""));
    }
    w.addBytes("docProps/app.xml", AppXml(wb));
    w.addBytes("docProps/core.xml", CoreXml(wb));

    // The workbook and its relationships
    {
        std::vector<Rel> rels;
        std::string sheetsXml;
        int k = 1;
        for (auto& p : plan) {
            std::string id = "rId" + std::to_string(k++);
            rels.push_back({id, std::string(kRelBase) + "worksheet", p.part, false});
            sheetsXml += "<sheet name=\"" + Esc(p.ws->name(), true) + "\" sheetId=\"" + std::to_string(p.sheetId) +
                         "\" r:id=\"" + id + "\"/>";
        }
        rels.push_back({"rId" + std::to_string(k++), std::string(kRelBase) + "styles", stylesPart, false});
        if (haveSst) rels.push_back({"rId" + std::to_string(k++), std::string(kRelBase) + "sharedStrings", sstPart, false});
        for (auto r : im.keepWorkbookRels) {
            if (RelIs(r, "calcChain")) continue;
            if (!r.external && orig && orig->find(r.target) < 0) continue;
            r.id = "rId" + std::to_string(k++);
            rels.push_back(r);
        }
        std::string x = kHeader;
        x += "<workbook xmlns=\"";
        x += kNsMain;
        x += "\" xmlns:r=\"";
        x += kNsRel;
        x += "\">";
        x += im.date1904 ? "<workbookPr date1904=\"1\"/>" : "<workbookPr/>";
        x += "<bookViews><workbookView activeTab=\"" + std::to_string(std::max(0, wb.activeSheet()->index() - 1)) +
             "\"/></bookViews><sheets>" + sheetsXml + "</sheets>";
        if (!wb.names_.empty()) {
            x += "<definedNames>";
            for (auto& n : wb.names_) {
                std::string_view ref = n.refersTo;
                if (!ref.empty() && ref[0] == '=') ref.remove_prefix(1);
                x += "<definedName name=\"" + Esc(n.name, true) + "\"";
                if (n.localSheet >= 0) x += " localSheetId=\"" + std::to_string(n.localSheet) + "\"";
                if (n.hidden) x += " hidden=\"1\"";
                x += ">" + Esc(ref) + "</definedName>";
            }
            x += "</definedNames>";
        }
        x += "<calcPr calcId=\"124519\" fullCalcOnLoad=\"1\"/></workbook>";
        w.addBytes(workbookPart, std::move(x));
        w.addBytes(RelsPartOf(workbookPart), RelsXml(rels, workbookPart));
    }

    if (stylesCopy) w.addCopy(stylesPart, *orig, orig->find(stylesPart));
    else w.addBytes(stylesPart, std::move(stylesXml));
    if (haveSst) {
        if (sstNew || !orig) w.addBytes(sstPart, SstXml(sst));
        else w.addCopy(sstPart, *orig, orig->find(sstPart));
    }

    // Sheets
    std::string author = wb.property("Author");
    Worksheet* active = wb.activeSheet();
    for (auto& p : plan) {
        if (p.copy) continue;  // copied with the rest below
        Worksheet::Data* d = p.ws->d_.get();
        std::string legacyRid;
        if (!p.comments.empty()) {
            legacyRid = "rId2";
            std::vector<Rel> rels = {{"rId1", std::string(kRelBase) + "comments", p.comments, false},
                                     {"rId2", std::string(kRelBase) + "vmlDrawing", p.vml, false}};
            w.addBytes(p.rels, RelsXml(rels, p.part));
            w.addBytes(p.comments, CommentsXml(*d, author));
            w.addBytes(p.vml, VmlXml(*d, p.vmlNumber));
        }
        const StyleTable* styles = &im.styles;
        const StringTable* strings = &sst;
        const std::vector<uint16_t>* ds = &dateStyle;
        bool date1904 = im.date1904, selected = p.ws == active;
        bool ok = w.addGenerated(p.part, [=]() {
            auto sw = std::make_shared<SheetWriter>(*d, *styles, *ds, *strings, date1904, selected, legacyRid);
            return ZipWriter::Generator([sw](std::string& out) { return sw->next(out); });
        });
        if (!ok) return fail(w.lastError());
    }
    for (auto& [name, idx] : copies)
        if (!w.addCopy(name, *orig, idx)) return fail(w.lastError());

    if (auto st = w.close(); !st) return fail(st.failure().text);

    // The file on disk is now the original of the next save.
    auto z = ZipReader::openFile(path, std::filesystem::path(path).filename().string());
    if (!z) return fail(z.failure().text);
    im.zip = std::move(*z);
    im.legacy = false;
    im.sst = std::move(sst.vals);
    im.sstPart = haveSst ? sstPart : "";
    im.stylesPart = stylesPart;
    im.styles.original = im.styles.size();
    im.corePart = "docProps/core.xml";
    im.appPart = "docProps/app.xml";
    im.ctOverrides.clear();
    for (auto& [part, type] : overrides) im.ctOverrides[Lower(part)] = type;
    im.ctDefaults = defaults;
    // Re-read the facts of the styles part that the next extension needs.
    if (!stylesCopy) (void)readStyles(im, false);
    im.sheetParts.clear();
    std::set<std::string> newWorkbookRelTargets;
    for (auto& p : plan) {
        Worksheet& ws = *p.ws;
        if (!ws.src_) ws.src_ = std::make_unique<SheetSource>();
        ws.src_->part = p.part;
        ws.src_->rels = p.rels;
        ws.src_->comments = p.comments;
        ws.src_->vml = p.vml;
        ws.src_->sheetId = p.sheetId;
        ws.src_->loadError.clear();
        ws.dirty_ = false;
        // The sheet lets go of a referred table: the file holds its cells now.
        if (ws.d_->ref) ws.unload();
        for (const std::string* q : {&p.part, &p.rels, &p.comments, &p.vml})
            if (!q->empty()) im.sheetParts.push_back(Lower(*q));
    }
    im.keepWorkbookRels.erase(std::remove_if(im.keepWorkbookRels.begin(), im.keepWorkbookRels.end(),
                                             [&](const Rel& r) {
                                                 return RelIs(r, "calcChain") ||
                                                        (!r.external && im.zip->find(r.target) < 0);
                                             }),
                              im.keepWorkbookRels.end());
    wb.structDirty_ = false;
    wb.savedOverride_ = false;
    return StatusOk();
}

}  // namespace zorv
