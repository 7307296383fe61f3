// zorv-cli info: loads a data workbook into a lot and prints its summary.
#include <cassert>
#include <cstdio>
#include <memory>
#include <string>

#include "base/proc.h"
#include "json.h"
#include "tables.h"
#include "verbs.h"
#include "workbook/data_workbook.h"
#include "workbook/lot_summary.h"

namespace zorv::cli {

void WriteLotSummaryJson(Json& j, const std::string& workbook, const LotSummary& s) {
    j.field("workbook", workbook).field("sheet", s.sheet).field("lot", s.lot);
    j.field("dataType", s.dataType).field("dataSource", static_cast<long long>(s.dataSource));
    j.field("lineWidthType", s.scalar);
    j.field("metrologyTool", s.metrologyTool).field("exposureTool", s.exposureTool);
    j.field("dateMeasured", s.dateMeasured).field("timeMeasured", s.timeMeasured);
    j.field("processDate", s.processDate);
    j.key("counts").beginObject();
    j.field("wafers", static_cast<long long>(s.wafers)).field("fields", static_cast<long long>(s.fields));
    j.field("sites", static_cast<long long>(s.sites)).field("points", static_cast<long long>(s.points));
    j.endObject();
    j.key("features").beginArray();
    for (const LotFeatureSummary& f : s.features)
        j.beginObject().field("slot", f.slot).field("name", f.name).field("units", f.units).endObject();
    j.endArray();
    j.key("geometryMm").beginObject();
    j.field("dieSizeX", s.dieSizeXMm).field("dieSizeY", s.dieSizeYMm);
    j.field("siteXoffset", s.siteXoffsetMm).field("siteYoffset", s.siteYoffsetMm);
    j.field("dieXoffset", s.dieXoffsetMm).field("dieYoffset", s.dieYoffsetMm);
    j.field("dieXarray", s.dieXarray).field("dieYarray", s.dieYarray);
    j.field("waferSize", s.waferSizeMm);
    j.endObject();
    j.field("notch", s.notch);
    j.key("families").beginArray();
    for (const LotFamilySummary& f : s.families)
        j.beginObject()
            .field("enum", f.number.toDouble())
            .field("name", f.name)
            .field("count", f.count.toDouble())
            .endObject();
    j.endArray();
    j.key("information").beginObject();
    for (const auto& [key, value] : s.information) j.field(key, value);
    j.endObject();
}

void PrintLotSummaryText(const std::string& workbook, const LotSummary& s) {
    std::printf("Workbook:      %s\n", workbook.c_str());
    std::printf("Data sheet:    %s\n", s.sheet.c_str());
    std::printf("Lot:           %s\n", s.lot.c_str());
    std::printf("Data type:     %s (DataSource %ld)%s\n", s.dataType.c_str(), s.dataSource,
                s.scalar ? ", scalar" : "");
    std::printf("Metrology:     %s\n", s.metrologyTool.c_str());
    std::printf("Exposure tool: %s\n", s.exposureTool.c_str());
    std::printf("Measured:      %s %s\n", s.dateMeasured.c_str(), s.timeMeasured.c_str());
    std::printf("Counts:        %ld wafers, %ld fields, %ld sites, %ld points\n", s.wafers, s.fields, s.sites,
                s.points);
    for (const LotFeatureSummary& f : s.features)
        std::printf("Feature %-6s %s [%s]\n", f.slot.c_str(), f.name.c_str(), f.units.c_str());
    std::printf("Die size:      %.4f x %.4f mm\n", s.dieSizeXMm, s.dieSizeYMm);
    std::printf("Site offset:   %.4f, %.4f mm\n", s.siteXoffsetMm, s.siteYoffsetMm);
    std::printf("Die offset:    %.4f, %.4f mm; array %.2f, %.2f\n", s.dieXoffsetMm, s.dieYoffsetMm, s.dieXarray,
                s.dieYarray);
    std::printf("Wafer size:    %.1f mm, notch %s\n", s.waferSizeMm, s.notch.c_str());
    for (const LotFamilySummary& f : s.families)
        std::printf("Family %-7s %s (%s sites)\n", f.number.toString().c_str(), f.name.c_str(),
                    f.count.toString().c_str());
    std::printf("Information:\n");
    for (const auto& [key, value] : s.information) std::printf("  %-18s %s\n", key.c_str(), value.c_str());
}

const char kInfoHelp[] =
    "Usage: zorv-cli info WORKBOOK [--sheet NAME] [--json]\n\n"
    "Loads the data workbook (as the program does) and prints the lot: name, data type,\n"
    "tools, dates, counts of wafers, fields, sites and points, features and units,\n"
    "geometry, families and the Information keys. The user's settings are neither read\n"
    "nor written: focus corrections on, a 200 mm substrate where the workbook gives none.\n\n"
    "A workbook that cannot be loaded gives the loader's message on stderr (its tag,\n"
    "the text, \" chk: \" and the checkpoint) and exit code 1. With --json the message\n"
    "is an object on stdout instead, and is not repeated on stderr:\n"
    "  {\"error\": {\"tag\": \"...\", \"chk\": N, \"text\": \"...\",\n"
    "             \"file\": \"...\", \"sheet\": \"...\", \"row\": N, \"col\": N}}\n"
    "file, sheet, row and col are present only when the failure names them. A data\n"
    "sheet that cannot be found asks whether to use the first sheet; the question is\n"
    "printed on stderr and answered No, and is then the only message (with --json the\n"
    "error object has an empty text). Bad arguments give the usage line on stderr and\n"
    "exit code 2.\n";

int RunInfo(const Args& args) {
    const Args pos = Positional(args, {"--sheet"});
    if (pos.size() != 1) {
        std::fprintf(stderr, "Usage: zorv-cli info WORKBOOK [--sheet NAME] [--json]\n");
        return kExitUsage;
    }
    const bool json = HasFlag(args, "--json");
    // The verb only reads, so the options come from here, not from the settings.
    LoadOptions options;
    options.sheetName = OptionValue(args, "--sheet");
    options.quiet = true;
    std::shared_ptr<cLot> lot;
    WBLotTables tables;
    if (Status st = GetExcelWBLot(pos[0], options, lot, &tables); !st) return ShowFailure(st.failure(), json);
    KeepUntilExit(lot);
    assert(lot);  // a load that succeeds hands back its lot
    const LotSummary summary = SummarizeLot(*lot, tables);
    if (json) {
        Json j;
        j.beginObject();
        WriteLotSummaryJson(j, pos[0], summary);
        j.endObject();
        std::printf("%s\n", j.str().c_str());
    } else {
        PrintLotSummaryText(pos[0], summary);
    }
    return kExitOk;
}

}  // namespace zorv::cli
