// Lot conversion to focus: the image shifts of a lot measured on an overlay
// tool (ValueV the vertical feature, ValueH the horizontal one) become focus
// in nanometres through the polynomials of a calibration template, in a clone
// of the lot. Beside it the astigmatism tools (astigmatism is always H - V)
// and the export table of a converted lot.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "calib/template_library.h"

namespace zorv {

class cGraphic;
class cLot;
class Workbook;

// optSelectLayout: how a lot site finds its template site.
enum class SiteMatch {
    AllSites = 0,      // the template site of the same number
    Center = 1,        // the first template site of the exposure
    CenterColumn = 2,  // same number, else the nearest in Y of the centre column
    CenterRow = 3,     // same number, else the nearest in X of the centre row
    UserSelected = 4,  // as Center: the user's culls chose the sites
};

struct ConvertOptions {
    std::string templateName;
    SiteMatch mode = SiteMatch::AllSites;
    std::string lotName;  // empty: "Focus of " and the lot's name
    bool noDose = false, noNA = false, noPCi = false, noPCo = false;
    // The question when some lot sites have no template site: true goes on
    // without them. Unset answers No.
    std::function<bool(const std::string& question)> continueMissing;
};

// cLot.ConvertLot: the converted clone; nullptr when the user answered No to
// going on without the missing sites. The lot itself is left as it is.
[[nodiscard]] Result<std::shared_ptr<cLot>> ConvertLot(const cLot& lot, cTemplateLibrary& library,
                                                       const ConvertOptions& options);

// cLot.CalcAstigmatism: ValueAstig = H - V (fit and residual likewise) on
// every live point. max starts at -9999; the third value starts at 9999 and
// goes through the same maximum, so it never falls below 9999: not a minimum.
struct AstigmatismSums {
    double mean = 0, max = -9999, notMin = 9999;
    long count = 0;
};
AstigmatismSums CalcAstigmatism(cLot& lot);

// frmanalysis(FocusRangeCull): culls live points whose astigmatism lies at
// least range (um) or sigma times its spread from the centre (the mean with
// useMean, else 0). Answers the two counts.
struct FocusCullCounts {
    long range = 0, sigma = 0;
    long total() const { return range + sigma; }
};
FocusCullCounts FocusRangeCull(cLot& lot, double range, double sigma, bool useMean);

// PSFManalysis(AstigmaticAnalysis): the statistics table ("Astigmatism"
// header, "Count" .. "Sigma (k):"), the histogram text, the chart title and
// the per-point table with "Astigmatism" and "Astig_Delta".
struct AstigmaticReport {
    Datam stats;
    Datam points;
    std::string histogramText, title;
};
[[nodiscard]] Result<AstigmaticReport> AstigmaticAnalysis(cLot& lot, double range, double sigma,
                                                          const FocusCullCounts& culls = {});

// PSFManalysis(MakeFocusData): the export table of a converted lot ("Site" ..
// "FieldNumber", header row 0).
Datam MakeFocusData(const cLot& lot);

// frmAnaly(PSFMmetro2Focus): the analysis workbench's selection as a plain
// record. Lists hold the chosen entries; empty means "All".
struct FocusAnalysisControls {
    std::vector<double> doses;
    std::vector<std::string> wafers;
    std::vector<std::string> scans;
    std::string na = "All", pci = "All", pco = "All";
    double range = 0, sigma = 0;
    bool convert = true;
    ConvertOptions convertOptions;  // template, mode, defeat switches, question
};
struct FocusAnalysisResult {
    std::shared_ptr<cLot> lot;  // the converted lot (or the clone without conversion)
    Datam focus;                // GetDataMatrix with columns 6 to 8 in micrometres
    FocusCullCounts culls;
    std::string description;
    bool answeredNo = false;    // the user stopped at the missing-site question
};
[[nodiscard]] Result<FocusAnalysisResult> PSFMmetro2Focus(cLot& lot, cTemplateLibrary& library,
                                                          const FocusAnalysisControls& controls,
                                                          Workbook* saveTo = nullptr);

}  // namespace zorv
