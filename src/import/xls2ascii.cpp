// Import(XLS2ASCII): the text copy of a spreadsheet for the readers that take
// text. The copy is what a spreadsheet's "Text (Tab delimited)" save gives:
// line n is sheet row n (blank rows stay as empty lines), cells from column A
// separated by tabs, a row ending at its last value. Numbers are written with
// "." whatever the machine uses, in the shortest form that reads back to the
// same double, so that the text readers see the values the sheet holds.
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

#include "base/format.h"
#include "base/text.h"
#include "import/import.h"
#include "reader.h"
#include "workbook/store.h"

namespace zorv {

namespace {

void AppendNumber(std::string& out, double d) {
    char buf[32];
    const auto r = std::to_chars(buf, buf + sizeof buf, d);
    out.append(buf, r.ptr);
}

// The spreadsheet's date format as a Format pattern: its first section
// without locale and colour tags ("[$-409]", "[Red]") or the elapsed-hours
// brackets ("[h]").
std::string DatePattern(std::string_view numberFormat) {
    std::string p;
    bool inBracket = false, inQuote = false;
    std::string bracket;
    for (char c : numberFormat) {
        if (inQuote) {
            p += c;
            if (c == '"') inQuote = false;
        } else if (inBracket) {
            if (c == ']') {
                inBracket = false;
                const std::string b = Lower(bracket);
                if (b == "h" || b == "hh" || b == "m" || b == "mm" || b == "s" || b == "ss") p += b;
            } else {
                bracket += c;
            }
        } else if (c == '"') {
            inQuote = true;
            p += c;
        } else if (c == '[') {
            inBracket = true;
            bracket.clear();
        } else if (c == ';') {
            break;
        } else {
            p += c;
        }
    }
    return p;
}

// A cell's text: what a text save of the cell holds. Tabs and line ends
// inside a text would break the row, so they become blanks.
void AppendCell(std::string& out, const Value& v, Worksheet& sheet, int row, int col) {
    switch (v.type()) {
        case VType::Empty:
        case VType::Null:
        case VType::Array: return;
        case VType::Error: out += ErrorText(v.errorCode()); return;
        case VType::Boolean: out += v.toBool() ? "TRUE" : "FALSE"; return;
        case VType::Integer:
        case VType::Long: out += std::to_string(v.toLong()); return;
        case VType::Single: {
            char buf[32];
            const auto r = std::to_chars(buf, buf + sizeof buf, v.toSingle());
            out.append(buf, r.ptr);
            return;
        }
        case VType::Double: AppendNumber(out, v.toDouble()); return;
        case VType::Date: {
            const std::string pattern = DatePattern(sheet.numberFormat(row, col));
            out += IsDatePattern(pattern) ? FormatDate(v.toDouble(), pattern) : v.toString();
            return;
        }
        case VType::String:
            for (char c : v.str()) out += (c == '\t' || c == '\r' || c == '\n') ? ' ' : c;
            return;
    }
}

// Writes the sheet's text beside its final name and moves it into place
// once complete, so that a failure leaves no half-written copy.
Status WriteTextCopy(Proc& p, Worksheet& sheet, const std::string& source, const std::string& target) {
    p.chk = 3;
    // Formats of date cells are looked up as the rows pass: the sheet is
    // loaded once instead of streamed.
    if (Status st = sheet.load(); !st)
        return FileFailure(p, source, 0, "Cannot read worksheet '" + sheet.name() + "': " + st.failure().text);
    const std::string temp = target + ".part";
    std::FILE* f = std::fopen(temp.c_str(), "wb");
    if (!f) return FileFailure(p, target, 0, "Cannot write the text copy: " + target);
    std::string buf;
    buf.reserve(1 << 16);
    bool writeOk = true;
    int lastRow = 0;
    Status walked = sheet.forEachRow([&](int row, const Value* cells, int count) {
        buf.append(static_cast<size_t>(row - lastRow - 1), '\n');  // blank rows between
        lastRow = row;
        for (int c = 0; c < count; ++c) {
            if (c) buf += '\t';
            AppendCell(buf, cells[c], sheet, row, c + 1);
        }
        buf += '\n';
        if (buf.size() > (1 << 16) - 4096) {
            writeOk = std::fwrite(buf.data(), 1, buf.size(), f) == buf.size();
            buf.clear();
        }
        return writeOk;
    });
    if (writeOk && !buf.empty()) writeOk = std::fwrite(buf.data(), 1, buf.size(), f) == buf.size();
    writeOk = (std::fclose(f) == 0) && writeOk;
    std::error_code ec;
    if (!walked || !writeOk) {
        std::filesystem::remove(temp, ec);
        if (!walked)
            return FileFailure(p, source, 0,
                               "Cannot read worksheet '" + sheet.name() + "': " + walked.failure().text);
        return FileFailure(p, target, 0, "Cannot write the text copy: " + target);
    }
    std::filesystem::rename(temp, target, ec);
    if (ec) {
        std::filesystem::remove(temp, ec);
        return FileFailure(p, target, 0, "Cannot write the text copy: " + target);
    }
    return StatusOk();
}

}  // namespace

bool IsSpreadsheetPath(std::string_view path) {
    return IEndsWith(path, ".xls") || IEndsWith(path, ".xlsx") || IEndsWith(path, ".xlt");
}

Status XLS2ASCII(const std::string& path, std::string& out) {
    Proc p("Import(XLS2ASCII): ");
    p.chk = 1;
    if (!IsSpreadsheetPath(path)) {
        out = path;
        return StatusOk();
    }
    const std::filesystem::path source(path);
    const std::string target = (source.parent_path() / ("ZORV" + source.stem().string() + ".txt")).string();

    p.chk = 2;
    // A workbook the program holds open already is read as it stands.
    WorkbookPtr wb = Workbooks::Find(path);
    if (!wb) {
        Result<WorkbookPtr> opened = Workbook::open(path, Workbook::Load::Lazy);
        if (!opened) return FileFailure(p, path, 0, "Cannot open workbook: " + opened.failure().text);
        wb = std::move(*opened);
    }
    Worksheet* sheet = wb->activeSheet();
    if (!sheet) sheet = wb->sheet(1);
    if (!sheet) return FileFailure(p, path, 0, "There are no worksheets in file: " + path);
    if (Status st = WriteTextCopy(p, *sheet, path, target); !st) return st;
    out = target;
    return StatusOk();
}

}  // namespace zorv
