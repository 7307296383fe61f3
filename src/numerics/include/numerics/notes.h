// What a numerics routine tells its caller besides its result. Nothing in
// numerics shows anything: the caller that owns a window (or zorv-cli)
// decides what to show, and shows a failure once.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/proc.h"

namespace zorv {

// A text the routine went on after.
struct Warning {
    std::string text;
    std::string tag;          // the routine's tag, a box's title; empty where it has none
    bool statusLine = false;  // meant for the status line rather than a box
};

// A routine fills what it has to say and never clears what is there, so one
// Notes can follow a routine through the routines it calls.
struct Notes {
    // Why the routine (or a routine it called) gave its neutral result. An
    // inner failure can stand beside a usable result where the routine went on.
    std::optional<Failure> failure;
    std::vector<Warning> warnings;
    // Live progress of long routines, when the caller shows it: status-line
    // texts, and a percentage (-1 when the display may go).
    std::function<void(const std::string&)> status;
    std::function<void(int)> progress;
};

}  // namespace zorv
