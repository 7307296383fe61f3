// Handing failures, warnings and progress to a caller that may not have asked.
#pragma once

#include <string>
#include <utility>

#include "numerics/notes.h"

namespace zorv {

// The failure has been composed (which marks the Proc handled) whether or not
// the caller takes it.
inline void TellFailure(Notes* notes, Failure f) {
    if (notes) notes->failure = std::move(f);
}

inline void TellWarning(Notes* notes, Warning w) {
    if (notes) notes->warnings.push_back(std::move(w));
}

inline void TellStatus(Notes* notes, const std::string& text) {
    if (notes && notes->status) notes->status(text);
}

inline void TellProgress(Notes* notes, int percent) {
    if (notes && notes->progress) notes->progress(percent);
}

}  // namespace zorv
