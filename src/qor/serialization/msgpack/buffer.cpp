#include <qor/serialization/msgpack/buffer.hpp>

#include <cstring>

namespace qor::serialization::msgpack {

namespace {

// Every empty block points here, so an empty buffer costs no allocation, a move can leave
// its source valid without allocating, and `data` is never null.
uint8_t empty_block[1] = {0};

uint8_t* allocate_copy(const uint8_t* bytes, uint64_t count) {
    if (count == 0) return empty_block;
    auto* block = new uint8_t[count];
    std::memcpy(block, bytes, count);
    return block;
}

void release(uint8_t* block) {
    if (block != empty_block) delete[] block;
}

}  // namespace

buffer::buffer() : data(empty_block), size(0) {}

buffer::buffer(const std::vector<uint8_t>& bytes)
    : data(allocate_copy(bytes.data(), bytes.size())), size(bytes.size()) {}

buffer::buffer(const uint8_t* bytes, uint64_t count)
    : data(allocate_copy(bytes, count)), size(count) {}

buffer::buffer(uint64_t count) : data(count == 0 ? empty_block : new uint8_t[count]), size(count) {}

buffer::buffer(const buffer& other)
    : data(allocate_copy(other.data, other.size)), size(other.size) {}

buffer::buffer(buffer&& other) noexcept : data(other.data), size(other.size) {
    other.data = empty_block;
    other.size = 0;
}

buffer& buffer::operator=(const buffer& other) {
    if (this != &other) {
        uint8_t* copy = allocate_copy(other.data, other.size);
        release(data);
        data = copy;
        size = other.size;
    }
    return *this;
}

buffer& buffer::operator=(buffer&& other) noexcept {
    if (this != &other) {
        release(data);
        data = other.data;
        size = other.size;
        other.data = empty_block;
        other.size = 0;
    }
    return *this;
}

buffer::~buffer() {
    release(data);
}

bool buffer::operator==(const buffer& other) const {
    return size == other.size && (size == 0 || std::memcmp(data, other.data, size) == 0);
}

}  // namespace qor::serialization::msgpack
