// The library file ZORVpsfm.tpl: UTF-16 text, one value a line, CR LF ends.
// Its folder, the "Templates" settings section and the built-in sample.
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include "app/settings.h"
#include "base/format.h"
#include "base/identity.h"
#include "base/regional.h"
#include "base/text.h"
#include "base/value.h"
#include "calib/template_library.h"

namespace zorv {

namespace fs = std::filesystem;

// ---- encoding ----

namespace {

void AppendUtf16(std::string& out, char32_t c) {
    auto unit = [&out](unsigned u) {
        out += static_cast<char>(u & 0xFF);
        out += static_cast<char>((u >> 8) & 0xFF);
    };
    if (c >= 0x10000) {
        c -= 0x10000;
        unit(0xD800 + static_cast<unsigned>(c >> 10));
        unit(0xDC00 + static_cast<unsigned>(c & 0x3FF));
    } else {
        unit(static_cast<unsigned>(c));
    }
}

void AppendUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

// UTF-8 to code points; a byte that is not valid UTF-8 stands for itself
// (Latin-1), so any text survives.
std::u32string FromUtf8(std::string_view s) {
    std::u32string out;
    for (size_t i = 0; i < s.size();) {
        const unsigned char b = static_cast<unsigned char>(s[i]);
        int len = b < 0x80 ? 1 : (b >> 5) == 6 ? 2 : (b >> 4) == 14 ? 3 : (b >> 3) == 30 ? 4 : 0;
        bool ok = len > 0 && i + len <= s.size();
        char32_t c = len == 1 ? b : len == 2 ? (b & 0x1F) : len == 3 ? (b & 0x0F) : (b & 0x07);
        for (int k = 1; ok && k < len; ++k) {
            const unsigned char cb = static_cast<unsigned char>(s[i + k]);
            if ((cb & 0xC0) != 0x80) ok = false;
            c = (c << 6) | (cb & 0x3F);
        }
        if (!ok) {
            out += b;
            ++i;
        } else {
            out += c;
            i += len;
        }
    }
    return out;
}

std::vector<std::string> SplitLines(const std::u32string& text) {
    std::vector<std::string> lines;
    std::string cur;
    bool pending = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char32_t c = text[i];
        if (c == U'\r' || c == U'\n') {
            lines.push_back(cur);
            cur.clear();
            pending = false;
            if (c == U'\r' && i + 1 < text.size() && text[i + 1] == U'\n') ++i;
        } else {
            AppendUtf8(cur, c);
            pending = true;
        }
    }
    if (pending) lines.push_back(cur);
    return lines;
}

}  // namespace

std::string EncodeTemplateFile(const std::vector<std::string>& lines) {
    std::string out = "\xFF\xFE";
    for (const std::string& line : lines) {
        for (char32_t c : FromUtf8(line)) AppendUtf16(out, c);
        AppendUtf16(out, U'\r');
        AppendUtf16(out, U'\n');
    }
    return out;
}

std::vector<std::string> DecodeTemplateFile(const std::string& bytes) {
    auto byte = [&bytes](size_t i) { return static_cast<unsigned char>(bytes[i]); };
    bool le = true, wide = false;
    size_t start = 0;
    if (bytes.size() >= 2 && byte(0) == 0xFF && byte(1) == 0xFE) {
        wide = true;
        start = 2;
    } else if (bytes.size() >= 2 && byte(0) == 0xFE && byte(1) == 0xFF) {
        wide = true;
        le = false;
        start = 2;
    } else if (bytes.size() >= 2 && byte(1) == 0 && byte(0) != 0) {
        wide = true;  // UTF-16 LE without a mark
    }
    std::u32string text;
    if (!wide) {
        size_t s = bytes.size() >= 3 && byte(0) == 0xEF && byte(1) == 0xBB && byte(2) == 0xBF ? 3 : 0;
        text = FromUtf8(std::string_view(bytes).substr(s));
    } else {
        for (size_t i = start; i + 1 < bytes.size(); i += 2) {
            char32_t u = le ? (byte(i) | (byte(i + 1) << 8)) : ((byte(i) << 8) | byte(i + 1));
            if (u >= 0xD800 && u < 0xDC00 && i + 3 < bytes.size()) {
                const char32_t lo = le ? (byte(i + 2) | (byte(i + 3) << 8)) : ((byte(i + 2) << 8) | byte(i + 3));
                if (lo >= 0xDC00 && lo < 0xE000) {
                    u = 0x10000 + ((u - 0xD800) << 10) + (lo - 0xDC00);
                    i += 2;
                }
            }
            text += u;
        }
    }
    return SplitLines(text);
}

// ---- numbers and dates ----

std::string TemplateNumberText(float v) {
    if (!std::isfinite(v)) return CStrNumber(static_cast<double>(v), 7);
    for (int digits = 1; digits <= 9; ++digits) {
        const std::string t = CStrNumber(static_cast<double>(v), digits);
        double back = 0;
        if (ParseMachineNumber(t, back) && static_cast<float>(back) == v) return t;
    }
    return CStrNumber(static_cast<double>(v), 9);
}

std::string TemplateDateText(double serial) { return FormatDate(serial, "General Date"); }

// ---- the record lines ----

namespace {

void PutSite(std::vector<std::string>& L, const cSiteCal& s) {
    const float v[] = {s.Dose, s.NA, s.PCinner, s.PCouter, s.LocationX, s.LocationY};
    for (float x : v) L.push_back(TemplateNumberText(x));
    L.push_back(s.NumberKey);
    const float w[] = {s.OffsetX, s.OffsetXse, s.OffsetY, s.OffsetYse, s.SlopeX, s.SlopeXse, s.SlopeY, s.SlopeYse,
                       s.X2nd,    s.X2ndSE,    s.Y2nd,    s.Y2ndSE,    s.X3rd,   s.X3rdSE,   s.Y3rd,   s.Y3rdSE,
                       s.X4th,    s.X4thSE,    s.Y4th,    s.Y4thSE};
    for (float x : w) L.push_back(TemplateNumberText(x));
}

void PutLine(std::vector<std::string>& L, const cCalLine& c) {
    L.push_back(c.KeyName);
    const float v[] = {c.Location, c.Piston, c.PistonSE, c.Tilt, c.TiltSE, c.Curvature, c.CurvatureSE,
                       c.IFDresidulaseSE};
    for (float x : v) L.push_back(TemplateNumberText(x));
}

// Lines of a comment: split at CR LF (a lone CR or LF counts too); an empty
// comment is one empty line.
std::vector<std::string> CommentLines(const std::string& comment) {
    std::vector<std::string> out(1);
    for (size_t i = 0; i < comment.size(); ++i) {
        const char c = comment[i];
        if (c == '\r' || c == '\n') {
            if (c == '\r' && i + 1 < comment.size() && comment[i + 1] == '\n') ++i;
            out.emplace_back();
        } else {
            out.back() += c;
        }
    }
    return out;
}

// Reads the lines in order; a line that is missing or does not parse ends
// the read with the failure of that line.
class LineReader {
public:
    LineReader(const std::vector<std::string>& lines, Proc& p, std::string file)
        : lines_(lines), p_(p), file_(std::move(file)) {}

    bool next(std::string& out) {
        if (pos_ >= lines_.size()) {
            fail("Input past end of file");
            return false;
        }
        out = lines_[pos_++];
        return true;
    }
    void back() { --pos_; }
    bool number(const std::string& text, double& out) {
        if (ParseMachineNumber(Trim(text), out) || ParseNumber(Trim(text), out)) return true;
        fail("Type mismatch");
        return false;
    }
    bool single(float& out) {
        std::string t;
        double d = 0;
        if (!next(t) || !number(t, d)) return false;
        out = static_cast<float>(d);
        return true;
    }
    // A "Label: n" line: the number after the colon.
    bool labelled(double& out) {
        std::string t;
        if (!next(t)) return false;
        const size_t c = t.find(':');
        return number(c == std::string::npos ? t : t.substr(c + 1), out);
    }
    bool count(long& out) {
        double d = 0;
        if (!labelled(d)) return false;
        if (d < 0 || d > 1e8) {
            fail("Overflow");
            return false;
        }
        out = std::lround(d);
        return true;
    }
    bool date(double& out) {
        std::string t;
        if (!next(t)) return false;
        t = Trim(t);
        out = 0;
        if (t.empty()) return true;
        if (ParseDateText(t, out)) return true;
        fail("Type mismatch");
        return false;
    }
    void fail(const std::string& text) {
        if (failure_) return;
        p_.msg = text;
        failure_ = true;
    }
    Failure failure() {
        Failure f = p_.failure();
        f.file = file_;
        f.row = static_cast<long>(pos_);
        return f;
    }

private:
    const std::vector<std::string>& lines_;
    Proc& p_;
    std::string file_;
    size_t pos_ = 0;
    bool failure_ = false;
};

bool ReadLine(LineReader& in, cCalLine& c) {
    return in.next(c.KeyName) && in.single(c.Location) && in.single(c.Piston) && in.single(c.PistonSE) &&
           in.single(c.Tilt) && in.single(c.TiltSE) && in.single(c.Curvature) && in.single(c.CurvatureSE) &&
           in.single(c.IFDresidulaseSE);
}

bool ReadSite(LineReader& in, cSiteCal& s, int version) {
    if (version >= 2 && !in.single(s.Dose)) return false;
    if (!(in.single(s.NA) && in.single(s.PCinner) && in.single(s.PCouter) && in.single(s.LocationX) &&
          in.single(s.LocationY) && in.next(s.NumberKey)))
        return false;
    float* first[] = {&s.OffsetX, &s.OffsetXse, &s.OffsetY, &s.OffsetYse,
                      &s.SlopeX,  &s.SlopeXse,  &s.SlopeY,  &s.SlopeYse};
    for (float* f : first)
        if (!in.single(*f)) return false;
    if (version < 3) return true;
    float* higher[] = {&s.X2nd, &s.X2ndSE, &s.Y2nd, &s.Y2ndSE, &s.X3rd, &s.X3rdSE,
                       &s.Y3rd, &s.Y3rdSE, &s.X4th, &s.X4thSE, &s.Y4th, &s.Y4thSE};
    for (float* f : higher)
        if (!in.single(*f)) return false;
    return true;
}

// One template record; nullptr when the read failed.
std::shared_ptr<cTemplate> ReadTemplate(LineReader& in, int version) {
    auto t = std::make_shared<cTemplate>();
    t->Version = static_cast<float>(version);
    long commentLines = 0, nSites = 0, nSets = 0;
    double type = 0;
    std::string line;
    if (!in.next(t->NameTemplate) || !in.count(commentLines) || !in.next(t->Comment)) return nullptr;
    for (long i = 1; i < commentLines; ++i) {
        if (!in.next(line)) return nullptr;
        t->Comment += "\r\n" + line;
    }
    if (!in.next(t->DataSetName) || !in.date(t->DateCreated) || !in.date(t->DateModified) ||
        !in.next(t->ReticleName) || !in.next(line) || !in.number(line, type) || !in.count(nSites) ||
        !in.count(nSets))
        return nullptr;
    t->TemplateType = std::lround(type);
    for (long i = 0; i < nSites; ++i) {
        auto s = std::make_unique<cSiteCal>();
        if (!ReadSite(in, *s, version)) return nullptr;
        t->AddSite(std::move(s));
    }
    for (long i = 0; i < nSets; ++i) {
        auto b = std::make_unique<cBestFocus>();
        long rows = 0, cols = 0;
        if (!in.next(b->KeyName)) return nullptr;
        if (version >= 2 && !in.single(b->Dose)) return nullptr;
        if (!in.single(b->NA) || !in.single(b->PCinner) || !in.single(b->PCouter) || !in.count(rows) ||
            !in.count(cols))
            return nullptr;
        for (long r = 0; r < rows; ++r) {
            cCalRow row;
            if (!ReadLine(in, row)) return nullptr;
            b->UpdateRowData(row);
        }
        for (long c = 0; c < cols; ++c) {
            cCalColumn col;
            if (!ReadLine(in, col)) return nullptr;
            b->UpdateColData(col);
        }
        t->AddBestFocus(std::move(b));
    }
    return t;
}

bool Writable(const fs::path& dir) {
    std::error_code ec;
    if (fs::is_directory(dir, ec)) return ::access(dir.c_str(), W_OK) == 0;
    const fs::path parent = dir.parent_path();
    return !parent.empty() && fs::is_directory(parent, ec) && ::access(parent.c_str(), W_OK) == 0;
}

}  // namespace

std::vector<std::string> cTemplateLibrary::FileLines() const {
    std::vector<std::string> L;
    L.push_back("Version: 3");
    L.push_back("TemplatesTotal: " + std::to_string(templates_.size()));
    for (const auto& t : templates_) {
        L.push_back(t->NameTemplate);
        const std::vector<std::string> comment = CommentLines(t->Comment);
        L.push_back("CommentLines: " + std::to_string(comment.size()));
        L.insert(L.end(), comment.begin(), comment.end());
        L.push_back(t->DataSetName);
        L.push_back(TemplateDateText(t->DateCreated));
        L.push_back(TemplateDateText(t->DateModified));
        L.push_back(t->ReticleName);
        L.push_back(std::to_string(t->TemplateType));
        L.push_back("SitesTotal: " + std::to_string(t->sites.Count()));
        L.push_back("BestFocusSets: " + std::to_string(t->BestFocusSets.Count()));
        for (const cSiteCal* s : t->sites) PutSite(L, *s);
        for (const cBestFocus* b : t->BestFocusSets) {
            L.push_back(b->KeyName);
            const float v[] = {b->Dose, b->NA, b->PCinner, b->PCouter};
            for (float x : v) L.push_back(TemplateNumberText(x));
            L.push_back("Rows: " + std::to_string(b->CalRows.Count()));
            L.push_back("Columns: " + std::to_string(b->CalColumns.Count()));
            for (const cCalRow* r : b->CalRows) PutLine(L, *r);
            for (const cCalColumn* c : b->CalColumns) PutLine(L, *c);
        }
    }
    return L;
}

std::string cTemplateLibrary::Folder() const { return TemplateFolder(folder_); }
std::string cTemplateLibrary::FilePath() const { return (fs::path(Folder()) / kTemplateFileName).string(); }
std::string cTemplateLibrary::BackupPath() const { return (fs::path(Folder()) / kTemplateBackupName).string(); }

void cTemplateLibrary::refreshSettings() {
    // "NumTemplates" is read but written by nothing, so values of templates
    // gone since stay behind; nothing else reads this section.
    const std::string app = ApplicationTitle();
    double n = 0;
    ParseNumber(Trim(GetSetting(app, "Templates", "NumTemplates", "0")), n);
    for (long i = 1; i <= std::lround(n); ++i) DeleteSetting(app, "Templates", std::to_string(i));
    std::vector<std::pair<std::string, std::string>> values;
    for (size_t i = 0; i < templates_.size(); ++i) {
        const auto& t = templates_[i];
        values.emplace_back(std::to_string(i + 1),
                            t->NameTemplate + ":" + TemplateDateText(t->DateModified) + ":" + t->Comment);
    }
    if (!values.empty()) SaveSettings(app, "Templates", values);
}

Status cTemplateLibrary::FileSave() {
    Proc p("cTemplateLibrary(FileSave): ");
    p.chk = 1;
    std::error_code ec;
    const fs::path dir = Folder();
    if (!fs::is_directory(dir, ec)) fs::create_directories(dir, ec);
    if (ec) return p.fail("Path not found: " + dir.string() + " (" + ec.message() + ")");
    p.chk = 2;
    const fs::path file = FilePath(), backup = BackupPath();
    if (fs::exists(file, ec)) {
        fs::copy_file(file, backup, fs::copy_options::overwrite_existing, ec);
        if (!ec) fs::remove(file, ec);
        if (ec) return p.fail("Permission denied: " + file.string() + " (" + ec.message() + ")");
    }
    p.chk = 3;
    const std::string bytes = EncodeTemplateFile(FileLines());
    {
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        if (out) out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (!out) {
            Failure f = p.fail("Path/File access error: " + file.string());
            f.file = file.string();
            return f;
        }
    }
    p.chk = 5;
    refreshSettings();
    return StatusOk();
}

Status cTemplateLibrary::FileGet() {
    Proc p("cTemplateLibrary(FileGet): ");
    p.chk = 1;
    std::error_code ec;
    const fs::path file = FilePath();
    if (!fs::is_directory(Folder(), ec) || !fs::is_regular_file(file, ec)) return StatusOk();
    std::string bytes;
    {
        std::ifstream in(file, std::ios::binary);
        if (!in) {
            Failure f = p.fail("Path/File access error: " + file.string());
            f.file = file.string();
            return f;
        }
        std::ostringstream ss;
        ss << in.rdbuf();
        bytes = ss.str();
    }
    const std::vector<std::string> lines = DecodeTemplateFile(bytes);
    LineReader in(lines, p, file.string());
    p.chk = 2;
    std::string first;
    double version = 1;
    long total = 0;
    if (!in.next(first)) return in.failure();
    if (IContains(first, "VERSION")) {
        const size_t c = first.find(':');
        if (!in.number(c == std::string::npos ? first : first.substr(c + 1), version)) return in.failure();
    } else {
        in.back();  // a version 1 file starts with the total
    }
    if (!in.count(total)) return in.failure();
    // Versions above 3 read as 3, below 2 as 1.
    const int v = version >= 3 ? 3 : version >= 2 ? 2 : 1;
    Clear();
    p.chk = 3;
    for (long i = 0; i < total; ++i) {
        std::shared_ptr<cTemplate> t = ReadTemplate(in, v);
        if (!t) {
            refreshSettings();
            return in.failure();
        }
        t->Version = static_cast<float>(version);
        const std::string name = t->NameTemplate;
        AddTemplate(std::move(t), name);
    }
    p.chk = 4;
    refreshSettings();
    return StatusOk();
}

// ---- the folder ----

std::string TemplateFolder(const std::string& overridePath) {
    if (!overridePath.empty()) return overridePath;
    if (!ProgramFolder().empty()) {
        const fs::path beside = fs::path(ProgramFolder()) / "Templates";
        if (Writable(beside)) return beside.string();
    }
    fs::path data;
    if (const char* x = std::getenv("XDG_DATA_HOME"); x && *x) data = x;
    else if (const char* h = std::getenv("HOME"); h && *h) data = fs::path(h) / ".local" / "share";
    else data = fs::temp_directory_path();
    return (data / "zorv" / "Templates").string();
}

// ---- the sample ----

std::vector<std::string> SampleTemplateLines(double today) {
    std::vector<std::string> L = {"Version: 3", "TemplatesTotal: 1", "PSFMsample", "CommentLines: 1", "",
                                  "PSFMsample", "7/1/2007", FormatDate(std::floor(today), "Short Date"), "", "0",
                                  "SitesTotal: 1", "BestFocusSets: 0",
                                  // site 39 at dose 19, NA 0.75, conventional illumination, at (5, 0)
                                  "19", "0.75", "0", "0", "5", "0", "39_19_0.75_0_0", "2.809E-02", "2.57E-03",
                                  "6.0E-02", "2.47E-03", "-6.91", "7.42E-03", "7.35", "7.14E-03"};
    for (int i = 0; i < 12; ++i) L.push_back("0");
    return L;
}

Status CreateTemplateBase(const std::string& folder) {
    Proc p("frmAnalysis(CreateTemplateBase): ");
    p.chk = 1;
    std::error_code ec;
    if (!fs::is_directory(folder, ec)) fs::create_directories(folder, ec);
    const fs::path file = fs::path(folder) / kTemplateFileName;
    fs::remove(file, ec);
    const std::string bytes = EncodeTemplateFile(SampleTemplateLines(TemplateNow()));
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    if (out) out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        Failure f = p.fail("Path/File access error: " + file.string());
        f.file = file.string();
        return f;
    }
    return StatusOk();
}

}  // namespace zorv
