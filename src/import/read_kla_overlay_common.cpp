// The pieces the overlay readers share.
#include "read_kla_overlay_common.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <filesystem>

#include "base/report.h"
#include "base/text.h"
#include "lot/features.h"

namespace zorv::overlay {

namespace {
bool Blank(char c) { return c == ' ' || c == '\t'; }

std::string_view TrimView(std::string_view s) {
    while (!s.empty() && (Blank(s.front()) || s.front() == '\r' || s.front() == '\n')) s.remove_prefix(1);
    while (!s.empty() && (Blank(s.back()) || s.back() == '\r' || s.back() == '\n')) s.remove_suffix(1);
    return s;
}

std::string_view Unquote(std::string_view s) {
    s = TrimView(s);
    if (s.size() >= 2 && s.front() == '"' && s.back() == '"') s = TrimView(s.substr(1, s.size() - 2));
    return s;
}
}  // namespace

char DelimiterOf(std::string_view line) {
    if (line.find('\t') != std::string_view::npos) return '\t';
    if (line.find(',') != std::string_view::npos) return ',';
    if (line.find(';') != std::string_view::npos) return ';';
    return ' ';
}

void SplitFields(std::string_view line, char delim, std::vector<std::string_view>& out) {
    out.clear();
    if (delim == ' ') {
        size_t i = 0;
        while (i < line.size()) {
            while (i < line.size() && Blank(line[i])) ++i;
            if (i >= line.size()) break;
            size_t j = i;
            while (j < line.size() && !Blank(line[j])) ++j;
            out.push_back(Unquote(line.substr(i, j - i)));
            i = j;
        }
        return;
    }
    size_t start = 0;
    for (size_t i = 0; i <= line.size(); ++i)
        if (i == line.size() || line[i] == delim) {
            out.push_back(Unquote(line.substr(start, i - start)));
            start = i + 1;
        }
}

std::string UnitWord(std::string_view text) {
    std::string u = Upper(TrimView(text));
    if (u == "NM" || u == "NANOMETERS" || u == "NANOMETER" || u == "NANOM") return "nm";
    if (u == "UM" || u == "MICRONS" || u == "MICRON" || u == "\xC2\xB5M" || u == "\xB5M" || u == "MIC")
        return "um";
    if (u == "MM" || u == "MILLIMETERS" || u == "MILLIMETER") return "mm";
    return {};
}

std::string HeadingKey(std::string_view heading, std::string* unit) {
    heading = Unquote(heading);
    const size_t open = heading.rfind('(');
    if (!heading.empty() && heading.back() == ')' && open != std::string_view::npos) {
        const std::string word = UnitWord(ExtractUnitsOfMeasure(heading.substr(open)));
        if (!word.empty()) {
            if (unit) *unit = word;
            heading = heading.substr(0, open);
        }
    }
    std::string key;
    key.reserve(heading.size());
    for (char c : heading)
        if (c != ' ' && c != '_' && c != '-' && c != '.' && c != '\t') key += UpChar(c);
    return key;
}

int FindKey(const std::vector<std::string>& keys, std::initializer_list<const char*> spellings) {
    for (const char* s : spellings)
        for (size_t i = 0; i < keys.size(); ++i)
            if (keys[i] == s) return static_cast<int>(i);
    return -1;
}

bool NameValue(std::string_view line, std::string& key, std::string& value) {
    line = TrimView(line);
    size_t at = line.find_first_of(":=\t");
    if (at == std::string_view::npos || at == 0) return false;
    key = HeadingKey(line.substr(0, at));
    value = std::string(Unquote(line.substr(at + 1)));
    return !key.empty();
}

bool LeadingNumber(std::string_view text, double& out, std::string_view* rest) {
    text = TrimView(text);
    if (!text.empty() && text.front() == '+') text.remove_prefix(1);
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    if (ec != std::errc() || !std::isfinite(out)) {
        // A decimal comma, as some machines write it, in a field of its own.
        if (rest) *rest = std::string_view();
        return ParseFileNumber(text, out);
    }
    if (rest) *rest = TrimView(text.substr(static_cast<size_t>(end - text.data())));
    return true;
}

Failure WrongFileType(Proc& p, const std::string& path, long line) {
    return FileFailure(p, path, line, "File type incorrect: " + path + "\r\nWrong data format.");
}

Failure IncompleteFile(Proc& p, const std::string& path, long line) {
    return FileFailure(p, path, line,
                       IncompleteDataText(std::filesystem::path(path).filename().string()));
}

Failure EndedEarly(Proc& p, const std::string& path, long line, const std::string& lastLine) {
    return FileFailure(p, path, line,
                       "End of file encountered early.\r\nLast Line: '" + lastLine +
                           "'\r\nPlease check the import type or data file.");
}

// ------------------------------------------------------------ the builder

OverlayBuilder::OverlayBuilder(const std::string& xName, const std::string& yName, const std::string& unit) {
    t_.setFeature(0, xName);
    t_.setFeature(1, yName);
    h_.dataType = "Overlay";
    setUnit(unit);
}

void OverlayBuilder::setUnit(const std::string& unit) {
    if (unit.empty()) return;
    t_.setUnit(0, unit);
    t_.setUnit(1, unit);
}

long OverlayBuilder::siteAt(double xMm, double yMm) {
    const std::pair<long long, long long> key{std::llround(xMm * 1e4), std::llround(yMm * 1e4)};
    auto [it, fresh] = byPosition_.emplace(key, nextSite_);
    if (fresh) ++nextSite_;
    return it->second;
}

bool OverlayBuilder::add(const OverlayRow& row, long sourceLine, bool& cancelled) {
    if (!row.hasX && !row.hasY) return false;
    const long r = t_.addRow();
    if ((++added_ % 100) == 0) {
        SetStatusText("Data Import Row " + std::to_string(added_));
        if (CheckEscKey()) cancelled = true;
    }
    std::string_view w = row.wafer.empty() ? std::string_view("1") : row.wafer;
    if (w != lastWafer_ || waferValue_.isEmpty()) {
        lastWafer_.assign(w);
        double num;
        waferValue_ = ParseFileNumber(w, num) && num == std::floor(num) && std::fabs(num) < 2e9
                          ? Value(static_cast<int32_t>(num))
                          : Value(lastWafer_);
    }
    const long site = row.site >= 1 ? row.site : siteAt(row.siteXmm, row.siteYmm);
    t_.cell(r, 1) = waferValue_;
    t_.cell(r, 2) = static_cast<int32_t>(site);
    t_.cell(r, 3) = static_cast<int32_t>(row.dieX);
    t_.cell(r, 4) = static_cast<int32_t>(row.dieY);
    if (row.hasX) t_.cell(r, 5) = row.x;
    if (row.hasY) t_.cell(r, 6) = row.y;
    if (!t_.hasSite(site)) t_.addSite(site, h_.dieSizeXmm, h_.dieSizeYmm, row.siteXmm, row.siteYmm, h_.family);
    if (row.exclude) t_.excludeLastRow(sourceLine);
    return true;
}

Result<std::string> OverlayBuilder::finish(Proc& p, const ImportRequest& request) {
    // A field size the header gave after the first sites were met.
    if (h_.dieSizeXmm > 0 && h_.dieSizeYmm > 0)
        for (int r = 1; r <= t_.siteCount(); ++r) {
            t_.siteTable()(r, 1) = h_.dieSizeXmm;
            t_.siteTable()(r, 2) = h_.dieSizeYmm;
        }
    return FinishImport(p, request, t_, h_, nullptr);
}

}  // namespace zorv::overlay
