// Mask error factors: how much of a CD change on the reticle arrives on the
// wafer. For each die site the wafer CD is regressed on the reticle CD over
// the site and its neighbours in the field's site grid (MEEF, the slope), and
// the wafer bias (wafer CD less reticle CD) likewise (BEEF); a fit over the
// whole field gives the field-wide factors.
//
// Units: site positions in micrometres (as the tree holds them); CDs in the
// lot's display unit. The reticle CD is divided by the magnification before
// anything else, so bias and slopes are at wafer scale.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"

namespace zorv {

class cLot;
class Workbook;

inline constexpr int kMefNeighbors = 24;    // ring one and ring two of the site grid
inline constexpr int kMefMaxPoints = 25;    // the site and its neighbours
inline constexpr float kMefTolerance = 1e-5f;  // relative singular value tolerance of every fit
inline constexpr int kMefColumns = 30;
// Two positions closer than this (micrometres) are one grid line or one site.
inline constexpr double kMefGridTolerance = 1.0;

// Grid offsets (column, row) of neighbour k = 1..24, in their order.
extern const std::array<std::array<int, 2>, kMefNeighbors> kMefNeighborOffsets;

// Columns of the MEF table (1-based), for readers of the table.
enum MefColumn : int {
    mefWafer = 1, mefTest, mefDieX, mefDieY, mefCD, mefRetCD, mefMEEF, mefBEEF, mefBias, mefRatio,
    mefRetEffective, mefMEEFfield, mefBEEFfield, mefRetEffField, mefOffset, mefSlope, mefOffsetSigma,
    mefSlopeSigma, mefBiasOffset, mefBiasSlope, mefBiasOffsetSigma, mefBiasSlopeSigma, mefMEEFfieldSigma,
    mefBEEFfieldSigma, mefFocus, mefDose, mefNA, mefPCinner, mefPCouter, mefScan,
};
// The 30 headers of the MEF table for a lot feature and a reticle feature.
std::vector<std::string> MefHeaders(const std::string& feature, const std::string& reticleFeature);

// What the MEEF set-up holds: the lot feature, the reticle feature and the
// reticle magnification for the CD values (Mag) and for the site positions
// (SiteMag). workbook, when given, receives the two result sheets.
struct MEFSetup {
    std::string feature;
    std::string reticleFeature;
    double mag = 1;      // reticle CD / mag is the CD at wafer scale
    double siteMag = 1;  // reticle site position / siteMag meets the lot's
    Workbook* workbook = nullptr;
};

// A site of the field layout: its number and place in the field (um).
struct LayoutSite {
    int32_t number = 0;
    double x = 0, y = 0;
};
using SiteLayout = std::vector<LayoutSite>;
// The sites of a lot's fields (live ones, first place met), by site number.
SiteLayout GetSiteLayout(const cLot& lot);

// One row for each site of the layout: its grid place and the rows of its
// neighbours by grid offset (-1 where the place is outside the layout or
// holds no site).
struct NeighborTable {
    std::vector<int32_t> site;  // site number of each row
    std::vector<double> x, y;   // place in the field, um
    std::vector<int> col, row;  // grid column and row, from 0
    std::vector<std::array<int, kMefNeighbors>> neighbor;
    int Count() const { return static_cast<int>(site.size()); }
    // Row of a site number, -1 when the layout has none.
    int IndexOf(int32_t number) const;
    // "Site", "N1" .. "N24" with site numbers (blank for none), row 0 the header.
    Datam ToDatam() const;
};
[[nodiscard]] Result<NeighborTable> GetNeighborSites(const SiteLayout& layout);

// Sites of the lot tied to the same reticle site (the same place in the
// field, where the reticle holds the feature): for each neighbour-table row,
// the rows that may stand in for it.
struct EquivalentTable {
    std::vector<std::vector<int>> of;
    // "Site", "Equivalent" with site numbers, one row per pair.
    Datam ToDatam(const NeighborTable& nb) const;
};
[[nodiscard]] Result<EquivalentTable> GetEquivalentSites(const cLot& lot, const cLot& reticle,
                                                         const NeighborTable& nb, const MEFSetup& setup);

// The reticle CD (wafer scale) at each layout site: the reticle's own value
// where a reticle site sits there, else the interpolated surface of the
// reticle sites; NaN outside the reticle's area. Fails "Surface array could
// not be generated." when no layout site meets the reticle.
[[nodiscard]] Result<std::vector<double>> ReticleAtSites(const cLot& reticle, const NeighborTable& nb,
                                                         const MEFSetup& setup);

// One row of the MEF table while it is computed; NaN is a blank cell.
struct MEFRow {
    std::string wafer;
    int32_t site = 0;
    int layoutIndex = -1;  // row of the neighbour table
    double dieX = 0, dieY = 0;
    double cd = 0, retCD = 0, bias = 0, ratio = 0;
    double meef, beef, retEffective, offset, slope, offsetSigma, slopeSigma;
    double biasOffset, biasSlope, biasOffsetSigma, biasSlopeSigma;
    double meefField, beefField, retEffField, meefFieldSigma, beefFieldSigma;
    double focus = 0, dose = 0, na = 0, pcInner = 0, pcOuter = 0, scan = 0;
    int points = 0;  // entries of the local fit
    MEFRow();
};

// The field-wide results of one field.
struct MEFField {
    std::string wafer;
    double dieX = 0, dieY = 0;
    double meef, meefSigma, beef, beefSigma, retEffective;
    int firstRow = 0, rows = 0;  // its rows in the table (0-based)
    std::string title;           // "Field (x, y) MEEF: m +/- 3s"
    MEFField();
};

// Fills the fit columns (7, 8, 11, 15 to 22) of a field's rows from the site
// and its neighbours, then the field-wide columns, and answers the field's
// results. Rows with 2 entries or fewer, or whose fit fails, stay blank.
MEFField MEFcalc(std::span<MEFRow> rows, const NeighborTable& nb, const EquivalentTable& eq);

struct MEFResult {
    Datam table;    // the MEF table, row 0 the header, columns 1..30
    Datam summary;  // "Full-Field", "Summary"; the heads; one row per field
    std::vector<MEFRow> rows;
    std::vector<MEFField> fields;
    NeighborTable neighbors;
    EquivalentTable equivalents;
    // Lot field average and reticle CD by layout site: "Site", "X", "Y", the
    // feature, the reticle feature (row 0 the header; positions in mm).
    Datam fieldAverage;
    long skipped = 0;  // lot sites with a value but no reticle CD
    std::vector<std::string> sheets;  // sheets written
};

// The analysis: checks, layout, neighbours and equivalents, the reticle
// surface, the table, the fits by field and the summary; with a workbook in
// the set-up, the sheets "MEF_<feature>_<reticle feature>" and
// "MEEF_FieldSummary_<feature>".
[[nodiscard]] Result<MEFResult> FindMEF(const cLot* lot, const cLot* reticle, const MEFSetup& setup);

// The sheet names of the two results (cleaned as sheet names are).
std::string MefSheetName(const MEFSetup& setup);
std::string MefSummarySheetName(const MEFSetup& setup);

// Writes both sheets with their Index rows and saves the workbook.
[[nodiscard]] Status SaveMEFSheets(const MEFResult& result, const MEFSetup& setup, Workbook& wb);

// Utility(SaveAsLot): the result as a new data workbook at `path`, so that
// MEEF, BEEF and the rest are features of a lot. Answers the path written.
[[nodiscard]] Result<std::string> SaveAsLot(const MEFResult& result, const cLot& lot, const MEFSetup& setup,
                                            const std::string& path);

}  // namespace zorv
