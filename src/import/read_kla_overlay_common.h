// What the overlay readers (KLA Archer, KLA 5xxx, Nova, Nikon NRM, IVS)
// share: splitting a line into fields, matching headings through their
// spellings, and the building of the four tables from rows of an X and a Y
// misregistration. Private to the import subsystem.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <map>
#include <utility>
#include <vector>

#include "base/proc.h"
#include "import/import.h"
#include "reader.h"

namespace zorv::overlay {

// The delimiter a line uses: tab, then comma, then ';'; ' ' (runs of blanks)
// when it holds none of them.
char DelimiterOf(std::string_view line);
// The fields of a line at `delim`, each trimmed and without its quotes. With
// ' ' any run of blanks and tabs separates. Views into `line`.
void SplitFields(std::string_view line, char delim, std::vector<std::string_view>& out);
// A heading as it is matched: upper case without blanks, "_", "-" and ".".
// A unit in brackets at its end ("MReg X(nm)") is cut off into `unit`
// ("nm", "um", "mm"); brackets that hold no unit ("Column(X)") stay.
std::string HeadingKey(std::string_view heading, std::string* unit = nullptr);
// The index of the first key equal to one of the spellings (as HeadingKey
// gives them), or -1.
int FindKey(const std::vector<std::string>& keys, std::initializer_list<const char*> spellings);
// "nm", "um" or "mm" for a unit word ("NM", "microns", "µm" ...), else "".
std::string UnitWord(std::string_view text);
// "NAME: value", "NAME = value" or "NAME<tab>value": the name as HeadingKey
// gives it and the trimmed value; false for a line without such a pair.
bool NameValue(std::string_view line, std::string& key, std::string& value);
// A number at the start of a text ("0.012nm", "12 um"); the rest, trimmed,
// goes to `rest`.
bool LeadingNumber(std::string_view text, double& out, std::string_view* rest = nullptr);
// A position given in millimetres or micrometres: over `limit` it is taken as
// micrometres.
inline double PositionMm(double v, double limit = 50) { return (v > limit || v < -limit) ? v / 1000 : v; }

// The family's messages, naming the file and the line.
// "File type incorrect: " for a file with NUL bytes.
Failure WrongFileType(Proc& p, const std::string& path, long line);
// "Incomplete data file: " for a file that ends before its data.
Failure IncompleteFile(Proc& p, const std::string& path, long line);
// "End of file encountered early." with the last line read.
Failure EndedEarly(Proc& p, const std::string& path, long line, const std::string& lastLine);

// One measured row of an overlay file.
struct OverlayRow {
    std::string_view wafer;      // empty: "1"
    long site = 0;               // from 1; 0: numbered by its position
    long dieX = 0, dieY = 0;     // field column and row
    double siteXmm = 0, siteYmm = 0;  // the site in the field
    double x = 0, y = 0;         // the misregistration, in the unit of the builder
    bool hasX = false, hasY = false;
    bool exclude = false;        // to the "Excluded" sheet
};

// The tables of an overlay lot: two features, data type "Overlay".
class OverlayBuilder {
public:
    OverlayBuilder(const std::string& xName, const std::string& yName, const std::string& unit);

    ReaderTables& tables() { return t_; }
    ReaderHeader& header() { return h_; }
    // The unit of both features ("nm", "um"); empty leaves them without one.
    void setUnit(const std::string& unit);
    // A site number for a position in the field, numbered in the order met.
    long siteAt(double xMm, double yMm);
    // Adds the row; false (and nothing added) when it holds no value. Shows
    // progress every 100 rows; `cancelled` turns true on Esc.
    bool add(const OverlayRow& row, long sourceLine, bool& cancelled);
    long rows() const { return t_.rows() + t_.excludedRows(); }
    // The field size into the sites, the tool name, FinishImport.
    [[nodiscard]] Result<std::string> finish(Proc& p, const ImportRequest& request);

private:
    ReaderTables t_;
    ReaderHeader h_;
    std::string lastWafer_;
    Value waferValue_;
    std::map<std::pair<long long, long long>, long> byPosition_;  // 0.1 um steps
    long nextSite_ = 1;
    long added_ = 0;
};

}  // namespace zorv::overlay
