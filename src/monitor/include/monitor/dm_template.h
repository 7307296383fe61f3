// The daily monitor's template workbook: a data workbook with the sheet
// "TemplateHeader", whose key rows define the analysis of a run and whose
// tables choose the statistics, features and axes. The setup writes it, each
// run reads it whole.
#pragma once

#include <string>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "workbook/store.h"

namespace zorv {

inline constexpr const char* kTemplateSheet = "TemplateHeader";

// The kind of a run, by the word in the analysis caption.
enum class DMKind : int { None = -1, Matrix = 0, FixedFocus = 1, Metrology = 2 };

// An option of the setup: its 0-based index and caption (columns B and C).
struct DMChoice {
    int index = -1;
    std::string caption;
};

// One row of a statistics table: the name, shown in the list, charted.
struct DMStatRow {
    std::string name;
    bool display = false;
    bool trend = false;
};
struct DMStatTable {
    std::string head;  // the head row's key; empty when the table is absent
    std::vector<DMStatRow> rows;
};

// A feature of the data, with its trend target and limits.
struct DMFeatureRow {
    std::string key;  // "Feature_" and number
    bool analyze = false;
    std::string name;
    double target = 0, max = 0, min = 0;
};

// A row of "AxesDisplayed"; the last rows hold chart captions in column B.
struct DMAxisRow {
    std::string name;
    Value display;
};

// What the setup chooses: every key of the header block and the tables.
// Keys that the analysis does not use are not written.
struct DMSetup {
    std::string templateName, templateFolder;
    double dateSaved = 0;  // date serial; 0 writes now
    std::string dataImport, dataFolder;
    DMChoice analysisType;  // caption "Fixed Focus", "Focus/Expo", "Raw Metrology" ...
    std::string focusTemplate = "None";
    std::string conversionMethod = "(None)";
    bool modelData = false;
    bool removeReticle = false;
    std::string reticleName, reticlePath;
    bool removeComponent = false;
    bool combineWafers = false;
    float dieXArray = 0, dieYArray = 0;
    bool doWaferModel = false;
    std::string waferTerms;
    int waferTermCount = 0;
    DMChoice fieldModel{0, "NO MODEL"};
    DMChoice componentRemoval;
    bool statistics = true, graphic = false;
    DMChoice pwAnalysis;  // index -1: no process window
    bool pwEllipse = false, pwRectangle = false;
    DMChoice pwModel, graphicData;
    std::string waferFieldGraphic, graphicPlot, graphicDataFormat;
    std::string comments;
    float focusMax = 999, focusMin = -999;
    std::string password;  // plain; stored scrambled
    float rangeCull = 0, sigmaCull = 0, astigCull = 0;
    DMChoice pwGraphData, pwGraphType, pwPwGraph, pwFeatureCull;
    float pwFeatureCullMax = 0, pwFeatureCullMin = 0;
    std::string pwSites;
    DMChoice pwSiteID;  // index: the site; caption its name
    int pwPrecision = 1;
    bool pwShowLimits = false;

    std::vector<DMStatRow> rawStats, waferModelStats, fieldModelStats, processWindowStats;
    std::vector<DMFeatureRow> features;
    std::vector<DMAxisRow> axes;  // empty: the default rows
};

// The sheet split into its parts (DMcommon(GetDMtemplateTables)).
struct DMTemplateTables {
    Datam header;  // key, value, second value; rows from 1 at the row "Template", columns 1..3
    int passwordRow = -1, focusMinRow = -1, commentsRow = -1,
        analysisTypeRow = -1;  // rows of header
    DMStatTable raw, waferModel, fieldModel, processWindow;
    DMStatTable model;  // "ModelStatistics" of older templates
    std::vector<DMFeatureRow> features;
    std::vector<DMAxisRow> axes;
    bool axesDefaulted = false;  // no "Mean Axis" row: the default rows stand
};

// The run's settings (frmDM(LoadAnalysisSequence)). A key absent from the
// header leaves the default here.
struct DMAnalysis {
    DMKind kind = DMKind::None;
    std::string caption;
    bool statistics = false, graphic = false;
    bool removeReticle = false;
    std::string reticleName, reticlePath;
    bool removeComponent = false;
    DMChoice component;
    bool modelData = false, combineWafers = false;
    float dieXArray = 0, dieYArray = 0;
    std::string conversionMethod, focusTemplate;
    bool focusConversion = false;
    float focusMax = 999, focusMin = -999;
    float cullRange = 0, cullSigma = 0, cullAstig = 0;  // 0: no such cull
    DMChoice pwAnalysis;
    bool pwShowLimits = false;
    std::string pwSites;
    DMChoice pwSiteID;
    int pwPrecision = 1;
    DMChoice pwFeatureCull;
    float pwFeatureCullMax = 0, pwFeatureCullMin = 0;
    DMChoice pwGraph, pwModel, pwGraphData, pwGraphType;
    bool pwEllipse = false, pwRectangle = false;
    bool doWaferModel = false;
    std::string waferTerms;
    DMChoice fieldModel;
    bool fieldModelOn = false;  // a model other than "NO MODEL"
    std::string graphicDataFormat, waferFieldGraphic, graphicPlot;
    DMChoice graphicData;
    std::string comments, summary;
    std::string password;  // unscrambled
};

// A template read whole.
struct DMTemplate {
    DMTemplateTables tables;
    DMAnalysis analysis;
    Datam summary;  // "Analysis:" ... rows, columns 1..2
};

// The kind selected by the caption: "FIXED", then "MATRIX", then "METROLOGY".
DMKind DMKindOfCaption(std::string_view caption);

// DMcommon(GetDMtemplateTables). Refuses a workbook without "Information" or
// "TemplateHeader", and a sheet without its "Template" row.
[[nodiscard]] Result<DMTemplateTables> GetDMtemplateTables(Workbook* workbook);
// frmDM(LoadAnalysisSequence): the settings and, in `summary`, a two-column
// table (rows, columns from 1) of what was found.
DMAnalysis LoadAnalysisSequence(const Datam& header, Datam& summary);
// GetDMtemplateTables and LoadAnalysisSequence; with a path the file is
// opened first.
[[nodiscard]] Result<DMTemplate> ReadDMTemplate(Workbook* workbook);
[[nodiscard]] Result<DMTemplate> ReadDMTemplate(const std::string& path);

// The header block of a setup (key, value, second value; rows and columns
// from 1) and its "Summary" text.
Datam DMTemplateHeaderTable(const DMSetup& setup);
std::string DMTemplateSummary(const DMSetup& setup);
// DMsetup(SaveTemplateHeader): writes the header block from A1 of the
// "TemplateHeader" sheet (taken or made), which is cleared first.
[[nodiscard]] Result<Datam> SaveTemplateHeader(Workbook* workbook, const DMSetup& setup);
// DMsetup(SaveTemplateStats): writes the tables below the header block and
// registers the sheet in the index. Saves nothing.
[[nodiscard]] Result<Datam> SaveTemplateStats(Workbook* workbook, const DMSetup& setup);

// DMsetup(SaveAsTemplate): saves `workbook` as the template `name` in
// `folder` (".XLS" or no extension becomes ".XLT"; the content is .xlsx) with
// the monitor's document properties, and reopens it.
struct DMSavedTemplate {
    WorkbookPtr workbook;  // the template as reopened
    std::string path;
    std::vector<std::string> log;
};
[[nodiscard]] Result<DMSavedTemplate> SaveAsTemplate(const WorkbookPtr& workbook,
                                                     const std::string& name,
                                                     const std::string& folder);
// frmDailyMonitorSetup(cmdSaveTemplate): the header, the tables, and the
// save as the template named by the setup, with their log lines.
[[nodiscard]] Result<DMSavedTemplate> SaveDMTemplate(const WorkbookPtr& workbook,
                                                     const DMSetup& setup);
// The template name for a workbook name: the extension ".XLS"/".XLSX" or none
// becomes ".XLT" (in the case of the name's extension).
std::string DMTemplateFileName(const std::string& name);

// The lock of "Password:": a reversible transform of short text into
// printable characters; the empty text stays empty.
std::string ScramblePassword(std::string_view plain);
std::string UnscramblePassword(std::string_view scrambled);

}  // namespace zorv
