// Child processes and temporary directories, for the tests and the benchmarks
// alike (no GoogleTest here).
#ifndef TEV_CHILD_PROCESS_H
#define TEV_CHILD_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace tevtest {

// A fresh directory /tmp/<prefix>XXXXXX, removed with everything in it by the
// process that made it. Throws std::system_error when none can be made.
class temp_dir {
public:
    explicit temp_dir(const std::string& prefix = "tevash_test_");
    ~temp_dir();
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    const std::string& dir() const { return dir_; }

private:
    std::string dir_;
    pid_t owner_;
};

struct child_options {
    std::vector<std::string> env;  // "NAME=value": replaces or adds to the inherited ones
    std::string log;               // standard output and error appended to this file, not the pipes
    bool pipe_stdin = false, pipe_stdout = false, pipe_stderr = false;
    int fd3 = -1;  // handed to the child as its descriptor 3
};

// One child process: a program (argv[0] is its path; "/proc/self/exe" is this
// program) or a fork running a function. Still running when its object goes, it
// is killed and reaped.
class child_process {
public:
    static constexpr int SIGNALLED =
        -1;                             // the status of a child ended by a signal or never started
    static constexpr int RUNNING = -2;  // the status of a wait that timed out
    static constexpr std::chrono::milliseconds FOREVER{-1};

    child_process() = default;
    child_process(const std::vector<std::string>& argv, const child_options& opt = {});
    explicit child_process(const std::function<int()>& body);  // exits with body()
    child_process(child_process&& other) noexcept { *this = std::move(other); }
    child_process& operator=(child_process&& other) noexcept;
    ~child_process();

    bool started() const { return pid_ > 0; }
    void close_stdin();
    // Exactly `size` bytes of the standard output pipe; false at its end.
    bool read_stdout(void* buf, std::size_t size);
    // The standard output and error pipes read to their ends.
    void read_all(std::string* out, std::string* err);
    // The exit status, SIGNALLED, or RUNNING after `timeout`; kept for later waits.
    int wait(std::chrono::milliseconds timeout = FOREVER);
    int kill(int sig);  // sends `sig` unless ended, then waits
    // Sends `sig` without waiting for an end; after SIGSTOP, returns once the
    // child has stopped.
    void signal(int sig);

private:
    pid_t pid_ = -1;
    int status_ = RUNNING;
    int in_ = -1, out_ = -1, err_ = -1;
};

struct run_result {
    int status;  // as child_process::wait
    std::string out, err;
};
// Runs argv to its end, its standard output and error captured.
run_result run_child(const std::vector<std::string>& argv,
                     const std::vector<std::string>& env = {});

}  // namespace tevtest

#endif  // TEV_CHILD_PROCESS_H
