// Regional number and date texts. Settings and workbooks may hold numbers with
// the separators of the machine that wrote them; these routines translate.
// The program itself behaves as a machine with "." decimal and "," thousands
// separators whatever the C/C++ locale; SetRegionalSeparatorsForTest makes it
// behave as a machine with other separators (Format, text-to-number).
#pragma once

#include <string>
#include <string_view>

#include "base/value.h"

namespace zorv {

// Formats 1234.56 with "0,000.00" and reads the separators from the result
// (position 6 the decimal, position 2 the thousands). True when the decimal
// separator is not ".".
bool GetRegionalSeparators(char& decimal, char& thousands);

// The machine's separators (default '.' and ','). Passing '\0' restores the
// defaults.
void SetRegionalSeparatorsForTest(char decimal, char thousands);
char MachineDecimal();
char MachineThousands();

// mode true (settings to machine): "," -> "@", "." -> decimal, "@" -> thousands.
// mode false (machine to settings), only for a text that holds ",":
// "." -> "@", "," -> decimal, "@" -> thousands.
std::string FixRegionalNumber(std::string_view text, char decimal, char thousands, bool mode);

// Parses a number written with the machine's separators (thousands separators
// skipped, the machine decimal as the point), as CDbl would. False when not a number.
bool ParseMachineNumber(std::string_view text, double& out);

// A date/time text to a date serial: ISO "yyyy-mm-dd[ hh:mm[:ss]]", "m/d/yyyy",
// "d-mmm-yy", "d mmm yyyy", "mmm d, yyyy", "d.m.yyyy", times "hh:mm[:ss] [AM|PM]",
// or a plain number (a serial). Two-digit years: 00-29 are 20xx, 30-99 19xx.
bool ParseDateText(std::string_view text, double& serial);

// Util(FixRegionalDate): the text as a date; when that fails, the separators
// are repaired (both directions of FixRegionalNumber) and the conversion tried
// again. The serial; false on failure.
bool FixRegionalDateSerial(std::string_view text, char decimal, char thousands, double& serial);
// The same as a Value date, empty on failure (inline: Value lives in numerics).
inline Value FixRegionalDate(std::string_view text, char decimal, char thousands) {
    double serial = 0;
    if (!FixRegionalDateSerial(text, decimal, thousands, serial)) return Value();
    return Value::date(serial);
}

// Date serial from a civil date and time, and back.
double DateSerial(int year, int month, int day, int hour = 0, int minute = 0, double second = 0);
// Date serial of now, local time.
double NowSerial();
struct CivilTime {
    int year = 1899, month = 12, day = 30, hour = 0, minute = 0, second = 0;
    int weekday = 7;  // 1 = Sunday
};
// Rounded to the nearest second; negative serials count days before
// 1899-12-30 with the fraction as the time of day, as the original does.
CivilTime CivilFromSerial(double serial);

}  // namespace zorv
