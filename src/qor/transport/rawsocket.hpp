#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// WAMP RawSocket framing, free of I/O so that it can be fed byte by byte.
namespace qor::transport::rawsocket {

constexpr uint8_t MAGIC = 0x7F;                  ///< first byte of both handshake halves
constexpr uint8_t SERIALIZER_JSON = 1;           ///< serializer id of JSON
constexpr uint8_t SERIALIZER_MSGPACK = 2;        ///< serializer id of MessagePack, the one we speak
constexpr uint32_t MAX_FRAME_LENGTH = 1u << 24;  ///< largest payload a 24-bit length can announce

/// Kind of a frame, from the low three bits of its first header byte.
enum class FrameType : uint8_t { message = 0, ping = 1, pong = 2 };

/// Largest message length announced by a length exponent: 2^(9 + exponent).
uint32_t max_length_of(uint8_t exponent);
/// Smallest exponent (0..15) whose length covers `max_length`; 15 above 2^24.
uint8_t exponent_for(uint32_t max_length);

/// The four bytes a client opens with.
std::array<uint8_t, 4> client_hello(uint8_t exponent, uint8_t serializer = SERIALIZER_MSGPACK);
/// The four bytes a server accepts with.
std::array<uint8_t, 4> server_accept(uint8_t exponent, uint8_t serializer = SERIALIZER_MSGPACK);
/// The four bytes a server refuses with; `error` is one of the codes below (1..4).
std::array<uint8_t, 4> server_refuse(uint8_t error);

constexpr uint8_t ERROR_SERIALIZER_UNSUPPORTED = 1;  ///< refusal: serializer unsupported
constexpr uint8_t ERROR_LENGTH_UNACCEPTABLE = 2;     ///< refusal: maximum length unacceptable
constexpr uint8_t ERROR_RESERVED_BITS = 3;           ///< refusal: use of reserved bits
constexpr uint8_t ERROR_CONNECTION_COUNT = 4;        ///< refusal: maximum connection count reached

/// One half of the handshake, decoded.
struct Handshake {
    uint8_t exponent = 0;    ///< length exponent (the refusal code when `serializer` is 0)
    uint8_t serializer = 0;  ///< serializer id; 0 in a server's refusal
};
/// Decodes four handshake bytes; throws std::runtime_error on a bad magic byte or reserved bits.
Handshake parse_handshake(const uint8_t* bytes);
/// The meaning of a refusal code, e.g. "serializer unsupported".
std::string refusal_text(uint8_t error);

/// Appends the four-byte header of a frame of `length` payload bytes (length < 2^24).
void append_header(std::vector<uint8_t>& out, FrameType type, uint32_t length);
/// Appends a header and the payload.
void append_frame(std::vector<uint8_t>& out, FrameType type, const uint8_t* data, uint32_t length);

/// One complete frame; `data` points into the splitter and stays valid until it is fed again.
struct Frame {
    FrameType type = FrameType::message;
    const uint8_t* data = nullptr;
    uint32_t size = 0;
};

/// Cuts a byte stream into frames. Bytes are appended with `feed` (or written in place with
/// `prepare` and `commit`); `next` hands out each complete frame. A frame type above 2 or a
/// length above the limit throws std::runtime_error ("rawsocket: invalid frame type",
/// "rawsocket: frame too large"); the splitter is unusable afterwards.
///
/// Threading: a plain value with no I/O; one thread at a time.
class Splitter {
  public:
    /// Frames longer than `max_length` bytes are refused.
    explicit Splitter(uint32_t max_length);

    /// Appends received bytes.
    void feed(const uint8_t* data, size_t size);
    /// Room for at least `size` more bytes at the end; fill it, then `commit` what was written.
    uint8_t* prepare(size_t size);
    /// Accepts `size` bytes written after `prepare`.
    void commit(size_t size);
    /// The next complete frame, if any; false when more bytes are needed.
    bool next(Frame& frame);
    /// Bytes held that do not yet form a complete frame.
    size_t pending() const { return end_ - begin_; }
    /// The payload length the next frame's header announces; 0 until its header is complete.
    /// Lets a receiver refuse a frame by its header, before its bytes arrive.
    uint32_t announced() const;
    /// The frame length limit.
    uint32_t max_length() const { return max_length_; }
    /// True when the next frame is a message whose header is complete and whose payload is not.
    bool partial_message() const;
    /// Takes the partial message (see `partial_message`) out of the splitter, so that its payload
    /// can be gathered where it is wanted: copies the payload bytes received so far to `to`,
    /// which has room for `announced()` bytes, drops them and the header, and returns how many
    /// were copied. The caller reads the remaining payload itself; the splitter goes on with
    /// the bytes after it. Throws like `next` for a length `next` refuses.
    size_t detach(uint8_t* to);

  private:
    void compact();
    uint32_t max_length_;
    std::vector<uint8_t> bytes_;
    size_t begin_ = 0;  // first byte not yet handed out
    size_t end_ = 0;    // one past the last byte received
};

}  // namespace qor::transport::rawsocket
