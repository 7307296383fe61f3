// What the verbs of zorv-cli share: their entry points, argument helpers and
// the one way a failure of the core leaves the program. The table that lists
// the verbs is in main.cpp.
#pragma once

#include <string>
#include <vector>

namespace zorv {
struct Failure;
struct LotSummary;
}

namespace zorv::cli {

using Args = std::vector<std::string>;

// Exit codes, the same for every verb.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;  // a core routine failed (or threw)
inline constexpr int kExitUsage = 2;   // bad arguments, unknown verb, no verb

// Entry points and --help texts of the verbs.
int RunVersion(const Args& args);
int RunInfo(const Args& args);
int RunSampleWorkbook(const Args& args);
int RunFormats(const Args& args);
int RunImport(const Args& args);
int RunSimulate(const Args& args);
int RunStats(const Args& args);
int RunCull(const Args& args);
int RunModel(const Args& args);
int RunPlot(const Args& args);
// plot's kinds drawn from the lot (maps, contours, 3D, the selected area).
bool IsMapKind(const std::string& kind);
int RunPlotMap(const Args& args, const std::string& kind);
int RunPw(const Args& args);
int RunCalibrate(const Args& args);
int RunTemplates(const Args& args);
int RunLayout(const Args& args);
int RunConvert(const Args& args);
int RunAstig(const Args& args);
int RunBestFocus(const Args& args);
int RunMeef(const Args& args);
int RunMonitor(const Args& args);
int RunTools(const Args& args);
extern const char kVersionHelp[];
extern const char kInfoHelp[];
extern const char kSampleWorkbookHelp[];
extern const char kFormatsHelp[];
extern const char kImportHelp[];
extern const char kSimulateHelp[];
extern const char kStatsHelp[];
extern const char kCullHelp[];
extern const char kModelHelp[];
extern const char kPlotHelp[];
extern const char kPwHelp[];
extern const char kCalibrateHelp[];
extern const char kTemplatesHelp[];
extern const char kLayoutHelp[];
extern const char kConvertHelp[];
extern const char kAstigHelp[];
extern const char kBestFocusHelp[];
extern const char kMeefHelp[];
extern const char kMonitorHelp[];
extern const char kToolsHelp[];

// Prints a failure of a core routine exactly once and gives kExitFailed:
// through the stderr reporter (tag, text, " chk: " and checkpoint, as a box
// reads), or with json as {"error": {...}} on stdout.
int ShowFailure(const Failure& failure, bool json);

// The lot summary of `info`, for every verb that ends with a loaded lot:
// its fields into an open JSON object, or the text block.
class Json;
void WriteLotSummaryJson(Json& j, const std::string& workbook, const LotSummary& s);
void PrintLotSummaryText(const std::string& workbook, const LotSummary& s);

// Small argument helpers shared by the verbs.
bool HasFlag(const Args& args, const std::string& flag);
// Value after "--name" or in "--name=value"; empty when absent.
std::string OptionValue(const Args& args, const std::string& name);
// Every value of a repeated option, in order.
std::vector<std::string> OptionValues(const Args& args, const std::string& name);
// Arguments that are neither flags nor option values of the listed options.
Args Positional(const Args& args, const std::vector<std::string>& valueOptions = {});

}  // namespace zorv::cli
