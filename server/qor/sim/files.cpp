#include <qor/sim/files.hpp>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include <fcntl.h>
#include <unistd.h>

#include <fmt/format.h>

namespace qor::sim {

namespace {

[[noreturn]] void fail(const char* action, const std::string& path, int error) {
    throw std::runtime_error(fmt::format("cannot {} {}: {}", action, path, std::strerror(error)));
}

}  // namespace

void write_file_atomically(const std::string& path, const void* bytes, uint64_t size) {
    // The pid keeps two servers sharing a folder from writing the same temporary file.
    const std::string temp = fmt::format("{}.tmp.{}", path, ::getpid());
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) fail("create", temp, errno);
    const auto* p = static_cast<const uint8_t*>(bytes);
    uint64_t left = size;
    while (left > 0) {
        const ssize_t n = ::write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            const int error = errno;
            ::close(fd);
            ::unlink(temp.c_str());
            fail("write", temp, error);
        }
        p += n;
        left -= static_cast<uint64_t>(n);
    }
    if (::fsync(fd) != 0) {
        const int error = errno;
        ::close(fd);
        ::unlink(temp.c_str());
        fail("flush", temp, error);
    }
    ::close(fd);
    if (::rename(temp.c_str(), path.c_str()) != 0) {
        const int error = errno;
        ::unlink(temp.c_str());
        fail("rename", temp, error);
    }
}

std::vector<uint8_t> read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) fail("open", path, errno);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
    if (in.bad()) fail("read", path, errno);
    return bytes;
}

}  // namespace qor::sim
