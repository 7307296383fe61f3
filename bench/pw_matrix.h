// The benchmark matrix of the process window: 15 focus x 13 dose fields of 9
// sites, a CD and a side wall angle of known response with a little noise.
#pragma once

#include <memory>

#include "lot/lot.h"
#include "procwin/pw_setup.h"

namespace zorv::bench {

inline constexpr int kFemFocus = 15, kFemDose = 13, kFemSites = 9;

inline double Cd(double d, double f) { return 0.20 - 0.004 * d + 0.01 * f - 0.30 * f * f + 0.0005 * d * f + 0.02 * f * f * f + 0.004 * d * f * f; }
inline double Swa(double d, double f) { return 92 - 0.25 * d + 2 * f - 20 * f * f; }

// One wafer, a field per (focus, dose), 9 sites each with a little noise.
inline std::shared_ptr<cLot> FemLot() {
    auto lot = cLot::create();
    lot->LotName = "FEM";
    lot->DataSource(eDataSourceCDSEM);
    lot->ValueV_Name = "CD";
    lot->ValueH_Name = "SWA";
    bool isNew = false;
    cWafer* w = lot->AddWafer("W1", isNew);
    unsigned seed = 5;
    auto noise = [&] {
        seed = seed * 1103515245u + 12345u;
        return ((seed >> 8) & 0xffff) / 65536.0 - 0.5;
    };
    for (int i = 0; i < kFemFocus; ++i)
        for (int j = 0; j < kFemDose; ++j) {
            cField* f = w->AddField(float(i), float(j), isNew, false);
            f->Focus = float(-0.35 + 0.05 * i);
            f->Dose = float(18 + 1.0 * j);
            for (int k = 1; k <= kFemSites; ++k) {
                Ref<cSite> s = cSite::New();
                s->setNumberKey(k);
                s->LocationX = float((k - 1) % 3 - 1) * 8000;
                s->LocationY = float((k - 1) / 3 - 1) * 8000;
                auto p = std::make_unique<cPoint>();
                p->ValueV = float((Cd(f->Dose, f->Focus) + 0.0005 * noise()) * 1000);
                p->ValueH = float((Swa(f->Dose, f->Focus) + 0.05 * noise()) * 1000);
                f->AddPoint(s, std::move(p));
            }
        }
    lot->CalcWaferPositions();
    return lot;
}

inline PWSetup Setup(int precision) {
    PWSetup s;
    s.key = kPW;
    s.precision = precision;
    s.variables = Datam(2, 4, 0, 0);
    const char* heads[] = {"Variable", "Target", "Max", "Min"};
    for (int c = 0; c < 4; ++c) s.variables(0, c + 1) = Value(heads[c]);
    const double cd = Cd(24, 0), swa = Swa(24, 0);
    s.variables(1, 1) = Value("CD"), s.variables(1, 2) = Value(cd), s.variables(1, 3) = Value(cd * 1.1),
    s.variables(1, 4) = Value(cd * 0.9);
    s.variables(2, 1) = Value("SWA"), s.variables(2, 2) = Value(swa), s.variables(2, 3) = Value(swa + 1),
    s.variables(2, 4) = Value(swa - 1);
    s.title = "CD, SWA";
    s.focusLow = -0.35f, s.focusHigh = 0.35f, s.focusStep = 0.05f;
    s.doseLow = 18, s.doseHigh = 30, s.doseStep = 1;
    return s;
}

}  // namespace zorv::bench
