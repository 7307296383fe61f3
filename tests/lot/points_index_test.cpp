// Many points under one site (repeated measurements, or a lot loaded without
// the field split): keys repaired as for a few points, look-ups by key right
// after adds and removes.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "lot/lot.h"

using namespace zorv;

TEST(PointsIndex, RepeatedKeysAreRepairedAndFoundAtScale) {
    Ref<cSite> site = cSite::New();
    const int n = 20000;
    for (int i = 0; i < n; ++i) {
        auto pt = std::make_unique<cPoint>();
        pt->ValueV = static_cast<float>(i);
        // every point arrives under the site's number, as the loader hands them
        ASSERT_NE(site->Points().Add(std::move(pt), "3"), nullptr) << i;
    }
    Points& pts = site->Points();
    ASSERT_EQ(pts.Count(), n);
    // The first keeps 3; each later one takes the next free number above
    // max(key, count), which here is the one after the last.
    EXPECT_EQ(pts.Item(1)->NumberKey(), "3");
    EXPECT_EQ(pts.Item(2)->NumberKey(), "4");
    EXPECT_EQ(pts.Item(n)->NumberKey(), std::to_string(n + 2));
    std::set<std::string> keys;
    for (cPoint* p : pts) keys.insert(p->NumberKey());
    EXPECT_EQ(keys.size(), static_cast<size_t>(n));
    for (int i : {1, 2, 9, 10, 777, n}) {
        const cPoint* p = pts.Item(i);
        EXPECT_EQ(pts.IndexOf(p->NumberKeyValue()), i);
        EXPECT_EQ(pts.Item(p->NumberKey()), p);
    }
    EXPECT_EQ(pts.Item("1"), nullptr);

    // Removing shifts positions; look-ups follow.
    const std::string key5 = pts.Item(5)->NumberKey();
    const std::string key6 = pts.Item(6)->NumberKey();
    ASSERT_TRUE(pts.Remove(5));
    EXPECT_EQ(pts.Count(), n - 1);
    EXPECT_EQ(pts.Item(key5), nullptr);
    EXPECT_EQ(pts.IndexOf(MakeKey(key6)), 5);
    ASSERT_TRUE(pts.Remove(1));
    EXPECT_EQ(pts.Item("3"), nullptr);
    EXPECT_EQ(pts.IndexOf(MakeKey(key6)), 4);
    // A freed key can be taken again.
    auto again = std::make_unique<cPoint>();
    ASSERT_NE(pts.Add(std::move(again), key5), nullptr);
    EXPECT_EQ(pts.Item(pts.Count())->NumberKey(), key5);
}

TEST(PointsIndex, FewPointsBehaveAsBefore) {
    Ref<cSite> site = cSite::New();
    Points& pts = site->Points();
    EXPECT_EQ(pts.IndexOf(MakeKey("1")), 0);
    pts.Add(nullptr, "7");
    EXPECT_EQ(pts.IndexOf(MakeKey("7")), 1);
    pts.Add(nullptr, "7");  // taken: max(7, 1) + 1
    EXPECT_EQ(pts.Item(2)->NumberKey(), "8");
    pts.Add(nullptr);  // count + 1 = 3
    EXPECT_EQ(pts.Item(3)->NumberKey(), "3");
    pts.Remove(1);
    EXPECT_EQ(pts.IndexOf(MakeKey("8")), 1);
    EXPECT_EQ(pts.IndexOf(MakeKey("7")), 0);
}
