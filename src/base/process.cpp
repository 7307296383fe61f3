#include "base/process.h"

#include <unistd.h>

#include <cstdlib>
#include <string>

namespace zorv {

void PreferHugePageHeap(char** argv) {
#ifdef __GLIBC__
    if (std::getenv("ZORV_SMALL_PAGES")) return;
    const char* old = std::getenv("GLIBC_TUNABLES");
    const std::string tunables = old ? old : "";
    if (tunables.find("glibc.malloc.hugetlb") != std::string::npos) return;
    const std::string set = tunables.empty() ? "glibc.malloc.hugetlb=1" : tunables + ":glibc.malloc.hugetlb=1";
    if (setenv("GLIBC_TUNABLES", set.c_str(), 1) != 0) return;
    execv("/proc/self/exe", argv);
    // Still here: run on as we are, and leave the environment as it was.
    if (old) setenv("GLIBC_TUNABLES", old, 1);
    else unsetenv("GLIBC_TUNABLES");
#else
    (void)argv;
#endif
}

}  // namespace zorv
