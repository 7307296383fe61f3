// What the monitor's run and its automation share: the settings section and
// the run log, written only while logging is on.
#pragma once

#include <string>

#include "base/format.h"
#include "base/regional.h"
#include "base/report.h"
#include "monitor/dm_options.h"

namespace zorv::dmlog {

inline constexpr const char* kApp = kDMSettingsApp;
inline constexpr const char* kSection = "DailyMonitor";

inline void Log(const std::string& line) {
    if (Logging()) AppendLogLine(line);
}
inline std::string TimeNow() { return FormatDate(NowSerial(), "hh:mm:ss"); }
inline std::string DateNow() { return FormatDate(NowSerial(), "dd-mmm-yyyy"); }

}  // namespace zorv::dmlog
