// Plain records a wafer and the drawing code carry.
#pragma once

#include <string>

namespace zorv {

// One layout variable of a wafer's exposure program.
struct cLayout {
    std::string VariableName;
    float DieXo = 0, DieYo = 0, InitialValue = 0, Step = 0;
    std::string Meander, Scan1, Scan2;
    int ControlIndex = 0;
    cLayout clone() const { return *this; }
};

// A rectangle corner.
struct cRangeSite {
    float LocationX = 0, LocationY = 0;
};

}  // namespace zorv
