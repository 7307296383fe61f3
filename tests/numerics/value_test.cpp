#include <gtest/gtest.h>

#include "common/comma_locale.h"

#include "base/datam.h"
#include "base/value.h"

using namespace zorv;

TEST(Value, SizeAndSharing) {
    EXPECT_LE(sizeof(Value), 16u);
    Value a("shared text");
    Value b = a;
    EXPECT_EQ(a.str().data(), b.str().data());  // one copy of the text
    b = Value(2.5);
    EXPECT_EQ(a.str(), "shared text");
    EXPECT_EQ(b.toDouble(), 2.5);
}

TEST(Value, TextFormsFollowCStr) {
    EXPECT_EQ(Value(0.1).toString(), "0.1");
    EXPECT_EQ(Value(0.00001).toString(), "1E-05");
    EXPECT_EQ(Value(1e15).toString(), "1E+15");
    EXPECT_EQ(Value(123456789012345.0).toString(), "123456789012345");
    EXPECT_EQ(Value(0.1f).toString(), "0.1");
    EXPECT_EQ(Value(true).toString(), "True");
    EXPECT_EQ(Value(true).toDouble(), -1);
    EXPECT_EQ(Value::date(45000).toString(), "2023-03-15");
    EXPECT_EQ(Value::date(45000.5).toString(), "2023-03-15 12:00:00");
    EXPECT_EQ(Value::date(0.4375).toString(), "10:30:00");
    EXPECT_EQ(Value().textLength(), 0u);
    EXPECT_EQ(Value("0").textLength(), 1u);
}

TEST(Value, NumericTests) {
    EXPECT_TRUE(IsNumericValue(Value("12%")));
    EXPECT_FALSE(Value("12%").isNumericPlain());
    EXPECT_TRUE(IsNumericValue(Value(" -1.5e3 ")));
    EXPECT_FALSE(IsNumericValue(Value()));
    EXPECT_FALSE(IsNumericValue(Value("")));
    EXPECT_FALSE(IsNumericValue(Value("abc")));
    EXPECT_FALSE(IsNumericValue(Value::date(1)));
    EXPECT_TRUE(IsNumericValue(Value("&H1F")));
    EXPECT_EQ(Value("&H1F").toDouble(), 31);
    EXPECT_EQ(Value(2.5).toLong(), 2);  // half to even
    EXPECT_EQ(Value(3.5).toLong(), 4);
}

TEST(Datam, BoundsRedimAndOneDim) {
    Datam d(3, 2, 0, 1);
    EXPECT_EQ(d.lb(1), 0);
    EXPECT_EQ(d.ub(2), 2);
    d(3, 2) = 7.0;
    d.redimPreserve(5, 2);
    EXPECT_EQ(d(3, 2).toDouble(), 7.0);
    d.redimPreserve(5, 4);
    EXPECT_EQ(d(3, 2).toDouble(), 7.0);
    EXPECT_TRUE(d(5, 4).isEmpty());
    EXPECT_THROW(d.at(6, 1), SubscriptError);

    Datam v = Datam::array1(4);
    EXPECT_EQ(v.dims(), 1);
    v.at(2) = Value("x");
    EXPECT_THROW(v.at(2, 0), SubscriptError);
    EXPECT_THROW(v.lb(2), SubscriptError);
    EXPECT_FALSE(Datam().isArray());

    Value arr(d);
    EXPECT_EQ(arr.array()(3, 2).toDouble(), 7.0);
}

TEST(Value, NumberTextIgnoresTheCLocale) {
    // The GUI toolkit sets LC_NUMERIC from the environment; a German user must
    // still read "0.6" as 0.6.
    if (!zorv::testing::UseCommaLocale())
        GTEST_SKIP() << "no locale with a decimal comma on this machine";
    double v = 0;
    const bool parsed = ParseNumber("0.6", v);
    const std::string half = NumberToText(0.5);
    const std::string small = Value(1.25e-7).toString();
    zorv::testing::RestoreCLocale();
    EXPECT_TRUE(parsed);
    EXPECT_DOUBLE_EQ(v, 0.6);
    EXPECT_EQ(half, "0.5");
    EXPECT_EQ(small, "1.25E-07");
}
