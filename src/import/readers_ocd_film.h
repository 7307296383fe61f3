// The readers of scatterometry (OCD, profile) and film tools, and the few
// text helpers they share. Private to the import subsystem.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/proc.h"
#include "import/import.h"
#include "reader.h"

namespace zorv {

// "NanoMetrics OCD": a scalar per film, per point.
[[nodiscard]] Result<std::string> ImportNanoMetricsOCD(const ImportRequest& request);
// "NanoMetrics OCD(strReticle)": the same report measured on a reticle.
[[nodiscard]] Result<std::string> ImportNanoMetricsOCDreticle(const ImportRequest& request);
// "Therma-Wave RTCD (*.csv)": profile parameters per measurement point.
[[nodiscard]] Result<std::string> ImportThermaWaveProfile(const ImportRequest& request);
// "Timbre Tech. ODP (*.odp;*.csv)": the plain (table) or the verbose (N=, V=)
// layout, told apart by the file.
[[nodiscard]] Result<std::string> ImportTimbreODP(const ImportRequest& request);
// The verbose layout only.
[[nodiscard]] Result<std::string> ImportTimbreODP_Verbose(const ImportRequest& request);
// "KLA ProData Files": a focus-exposure table (.pfe).
[[nodiscard]] Result<std::string> ImportKLAProData(const ImportRequest& request);
// "KLA ASET F5 Ellipsometer": a film thickness table per material.
[[nodiscard]] Result<std::string> ImportKLAAsetF5(const ImportRequest& request);

namespace ocd_film {

bool IsBlank(std::string_view line);
// Whether a key is one of the spellings.
bool IsOneOf(const std::string& key, std::initializer_list<const char*> spellings);
// The delimiter of a table line: tab, then ",", then ";" when the line holds
// one; else ' ' for runs of blanks.
char DelimiterOf(std::string_view line);
// Fields cut at `delimiter` (' ': runs of blanks and tabs), each trimmed,
// double quotes dropped; an empty field stays in its place.
void SplitFields(std::string_view line, char delimiter, std::vector<std::string>& out);
// Upper case, inner runs of blanks as one blank: how headers and keys compare.
std::string Key(std::string_view text);
// "KEY: value", "KEY = value", "KEY,value" or "KEY<tab>value": the key as
// Key() gives it (without ":") and the value trimmed; false when the line
// has no such separator.
bool SplitKeyValue(std::string_view line, std::string& key, std::string& value);
// A column header "CD (nm)" or "CD[nm]": its unit ("" when none), and the
// name without it, inner blanks as "_".
std::string UnitOfHeader(std::string_view header);
std::string NameOfHeader(std::string_view header);
// Millimetres of a position: a value over 500 is micrometres.
double PositionMm(double value);
// The data table cell of a wafer name: a whole number stays a number.
Value WaferCell(const std::string& wafer);
// Whether a flag cell marks a row as bad: a non-zero number, "Y", "YES",
// "TRUE", "FAIL", "ALARM".
bool FlagSet(std::string_view cell);
// "Data Import Row " every 100 rows; true when Esc asks to stop.
bool RowProgress(long rows);
// The failure of a file holding binary bytes.
Failure BinaryFailure(Proc& p, const std::string& path, long line);
// The failure of a file that ends before its table.
Failure EarlyEndFailure(Proc& p, const std::string& path, long line, const std::string& lastLine);

// Points gathered by wafer, field and site, so that values met on several
// lines (one per film, material or feature) land in one data row.
class PointRows {
public:
    explicit PointRows(ReaderTables& t) : t_(t) {}
    // The feature of a name, added at the end when new, with its unit.
    int feature(const std::string& name, const std::string& unit = {});
    // The data row of a point, made on first sight.
    long row(const std::string& wafer, long site, long dieX, long dieY);
    void set(long row, int feature, double v) { t_.cell(row, 5 + feature) = v; }
    // The last row made goes to the excluded table with its source line.
    void excludeLast(long sourceLine);
    // The site's place in the field (mm) and its family, on first sight.
    void site(long site, double xMm, double yMm, const std::string& family);

private:
    ReaderTables& t_;
    std::unordered_map<std::string, int> features_;
    std::unordered_map<std::string, long> rows_;
    std::string key_, lastKey_;
};

}  // namespace ocd_film

}  // namespace zorv
