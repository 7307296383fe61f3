// Culling: marking wafers, fields, sites and points as left out of analysis
// without deleting them. Every cull is undone by ResetCulls (or by the same
// operation with restore); the lot's data sheet is never touched.
//
// Values given here are in the feature's display unit; points hold 1000 times
// that (lot.h), so limits are multiplied by 1000 on the way in and deltas
// divided by 1000 on the way out.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "lot/lot.h"

namespace zorv {

// ---- resets -----------------------------------------------------------------

// Which levels a reset clears.
struct CullLevels {
    bool wafers = true, fields = true, sites = true, points = true;
};
// mnuPopUpCullReset and the lot's reset: cull := false on the chosen levels;
// answers how many flags changed.
long ResetCulls(cLot& lot, CullLevels levels = {});
// Restores one field (and its sites and points).
void CullFieldRestore(cField& field);

// ---- statistical cull by family ------------------------------------------------

struct RangeSigmaResult {
    long rangeCount = 0, sigmaCount = 0;  // points removed by each rule
    long pointsBefore = 0;                // live points when the cull began
    // Header row 0: feature name, "Delta", "Median", "Range", "Family"; one
    // row per culled point: value, value - median, median (display units),
    // |delta| (display units), family.
    Datam detail;
    // Header row 0: "Family", "Value", "Delta": per family (and feature) its
    // median and the mean |delta| of the points it kept.
    Datam families;
    // Running outputs: mean of the families' kept-delta statistic and the root
    // of the mean of its squares.
    double mean = 0, stdev = 0;
};
// cLot(CullRangeSigma): range in display units (|range|), sigma in standard
// deviations (|sigma|); 0 switches a rule off. -999.9 points are always
// culled (counted under range when the range rule is on, else under sigma).
// allFeatures loops over every feature that holds data; otherwise the lot's
// PlotFeature alone.
[[nodiscard]] Result<RangeSigmaResult> CullRangeSigma(cLot& lot, double range, double sigma,
                                                      bool allFeatures = false);

// The centre and spread CullRangeSigma takes of one family: the median of
// the family's histogram (3, 5, 20, 30 or 50 equal bins between its minimum
// and maximum by its count, through GetQuartilesFreq) and the sample standard
// deviation. Values as the points hold them (x1000), missing marks already
// left out; results in display units. SigmaTest shares it so that its counts
// are the cull's.
struct FamilyCentre {
    long n = 0;
    double median = 0, stdev = 0;  // the median as a 32-bit float
    double mean = 0, min = 0, max = 0;
    // In the points' unit, as the cull compares them.
    double medianStored() const { return median * 1000.0; }
    double sigmaLimit(double sigma) const { return stdev * sigma * 1000.0; }
};
FamilyCentre CullFamilyCentre(std::span<const float> stored);

// ---- geometric and list culls --------------------------------------------------

struct CullChange {
    std::string wafer;  // KeyName
    std::string field;  // NumberKey
    long site = 0;      // NumberKey
};
// cLot(CullData): culls (restore: un-culls) every site whose absolute wafer
// location (mm, relative to the wafer centre) lies in the rectangle, a (4,1)
// table x1, y1, x2, y2 (rows 1..4, column 1); anything else fails with
// "Input 'dRect' must be a (4,1) array rectangle." changed gets each site it
// changed.
[[nodiscard]] Status CullData(cLot& lot, const Datam& rect, bool restore,
                              std::vector<CullChange>* changed = nullptr);
// cLot(CullSites): rows from 1, column 1 (or the lower bound): "w.f.s" or
// "w,f,s" text (wafer key, field key, site key; "w.s" any field), or a name
// whose text from its fourth character gives the site key (as "Sit12"), or a
// number or numeric text (site key).
// Matching sites in live wafers and fields are culled. Answers how many.
[[nodiscard]] Result<long> CullSites(cLot& lot, const Datam& sites);
// cLot(CullPoints): rows (wafer key, site key, point key), columns 1..3 from
// row 1; culls (restore: un-culls) the matching points. An empty wafer key
// means every wafer, an empty point key every point of the site. Answers how
// many.
[[nodiscard]] Result<long> CullPoints(cLot& lot, const Datam& points, bool restore = false);
// cLot(CullRadius): culls sites outside radiusMm of the centre (mm, wafer
// coordinates) through CullRadius of each wafer; the message "<n> / <total>."
// comes back in *message.
[[nodiscard]] Result<long> CullRadius(cLot& lot, double radiusMm, double centreXmm = 0,
                                      double centreYmm = 0, std::string* message = nullptr);
// cWafer.CullRadius: culls the wafer's live sites beyond radiusUm of the
// centre (micrometres); a radius of 0 or less culls nothing. Answers how many
// it culled.
long CullRadius(cWafer& wafer, double radiusUm, double centreXum = 0, double centreYum = 0);
// cLot(CullVariable): name is one of the lot's eight feature names (V, H, Z,
// Slope, Pitch, A, B, C) matched without regard to case; empty, "NONE" or an
// unknown name does nothing and says nothing. Culls live points whose value
// of that feature (the lot's data type) is above max or below min (display
// units). Answers how many.
[[nodiscard]] Result<long> CullVariable(cLot& lot, std::string_view name, double max, double min);
// cLot(CullFeature): the cull of one structure feature, a site family, for
// the fits made family by family: culls the live sites of every other family;
// *table gets "WaferNumber", "FieldNumber", "SiteNumberKey" of each site
// culled, which RestoreSites takes to undo it. Answers how many.
[[nodiscard]] Result<long> CullFeature(cLot& lot, long family, Datam* table = nullptr);
// Un-culls the sites of a CullFeature table. Answers how many.
long RestoreSites(cLot& lot, const Datam& table);
// cLot(CullAstigmatism): culls live points of a vector lot whose astigmatism
// H - V lies more than range (display units) from the mean astigmatism of the
// live points; 0 or less culls nothing. Answers how many; `serials` gets the
// serial numbers of the points culled, for the workbench to give them back.
[[nodiscard]] Result<long> CullAstigmatism(cLot& lot, double range, std::vector<int32_t>* serials = nullptr);

// A workbench's own culls kept at point level, so that a selection that
// resets wafers, fields and sites (UpdatePWLotCulls) leaves them standing.
// SiteCullsToPoints: every culled site of a live field passes its cull to its
// points and is live again; answers the points newly culled.
long SiteCullsToPoints(cLot& lot);
// The points of the sites inside a wafer rectangle (mm, any corners; the
// sites' wafer positions), of one wafer when a key is given: culled, or
// restored. Answers the points changed.
long CullPointsInWaferRect(cLot& lot, double x1, double y1, double x2, double y2, bool restore,
                           const std::string& waferKey = {});

// ---- culls of a setup -----------------------------------------------------------

// The focus, dose, site and data culls of a process window setup (or of a
// workbench's selection lists): what its controls hold.
struct CullSetup {
    double focusMin = -1e30, focusMax = 1e30, doseMin = -1e30, doseMax = 1e30;
    // "ALL" (or empty) for no list; otherwise values, compared at 3 decimals.
    std::vector<double> focusList, doseList;
    bool allFocus = true, allDose = true;
    Datam sites;                     // CullSites table; not an array for none
    std::string dataCullVariable = "NONE";
    double dataMax = 1e30, dataMin = -1e30;
};
// UpdatePWLotCulls: reset wafers, fields and sites, cull fields outside the
// limits or lists (focus and dose rounded to 3 decimals), cull the listed
// sites, then the data cull ("Cull: <variable> Points removed: <n>" to the
// status line). Answers 1; the points the data cull removed go to
// *dataCulled when asked.
[[nodiscard]] Result<int> UpdatePWLotCulls(cLot& lot, const CullSetup& setup, long* dataCulled = nullptr);

// A workbench's selections: the setup plus the wafer, exposure and scan lists
// ("ALL" or empty: all).
struct LotCullSetup {
    CullSetup pw;
    std::vector<std::string> wafers;     // wafer keys kept
    std::vector<long> exposures;         // field numbers kept
    std::vector<long> scans;             // scan directions kept
    double na = 0, pcInner = 0, pcOuter = 0;  // shown in the panel, not culled on
};
struct LotCullStatus {
    std::string wafer, dose, scan;  // panel texts "Waf:..", "Exp:..", "NA:.. PCi:.. PCo:.."
    long pointsLeft = 0;
};
// UpdateLotCulls: UpdatePWLotCulls with the workbench's lists, then the
// wafers, exposures and scans not listed; the panel texts for "kWafer",
// "kDose" and "kScan" come back.
[[nodiscard]] Result<LotCullStatus> UpdateLotCulls(cLot& lot, const LotCullSetup& setup);

}  // namespace zorv
