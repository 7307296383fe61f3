// The bootstrap's intervals against the truth they are made to cover: data
// drawn many times from a known law with known noise.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "procwin/pw_bootstrap.h"

using namespace zorv;

namespace {

constexpr double kC[8] = {0, 0.20, -0.004, 0.01, -0.30, 0.0005, 0.02, 0.004};

Datam NoisyMatrix(unsigned seed, double sigma) {
    std::mt19937 rng(seed);
    std::normal_distribution<double> noise(0, sigma);
    Datam t(63, 3, 0, 0);
    t(0, 1) = Value("Focus"), t(0, 2) = Value("Dose"), t(0, 3) = Value("CD");
    int r = 0;
    for (int i = 0; i < 9; ++i)
        for (int j = 0; j < 7; ++j) {
            ++r;
            const double f = static_cast<float>(-0.4 + 0.1 * i), d = static_cast<float>(20 + 2 * j);
            const double z = kC[1] + kC[2] * d + kC[3] * f + kC[4] * f * f + kC[5] * d * f + kC[6] * f * f * f +
                             kC[7] * d * f * f;
            t(r, 1) = Value(f), t(r, 2) = Value(d), t(r, 3) = Value(z + noise(rng));
        }
    return t;
}

// The isofocal dose and the focus term's coefficient.
std::vector<std::pair<std::string, double>> Measures(const std::vector<Datam>& s) {
    const Datam& c = s[0];
    return {{"IsoFocal", -c(4, 1).toDouble() / c(7, 1).toDouble()}, {"c4", c(4, 1).toDouble()}};
}

}  // namespace

TEST(PWbootstrap, IntervalsCoverTheTruthMostOfTheTime) {
    const double truth[] = {0.30 / 0.004, -0.30};
    int covered[2] = {0, 0};
    const int repeats = 40;
    for (int k = 0; k < repeats; ++k) {
        auto r = PWbootstrap(NoisyMatrix(100 + k, 0.002), {3}, {}, 200, 7 + k, 0.9, Measures);
        ASSERT_TRUE(r);
        ASSERT_EQ(r->size(), 2u);
        for (int m = 0; m < 2; ++m) {
            const PWInterval& iv = (*r)[static_cast<size_t>(m)];
            EXPECT_EQ(iv.samples, 200);
            EXPECT_LE(iv.low, iv.estimate);
            EXPECT_GE(iv.high, iv.estimate);
            covered[m] += iv.low <= truth[m] && truth[m] <= iv.high;
        }
    }
    // 90% intervals: a fair method covers about 36 of 40; a broken one far fewer.
    EXPECT_GE(covered[0], 30) << covered[0];
    EXPECT_GE(covered[1], 30) << covered[1];
    RecordProperty("IsoFocalCovered", covered[0]);
    RecordProperty("C4Covered", covered[1]);
    std::printf("90%% intervals covering the truth in %d repeats: isofocal %d, c4 %d\n", repeats, covered[0], covered[1]);
}

TEST(PWbootstrap, SeededRunsRepeatAndBadArgumentsFail) {
    const Datam t = NoisyMatrix(5, 0.002);
    auto a = PWbootstrap(t, {3}, {}, 50, 11, 0.95, Measures);
    auto b = PWbootstrap(t, {3}, {}, 50, 11, 0.95, Measures);
    ASSERT_TRUE(a && b);
    EXPECT_EQ((*a)[0].low, (*b)[0].low);
    EXPECT_EQ((*a)[0].high, (*b)[0].high);
    EXPECT_FALSE(PWbootstrap(t, {3}, {}, 50, 11, 1.5, Measures));
    EXPECT_FALSE(PWbootstrap(t, {}, {}, 50, 11, 0.9, Measures));
    EXPECT_DOUBLE_EQ(PercentileOf({1, 2, 3, 4, 5}, 0.25), 2);
    EXPECT_DOUBLE_EQ(PercentileOf({1, 2}, 0.5), 1.5);
}
