// The process window's setup record (what the workbench's controls hold, or
// what the daily monitor fills from its own settings) and the state shared by
// the analyses between calls. Plain values: no window is needed to run one.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/datam.h"

namespace zorv {

class cGraphic;
class Workbook;

// The analysis keys.
inline constexpr const char* kDose = "kDose";
inline constexpr const char* kFocus = "kFocus";
inline constexpr const char* kDoseBF = "kDoseBF";
inline constexpr const char* kPW = "kPW";
inline constexpr const char* kIsoFocal = "kIsoFocal";

// Low, high and the smallest step between the distinct values of a scan (a
// focus or dose list); nothing changes without values.
void ScanSpan(std::vector<double> values, float& low, float& high, float& step);
// The same of a one-column table (column 1, rows from 1; blanks left out).
void ScanSpan(const Datam& column, float& low, float& high, float& step);

struct PWSetup {
    bool showLimits = true;                       // chkShowLimits: target, max and min lines
    std::string dataTypeName = "Raw Data";        // cmbDataType
    int dataTypeIndex = 0, dataTypeCode = 0;
    int waferModelRemoval = 0, fieldModelRemoval = 0;  // non-zero: RemoveLensAberrations first
    std::string waferCoefs, fieldCoefs, waferCoefsPW, fieldCoefsPW;  // "0"/"1" per term
    float range = 0;                              // txtPWRange: residual cull limit
    float sigma = 0;                              // txtPWSigma: significance limit
    std::string cullVariable = "NONE";            // cmbPWDataCull
    int cullIndex = 0;
    float cullMax = 0, cullMin = 0;               // txtPWDataMax, txtPWDataMin
    int removed = 0;                              // points removed by the data cull
    std::string focusListText, siteListText = "All Sites";
    bool surfaceAlgorithm = true;                 // always for kPW
    std::string method = "PW Surface Fit";        // the option's caption
    std::string key = kPW;                        // kDose, kFocus, kDoseBF, kPW, kIsoFocal
    std::string title;                            // the variables joined with ", "
    // Header "Variable", "Target", "Max", "Min" (or "Feature", "Target",
    // "UCL", "LCL"), a row per variable from 1.
    Datam variables;
    bool stickyX = false, stickyY = false;        // chkPWaxisSticky
    float focusHigh = 0, focusLow = 0, focusStep = 0;
    std::string focusText = "ALL";
    Datam focusSelection;
    float doseHigh = 999, doseLow = -999, doseStep = 0;
    std::string doseText = "ALL";
    Datam doseSelection;
    Datam focusArray, doseArray;                  // "FocusArray", "DoseArray"
    bool statistics = false, graphics = true;     // chkPWStatistics, chkPWGraphics
    int precision = 10;                           // cmbPWprecision: grid steps per scan step
    Workbook* workbook = nullptr;                 // where result sheets go (none: not saved)
};

// The values of the workbench's controls a setup is made from, as the window
// (or a script) holds them: texts as typed, selections as lists.
struct PWControls {
    bool chkShowLimits = true;
    std::string cmbDataType = "Raw Data";
    int cmbDataTypeIndex = 0, cmbDataTypeItemData = 0;
    int waferModel = 0, fieldModel = 0;  // the model removal choices
    std::vector<bool> lstWcoef, lstFcoef, lstWcoefPW, lstFCoefPW;  // selected terms
    std::string txtPWRange = "0", txtPWSigma = "0";
    std::string cmbPWDataCull = "NONE";
    int cmbPWDataCullItemData = 0;
    std::string txtPWDataMax = "0", txtPWDataMin = "0";
    // The option chosen in the tab's frame: 0 the surface algorithm, 1 the
    // polynomial of the tab (focus for kFocus, dose for kDose and kDoseBF).
    int responseOption = 0;
    std::string tabPWCurve = kPW;
    struct Variable {
        bool checked = false;  // chkPWvar
        std::string name, target, max, min;
    };
    std::vector<Variable> variables;
    bool stickyX = false, stickyY = false;
    std::string cmbPWfocusMax, cmbPWfocusMin;
    std::vector<std::string> lstPWfocus, lstPWDose;  // the selected values; empty: all
    std::vector<std::string> allFocus, allDose;      // every value the lists hold
    std::string siteList;                            // "" or "ALL": all sites
    bool chkPWStatistics = false, chkPWGraphics = true;
    std::string cmbPWprecision = "10";
};

// LoadPWanalysis: the setup record of the controls. Texts that are not
// numbers read as 0 ("." the decimal separator always).
PWSetup LoadPWanalysis(const PWControls& controls);

// What the analyses share between calls: the chart of the last analysis, the
// process window table, the rectangle and ellipse found, and the y axis
// settings kept for the next chart of a kDose, kFocus or kDoseBF analysis.
struct PWState {
    std::shared_ptr<cGraphic> chart;
    std::string equation;
    Datam processWindowSpace;  // ProcessWindowSpace: rectangles left, ellipses right
    double rectFocus = 0, rectDose = 0, rectDoF = 0, rectExpoLatPct = 0;
    double ellipseFocus = 0, ellipseDose = 0, ellipseFocusRadius = 0, ellipseDoseRadius = 0;
    bool haveWindow = false;
    bool stickyAxes = false;
    float yLow = 0, yHigh = 0, yTick = 0;
    std::string yFormat;
};

}  // namespace zorv
