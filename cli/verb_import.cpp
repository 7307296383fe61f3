// zorv-cli formats and import: the table of tool formats, and a raw tool
// file through its reader into a data workbook and a lot.
#include <cassert>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>

#include "base/proc.h"
#include "import/import.h"
#include "json.h"
#include "tables.h"
#include "verbs.h"
#include "workbook/data_workbook.h"
#include "workbook/lot_summary.h"

namespace zorv::cli {

namespace {

std::vector<std::string> SplitList(const std::string& s) {
    std::vector<std::string> out;
    std::stringstream in(s);
    std::string item;
    while (std::getline(in, item, ','))
        if (!item.empty()) out.push_back(item);
    return out;
}

}  // namespace

const char kFormatsHelp[] =
    "Usage: zorv-cli formats [--json]\n\n"
    "Lists the import formats in the order the program offers them: description, file\n"
    "filter, reader procedure, and whether the reader is built. A format whose reader\n"
    "is not built answers an import with \"Data import format not available.\".\n";

int RunFormats(const Args& args) {
    if (!Positional(args).empty()) {
        std::fprintf(stderr, "Usage: zorv-cli formats [--json]\n");
        return kExitUsage;
    }
    const Datam& t = FormatTable();
    if (HasFlag(args, "--json")) {
        Json j;
        j.beginArray();
        for (int r = 1; r <= t.rowUb(); ++r) {
            const std::string proc(t(r, 2).str());
            j.beginObject()
                .field("description", std::string(t(r, 0).str()))
                .field("filter", std::string(t(r, 1).str()))
                .field("procedure", proc)
                .field("available", ReaderOfProcedure(proc) != nullptr)
                .endObject();
        }
        j.endArray();
        std::printf("%s\n", j.str().c_str());
        return kExitOk;
    }
    std::printf("%-42s %-14s %-30s %s\n", "Description", "Filter", "Procedure", "Reader");
    for (int r = 1; r <= t.rowUb(); ++r) {
        const std::string proc(t(r, 2).str());
        std::printf("%-42s %-14s %-30s %s\n", std::string(t(r, 0).str()).c_str(), std::string(t(r, 1).str()).c_str(),
                    proc.c_str(), ReaderOfProcedure(proc) ? "yes" : "not available");
    }
    return kExitOk;
}

const char kImportHelp[] =
    "Usage: zorv-cli import FILE [--format \"DESCRIPTION\"] [--out DIR] [--workbook PATH]\n"
    "                        [--sheets A,B] [--json]\n\n"
    "Reads a raw tool file with the reader of its format (a description as\n"
    "`zorv-cli formats` lists it), writes the data workbook and loads it as a lot, then\n"
    "prints the workbook's path and the lot summary of `info`. Without --format the\n"
    "format is detected from the file's first kilobytes and the choice is printed with\n"
    "the words that decided it; a file that fits no format, or two equally, names the\n"
    "best candidates and exits with 1.\n\n"
    "--out DIR       folder of the workbook (default: the source's folder)\n"
    "--workbook PATH the workbook to write\n"
    "--sheets A,B    for \"Focus/Dose(FEM) spreadsheets\": the sheets to take (default\n"
    "                every \"CD_\" sheet)\n\n"
    "A reader's failure prints its message (tag, text naming the file and line, \" chk: \"\n"
    "and checkpoint) on stderr and exits with 1; nothing is written. With --json the\n"
    "result is {\"format\", \"detected\", \"workbook\", ... the fields of `info --json`} and a\n"
    "failure the object {\"error\": {...}} on stdout.\n";

int RunImport(const Args& args) {
    const Args pos = Positional(args, {"--format", "--out", "--workbook", "--sheets"});
    if (pos.size() != 1) {
        std::fprintf(stderr, "Usage: zorv-cli import FILE [--format \"DESCRIPTION\"] [--out DIR] [--json]\n");
        return kExitUsage;
    }
    const bool json = HasFlag(args, "--json");
    std::string detected;
    Result<ImportRequest> file = GetDataFile(pos[0], OptionValue(args, "--format"), &detected);
    if (!file) return ShowFailure(file.failure(), json);
    ImportRequest req = *file;
    req.dataFolder = OptionValue(args, "--out");
    req.workbookPath = OptionValue(args, "--workbook");
    req.sheets = SplitList(OptionValue(args, "--sheets"));
    if (!detected.empty() && !json) std::fprintf(stderr, "Format: %s\n", detected.c_str());
    Result<std::string> written = ImportCall(req);
    if (!written) return ShowFailure(written.failure(), json);

    LoadOptions options;
    options.quiet = true;
    std::shared_ptr<cLot> lot;
    WBLotTables tables;
    if (Status st = GetExcelWBLot(*written, options, lot, &tables); !st) return ShowFailure(st.failure(), json);
    KeepUntilExit(lot);
    assert(lot);
    const LotSummary summary = SummarizeLot(*lot, tables);
    if (json) {
        Json j;
        j.beginObject();
        j.field("format", req.description).field("detected", detected);
        WriteLotSummaryJson(j, *written, summary);
        j.endObject();
        std::printf("%s\n", j.str().c_str());
    } else {
        std::printf("Format:        %s\n", req.description.c_str());
        PrintLotSummaryText(*written, summary);
    }
    return kExitOk;
}

}  // namespace zorv::cli
