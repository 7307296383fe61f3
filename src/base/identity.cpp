#include "base/identity.h"

namespace zorv {

namespace {
std::string& titleRef() {
    static std::string t = kProductName;
    return t;
}
std::string& folderRef() {
    static std::string f = ".";
    return f;
}
}  // namespace

std::string ProductName() { return kProductName; }
const std::string& ApplicationTitle() { return titleRef(); }
void SetApplicationTitle(const std::string& title) { titleRef() = title; }
const std::string& ProgramFolder() { return folderRef(); }
void SetProgramFolder(const std::string& folder) { folderRef() = folder; }

std::string VersionString() {
    return std::to_string(kVersionMajor) + "." + std::to_string(kVersionMinor) + "." +
           std::to_string(kVersionRevision);
}

std::string VersionLine() { return std::string(kProductName) + " ver: " + VersionString(); }

}  // namespace zorv
