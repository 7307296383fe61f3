// What a loaded lot is, in one record: names, data type, tools, dates, the
// size of the tree, features and units, geometry, families and the
// Information keys. zorv-cli info prints it; a window or the monitor can show
// the same record instead of walking the lot again.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "base/value.h"

namespace zorv {

class cLot;
struct WBLotTables;

// One feature that holds a name.
struct LotFeatureSummary {
    std::string slot;   // "V", "H", "Z", "Slope", "Pitch", "A", "B", "C"
    std::string name;
    std::string units;  // the unit text of the feature's code
};

// One row of the lot's family table, cells as the loader left them.
struct LotFamilySummary {
    Value number;  // "Enum"
    std::string name;
    Value count;   // sites of the family
};

struct LotSummary {
    std::string sheet;  // the data sheet the lot was read from
    std::string lot;
    std::string dataType;  // the data type word ("" outside the known numbers)
    long dataSource = 0;
    bool scalar = false;  // LineWidthType: one value per point rather than a vector
    std::string metrologyTool, exposureTool;
    std::string dateMeasured, timeMeasured;  // "yyyy-mm-dd", "hh:mm:ss"
    double processDate = 0;                  // serial date

    // Every wafer, field, site and point loaded, culled ones included. A wafer
    // without fields counts its wafer sites.
    long wafers = 0, fields = 0, sites = 0, points = 0;

    std::vector<LotFeatureSummary> features;  // in slot order, named ones only

    // Geometry, millimetres (the lot keeps micrometres); arrays are counts.
    double dieSizeXMm = 0, dieSizeYMm = 0;
    double siteXoffsetMm = 0, siteYoffsetMm = 0;
    double dieXoffsetMm = 0, dieYoffsetMm = 0;
    double dieXarray = 0, dieYarray = 0;
    double waferSizeMm = 0;
    std::string notch;  // "Right", "Left", "Up", "Down"

    std::vector<LotFamilySummary> families;
    // Information keys with their values as text, in sheet order; blank keys left out.
    std::vector<std::pair<std::string, std::string>> information;
};

// The summary of a lot and the tables its loader handed back.
LotSummary SummarizeLot(const cLot& lot, const WBLotTables& tables);

}  // namespace zorv
