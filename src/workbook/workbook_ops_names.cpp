// Sheet and workbook naming rules.
#include <string>

#include "data_workbook_util.h"
#include "workbook/workbook_ops.h"

namespace zorv {

using namespace dwb;

namespace {
std::string Left(std::string_view s, size_t n) { return std::string(s.substr(0, n)); }

// The character rules of a worksheet name, without the cut.
std::string CleanWorkSheetChars(std::string_view name) {
    std::string s(name);
    for (const char* out : {".", "/", "\\", "?", "*:", ";"}) s = Replace(s, out, "");
    s = Replace(s, "[", "_");
    s = Replace(s, "]", "_");
    return s;
}
}  // namespace

std::string FixSheetName(std::string_view name) {
    std::string s(name);
    s = Replace(s, "[", "(");
    s = Replace(s, "]", ")");
    s = Replace(s, ":", "");
    s = Replace(s, "*", "x");
    s = Replace(s, "?", "");
    s = Replace(s, "/", "_");
    s = Replace(s, "\\", "_");
    s = Replace(s, "..", ".");
    s = Replace(s, ".xls.xls", ".xls");
    s = Replace(s, ".XLS.XLS", ".XLS");
    s = Replace(s, ".xls", "");
    s = Replace(s, ".XLS", "");
    return Left(s, kMaxSheetName);
}

std::string FixWorkSheetName(std::string_view name,
                             const std::function<bool(std::string_view)>& exists) {
    std::string s = Left(CleanWorkSheetChars(name), kMaxSheetName);
    if (!exists || !exists(s)) return s;
    for (int n = 1;; ++n) {
        std::string suffix("_");
        suffix += std::to_string(n);
        std::string candidate = Left(s, kMaxSheetName - suffix.size()) + suffix;
        if (!exists(candidate)) return candidate;
    }
}

std::string FixWorkbookPathName(std::string_view path) {
    size_t sep = LastSep(path);
    std::string folder = sep == std::string_view::npos ? std::string() : std::string(path.substr(0, sep + 1));
    std::string file = sep == std::string_view::npos ? std::string(path) : std::string(path.substr(sep + 1));
    // The extension stays; the rules apply to the name before it.
    size_t dot = file.rfind('.');
    std::string stem = dot == std::string::npos ? file : file.substr(0, dot);
    std::string ext = dot == std::string::npos ? std::string() : file.substr(dot);
    stem = CleanWorkSheetChars(stem);
    stem = Replace(stem, ":", "");
    stem = Replace(stem, "*", "x");
    return folder + stem + ext;
}

}  // namespace zorv

namespace zorv {
std::string FixWorkSheetName(Workbook* workbook, std::string_view name) {
    if (!workbook) return FixWorkSheetName(name, nullptr);
    return FixWorkSheetName(name, [workbook](std::string_view n) { return workbook->sheet(n) != nullptr; });
}
}  // namespace zorv
