// Process identity: product, company, run-mode title, version.
#pragma once

#include <string>

namespace zorv {

inline constexpr const char* kProductName = "Zorv Wavefront Engineering";
inline constexpr const char* kCompanyName = "Palvex";
inline constexpr int kVersionMajor = 5;
inline constexpr int kVersionMinor = 1;
inline constexpr int kVersionRevision = 0;

std::string ProductName();
// Starts as the product name; start-up overwrites it with the run mode's title.
const std::string& ApplicationTitle();
void SetApplicationTitle(const std::string& title);
// Folder of the executable (help, templates, log file).
const std::string& ProgramFolder();
void SetProgramFolder(const std::string& folder);
// "5.1.0"
std::string VersionString();
// Product name, " ver: ", version: the title of error boxes.
std::string VersionLine();

}  // namespace zorv
