// Import(ImportDelimited): the reader of plain tables (CSV, TSV, semicolon
// separated) that tools outside the format table, and people, write. The file
// says what it is only through its column names, so the reader finds its
// columns by name, takes every other column of numbers as a feature, and reads
// a few "# Key: Value" lines above the header for the lot's header texts.
//
// Files reach a million rows: a line is split into views of the stream's
// buffer (or of one reused scratch buffer when it holds quotes), numbers are
// read with from_chars, and nothing is allocated per cell.
#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/marks.h"
#include "base/report.h"
#include "base/text.h"
#include "import/getline.h"
#include "import/sites.h"
#include "reader.h"
#include "readers_extra.h"

namespace zorv {

namespace {

// The first data rows decide which columns hold numbers, how sites are
// numbered and which units the "_UNITS" columns give.
constexpr int kSampleRows = 1000;
// Site positions in the field above this are micrometres, below millimetres.
constexpr double kSiteMicronLimit = 50;
// Wafer positions (up to half a wafer, in millimetres) above this are micrometres.
constexpr double kWaferMicronLimit = 1000;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

enum class Role : unsigned char {
    None, Wafer, Site, DieX, DieY, SiteX, SiteY, WaferX, WaferY, Focus, Dose, Family, Lot, Units, Ignored
};

// Column names (upper case, without " ", "_", "-", ".") in order of
// preference: the first spelling present takes its role; a later column with
// a spelling of a role already taken is left out rather than read as a feature.
struct RoleKey {
    Role role;
    const char* key;
};
constexpr RoleKey kRoleKeys[] = {
    {Role::Wafer, "WAFER"}, {Role::Wafer, "WAFERID"}, {Role::Wafer, "WAFERNAME"}, {Role::Wafer, "WAFERNO"},
    {Role::Wafer, "WAFERNUMBER"}, {Role::Wafer, "WAFERNR"}, {Role::Wafer, "WFR"}, {Role::Wafer, "SLOT"},
    {Role::Wafer, "SLOTID"}, {Role::Wafer, "SLOTNO"},
    {Role::Site, "SITE"}, {Role::Site, "SITEID"}, {Role::Site, "SITENO"}, {Role::Site, "SITENUMBER"},
    {Role::Site, "SITE#"}, {Role::Site, "TEST"}, {Role::Site, "TESTNO"}, {Role::Site, "TESTNUMBER"},
    {Role::Site, "POINT"}, {Role::Site, "POINTNO"}, {Role::Site, "POINTID"}, {Role::Site, "POINT#"},
    {Role::Site, "PT"},
    {Role::DieX, "DIEX"}, {Role::DieX, "XDIE"}, {Role::DieX, "DIECOL"}, {Role::DieX, "DIECOLUMN"},
    {Role::DieX, "FIELDX"}, {Role::DieX, "XFIELD"}, {Role::DieX, "FIELDCOL"}, {Role::DieX, "FIELDCOLUMN"},
    {Role::DieX, "COL"}, {Role::DieX, "COLUMN"}, {Role::DieX, "SHOTX"}, {Role::DieX, "XSHOT"},
    {Role::DieY, "DIEY"}, {Role::DieY, "YDIE"}, {Role::DieY, "DIEROW"}, {Role::DieY, "FIELDY"},
    {Role::DieY, "YFIELD"}, {Role::DieY, "FIELDROW"}, {Role::DieY, "ROW"}, {Role::DieY, "SHOTY"},
    {Role::DieY, "YSHOT"},
    {Role::SiteX, "X"}, {Role::SiteX, "XLOC"}, {Role::SiteX, "LOCX"}, {Role::SiteX, "SITEX"},
    {Role::SiteX, "XSITE"}, {Role::SiteX, "XSITELOC"}, {Role::SiteX, "SITEXLOC"}, {Role::SiteX, "XPOS"},
    {Role::SiteX, "POSX"}, {Role::SiteX, "XPOSITION"}, {Role::SiteX, "POSITIONX"}, {Role::SiteX, "XINFIELD"},
    {Role::SiteY, "Y"}, {Role::SiteY, "YLOC"}, {Role::SiteY, "LOCY"}, {Role::SiteY, "SITEY"},
    {Role::SiteY, "YSITE"}, {Role::SiteY, "YSITELOC"}, {Role::SiteY, "SITEYLOC"}, {Role::SiteY, "YPOS"},
    {Role::SiteY, "POSY"}, {Role::SiteY, "YPOSITION"}, {Role::SiteY, "POSITIONY"}, {Role::SiteY, "YINFIELD"},
    {Role::WaferX, "XWAFER"}, {Role::WaferX, "WAFERX"}, {Role::WaferX, "XWAFERLOC"}, {Role::WaferX, "WAFERXLOC"},
    {Role::WaferX, "XWAFERPOS"}, {Role::WaferX, "WAFERXPOS"}, {Role::WaferX, "XW"}, {Role::WaferX, "WX"},
    {Role::WaferY, "YWAFER"}, {Role::WaferY, "WAFERY"}, {Role::WaferY, "YWAFERLOC"}, {Role::WaferY, "WAFERYLOC"},
    {Role::WaferY, "YWAFERPOS"}, {Role::WaferY, "WAFERYPOS"}, {Role::WaferY, "YW"}, {Role::WaferY, "WY"},
    {Role::Focus, "FOCUS"}, {Role::Focus, "FOC"},
    {Role::Dose, "DOSE"}, {Role::Dose, "EXPOSURE"}, {Role::Dose, "ENERGY"}, {Role::Dose, "EXPOSUREDOSE"},
    {Role::Dose, "EXPOSUREENERGY"},
    {Role::Family, "FAMILY"}, {Role::Family, "FAMILYNAME"}, {Role::Family, "FEATURE"},
    {Role::Family, "FEATURETYPE"},
    {Role::Lot, "LOT"}, {Role::Lot, "LOTID"}, {Role::Lot, "LOTNAME"},
    // Numbers that are no measurement.
    {Role::Ignored, "DATE"}, {Role::Ignored, "TIME"}, {Role::Ignored, "DATETIME"}, {Role::Ignored, "TIMESTAMP"},
    {Role::Ignored, "REPEAT"}, {Role::Ignored, "INDEX"}, {Role::Ignored, "NO"}, {Role::Ignored, "NR"},
    {Role::Ignored, "#"}, {Role::Ignored, "SEQ"}, {Role::Ignored, "SEQUENCE"}, {Role::Ignored, "FIELD"},
    {Role::Ignored, "FLD"}, {Role::Ignored, "FIELDNO"}, {Role::Ignored, "FIELDNUMBER"}, {Role::Ignored, "SHOT"},
    {Role::Ignored, "SHOTNO"},
};
constexpr int kRoleCount = static_cast<int>(Role::Ignored) + 1;

// Upper case without the separators people put into names at will.
std::string NameKey(std::string_view s) {
    std::string k;
    k.reserve(s.size());
    for (char c : s)
        if (c != ' ' && c != '_' && c != '-' && c != '.' && c != '\t') k += UpChar(c);
    return k;
}

std::string_view TrimView(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
    return s;
}

// "µm" in either of its encodings becomes "um", so that the unit compares.
std::string PlainUnit(std::string_view unit) {
    std::string u = Replace(Replace(TrimView(unit), "\xC2\xB5", "u"), "\xCE\xBC", "u");
    return u;
}

// Millimetres per unit of a length unit; 0 for a word that is no length.
double MillimetresPer(std::string_view unit) {
    const std::string u = Upper(PlainUnit(unit));
    if (u == "MM") return 1;
    if (u == "UM" || u == "MICRON" || u == "MICRONS" || u == "MICROMETER" || u == "MICROMETRE") return 1e-3;
    if (u == "NM") return 1e-6;
    if (u == "CM") return 10;
    return 0;
}

// A number as tools write it: from_chars, with a leading "+" allowed and,
// where the delimiter leaves the comma free, a decimal comma ("12,5").
bool Number(std::string_view s, double& v, bool decimalComma) {
    if (s.empty()) return false;
    const char* b = s.data();
    const char* e = b + s.size();
    if (*b == '+') ++b;
    auto [ptr, ec] = std::from_chars(b, e, v);
    if (ec == std::errc() && ptr == e) return std::isfinite(v);
    if (!decimalComma || e - b > 63) return false;
    const char* comma = static_cast<const char*>(std::memchr(b, ',', static_cast<size_t>(e - b)));
    if (!comma || std::memchr(b, '.', static_cast<size_t>(e - b)) ||
        std::memchr(comma + 1, ',', static_cast<size_t>(e - comma - 1)))
        return false;
    char buf[64];
    const size_t n = static_cast<size_t>(e - b);
    std::memcpy(buf, b, n);
    buf[comma - b] = '.';
    auto [p2, ec2] = std::from_chars(buf, buf + n, v);
    return ec2 == std::errc() && p2 == buf + n && std::isfinite(v);
}

// Splits a line at one delimiter. A field in double quotes may hold the
// delimiter, and "" in it is one quote; such a field is unescaped into the
// scratch buffer, every other field is a view of the line itself.
class Splitter {
public:
    char delimiter = ',';
    const std::vector<std::string_view>& split(std::string_view line) {
        fields_.clear();
        if (line.find('"') == std::string_view::npos) {
            size_t i = 0;
            for (;;) {
                const size_t j = line.find(delimiter, i);
                if (j == std::string_view::npos) {
                    fields_.push_back(trim(line.substr(i)));
                    break;
                }
                fields_.push_back(trim(line.substr(i, j - i)));
                i = j + 1;
            }
            return fields_;
        }
        // The unescaped text is never longer than the line, so the buffer
        // does not move while views of it are handed out.
        scratch_.clear();
        scratch_.reserve(line.size() + 1);
        size_t i = 0;
        for (;;) {
            while (i < line.size() && line[i] != delimiter && (line[i] == ' ' || line[i] == '\t')) ++i;
            if (i < line.size() && line[i] == '"') {
                const size_t start = scratch_.size();
                size_t j = i + 1;
                while (j < line.size()) {
                    if (line[j] == '"') {
                        if (j + 1 < line.size() && line[j + 1] == '"') {
                            scratch_ += '"';
                            j += 2;
                            continue;
                        }
                        ++j;
                        break;
                    }
                    scratch_ += line[j++];
                }
                // Whatever stands between the closing quote and the delimiter stays with the field.
                while (j < line.size() && line[j] != delimiter) scratch_ += line[j++];
                fields_.push_back(trim(std::string_view(scratch_.data() + start, scratch_.size() - start)));
                if (j >= line.size()) break;
                i = j + 1;
                continue;
            }
            const size_t j = line.find(delimiter, i);
            if (j == std::string_view::npos) {
                fields_.push_back(trim(line.substr(i)));
                break;
            }
            fields_.push_back(trim(line.substr(i, j - i)));
            i = j + 1;
        }
        return fields_;
    }

private:
    std::string_view trim(std::string_view s) const {
        while (!s.empty() && (s.front() == ' ' || (s.front() == '\t' && delimiter != '\t'))) s.remove_prefix(1);
        while (!s.empty() && (s.back() == ' ' || (s.back() == '\t' && delimiter != '\t'))) s.remove_suffix(1);
        return s;
    }
    std::vector<std::string_view> fields_;
    std::string scratch_;
};

// The delimiter of a header line: the most frequent of tab, semicolon and
// comma outside quotes (in that order on a tie); 0 when the line has none.
char HeaderDelimiter(std::string_view line) {
    int tab = 0, semi = 0, comma = 0;
    bool quoted = false;
    for (char c : line) {
        if (c == '"') quoted = !quoted;
        if (quoted) continue;
        tab += c == '\t';
        semi += c == ';';
        comma += c == ',';
    }
    if (tab == 0 && semi == 0 && comma == 0) return 0;
    if (tab >= semi && tab >= comma) return '\t';
    if (semi >= comma) return ';';
    return ',';
}

struct Column {
    std::string name;  // as the file writes it, without its unit, inner blanks as "_"
    std::string key;   // NameKey of the name
    std::string unit;  // from "[nm]" or "(nm)" after the name, or its "_UNITS" column
    Role role = Role::None;
    int unitsOf = -1;  // a "<name>_UNITS" column: the column it gives the unit of; -2 a lone "UNITS"
};

// "CD [nm]" gives the name "CD" and the unit "nm"; a bracket that holds
// more than a short word is part of the name.
void SplitNameAndUnit(std::string_view text, Column& col) {
    std::string_view name = TrimView(text);
    if (!name.empty() && (name.back() == ']' || name.back() == ')')) {
        const char open = name.back() == ']' ? '[' : '(';
        const size_t at = name.rfind(open);
        if (at != std::string_view::npos && at > 0) {
            const std::string_view inside = name.substr(at + 1, name.size() - at - 2);
            if (!inside.empty() && inside.size() <= 10 && inside.find(' ') == std::string_view::npos) {
                col.unit = PlainUnit(inside);
                name = TrimView(name.substr(0, at));
            }
        }
    }
    col.name.clear();
    bool blank = false;
    for (char c : name) {
        if (c == ' ' || c == '\t') {
            blank = true;
            continue;
        }
        if (blank) col.name += '_';
        blank = false;
        col.name += c;
    }
    col.key = NameKey(col.name);
}

// "UP", "DOWN", "LEFT", "RIGHT" from the words and angles tools write.
std::string NotchWord(std::string_view text, const std::string& fallback) {
    const std::string u = Upper(TrimView(text));
    if (u == "U" || u == "UP" || u == "0" || u == "TOP") return "UP";
    if (u == "D" || u == "DOWN" || u == "180" || u == "BOTTOM") return "DOWN";
    if (u == "R" || u == "RIGHT" || u == "90") return "RIGHT";
    if (u == "L" || u == "LEFT" || u == "270") return "LEFT";
    return fallback;
}

// The data type words of the workbook in their written form; other text as it stands.
std::string DataTypeText(std::string_view text) {
    const std::string u = Upper(TrimView(text));
    if (u == "REGISTRATION" || u == "REG") return "Registration";
    if (u == "OVERLAY") return "Overlay";
    if (u == "CDSEM" || u == "SEM" || u == "CD") return "CDsem";
    if (u == "SCATTER" || u == "SCATTEROMETRY" || u == "SCATTEROMETER" || u == "ELLIPSEOMETER") return "Scatter";
    if (u == "FOCUS") return "Focus";
    if (u == "THERMAL") return "Thermal";
    if (u == "WAFERSITEDATA") return "WaferSiteData";
    if (u == "RESISTIVITY" || u == "SHEET RESISTANCE" || u == "SHEETRESISTANCE") return "Resistivity";
    return std::string(TrimView(text));
}

// A length in millimetres from an info line ("26", "26 mm", "26000 um");
// without a unit a value over `micronLimit` is micrometres. 0 when no number.
double InfoLength(std::string_view text, double micronLimit) {
    text = TrimView(text);
    size_t end = 0;
    while (end < text.size() && text[end] != ' ' && !(std::isalpha(static_cast<unsigned char>(text[end])) &&
                                                       text[end] != 'e' && text[end] != 'E'))
        ++end;
    double v = 0;
    if (!Number(TrimView(text.substr(0, end)), v, true)) return 0;
    const double per = MillimetresPer(text.substr(end));
    if (per > 0) return v * per;
    return std::fabs(v) > micronLimit ? v / 1000 : v;
}

// The data type the feature names suggest: an X and Y pair named as overlay
// or registration is "Overlay", names of focus or image shift are "Focus".
std::string GuessDataType(const std::vector<std::string>& keys) {
    static const char* const overlayWords[] = {"OVL", "OVERLAY", "OL", "REG", "MISR", "MIS"};
    for (size_t a = 0; a < keys.size(); ++a)
        for (size_t b = 0; b < keys.size(); ++b) {
            const std::string& x = keys[a];
            const std::string& y = keys[b];
            if (a == b || x.size() != y.size()) continue;
            size_t diff = std::string::npos;
            int count = 0;
            for (size_t i = 0; i < x.size(); ++i)
                if (x[i] != y[i]) {
                    diff = i;
                    ++count;
                }
            if (count != 1 || x[diff] != 'X' || y[diff] != 'Y') continue;
            const std::string stem = x.substr(0, diff) + "|" + x.substr(diff + 1);
            if (stem == "D|" || stem == "|D" || stem == "DELTA|" || stem == "|DELTA") return "Overlay";
            for (const char* w : overlayWords)
                if (stem.find(w) != std::string::npos) return "Overlay";
        }
    for (const std::string& k : keys)
        if (k.find("FOCUS") != std::string::npos || k.find("SHIFT") != std::string::npos) return "Focus";
    return "CDsem";
}

std::string FileNameOf(const std::string& path) {
    const size_t at = path.find_last_of("/\\");
    return at == std::string::npos ? path : path.substr(at + 1);
}

// A site as first seen: its number, its position as the file writes it, its family.
struct SiteSeen {
    long number = 0;
    double x = kNaN, y = kNaN;
    std::string family;
};

// What the first rows tell of one column.
struct ColumnSample {
    int numbers = 0, filled = 0;
    std::string firstText;
};

class DelimitedReader {
public:
    explicit DelimitedReader(const ImportRequest& request) : request_(request), path_(request.path) {
        std::fill(std::begin(roleCol_), std::end(roleCol_), -1);
    }
    Result<std::string> run();

private:
    Failure failed(long line, std::string text) { return FileFailure(p_, path_, line, std::move(text)); }
    Failure notBinary() {
        return failed(stream_.lineNumber(), "File type incorrect: " + path_ + "\r\nWrong data format.");
    }
    int col(Role r) const { return roleCol_[static_cast<int>(r)]; }

    Status readPreamble();
    void infoLine(std::string_view text);
    Status readHeader(std::string_view line);
    void decideRoles();
    void readSample();
    Status planColumns();
    void readRow(std::string_view line);
    long siteOf(const std::vector<std::string_view>& f);
    void noteSite(long site, const std::vector<std::string_view>& f);
    std::string_view field(const std::vector<std::string_view>& f, int c) const {
        return c >= 0 && c < static_cast<int>(f.size()) ? f[static_cast<size_t>(c)] : std::string_view();
    }
    double numberAt(const std::vector<std::string_view>& f, int c) const {
        double v = kNaN;
        if (!Number(field(f, c), v, decimalComma_)) v = kNaN;
        return v;
    }
    double siteScale() const;
    void numberSitesInOrder();
    void fieldsFromWaferPositions();
    void addSites();
    void noteExposures();
    void composeHeader();

    Proc p_{"Import(ImportDelimited): "};
    const ImportRequest& request_;
    std::string path_;
    TextStream stream_;
    Splitter split_;
    bool decimalComma_ = false;
    long headerLine_ = 0;

    ReaderTables tables_;
    ReaderHeader header_;
    FieldExposures fields_;
    bool typeGiven_ = false;
    std::string comments_;  // "# Comment" lines
    std::string lotFromColumn_;

    std::vector<Column> cols_;
    int roleCol_[kRoleCount];
    std::vector<int> featureCols_;  // the column of feature k
    std::string globalUnit_;        // from a lone "UNITS" column

    std::vector<std::string> sample_;

    // Sites: numbers from the column (shifted by one for a file that counts
    // from 0), names numbered as they come, or distinct (X, Y) pairs.
    bool siteNames_ = false;
    long siteBase_ = 0;
    std::map<std::string, long, std::less<>> siteByName_;
    std::map<std::pair<double, double>, long> siteByPair_;
    std::unordered_map<long, size_t> siteIndex_;
    std::vector<SiteSeen> sites_;
    long lastSite_ = -1;

    // Per data row, where the file gives them: the wafer position (for the
    // field indices of a file without die columns), focus and dose.
    bool fieldsFromPositions_ = false;
    std::vector<double> waferX_, waferY_, focus_, dose_;
    double focusScale_ = 1;

    std::string lastWafer_;
    Value waferValue_;
    long skipped_ = 0;
};

Result<std::string> DelimitedReader::run() {
    p_.chk = 1;
    SetStatusText("Reading " + FileNameOf(path_) + " ...");
    if (Status s = stream_.open(path_); !s) return failed(0, s.failure().text);

    p_.chk = 2;
    if (Status s = readPreamble(); !s) return s.failure();
    p_.chk = 3;
    readSample();
    if (stream_.sawNul()) return notBinary();
    if (sample_.empty())
        return failed(headerLine_, IncompleteDataText(FileNameOf(path_)));
    p_.chk = 4;
    if (Status s = planColumns(); !s) return s.failure();
    // Room for the rows the file's size promises, once the table has its width.
    if (!sample_.empty() && stream_.size() > 0) {
        size_t bytes = 0;
        for (const std::string& l : sample_) bytes += l.size() + 1;
        const double perRow = static_cast<double>(bytes) / static_cast<double>(sample_.size());
        tables_.reserveRows(static_cast<long>(static_cast<double>(stream_.size()) / perRow * 1.05) + 16);
    }

    p_.chk = 5;
    long rowsRead = 0;
    auto progress = [&rowsRead] {
        if (++rowsRead % 100 == 0) SetStatusText("Data Import Row " + std::to_string(rowsRead));
    };
    for (const std::string& line : sample_) {
        readRow(line);
        progress();
    }
    sample_ = {};
    std::string_view line;
    while (stream_.readLine(line)) {
        const std::string_view t = TrimView(line);
        if (t.empty() || t.front() == '#') continue;
        readRow(line);
        progress();
    }
    if (stream_.sawNul()) return notBinary();
    stream_.close();

    p_.chk = 6;
    numberSitesInOrder();
    if (fieldsFromPositions_) fieldsFromWaferPositions();
    addSites();
    noteExposures();
    composeHeader();
    p_.chk = 7;
    return FinishImport(p_, request_, tables_, header_, fields_.empty() ? nullptr : &fields_);
}

// Info lines and blank lines up to the header row.
Status DelimitedReader::readPreamble() {
    std::string_view line;
    while (stream_.readLine(line)) {
        if (stream_.sawNul()) return notBinary();
        if (stream_.lineNumber() == 1 && line.substr(0, 3) == "\xEF\xBB\xBF") line.remove_prefix(3);
        const std::string_view t = TrimView(line);
        if (t.empty()) continue;
        if (t.front() == '#') {
            infoLine(t.substr(1));
            continue;
        }
        return readHeader(line);
    }
    return failed(stream_.lineNumber(), "This is not a proper format data sheet.");
}

void DelimitedReader::infoLine(std::string_view text) {
    const size_t at = text.find_first_of(":=");
    if (at == std::string_view::npos) return;
    const std::string key = NameKey(text.substr(0, at));
    const std::string_view value = TrimView(text.substr(at + 1));
    ReaderHeader& h = header_;
    if (key == "LOT" || key == "LOTID" || key == "LOTNAME") h.lotName = value;
    else if (key == "DEVICE" || key == "PRODUCT") h.device = value;
    else if (key == "LAYER" || key == "LEVEL") h.layer = value;
    else if (key == "JOB" || key == "JOBPLAN") h.job = value;
    else if (key == "TOOL" || key == "TOOLNAME" || key == "TOOLID") h.toolName = value;
    else if (key == "SYSTEM" || key == "SYSTEMID") h.system = value;
    else if (key == "USER" || key == "OPERATOR") h.user = value;
    else if (key == "DATE") h.date = value;
    else if (key == "TIME") h.time = value;
    else if (key == "DATATYPE") {
        h.dataType = DataTypeText(value);
        typeGiven_ = !value.empty();
    } else if (key == "DIESIZEX" || key == "FIELDSIZEX") h.dieSizeXmm = InfoLength(value, kSiteMicronLimit);
    else if (key == "DIESIZEY" || key == "FIELDSIZEY") h.dieSizeYmm = InfoLength(value, kSiteMicronLimit);
    else if (key == "NOTCH" || key == "FLAT" || key == "FLATLOCATION") h.notch = NotchWord(value, h.notch);
    else if (key == "WAFERSIZE" || key == "WAFERDIAMETER") h.waferSizeMm = InfoLength(value, kWaferMicronLimit);
    else if (key == "RECIPE") h.recipe = value;
    else if (key == "RETICLE") h.reticle = value;
    else if (key == "EXPOSURETOOL") h.exposureTool = value;
    else if (key == "FAMILY") h.family = value;
    else if (key == "COMMENT" || key == "COMMENTS") {
        if (!comments_.empty()) comments_ += "\r\n";
        comments_ += value;
    }
}

// The header row: its delimiter, its names and units, the roles they play.
Status DelimitedReader::readHeader(std::string_view line) {
    headerLine_ = stream_.lineNumber();
    const char d = HeaderDelimiter(line);
    if (d == 0) return failed(headerLine_, "This is not a proper format data sheet.");
    split_.delimiter = d;
    decimalComma_ = d != ',';
    const std::vector<std::string_view>& f = split_.split(line);
    // A row of names: at least two, and mostly not numbers (a table
    // without its header row is not read with made-up names).
    int named = 0, numeric = 0;
    for (std::string_view s : f) {
        if (s.empty()) continue;
        ++named;
        double v;
        numeric += Number(s, v, decimalComma_);
    }
    if (named < 2 || numeric * 2 >= named) return failed(headerLine_, "This is not a proper format data sheet.");
    cols_.assign(f.size(), Column());
    for (size_t i = 0; i < f.size(); ++i) SplitNameAndUnit(f[i], cols_[i]);
    decideRoles();
    return StatusOk();
}

void DelimitedReader::decideRoles() {
    // "<name>_UNITS" gives the unit of <name>; a lone "UNITS" that of every feature without one.
    for (size_t c = 0; c < cols_.size(); ++c) {
        const std::string& k = cols_[c].key;
        if (k == "UNITS" || k == "UNIT") {
            cols_[c].role = Role::Units;
            cols_[c].unitsOf = -2;
            continue;
        }
        if (k.size() <= 5 || k.compare(k.size() - 5, 5, "UNITS") != 0) continue;
        cols_[c].role = Role::Units;
        const std::string_view base(k.data(), k.size() - 5);
        for (size_t o = 0; o < cols_.size(); ++o)
            if (o != c && cols_[o].key == base) cols_[c].unitsOf = static_cast<int>(o);
    }
    for (const RoleKey& rk : kRoleKeys)
        for (size_t c = 0; c < cols_.size(); ++c) {
            Column& column = cols_[c];
            if (column.role != Role::None || column.key != rk.key) continue;
            int& slot = roleCol_[static_cast<int>(rk.role)];
            if (rk.role != Role::Ignored && slot < 0) {
                slot = static_cast<int>(c);
                column.role = rk.role;
            } else {
                column.role = Role::Ignored;
            }
        }
}

void DelimitedReader::readSample() {
    std::string_view line;
    while (static_cast<int>(sample_.size()) < kSampleRows && stream_.readLine(line)) {
        if (stream_.sawNul()) return;
        const std::string_view t = TrimView(line);
        if (t.empty() || t.front() == '#') continue;
        sample_.emplace_back(line);
    }
}

// From the first rows: which columns are features, how sites are numbered,
// what the units columns say.
Status DelimitedReader::planColumns() {
    std::vector<ColumnSample> seen(cols_.size());
    const int siteCol = col(Role::Site);
    bool siteIntegers = true, anySite = false;
    double siteMin = 0;
    for (const std::string& line : sample_) {
        const std::vector<std::string_view>& f = split_.split(line);
        for (size_t c = 0; c < f.size() && c < cols_.size(); ++c) {
            if (f[c].empty()) continue;
            ColumnSample& s = seen[c];
            if (s.filled++ == 0) s.firstText = f[c];
            double v;
            s.numbers += Number(f[c], v, decimalComma_);
        }
        const std::string_view s = field(f, siteCol);
        if (s.empty()) continue;
        double v;
        if (!Number(s, v, false) || v != std::floor(v) || std::fabs(v) > 2e9) {
            siteIntegers = false;
        } else {
            siteMin = anySite ? std::min(siteMin, v) : v;
            anySite = true;
        }
    }
    siteNames_ = !siteIntegers;
    siteBase_ = siteIntegers && anySite && siteMin == 0 ? 1 : 0;

    // Features: unnamed-role columns with a name whose cells are mostly numbers.
    for (size_t c = 0; c < cols_.size(); ++c) {
        Column& column = cols_[c];
        if (column.role != Role::None || column.name.empty()) continue;
        if (seen[c].numbers == 0 || seen[c].numbers * 2 < seen[c].filled) continue;
        featureCols_.push_back(static_cast<int>(c));
    }
    if (featureCols_.empty()) return failed(headerLine_, "This is not a proper format data sheet.");

    for (size_t c = 0; c < cols_.size(); ++c) {
        const Column& column = cols_[c];
        if (column.role != Role::Units || seen[c].firstText.empty()) continue;
        const std::string unit = PlainUnit(seen[c].firstText);
        if (column.unitsOf == -2) globalUnit_ = unit;
        else if (column.unitsOf >= 0 && cols_[static_cast<size_t>(column.unitsOf)].unit.empty())
            cols_[static_cast<size_t>(column.unitsOf)].unit = unit;
    }
    for (size_t k = 0; k < featureCols_.size(); ++k) {
        const Column& column = cols_[static_cast<size_t>(featureCols_[k])];
        tables_.setFeature(static_cast<int>(k), column.name);
        const std::string& unit = column.unit.empty() ? globalUnit_ : column.unit;
        if (!unit.empty()) tables_.setUnit(static_cast<int>(k), unit);
    }

    if (col(Role::Focus) >= 0) {
        const std::string u = Upper(cols_[static_cast<size_t>(col(Role::Focus))].unit);
        focusScale_ = u == "NM" ? 1e-3 : u == "MM" ? 1e3 : 1;
    }
    fieldsFromPositions_ = col(Role::DieX) < 0 && col(Role::DieY) < 0 &&
                           (col(Role::WaferX) >= 0 || col(Role::WaferY) >= 0);
    return StatusOk();
}

void DelimitedReader::readRow(std::string_view line) {
    const std::vector<std::string_view>& f = split_.split(line);
    const long r = tables_.addRow();
    bool any = false;
    for (size_t k = 0; k < featureCols_.size(); ++k) {
        double v;
        if (Number(field(f, featureCols_[k]), v, decimalComma_)) {
            tables_.cell(r, 5 + static_cast<int>(k)) = v;
            any = true;
        }
    }
    if (!any) {
        tables_.dropRow();
        ++skipped_;
        return;
    }

    // The wafer: as written, a whole number as a number; a blank cell keeps the last wafer.
    std::string_view w = field(f, col(Role::Wafer));
    if (w.empty()) w = lastWafer_.empty() ? std::string_view("1") : std::string_view(lastWafer_);
    if (waferValue_.isEmpty() || w != lastWafer_) {
        lastWafer_.assign(w);
        double num;
        waferValue_ = Number(lastWafer_, num, false) && num == std::floor(num) && std::fabs(num) < 2e9
                          ? Value(static_cast<int32_t>(num))
                          : Value(std::string_view(lastWafer_));
    }
    tables_.cell(r, 1) = waferValue_;
    tables_.cell(r, 2) = static_cast<int32_t>(siteOf(f));
    const double dx = numberAt(f, col(Role::DieX)), dy = numberAt(f, col(Role::DieY));
    tables_.cell(r, 3) = static_cast<int32_t>(std::isnan(dx) ? 0 : std::lround(dx));
    tables_.cell(r, 4) = static_cast<int32_t>(std::isnan(dy) ? 0 : std::lround(dy));
    if (fieldsFromPositions_) {
        waferX_.push_back(numberAt(f, col(Role::WaferX)));
        waferY_.push_back(numberAt(f, col(Role::WaferY)));
    }
    if (col(Role::Focus) >= 0) focus_.push_back(numberAt(f, col(Role::Focus)) * focusScale_);
    if (col(Role::Dose) >= 0) dose_.push_back(numberAt(f, col(Role::Dose)));
    if (lotFromColumn_.empty() && col(Role::Lot) >= 0) lotFromColumn_ = field(f, col(Role::Lot));
}

long DelimitedReader::siteOf(const std::vector<std::string_view>& f) {
    long site = 0;
    const std::string_view s = field(f, col(Role::Site));
    if (!s.empty()) {
        if (siteNames_) {
            auto it = siteByName_.find(s);
            if (it == siteByName_.end())
                it = siteByName_.emplace(std::string(s), static_cast<long>(siteByName_.size()) + 1).first;
            site = it->second;
        } else if (double v; Number(s, v, false)) {
            site = std::max(1L, std::lround(v) + siteBase_);
        }
    }
    if (site == 0) {
        // Without a site number each distinct position in the field is a site.
        const double x = numberAt(f, col(Role::SiteX)), y = numberAt(f, col(Role::SiteY));
        if (std::isnan(x) && std::isnan(y)) {
            site = 1;
        } else {
            const std::pair<double, double> key(std::isnan(x) ? 0 : x, std::isnan(y) ? 0 : y);
            auto it = siteByPair_.find(key);
            if (it == siteByPair_.end())
                it = siteByPair_.emplace(key, static_cast<long>(siteByPair_.size()) + 1).first;
            site = it->second;
        }
    }
    if (site != lastSite_) noteSite(site, f);
    lastSite_ = site;
    return site;
}

// The position and family of a site from the first row that names them.
void DelimitedReader::noteSite(long site, const std::vector<std::string_view>& f) {
    auto it = siteIndex_.find(site);
    if (it == siteIndex_.end()) {
        it = siteIndex_.emplace(site, sites_.size()).first;
        sites_.push_back(SiteSeen{site, kNaN, kNaN, {}});
        const std::string_view fam = field(f, col(Role::Family));
        if (!fam.empty()) {
            const std::string text(fam);
            // A feature word (ISO_LINE, DENSE_SPACE) gives its family; a family column names it.
            sites_.back().family =
                cols_[static_cast<size_t>(col(Role::Family))].key.rfind("FEATURE", 0) == 0 ? FamilyOfFeature(text, text)
                                                                                            : text;
        }
    }
    SiteSeen& s = sites_[it->second];
    if (std::isnan(s.x)) s.x = numberAt(f, col(Role::SiteX));
    if (std::isnan(s.y)) s.y = numberAt(f, col(Role::SiteY));
}

// Millimetres per unit of the site positions: their unit, or the rule that
// a position over 50 is micrometres.
double DelimitedReader::siteScale() const {
    for (Role r : {Role::SiteX, Role::SiteY})
        if (col(r) >= 0)
            if (const double per = MillimetresPer(cols_[static_cast<size_t>(col(r))].unit); per > 0) return per;
    double most = 0;
    for (const SiteSeen& s : sites_) {
        if (!std::isnan(s.x)) most = std::max(most, std::fabs(s.x));
        if (!std::isnan(s.y)) most = std::max(most, std::fabs(s.y));
    }
    return most > kSiteMicronLimit ? 1e-3 : 1;
}

// The loader finds a site by its row in the site table, so the numbers must
// run 1..n: numbers that leave gaps are renumbered in their order.
void DelimitedReader::numberSitesInOrder() {
    std::sort(sites_.begin(), sites_.end(), [](const SiteSeen& a, const SiteSeen& b) { return a.number < b.number; });
    bool dense = true;
    for (size_t i = 0; i < sites_.size(); ++i) dense = dense && sites_[i].number == static_cast<long>(i) + 1;
    if (dense) return;
    std::unordered_map<long, int32_t> to;
    for (size_t i = 0; i < sites_.size(); ++i) {
        to[sites_[i].number] = static_cast<int32_t>(i + 1);
        sites_[i].number = static_cast<long>(i) + 1;
    }
    for (long r = 1; r <= tables_.rows(); ++r) {
        Value& v = tables_.cell(r, 2);
        v = to[v.toLong()];
    }
}

// A file with wafer positions but no field indices: the field of a row is
// its wafer position less its position in the field; the field pitch is the
// most common spacing of the fields, and the indices count pitches from the
// lowest field (FinishImport centres them).
void DelimitedReader::fieldsFromWaferPositions() {
    double per = 0;
    for (Role r : {Role::WaferX, Role::WaferY})
        if (per <= 0 && col(r) >= 0) per = MillimetresPer(cols_[static_cast<size_t>(col(r))].unit);
    if (per <= 0) {
        double most = 0;
        for (const std::vector<double>* v : {&waferX_, &waferY_})
            for (double a : *v)
                if (!std::isnan(a)) most = std::max(most, std::fabs(a));
        per = most > kWaferMicronLimit ? 1e-3 : 1;
    }
    const double siteMm = siteScale();
    std::vector<double> siteX(sites_.size() + 1, 0), siteY(sites_.size() + 1, 0);
    for (const SiteSeen& s : sites_) {
        if (!std::isnan(s.x)) siteX[static_cast<size_t>(s.number)] = s.x * siteMm;
        if (!std::isnan(s.y)) siteY[static_cast<size_t>(s.number)] = s.y * siteMm;
    }
    const long n = tables_.rows();
    std::vector<double> fx(static_cast<size_t>(n)), fy(static_cast<size_t>(n));
    std::vector<double> xs, ys;
    double xmin = 0, ymin = 0;
    bool anyX = false, anyY = false;
    for (long r = 1; r <= n; ++r) {
        const size_t i = static_cast<size_t>(r - 1);
        const size_t site = static_cast<size_t>(tables_.cell(r, 2).toLong());
        fx[i] = waferX_[i] * per - (site < siteX.size() ? siteX[site] : 0);
        fy[i] = waferY_[i] * per - (site < siteY.size() ? siteY[site] : 0);
        if (!std::isnan(fx[i])) {
            xs.push_back(fx[i]);
            xmin = anyX ? std::min(xmin, fx[i]) : fx[i];
            anyX = true;
        }
        if (!std::isnan(fy[i])) {
            ys.push_back(fy[i]);
            ymin = anyY ? std::min(ymin, fy[i]) : fy[i];
            anyY = true;
        }
    }
    double pitchX = 0, pitchY = 0;
    FindDieSize(xs, ys, pitchX, pitchY);
    for (long r = 1; r <= n; ++r) {
        const size_t i = static_cast<size_t>(r - 1);
        if (pitchX > 0 && !std::isnan(fx[i]))
            tables_.cell(r, 3) = static_cast<int32_t>(std::floor((fx[i] - xmin) / pitchX + 0.5));
        if (pitchY > 0 && !std::isnan(fy[i]))
            tables_.cell(r, 4) = static_cast<int32_t>(std::floor((fy[i] - ymin) / pitchY + 0.5));
    }
    if (header_.dieSizeXmm <= 0 && pitchX > 0) header_.dieSizeXmm = pitchX;
    if (header_.dieSizeYmm <= 0 && pitchY > 0) header_.dieSizeYmm = pitchY;
}

void DelimitedReader::addSites() {
    const double mm = siteScale();
    const std::string fallback = FamilyOfFeature(tables_.featureName(0), header_.family);
    for (const SiteSeen& s : sites_)
        tables_.addSite(s.number, header_.dieSizeXmm, header_.dieSizeYmm, std::isnan(s.x) ? 0 : s.x * mm,
                        std::isnan(s.y) ? 0 : s.y * mm, s.family.empty() ? fallback : s.family);
}

// The exposure of each field, once the field indices are final.
void DelimitedReader::noteExposures() {
    if (focus_.empty() && dose_.empty()) return;
    std::string wafer;
    for (long r = 1; r <= tables_.rows(); ++r) {
        const size_t i = static_cast<size_t>(r - 1);
        const Value& w = tables_.cell(r, 1);
        if (w.isString()) wafer.assign(w.str());
        else wafer = std::to_string(w.toLong());
        const double focus = focus_.empty() ? 0 : focus_[i];
        const double dose = dose_.empty() ? kMissingDose : dose_[i];
        fields_.note(wafer, tables_.cell(r, 3).toLong(), tables_.cell(r, 4).toLong(),
                     std::isnan(focus) ? kMissingDose : focus, std::isnan(dose) ? kMissingDose : dose);
    }
}

void DelimitedReader::composeHeader() {
    ReaderHeader& h = header_;
    if (h.toolName.empty()) h.toolName = "Delimited text";
    if (h.lotName.empty()) h.lotName = lotFromColumn_;
    if (!typeGiven_) {
        std::vector<std::string> keys;
        for (int c : featureCols_) keys.push_back(cols_[static_cast<size_t>(c)].key);
        h.dataType = GuessDataType(keys);
    }
    h.comment = h.toolName + "\r\nDevice: " + h.device + " / Level: " + h.layer + "\r\nLotName No:" + h.lotName +
                " / Job Plan: " + h.job + "\r\nSource: " + FileNameOf(path_);
    if (!h.system.empty()) h.comment += "\r\nSystem: " + h.system;
    if (!h.user.empty()) h.comment += "\r\nUser: " + h.user;
    if (skipped_ > 0) h.comment += "\r\nRows without a number, skipped: " + std::to_string(skipped_);
    if (!comments_.empty()) h.comment += "\r\n" + comments_;
}

}  // namespace

Result<std::string> ImportDelimited(const ImportRequest& request) {
    DelimitedReader reader(request);
    return reader.run();
}

}  // namespace zorv
