#include "app/strings.h"

#include <algorithm>
#include <iterator>

namespace zorv {

namespace {

struct Entry {
    int id;
    const char* text;
};

// Sorted by number. Menus and common captions from 1000; messages as the
// modules quote them.
constexpr Entry kTable[] = {
    {1000, "&File"},
    {1001, "&Open..."},
    {1002, "&Save"},
    {1003, "Save &As..."},
    {1004, "&Close"},
    {1005, "E&xit"},
    {1006, "&Print..."},
    {1007, "Print Set&up..."},
    {1008, "Recent &Files"},
    {1009, "&New"},
    {1010, "&Edit"},
    {1011, "Cu&t"},
    {1012, "&Copy"},
    {1013, "&Paste"},
    {1014, "&Delete"},
    {1015, "Select &All"},
    {1016, "Copy &Graph"},
    {1020, "&View"},
    {1021, "&Status Bar"},
    {1022, "&Toolbar"},
    {1023, "&Refresh"},
    {1030, "&Tools"},
    {1031, "&Options..."},
    {1032, "&Preferences..."},
    {1033, "&Reset Preferences"},
    {1034, "&Import..."},
    {1035, "&Export..."},
    {1040, "&Window"},
    {1041, "&Cascade"},
    {1042, "Tile &Horizontally"},
    {1043, "Tile &Vertically"},
    {1044, "&Arrange Icons"},
    {1050, "&Help"},
    {1051, "&Contents"},
    {1052, "&Search for Help On..."},
    {1053, "&About..."},
    {1060, "OK"},
    {1061, "Cancel"},
    {1062, "&Apply"},
    {1063, "&Yes"},
    {1064, "&No"},
    {1065, "&Browse..."},
    {1066, "&Run"},
    {1067, "&Stop"},
    {1068, "&Load"},
    {1069, "&Save As"},
    {1070, "Version "},
    {1071, "Ready"},
    {1072, "Loading ..."},
    {1073, "Copyright"},
    {1074, "Warning: "},
    {1075, "Status"},
    {1080, "Data Sheet"},
    {1081, "Family"},
    {1082, "Data Type"},
    {1083, "Layout"},
    {1084, "Metrology"},
    {1085, "Statistics"},
    {1086, "Model"},
    {1087, "Graph"},
    {1088, "Setup"},
    {1089, "Results"},
    {1642, "Close all workbooks?"},
    {1668, "No data rows were imported."},
    {1686, "Zorv Wavefront Engineering"},
    {1687, "Palvex"},
    {1688, "Version "},
    {1690, "Zorv MaskFactor"},
    {1691, "Zorv PW"},
    {1692, "Zorv PSFM Full-Field"},
    {1693, "Zorv PSFM Calibrate"},
    {1694, "Zorv DM"},
    {1695, "Zorv Main"},
    {1696, "Are you sure you wish to unload?"},
    {1697, ": shutdown ..."},
    {2022, "No process variables have been selected for analysis. Please access the \"Setup\" tab."},
    {2023, "There is only one focus value for this data set."},
    {2024, "The is only one Dose value for this data set."},
    {2025, "There is not enough Exposure and/or Focus variation to calculate a process window."},
    {2074, "The Exposure Tool Library has changed!"},
    {2075, "Save the current library?"},
    {2196, "Composite surface collection ..."},
    {2199, "The 'Sites' worksheet is empty."},
    {2200, "The workbook does not contain a 'Sites' worksheet."},
    {6052, "Process Window Algorithm"},
    {6053, "Use the focus-dose surface algorithm for a smoother process fit."},
    {6055, "Focus polynomial"},
    {6057, "Dose polynomial"},
};

const Entry* find(int id) {
    const auto it = std::lower_bound(std::begin(kTable), std::end(kTable), id,
                                     [](const Entry& e, int v) { return e.id < v; });
    return (it != std::end(kTable) && it->id == id) ? it : nullptr;
}

}  // namespace

const char* LoadResString(int id) {
    const Entry* e = find(id);
    return e ? e->text : "";
}

bool HasResString(int id) { return find(id) != nullptr; }

}  // namespace zorv
