// The production-scale lot of the analysis benchmarks: 25 wafers x 100 fields
// (10 x 10, die sizes 26 x 33 mm) x 400 sites (20 x 20 at 1.2 x 1.5 mm), one
// point per site: 1,000,000 points. The caller names the features and fills
// each point; the peak resident set is read from /proc.
#pragma once

#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include "lot/lot.h"

namespace zorv::bench {

constexpr int kWafers = 25, kFieldsPerSide = 10, kSitesPerSide = 20;

// Where a point sits: wafer 1..25, the field's column and row i, j (0..9),
// the site's column and row a, b (0..19) and key 1..400.
struct BenchAt {
    int wafer, i, j, a, b, key;
    const cField* field;
    const cSite* site;
};

// A small deterministic noise in -0.5 .. 0.5.
class BenchNoise {
public:
    explicit BenchNoise(unsigned seed) : seed_(seed) {}
    double operator()() {
        seed_ = seed_ * 1103515245u + 12345u;
        return ((seed_ >> 8) & 0xffff) / 65536.0 - 0.5;
    }

private:
    unsigned seed_;
};

// setUp names the lot's features; fill(point, at) gives the point its values.
template <class SetUp, class Fill>
std::shared_ptr<cLot> BuildBenchLot(const char* name, eDataSource source, SetUp setUp, Fill fill,
                                    int families = 1) {
    auto lot = cLot::create();
    lot->LotName = name;
    lot->DataSource(source);
    lot->DieSizeX = 26000;
    lot->DieSizeY = 33000;
    setUp(*lot);
    for (int w = 1; w <= kWafers; ++w) {
        bool isNew = false;
        std::string wname = std::to_string(w);
        wname.insert(0, 1, 'W');  // not "W" + ...: GCC 12 warns falsely on that
        cWafer* wf = lot->AddWafer(wname, isNew);
        for (int j = 0; j < kFieldsPerSide; ++j)
            for (int i = 0; i < kFieldsPerSide; ++i) {
                cField* f = wf->AddField(float(i - 5), float(j - 5), isNew, false);
                f->LocationX = f->DieX * lot->DieSizeX;
                f->LocationY = f->DieY * lot->DieSizeY;
                f->sites().reserve(kSitesPerSide * kSitesPerSide);
                int key = 0;
                for (int b = 0; b < kSitesPerSide; ++b)
                    for (int a = 0; a < kSitesPerSide; ++a) {
                        ++key;
                        Ref<cSite> s = cSite::New();
                        s->setNumberKey(key);
                        s->LocationX = (a - 9.5f) * 1200;
                        s->LocationY = (b - 9.5f) * 1500;
                        s->setParent(f);
                        s->setFamily(1 + (key - 1) % families);
                        f->sites().Add(s, std::to_string(key));
                        auto p = std::make_unique<cPoint>();
                        fill(*p, BenchAt{w, i, j, a, b, key, f, s.get()});
                        p->setNumberKey(std::to_string(key));
                        f->AddPoint(s, std::move(p));
                    }
            }
    }
    lot->CalcWaferPositions();
    return lot;
}

// VmHWM in MB.
inline double PeakMB() {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, 6, "VmHWM:") == 0) return std::stod(line.substr(7)) / 1024.0;
    return 0;
}

}  // namespace zorv::bench
