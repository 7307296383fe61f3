// The monitor run without a user: which command lines start it, and whether
// a display is there for its closing notice. Decided before any Qt object
// exists, so a machine without a display runs it too.
#pragma once

#include <optional>
#include <string>

namespace zorv::ui {

// The line the automation run gets: the text after the word "DMA" of a line
// whose run modes include "DMA" and which holds a data ("-f", "-d") or
// template ("-t") switch. None: the program starts as usual ("/PALVEX"
// always does).
std::optional<std::string> DMAAutomationLine(const std::string& commandLine);

// True when no window can be shown: neither DISPLAY nor WAYLAND_DISPLAY is
// set, or the Qt platform is "offscreen" or "minimal". Null reads as unset.
bool NoDisplay(const char* display, const char* waylandDisplay, const char* qtPlatform);
// The same from this process's environment.
bool NoDisplay();

}  // namespace zorv::ui
