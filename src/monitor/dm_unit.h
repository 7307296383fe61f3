// The analysis of one unit of a monitor run (a wafer, or the lot with its
// wafers combined): the features a template analyses, the statistics, models
// and process window values of the unit, and the trend values read from them.
#pragma once

#include <string>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "monitor/dm_run.h"

namespace zorv {
class cLot;
}

namespace zorv::dmu {

// A feature of the template resolved on the lot: its number, and the name
// its column and trend sheet carry.
struct DMFeature {
    int number = 0;
    std::string name;
    const DMFeatureRow* row = nullptr;
};

// The features to analyse: those of the template's table marked, found on
// the lot; none such, the lot's first feature.
std::vector<DMFeature> AnalysedFeatures(const cLot& lot, const DMTemplate& t);
// "All (X, Y and Mean)" chosen in the axes table: every feature's column stays.
bool AllAxes(const DMTemplate& t);

// What every unit of a run shares.
struct UnitContext {
    const DMTemplate& tpl;
    std::vector<DMFeature> features;
    bool allAxes = false;
    Workbook* pwWorkbook = nullptr;
    Workbook* dataWorkbook = nullptr;  // where the model tables go
};

// The per-wafer analysis: statistics, the models of frmDM(ModelFeature) and
// the process window, each a table by the unit's columns.
[[nodiscard]] Status AnalyseUnit(cLot& lot, UnitContext& cx, DMUnitResult& u);

// The trend values of one column of a unit, each from its group's table.
std::vector<Value> UnitTrendValues(const DMUnitResult& u, const std::string& column,
                                   const std::vector<TrendItem>& items);

}  // namespace zorv::dmu
