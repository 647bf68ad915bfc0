#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qor::sim {

/// Replaces `path` with `bytes` so that a reader sees the old file or the new one, never a
/// part: writes a temporary file beside it, flushes it to disk, then renames it over `path`.
/// Throws std::runtime_error naming the file and the cause.
void write_file_atomically(const std::string& path, const void* bytes, uint64_t size);
/// The whole content of `path`; throws std::runtime_error when it cannot be read.
std::vector<uint8_t> read_file(const std::string& path);

}  // namespace qor::sim
