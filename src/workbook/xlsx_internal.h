// Internals of the workbook store shared by the model, the .xlsx reader and
// writer and the legacy reader. Not part of the public interface.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "workbook/store.h"
#include "workbook/zipio.h"

namespace zorv::xlsx {

// What a cell's style says that the store models. Style ids are cellXfs
// indexes: a loaded workbook keeps its xf numbering so that sheets copied
// unchanged still point at the right formats.
struct Style {
    std::string numFmt;  // empty: General
    bool bold = false;
    HAlign align = HAlign::General;
    bool operator==(const Style&) const = default;
};

class StyleTable {
public:
    StyleTable() { reset({Style{}}); }
    void reset(std::vector<Style> xfs);
    uint16_t intern(const Style& s);
    const Style& at(uint16_t id) const { return id < styles_.size() ? styles_[id] : styles_[0]; }
    bool isDate(uint16_t id) const { return id < date_.size() && date_[id]; }
    size_t size() const { return styles_.size(); }
    // xfs that came from the loaded styles part; ids at or beyond are new.
    size_t original = 0;

private:
    std::vector<Style> styles_;
    std::vector<char> date_;
    std::map<std::tuple<std::string, bool, int>, uint16_t> index_;
};

// Dates by their number format: d, m, y, h or s outside quotes, brackets
// (colours, locales) and escapes; elapsed-time "[h]" counts as a date.
bool IsDateFormat(std::string_view code);
// Code of a built-in number format id; empty when the id has none.
std::string_view BuiltinFormat(int id);
// Built-in id of a code, or -1.
int BuiltinFormatId(std::string_view code);
bool IsBuiltinDateId(int id);

struct Row {
    std::vector<Value> v;
    std::vector<uint16_t> s;  // empty, or one style id per value
};

// Serial day number (1899-12-30 based) of an ISO 8601 date/time; false when
// the text is not one.
bool ParseIsoDate(std::string_view text, double& serial);

// Text to XML-safe text: & < > (and " in attributes) escaped, CR as a
// character reference, other control characters as _xHHHH_, bytes that are
// not UTF-8 taken as Latin-1.
void AppendEscaped(std::string& out, std::string_view text, bool attribute = false);
// Resolves XML entities (and line ends) and _xHHHH_ escapes of raw XML text;
// with entities false only the _xHHHH_ escapes (text a parser has decoded).
std::string Unescape(std::string_view text, bool entities = true);

// Upper-case ASCII comparison.
bool IEquals(std::string_view a, std::string_view b);
std::string Lower(std::string_view s);

struct Rel {
    std::string id, type, target;  // target resolved to a part name (no leading "/")
    bool external = false;
};
// A relationship type ends with this word ("worksheet", "styles", ...).
bool RelIs(const Rel& r, std::string_view word);
// Part name of a target relative to the part that points at it.
std::string ResolveTarget(std::string_view sourcePart, std::string_view target);
// "xl/worksheets/_rels/sheet1.xml.rels" for "xl/worksheets/sheet1.xml".
std::string RelsPartOf(std::string_view part);

}  // namespace zorv::xlsx

namespace zorv {

// Cells a sheet refers to in a caller's table instead of holding them
// (Worksheet::referRows): rows x cols values, stride apart, with the first at
// sheet (row, col), and one style id per column.
struct TableRef {
    const Value* cells = nullptr;
    size_t stride = 0;
    int row = 0, col = 0, rows = 0, cols = 0;
    std::vector<uint16_t> style;
    int lastRow() const { return row + rows - 1; }
    int lastCol() const { return col + cols - 1; }
};

struct Worksheet::Data {
    std::vector<xlsx::Row> rows;  // rows[0] is sheet row 1
    // Ordinary rows hold nothing (no value, style 0) inside the referred area.
    std::optional<TableRef> ref;
    std::map<std::pair<int, int>, Comment> comments;
    std::vector<Hyperlink> links;
    size_t slots = 0;  // cells allocated while loading (guard against sparse bombs)
};

struct SheetSource {
    std::string part;      // the sheet part in the original archive
    std::string rels;      // its relationships part (may be missing)
    std::string comments;  // comments and VML parts named by those relationships
    std::string vml;
    int sheetId = 0;
    std::string loadError;
};

struct WorkbookImpl {
    std::unique_ptr<xlsx::ZipReader> zip;  // the original archive, when opened from one
    bool legacy = false;
    std::string file;  // file name for messages
    xlsx::StyleTable styles;
    bool date1904 = false;

    std::vector<Value> sst;  // shared strings of the original archive
    std::string workbookPart = "xl/workbook.xml";
    std::string stylesPart, sstPart, corePart, appPart;
    std::map<std::string, std::string> ctDefaults;   // extension (lower) -> content type
    std::map<std::string, std::string> ctOverrides;  // part name (lower) -> content type
    std::vector<xlsx::Rel> keepWorkbookRels;         // theme and others, carried over
    std::vector<xlsx::Rel> keepRootRels;
    // Styles part facts needed to extend it in place.
    int fontCount = 0, boldFont = -1, maxNumFmtId = 163;
    std::map<std::string, int> numFmtIds;  // custom codes of the styles part
    // Every part that belongs to a worksheet of the archive (the sheet, its
    // relationships, comments and VML), lower case: not copied unless the
    // sheet is copied unchanged.
    std::vector<std::string> sheetParts;

    static Status readPackage(Workbook& wb, Workbook::Load load);
    static Status loadSheet(Workbook& wb, Worksheet& ws);
    // The rows of a sheet not loaded, parsed and handed over as they complete.
    static Status streamSheet(Workbook& wb, Worksheet& ws, const Worksheet::RowVisitor& f);
    static std::optional<Area> declaredArea(Workbook& wb, Worksheet& ws);
    // Reads the styles part: formats, fonts, xfs; with resetTable the style
    // table becomes the part's xfs.
    static Status readStyles(WorkbookImpl& im, bool resetTable);
    static Status loadLegacy(Workbook& wb, const std::string& path, std::string_view bytes);
    static Status write(Workbook& wb, const std::string& path);
    static Worksheet* newSheet(Workbook& wb, std::string name, int position);
};

}  // namespace zorv
