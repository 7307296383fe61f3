// Switches the C locale to one whose decimal separator is ",", building a
// German locale with localedef under the test folder when the system has none.
#pragma once

#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace zorv::testing {

// True when LC_ALL now has a comma decimal separator; RestoreCLocale undoes it.
inline bool UseCommaLocale() {
    namespace fs = std::filesystem;
    for (const char* n : {"de_DE.UTF-8", "de_DE.utf8", "de_DE"})
        if (std::setlocale(LC_ALL, n)) return true;
    if (std::system("command -v localedef >/dev/null 2>&1") != 0) return false;
    const fs::path loc = fs::path(ZORV_TEST_TMP) / "locale";
    fs::create_directories(loc);
    const bool built = fs::exists(loc / "de_DE.UTF-8" / "LC_NUMERIC");
    const std::string cmd =
        built ? std::string("true")
              : "localedef -i de_DE -f UTF-8 '" + (loc / "de_DE.UTF-8").string() + "' >/dev/null 2>&1";
    if (std::system(cmd.c_str()) != 0) return false;
    ::setenv("LOCPATH", loc.c_str(), 1);
    return std::setlocale(LC_ALL, "de_DE.UTF-8") != nullptr;
}

inline void RestoreCLocale() {
    std::setlocale(LC_ALL, "C");
    ::unsetenv("LOCPATH");
}

}  // namespace zorv::testing
