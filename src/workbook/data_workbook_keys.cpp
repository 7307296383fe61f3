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

int DataSourceOfText(std::string_view text) {
    std::string t = Upper(Trim(text));
    if (t == "REGISTRATION" || t == "REG") return 0;
    if (t == "OVERLAY") return 1;
    if (t == "CDSEM" || t == "SEM" || t == "CD") return 2;
    if (t == "SCATTER" || t == "ELLIPSEOMETER" || t == "SCATTEROMETER" || t == "SCATTEROMETRY")
        return 3;
    if (t == "FOCUS") return 4;
    if (t == "THERMAL") return 5;
    if (t == "WAFERSITEDATA") return 6;
    if (t == "RESISTIVITY" || t == "SHEET RESISTANCE" || t == "SHEETRESISTANCE") return 7;
    return 3;
}

bool IsScalarDataType(std::string_view text) {
    // The writer's own list: "ELLIPSOMETER" here is spelled as the tools write it.
    std::string t = Upper(Trim(text));
    if (t == "ELLIPSOMETER") return true;
    int s = DataSourceOfText(t);
    return !(s == 0 || s == 1 || s == 4);
}

}  // namespace zorv
