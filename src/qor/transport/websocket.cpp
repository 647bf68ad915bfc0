#include <qor/transport/websocket.hpp>

#include <cstring>

namespace qor::transport::websocket {

namespace {

// Codes a peer may send: the registered ones except those reserved for reporting (1004-1006,
// 1015), and the ranges for libraries and applications.
bool valid_close_code(uint16_t code) {
    if (code >= 1000 && code <= 1003) return true;
    if (code >= 1007 && code <= 1014) return true;
    return code >= 3000 && code <= 4999;
}

bool is_control(uint8_t opcode) {
    return opcode & 0x8;
}

bool known(uint8_t opcode) {
    return opcode <= 0x2 || (opcode >= 0x8 && opcode <= 0xA);
}

}  // namespace

void mask(uint8_t* dst, const uint8_t* src, size_t size, const uint8_t key[4]) {
    // Eight bytes at a time with the key repeated twice; memcpy keeps it free of alignment and
    // aliasing assumptions and compiles to plain loads and stores.
    uint8_t key8[8] = {key[0], key[1], key[2], key[3], key[0], key[1], key[2], key[3]};
    uint64_t k;
    std::memcpy(&k, key8, 8);
    size_t i = 0;
    for (; i + 8 <= size; i += 8) {
        uint64_t v;
        std::memcpy(&v, src + i, 8);
        v ^= k;
        std::memcpy(dst + i, &v, 8);
    }
    for (; i < size; ++i) dst[i] = src[i] ^ key[i & 3];
}

void append_frame(std::vector<uint8_t>& out, Opcode opcode, const uint8_t* data, size_t size,
                  const uint8_t* key) {
    uint8_t header[14];
    size_t n = 0;
    header[n++] = static_cast<uint8_t>(0x80 | static_cast<uint8_t>(opcode));
    const uint8_t mask_bit = key ? 0x80 : 0x00;
    if (size < 126) {
        header[n++] = static_cast<uint8_t>(mask_bit | size);
    } else if (size <= 0xFFFF) {
        header[n++] = static_cast<uint8_t>(mask_bit | 126);
        header[n++] = static_cast<uint8_t>(size >> 8);
        header[n++] = static_cast<uint8_t>(size);
    } else {
        header[n++] = static_cast<uint8_t>(mask_bit | 127);
        for (int shift = 56; shift >= 0; shift -= 8)
            header[n++] = static_cast<uint8_t>(uint64_t(size) >> shift);
    }
    if (key) {
        std::memcpy(header + n, key, 4);
        n += 4;
    }
    const size_t at = out.size();
    out.resize(at + n + size);
    std::memcpy(out.data() + at, header, n);
    if (size == 0) return;
    if (key)
        mask(out.data() + at + n, data, size, key);
    else
        std::memcpy(out.data() + at + n, data, size);
}

void append_close(std::vector<uint8_t>& out, uint16_t code, const uint8_t* key) {
    const uint8_t payload[2] = {static_cast<uint8_t>(code >> 8), static_cast<uint8_t>(code)};
    append_frame(out, Opcode::close, payload, 2, key);
}

uint16_t close_code_of(const uint8_t* payload, size_t size) {
    if (size < 2) return CLOSE_NO_STATUS;
    return static_cast<uint16_t>((payload[0] << 8) | payload[1]);
}

Reader::Reader(bool from_client, uint64_t max_message)
    : from_client_(from_client), max_message_(max_message) {}

void Reader::compact() {
    // Handed-out messages may still be read by the caller until the next feed, so the consumed
    // prefix is dropped only here, never in `next`.
    if (begin_ == 0) return;
    if (begin_ != end_) std::memmove(bytes_.data(), bytes_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
}

uint8_t* Reader::prepare(size_t size) {
    compact();
    if (bytes_.size() < end_ + size) bytes_.resize(end_ + size);
    return bytes_.data() + end_;
}

void Reader::commit(size_t size) {
    if (end_ + size > bytes_.size()) throw std::logic_error("websocket: commit beyond prepare");
    end_ += size;
}

void Reader::feed(const uint8_t* data, size_t size) {
    if (size == 0) return;
    std::memcpy(prepare(size), data, size);
    commit(size);
}

bool Reader::next(Message& message) {
    if (handed_joined_) {
        handed_joined_ = false;
        fragments_.clear();
    }
    for (;;) {
        const size_t available = end_ - begin_;
        if (available < 2) return false;
        uint8_t* h = bytes_.data() + begin_;
        const bool fin = h[0] & 0x80;
        const uint8_t opcode = h[0] & 0x0F;
        if (h[0] & 0x70) throw Error(CLOSE_PROTOCOL_ERROR, "websocket: reserved bits set");
        if (!known(opcode)) throw Error(CLOSE_PROTOCOL_ERROR, "websocket: unknown opcode");
        const bool masked = h[1] & 0x80;
        if (masked != from_client_)
            throw Error(CLOSE_PROTOCOL_ERROR, from_client_ ? "websocket: unmasked client frame"
                                                           : "websocket: masked server frame");
        uint64_t length = h[1] & 0x7F;
        size_t header = 2;
        if (length == 126) {
            if (available < 4) return false;
            length = (uint64_t(h[2]) << 8) | h[3];
            header = 4;
            if (length < 126)
                throw Error(CLOSE_PROTOCOL_ERROR, "websocket: length not minimally encoded");
        } else if (length == 127) {
            if (available < 10) return false;
            length = 0;
            for (int i = 2; i < 10; ++i) length = (length << 8) | h[i];
            header = 10;
            if (length >> 63) throw Error(CLOSE_PROTOCOL_ERROR, "websocket: length above 2^63");
            if (length <= 0xFFFF)
                throw Error(CLOSE_PROTOCOL_ERROR, "websocket: length not minimally encoded");
        }
        if (is_control(opcode)) {
            if (!fin) throw Error(CLOSE_PROTOCOL_ERROR, "websocket: fragmented control frame");
            if (length > MAX_CONTROL_PAYLOAD)
                throw Error(CLOSE_PROTOCOL_ERROR, "websocket: control frame too long");
            if (opcode == uint8_t(Opcode::close) && length == 1)
                throw Error(CLOSE_PROTOCOL_ERROR, "websocket: close frame of one byte");
        } else {
            if (opcode == uint8_t(Opcode::continuation) && !joining_)
                throw Error(CLOSE_PROTOCOL_ERROR, "websocket: continuation without a message");
            if (opcode != uint8_t(Opcode::continuation) && joining_)
                throw Error(CLOSE_PROTOCOL_ERROR, "websocket: new message inside a fragmented one");
            // Refused by the header, before a byte of the payload is held.
            if (length > max_message_ || fragments_.size() > max_message_ - length)
                throw Error(CLOSE_TOO_BIG, "websocket: message too large");
        }
        if (masked) header += 4;
        if (available < header || available - header < length) return false;

        uint8_t* payload = h + header;
        if (masked) mask(payload, payload, size_t(length), h + header - 4);
        begin_ += header + size_t(length);

        if (is_control(opcode)) {
            if (opcode == uint8_t(Opcode::close) &&
                !valid_close_code(close_code_of(payload, size_t(length))) && length >= 2)
                throw Error(CLOSE_PROTOCOL_ERROR, "websocket: invalid close code");
            message.opcode = static_cast<Opcode>(opcode);
            message.data = payload;
            message.size = size_t(length);
            return true;
        }
        if (fin && !joining_) {
            // The usual case: one frame, one message, handed out where it lies.
            message.opcode = static_cast<Opcode>(opcode);
            message.data = payload;
            message.size = size_t(length);
            return true;
        }
        if (!joining_) {
            joining_ = true;
            joined_ = static_cast<Opcode>(opcode);
        }
        fragments_.insert(fragments_.end(), payload, payload + length);
        if (fin) {
            joining_ = false;
            handed_joined_ = true;
            message.opcode = joined_;
            message.data = fragments_.data();
            message.size = fragments_.size();
            return true;
        }
    }
}

}  // namespace qor::transport::websocket
