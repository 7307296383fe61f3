// Readers of wafer-site data (thermal maps, resistivity, yield summaries)
// and of the Hitachi LAxx overlay workbook. Private to the import
// subsystem; reached through the format table.
//
// Wafer-site data has no field grid: every wafer is one field (column 0,
// row 0) as large as the wafer, and a site stands at its wafer position in
// millimetres, so that the loader puts it where the tool measured it.
#pragma once

#include <cctype>
#include <cmath>
#include <string>
#include <string_view>
#include <vector>

#include "base/proc.h"
#include "import/import.h"
#include "reader.h"

namespace zorv {

// Import(ImportOnWafer): an OnWafer thermal map, text; a workbook is refused.
[[nodiscard]] Result<std::string> ImportOnWafer(const ImportRequest& request);
// Import(ImportSensArray): a SensArray sensor map, text (a spreadsheet comes
// as its tab-text copy).
[[nodiscard]] Result<std::string> ImportSensArray(const ImportRequest& request);
// Import(ImportCDEResMap): a CDE ResMap probe report, text.
[[nodiscard]] Result<std::string> ImportCDEResMap(const ImportRequest& request);
// Import(ImportYieldXLS): a yield summary workbook, read directly (sheet
// "PDFSdata", else the first).
[[nodiscard]] Result<std::string> ImportYieldXLS(const ImportRequest& request);
// Import(ImportHitachiLAXX): a Hitachi LA-series overlay workbook, read
// directly (a field grid, not wafer-site data).
[[nodiscard]] Result<std::string> ImportHitachiLAXX(const ImportRequest& request);

namespace wafer_site {

// The cells of a line split at `delim`; ' ' splits at runs of blanks. Each
// cell trimmed. The views point into `line`.
inline void Split(std::string_view line, char delim, std::vector<std::string_view>& out) {
    out.clear();
    auto trim = [](std::string_view s) {
        while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '"')) s.remove_prefix(1);
        while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '"' || s.back() == '\r'))
            s.remove_suffix(1);
        return s;
    };
    if (delim == ' ') {
        size_t i = 0;
        while (i < line.size()) {
            while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
            if (i >= line.size()) break;
            size_t j = i;
            while (j < line.size() && line[j] != ' ' && line[j] != '\t') ++j;
            out.push_back(trim(line.substr(i, j - i)));
            i = j;
        }
        return;
    }
    size_t start = 0;
    for (;;) {
        size_t at = line.find(delim, start);
        out.push_back(trim(line.substr(start, at == std::string_view::npos ? std::string_view::npos : at - start)));
        if (at == std::string_view::npos) break;
        start = at + 1;
    }
}

// The delimiter of a table line: tab, else comma, else semicolon, else blanks.
inline char DelimiterOf(std::string_view line) {
    if (line.find('\t') != std::string_view::npos) return '\t';
    if (line.find(',') != std::string_view::npos) return ',';
    if (line.find(';') != std::string_view::npos) return ';';
    return ' ';
}

// A header word as it is looked up: upper case, blanks and "_" dropped, the
// unit in brackets cut off ("Temp (C)" is "TEMP").
inline std::string HeadWord(std::string_view text) {
    size_t open = text.find_first_of("([");
    if (open != std::string_view::npos && open > 0) text = text.substr(0, open);
    std::string out;
    for (char c : text)
        if (c != ' ' && c != '_' && c != '"') out += (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c;
    return out;
}

// The diameter of the smallest common wafer that holds every site, from the
// sites' largest distance to the centre (mm).
inline double WaferDiameterFor(double maxRadiusMm) {
    for (double d : {100.0, 150.0, 200.0, 300.0, 450.0})
        if (2 * maxRadiusMm <= d) return d;
    return std::ceil(2 * maxRadiusMm);
}

// A diameter as the file gives it: "200", "200 mm", "8 in", "200000 um".
inline bool ParseDiameter(std::string_view text, double& mm) {
    std::string_view t = text;
    while (!t.empty() && t.front() == ' ') t.remove_prefix(1);
    size_t n = 0;
    while (n < t.size() && (std::isdigit(static_cast<unsigned char>(t[n])) || t[n] == '.')) ++n;
    double v = 0;
    if (!ParseFileNumber(t.substr(0, n), v) || v <= 0) return false;
    std::string unit;
    for (char c : t.substr(n))
        if (c != ' ' && c != '"' && c != '.') unit += (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c;
    if (unit == "IN" || unit == "INCH" || unit == "INCHES" || unit == "\"") v *= 25.4;
    else if (unit == "UM" || unit == "MICRONS" || v > 1000) v /= 1000;
    else if (unit == "CM") v *= 10;
    mm = v;
    return true;
}

// The geometry of wafer-site data: the field is the wafer.
inline void SetWaferGeometry(ReaderHeader& h, double diameterMm) {
    h.dieSizeXmm = h.dieSizeYmm = diameterMm;
    h.waferSizeMm = diameterMm;
}

}  // namespace wafer_site

}  // namespace zorv
