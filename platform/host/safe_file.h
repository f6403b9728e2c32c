// Making a new file at a name without following or replacing anything found
// there: the content is written to a temporary made under a fresh name in the
// same directory (O_EXCL|O_NOFOLLOW), synced, and linked to the name only if
// the name is still free. Nothing planted beside the name (a symbolic link to
// another file, say) is ever written through. A new_file is used by one thread.
#ifndef TEVASH_HOST_SAFE_FILE_H
#define TEVASH_HOST_SAFE_FILE_H

#include <string>

namespace tevhost {
namespace detail {

class new_file {
public:
    // Makes the empty temporary beside `target`; ok() false with error() set
    // when it cannot.
    explicit new_file(const std::string& target);
    // Removes the temporary (and any -journal, -wal or -shm SQLite left beside
    // it) unless it was placed.
    ~new_file();
    new_file(const new_file&) = delete;
    new_file& operator=(const new_file&) = delete;

    bool ok() const { return fd_ >= 0; }
    const std::string& error() const { return error_; }
    const std::string& temp_path() const { return temp_; }
    // Whether temp_path() still names the file this object made, so that what
    // was opened by that name is that file. REQUIRES: ok().
    bool still_named() const;

    // Syncs the temporary, gives it the target's name unless that name exists
    // (a dangling symbolic link included) and syncs the directory. Returns 0
    // when placed, EEXIST when the name was taken (the temporary is removed),
    // else an errno with *error set. REQUIRES: ok().
    int place(std::string* error);

private:
    std::string target_, temp_, error_;
    int fd_ = -1;
    bool placed_ = false;
};

// Why a new file may not be made at `path`, or "" when it may: the name is a
// symbolic link whose target is missing (a file made there would be made
// wherever the link points).
std::string dangling_link(const std::string& path);

}  // namespace detail
}  // namespace tevhost

#endif  // TEVASH_HOST_SAFE_FILE_H
