// The results of the mask error analysis in workbooks: the two result sheets
// of the lot's workbook, and the result as a lot workbook of its own.
#include <cmath>
#include <ctime>

#include "base/format.h"
#include "base/regional.h"
#include "base/text.h"
#include "lot/lot.h"
#include "reticle/meef.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"
#include "workbook/workbook_ops.h"

namespace zorv {

namespace {

std::string SheetName(const std::string& name) { return FixSheetName(Replace(name, " ", "")); }

// The columns of the MEF table that become the features of the result lot
// (at most eight: a data sheet holds no more), the wafer CD ones carrying
// the lot's unit.
struct LotColumn {
    int column;
    bool cdUnit;
};
constexpr LotColumn kLotColumns[] = {
    {mefMEEF, false}, {mefBEEF, false}, {mefCD, true},  {mefRetCD, true},
    {mefBias, true},  {mefRatio, false}, {mefRetEffective, true}, {mefSlopeSigma, false},
};
constexpr int kLotValues = static_cast<int>(sizeof kLotColumns / sizeof kLotColumns[0]);

std::string StemOf(const std::string& path) {
    const size_t slash = path.find_last_of("/\\");
    std::string f = path.substr(slash == std::string::npos ? 0 : slash + 1);
    const size_t dot = f.rfind('.');
    return dot == std::string::npos ? f : f.substr(0, dot);
}

}  // namespace

std::string MefSheetName(const MEFSetup& setup) {
    return SheetName("MEF_" + setup.feature + "_" + setup.reticleFeature);
}

std::string MefSummarySheetName(const MEFSetup& setup) { return SheetName("MEEF_FieldSummary_" + setup.feature); }

Status SaveMEFSheets(const MEFResult& result, const MEFSetup& setup, Workbook& wb) {
    const std::string text = "Summary of MEEF/BEEF for each field " + FormatDate(NowSerial(), "dd-mmmm-yyyy hh:mm");
    SaveArrayOptions o;
    o.save = false;
    const std::string mef = MefSheetName(setup), summary = MefSummarySheetName(setup);
    if (Status s = SaveArray(result.table, mef, &wb, o); !s) return s;
    if (Status s = AddIndexItem(&wb, mef, text, Value(), false); !s) return s;
    if (Status s = SaveArray(result.summary, summary, &wb, o); !s) return s;
    if (Status s = AddIndexItem(&wb, summary, text, Value(), false); !s) return s;
    return SaveWorkbookChecked(wb, summary, false);
}

Result<std::string> SaveAsLot(const MEFResult& result, const cLot& lot, const MEFSetup& setup,
                              const std::string& path) {
    Proc p("Utility(SaveAsLot): ");
    p.chk = 1;
    const Datam& t = result.table;
    if (!t.isArray() || t.rowUb() < 1) return p.fail("No rows in data matrix as provided.");

    // The data: Wafer, Test, Diex, Diey and the result columns.
    p.chk = 2;
    const int rows = t.rowUb();
    Datam data(rows, 4 + kLotValues, 0, 0);
    data(0, 1) = "Wafer";
    data(0, 2) = "Test";
    data(0, 3) = "Diex";
    data(0, 4) = "Diey";
    for (int j = 0; j < kLotValues; ++j) data(0, 5 + j) = t(0, kLotColumns[j].column);
    for (int r = 1; r <= rows; ++r) {
        for (int c = 1; c <= 4; ++c) data(r, c) = t(r, c);
        for (int j = 0; j < kLotValues; ++j) data(r, 5 + j) = t(r, kLotColumns[j].column);
    }

    // The sites: the layout in millimetres, the units on the first row.
    p.chk = 3;
    const NeighborTable& nb = result.neighbors;
    Datam sites(nb.Count(), 5 + kLotValues, 0, 0);
    const char* heads[] = {"X_DIE_SIZE", "Y_DIE_SIZE", "TEST", "X_LOC", "Y_LOC"};
    for (int c = 0; c < 5; ++c) sites(0, c + 1) = heads[c];
    sites(0, 0) = "Sites";
    for (int j = 0; j < kLotValues; ++j) sites(0, 6 + j) = t(0, kLotColumns[j].column).toString() + "_UNITS";
    for (int i = 0; i < nb.Count(); ++i) {
        sites(i + 1, 1) = Value(lot.DieSizeX / 1000.0);
        sites(i + 1, 2) = Value(lot.DieSizeY / 1000.0);
        sites(i + 1, 3) = Value(nb.site[i]);
        sites(i + 1, 4) = Value(nb.x[i] / 1000.0);
        sites(i + 1, 5) = Value(nb.y[i] / 1000.0);
    }
    std::string unit;
    long code = 0;
    if (nb.Count() > 0 && lot.GetPlotFeatureUnits(lot.GetPlotFeature(setup.feature), unit, code))
        for (int j = 0; j < kLotValues; ++j)
            if (kLotColumns[j].cdUnit) sites(1, 6 + j) = unit;

    // The information of the source lot, as a CD lot of its own name.
    p.chk = 4;
    Datam info(kInformationKeyCount, 1, 1, 0);
    for (int i = 1; i <= kInformationKeyCount; ++i) info(i, 0) = kInformationKeys[i - 1];
    const std::string name = StemOf(path);
    info(infoDataType, 1) = static_cast<int32_t>(eDataSourceCDSEM);
    info(infoDataTable, 1) = name;
    info(infoInspection, 1) = "MEEF " + setup.feature + " / " + setup.reticleFeature;
    info(infoLot, 1) = lot.LotName.empty() ? name : lot.LotName + "_MEEF";
    info(infoDieSizeX, 1) = Value(lot.DieSizeX / 1000.0);
    info(infoDieSizeY, 1) = Value(lot.DieSizeY / 1000.0);
    info(infoExposureTool, 1) = lot.ExposureTool;
    info(infoProcessStep, 1) = lot.ProcessStep;
    info(infoComments, 1) = "Mask error factors of " + lot.LotName + ": Lot: " + setup.feature +
                            " Reticle: " + setup.reticleFeature + " Mag: " + Format(setup.mag, "0.###") +
                            " SiteMag: " + Format(setup.siteMag, "0.###");
    info(infoWorkBookPath, 1) = path;
    info(infoFilePath, 1) = name + ".txt";
    if (lot.WaferSize > 0) info(infoWaferSize, 1) = Value(lot.WaferSize / 1000.0);
    return SaveData(data, Datam(), sites, info, "Mask error factor analysis");
}

}  // namespace zorv
