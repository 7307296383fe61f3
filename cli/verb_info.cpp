// zorv-cli info: loads a data workbook into a lot and prints its summary.
#include <cstdio>
#include <string>
#include <vector>

#include "base/report.h"
#include "json.h"
#include "lot/lot.h"
#include "verbs.h"
#include "workbook/data_workbook.h"

namespace zorv::cli {
namespace {

struct Counts {
    long wafers = 0, fields = 0, sites = 0, points = 0;
};

Counts CountLot(const cLot& lot) {
    Counts c;
    for (cWafer* w : lot.Wafers()) {
        ++c.wafers;
        long siteCount = 0;
        for (cField* f : w->Fields()) {
            ++c.fields;
            for (cSite* s : f->sites()) {
                ++siteCount;
                c.points += s->Points().Count();
            }
        }
        if (siteCount == 0)
            for (cSite* s : w->SitesWafer()) {
                ++siteCount;
                c.points += s->Points().Count();
            }
        c.sites += siteCount;
    }
    return c;
}

const char* kDataTypes[] = {"Registration", "Overlay", "CDsem",         "Scatter",
                            "Focus",        "Thermal", "WaferSiteData", "Resistivity"};

int runInfo(const std::vector<std::string>& args) {
    std::vector<std::string> pos = Positional(args, {"--sheet"});
    if (pos.size() != 1) {
        std::fprintf(stderr, "Usage: zorv-cli info WORKBOOK [--sheet NAME] [--json]\n");
        return 2;
    }
    const bool json = HasFlag(args, "--json");
    std::shared_ptr<cLot> lot;
    WBLotTables t;
    if (GetExcelWBLot(pos[0], OptionValue(args, "--sheet"), lot, &t, true) < 1 || !lot) return 1;
    const cLot& L = *lot;
    Counts c = CountLot(L);
    const long ds = L.DataSource();
    const std::string dataType = ds >= 0 && ds <= 7 ? kDataTypes[ds] : "";

    struct Feature {
        const char* slot;
        std::string name;
        std::string unit;
    };
    std::vector<Feature> features;
    for (int f = 1; f <= 8; ++f) {
        std::string name = L.GetPlotFeatureName(f);
        if (name.empty()) continue;
        std::string unit;
        long code = 0;
        L.GetPlotFeatureUnits(f, unit, code);
        static const char* slots[] = {"", "V", "H", "Z", "Slope", "Pitch", "A", "B", "C"};
        features.push_back({slots[f], name, unit});
    }

    if (json) {
        Json j;
        j.beginObject();
        j.field("workbook", pos[0]).field("sheet", t.sheetName).field("lot", L.LotName);
        j.field("dataType", dataType).field("dataSource", static_cast<long long>(ds));
        j.field("lineWidthType", L.LineWidthType);
        j.field("metrologyTool", L.MetrologyTool).field("exposureTool", L.ExposureTool);
        j.field("dateMeasured", L.DateMeasured).field("timeMeasured", L.TimeMeasured);
        j.field("processDate", L.ProcessDate);
        j.key("counts").beginObject();
        j.field("wafers", static_cast<long long>(c.wafers)).field("fields", static_cast<long long>(c.fields));
        j.field("sites", static_cast<long long>(c.sites)).field("points", static_cast<long long>(c.points));
        j.endObject();
        j.key("features").beginArray();
        for (const Feature& f : features)
            j.beginObject().field("slot", f.slot).field("name", f.name).field("units", f.unit).endObject();
        j.endArray();
        j.key("geometryMm").beginObject();
        j.field("dieSizeX", L.DieSizeX / 1000.0).field("dieSizeY", L.DieSizeY / 1000.0);
        j.field("siteXoffset", L.SiteXoffset / 1000.0).field("siteYoffset", L.SiteYoffset / 1000.0);
        j.field("dieXoffset", L.DieXoffset / 1000.0).field("dieYoffset", L.DieYoffset / 1000.0);
        j.field("dieXarray", static_cast<double>(L.DieXarray)).field("dieYarray", static_cast<double>(L.DieYarray));
        j.field("waferSize", L.WaferSize / 1000.0);
        j.endObject();
        j.field("notch", L.GetNotchString());
        j.key("families").beginArray();
        if (L.FamilyNames.isArray())
            for (int r = 1; r <= L.FamilyNames.rowUb(); ++r)
                j.beginObject()
                    .field("enum", L.FamilyNames(r, 0).toDouble())
                    .field("name", L.FamilyNames(r, 1).toString())
                    .field("count", L.FamilyNames(r, 2).toDouble())
                    .endObject();
        j.endArray();
        j.key("information").beginObject();
        if (t.information.isArray())
            for (int r = t.information.rowLb(); r <= t.information.rowUb(); ++r) {
                std::string k = t.information(r, t.information.colLb()).toString();
                if (!k.empty()) j.field(k, t.information.get(r, t.information.colLb() + 1).toString());
            }
        j.endObject();
        j.endObject();
        std::printf("%s\n", j.str().c_str());
        return 0;
    }
    std::printf("Workbook:      %s\n", pos[0].c_str());
    std::printf("Data sheet:    %s\n", t.sheetName.c_str());
    std::printf("Lot:           %s\n", L.LotName.c_str());
    std::printf("Data type:     %s (DataSource %ld)%s\n", dataType.c_str(), ds, L.LineWidthType ? ", scalar" : "");
    std::printf("Metrology:     %s\n", L.MetrologyTool.c_str());
    std::printf("Exposure tool: %s\n", L.ExposureTool.c_str());
    std::printf("Measured:      %s %s\n", L.DateMeasured.c_str(), L.TimeMeasured.c_str());
    std::printf("Counts:        %ld wafers, %ld fields, %ld sites, %ld points\n", c.wafers, c.fields, c.sites,
                c.points);
    for (const Feature& f : features)
        std::printf("Feature %-6s %s [%s]\n", f.slot, f.name.c_str(), f.unit.c_str());
    std::printf("Die size:      %.4f x %.4f mm\n", L.DieSizeX / 1000.0, L.DieSizeY / 1000.0);
    std::printf("Site offset:   %.4f, %.4f mm\n", L.SiteXoffset / 1000.0, L.SiteYoffset / 1000.0);
    std::printf("Die offset:    %.4f, %.4f mm; array %.2f, %.2f\n", L.DieXoffset / 1000.0, L.DieYoffset / 1000.0,
                L.DieXarray, L.DieYarray);
    std::printf("Wafer size:    %.1f mm, notch %s\n", L.WaferSize / 1000.0, L.GetNotchString().c_str());
    if (L.FamilyNames.isArray())
        for (int r = 1; r <= L.FamilyNames.rowUb(); ++r)
            std::printf("Family %-7s %s (%s sites)\n", L.FamilyNames(r, 0).toString().c_str(),
                        L.FamilyNames(r, 1).toString().c_str(), L.FamilyNames(r, 2).toString().c_str());
    std::printf("Information:\n");
    if (t.information.isArray())
        for (int r = t.information.rowLb(); r <= t.information.rowUb(); ++r) {
            std::string k = t.information(r, t.information.colLb()).toString();
            if (k.empty()) continue;
            std::printf("  %-18s %s\n", k.c_str(), t.information.get(r, t.information.colLb() + 1).toString().c_str());
        }
    return 0;
}

ZORV_VERB(Verb{"info", "load a data workbook into a lot and print its summary",
               "Usage: zorv-cli info WORKBOOK [--sheet NAME] [--json]\n\n"
               "Loads the data workbook (as the program does) and prints the lot: name, data type,\n"
               "tools, dates, counts of wafers, fields, sites and points, features and units,\n"
               "geometry, families and the Information keys. A workbook that cannot be loaded\n"
               "gives the loader's message on stderr and exit code 1.\n",
               runInfo});

}  // namespace
}  // namespace zorv::cli
