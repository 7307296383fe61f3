// zorv-cli sample-workbook: writes a synthetic data workbook with known values
// through SaveData (for demonstrations, tests and benchmarks).
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/proc.h"
#include "json.h"
#include "verbs.h"
#include "workbook/data_workbook.h"
#include "workbook/data_workbook_sample.h"

namespace zorv::cli {
namespace {

// A whole number option within [lo, hi]; false (with a message naming the
// option) for text that is not one.
bool IntOption(const Args& args, const std::string& name, int def, int lo, int hi,
               int& out) {
    std::string v = OptionValue(args, name);
    if (v.empty()) {
        out = def;
        return true;
    }
    char* end = nullptr;
    long n = std::strtol(v.c_str(), &end, 10);
    if (end == v.c_str() || *end != '\0' || n < lo || n > hi) {
        std::fprintf(stderr, "sample-workbook: %s must be a whole number from %d to %d, not '%s'\n",
                     name.c_str(), lo, hi, v.c_str());
        return false;
    }
    out = static_cast<int>(n);
    return true;
}

// Rows below the header that one worksheet holds.
constexpr long kMaxSheetRows = 1048575;

}  // namespace

const char kSampleWorkbookHelp[] =
    "Usage: zorv-cli sample-workbook OUT.xlsx [--wafers N] [--fields N] [--sites N]\n"
    "         [--values N] [--type N] [--blank-every N] [--excluded N]\n"
    "         [--families A,B] [--wafer-size MM] [--name SHEET] [--json]\n\n"
    "Writes a data workbook through SaveData: N wafers of an N x N field grid centred\n"
    "on index 0, N x N sites per field, values that follow from wafer, field and site.\n"
    "--type is the data type number (1 overlay, 2 CD SEM, 4 focus ...).\n\n"
    "Prints the path written (with --json: {\"workbook\": PATH, \"rows\": N}). A workbook\n"
    "that cannot be written gives the message on stderr and exit code 1 (with --json\n"
    "an error object on stdout, as info's); options out of range give a message on\n"
    "stderr and exit code 2.\n";

int RunSampleWorkbook(const Args& args) {
    const std::vector<std::string> valueOptions = {"--wafers", "--fields", "--sites", "--values", "--type",
                                                   "--blank-every", "--excluded", "--name", "--families",
                                                   "--wafer-size"};
    const Args pos = Positional(args, valueOptions);
    if (pos.size() != 1) {
        std::fprintf(stderr, "Usage: zorv-cli sample-workbook OUT.xlsx [options]\n");
        return kExitUsage;
    }
    SampleSpec shape;
    int fields = 0, sites = 0, waferSize = 0;
    if (!IntOption(args, "--wafers", 2, 1, 10000, shape.wafers) ||
        !IntOption(args, "--fields", 3, 1, 1000, fields) || !IntOption(args, "--sites", 2, 1, 1000, sites) ||
        !IntOption(args, "--values", 3, 1, 8, shape.values) || !IntOption(args, "--type", 1, 0, 7, shape.dataType) ||
        !IntOption(args, "--blank-every", 0, 0, 1 << 30, shape.blankEvery) ||
        !IntOption(args, "--excluded", 0, 0, 1000000, shape.excludedRows) ||
        !IntOption(args, "--wafer-size", 0, 0, 1000, waferSize))
        return kExitUsage;
    shape.fieldsX = shape.fieldsY = fields;
    shape.sitesX = shape.sitesY = sites;
    shape.waferSizeMm = waferSize;
    const long long rows = 1LL * shape.wafers * fields * fields * sites * sites;
    if (rows > kMaxSheetRows) {
        std::fprintf(stderr, "sample-workbook: %lld rows do not fit one worksheet (at most %ld)\n", rows,
                     kMaxSheetRows);
        return kExitUsage;
    }
    shape.families = OptionValue(args, "--families");
    std::string out = pos[0];
    std::string name = OptionValue(args, "--name");
    if (name.empty()) {
        size_t slash = out.find_last_of("/\\");
        name = out.substr(slash == std::string::npos ? 0 : slash + 1);
        size_t dot = name.rfind('.');
        if (dot != std::string::npos) name.resize(dot);
    }
    shape.dataTable = name;
    shape.workbookPath = out;
    SampleTables t = MakeSampleTables(shape);
    Result<std::string> saved = SaveData(t.data, t.excluded, t.sites, t.information, "Sample workbook");
    const bool json = HasFlag(args, "--json");
    if (!saved) return ShowFailure(saved.failure(), json);
    if (json) {
        Json j;
        j.beginObject().field("workbook", *saved).field("rows", rows).endObject();
        std::printf("%s\n", j.str().c_str());
    } else {
        std::printf("%s\n", saved->c_str());
    }
    return kExitOk;
}

}  // namespace zorv::cli
