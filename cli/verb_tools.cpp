// zorv-cli tools: the exposure tool library from a shell.
#include <cstdio>
#include <string>
#include <vector>

#include "base/proc.h"
#include "base/text.h"
#include "json.h"
#include "layout/tool_library.h"
#include "verbs.h"
#include "workbook/store.h"

namespace zorv::cli {

const char kToolsHelp[] =
    "Usage: zorv-cli tools list [--library FILE] [--json]\n"
    "       zorv-cli tools show NAME [--library FILE] [--json]\n"
    "       zorv-cli tools set NAME KEY=VALUE... [--library FILE]\n\n"
    "The exposure tool library: one tool per column of the sheet \"ExposureTools\"\n"
    "of Reticles/ExposureToolLibrary.xlsx beside the program (an older .xls there\n"
    "is read and saved as .xlsx), made from the \"ToolSettings\" when missing.\n\n"
    "  list    the tools' names\n"
    "  show    one tool's values\n"
    "  set     stores a tool: its values as they stand (or, for a new name, the\n"
    "          settings' tool) with the given keys changed, e.g.\n"
    "          tools set \"Scanner 4\" NA=0.75 PCinner=0.55 \"Tool Type\"=SCANNER\n"
    "          Keys: Exposure Tool, Tool Type, Substrate, Notch, Reduction, NA,\n"
    "          PCinner, PCouter, Wavelength, FocalLength, FieldSizeX, FieldSizeY,\n"
    "          FieldCenterX, FieldCenterY, SubWidth, SubHeight, SubXoffset, SubYoffset\n\n"
    "Exit: 0 done, 1 a tool or key not found or the library not written, 2 bad arguments.\n";

namespace {

void PrintTool(const ExpoTool& t, bool json) {
    const auto& rows = ExpoToolRows();
    if (json) {
        Json j;
        j.beginObject();
        for (size_t i = 0; i < rows.size(); ++i) j.field(rows[i].key, t.values[i]);
        j.endObject();
        std::printf("%s\n", j.str().c_str());
        return;
    }
    for (size_t i = 0; i < rows.size(); ++i) std::printf("%-15s %s\n", rows[i].key, t.values[i].c_str());
}

}  // namespace

int RunTools(const Args& args) {
    const Args pos = Positional(args, {"--library"});
    const bool json = HasFlag(args, "--json");
    const std::string what = pos.empty() ? std::string() : pos[0];
    if (what != "list" && what != "show" && what != "set") {
        std::fprintf(stderr, "Usage: zorv-cli tools list|show NAME|set NAME KEY=VALUE... [--library FILE]\n");
        return kExitUsage;
    }
    if ((what == "show" && pos.size() != 2) || (what == "set" && pos.size() < 3)) {
        std::fprintf(stderr, "Usage: zorv-cli tools %s NAME%s [--library FILE]\n", what.c_str(),
                     what == "set" ? " KEY=VALUE..." : "");
        return kExitUsage;
    }
    WorkbookPtr wb;
    auto sheet = GetExpoToolLibrary(wb, OptionValue(args, "--library"));
    if (!sheet) return ShowFailure(sheet.failure(), json);
    if (what == "list") {
        const std::vector<std::string> names = ExpoToolNames(**sheet);
        if (json) {
            Json j;
            j.beginObject().field("library", wb->path()).key("tools").beginArray();
            for (const std::string& n : names) j.value(n);
            j.endArray().endObject();
            std::printf("%s\n", j.str().c_str());
        } else {
            std::printf("Library %s: %zu tools\n", wb->path().c_str(), names.size());
            for (const std::string& n : names) std::printf("  %s\n", n.c_str());
        }
        // A library made just now is kept.
        if (wb->isDirty())
            if (Status st = SaveToolLibrary(wb); !st) return ShowFailure(st.failure(), json);
        return kExitOk;
    }
    const std::string& name = pos[1];
    if (what == "show") {
        auto tool = UpdateExpoToolFromLibrary(*sheet, name);
        if (!tool) return ShowFailure(tool.failure(), json);
        PrintTool(*tool, json);
        return kExitOk;
    }
    // set: the tool as stored, else the settings' tool, under its name.
    auto stored = UpdateExpoToolFromLibrary(*sheet, name);
    ExpoTool tool = stored ? *stored : ExpoToolFromSettings();
    if (!stored) tool["Exposure Tool"] = name;  // a stored tool keeps its name as written
    Proc p("zorv-cli(tools): ");
    for (size_t i = 2; i < pos.size(); ++i) {
        const size_t eq = pos[i].find('=');
        bool known = false;
        for (const ExpoToolRow& r : ExpoToolRows()) known = known || (eq != std::string::npos && IEquals(r.key, Trim(pos[i].substr(0, eq))));
        if (!known) return ShowFailure(p.fail("Not a key of the library: '" + pos[i] + "'."), json);
        tool[Trim(pos[i].substr(0, eq))] = Trim(pos[i].substr(eq + 1));
    }
    if (Status st = SaveExpoTool2Library(*sheet, tool); !st) return ShowFailure(st.failure(), json);
    if (Status st = SaveToolLibrary(wb); !st) return ShowFailure(st.failure(), json);
    if (!json) std::printf("Tool Library saved! %s: '%s'\n", wb->path().c_str(), tool.name().c_str());
    PrintTool(tool, json);
    return kExitOk;
}

}  // namespace zorv::cli
