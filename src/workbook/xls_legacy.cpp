// Legacy .xls/.xlt workbooks (BIFF in an OLE2 container), read-only through
// FreeXL: sheet names and cell values; comments and formats are not read.
#include <freexl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "xlsx_internal.h"

namespace zorv {

namespace {
Failure LegacyFail(std::string text) {
    Failure f;
    f.tag = "Workbook(OpenXls): ";
    f.text = std::move(text);
    return f;
}

struct Handle {
    const void* h = nullptr;
    ~Handle() {
        if (h) freexl_close(h);
    }
};

struct TempFile {
    std::string path;
    ~TempFile() {
        if (!path.empty()) std::remove(path.c_str());
    }
};
}  // namespace

Status WorkbookImpl::loadLegacy(Workbook& wb, const std::string& path, std::string_view bytes) {
    WorkbookImpl& im = *wb.impl_;
    im.legacy = true;
    wb.readOnly_ = true;
    const std::string& file = im.file;
    TempFile tmp;
    std::string src = path;
    if (src.empty()) {
        // FreeXL reads files only
        char name[] = "/tmp/zorv-xls-XXXXXX";
        int fd = mkstemp(name);
        if (fd < 0) return LegacyFail(file + " cannot be read: no temporary file.");
        tmp.path = name;
        bool ok = ::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
        ::close(fd);
        if (!ok) return LegacyFail(file + " cannot be read: no temporary file.");
        src = tmp.path;
    }
    Handle h;
    int rc = freexl_open(src.c_str(), &h.h);
    if (rc != FREEXL_OK) {
        h.h = nullptr;
        return LegacyFail(file + " is not a readable .xls workbook (FreeXL error " + std::to_string(rc) + ").");
    }
    unsigned int info = 0;
    if (freexl_get_info(h.h, FREEXL_BIFF_PASSWORD, &info) == FREEXL_OK && info == FREEXL_BIFF_PASSWORD)
        return LegacyFail(file + " is protected by a password.");
    unsigned int count = 0;
    if (freexl_get_info(h.h, FREEXL_BIFF_SHEET_COUNT, &count) != FREEXL_OK || count == 0)
        return LegacyFail(file + " holds no worksheet.");
    unsigned int datemode = 0;
    freexl_get_info(h.h, FREEXL_BIFF_DATEMODE, &datemode);
    for (unsigned short i = 0; i < count; ++i) {
        const char* name = nullptr;
        if (freexl_get_worksheet_name(h.h, i, &name) != FREEXL_OK || !name)
            return LegacyFail(file + ": sheet " + std::to_string(i + 1) + " has no name.");
        std::string nm = name;
        if (!Workbook::validSheetName(nm) || wb.sheet(nm)) nm = "Sheet" + std::to_string(i + 1);
        Worksheet* ws = newSheet(wb, nm, -1);
        if (freexl_select_active_worksheet(h.h, i) != FREEXL_OK)
            return LegacyFail(file + ": sheet '" + nm + "' cannot be read.");
        unsigned int rows = 0;
        unsigned short cols = 0;
        if (freexl_worksheet_dimensions(h.h, &rows, &cols) != FREEXL_OK)
            return LegacyFail(file + ": sheet '" + nm + "' cannot be read.");
        if (rows > static_cast<unsigned>(kMaxRows) || cols > kMaxCols || static_cast<uint64_t>(rows) * cols > (64ull << 20))
            return LegacyFail(file + ": sheet '" + nm + "' is too large.");
        auto& data = *ws->d_;
        for (unsigned int r = 0; r < rows; ++r) {
            for (unsigned short c = 0; c < cols; ++c) {
                FreeXL_CellValue v;
                if (freexl_get_cell_value(h.h, r, c, &v) != FREEXL_OK) continue;
                Value val;
                switch (v.type) {
                case FREEXL_CELL_INT: val = Value(static_cast<double>(v.value.int_value)); break;
                case FREEXL_CELL_DOUBLE: val = Value(v.value.double_value); break;
                case FREEXL_CELL_TEXT:
                case FREEXL_CELL_SST_TEXT:
                    if (v.value.text_value) val = Value(std::string_view(v.value.text_value));
                    break;
                case FREEXL_CELL_DATE:
                case FREEXL_CELL_DATETIME:
                case FREEXL_CELL_TIME: {
                    double serial = 0;
                    std::string t = v.value.text_value ? v.value.text_value : "";
                    if (t.size() > 10 && t[10] == ' ') t[10] = 'T';
                    if (xlsx::ParseIsoDate(t, serial)) val = Value::date(serial);
                    else val = Value(t);
                    break;
                }
                default: break;
                }
                if (val.isEmpty()) continue;
                if (data.rows.size() <= r) data.rows.resize(r + 1);
                auto& row = data.rows[r];
                if (row.v.size() <= c) row.v.resize(static_cast<size_t>(c) + 1);
                row.v[c] = std::move(val);
            }
        }
        ws->loaded_ = true;
        ws->dirty_ = true;  // a save as .xlsx writes every sheet
    }
    wb.structDirty_ = false;
    wb.savedOverride_ = true;
    (void)datemode;  // FreeXL hands dates over as text already in calendar form
    return StatusOk();
}

}  // namespace zorv
