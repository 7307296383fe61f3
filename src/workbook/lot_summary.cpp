// The summary record of a loaded lot.
#include "workbook/lot_summary.h"

#include "lot/lot.h"
#include "workbook/data_workbook.h"

namespace zorv {

namespace {

// Counts what was loaded rather than what is live: the summary describes the
// workbook, and a lot fresh from the loader has nothing culled anyway.
void CountTree(const cLot& lot, LotSummary& s) {
    for (cWafer* w : lot.Wafers()) {
        ++s.wafers;
        long siteCount = 0;
        for (cField* f : w->Fields()) {
            ++s.fields;
            for (cSite* site : f->sites()) {
                ++siteCount;
                s.points += site->Points().Count();
            }
        }
        // Wafer-site data (thermal, resistivity) hangs its sites on the wafer.
        if (siteCount == 0)
            for (cSite* site : w->SitesWafer()) {
                ++siteCount;
                s.points += site->Points().Count();
            }
        s.sites += siteCount;
    }
}

void CollectFeatures(const cLot& lot, LotSummary& s) {
    static const char* const kSlots[] = {"", "V", "H", "Z", "Slope", "Pitch", "A", "B", "C"};
    for (int f = 1; f <= 8; ++f) {
        std::string name = lot.GetPlotFeatureName(f);
        if (name.empty()) continue;
        std::string units;
        long code = 0;
        lot.GetPlotFeatureUnits(f, units, code);
        s.features.push_back({kSlots[f], std::move(name), std::move(units)});
    }
}

void CollectFamilies(const cLot& lot, LotSummary& s) {
    const Datam& fam = lot.FamilyNames;
    if (!fam.isArray()) return;
    // Row 0 holds the headers.
    for (int r = 1; r <= fam.rowUb(); ++r) s.families.push_back({fam(r, 0), fam(r, 1).toString(), fam(r, 2)});
}

void CollectInformation(const Datam& info, LotSummary& s) {
    if (!info.isArray()) return;
    const int keyCol = info.colLb();
    for (int r = info.rowLb(); r <= info.rowUb(); ++r) {
        std::string key = info(r, keyCol).toString();
        if (key.empty()) continue;
        s.information.emplace_back(std::move(key), info.get(r, keyCol + 1).toString());
    }
}

}  // namespace

LotSummary SummarizeLot(const cLot& lot, const WBLotTables& tables) {
    LotSummary s;
    s.sheet = tables.sheetName;
    s.lot = lot.LotName;
    s.dataSource = lot.DataSource();
    s.dataType = DataTypeWord(static_cast<int>(s.dataSource));
    s.scalar = lot.LineWidthType;
    s.metrologyTool = lot.MetrologyTool;
    s.exposureTool = lot.ExposureTool;
    s.dateMeasured = lot.DateMeasured;
    s.timeMeasured = lot.TimeMeasured;
    s.processDate = lot.ProcessDate;

    CountTree(lot, s);
    CollectFeatures(lot, s);

    s.dieSizeXMm = lot.DieSizeX / 1000.0;
    s.dieSizeYMm = lot.DieSizeY / 1000.0;
    s.siteXoffsetMm = lot.SiteXoffset / 1000.0;
    s.siteYoffsetMm = lot.SiteYoffset / 1000.0;
    s.dieXoffsetMm = lot.DieXoffset / 1000.0;
    s.dieYoffsetMm = lot.DieYoffset / 1000.0;
    s.dieXarray = lot.DieXarray;
    s.dieYarray = lot.DieYarray;
    s.waferSizeMm = lot.WaferSize / 1000.0;
    s.notch = lot.GetNotchString();

    CollectFamilies(lot, s);
    CollectInformation(tables.information, s);
    return s;
}

}  // namespace zorv
