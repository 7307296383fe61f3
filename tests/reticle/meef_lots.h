// Lots built in code for the mask error tests: a wafer lot on a square site
// grid whose CD follows a known MEEF map from the mask, and the reticle
// measurement of that mask.
#pragma once

#include <cmath>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <vector>

#include "lot/lot.h"

namespace zorv::testing {

struct MaskSite {
    int number = 0;
    double x = 0, y = 0;  // mm in the field
    double maskCD = 0;    // nm at mask scale
};

// n x n sites at `pitch` mm, centred, numbered row by row from the lowest y;
// mask CDs drawn around 360 nm (sigma 6) with a fixed seed.
inline std::vector<MaskSite> MaskGrid(int n, double pitch, unsigned seed = 7) {
    std::mt19937 rng(seed);
    std::normal_distribution<double> g(0.0, 1.0);
    std::vector<MaskSite> out;
    for (int r = 0; r < n; ++r)
        for (int c = 0; c < n; ++c) {
            MaskSite s;
            s.number = r * n + c + 1;
            s.x = (c - (n - 1) / 2.0) * pitch;
            s.y = (r - (n - 1) / 2.0) * pitch;
            s.maskCD = std::round((360 + 6 * g(rng)) * 4) / 4;  // quarter nm: exact in float
            out.push_back(s);
        }
    return out;
}

// Adds one measured site to a field (values in display units; the second
// feature only when given).
inline void AddSite(cLot& lot, cField& f, int number, double xmm, double ymm, double value,
                    std::optional<double> valueH = std::nullopt) {
    bool exact = true;
    cSite* have = f.GetSite(number, exact);
    Ref<cSite> site = have ? Ref<cSite>(have) : cSite::New();
    if (!have) {
        site->setNumberKey(number);
        site->LocationX = static_cast<float>(xmm * 1000);
        site->LocationY = static_cast<float>(ymm * 1000);
        site->setParent(&f);
        f.sites().Add(site, std::to_string(number));
    }
    auto p = std::make_unique<cPoint>();
    p->ValueV = static_cast<float>(value * 1000);
    if (valueH) p->ValueH = static_cast<float>(*valueH * 1000);
    f.AddPoint(site, std::move(p));
    (void)lot;
}

// Wafer CD of site s in field (fx, fy): NaN leaves the site out.
using CdLaw = std::function<double(const MaskSite& s, int fx, int fy)>;

// One wafer, fields x fields (die indices from 0), the sites of the mask.
inline std::shared_ptr<cLot> WaferLot(const std::vector<MaskSite>& mask, int fields, const CdLaw& law,
                                      const char* feature = "CD") {
    auto lot = cLot::create();
    lot->DataSource(eDataSourceCDSEM);
    lot->ValueV_Name = feature;
    lot->LotName = "MEEFLOT";
    lot->DieSizeX = 26000;
    lot->DieSizeY = 33000;
    bool isNew = false;
    cWafer* w = lot->AddWafer("1", isNew);
    for (int fy = 0; fy < fields; ++fy)
        for (int fx = 0; fx < fields; ++fx) {
            cField* f = w->AddField(static_cast<float>(fx), static_cast<float>(fy), isNew, true);
            f->Dose = 20 + fx;
            f->Focus = 0.1f * fy;
            for (const MaskSite& s : mask) {
                const double v = law(s, fx, fy);
                if (v == v) AddSite(*lot, *f, s.number, s.x, s.y, v);
            }
        }
    return lot;
}

// The reticle measurement: one field, mask CD at mask scale, positions
// times `siteMag`.
inline std::shared_ptr<cLot> ReticleLot(const std::vector<MaskSite>& mask, double siteMag = 1,
                                        const char* feature = "Mask_CD") {
    auto lot = cLot::create();
    lot->DataSource(eDataSourceCDSEM);
    lot->ValueV_Name = feature;
    lot->LotName = "RETICLE";
    bool isNew = false;
    cWafer* w = lot->AddWafer("1", isNew);
    cField* f = w->AddField(0, 0, isNew, true);
    for (const MaskSite& s : mask) AddSite(*lot, *f, s.number, s.x * siteMag, s.y * siteMag, s.maskCD);
    return lot;
}

// MEEF(x, y) = m0 + mx x + my y + mr r^2 (x, y in mm).
struct MeefMap {
    double m0 = 2, mx = 0, my = 0, mr = 0;
    double operator()(double x, double y) const { return m0 + mx * x + my * y + mr * (x * x + y * y); }
};

}  // namespace zorv::testing
