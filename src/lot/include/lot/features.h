// Feature numbers, data kinds, unit codes and the unit text parser.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/marks.h"

namespace zorv {

// PlotFeature numbers; they also index cPoint::GetPlotFeatureValue.
enum ePlotFeature : int {
    ePlotFeatureNone = -1,
    ePlotFeatureVector = 0,
    ePlotFeatureV = 1,
    ePlotFeatureH = 2,
    ePlotFeatureZ = 3,
    ePlotFeatureSlope = 4,
    ePlotFeaturePitch = 5,
    ePlotFeatureA = 6,
    ePlotFeatureB = 7,
    ePlotFeatureC = 8,
    ePlotFeatureAstig = 9,
    ePlotFeatureLot = -99,  // "the lot's current PlotFeature"
};

// PLotDataType: 0 raw, 1 fitted, 2 residual (3..5 the same for astigmatism).
enum ePlotDataType : int { eRaw = 0, eFitted = 1, eResidual = 2 };

inline constexpr const char* kAllFeatures = "All Features";

// Unit codes 0..19.
enum eUnits : int {
    eUnitsMicron = 0, eUnitsAngstrom, eUnitsNm, eUnitsMm, eUnitsCm, eUnitsMeter, eUnitsDeg, eUnitsRad,
    eUnitsSec, eUnitsHr, eUnitsMin, eUnitsMsec, eUnitsDegC, eUnitsDegF, eUnitsDegPerSec, eUnitsKdegMin,
    eUnitsMjCm2, eUnitsMwCm2, eUnitsDegPerSec2, eUnitsDegSec,
};

// Signs in UTF-8, the text encoding of the system.
inline constexpr const char* kMicroSign = "\xC2\xB5";     // U+00B5
inline constexpr const char* kAngstromSign = "\xC3\x85";  // U+00C5
inline constexpr const char* kDegreeSign = "\xC2\xB0";    // U+00B0

// UnitName: the text of a unit code ("" for an unknown code).
std::string UnitName(long code);
// PlotFeatureUnitsFactor: metres per unit for the length codes 0..5, 1 otherwise.
double UnitFactor(long code);
// The unit code of a text. A number not above 15 is taken as the code at once,
// rounded as a Long code takes a number (ties to even), negatives included;
// otherwise the text in upper case is looked up in the word list, first hit
// wins. Empty when the text is neither.
std::optional<long> UnitCodeOf(std::string_view text);
// UnitCodeOf with -1 for an unknown text; the text "-1" answers -1 as well,
// so callers that must tell the two apart use UnitCodeOf.
long ParseUnitCode(std::string_view text);

// Import(ExtractUnitsOfMeasure): the text between the first `open` and the
// next `close` ("" when absent). An empty input reports
// "An input string was not provided." and gives "".
std::string ExtractUnitsOfMeasure(std::string_view text, std::string_view open = "(",
                                  std::string_view close = ")");
// Import(UnitsExtract): splits a heading such as "CD (nm)" into its name and
// its unit; false when the heading carries no unit (name is then the heading).
bool UnitsExtract(std::string_view heading, std::string& name, std::string& unit);

}  // namespace zorv
