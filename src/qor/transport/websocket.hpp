#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

// WebSocket data framing (RFC 6455 section 5) after the upgrade, free of I/O so that it can be
// fed byte by byte. Only what a WAMP link needs: binary and text messages, fragmentation,
// ping, pong and close; no extensions.
namespace qor::transport::websocket {

/// The four-bit opcode of a frame.
enum class Opcode : uint8_t {
    continuation = 0x0,
    text = 0x1,
    binary = 0x2,
    close = 0x8,
    ping = 0x9,
    pong = 0xA,
};

constexpr uint16_t CLOSE_NORMAL = 1000;          ///< the link is done
constexpr uint16_t CLOSE_PROTOCOL_ERROR = 1002;  ///< the peer broke the framing (or WAMP)
constexpr uint16_t CLOSE_UNSUPPORTED = 1003;     ///< a kind of message this side cannot take
constexpr uint16_t CLOSE_NO_STATUS = 1005;       ///< what a close frame without payload means
constexpr uint16_t CLOSE_TOO_BIG = 1009;         ///< a message above the receiver's limit
constexpr size_t MAX_CONTROL_PAYLOAD = 125;

/// A framing fault of the peer: `code` is the close code to answer with, `what()` the text.
class Error : public std::runtime_error {
  public:
    Error(uint16_t code, const std::string& what) : std::runtime_error(what), code_(code) {}
    uint16_t code() const { return code_; }

  private:
    uint16_t code_;
};

/// XORs `size` bytes of `src` with the four-byte `key` into `dst` (which may be `src`).
void mask(uint8_t* dst, const uint8_t* src, size_t size, const uint8_t key[4]);

/// Appends one final frame of `size` payload bytes; `key` null sends it unmasked (the server
/// side), otherwise masked with those four bytes (the client side must mask every frame).
void append_frame(std::vector<uint8_t>& out, Opcode opcode, const uint8_t* data, size_t size,
                  const uint8_t* key);
/// Appends a close frame carrying `code` and no reason.
void append_close(std::vector<uint8_t>& out, uint16_t code, const uint8_t* key);
/// The status code of a close frame's payload; CLOSE_NO_STATUS when it carries none.
uint16_t close_code_of(const uint8_t* payload, size_t size);

/// One complete message or control frame, unmasked; `data` points into the reader and stays
/// valid until it is fed again or `next` is called again.
struct Message {
    Opcode opcode = Opcode::binary;  ///< text, binary, close, ping or pong
    const uint8_t* data = nullptr;
    size_t size = 0;
};

/// Cuts a byte stream into messages, joining fragments. Bytes are appended with `feed` (or
/// written in place with `prepare` and `commit`); `next` hands out each complete message or
/// control frame. A framing fault throws `Error` ("websocket: ..."), among them a message
/// above the limit (code 1009, "websocket: message too large"), refused by the header of the
/// frame that would pass it before its payload is buffered; the reader is unusable afterwards.
///
/// Threading: a plain value with no I/O; one thread at a time.
class Reader {
  public:
    /// `from_client`: frames must be masked (the server reads them), else they must not be.
    Reader(bool from_client, uint64_t max_message);

    /// Appends received bytes.
    void feed(const uint8_t* data, size_t size);
    /// Room for at least `size` more bytes at the end; fill it, then `commit` what was written.
    uint8_t* prepare(size_t size);
    /// Accepts `size` bytes written after `prepare`.
    void commit(size_t size);
    /// The next complete message or control frame, if any; false when more bytes are needed.
    bool next(Message& message);
    /// Bytes held of a message or frame that is not complete yet.
    size_t pending() const { return (end_ - begin_) + fragments_.size(); }
    /// Changes the message size limit; a message already being joined is held to it too.
    void set_max_message(uint64_t max) { max_message_ = max; }
    uint64_t max_message() const { return max_message_; }

  private:
    void compact();
    bool from_client_;
    uint64_t max_message_;
    std::vector<uint8_t> bytes_;
    size_t begin_ = 0;  // first byte not yet handed out
    size_t end_ = 0;    // one past the last byte received
    bool joining_ = false;            // a fragmented message is open
    Opcode joined_ = Opcode::binary;  // the opcode of its first frame
    std::vector<uint8_t> fragments_;  // its payload so far
    bool handed_joined_ = false;      // the last message handed out was `fragments_`
};

}  // namespace qor::transport::websocket
