// The monitor kinds Zorv ships, as setups a new template is saved from.
#include <filesystem>

#include "calib/template_library.h"
#include "layout/fp_data.h"
#include "lot/lot.h"
#include "monitor/dm_run.h"
#include "workbook/data_workbook.h"

namespace zorv {

namespace fs = std::filesystem;

bool DMSetupOfKind(const std::string& kind, const cLot& lot, DMSetup& s) {
    const std::string v = lot.GetPlotFeatureName(ePlotFeatureV), h = lot.GetPlotFeatureName(ePlotFeatureH);
    s.dataFolder.clear();
    s.dataFolder.push_back('.');  // the data beside the template
    s.statistics = true;
    s.axes = {{"All (X, Y and Mean)", Value(false)}, {"X (Slit) Axis", Value(true)}, {"Mean Axis", Value(true)}};
    if (kind == "overlay") {
        s.analysisType = {2, "Raw Metrology"};
        s.dataImport = "Delimited text (CSV, TSV)";
        s.doWaferModel = true;
        s.waferTerms = "Tilt+Bow";
        s.waferTermCount = 5;
        s.fieldModel = {1, "Field Linear"};
        s.rawStats = {{"Mean", true, true}, {"StdErr", true, true}, {"Maximum", true, false},
                      {"Minimum", true, false}, {"Range", true, false}, {"Mean+3Sigma", true, true}};
        s.waferModelStats = {{"Offset", true, true}, {"TiltX", true, true}, {"TiltY", true, true}, {"MSE", true, false}};
        s.fieldModelStats = {{"Piston", true, false}, {"TiltX", true, true}, {"TiltY", true, true}};
        s.features = {{"Feature_1", true, v, 0, 10, -10}, {"Feature_2", !h.empty(), h, 0, 10, -10}};
        s.combineWafers = true;  // one trend row per run: the lot's wafers together
        s.comments = "Overlay daily monitor";
    } else if (kind == "psfm") {
        s.analysisType = {1, "Fixed Focus"};
        s.dataImport = "Delimited text (CSV, TSV)";
        s.focusTemplate = "PSFMsample";
        s.conversionMethod = "Center";
        s.rawStats = {{"Mean", true, true}, {"StdErr", true, true}, {"Range", true, true}, {"Maximum", true, false},
                      {"Minimum", true, false}};
        s.features = {{"Feature_1", true, v, 0, 0.1, -0.1}, {"Feature_2", !h.empty(), h, 0, 0.1, -0.1}};
        s.combineWafers = true;
        s.comments = "PSFM fixed focus monitor";
    } else if (kind == "matrix") {
        s.analysisType = {0, "PSFM Focus Matrix"};
        s.dataImport = "Delimited text (CSV, TSV)";
        s.combineWafers = true;
        s.rawStats = {{"Mean", true, true}, {"StdErr", true, true}, {"Range", true, true}};
        s.features = {{"Feature_1", true, v, 0, 0.1, -0.1}};
        s.comments = "PSFM focus matrix monitor";
    } else if (kind == "fem") {
        s.analysisType = {3, "Process Window"};
        s.dataImport = "KLA 8xxx CD-SEM";
        s.pwAnalysis = {0, "Process Window"};
        s.pwRectangle = true;
        s.pwSites = "All Sites";
        s.pwPrecision = 10;
        s.combineWafers = true;
        s.rawStats = {{"Mean", true, true}, {"StdErr", true, false}, {"Range", true, false}};
        s.processWindowStats = {{"Best Focus", true, true}, {"Depth of Focus(DoF)", true, true},
                                {"Best Dose", true, true}, {"%Dose Latitude", true, true}};
        s.features = {{"Feature_1", true, v, 0.09, 0.099, 0.081}};
        s.comments = "FEM process window monitor";
    } else {
        return false;
    }
    return true;
}


Result<DMNewTemplate> NewDMTemplate(const std::string& dataWorkbook, const std::string& kind, const std::string& out) {
    Proc p("DMsetup(NewTemplate): ");
    LoadOptions options;
    options.quiet = true;
    std::shared_ptr<cLot> lot;
    WBLotTables tables;
    if (Status st = GetExcelWBLot(dataWorkbook, options, lot, &tables); !st) return st.failure();
    DMSetup s;
    if (!DMSetupOfKind(kind, *lot, s)) return p.fail("Unknown monitor kind '" + kind + "' (overlay, psfm, matrix or fem).");
    const fs::path path(out);
    s.templateName = path.filename().string();
    s.templateFolder = path.has_parent_path() ? path.parent_path().string() : ".";
    // The template carries the exposure layout of its data.
    if (Status st = SaveFPdataFromLot(*lot, tables.workbook.get(), false); !st) return st.failure();
    auto saved = SaveDMTemplate(tables.workbook, s);
    if (!saved) return saved.failure();
    // The sample calibration the PSFM monitor converts by, in a library
    // beside the template unless one is there.
    std::error_code ec;
    if (kind == "psfm" && !fs::exists(fs::path(s.templateFolder) / kTemplateFileName, ec))
        if (Status st = CreateTemplateBase(s.templateFolder); !st) return st.failure();
    return DMNewTemplate{saved->path, s.analysisType.caption};
}

}  // namespace zorv
