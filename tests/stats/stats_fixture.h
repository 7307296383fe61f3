// Lots with a known nested structure for the statistics and culling tests.
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <string>

#include "base/marks.h"
#include "common/capture_reporter.h"
#include "lot/lot.h"

namespace zorv::testing {

// Where a point sits: 1-based wafer, field (row-major over the die grid) and
// site key; a, b the site's column and row in the field (0-based); die the
// field's column and row.
struct PointAt {
    int wafer = 1, field = 1, site = 1;
    int a = 0, b = 0;
    int dieX = 0, dieY = 0;
};

struct LotShape {
    int wafers = 2, fieldsX = 2, fieldsY = 2, sitesX = 3, sitesY = 3;
    float pitchX = 1000, pitchY = 1500;  // site spacing, micrometres
    bool lineWidth = true;               // scalar features (CD-SEM) or a vector lot
    int features = 4;                    // named features (1..8; a vector lot: 3)
    int families = 1;                    // site families cycle 1..families by site key
};

// Feature values in display units; kMissingValue marks no measurement.
using ValueFn = std::function<std::array<double, 8>(const PointAt&)>;

inline std::shared_ptr<cLot> MakeStatsLot(const LotShape& shape, const ValueFn& values) {
    auto lot = cLot::create();
    lot->LotName = "Stats";
    lot->DataSource(shape.lineWidth ? eDataSourceCDSEM : eDataSourceOverlay);
    const char* names[8] = {"CD", "Height", "SWA", "Pitch", "A", "B", "C", "D"};
    const char* vecNames[3] = {"X", "Y", "Length"};
    for (int k = 1; k <= shape.features && k <= 8; ++k) {
        const std::string n = shape.lineWidth ? names[k - 1] : vecNames[(k - 1) % 3];
        switch (k) {
            case 1: lot->ValueV_Name = n; break;
            case 2: lot->ValueH_Name = n; break;
            case 3: lot->valueZ_Name = n; break;
            case 4: lot->Slope_Name = n; break;
            case 5: lot->Pitch_Name = n; break;
            case 6: lot->ValueA_Name = n; break;
            case 7: lot->ValueB_Name = n; break;
            default: lot->ValueC_Name = n; break;
        }
    }
    lot->DieSizeX = 20000;
    lot->DieSizeY = 30000;
    for (int w = 1; w <= shape.wafers; ++w) {
        bool isNew = false;
        cWafer* wf = lot->AddWafer(std::to_string(w), isNew);
        int fieldNo = 0;
        for (int j = 0; j < shape.fieldsY; ++j)
            for (int i = 0; i < shape.fieldsX; ++i) {
                ++fieldNo;
                cField* f = wf->AddField(static_cast<float>(i), static_cast<float>(j), isNew, true);
                f->LocationX = i * lot->DieSizeX;
                f->LocationY = j * lot->DieSizeY;
                int key = 0;
                for (int b = 0; b < shape.sitesY; ++b)
                    for (int a = 0; a < shape.sitesX; ++a) {
                        ++key;
                        Ref<cSite> s = cSite::New();
                        s->setNumberKey(key);
                        s->LocationX = (a - (shape.sitesX - 1) / 2.0f) * shape.pitchX;
                        s->LocationY = (b - (shape.sitesY - 1) / 2.0f) * shape.pitchY;
                        s->setParent(f);
                        s->setFamily(1 + (key - 1) % shape.families);
                        auto p = std::make_unique<cPoint>();
                        const PointAt at{w, fieldNo, key, a, b, i, j};
                        const auto v = values(at);
                        const int n = shape.lineWidth ? shape.features : 3;
                        for (int k = 1; k <= n && k <= 8; ++k) {
                            const double x = v[k - 1];
                            *p->FeatureSlot(k, 0) =
                                x == kMissingValue ? kMissingValue : static_cast<float>(x * 1000.0);
                        }
                        p->setNumberKey(std::to_string(key));
                        f->AddPoint(s, std::move(p));
                    }
            }
    }
    lot->CalcWaferPositions();
    return lot;
}

}  // namespace zorv::testing
