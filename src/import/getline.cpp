// The text stream and the line tokeniser of the text readers.
#include "import/getline.h"

#include <algorithm>
#include <cstring>

namespace zorv {

namespace {
constexpr size_t kBlock = 1 << 20;

bool IsBlank(char c) { return c == ' '; }
}  // namespace

TextStream::~TextStream() { close(); }

Status TextStream::open(const std::string& path) {
    Proc p("Import(TextStream): ");
    close();
    path_ = path;
    f_ = std::fopen(path.c_str(), "rb");
    if (!f_) {
        Failure f = p.fail("Cannot open file: " + path);
        f.file = path;
        return f;
    }
    std::setvbuf(f_, nullptr, _IONBF, 0);
    if (std::fseek(f_, 0, SEEK_END) == 0) {
        size_ = std::ftell(f_);
        std::fseek(f_, 0, SEEK_SET);
    }
    // A small file needs no block of full size; the buffer grows for a
    // line that does not fit.
    buf_.resize(size_ > 0 ? static_cast<size_t>(std::clamp<long long>(size_ + 1, 4096, kBlock)) : kBlock);
    pos_ = end_ = 0;
    lfAt_ = kNone;
    lfUntil_ = 0;
    eof_ = loneCR_ = nul_ = false;
    line_ = 0;
    consumed_ = 0;
    return StatusOk();
}

void TextStream::close() {
    if (f_) std::fclose(f_);
    f_ = nullptr;
}

// Moves what is left to the front and reads behind it; grows the buffer
// when one line fills it. False when nothing more came.
bool TextStream::fill() {
    if (eof_ || !f_) return false;
    if (pos_ > 0) {
        std::memmove(buf_.data(), buf_.data() + pos_, end_ - pos_);
        end_ -= pos_;
        if (lfAt_ != kNone) lfAt_ -= pos_;
        lfUntil_ = lfUntil_ > pos_ ? lfUntil_ - pos_ : 0;
        pos_ = 0;
    }
    if (end_ == buf_.size()) buf_.resize(buf_.size() * 2);
    size_t n = std::fread(buf_.data() + end_, 1, buf_.size() - end_, f_);
    if (n == 0) {
        eof_ = true;
        return false;
    }
    if (std::memchr(buf_.data() + end_, '\0', n)) nul_ = true;
    end_ += n;
    return true;
}

bool TextStream::atEnd() {
    if (pos_ < end_) return false;
    return !fill();
}

bool TextStream::readLine(std::string_view& line) {
    if (!f_) return false;
    size_t from = pos_;  // where the search for the line's end goes on
    for (;;) {
        const char* b = buf_.data();
        // The next LF is remembered, so that a file of CR-only lines is not
        // searched to the end of the block for every line.
        if (lfAt_ < from || lfAt_ == kNone) {
            if (lfUntil_ < from) lfUntil_ = from;
            const void* lf = std::memchr(b + lfUntil_, '\n', end_ - lfUntil_);
            lfAt_ = lf ? static_cast<size_t>(static_cast<const char*>(lf) - b) : kNone;
            lfUntil_ = lf ? lfAt_ : end_;
        }
        const size_t stop = lfAt_ == kNone ? end_ : lfAt_;
        const void* crp = std::memchr(b + from, '\r', stop - from);
        size_t eol = crp ? static_cast<size_t>(static_cast<const char*>(crp) - b) : stop;
        if (eol < end_) {
            size_t next = eol + 1;
            if (b[eol] == '\r') {
                if (eol + 1 == end_ && !eof_) {
                    // Its LF may come with the next block.
                    from = eol - pos_;
                    if (fill()) {
                        from = pos_ + from;
                        continue;
                    }
                    b = buf_.data();
                    eol = pos_ + from;
                    next = eol + 1;
                } else if (eol + 1 < end_ && b[eol + 1] == '\n') {
                    next = eol + 2;
                } else {
                    loneCR_ = true;
                }
            }
            line = std::string_view(b + pos_, eol - pos_);
            consumed_ += static_cast<long long>(next - pos_);
            pos_ = next;
            ++line_;
            return true;
        }
        from = end_ - pos_;
        if (!fill()) {
            if (pos_ >= end_) return false;
            line = std::string_view(buf_.data() + pos_, end_ - pos_);
            consumed_ += static_cast<long long>(end_ - pos_);
            pos_ = end_;
            ++line_;
            return true;
        }
        from = pos_ + from;
    }
}

// ------------------------------------------------------------ the tokeniser

namespace {

// Step 2: the delimiter of the line. Another one is tried when the given one
// is not in the line; a space that comes before it wins.
std::string_view ChooseDelimiter(std::string_view line, std::string_view delimiter) {
    static constexpr std::string_view kBlank = " ";
    if (delimiter.empty()) delimiter = kBlank;
    if (line.find(delimiter) != std::string_view::npos) return delimiter;
    static constexpr std::string_view kOrder[] = {",", "\t", "|", " "};
    for (int round = 0; round < 5; ++round) {
        std::string_view cand = kOrder[round % 4];
        size_t at = line.find(cand);
        if (at == std::string_view::npos) continue;
        size_t sp = line.find(' ');
        if (sp != std::string_view::npos && sp < at) return kBlank;
        return cand;
    }
    return delimiter;
}

// Step 8's split: tabs, "*", quotes gone, CR and LF as blanks; runs of
// blanks are one separator.
void SplitWords(std::string_view s, std::vector<std::string>& words) {
    std::string w;
    for (char c : s) {
        if (c == '"') continue;
        if (c == ' ' || c == '\t' || c == '*' || c == '\r' || c == '\n') {
            if (!w.empty()) words.push_back(std::move(w));
            w.clear();
        } else {
            w += c;
        }
    }
    if (!w.empty()) words.push_back(std::move(w));
}

}  // namespace

void TokeniseLine(std::string& line, std::string& delimiter, std::vector<std::string>& words) {
    words.clear();
    delimiter = std::string(ChooseDelimiter(line, delimiter));
    std::string out;
    out.reserve(line.size() + 8);
    if (delimiter == " " || line.find(delimiter) == std::string::npos) {
        // Steps 3 to 7 with a blank as the delimiter: the blanks are the marks,
        // and runs of them are one. Without a delimiter in the line the same
        // trimming leaves one word per blank-separated run.
        out.assign(line);
    } else {
        // Steps 3 to 6: each field trimmed, its inner blanks collapsed and
        // joined by "_", an empty field kept as "_".
        size_t i = 0;
        bool first = true;
        while (true) {
            size_t j = line.find(delimiter, i);
            std::string_view f = std::string_view(line).substr(i, j == std::string::npos ? std::string::npos : j - i);
            size_t a = 0, b = f.size();
            while (a < b && IsBlank(f[a])) ++a;
            while (b > a && IsBlank(f[b - 1])) --b;
            if (!first) out += ' ';
            first = false;
            if (a == b) {
                out += '_';
            } else {
                bool blank = false;
                for (size_t k = a; k < b; ++k) {
                    char c = f[k];
                    if (IsBlank(c)) {
                        blank = true;
                        continue;
                    }
                    // ", " inside a field loses its blank.
                    if (blank) out += out.back() == ',' ? '\0' : '_';
                    if (!out.empty() && out.back() == '\0') out.pop_back();
                    blank = false;
                    out += c;
                }
            }
            if (j == std::string::npos) break;
            i = j + delimiter.size();
        }
    }
    // Step 8.
    std::string norm;
    norm.reserve(out.size());
    for (char c : out) {
        if (c == '"') continue;
        norm += (c == '\t' || c == '*' || c == '\r' || c == '\n') ? ' ' : c;
    }
    SplitWords(norm, words);
    line = std::move(norm);
}

bool GetLine(TextStream& stream, std::string& line, std::string& delimiter, std::vector<std::string>& words) {
    std::string_view v;
    if (!stream.readLine(v)) {
        words.clear();
        return false;
    }
    line.assign(v);
    TokeniseLine(line, delimiter, words);
    return true;
}

void CutFixed(std::string_view line, const std::vector<int>& starts, std::vector<std::string_view>& fields) {
    fields.clear();
    const size_t n = starts.size();
    for (size_t i = 0; i < n; ++i) {
        size_t a = static_cast<size_t>(std::max(0, starts[i]));
        size_t b = i + 1 < n ? static_cast<size_t>(std::max(0, starts[i + 1])) : line.size();
        if (a > line.size()) a = line.size();
        if (b > line.size() || b < a) b = line.size();
        std::string_view f = line.substr(a, b - a);
        while (!f.empty() && (f.front() == ' ' || f.front() == '\t')) f.remove_prefix(1);
        while (!f.empty() && (f.back() == ' ' || f.back() == '\t')) f.remove_suffix(1);
        fields.push_back(f);
    }
}

bool GetLineFixed(TextStream& stream, std::string& line, const std::vector<int>& starts,
                  std::vector<std::string>& words) {
    std::string_view v;
    words.clear();
    if (!stream.readLine(v)) return false;
    line.assign(v);
    std::vector<std::string_view> fields;
    CutFixed(line, starts, fields);
    for (std::string_view f : fields) {
        std::string w;
        for (char c : f) {
            if (c == '"') continue;
            w += (c == ' ' || c == '\t') ? '_' : c;
        }
        words.push_back(w.empty() ? std::string("_") : std::move(w));
    }
    return true;
}

}  // namespace zorv
