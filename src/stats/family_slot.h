// Gathering live points by site family in one walk of the tree.
#pragma once

#include <cstddef>
#include <vector>

namespace zorv {

// The slot of family `key` in `fams` (T has a `long key`), added when new and
// handed to `made` to prepare. The slot found last is tried first: sites of a
// family mostly come together.
template <class T, class Made>
T& FamilySlot(std::vector<T>& fams, long key, size_t& last, Made&& made) {
    if (last >= fams.size() || fams[last].key != key) {
        last = 0;
        while (last < fams.size() && fams[last].key != key) ++last;
        if (last == fams.size()) {
            fams.emplace_back();
            fams.back().key = key;
            made(fams.back());
        }
    }
    return fams[last];
}

}  // namespace zorv
