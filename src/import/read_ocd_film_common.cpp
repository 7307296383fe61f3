// Text helpers of the scatterometry and film readers: these tools write a
// few "key: value" lines and one or more tables, cut by commas, tabs or
// blanks as the tool's version chose.
#include <cmath>
#include <string>

#include "base/report.h"
#include "base/text.h"
#include "lot/features.h"
#include "readers_ocd_film.h"

namespace zorv::ocd_film {

namespace {

bool IsSpace(char c) { return c == ' ' || c == '\t'; }

std::string_view TrimView(std::string_view s) {
    while (!s.empty() && (IsSpace(s.front()) || s.front() == '"')) s.remove_prefix(1);
    while (!s.empty() && (IsSpace(s.back()) || s.back() == '"')) s.remove_suffix(1);
    return s;
}

}  // namespace

bool IsBlank(std::string_view line) {
    for (char c : line)
        if (!IsSpace(c) && c != ',' && c != ';') return false;
    return true;
}

bool IsOneOf(const std::string& key, std::initializer_list<const char*> spellings) {
    for (const char* s : spellings)
        if (key == s) return true;
    return false;
}

char DelimiterOf(std::string_view line) {
    if (line.find('\t') != std::string_view::npos) return '\t';
    if (line.find(',') != std::string_view::npos) return ',';
    if (line.find(';') != std::string_view::npos) return ';';
    return ' ';
}

void SplitFields(std::string_view line, char delimiter, std::vector<std::string>& out) {
    out.clear();
    if (delimiter == ' ') {
        size_t i = 0;
        while (i < line.size()) {
            while (i < line.size() && IsSpace(line[i])) ++i;
            if (i >= line.size()) break;
            size_t j = i;
            while (j < line.size() && !IsSpace(line[j])) ++j;
            out.emplace_back(TrimView(line.substr(i, j - i)));
            i = j;
        }
        return;
    }
    size_t start = 0;
    for (;;) {
        size_t at = line.find(delimiter, start);
        out.emplace_back(TrimView(line.substr(start, at == std::string_view::npos ? std::string_view::npos : at - start)));
        if (at == std::string_view::npos) break;
        start = at + 1;
    }
}

std::string Key(std::string_view text) {
    std::string k;
    k.reserve(text.size());
    bool blank = false;
    for (char c : TrimView(text)) {
        if (IsSpace(c)) {
            blank = true;
            continue;
        }
        if (blank && !k.empty()) k += ' ';
        blank = false;
        k += UpChar(c);
    }
    return k;
}

bool SplitKeyValue(std::string_view line, std::string& key, std::string& value) {
    size_t at = line.find_first_of(":=,\t");
    if (at == std::string_view::npos || at == 0) return false;
    key = Key(line.substr(0, at));
    std::string_view rest = line.substr(at + 1);
    // "Key:,value" and "Key: = value" as some versions write them.
    rest = TrimView(rest);
    while (!rest.empty() && (rest.front() == ',' || rest.front() == '=' || rest.front() == ':' || rest.front() == '\t'))
        rest = TrimView(rest.substr(1));
    // A trailing run of empty cells of a spreadsheet export.
    while (!rest.empty() && (rest.back() == ',' || rest.back() == ';')) rest = TrimView(rest.substr(0, rest.size() - 1));
    value.assign(rest);
    return !key.empty();
}

std::string UnitOfHeader(std::string_view header) {
    for (auto [open, close] : {std::pair<const char*, const char*>{"(", ")"}, {"[", "]"}}) {
        size_t a = header.find(open);
        if (a == std::string_view::npos || header.find(close, a) == std::string_view::npos) continue;
        return Trim(ExtractUnitsOfMeasure(header, open, close));
    }
    return {};
}

std::string NameOfHeader(std::string_view header) {
    size_t cut = header.find_first_of("([");
    std::string name = Trim(header.substr(0, cut));
    for (char& c : name)
        if (IsSpace(c)) c = '_';
    return name;
}

double PositionMm(double value) { return std::fabs(value) > 500 ? value / 1000 : value; }

Value WaferCell(const std::string& wafer) {
    double num;
    if (ParseFileNumber(wafer, num) && num == std::floor(num) && std::fabs(num) < 2e9)
        return Value(static_cast<int32_t>(num));
    return Value(wafer);
}

bool FlagSet(std::string_view cell) {
    std::string u = Key(cell);
    if (u.empty()) return false;
    double v;
    if (ParseFileNumber(u, v)) return v != 0;
    return u == "Y" || u == "YES" || u == "TRUE" || u == "FAIL" || u == "ALARM";
}

bool RowProgress(long rows) {
    if (rows <= 0 || rows % 100 != 0) return false;
    SetStatusText("Data Import Row " + std::to_string(rows));
    return CheckEscKey();
}

Failure BinaryFailure(Proc& p, const std::string& path, long line) {
    return FileFailure(p, path, line, "File type incorrect: " + path + "\r\nWrong data format.");
}

Failure EarlyEndFailure(Proc& p, const std::string& path, long line, const std::string& lastLine) {
    return FileFailure(p, path, line,
                       "End of file encountered early.\r\nLast Line: '" + lastLine +
                           "'\r\nPlease check the import type or data file.");
}

// ---------------------------------------------------------------- PointRows

int PointRows::feature(const std::string& name, const std::string& unit) {
    auto [it, fresh] = features_.emplace(Upper(name), static_cast<int>(features_.size()));
    if (fresh) {
        t_.setFeature(it->second, name);
        if (!unit.empty()) t_.setUnit(it->second, unit);
    }
    return it->second;
}

long PointRows::row(const std::string& wafer, long site, long dieX, long dieY) {
    key_ = wafer;
    key_ += '|';
    key_ += std::to_string(site);
    key_ += '|';
    key_ += std::to_string(dieX);
    key_ += '|';
    key_ += std::to_string(dieY);
    auto it = rows_.find(key_);
    if (it != rows_.end()) return it->second;
    const long r = t_.addRow();
    t_.cell(r, 1) = WaferCell(wafer);
    t_.cell(r, 2) = static_cast<int32_t>(site);
    t_.cell(r, 3) = static_cast<int32_t>(dieX);
    t_.cell(r, 4) = static_cast<int32_t>(dieY);
    rows_.emplace(key_, r);
    lastKey_ = key_;
    return r;
}

void PointRows::excludeLast(long sourceLine) {
    rows_.erase(lastKey_);
    t_.excludeLastRow(sourceLine);
}

void PointRows::site(long site, double xMm, double yMm, const std::string& family) {
    if (!t_.hasSite(site)) t_.addSite(site, 0, 0, xMm, yMm, family);
}

}  // namespace zorv::ocd_film
