// Recent-file lists kept in the settings under ApplicationTitle(), one section
// per list ("RecentFiles", "RecentFilesReticle", "RecentFilesMEF"), keys "1",
// "2", ... by position.
#pragma once

#include <string>
#include <vector>

namespace zorv {

// Utility(MRU_RegisterFile): moves the path to the head of the list; a path
// already listed moves up without a double; the list is trimmed to `size`
// (at least 1) and surplus keys are deleted.
void MRU_RegisterFile(const std::string& section, const std::string& path, int size);
// The list, head first, at most `size` entries; empty keys are skipped.
std::vector<std::string> MRU_List(const std::string& section, int size);
// Takes a path off the list (a file that no longer opens).
void MRU_RemoveFile(const std::string& section, const std::string& path);

}  // namespace zorv
