#include "app/regional.h"

namespace zorv {
bool GetRegionalSeparators(char& decimal, char& thousands) { decimal = '.'; thousands = ','; return false; }
void SetRegionalSeparatorsForTest(char, char) {}
char MachineDecimal() { return '.'; }
char MachineThousands() { return ','; }
std::string FixRegionalNumber(std::string_view text, char, char, bool) { return std::string(text); }
bool ParseMachineNumber(std::string_view, double& out) { out = 0; return false; }
bool ParseDateText(std::string_view, double& serial) { serial = 0; return false; }
bool FixRegionalDateSerial(std::string_view, char, char, double& serial) { serial = 0; return false; }
double DateSerial(int, int, int, int, int, double) { return 0; }
CivilTime CivilFromSerial(double) { return {}; }
}  // namespace zorv
