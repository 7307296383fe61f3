#include "app/mru.h"

namespace zorv {
void MRU_RegisterFile(const std::string&, const std::string&, int) {}
std::vector<std::string> MRU_List(const std::string&, int) { return {}; }
void MRU_RemoveFile(const std::string&, const std::string&) {}
}  // namespace zorv
