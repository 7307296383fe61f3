#include "ui/dma_mode.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "app/startup.h"
#include "base/text.h"

namespace zorv::ui {

namespace {

// A switch as the monitor's parser takes it: "-" at the start or after a
// blank, its letter, then the end, a blank or a quote.
bool HasRunSwitch(const std::string& line) {
    for (size_t i = 0; i + 1 < line.size(); ++i) {
        if (line[i] != '-' || (i > 0 && !std::isspace(static_cast<unsigned char>(line[i - 1])))) continue;
        if (i + 2 < line.size() && !std::isspace(static_cast<unsigned char>(line[i + 2])) && line[i + 2] != '"')
            continue;
        const char c = static_cast<char>(std::tolower(static_cast<unsigned char>(line[i + 1])));
        if (c == 'f' || c == 'd' || c == 't') return true;
    }
    return false;
}

bool Empty(const char* v) { return !v || !*v; }

}  // namespace

std::optional<std::string> DMAAutomationLine(const std::string& commandLine) {
    if (Upper(commandLine) == "/PALVEX") return std::nullopt;
    bool dma = false;
    for (const RunMode* m : MatchRunModes(commandLine)) dma = dma || std::strcmp(m->word, "DMA") == 0;
    if (!dma) return std::nullopt;
    const size_t at = Upper(commandLine).find("DMA");
    if (at == std::string::npos) return std::nullopt;
    std::string rest = commandLine.substr(at + 3);
    if (!HasRunSwitch(rest)) return std::nullopt;
    return rest;
}

bool NoDisplay(const char* display, const char* waylandDisplay, const char* qtPlatform) {
    if (Empty(display) && Empty(waylandDisplay)) return true;
    if (Empty(qtPlatform)) return false;
    // "offscreen:fontengine=..." carries options after the name.
    std::string name = qtPlatform;
    name = name.substr(0, name.find(':'));
    return name == "offscreen" || name == "minimal";
}

bool NoDisplay() {
    return NoDisplay(std::getenv("DISPLAY"), std::getenv("WAYLAND_DISPLAY"), std::getenv("QT_QPA_PLATFORM"));
}

}  // namespace zorv::ui
