#pragma once

#include <cstdint>
#include <vector>

namespace qor::serialization::msgpack {

/// An owned block of already-encoded MessagePack bytes; travels on the wire as one bin value.
/// Copies are deep, moves are cheap, and `data` is never null (an empty block is a
/// zero-length allocation). Used from one thread at a time.
class buffer {
  public:
    uint8_t* data;  ///< heap storage owned by this buffer, never null
    uint64_t size;  ///< number of bytes in `data`

    /// An empty block.
    buffer();
    /// An owned copy of a packing target's bytes.
    explicit buffer(const std::vector<uint8_t>& bytes);
    /// An owned copy of `count` bytes starting at `bytes`.
    buffer(const uint8_t* bytes, uint64_t count);
    /// A block of `count` uninitialised bytes, to be filled in place by an encoder.
    explicit buffer(uint64_t count);
    /// Deep copy.
    buffer(const buffer& other);
    /// Takes the storage of `other`, which is left empty.
    buffer(buffer&& other) noexcept;
    /// Deep copy; the old storage is released first.
    buffer& operator=(const buffer& other);
    /// Takes the storage of `other`, which is left empty.
    buffer& operator=(buffer&& other) noexcept;
    ~buffer();

    /// Pointer one past the last byte.
    const uint8_t* end() const { return data + size; }
    /// True when both blocks hold the same bytes.
    bool operator==(const buffer& other) const;
    bool operator!=(const buffer& other) const { return !(*this == other); }
};

}  // namespace qor::serialization::msgpack
