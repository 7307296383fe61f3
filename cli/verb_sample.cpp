// zorv-cli sample-workbook: writes a synthetic data workbook with known values
// through SaveData (for demonstrations, tests and benchmarks).
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "verbs.h"
#include "workbook/data_workbook.h"
#include "workbook/data_workbook_sample.h"

namespace zorv::cli {
namespace {

int IntOption(const std::vector<std::string>& args, const std::string& name, int def) {
    std::string v = OptionValue(args, name);
    return v.empty() ? def : std::atoi(v.c_str());
}

int runSample(const std::vector<std::string>& args) {
    const std::vector<std::string> valueOptions = {"--wafers", "--fields", "--sites", "--values", "--type",
                                                   "--blank-every", "--excluded", "--name", "--families",
                                                   "--wafer-size"};
    std::vector<std::string> pos = Positional(args, valueOptions);
    if (pos.size() != 1) {
        std::fprintf(stderr, "Usage: zorv-cli sample-workbook OUT.xlsx [options]\n");
        return 2;
    }
    SampleSpec shape;
    shape.wafers = IntOption(args, "--wafers", 2);
    shape.fieldsX = shape.fieldsY = IntOption(args, "--fields", 3);
    shape.sitesX = shape.sitesY = IntOption(args, "--sites", 2);
    shape.values = IntOption(args, "--values", 3);
    shape.dataType = IntOption(args, "--type", 1);
    shape.blankEvery = IntOption(args, "--blank-every", 0);
    shape.excludedRows = IntOption(args, "--excluded", 0);
    shape.waferSizeMm = IntOption(args, "--wafer-size", 0);
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
    std::string saved;
    if (SaveData(t.data, t.excluded, t.sites, t.information, "Sample workbook", &saved) < 1) return 1;
    std::printf("%s\n", saved.c_str());
    return 0;
}

ZORV_VERB(Verb{"sample-workbook", "write a synthetic data workbook with known values",
               "Usage: zorv-cli sample-workbook OUT.xlsx [--wafers N] [--fields N] [--sites N]\n"
               "         [--values N] [--type N] [--blank-every N] [--excluded N]\n"
               "         [--families A,B] [--wafer-size MM] [--name SHEET]\n\n"
               "Writes a data workbook through SaveData: N wafers of an N x N field grid centred\n"
               "on index 0, N x N sites per field, values that follow from wafer, field and site.\n"
               "--type is the data type number (1 overlay, 2 CD SEM, 4 focus ...).\n",
               runSample});

}  // namespace
}  // namespace zorv::cli
