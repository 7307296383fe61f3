#include "app/instance.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace zorv {

InstanceLock::~InstanceLock() { release(); }

bool InstanceLock::acquire(const std::string& name) {
    release();
    std::string safe;
    for (char c : name) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                           c == '-' || c == '_' || c == '.';
        safe += plain ? c : '_';
    }
    if (safe.empty()) safe = "zorv";
    const char* run = std::getenv("XDG_RUNTIME_DIR");
    if (run && *run && ::access(run, W_OK) == 0)
        path_ = std::string(run) + "/" + safe + ".lock";
    else  // /tmp is shared: the user id keeps users apart
        path_ = "/tmp/" + safe + "-" + std::to_string(::getuid()) + ".lock";
    // Each open() is its own open file description, so a second object in the
    // same process conflicts just as another process does. The descriptor is
    // closed on exec and with the process, which frees the lock.
    const int fd = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        return false;
    }
    fd_ = fd;
    return true;
}

void InstanceLock::release() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

}  // namespace zorv
