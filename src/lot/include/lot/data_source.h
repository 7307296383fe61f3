// The kind of tool that measured a lot (cLot::DataSource), as the data
// workbook numbers it.
#pragma once

namespace zorv {

// Unscoped and Long-backed: the workbook and the front read and write it as a
// number, and a number still compares with it.
enum eDataSource : long {
    eDataSourceRegistration = 0,
    eDataSourceOverlay = 1,
    eDataSourceCDSEM = 2,
    eDataSourceScatterometry = 3,  // also any type the loader does not know
    eDataSourceFocus = 4,
    eDataSourceThermal = 5,
    eDataSourceWaferSite = 6,
    eDataSourceResistivity = 7,
};

// One scalar per site (LineWidthType) rather than a vector: all but
// registration, overlay and focus.
constexpr bool IsScalarSource(eDataSource s) {
    return !(s == eDataSourceRegistration || s == eDataSourceOverlay || s == eDataSourceFocus);
}

// Drawn as a wafer's site map (PlotWaferSites): thermal, wafer site data,
// resistivity.
constexpr bool IsWaferSiteSource(eDataSource s) { return s >= eDataSourceThermal && s <= eDataSourceResistivity; }

}  // namespace zorv
