// The raw data analysis of the main window: the lot prepared for the raw
// plots, the components taken off before plotting, the statistics of what is
// shown, and the tables the plots are drawn from (also written as sheets of
// the data workbook, in memory).
//
// The plots read the fitted slots: MakeRawLot copies the raw values there,
// and the component removal works on them, so the raw data stays as loaded.
// Positions in tables are millimetres; values display units.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "lot/lot.h"

namespace zorv {

class Workbook;

// frmMain(MakeRawLot): clears colour and cull of every field, site and point
// (the wafer sites as well on a PlotWaferSites lot; wafer culls stay), then
// CopyRawToFit.
void MakeRawLot(cLot& lot);
// The copy part alone, culls untouched: V, H (and every other feature) raw to
// fitted; a line-width lot copies Z, any other sets Z fitted to H - V fitted
// and a raw Z of 0 to the mean of V and H. Answers the points visited.
long CopyRawToFit(cLot& lot);

// The components taken off the fitted values before plotting.
struct RawComponents {
    bool removeMeanField = false;
    bool removeValue = false;
    double value = 0;  // display units, from the plotted feature
};

// The mean of each site position (field coordinates) over the live points of
// one wafer (empty key: every live wafer), per feature of the data kind.
struct MeanSite {
    double xUm = 0, yUm = 0;  // position in the field
    long count = 0;
    double mean[10] = {};     // stored units, by feature 0..9 (0 unused); missing: kMissingValue
};
std::vector<MeanSite> MeanFieldSites(const cLot& lot, const std::string& waferKey = {}, int dataType = eFitted);
// "Remove Mean Field": every live point's fitted features less the mean of
// its site position across the live fields of the same wafer selection.
// Answers the points changed.
long RemoveMeanField(cLot& lot, const std::string& waferKey = {});
// "Remove Value: ": the value (display units) off the fitted feature of every
// point (feature 0: V and H). Answers the points changed.
long RemoveValue(cLot& lot, double value, int feature);
// The residual slots of the live points of the selection: fitted less the
// mean field of the selection (the field residuals plot). Answers the points.
long MeanFieldResiduals(cLot& lot, const std::string& waferKey = {});
// CopyRawToFit, then the chosen components. A fixed value applies to
// `feature`. The mean field is taken over the wafer selection.
void ApplyRawComponents(cLot& lot, const RawComponents& c, int feature, const std::string& waferKey = {});

// A point's value of a feature and data kind in stored units; feature 0 the
// vector length of V and H. False when missing.
bool RawPointValue(const cPoint& p, int feature, int dataType, double& value);

// Count, mean, sample sigma, min and max (display units) of the live points
// of a wafer (empty: all) for a feature and data kind.
struct RawStats {
    long points = 0;
    double mean = 0, sigma = 0, min = 0, max = 0;
};
RawStats RawFeatureStats(const cLot& lot, const std::string& waferKey, int feature, int dataType);

// The feature names a lot plots: feature number and name, "Vector" first on
// a vector lot.
std::vector<std::pair<int, std::string>> RawFeatureList(const cLot& lot);

// The tables, header in row 0, data from row 1.
// WaferRawData: "Wafer", "Field", "Site", "X (mm)", "Y (mm)" and every
// feature of the data kind, one row per live point.
Datam WaferRawTable(const cLot& lot, const std::string& waferKey, int dataType);
// FieldRawData: "Xfield (mm)", "Yfield (mm)", "Count" and the mean of every
// feature, one row per site position.
Datam FieldRawTable(const cLot& lot, const std::string& waferKey, int dataType);
// MeanSurface_: the mean field of one feature as a grid: row 0 X (mm),
// column 0 Y (mm); a position without data is blank.
Datam MeanSurfaceTable(const cLot& lot, const std::string& waferKey, int feature, int dataType);
// The XY series: columns "Horizontal postion(mm) on <label>", "HorizSeries",
// "Vertical position(mm) on <label>", "VertSeries", "Position (mm)",
// "MeanSeries": the feature against X and against Y per live point, and its
// mean per position along both (rounded to 0.1 mm); unused cells blank.
Datam XYSeriesTable(const cLot& lot, const std::string& waferKey, int feature, int dataType,
                    const std::string& label);

// A lot of one wafer and one field whose sites hold the mean field of the
// selection (raw and fitted alike): what the mean surface contour draws.
// nullptr when there is no live point.
std::shared_ptr<cLot> MeanFieldLot(const cLot& lot, const std::string& waferKey, int dataType);

// Which sheets SaveRawAnalysisSheets writes.
enum RawSheets : int { kRawWaferSheet = 1, kRawFieldSheet = 2, kRawMeanSurface = 4, kRawXYSeries = 8, kRawAllSheets = 15 };
// Writes "WaferRawData", "FieldRawData", "MeanSurface_" + feature name and
// "VertSeries", "HorizSeries", "MeanSeries" (those chosen) into the workbook
// (in memory, with their Index rows). A null workbook does nothing.
[[nodiscard]] Status SaveRawAnalysisSheets(const cLot& lot, Workbook* workbook, const std::string& waferKey,
                                           int feature, int dataType, int which = kRawAllSheets);

// The pop-up culls of the maps. The rectangle in mm (any corners). A wafer
// map's rectangle is in wafer positions and goes through CullData, limited
// to one wafer when a key is given; a field map's is in field positions (the
// lot's site offset included, as the map draws them). Answers the sites
// changed.
[[nodiscard]] Result<long> CullWaferRect(cLot& lot, double x1, double y1, double x2, double y2, bool restore,
                                         const std::string& waferKey = {});
[[nodiscard]] Result<long> CullFieldRect(cLot& lot, double x1, double y1, double x2, double y2, bool restore,
                                         const std::string& waferKey = {});
// "Cull Wafer": culls every live site of the wafer (its culls can be
// restored site by site); answers how many.
long CullWaferSites(cLot& lot, const std::string& waferKey);

}  // namespace zorv
