#include <qor/transport/rawsocket.hpp>

#include <cstring>
#include <stdexcept>

namespace qor::transport::rawsocket {

uint32_t max_length_of(uint8_t exponent) {
    return 1u << (9u + (exponent & 0x0Fu));
}

uint8_t exponent_for(uint32_t max_length) {
    uint8_t exponent = 0;
    while (exponent < 15 && max_length_of(exponent) < max_length) ++exponent;
    return exponent;
}

std::array<uint8_t, 4> client_hello(uint8_t exponent, uint8_t serializer) {
    return {MAGIC, static_cast<uint8_t>(((exponent & 0x0F) << 4) | (serializer & 0x0F)), 0, 0};
}

std::array<uint8_t, 4> server_accept(uint8_t exponent, uint8_t serializer) {
    return client_hello(exponent, serializer);
}

std::array<uint8_t, 4> server_refuse(uint8_t error) {
    return {MAGIC, static_cast<uint8_t>((error & 0x0F) << 4), 0, 0};
}

Handshake parse_handshake(const uint8_t* bytes) {
    if (bytes[0] != MAGIC) throw std::runtime_error("rawsocket: bad handshake magic byte");
    if (bytes[2] != 0 || bytes[3] != 0)
        throw std::runtime_error("rawsocket: reserved handshake bytes are not zero");
    Handshake h;
    h.exponent = bytes[1] >> 4;
    h.serializer = bytes[1] & 0x0F;
    return h;
}

std::string refusal_text(uint8_t error) {
    switch (error) {
        case ERROR_SERIALIZER_UNSUPPORTED:
            return "serializer unsupported";
        case ERROR_LENGTH_UNACCEPTABLE:
            return "maximum message length unacceptable";
        case ERROR_RESERVED_BITS:
            return "use of reserved bits (unsupported feature)";
        case ERROR_CONNECTION_COUNT:
            return "maximum connection count reached";
        default:
            return "unknown error code " + std::to_string(error);
    }
}

void append_header(std::vector<uint8_t>& out, FrameType type, uint32_t length) {
    if (length >= MAX_FRAME_LENGTH) throw std::runtime_error("rawsocket: frame too large");
    out.push_back(static_cast<uint8_t>(type));
    out.push_back(static_cast<uint8_t>(length >> 16));
    out.push_back(static_cast<uint8_t>(length >> 8));
    out.push_back(static_cast<uint8_t>(length));
}

void append_frame(std::vector<uint8_t>& out, FrameType type, const uint8_t* data, uint32_t length) {
    append_header(out, type, length);
    out.insert(out.end(), data, data + length);
}

Splitter::Splitter(uint32_t max_length) : max_length_(max_length) {}

void Splitter::compact() {
    // Handed-out frames may still be read by the caller until the next feed, so the consumed
    // prefix is dropped only here, never in `next`.
    if (begin_ == 0) return;
    if (begin_ != end_) std::memmove(bytes_.data(), bytes_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
}

uint8_t* Splitter::prepare(size_t size) {
    compact();
    if (bytes_.size() < end_ + size) bytes_.resize(end_ + size);
    return bytes_.data() + end_;
}

void Splitter::commit(size_t size) {
    if (end_ + size > bytes_.size()) throw std::logic_error("rawsocket: commit beyond prepare");
    end_ += size;
}

void Splitter::feed(const uint8_t* data, size_t size) {
    if (size == 0) return;
    std::memcpy(prepare(size), data, size);
    commit(size);
}

uint32_t Splitter::announced() const {
    if (end_ - begin_ < 4) return 0;
    const uint8_t* h = bytes_.data() + begin_;
    return (uint32_t(h[1]) << 16) | (uint32_t(h[2]) << 8) | uint32_t(h[3]);
}

bool Splitter::partial_message() const {
    if (end_ - begin_ < 4) return false;
    const uint8_t* h = bytes_.data() + begin_;
    return (h[0] & 0x07) == static_cast<uint8_t>(FrameType::message) &&
           end_ - begin_ - 4 < announced();
}

size_t Splitter::detach(uint8_t* to) {
    if (!partial_message()) throw std::logic_error("rawsocket: no partial message to detach");
    if (announced() > max_length_) throw std::runtime_error("rawsocket: frame too large");
    const size_t held = end_ - begin_ - 4;
    std::memcpy(to, bytes_.data() + begin_ + 4, held);
    begin_ = end_;
    return held;
}

bool Splitter::next(Frame& frame) {
    if (end_ - begin_ < 4) return false;
    const uint8_t* h = bytes_.data() + begin_;
    // The five high bits are reserved; like other peers we look at the type bits only.
    const uint8_t type = h[0] & 0x07;
    if (type > static_cast<uint8_t>(FrameType::pong))
        throw std::runtime_error("rawsocket: invalid frame type");
    const uint32_t length = (uint32_t(h[1]) << 16) | (uint32_t(h[2]) << 8) | uint32_t(h[3]);
    if (length > max_length_) throw std::runtime_error("rawsocket: frame too large");
    if (end_ - begin_ - 4 < length) return false;
    frame.type = static_cast<FrameType>(type);
    frame.data = h + 4;
    frame.size = length;
    begin_ += 4 + size_t(length);
    return true;
}

}  // namespace qor::transport::rawsocket
