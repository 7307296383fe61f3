// Points and sites come from pools of equal slots: a freed slot is taken by
// the next object, objects never overlap, and threads may share a pool.
#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <thread>
#include <vector>

#include "lot/lot.h"

using namespace zorv;

TEST(SlotPool, FreedPointsAndSitesAreReusedAndNeverOverlap) {
    std::vector<std::unique_ptr<cPoint>> pts;
    std::set<uintptr_t> first;
    for (int i = 0; i < 5000; ++i) {
        pts.push_back(std::make_unique<cPoint>());
        pts.back()->ValueV = static_cast<float>(i);
        first.insert(reinterpret_cast<uintptr_t>(pts.back().get()));
    }
    // no two points share bytes: sorted addresses lie a whole point apart
    uintptr_t last = 0;
    for (uintptr_t a : first) {
        if (last) {
            EXPECT_GE(a - last, sizeof(cPoint));
        }
        EXPECT_EQ(a % alignof(cPoint), 0u);
        last = a;
    }
    for (int i = 0; i < 5000; ++i) EXPECT_EQ(pts[static_cast<size_t>(i)]->ValueV, static_cast<float>(i));
    pts.clear();
    // the same slots serve the next 5000
    for (int i = 0; i < 5000; ++i) {
        pts.push_back(std::make_unique<cPoint>());
        EXPECT_TRUE(first.count(reinterpret_cast<uintptr_t>(pts.back().get()))) << i;
        EXPECT_EQ(pts.back()->ValueV, kMissingValue) << "a reused slot is a new point";
    }

    // sites, through their reference count
    std::set<uintptr_t> sites;
    {
        std::vector<Ref<cSite>> keep;
        for (int i = 0; i < 1000; ++i) {
            keep.push_back(cSite::New());
            sites.insert(reinterpret_cast<uintptr_t>(keep.back().get()));
        }
    }
    Ref<cSite> again = cSite::New();
    EXPECT_TRUE(sites.count(reinterpret_cast<uintptr_t>(again.get())));
}

TEST(SlotPool, ThreadsShareThePool) {
    auto work = [](int seed, long& sum) {
        std::vector<std::unique_ptr<cPoint>> pts;
        for (int round = 0; round < 20; ++round) {
            for (int i = 0; i < 2000; ++i) {
                pts.push_back(std::make_unique<cPoint>());
                pts.back()->SerialNumber = seed * 100000 + i;
            }
            for (const auto& p : pts) sum += p->SerialNumber - seed * 100000;
            pts.clear();
        }
    };
    long a = 0, b = 0;
    std::thread t1(work, 1, std::ref(a)), t2(work, 2, std::ref(b));
    t1.join();
    t2.join();
    const long each = 20L * (1999L * 2000 / 2);
    EXPECT_EQ(a, each);
    EXPECT_EQ(b, each);
}
