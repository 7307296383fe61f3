// What every reader of the format table shares: the four tables it fills,
// the header texts it holds, the exposure of each field, and the ending
// through SaveData. Private to the import subsystem.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "import/import.h"

namespace zorv {

// Data and excluded tables: row 0 the header ("Wafer", "Test", "Diex",
// "Diey", then one column per feature from 5), column 0 free. The excluded
// table has the same shape, with the source line in column 0 under
// "Orig." CR LF "Row". Sites: "Sites",
// "X_DIE_SIZE", "Y_DIE_SIZE", "TEST", "X_LOC", "Y_LOC", "FAMILY" (columns 0
// to 6), then a "<feature>_UNITS" column per feature whose unit is known.
// Tables grow as rows come; only the filled rows are handed on.
class ReaderTables {
public:
    ReaderTables();

    // Feature column k (from 0) is column 5 + k; its header, once.
    void setFeature(int k, const std::string& name);
    int featureCount() const { return features_; }
    const std::string& featureName(int k) const { return names_[k]; }

    // Room for about this many rows, when the file's size tells it.
    void reserveRows(long rows);
    // A new data row (from 1), its cells empty; the table grows by half.
    long addRow();
    // Gives the last data row back (a row that turned out invalid).
    void dropRow() { --rows_; }
    long rows() const { return rows_; }
    Value& cell(long row, int col) { return data_(static_cast<int>(row), col); }
    // Moves data row `row` to the excluded table with its source line, and
    // frees it for reuse (it must be the last row).
    void excludeLastRow(long sourceLine);
    long excludedRows() const { return xrows_; }

    // A site seen for the first time; false when it is known already. Site
    // numbers run from 1; the table hands each on at the row of its number.
    bool hasSite(long test) const;
    void addSite(long test, double dieSizeXmm, double dieSizeYmm, double xMm, double yMm,
                 const std::string& family);
    int siteCount() const { return srows_; }
    // The unit text of a feature, written into its "_UNITS" column.
    void setUnit(int k, const std::string& unit);

    // The filled parts, for SaveData.
    Datam data() const;
    Datam excluded() const;
    Datam sites() const;
    // In place, for the centring of the field grid.
    Datam& dataTable() { return data_; }
    Datam& excludedTable() { return excl_; }
    Datam& siteTable() { return sites_; }
    // Cuts the tables to their filled rows (before SaveData; no copies).
    void trim();

private:
    Datam data_, excl_, sites_;
    long rows_ = 0, xrows_ = 0;
    int srows_ = 0, features_ = 0;
    std::vector<std::string> names_;
    std::vector<std::string> units_;
    std::unordered_map<long, int> siteRow_;
};

// The header texts a reader picks up on its way through the file.
struct ReaderHeader {
    std::string toolName;  // "Metrologynom"
    std::string device, layer, lotName, job, system, user;
    std::string date, time;  // as the file writes them, repaired on the way out
    std::string notch = "DOWN";
    std::string family = "DensePack";
    std::string dataType = "CDsem";
    std::string recipe, exposureTool, reticle;
    double dieSizeXmm = 0, dieSizeYmm = 0;  // field (die) size
    double waferSizeMm = 0;                 // 0: not given
    double siteXoffsetMm = 0, siteYoffsetMm = 0;
    std::string comment;                     // composed by the reader
};

// The exposure of each field of the file (wafer, column, row): focus in
// micrometres, dose in mJ/cm2. Becomes the "Layout" sheet, from which the
// loader gives each field its focus and dose.
class FieldExposures {
public:
    void note(const std::string& wafer, long dieX, long dieY, double focus, double dose);
    bool empty() const { return rows_.empty(); }
    size_t size() const { return rows_.size(); }
    // Moves every field by (dx, dy), as the centring moved the data.
    void shift(long dx, long dy);
    // Both tables of the Layout sheet side by side: the field table
    // ("Wafer", "Field", "Diex", "Diey", "Focus", "Dose", "NA", "PCinner",
    // "PCouter", "ScanDirection") from column 1, the per-wafer setup rows
    // ("Wafer", "Variable", "Meander", "DieXo", "DieYo", "InitialValue",
    // "Step", "ControlIndex", "Scan1", "Scan2") from column 12.
    Datam layoutSheet() const;

private:
    struct Row {
        std::string wafer;
        long dieX, dieY;
        double focus, dose;
    };
    std::vector<Row> rows_;
    std::unordered_map<std::string, size_t> index_;
    std::string lastKey_;
    size_t last_ = 0;
};

// A failure that names the file and the line (0: no line).
Failure FileFailure(Proc& p, const std::string& path, long line, std::string text);

// The workbook path of a reader: the request's, or the source's folder (or
// the data folder) with the base name.
std::string ReaderWorkbookPath(const ImportRequest& request);

// The end of every reader: the grid centred (data, excluded and fields
// alike), the field size from the sites when the header gave none, the
// information table, SaveData with the Layout sheet. Nothing is written
// when the data table has no row: "No data rows were imported." A failed
// save leaves no new file behind.
[[nodiscard]] Result<std::string> FinishImport(Proc& p, const ImportRequest& request, ReaderTables& tables,
                                               ReaderHeader& header, FieldExposures* fields);

// Keywords: the index of the first word equal (upper case) to one of the
// spellings, or -1.
int FindWord(const std::vector<std::string>& upperWords, std::initializer_list<const char*> spellings);
// The family of a feature name: "IsoLine" for LINE, "DensePack" for SPACE,
// "Via" for VIA, else `fallback`.
std::string FamilyOfFeature(std::string_view feature, const std::string& fallback);
// The replacements every line of a keyword report gets before it is split:
// " PM"/" AM" to "_PM"/"_AM"; in a line with a tab, blanks to "_" and tabs
// to blanks; "(0,0)" and "(0, 0)" to "(0_0)"; "," to a blank. All but
// "(0, 0)" keep the line's length, so fixed column positions stay.
void ReaderLineReplacements(std::string& line);
// The message of a file that ends before its data, for the file's name:
// "Incomplete data file: ", the name, CR LF, "Encountered end of data file.
// Please check import format.".
std::string IncompleteDataText(std::string_view fileName);

// Cells of a workbook a reader opens itself. A cell as a number: numbers,
// and text that reads as one (dates, Booleans and errors are not
// measurements).
bool CellNumber(const Value& v, double& out);
// A cell as text, trimmed.
std::string CellText(const Value& v);
// Cell `col` (from 0) of a row of `count` cells, or an empty value.
const Value& CellAt(const Value* cells, int count, int col);

// A number as the file writes it ("." decimal, thousands separators of the
// machine tolerated); false for text.
bool ParseFileNumber(std::string_view text, double& out);

}  // namespace zorv
