// Making a new file at a name without following or replacing anything found
// there (safe_file.h).
#include "safe_file.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace tevhost {
namespace detail {
namespace {

std::string dir_of(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// Six characters no other process can guess.
std::string random_suffix() {
    static const char kChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    unsigned char bytes[6] = {};
    if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
        // Unguessable no more, yet still never an existing name (O_EXCL).
        const unsigned long mix = static_cast<unsigned long>(getpid()) * 2654435761u ^
                                  static_cast<unsigned long>(clock());
        std::memcpy(bytes, &mix, sizeof bytes < sizeof mix ? sizeof bytes : sizeof mix);
    }
    std::string out;
    for (unsigned char b : bytes) out += kChars[b % (sizeof kChars - 1)];
    return out;
}

std::string why(const char* what, const std::string& path, int err) {
    return std::string("unable to ") + what + " " + path + " (" + std::strerror(err) + ")";
}

}  // namespace

new_file::new_file(const std::string& target) : target_(target) {
    int err = EEXIST;
    for (int attempt = 0; attempt < 100 && err == EEXIST; ++attempt) {
        temp_ = target + ".tmp-" + random_suffix();
        fd_ = open(temp_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
        err = fd_ >= 0 ? 0 : errno;
    }
    if (fd_ < 0) error_ = why("open a new file beside", target, err);
}

new_file::~new_file() {
    if (fd_ < 0) return;
    close(fd_);
    for (const char* suffix : {"-journal", "-wal", "-shm"}) unlink((temp_ + suffix).c_str());
    if (!placed_) unlink(temp_.c_str());
}

bool new_file::still_named() const {
    struct stat named, made;
    return lstat(temp_.c_str(), &named) == 0 && fstat(fd_, &made) == 0 &&
           named.st_dev == made.st_dev && named.st_ino == made.st_ino;
}

int new_file::place(std::string* error) {
    if (fsync(fd_) != 0) {
        const int err = errno;
        *error = why("sync", target_, err);
        return err;
    }
    // link() never follows or replaces an existing name; where a file system
    // has no hard links, a rename that refuses to replace does the same.
    int err = link(temp_.c_str(), target_.c_str()) == 0 ? 0 : errno;
    if (err == EPERM || err == ENOSYS || err == EOPNOTSUPP) {
        err = renameat2(AT_FDCWD, temp_.c_str(), AT_FDCWD, target_.c_str(), RENAME_NOREPLACE) == 0
                  ? 0
                  : errno;
        placed_ = err == 0;  // the temporary's name is gone
    } else if (err == 0) {
        placed_ = true;
        unlink(temp_.c_str());
    }
    if (err != 0) {
        if (err != EEXIST) *error = why("make", target_, err);
        return err;
    }
    const int dir = open(dir_of(target_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        fsync(dir);  // some file systems cannot sync a directory; the file is placed anyway
        close(dir);
    }
    return 0;
}

std::string dangling_link(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return "";
    if (stat(path.c_str(), &st) == 0 || errno != ENOENT) return "";
    return path + " is a symbolic link to a missing file; not making a new file through it";
}

}  // namespace detail
}  // namespace tevhost
