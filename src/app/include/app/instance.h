// Single-instance check: an exclusive flock on a file in $XDG_RUNTIME_DIR (or
// /tmp). The lock goes with the process; a second process, or a second lock
// object in the same process, is refused.
#pragma once

#include <string>

namespace zorv {

class InstanceLock {
public:
    InstanceLock() = default;
    ~InstanceLock();
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;

    // True when this object now holds the lock of `name`.
    bool acquire(const std::string& name);
    void release();
    bool held() const { return fd_ >= 0; }
    // Path of the lock file of the last acquire.
    const std::string& path() const { return path_; }

private:
    int fd_ = -1;
    std::string path_;
};

}  // namespace zorv
