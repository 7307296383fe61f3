#include <gtest/gtest.h>

#include "base/format.h"
#include "numerics/lsq.h"
#include "numerics/tickformat.h"

using namespace zorv;

TEST(TickFormat, DecimalsFollowTheExponent) {
    // e = -2 with 1 digit: 3 decimals.
    TickFormat t = CalcTickFormat(0.0123, 1);
    EXPECT_EQ(t.decimals, 3);
    EXPECT_EQ(t.format, "#0.000");
    // e = 0: digits decimals; e above 0: digits decimals too.
    EXPECT_EQ(CalcTickFormat(5.0, 1).format, "#0.0");
    EXPECT_EQ(CalcTickFormat(150.0, 2).format, "#0.00");
    EXPECT_EQ(CalcTickFormat(-0.5, 3).format, "#0.0000");  // sign does not matter
    EXPECT_EQ(CalcTickFormat(0.0, 1).format, "#0.0");
    // The exponent is that of the two-decimal scientific text: 9.996 shows as
    // 1.00E+01 (e = 1), 0.09996 as 1.00E-01 (e = -1).
    EXPECT_EQ(ScientificExponent(9.996), 1);
    EXPECT_EQ(ScientificExponent(9.994), 0);
    EXPECT_EQ(CalcTickFormat(0.09996, 1).decimals, 2);
    EXPECT_EQ(CalcTickFormat(0.09994, 1).decimals, 3);
    EXPECT_EQ(ScientificExponent(1.5e-7), -7);
    EXPECT_EQ(ScientificExponent(-2.5e12), 12);
}

TEST(TickFormat, ExponentFollowsTheDecimalRoundingOfTheScientificText) {
    // 0.09995 is stored just below itself; its text rounds to 1.00E-01, so
    // the exponent is -1 and one digit needs 2 decimals, not 3.
    EXPECT_EQ(ScientificText(0.09995), "1.00E-01");
    EXPECT_EQ(ScientificExponent(0.09995), -1);
    EXPECT_EQ(CalcTickFormat(0.09995, 1).format, "#0.00");
    EXPECT_EQ(ScientificText(-9.995), "-1.00E+01");
    EXPECT_EQ(SigFig(0.09995, -99).text, "1.00E-01");
    EXPECT_EQ(SigFig(0.09995, -99).exponent, -1);
    // The same text as the format function's "Scientific" over a spread of values.
    for (double v : {0.0, 1.005, 2.675, 0.00995, 123.456, -4.4449, 1e-300, 6.02214076e23, 999.5,
                     -0.000123449999, 7.0})
        EXPECT_EQ(ScientificText(v), Format(v, "Scientific")) << v;
}
