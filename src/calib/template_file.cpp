// The library file ZORVpsfm.tpl: UTF-16 text, one value a line, CR LF ends.
// Its folder, the "Templates" settings section and the built-in sample.
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
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
        if (c > 0x10FFFF) ok = false;  // no UTF-16 for it
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

// One line as UTF-16 LE with its CR LF.
void AppendUtf16Line(std::string& out, std::string_view line) {
    bool ascii = true;
    for (char c : line) ascii &= static_cast<unsigned char>(c) < 0x80;
    if (ascii) {
        // The common case, a number or a name: one unit a byte.
        const size_t at = out.size();
        out.resize(at + 2 * line.size());
        char* p = out.data() + at;
        for (char c : line) {
            *p++ = c;
            *p++ = '\0';
        }
    } else {
        for (char32_t c : FromUtf8(line)) AppendUtf16(out, c);
    }
    out.append("\r\0\n\0", 4);
}

}  // namespace

std::string EncodeTemplateFile(const std::vector<std::string>& lines) {
    size_t size = 2;
    for (const std::string& line : lines) size += 2 * line.size() + 4;  // UTF-16 needs no more
    std::string out;
    out.reserve(size);
    out = "\xFF\xFE";
    for (const std::string& line : lines) AppendUtf16Line(out, line);
    return out;
}

namespace {

// The lines of a library file's bytes, one at a time: UTF-16 of either byte
// order (with a mark, or LE without one) or 8-bit text read as UTF-8 (a byte
// that is not UTF-8 stands for itself). A line ends at CR LF, LF or CR; text
// after the last end is a line when it is not empty.
class LineDecoder {
public:
    explicit LineDecoder(const std::string& bytes) : b_(bytes) {
        if (size() >= 2 && at(0) == 0xFF && at(1) == 0xFE) {
            wide_ = true;
            pos_ = 2;
        } else if (size() >= 2 && at(0) == 0xFE && at(1) == 0xFF) {
            wide_ = true;
            le_ = false;
            pos_ = 2;
        } else if (size() >= 2 && at(1) == 0 && at(0) != 0) {
            wide_ = true;  // UTF-16 LE without a mark
        } else if (size() >= 3 && at(0) == 0xEF && at(1) == 0xBB && at(2) == 0xBF) {
            pos_ = 3;
        }
    }

    bool next(std::string& out) {
        out.clear();
        prev_ = pos_;
        while (pos_ < end()) {
            const char32_t c = wide_ ? unit() : byte();
            if (c == U'\r' || c == U'\n') {
                if (c == U'\r' && pos_ < end()) {
                    const size_t keep = pos_;
                    if ((wide_ ? unit() : byte()) != U'\n') pos_ = keep;
                }
                return true;
            }
            if (c < 0x80) out += static_cast<char>(c);
            else AppendUtf8(out, c);
        }
        return !out.empty();
    }
    // Steps back over the line just read.
    void back() { pos_ = prev_; }

private:
    size_t size() const { return b_.size(); }
    unsigned at(size_t i) const { return static_cast<unsigned char>(b_[i]); }
    // A trailing odd byte of UTF-16 is no character.
    size_t end() const { return wide_ ? size() - (size() - pos_) % 2 : size(); }
    char32_t unit16(size_t i) const { return le_ ? (at(i) | (at(i + 1) << 8)) : ((at(i) << 8) | at(i + 1)); }
    char32_t unit() {
        char32_t u = unit16(pos_);
        pos_ += 2;
        if (u >= 0xD800 && u < 0xDC00 && pos_ + 1 < size()) {
            const char32_t lo = unit16(pos_);
            if (lo >= 0xDC00 && lo < 0xE000) {
                u = 0x10000 + ((u - 0xD800) << 10) + (lo - 0xDC00);
                pos_ += 2;
            }
        }
        return u;
    }
    char32_t byte() {
        const unsigned b = at(pos_);
        if (b < 0x80) {
            ++pos_;
            return b;
        }
        const int len = (b >> 5) == 6 ? 2 : (b >> 4) == 14 ? 3 : (b >> 3) == 30 ? 4 : 0;
        bool ok = len > 0 && pos_ + len <= size();
        char32_t c = len == 2 ? (b & 0x1F) : len == 3 ? (b & 0x0F) : (b & 0x07);
        for (int k = 1; ok && k < len; ++k) {
            const unsigned cb = at(pos_ + k);
            if ((cb & 0xC0) != 0x80) ok = false;
            c = (c << 6) | (cb & 0x3F);
        }
        if (ok && c > 0x10FFFF) ok = false;  // no UTF-16 for it
        if (!ok) {
            ++pos_;
            return b;
        }
        pos_ += len;
        return c;
    }

    const std::string& b_;
    bool wide_ = false, le_ = true;
    size_t pos_ = 0, prev_ = 0;
};

}  // namespace

std::vector<std::string> DecodeTemplateFile(const std::string& bytes) {
    LineDecoder in(bytes);
    std::vector<std::string> lines;
    for (std::string line; in.next(line);) lines.push_back(line);
    return lines;
}

// ---- numbers and dates ----

std::string TemplateNumberText(float v) {
    if (!std::isfinite(v)) return CStrNumber(static_cast<double>(v), 7);
    // The shortest text that reads back as this single has this many digits;
    // the search starts there.
    char buf[32];
    const auto r = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::scientific);
    int shortest = 0;
    for (const char* c = buf; c < r.ptr && *c != 'e'; ++c) shortest += *c >= '0' && *c <= '9';
    for (int digits = std::max(1, shortest); digits <= 9; ++digits) {
        const std::string t = CStrNumber(static_cast<double>(v), digits);
        double back = 0;
        if (ParseMachineNumber(t, back) && static_cast<float>(back) == v) return t;
    }
    return CStrNumber(static_cast<double>(v), 9);
}

std::string TemplateDateText(double serial) {
    std::string t = FormatDate(serial, "General Date");
    // The reader must take what the writer writes: a date the short form does
    // not carry back (a year before 1000 has three digits) goes as its serial.
    double back = 0;
    if (!ParseDateText(t, back) || std::abs(back - serial) > 1.0 / 86400) t = CStrNumber(serial, 15);
    return t;
}

// ---- the record lines ----

namespace {

// Where the lines of the library go: a list, or straight into the file.
class LineSink {
public:
    virtual ~LineSink() = default;
    virtual void line(std::string_view text) = 0;
};

class ListSink : public LineSink {
public:
    void line(std::string_view text) override { lines.emplace_back(text); }
    std::vector<std::string> lines;
};

// UTF-16 into the stream a megabyte at a time, so that a large library needs
// neither its lines nor its bytes whole in memory.
class FileSink : public LineSink {
public:
    explicit FileSink(std::ofstream& out) : out_(out) {
        buf_.reserve(kChunk + 4096);
        buf_ = "\xFF\xFE";
    }
    void line(std::string_view text) override {
        AppendUtf16Line(buf_, text);
        if (buf_.size() >= kChunk) flush();
    }
    void flush() {
        if (out_) out_.write(buf_.data(), static_cast<std::streamsize>(buf_.size()));
        buf_.clear();
    }

private:
    static constexpr size_t kChunk = 1 << 20;
    std::ofstream& out_;
    std::string buf_;
};

void PutSite(LineSink& L, const cSiteCal& s) {
    const float v[] = {s.Dose, s.NA, s.PCinner, s.PCouter, s.LocationX, s.LocationY};
    for (float x : v) L.line(TemplateNumberText(x));
    L.line(s.NumberKey);
    const float w[] = {s.OffsetX, s.OffsetXse, s.OffsetY, s.OffsetYse, s.SlopeX, s.SlopeXse, s.SlopeY, s.SlopeYse,
                       s.X2nd,    s.X2ndSE,    s.Y2nd,    s.Y2ndSE,    s.X3rd,   s.X3rdSE,   s.Y3rd,   s.Y3rdSE,
                       s.X4th,    s.X4thSE,    s.Y4th,    s.Y4thSE};
    for (float x : w) L.line(TemplateNumberText(x));
}

void PutLine(LineSink& L, const cCalLine& c) {
    L.line(c.KeyName);
    const float v[] = {c.Location, c.Piston, c.PistonSE, c.Tilt, c.TiltSE, c.Curvature, c.CurvatureSE,
                       c.IFDresidulaseSE};
    for (float x : v) L.line(TemplateNumberText(x));
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

// From here on a number rounds beyond the largest single: an overflow, as
// CSng has it, rather than a value.
constexpr double kSingleOverflow = 3.4028235677973366e38;

// Reads the lines in order; a line that is missing or does not parse ends
// the read with the failure of that line.
class LineReader {
public:
    LineReader(const std::string& bytes, Proc& p, std::string file)
        : lines_(bytes), p_(p), file_(std::move(file)), pointDecimal_(MachineDecimal() == '.') {}

    bool next(std::string& out) {
        if (!lines_.next(out)) {
            fail("Input past end of file");
            return false;
        }
        ++pos_;
        return true;
    }
    void back() {
        lines_.back();
        --pos_;
    }
    bool number(const std::string& text, double& out) {
        if (plain(text, out) || ParseMachineNumber(Trim(text), out) || ParseNumber(Trim(text), out)) return true;
        fail("Type mismatch");
        return false;
    }
    bool single(float& out) {
        std::string t;
        double d = 0;
        if (!next(t) || !number(t, d)) return false;
        if (std::abs(d) >= kSingleOverflow) {
            fail("Overflow");
            return false;
        }
        out = static_cast<float>(std::clamp(d, -double(std::numeric_limits<float>::max()),
                                            double(std::numeric_limits<float>::max())));
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
        if (!(d >= 0 && d <= 1e8)) {
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
    // The failure, its text ending with the file and the line reached.
    Failure failure() {
        Failure f = p_.failure();
        f.file = file_;
        f.row = static_cast<long>(pos_);
        f.text += "\r\nFile: ";
        f.text += file_;
        if (pos_ > 0) {
            f.text += ", line ";
            f.text += std::to_string(pos_);
        }
        return f;
    }

private:
    // What the writer writes, "-6.91" or "2.809E-02", read without the
    // copies of the general parse; anything else takes that parse.
    bool plain(const std::string& t, double& out) const {
        if (!pointDecimal_ || t.empty()) return false;
        const size_t d = t[0] == '-' ? 1 : 0;
        if (d >= t.size() || !((t[d] >= '0' && t[d] <= '9') || t[d] == '.')) return false;
        double v = 0;
        const auto r = std::from_chars(t.data(), t.data() + t.size(), v);
        if (r.ec != std::errc() || r.ptr != t.data() + t.size() || !std::isfinite(v)) return false;
        out = v;
        return true;
    }

    LineDecoder lines_;
    Proc& p_;
    std::string file_;
    size_t pos_ = 0;
    bool failure_ = false;
    bool pointDecimal_;
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
        !in.next(t->ReticleName) || !in.next(line) || !in.number(line, type))
        return nullptr;
    if (std::abs(type) > 2147483647.0) {
        in.fail("Overflow");
        return nullptr;
    }
    if (!in.count(nSites) || !in.count(nSets)) return nullptr;
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

namespace {

void WriteLibrary(const std::vector<std::shared_ptr<cTemplate>>& templates, LineSink& L) {
    L.line("Version: 3");
    L.line("TemplatesTotal: " + std::to_string(templates.size()));
    for (const auto& t : templates) {
        L.line(t->NameTemplate);
        const std::vector<std::string> comment = CommentLines(t->Comment);
        L.line("CommentLines: " + std::to_string(comment.size()));
        for (const std::string& c : comment) L.line(c);
        L.line(t->DataSetName);
        L.line(TemplateDateText(t->DateCreated));
        L.line(TemplateDateText(t->DateModified));
        L.line(t->ReticleName);
        L.line(std::to_string(t->TemplateType));
        L.line("SitesTotal: " + std::to_string(t->sites.Count()));
        L.line("BestFocusSets: " + std::to_string(t->BestFocusSets.Count()));
        for (const cSiteCal* s : t->sites) PutSite(L, *s);
        for (const cBestFocus* b : t->BestFocusSets) {
            L.line(b->KeyName);
            const float v[] = {b->Dose, b->NA, b->PCinner, b->PCouter};
            for (float x : v) L.line(TemplateNumberText(x));
            L.line("Rows: " + std::to_string(b->CalRows.Count()));
            L.line("Columns: " + std::to_string(b->CalColumns.Count()));
            for (const cCalRow* r : b->CalRows) PutLine(L, *r);
            for (const cCalColumn* c : b->CalColumns) PutLine(L, *c);
        }
    }
}

}  // namespace

std::vector<std::string> cTemplateLibrary::FileLines() const {
    ListSink L;
    WriteLibrary(templates_, L);
    return std::move(L.lines);
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
    {
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        if (out) {
            FileSink sink(out);
            WriteLibrary(templates_, sink);
            sink.flush();
        }
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
        in.seekg(0, std::ios::end);
        bytes.resize(static_cast<size_t>(std::max<std::streamoff>(0, in.tellg())));
        in.seekg(0);
        in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        bytes.resize(static_cast<size_t>(std::max<std::streamsize>(0, in.gcount())));
    }
    const Status st = ReadLibraryBytes(bytes, file.string());
    // A file whose head did not read left the library untouched.
    if (st.ok() || st.failure().chk >= 3) refreshSettings();
    return st;
}

Status cTemplateLibrary::ReadLibraryBytes(const std::string& bytes, const std::string& source) {
    Proc p("cTemplateLibrary(FileGet): ");
    p.chk = 2;
    LineReader in(bytes, p, source);
    std::string first;
    double version = 1;
    long total = 0;
    if (!in.next(first)) return in.failure();
    if (IContains(first, "VERSION")) {
        const size_t c = first.find(':');
        if (!in.number(c == std::string::npos ? first : first.substr(c + 1), version)) return in.failure();
        if (std::abs(version) >= kSingleOverflow) {
            in.fail("Overflow");
            return in.failure();
        }
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
        if (!t) return in.failure();
        t->Version = static_cast<float>(version);
        const std::string name = t->NameTemplate;
        AddTemplate(std::move(t), name);
    }
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
