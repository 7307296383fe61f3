// The fixed keys of the Information sheet and the data type words.
#include "workbook/data_workbook.h"
#include "data_workbook_util.h"

namespace zorv {

using namespace dwb;

const std::array<const char*, kInformationKeyCount> kInformationKeys = {
    "Data Type",     "Data Table",    "Inspection",   "Device",           "Level",
    "DieSizeX",      "DieSizeY",      "X_Dice_Field", "Y_Dice_Field",     "SiteXoffset",
    "SiteYoffset",   "Die_x_offset",  "Die_y_offset", "Die_x_array",      "Die_y_array",
    "Flat Location", "Metrologynom",  "Lot",          "Job",              "Date",
    "Title",         "Comments",      "Exposure Tool", "MeasureTime",     "Process Step",
    "Process Date",  "Technology",    "Stepper Job",  "Rework",           "User_name",
    "Stepper_ID",    "strReticle",    "FilePath",     "WorkBookPath",     "DataFolder",
    "ExposureToolType", "NA",         "PCinner",      "PCouter",          "Fo",
    "FocusStep",     "Dose",          "DoseStep",     "Illumination",     "LensID",
    "LensType",      "WaferSize"};

const char* DataTypeWord(int number) {
    static const char* const words[] = {"Registration", "Overlay", "CDsem",         "Scatter",
                                        "Focus",        "Thermal", "WaferSiteData", "Resistivity"};
    return number >= 0 && number <= 7 ? words[number] : "";
}

eDataSource DataSourceOfText(std::string_view text) {
    std::string t = Upper(Trim(text));
    if (t == "REGISTRATION" || t == "REG") return eDataSourceRegistration;
    if (t == "OVERLAY") return eDataSourceOverlay;
    if (t == "CDSEM" || t == "SEM" || t == "CD") return eDataSourceCDSEM;
    if (t == "SCATTER" || t == "ELLIPSEOMETER" || t == "SCATTEROMETER" || t == "SCATTEROMETRY")
        return eDataSourceScatterometry;
    if (t == "FOCUS") return eDataSourceFocus;
    if (t == "THERMAL") return eDataSourceThermal;
    if (t == "WAFERSITEDATA") return eDataSourceWaferSite;
    if (t == "RESISTIVITY" || t == "SHEET RESISTANCE" || t == "SHEETRESISTANCE") return eDataSourceResistivity;
    return eDataSourceScatterometry;
}

bool IsScalarDataType(std::string_view text) {
    // The writer's own list: "ELLIPSOMETER" here is spelled as the tools write it.
    std::string t = Upper(Trim(text));
    if (t == "ELLIPSOMETER") return true;
    return IsScalarSource(DataSourceOfText(t));
}

}  // namespace zorv
