// Start-up tuning of the process itself.
#pragma once

namespace zorv {

// Runs the program again, once, with glibc's heap on transparent huge pages.
// A lot of a million points is millions of small blocks; on 4 KB pages the
// first touch of its 400 MB costs about a quarter of a load. glibc reads the
// tunable only at start, hence the exec. Nothing happens when the tunable is
// already set, when ZORV_SMALL_PAGES is set, off glibc, or when the exec
// fails (the program then goes on as it is). Call first thing in main.
void PreferHugePageHeap(char** argv);

}  // namespace zorv
