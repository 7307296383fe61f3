// Small lots with known contents for the lot tests.
#pragma once

#include <string>
#include <vector>

#include "base/report.h"
#include "common/capture_reporter.h"
#include "lot/lot.h"

namespace zorv::testing {

// A lot of `wafers` wafers, each with fields at die indices (0..nx-1, 0..ny-1)
// and an n by n grid of sites `pitch` micrometres apart centred on 0, one
// point per site: V = key * 1000, H = -key * 1000 (display units: key and
// -key), Z missing. Site keys run 1..n*n row by row.
inline std::shared_ptr<cLot> MakeLot(int wafers, int nx, int ny, int n, float pitch = 1000) {
    auto lot = cLot::create();
    lot->LotName = std::string("T");
    lot->DataSource(eDataSourceOverlay);
    lot->ValueV_Name = std::string("X");
    lot->ValueH_Name = std::string("Y");
    lot->valueZ_Name = "Length";
    lot->DieSizeX = 20000;
    lot->DieSizeY = 30000;
    for (int w = 1; w <= wafers; ++w) {
        bool isNew = false;
        cWafer* wf = lot->AddWafer(std::to_string(w), isNew);
        for (int j = 0; j < ny; ++j)
            for (int i = 0; i < nx; ++i) {
                cField* f = wf->AddField(static_cast<float>(i), static_cast<float>(j), isNew, true);
                f->LocationX = i * lot->DieSizeX;
                f->LocationY = j * lot->DieSizeY;
                int key = 0;
                for (int b = 0; b < n; ++b)
                    for (int a = 0; a < n; ++a) {
                        ++key;
                        Ref<cSite> s = cSite::New();
                        s->setNumberKey(key);
                        s->LocationX = (a - (n - 1) / 2.0f) * pitch;
                        s->LocationY = (b - (n - 1) / 2.0f) * pitch;
                        s->setParent(f);
                        auto p = std::make_unique<cPoint>();
                        p->ValueV = key * 1000.0f;
                        p->ValueH = -key * 1000.0f;
                        p->setNumberKey(std::to_string(key));
                        f->AddPoint(s, std::move(p));
                    }
            }
    }
    lot->CalcWaferPositions();
    return lot;
}

}  // namespace zorv::testing
