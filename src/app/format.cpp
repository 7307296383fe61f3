#include "app/format.h"

namespace zorv {
std::string Format(double v, std::string_view) { return std::to_string(v); }
std::string Format(float v, std::string_view) { return std::to_string(v); }
std::string FormatInteger(long long v, std::string_view) { return std::to_string(v); }
std::string FormatDate(double serial, std::string_view) { return std::to_string(serial); }
std::string FormatText(std::string_view text, std::string_view) { return std::string(text); }
bool IsDatePattern(std::string_view) { return false; }
std::string CStrNumber(double v, int) { return std::to_string(v); }
}  // namespace zorv
