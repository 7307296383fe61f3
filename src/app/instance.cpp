#include "app/instance.h"

namespace zorv {
InstanceLock::~InstanceLock() { release(); }
bool InstanceLock::acquire(const std::string&) { return true; }
void InstanceLock::release() { fd_ = -1; }
}  // namespace zorv
