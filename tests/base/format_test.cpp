// Formatter against hand-computed strings. Rounding is decided on the value's
// 15-digit decimal text, half away from zero.
#include <gtest/gtest.h>

#include "base/format.h"
#include "base/regional.h"

using namespace zorv;

namespace {
// 2026-11-22 (a Sunday) 14:05:09; serials checked with Python's datetime.
constexpr double kSunday = 46348.0;
const double kAfternoon = kSunday + (14 * 3600 + 5 * 60 + 9) / 86400.0;
}  // namespace

TEST(Format, FixedDecimalPatternsOfTheSystem) {
    EXPECT_EQ(Format(3.14159, "##0.00"), "3.14");
    EXPECT_EQ(Format(-3.14159, "##0.00"), "-3.14");
    EXPECT_EQ(Format(0.0, "##0.00"), "0.00");
    EXPECT_EQ(Format(1234.5, "##0.00"), "1234.50");
    EXPECT_EQ(Format(1.5, "###0.00#"), "1.50");
    EXPECT_EQ(Format(1.2345, "###0.00#"), "1.235");
    EXPECT_EQ(Format(1.2344, "###0.00#"), "1.234");
    EXPECT_EQ(Format(123.4567, "#######0.000"), "123.457");
    EXPECT_EQ(Format(1e9, "#######0.000"), "1000000000.000");
    EXPECT_EQ(Format(1.5, "0.000####"), "1.500");
    EXPECT_EQ(Format(1.23456789, "0.000####"), "1.2345679");
    EXPECT_EQ(Format(5e-8, "0.000####"), "0.0000001");
    EXPECT_EQ(Format(0.6, "#####0.0####"), "0.6");
    EXPECT_EQ(Format(10.0, "#####0.0####"), "10.0");
    EXPECT_EQ(Format(0.123456, "#####0.0####"), "0.12346");
    EXPECT_EQ(Format(9.95, "#0.0"), "10.0");
    EXPECT_EQ(Format(-9.95, "#0.0"), "-10.0");
    EXPECT_EQ(Format(0.04, "#0.0"), "0.0");
    EXPECT_EQ(Format(1.0 / 3, "0.0000"), "0.3333");
    EXPECT_EQ(Format(2.0 / 3, "0.0000"), "0.6667");
    EXPECT_EQ(Format(123.45678, "0.0000"), "123.4568");
    EXPECT_EQ(Format(2.0005, "##0.000"), "2.001");
    EXPECT_EQ(Format(0.12, "#0.0000#"), "0.1200");
    EXPECT_EQ(Format(0.123456, "#0.0000#"), "0.12346");
    EXPECT_EQ(Format(-0.5, "###0.00"), "-0.50");
    EXPECT_EQ(Format(12345.67891, "####0.0000"), "12345.6789");
    EXPECT_EQ(Format(3.14159265358979, "0.000000"), "3.141593");
    EXPECT_EQ(Format(0.5, "#.00"), ".50");
}

TEST(Format, RoundingHalfAwayFromZeroOnTheDecimalText) {
    // 2.675 is 2.67499999999999982... in binary; its 15-digit text 2.675
    // decides, as in the original, so it rounds up.
    EXPECT_EQ(Format(2.675, "0.00"), "2.68");
    EXPECT_EQ(Format(1.005, "0.00"), "1.01");
    EXPECT_EQ(Format(0.125, "###0.00"), "0.13");
    EXPECT_EQ(Format(0.075, "$#.##"), "$.08");
    EXPECT_EQ(Format(2.5, "0"), "3");
    EXPECT_EQ(Format(-2.5, "0"), "-3");
    EXPECT_EQ(Format(0.5, "0"), "1");
    EXPECT_EQ(Format(1.5, "0"), "2");
    EXPECT_EQ(Format(0.005, "##0.00"), "0.01");
    EXPECT_EQ(Format(-0.005, "##0.00"), "-0.01");
    EXPECT_EQ(Format(0.004, "##0.00"), "0.00");
    EXPECT_EQ(Format(999.9996, "0.000"), "1000.000");
    // A negative value that rounds to zero keeps its sign, as the original does.
    EXPECT_EQ(Format(-0.004, "##0.00"), "-0.00");
    EXPECT_EQ(Format(-0.4, "0"), "-0");
    // Singles round on their 7-digit text.
    EXPECT_EQ(Format(0.1f, "0.000000000"), "0.100000000");
    EXPECT_EQ(Format(2.675f, "0.00"), "2.68");
}

TEST(Format, OptionalDigitsAndTheBarePoint) {
    const char* full = "#################0.##################";
    EXPECT_EQ(Format(5.0, full), "5.");  // the point stays, as in the original
    EXPECT_EQ(Format(0.1, full), "0.1");
    EXPECT_EQ(Format(1.0 / 3, full), "0.333333333333333");
    EXPECT_EQ(Format(123456789.123, full), "123456789.123");
    EXPECT_EQ(Format(1e-10, full), "0.0000000001");
    EXPECT_EQ(Format(1e-20, full), "0.");
    EXPECT_EQ(Format(-2.5, full), "-2.5");
    EXPECT_EQ(Format(1.5e17, full), "150000000000000000.");
    EXPECT_EQ(Format(12.6, "#0."), "13.");
    EXPECT_EQ(Format(0.0, "#0."), "0.");
    EXPECT_EQ(Format(0.0, "#"), "");
}

TEST(Format, LargeTinyAndIntegers) {
    EXPECT_EQ(Format(0.0, "0"), "0");
    EXPECT_EQ(Format(1234567.0, "0"), "1234567");
    EXPECT_EQ(Format(1e20, "0"), "100000000000000000000");
    EXPECT_EQ(Format(123456789012345678.0, "0"), "123456789012346000");
    EXPECT_EQ(Format(1e20, "##0.000"), "100000000000000000000.000");
    EXPECT_EQ(Format(1e-300, "0.00"), "0.00");
    EXPECT_EQ(Format(-1e-300, "0.00"), "-0.00");
    EXPECT_EQ(Format(5, "0.00"), "5.00");
    EXPECT_EQ(Format(-7, "000"), "-007");
    EXPECT_EQ(Format(true, "0"), "-1");
    EXPECT_EQ(Format(1234567890123LL, "#,##0"), "1,234,567,890,123");
    EXPECT_EQ(FormatInteger(-9223372036854775807LL - 1, "0"), "-9223372036854775808");
}

TEST(Format, ThousandsPercentAndScaling) {
    EXPECT_EQ(Format(1234.56, "0,000.00"), "1,234.56");
    EXPECT_EQ(Format(12.5, "0,000.00"), "0,012.50");
    EXPECT_EQ(Format(1234567.891, "0,000.00"), "1,234,567.89");
    EXPECT_EQ(Format(-1234.56, "0,000.00"), "-1,234.56");
    EXPECT_EQ(Format(1000000.0, "#,##0"), "1,000,000");
    EXPECT_EQ(Format(999.0, "#,##0"), "999");
    EXPECT_EQ(Format(0.256, "0%"), "26%");
    EXPECT_EQ(Format(0.0005, "0.0%"), "0.1%");
    EXPECT_EQ(Format(-0.5, "0%"), "-50%");
    EXPECT_EQ(Format(1234567.0, "0,.0"), "1234.6");
    EXPECT_EQ(Format(1234567.0, "0,,"), "1");
    EXPECT_EQ(Format(1.5, "0.00 \\m\\m"), "1.50 mm");
    EXPECT_EQ(Format(1.5, "0.00\" um\""), "1.50 um");
    EXPECT_EQ(Format(-5.0, "$0.00"), "-$5.00");
}

TEST(Format, Scientific) {
    EXPECT_EQ(Format(12345.0, "0.00E+00"), "1.23E+04");
    EXPECT_EQ(Format(0.000123, "0.00E+00"), "1.23E-04");
    EXPECT_EQ(Format(9.999, "0.00E+00"), "1.00E+01");
    EXPECT_EQ(Format(0.0, "0.00E+00"), "0.00E+00");
    EXPECT_EQ(Format(-12345.0, "0.00E+00"), "-1.23E+04");
    EXPECT_EQ(Format(12345.0, "0.000e-00"), "1.235e04");
    EXPECT_EQ(Format(0.000123, "0.000e-00"), "1.230e-04");
    EXPECT_EQ(Format(1e100, "0.000e-00"), "1.000e100");
    EXPECT_EQ(Format(12345.0, ".00E+00"), ".12E+05");
    EXPECT_EQ(Format(1.5e-7, "Scientific"), "1.50E-07");
}

TEST(Format, NamedNumberFormatsAndSections) {
    EXPECT_EQ(Format(1234.5678, "General Number"), "1234.5678");
    EXPECT_EQ(Format(0.00001, "General Number"), "1E-05");
    EXPECT_EQ(Format(-1234.5, "Fixed"), "-1234.50");
    EXPECT_EQ(Format(1234.5, "Standard"), "1,234.50");
    EXPECT_EQ(Format(0.256, "Percent"), "25.60%");
    EXPECT_EQ(Format(-1234.5, "Currency"), "($1,234.50)");
    EXPECT_EQ(Format(2.0, "Yes/No"), "Yes");
    EXPECT_EQ(Format(0.0, "On/Off"), "Off");
    EXPECT_EQ(Format(1.5, "0.00;(0.00);\\Z\\e\\r\\o"), "1.50");
    EXPECT_EQ(Format(-1.5, "0.00;(0.00);\\Z\\e\\r\\o"), "(1.50)");
    EXPECT_EQ(Format(0.0, "0.00;(0.00);\\Z\\e\\r\\o"), "Zero");
    // An empty section takes the positive one (with its sign).
    EXPECT_EQ(Format(-1234.0, "$#,##0;;\\Z\\e\\r\\o"), "-$1,234");
    EXPECT_EQ(Format(0.0, "$#,##0;;\\Z\\e\\r\\o"), "Zero");
}

TEST(Format, EmptyPatternGivesTheCStrForm) {
    EXPECT_EQ(Format(0.1, ""), "0.1");
    EXPECT_EQ(Format(1.5, ""), "1.5");
    EXPECT_EQ(Format(1.0 / 3, ""), "0.333333333333333");
    EXPECT_EQ(Format(1e20, ""), "1E+20");
    EXPECT_EQ(Format(1e-5, ""), "1E-05");
    EXPECT_EQ(Format(-0.0, ""), "0");
    EXPECT_EQ(Format(0.1f, ""), "0.1");
    EXPECT_EQ(Format(42, ""), "42");
}

TEST(Format, TextPassesThroughUnlessNumeric) {
    EXPECT_EQ(FormatText("abc", "0.00"), "abc");
    EXPECT_EQ(FormatText("", "0.00"), "");
    EXPECT_EQ(FormatText("1.5", "0.00"), "1.50");
    EXPECT_EQ(FormatText(" 2.675 ", "0.00"), "2.68");
    EXPECT_EQ(FormatText("1.50", ""), "1.50");
    EXPECT_EQ(FormatText("2026-11-22", "dd-mmm-yyyy"), "22-Nov-2026");
    EXPECT_EQ(FormatText("not a date", "dd-mmm-yyyy"), "not a date");
}

TEST(Format, DatePatterns) {
    EXPECT_EQ(FormatDate(kAfternoon, "d-mmm-yy"), "22-Nov-26");
    EXPECT_EQ(FormatDate(kAfternoon, "dd-mmm-yyyy"), "22-Nov-2026");
    EXPECT_EQ(FormatDate(46027.0, "d-mmm-yy"), "5-Jan-26");
    EXPECT_EQ(FormatDate(46027.0, "dd-mmm-yyyy"), "05-Jan-2026");
    EXPECT_EQ(FormatDate(kAfternoon, "hh:mm:ss"), "14:05:09");
    EXPECT_EQ(FormatDate(kAfternoon, "HH:MM"), "14:05");
    EXPECT_EQ(FormatDate(kAfternoon, "h:n:s"), "14:5:9");
    EXPECT_EQ(FormatDate(kAfternoon, "yyyy-mm-dd"), "2026-11-22");
    EXPECT_EQ(FormatDate(kAfternoon, "mm/dd/yyyy"), "11/22/2026");
    EXPECT_EQ(FormatDate(kAfternoon, "yyyymmdd_hhmmss"), "20261122_140509");
    EXPECT_EQ(FormatDate(kAfternoon, "dddd ddd w q y ww"), "Sunday Sun 1 4 326 48");
    EXPECT_EQ(FormatDate(kAfternoon, "mmmm"), "November");
    EXPECT_EQ(FormatDate(36585.0, "d-mmm-yyyy dddd"), "29-Feb-2000 Tuesday");
    EXPECT_EQ(FormatDate(61.0, "yyyy-mm-dd"), "1900-03-01");
    // Numbers take date patterns as serials, dates take number patterns.
    EXPECT_EQ(Format(kSunday, "yyyy-mm-dd"), "2026-11-22");
    EXPECT_EQ(FormatDate(kAfternoon, "0.00"), "46348.59");
}

TEST(Format, TwelveHourClockAndNamedDateFormats) {
    EXPECT_EQ(FormatDate(kAfternoon, "h:nn AM/PM"), "2:05 PM");
    EXPECT_EQ(FormatDate(kAfternoon, "hh:mm a/p"), "02:05 p");
    EXPECT_EQ(FormatDate(kSunday, "h:nn am/pm"), "12:00 am");
    EXPECT_EQ(FormatDate(kSunday + 0.5, "h AMPM"), "12 PM");
    EXPECT_EQ(FormatDate(kAfternoon, "Medium Date"), "22-Nov-26");
    EXPECT_EQ(FormatDate(kAfternoon, "Medium Time"), "02:05 PM");
    EXPECT_EQ(FormatDate(kAfternoon, "Short Date"), "2026-11-22");
    EXPECT_EQ(FormatDate(kAfternoon, "Long Time"), "14:05:09");
    EXPECT_EQ(FormatDate(kAfternoon, "Short Time"), "14:05");
    EXPECT_EQ(FormatDate(kAfternoon, "Long Date"), "Sunday, November 22, 2026");
    EXPECT_EQ(FormatDate(kAfternoon, "General Date"), "2026-11-22 14:05:09");
    EXPECT_EQ(FormatDate(kSunday, "General Date"), "2026-11-22");
    EXPECT_EQ(FormatDate(0.5, "General Date"), "12:00:00");
    EXPECT_EQ(FormatDate(kAfternoon, ""), "2026-11-22 14:05:09");
    EXPECT_EQ(FormatDate(kAfternoon, "ddddd ttttt"), "2026-11-22 14:05:09");
    EXPECT_EQ(FormatDate(kAfternoon, "\"Date: \"yyyy"), "Date: 2026");
}

TEST(Format, DateEdges) {
    // Rounded to the second: a hair before midnight is the next day.
    EXPECT_EQ(FormatDate(kSunday + 0.9999999, "yyyy-mm-dd hh:mm:ss"), "2026-11-23 00:00:00");
    // Before 1899-12-30 the fraction still counts forward from midnight.
    EXPECT_EQ(FormatDate(-1.25, "yyyy-mm-dd hh:mm"), "1899-12-29 06:00");
    EXPECT_EQ(FormatDate(0.0, "yyyy-mm-dd"), "1899-12-30");
    // Out of the date range: the number.
    EXPECT_EQ(Format(1e12, "yyyy-mm-dd"), "1000000000000");
    EXPECT_TRUE(IsDatePattern("Medium Date"));
    EXPECT_TRUE(IsDatePattern("hh:mm:ss"));
    EXPECT_FALSE(IsDatePattern("0.000e-00"));
    EXPECT_FALSE(IsDatePattern("0.00 \\m\\m"));
}

TEST(Format, MachineSeparatorsFollowTheRegionalSetting) {
    SetRegionalSeparatorsForTest(',', '.');
    EXPECT_EQ(Format(1234.56, "0,000.00"), "1.234,56");
    EXPECT_EQ(Format(0.5, ""), "0,5");
    EXPECT_EQ(FormatText("0,25", "0.000"), "0,250");
    SetRegionalSeparatorsForTest('\0', '\0');
    EXPECT_EQ(Format(1234.56, "0,000.00"), "1,234.56");
}
