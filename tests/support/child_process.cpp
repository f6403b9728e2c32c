#include "child_process.h"

#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>
#include <thread>

extern char** environ;

namespace tevtest {

namespace {

void close_fd(int* fd) {
    if (*fd >= 0) ::close(*fd);
    *fd = -1;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> out;
    for (std::string& s : strings) out.push_back(&s[0]);
    out.push_back(nullptr);
    return out;
}

}  // namespace

temp_dir::temp_dir(const std::string& prefix)
    : dir_("/tmp/" + prefix + "XXXXXX"), owner_(getpid()) {
    if (mkdtemp(&dir_[0]) == nullptr)
        throw std::system_error(errno, std::generic_category(), "mkdtemp " + dir_);
}

temp_dir::~temp_dir() {
    const auto remove = [](const char* path, const struct stat*, int, FTW*) {
        return ::remove(path);
    };
    if (getpid() == owner_) nftw(dir_.c_str(), remove, 16, FTW_DEPTH | FTW_PHYS);
}

child_process::child_process(const std::vector<std::string>& argv, const child_options& opt) {
    int in[2] = {-1, -1}, out[2] = {-1, -1}, err[2] = {-1, -1};
    const bool to_log = !opt.log.empty();
    if (opt.pipe_stdin && pipe2(in, O_CLOEXEC) != 0) in[0] = in[1] = -1;
    if (opt.pipe_stdout && !to_log && pipe2(out, O_CLOEXEC) != 0) out[0] = out[1] = -1;
    if (opt.pipe_stderr && !to_log && pipe2(err, O_CLOEXEC) != 0) err[0] = err[1] = -1;
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    if (in[0] >= 0) posix_spawn_file_actions_adddup2(&fa, in[0], 0);
    if (out[1] >= 0) posix_spawn_file_actions_adddup2(&fa, out[1], 1);
    if (err[1] >= 0) posix_spawn_file_actions_adddup2(&fa, err[1], 2);
    if (to_log) {
        posix_spawn_file_actions_addopen(&fa, 1, opt.log.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                         0600);
        posix_spawn_file_actions_adddup2(&fa, 1, 2);
    }
    if (opt.fd3 >= 0) posix_spawn_file_actions_adddup2(&fa, opt.fd3, 3);
    // The inherited environment, less the names `env` sets.
    std::vector<std::string> args(argv), envs(opt.env);
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string name(*e, std::strcspn(*e, "=") + 1);
        bool replaced = false;
        for (const std::string& own : opt.env) replaced |= own.compare(0, name.size(), name) == 0;
        if (!replaced) envs.emplace_back(*e);
    }
    std::vector<char*> a = pointers(args), e = pointers(envs);
    if (a[0] == nullptr || posix_spawn(&pid_, a[0], &fa, nullptr, a.data(), e.data()) != 0) {
        pid_ = -1;
        status_ = SIGNALLED;
    }
    posix_spawn_file_actions_destroy(&fa);
    for (int* fd : {&in[0], &out[1], &err[1]}) close_fd(fd);
    in_ = in[1];
    out_ = out[0];
    err_ = err[0];
}

child_process::child_process(const std::function<int()>& body) : pid_(fork()) {
    if (pid_ == 0) _exit(body());
    if (pid_ < 0) status_ = SIGNALLED;
}

child_process& child_process::operator=(child_process&& other) noexcept {
    std::swap(pid_, other.pid_);
    std::swap(status_, other.status_);
    std::swap(in_, other.in_);
    std::swap(out_, other.out_);
    std::swap(err_, other.err_);
    return *this;
}

child_process::~child_process() {
    for (int* fd : {&in_, &out_, &err_}) close_fd(fd);
    kill(SIGKILL);
}

void child_process::close_stdin() {
    close_fd(&in_);
}

bool child_process::read_stdout(void* buf, std::size_t size) {
    for (auto* at = static_cast<char*>(buf); size > 0;) {
        const ssize_t n = ::read(out_, at, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        at += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

void child_process::read_all(std::string* out, std::string* err) {
    while (out_ >= 0 || err_ >= 0) {
        pollfd fds[2] = {{out_, POLLIN, 0}, {err_, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) continue;  // EINTR
        for (int i = 0; i < 2; ++i) {
            char buf[4096];
            const ssize_t n = fds[i].revents ? ::read(fds[i].fd, buf, sizeof buf) : -1;
            if (n > 0) (i == 0 ? out : err)->append(buf, static_cast<std::size_t>(n));
            if (n == 0 || (n < 0 && fds[i].revents && errno != EINTR))
                close_fd(i == 0 ? &out_ : &err_);
        }
    }
}

int child_process::wait(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (pid_ > 0 && status_ == RUNNING) {
        int st = 0;
        const pid_t r = waitpid(pid_, &st, timeout < timeout.zero() ? 0 : WNOHANG);
        if (r == pid_) status_ = WIFEXITED(st) ? WEXITSTATUS(st) : SIGNALLED;
        if (r < 0 && errno != EINTR) status_ = SIGNALLED;  // reaped elsewhere: status lost
        if (r == 0 && std::chrono::steady_clock::now() >= deadline) return RUNNING;
        if (r == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return status_;
}

void child_process::signal(int sig) {
    if (pid_ <= 0 || status_ != RUNNING) return;
    ::kill(pid_, sig);
    int st = 0;
    if (sig == SIGSTOP) waitpid(pid_, &st, WUNTRACED);
}

int child_process::kill(int sig) {
    if (pid_ > 0 && status_ == RUNNING) ::kill(pid_, sig);
    return wait();
}

run_result run_child(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
    child_options opt;
    opt.env = env;
    opt.pipe_stdout = opt.pipe_stderr = true;
    child_process child(argv, opt);
    run_result r{0, {}, {}};
    child.read_all(&r.out, &r.err);
    r.status = child.wait();
    return r;
}

}  // namespace tevtest
