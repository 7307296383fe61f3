// Marks that stand for "no value" in tables and in the tree, and the few
// constants every subsystem shares. Defined once here.
#pragma once

#include <numbers>

namespace zorv {

inline constexpr float kMissingValue = -999.9f;  // missing measurement (value, fitted, residual)
inline constexpr double kMissingDose = -999;     // missing dose; excluded layout cell
inline constexpr double kNoRoot = -9.99;         // a root that does not exist
inline constexpr double kSeedMin = 99999;        // seeds a running minimum
inline constexpr double kSeedMax = -99999;       // seeds a running maximum

inline constexpr double kPi = std::numbers::pi;

// The two tests of the missing mark.
// Exact comparison with -999.9 as a single.
inline bool IsMissing(float v) { return v == kMissingValue; }
// The tolerant test: within 0.02 of -999.9.
inline bool IsMissingTol(double v) { return (v - (-999.9) < 0.02) && (v - (-999.9) > -0.02); }

}  // namespace zorv
