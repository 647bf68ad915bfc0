#include <qor/launch/server_process.hpp>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

namespace qor::launch {

namespace {

using Clock = std::chrono::steady_clock;

// Reads the child's first line of output, giving up at `deadline` or at end of file.
std::string read_line(int fd, Clock::time_point deadline) {
    std::string line;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) throw std::runtime_error("qor-sim-server did not start in time");
        pollfd p{fd, POLLIN, 0};
        const int ready = ::poll(&p, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) continue;
        char c = 0;
        const ssize_t n = ::read(fd, &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw std::runtime_error("qor-sim-server exited before listening");
        if (c == '\n') return line;
        line += c;
    }
}

uint16_t port_in(const std::string& line, const std::string& key) {
    const auto at = line.find(key + "=");
    if (at == std::string::npos)
        throw std::runtime_error("qor-sim-server printed an unexpected line: " + line);
    return static_cast<uint16_t>(std::stoul(line.substr(at + key.size() + 1)));
}

}  // namespace

ServerProcess::ServerProcess(const LaunchOptions& options) {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0)
        throw std::runtime_error(
            fmt::format("cannot start qor-sim-server: {}", std::strerror(errno)));
    std::vector<std::string> args{options.executable, "--rawsocket-port", "0", "--websocket-port",
                                  "0"};
    args.insert(args.end(), options.args.begin(), options.args.end());
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);

    pid_ = ::fork();
    if (pid_ < 0) {
        ::close(out[0]);
        ::close(out[1]);
        throw std::runtime_error(
            fmt::format("cannot start qor-sim-server: {}", std::strerror(errno)));
    }
    if (pid_ == 0) {
        // Only async-signal-safe calls from here to exec.
        ::dup2(out[1], STDOUT_FILENO);
        if (!options.log_path.empty()) {
            const int log = ::open(options.log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            if (log >= 0) ::dup2(log, STDERR_FILENO);
        }
        ::execv(argv[0], argv.data());
        _exit(127);
    }
    ::close(out[1]);
    try {
        const std::string line = read_line(out[0], Clock::now() + options.start_timeout);
        rawsocket_port_ = port_in(line, "rawsocket");
        websocket_port_ = port_in(line, "websocket");
    } catch (...) {
        ::close(out[0]);
        stop(std::chrono::milliseconds(1000));
        throw;
    }
    ::close(out[0]);
}

ServerProcess::~ServerProcess() {
    stop();
}

std::string ServerProcess::rawsocket_url() const {
    return fmt::format("rs://127.0.0.1:{}", rawsocket_port_);
}

std::string ServerProcess::websocket_url() const {
    return fmt::format("ws://127.0.0.1:{}", websocket_port_);
}

int ServerProcess::wait(std::chrono::milliseconds limit) {
    if (pid_ <= 0 || exited_) return exit_code_;
    const auto deadline = Clock::now() + limit;
    for (;;) {
        int status = 0;
        const pid_t r = ::waitpid(pid_, &status, WNOHANG);
        if (r == pid_) {
            exited_ = true;
            exit_code_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            return exit_code_;
        }
        if (r < 0 && errno != EINTR) {
            exited_ = true;
            return exit_code_;
        }
        if (Clock::now() >= deadline) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void ServerProcess::stop(std::chrono::milliseconds grace) {
    if (pid_ <= 0 || exited_) return;
    ::kill(pid_, SIGTERM);
    if (wait(grace) == -1 && !exited_) {
        ::kill(pid_, SIGKILL);
        wait(std::chrono::milliseconds(5000));
    }
}

void ServerProcess::kill_now() {
    if (pid_ <= 0 || exited_) return;
    ::kill(pid_, SIGKILL);
    wait(std::chrono::milliseconds(5000));
}

std::string executable_folder() {
    char path[4096];
    const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) return ".";
    std::string p(path, static_cast<size_t>(n));
    const auto slash = p.rfind('/');
    return slash == std::string::npos ? "." : p.substr(0, slash);
}

}  // namespace qor::launch
