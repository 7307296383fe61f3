// The workbook store: an in-memory spreadsheet workbook read from and saved to
// .xlsx (and read from legacy .xls through FreeXL). It stands in for the
// spreadsheet application: sheets in order, cells as tagged values, comments,
// number formats, bold, horizontal alignment, defined names, document
// properties and internal hyperlinks.
//
// Rows and columns are 1-based everywhere (A1 is row 1, column 1).
//
// Sheets of an opened .xlsx are loaded lazily (on first access) and tracked
// dirty; a save copies the parts of untouched sheets from the original archive
// as they stand (compressed bytes and all) and writes only what changed, into
// a temporary file that replaces the target once complete.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "base/proc.h"
#include "base/datam.h"
#include "base/value.h"

namespace zorv {

class Workbook;
struct WorkbookImpl;
struct SheetSource;

using WorkbookPtr = std::shared_ptr<Workbook>;

// Excel's sheet limits.
constexpr int kMaxRows = 1048576;
constexpr int kMaxCols = 16384;

// Horizontal alignment of a cell (Range.HorizontalAlignment).
enum class HAlign : uint8_t { General = 0, Left, Center, Right, Fill, Justify, CenterAcross, Distributed };

// Error values of cells, with the codes CVErr uses (xlErrDiv0 ...).
enum CellError : int32_t {
    xlErrNull = 2000, xlErrDiv0 = 2007, xlErrValue = 2015, xlErrRef = 2023,
    xlErrName = 2029, xlErrNum = 2036, xlErrNA = 2042,
};
// "#DIV/0!" for 2007 ...; "#N/A" for unknown codes.
std::string_view ErrorText(int32_t code);
// 2007 for "#DIV/0!" ...; 0 when the text is not an error literal.
int32_t ErrorCode(std::string_view text);

// Column letters: 1 "A", 27 "AA". Empty for out-of-range columns.
std::string ColumnLetters(int col);
// "A1", or "$A$1" with absolute.
std::string CellAddress(int row, int col, bool absolute = false);
// Parses "B7", "$B$7" (1-based). False when not a cell reference.
bool ParseCellRef(std::string_view ref, int& row, int& col);

// A rectangular area of a sheet; rows and columns 1-based, inclusive.
struct Area {
    int row1 = 0, col1 = 0, row2 = 0, col2 = 0;
    bool empty() const { return row1 <= 0 || col1 <= 0 || row2 < row1 || col2 < col1; }
    int rows() const { return empty() ? 0 : row2 - row1 + 1; }
    int cols() const { return empty() ? 0 : col2 - col1 + 1; }
};

// A reference such as "=Sheet1!$A$1:$B$9", "'My sheet'!A1", "Sites!$B:$B",
// "Data!$2:$2" or "A1" (no sheet). Whole columns run over all rows, whole
// rows over all columns.
struct RangeRef {
    std::string sheet;  // without quotes; empty when the reference has none
    Area area;
};
std::optional<RangeRef> ParseRangeRef(std::string_view ref);
// "=Sheet1!$A$1:$B$9" form; the sheet is quoted when it needs it.
std::string FormatRangeRef(std::string_view sheet, const Area& area);

struct Comment {
    int row = 0, col = 0;
    std::string text;
    bool visible = false;
    std::string author;
};

struct Hyperlink {
    int row = 0, col = 0;
    std::string location;  // "'Sheet'!A1" (an internal target, without "#")
    std::string tooltip;
};

struct DefinedName {
    std::string name;
    std::string refersTo;  // "=Sheet1!$A$1:$B$9"
    int localSheet = -1;   // 0-based sheet index for a sheet-local name, -1 for the workbook
    bool hidden = false;
};

class Worksheet {
public:
    Worksheet(const Worksheet&) = delete;
    Worksheet& operator=(const Worksheet&) = delete;
    ~Worksheet();

    const std::string& name() const { return name_; }
    // Renames the sheet; false for an invalid name or one another sheet has.
    // Defined names that point at the sheet follow.
    bool setName(std::string_view name);
    Workbook& workbook() const { return *wb_; }
    // 1-based position in the workbook.
    int index() const;

    // Loads the sheet's cells now (they load on first access otherwise).
    // A sheet that fails to load stays empty and reports why here.
    Status load();
    bool loaded() const { return loaded_; }
    // Drops the parsed cells of a sheet that still stands as it was read from
    // its file; they are parsed again on the next access, and a save copies
    // the sheet's compressed part as it stands. False (nothing dropped) for a
    // changed or new sheet.
    bool unload();
    bool dirty() const { return dirty_; }

    // --- rows read without keeping them
    // f(row, cells, count): a sheet row with a value, cells[0] being column 1
    // and count reaching its last value. It returns false to stop the walk.
    using RowVisitor = std::function<bool(int row, const Value* cells, int count)>;
    // Hands every row that has a value to f, in the part's row order. A sheet
    // that is not loaded is parsed as it streams and keeps nothing, so a large
    // sheet never stands whole in memory; a loaded one walks its rows. Fails
    // as load() would on a damaged part.
    Status forEachRow(const RowVisitor& f);
    // The used area as the sheet's part declares it (its <dimension>), read
    // without parsing the cells; nullopt for a loaded, changed or new sheet,
    // and for a part that declares none, or only "A1".
    std::optional<Area> declaredArea();

    // --- cells
    // The value of a cell; an empty value outside the used cells.
    const Value& cell(int row, int col);
    void setCell(int row, int col, Value v);
    // Writes a table with its first row and column at (row, col): one range
    // transfer. Empty values clear their cells. 1-D arrays are written as a row.
    void setRange(int row, int col, const Datam& table);
    // setRange of rows firstRow..lastRow of a 2-D table, without copying them:
    // the sheet refers to the table's cells, so that a table of a million rows
    // is not held twice while it is saved. The table must stay alive and
    // unchanged until the sheet lets go of it: the next successful save (the
    // sheet is then read back from the file when needed), clear(), or an
    // access to the cells of the area, which copies them in. Formats over
    // whole columns of the area keep the reference.
    void referRows(int row, int col, const Datam& table, int firstRow, int lastRow);
    // Copies the cells of a referred table in, so that the table may go.
    void holdCells();
    // The values of an area as a table with rows and columns from 1.
    Datam range(const Area& area);
    // The cells, comments and formats in use (Excel's UsedRange): from the
    // first used row and column to the last. Empty when nothing is used.
    Area usedArea();
    // UsedRange.Value: the used area's values, rows and columns from 1 (row
    // 1 of the table is the first used row, not necessarily sheet row 1).
    Datam usedRange();
    // Number of rows that have cells (the last used row), and last column.
    int lastRow();
    int lastCol();
    // Cells.Clear: values and formats; comments and hyperlinks stay.
    void clear();
    // Clears one area's values (formats stay).
    void clearContents(const Area& area);

    // --- formats. Areas are clipped to the used rows when they run over
    // whole columns (row2 == kMaxRows).
    void setNumberFormat(const Area& area, std::string_view format);
    void setNumberFormat(int row, int col, std::string_view format) { setNumberFormat(Area{row, col, row, col}, format); }
    std::string numberFormat(int row, int col);  // "General" when none
    void setBold(const Area& area, bool bold = true);
    bool bold(int row, int col);
    void setAlignment(const Area& area, HAlign align);
    HAlign alignment(int row, int col);

    // --- comments
    // Adds or replaces the comment of a cell.
    void setComment(int row, int col, std::string_view text, bool visible = false);
    const Comment* comment(int row, int col);
    std::vector<Comment> comments();  // in row, column order
    bool removeComment(int row, int col);
    void clearComments();

    // --- hyperlinks to places in the workbook: "#Sheet!A1" or "'My sheet'!A1"
    void addHyperlink(int row, int col, std::string_view target, std::string_view tooltip = {});
    std::vector<Hyperlink> hyperlinks();
    void clearHyperlinks();

    struct Data;  // the cells, opaque outside the store

private:
    friend class Workbook;
    friend struct WorkbookImpl;
    Worksheet(Workbook* wb, std::string name);
    void touch();
    bool ensure();
    Workbook* wb_;
    std::string name_;
    bool loaded_ = true;
    bool dirty_ = true;
    std::unique_ptr<Data> d_;
    std::unique_ptr<SheetSource> src_;  // where the sheet lives in the original archive
};

class Workbook {
public:
    enum class Load { Full, Lazy };

    // Opens an .xlsx/.xlsm/.xltx (or, read-only, an .xls/.xlt). The format is
    // told from the content, not the extension. Full loads every sheet now,
    // so that a damaged sheet fails the open; Lazy loads sheets on access.
    static Result<WorkbookPtr> open(const std::string& path, Load load = Load::Full);
    // Opens from memory (the reader's fuzz entry); name is used in messages.
    static Result<WorkbookPtr> openMemory(std::string_view bytes, const std::string& name,
                                          Load load = Load::Full);
    // A new workbook that will be saved at path, with one sheet (Workbooks.Add).
    static WorkbookPtr create(const std::string& path, const std::string& firstSheet = "Sheet1");

    ~Workbook();
    Workbook(const Workbook&) = delete;
    Workbook& operator=(const Workbook&) = delete;

    // Full path (FullName) and file name (Name).
    const std::string& path() const { return path_; }
    std::string name() const;
    bool readOnly() const { return readOnly_; }

    // --- sheets
    int sheetCount() const { return static_cast<int>(sheets_.size()); }
    std::vector<std::string> sheetNames() const;
    // By 1-based position; nullptr when out of range.
    Worksheet* sheet(int index);
    // By name, compared without regard to case; nullptr when missing.
    Worksheet* sheet(std::string_view name);
    // Adds a sheet at a 0-based position (-1: after the last). nullptr when
    // the name is invalid or taken.
    Worksheet* addSheet(std::string_view name, int position = -1);
    // Deletes a sheet; false when missing or when it is the only one.
    bool removeSheet(std::string_view name);
    // Moves a sheet to a 0-based position.
    bool moveSheet(std::string_view name, int position);
    Worksheet* activeSheet();
    void activate(Worksheet* ws);
    // Sheet names that Excel accepts: 1 to 31 characters, none of []:*?/\,
    // not starting or ending with "'".
    static bool validSheetName(std::string_view name);

    // --- defined names, compared without regard to case
    // Adds or replaces a workbook name; refersTo "=Sheet1!$A$1:$B$9".
    bool addName(std::string_view name, std::string_view refersTo);
    std::optional<std::string> nameRef(std::string_view name) const;
    // The range a name points at, when it is a plain reference.
    std::optional<RangeRef> nameRange(std::string_view name) const;
    bool removeName(std::string_view name);
    const std::vector<DefinedName>& names() const { return names_; }

    // --- document properties: "Author", "Last author", "Company", "Subject",
    // "Title", "Comments", "Keywords", "Category", "Manager", "Creation date",
    // "Last save time" (dates as written, W3CDTF).
    void setProperty(std::string_view key, std::string_view value);
    std::string property(std::string_view key) const;
    const std::map<std::string, std::string>& properties() const { return props_; }

    // --- saving
    // Saved flag: true when nothing changed since the last open or save.
    bool saved() const;
    bool isDirty() const { return !saved(); }
    void setSaved(bool s);
    // Saves to path(); a read-only workbook refuses.
    Status save();
    // Saves to another path, which becomes the workbook's path.
    Status saveAs(const std::string& path);
    // Loads every sheet that is not loaded yet.
    Status loadAll();

private:
    friend class Worksheet;
    friend struct WorkbookImpl;
    Workbook();
    void changed() { structDirty_ = true; savedOverride_ = false; }

    std::string path_;
    bool readOnly_ = false;
    bool structDirty_ = true;  // workbook-level parts changed (names, order, properties)
    bool savedOverride_ = false;  // Saved set to True by hand
    std::vector<std::unique_ptr<Worksheet>> sheets_;
    std::vector<DefinedName> names_;
    std::map<std::string, std::string> props_;
    int active_ = 0;
    std::unique_ptr<WorkbookImpl> impl_;
};

// The process-wide list of open workbooks (Application.Workbooks): an
// already-open workbook is found and reused instead of read again.
namespace Workbooks {
// The open workbook with this path (or, for a bare file name, this name),
// compared without regard to case; nullptr when none.
WorkbookPtr Find(std::string_view pathOrName);
// Find, else open (Lazy) and register.
Result<WorkbookPtr> Open(const std::string& path);
// Creates a workbook (Workbook::create) and registers it.
WorkbookPtr Add(const std::string& path, const std::string& firstSheet = "Sheet1");
// Registers a workbook opened elsewhere (no-op if present).
void Register(const WorkbookPtr& wb);
// Drops a workbook from the list (Workbook.Close without saving).
void Close(const WorkbookPtr& wb);
void CloseAll();
std::vector<WorkbookPtr> All();
int Count();
}  // namespace Workbooks

}  // namespace zorv
