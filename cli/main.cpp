// zorv-cli: the headless verbs of Zorv. kVerbs lists them; a verb parses its
// flags, calls one core routine and prints what the core computed.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "base/identity.h"
#include "base/proc.h"
#include "base/process.h"
#include "base/report.h"
#include "json.h"
#include "verbs.h"

namespace zorv::cli {

namespace {

struct Verb {
    const char* name;
    const char* summary;  // one line, for the verb list
    const char* help;     // the whole --help text
    int (*run)(const Args& args);
};

constexpr Verb kVerbs[] = {
    {"version", "print the product and version", kVersionHelp, RunVersion},
    {"info", "load a data workbook into a lot and print its summary", kInfoHelp, RunInfo},
    {"sample-workbook", "write a synthetic data workbook with known values", kSampleWorkbookHelp,
     RunSampleWorkbook},
    {"formats", "list the import formats and which readers are built", kFormatsHelp, RunFormats},
    {"import", "read a raw tool file into a data workbook and print its lot", kImportHelp, RunImport},
    {"simulate", "write a synthetic tool file with a known truth (fem, overlay, psfm, reticle)", kSimulateHelp,
     RunSimulate},
    {"stats", "print a statistics table of a lot: summary, raw, IFD, feature, precision, covariance",
     kStatsHelp, RunStats},
    {"cull", "cull a lot by range and sigma per family, radius or a variable's limits", kCullHelp, RunCull},
    {"model", "fit wafer and field models (offset, tilts, bows ...; piston, tilt, curvature)", kModelHelp,
     RunModel},
    {"plot", "draw a chart of a sheet (xy, histogram, box plot) or a map of the lot as PNG, SVG or PDF", kPlotHelp, RunPlot},
    {"pw", "process window of a focus-exposure lot: dose, focus, dose at best focus, window, isofocal", kPwHelp, RunPw},
    {"calibrate", "PSFM focus calibration of a focus matrix: per-site fits, inverses, a template", kCalibrateHelp,
     RunCalibrate},
    {"templates", "the calibration template library: list, show, rename, delete, export, import", kTemplatesHelp,
     RunTemplates},
    {"layout", "exposure layout of a wafer: a variable stepped along a meander from a start field", kLayoutHelp,
     RunLayout},
    {"convert", "convert a lot's image shifts into focus by a calibration template", kConvertHelp, RunConvert},
    {"bestfocus", "field tilt and curvature of best focus: per exposure of a calibration, or per field", kBestFocusHelp,
     RunBestFocus},
    {"astig", "astigmatism (H - V) of a lot: statistics and the range and sigma culls", kAstigHelp, RunAstig},
    {"meef", "mask error factors (MEEF, BEEF) of a wafer lot against its reticle measurement", kMeefHelp, RunMeef},
    {"monitor", "the daily monitor: a template run on a data file, batches, trend charts", kMonitorHelp, RunMonitor},
    {"tools", "the exposure tool library: list, show and set tools by name", kToolsHelp, RunTools},
};

const Verb* FindVerb(const std::string& name) {
    for (const Verb& v : kVerbs)
        if (name == v.name) return &v;
    return nullptr;
}

void PrintUsage() {
    std::printf("%s %s\n\nUsage: zorv-cli VERB [ARGS...]\n       zorv-cli VERB --help\n\nVerbs:\n",
                kProductName, VersionString().c_str());
    int width = 12;
    for (const Verb& v : kVerbs) width = std::max(width, static_cast<int>(std::strlen(v.name)) + 1);
    for (const Verb& v : kVerbs) std::printf("  %-*s %s\n", width, v.name, v.summary);
    std::printf("\nOptions:\n  --version    print the version line\n  --help       this text\n");
    std::printf(
        "\nFailures: a verb whose work fails prints the message on stderr and exits with 1;\n"
        "with --json the message is an object {\"error\": {...}} on stdout instead (see the\n"
        "verb's --help). Bad arguments and unknown verbs print on stderr and exit with 2.\n");
}

// A throw out of a verb is a bug rather than bad input; it still leaves as
// one failure, in the form the caller asked for.
int ShowEscaped(const Verb& v, const char* what, bool json) {
    if (!json) {
        std::fprintf(stderr, "zorv-cli %s: %s\n", v.name, what);
        return kExitFailed;
    }
    Failure f;
    f.tag = std::string("zorv-cli ") + v.name + ": ";
    f.text = what;
    f.runtime = true;
    return ShowFailure(f, true);
}

}  // namespace

const char kVersionHelp[] = "Usage: zorv-cli version [--json]\n";

int RunVersion(const Args& args) {
    if (HasFlag(args, "--json")) {
        Json j;
        j.beginObject()
            .field("product", kProductName)
            .field("company", kCompanyName)
            .field("version", VersionString())
            .field("versionLine", VersionLine())
            .endObject();
        std::printf("%s\n", j.str().c_str());
    } else {
        std::printf("%s\n", VersionLine().c_str());
    }
    return kExitOk;
}

int ShowFailure(const Failure& failure, bool json) {
    if (!json) {
        // main installs a stderr reporter: the message reads as the box would.
        // A failure without text stopped at a question, which the reporter
        // printed (and answered No): that was the message.
        if (!failure.text.empty()) Report(failure);
        return kExitFailed;
    }
    // Location fields only when the failure knows them, so a reader tests for
    // the key rather than for "" or 0.
    Json j;
    j.beginObject().key("error").beginObject();
    j.field("tag", failure.tag).field("chk", failure.chk).field("text", failure.text);
    if (!failure.file.empty()) j.field("file", failure.file);
    if (!failure.sheet.empty()) j.field("sheet", failure.sheet);
    if (failure.row != 0) j.field("row", static_cast<long long>(failure.row));
    if (failure.col != 0) j.field("col", failure.col);
    j.endObject().endObject();
    std::printf("%s\n", j.str().c_str());
    std::fflush(stdout);
    return kExitFailed;
}

bool HasFlag(const Args& args, const std::string& flag) {
    return std::find(args.begin(), args.end(), flag) != args.end();
}

std::string OptionValue(const Args& args, const std::string& name) {
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == name && i + 1 < args.size()) return args[i + 1];
        if (args[i].rfind(name + "=", 0) == 0) return args[i].substr(name.size() + 1);
    }
    return {};
}

std::vector<std::string> OptionValues(const Args& args, const std::string& name) {
    std::vector<std::string> out;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == name && i + 1 < args.size()) out.push_back(args[++i]);
        else if (args[i].rfind(name + "=", 0) == 0) out.push_back(args[i].substr(name.size() + 1));
    }
    return out;
}

Args Positional(const Args& args, const std::vector<std::string>& valueOptions) {
    Args out;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (std::find(valueOptions.begin(), valueOptions.end(), a) != valueOptions.end()) {
            ++i;
            continue;
        }
        if (a.size() > 1 && a[0] == '-' && a[1] == '-') continue;
        out.push_back(a);
    }
    return out;
}

}  // namespace zorv::cli

int main(int argc, char** argv) {
    using namespace zorv;
    using namespace zorv::cli;
    PreferHugePageHeap(argv);
    StreamReporter reporter(stderr, false);
    SetReporter(&reporter);
    std::error_code ec;
    const auto exe = std::filesystem::canonical("/proc/self/exe", ec);
    if (!ec) SetProgramFolder(exe.parent_path().string());

    Args args(argv + 1, argv + argc);
    if (args.empty() || args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
        if (args.size() >= 2) {
            args = {args[1], "--help"};
        } else {
            PrintUsage();
            return args.empty() ? kExitUsage : kExitOk;
        }
    }
    if (args[0] == "--version") return RunVersion({args.begin() + 1, args.end()});
    const Verb* verb = FindVerb(args[0]);
    if (!verb) {
        std::fprintf(stderr, "zorv-cli: unknown verb '%s'. Try 'zorv-cli --help'.\n", args[0].c_str());
        return kExitUsage;
    }
    const Args rest(args.begin() + 1, args.end());
    if (HasFlag(rest, "--help") || HasFlag(rest, "-h")) {
        std::printf("%s", verb->help);
        return kExitOk;
    }
    try {
        return verb->run(rest);
    } catch (const std::exception& e) {
        return ShowEscaped(*verb, e.what(), HasFlag(rest, "--json"));
    }
}
