// Reserving the large blocks that a million-row table or sort needs.
#pragma once

#include <cstddef>
#include <vector>

namespace zorv {

// Asks the system to back a block in huge pages where it can (Linux), so that
// touching tens of megabytes costs a few hundred page faults rather than tens
// of thousands; elsewhere, and for small blocks, nothing.
void AdviseHugePages(void* data, size_t bytes);

// v.reserve(n), with large blocks advised as above before they are touched.
template <class T>
void ReserveLarge(std::vector<T>& v, size_t n) {
    if (v.capacity() >= n) return;
    v.reserve(n);
    AdviseHugePages(v.data(), n * sizeof(T));
}

}  // namespace zorv
