// The lock of a served connection name (ipc_name_lock.h).
#include "ipc_name_lock.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "host/tev_host.h"
#include "ipc_internal.h"
#include "message_internal.h"
#include "runtime_dir.h"

namespace tevhost {
namespace {

using ipc::trace;

int fail_fd(std::string* error, const std::string& text) {
    ipc::fail(error, text);
    return -1;
}

// The lock file of `connection`, open for reading when a live process holds
// its lock; -1 otherwise.
int locked_lock_file(const char* connection) {
    if (connection == nullptr) return -1;
    const std::string path = rundir::lock_file(rundir::path(), detail::connection_name(connection));
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return -1;
    struct flock fl {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    if (::fcntl(fd, F_OFD_GETLK, &fl) != 0 || fl.l_type == F_UNLCK) {
        ::close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

namespace ipc {

int lock_name(const std::string& name, const std::string& lock_path, const std::string& socket_path,
              std::string* error) {
    for (int attempt = 0; attempt < 16; ++attempt) {
        int fd = ::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd < 0) {
            return fail_fd(error, "serve " + name + ": cannot open " + lock_path + ": " +
                                      std::strerror(errno));
        }
        struct flock fl {};
        fl.l_type = F_WRLCK;
        fl.l_whence = SEEK_SET;
        if (::fcntl(fd, F_OFD_SETLK, &fl) != 0) {
            const int why = errno;
            ::close(fd);
            if (why == EAGAIN || why == EACCES) {
                return fail_fd(error, "serve " + name + ": already served by a live process (" +
                                          socket_path + ")");
            }
            return fail_fd(
                error, "serve " + name + ": cannot lock " + lock_path + ": " + std::strerror(why));
        }
        // A server that stopped meanwhile may have removed the file locked here.
        struct stat locked, at_path;
        if (::fstat(fd, &locked) == 0 && ::stat(lock_path.c_str(), &at_path) == 0 &&
            locked.st_dev == at_path.st_dev && locked.st_ino == at_path.st_ino) {
            timespec ts;
            clock_gettime(CLOCK_REALTIME, &ts);
            const std::string identity = std::to_string(::getpid()) + " " +
                                         std::to_string(ts.tv_sec * 1000000000LL + ts.tv_nsec) +
                                         "\n";
            if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, identity.data(), identity.size(), 0) !=
                                               static_cast<ssize_t>(identity.size())) {
                trace("serve " + name + ": cannot write " + lock_path + ": " +
                      std::strerror(errno));
            }
            return fd;
        }
        ::close(fd);
    }
    return fail_fd(error, "serve " + name + ": " + lock_path + " keeps being replaced");
}

}  // namespace ipc

bool connection_served(const char* connection) {
    int fd = locked_lock_file(connection);
    if (fd < 0) return false;
    ::close(fd);
    return true;
}

unsigned long long served_instance(const char* connection) {
    int fd = locked_lock_file(connection);
    if (fd < 0) return 0;
    char text[64] = {};
    ssize_t n = ::pread(fd, text, sizeof text - 1, 0);
    ::close(fd);
    long long pid = 0;
    unsigned long long stamp = 0;
    if (n <= 0 || std::sscanf(text, "%lld %llu", &pid, &stamp) != 2 || pid <= 0) return 0;
    // Until a starting server writes its own, the file may hold a dead one's.
    if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno != EPERM) return 0;
    unsigned long long identity = stamp ^ (static_cast<unsigned long long>(pid) << 40);
    return identity != 0 ? identity : 1;
}

}  // namespace tevhost
