// The runtime directory of the host message service: where it is, the checks
// it must pass and the names of the files in it. Safe for concurrent use from
// any thread without external synchronization.
#include "runtime_dir.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "host/tev_host.h"
#include "ipc_internal.h"
#include "settings.h"

namespace tevhost {
namespace rundir {
namespace {

// A file name for a connection name.
std::string file_name(const std::string& connection) {
    std::string out;
    for (unsigned char c : connection) {
        if (std::isalnum(c) || c == '_' || c == '-' || (c == '.' && !out.empty())) {
            out.push_back(static_cast<char>(c));
        } else {
            char hex[4];
            std::snprintf(hex, sizeof hex, "%%%02X", c);
            out += hex;
        }
    }
    return out;
}

}  // namespace

std::string path() {
    std::string chosen = settings::runtime_dir_choice();
    if (!chosen.empty()) return chosen;
    std::string xdg = settings::xdg_runtime_dir();
    if (!xdg.empty()) return xdg + "/tevash";
    return "/tmp/tevash-" + std::to_string(::geteuid());
}

std::string unsafe(const std::string& dir) {
    struct stat st;
    if (::lstat(dir.c_str(), &st) != 0) {
        return "runtime directory " + dir + ": " + std::strerror(errno);
    }
    if (!S_ISDIR(st.st_mode)) return "runtime directory " + dir + " is not a directory";
    if (st.st_uid != ::geteuid()) {
        return "runtime directory " + dir + " is owned by uid " + std::to_string(st.st_uid) +
               ", not by this user (uid " + std::to_string(::geteuid()) + ")";
    }
    if ((st.st_mode & 077) != 0) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
        return "runtime directory " + dir + " is open to others (mode " + mode +
               "); it must be 0700";
    }
    return std::string();
}

std::string socket_file(const std::string& dir, const std::string& connection) {
    return dir + "/" + file_name(connection) + ".sock";
}

std::string lock_file(const std::string& dir, const std::string& connection) {
    return dir + "/" + file_name(connection) + ".lock";
}

std::string store_file(const std::string& dir) {
    return dir + "/store.db";
}

std::string store_choice_file(const std::string& dir) {
    return dir + "/store.path";
}

bool socket_address(const std::string& path, sockaddr_un* addr) {
    std::memset(addr, 0, sizeof *addr);
    addr->sun_family = AF_UNIX;
    if (path.size() >= sizeof addr->sun_path) return false;
    std::memcpy(addr->sun_path, path.data(), path.size());
    return true;
}

}  // namespace rundir

bool runtime_dir(std::string* dir, std::string* error) {
    std::string path = rundir::path();
    std::string why;
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        why = "cannot create runtime directory " + path + ": " + std::strerror(errno);
    } else {
        why = rundir::unsafe(path);
    }
    if (!why.empty()) {
        // Said once: to the caller who takes the words, else as a trace line.
        if (error != nullptr)
            *error = why;
        else
            ipc::trace(why);
        return false;
    }
    if (dir != nullptr) *dir = path;
    return true;
}

bool shared_store_file(std::string* path, std::string* error) {
    std::string dir;
    if (!runtime_dir(&dir, error)) return false;
    std::string chosen;
    if (std::ifstream in{rundir::store_choice_file(dir)};
        in && std::getline(in, chosen) && !chosen.empty() && chosen[0] == '/') {
        if (path != nullptr) *path = chosen;
        return true;
    }
    if (path != nullptr) *path = rundir::store_file(dir);
    return true;
}

bool choose_shared_store(const std::string& path, std::string* error) {
    std::string dir;
    if (!runtime_dir(&dir, error)) return false;
    char* absolute = ::realpath(path.c_str(), nullptr);
    const std::string file = rundir::store_choice_file(dir);
    const std::string part = file + ".part" + std::to_string(::getpid());
    bool ok = absolute != nullptr;
    if (ok) {
        // The runtime directory is this user's alone: a new name, then renamed over.
        std::ofstream out(part, std::ios::trunc);
        out << absolute << '\n';
        out.close();
        ok = out && ::rename(part.c_str(), file.c_str()) == 0;
    }
    std::free(absolute);
    if (!ok) {
        ::unlink(part.c_str());
        const std::string why = "cannot record the shared store " + path + " in " + file;
        ipc::trace(why);
        if (error != nullptr) *error = why;
    }
    return ok;
}

}  // namespace tevhost
