#include "app/strings.h"

namespace zorv {
const char* LoadResString(int) { return ""; }
bool HasResString(int) { return false; }
}  // namespace zorv
