// The runtime directory of the host message service and every file name in it
// (sockets, locks, the shared record store), kept in one place. Every function
// here is safe to call from any thread.
#ifndef TEV_HOST_RUNTIME_DIR_H
#define TEV_HOST_RUNTIME_DIR_H

#include <sys/un.h>

#include <string>

namespace tevhost {
namespace rundir {

// The runtime directory: the one chosen (set_runtime_dir, TEVASH_RUNTIME_DIR),
// else $XDG_RUNTIME_DIR/tevash, else /tmp/tevash-<euid>. Neither created nor checked.
std::string path();

// Empty when `dir` is a directory of this user closed to others, else the words
// of why not.
std::string unsafe(const std::string& dir);

// The files in runtime directory `dir`. A connection name's bytes other than
// letters, digits, '_', '-' and '.' (a leading '.' too) are written as %XX.
std::string socket_file(const std::string& dir, const std::string& connection);  // <name>.sock
std::string lock_file(const std::string& dir, const std::string& connection);    // <name>.lock
std::string store_file(const std::string& dir);                                  // store.db
std::string store_choice_file(const std::string& dir);  // store.path: the store a service chose

// Fills *addr with the Unix socket address of `path`; false when the path is
// too long for one.
bool socket_address(const std::string& path, sockaddr_un* addr);

}  // namespace rundir
}  // namespace tevhost

#endif  // TEV_HOST_RUNTIME_DIR_H
