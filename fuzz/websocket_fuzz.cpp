// The WebSocket frame reader on arbitrary bytes, fed in pieces whose sizes come from the input:
// what it hands out (messages, and the fault that ends the stream) must not depend on how the
// bytes were cut, data messages stay within the limit and control frames within 125 bytes.
// Then the writer: the input as one payload, masked as a client sends it, reads back whole.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <qor/transport/websocket.hpp>

namespace ws = qor::transport::websocket;

namespace {

struct Outcome {
    std::vector<std::pair<ws::Opcode, std::vector<uint8_t>>> messages;
    std::string fault;
    uint16_t code = 0;
    size_t pending = 0;
};

Outcome read(const uint8_t* stream, size_t length, bool from_client, uint64_t max,
             uint8_t piece_seed) {
    Outcome o;
    ws::Reader reader(from_client, max);
    try {
        size_t fed = 0;
        for (unsigned round = 0; fed < length; ++round) {
            size_t piece = piece_seed == 0 ? length : 1 + (piece_seed + round * 37u) % 64;
            if (piece > length - fed) piece = length - fed;
            reader.feed(stream + fed, piece);
            fed += piece;
            ws::Message m;
            while (reader.next(m)) {
                const bool control = static_cast<uint8_t>(m.opcode) & 0x8;
                if (control ? m.size > ws::MAX_CONTROL_PAYLOAD : m.size > max) __builtin_trap();
                o.messages.emplace_back(m.opcode, std::vector<uint8_t>(m.data, m.data + m.size));
            }
        }
        o.pending = reader.pending();
    } catch (const ws::Error& e) {
        o.fault = e.what();
        o.code = e.code();
    }
    return o;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const bool from_client = data[0] & 1;
    const uint64_t max = uint64_t(1) << (data[0] >> 1 & 31);
    const uint8_t* stream = data + 2;
    const size_t length = size - 2;

    const Outcome whole = read(stream, length, from_client, max, 0);
    const Outcome pieces = read(stream, length, from_client, max, data[1] | 1);
    if (whole.messages != pieces.messages || whole.fault != pieces.fault ||
        whole.code != pieces.code || whole.pending != pieces.pending)
        __builtin_trap();
    if (!whole.fault.empty() && whole.code != ws::CLOSE_PROTOCOL_ERROR &&
        whole.code != ws::CLOSE_TOO_BIG)
        __builtin_trap();

    std::vector<uint8_t> framed;
    const uint8_t key[4] = {data[1], 0x5A, uint8_t(length), 0xC3};
    ws::append_frame(framed, ws::Opcode::binary, stream, length, key);
    ws::Reader back(true, length);
    back.feed(framed.data(), framed.size());
    ws::Message m;
    if (!back.next(m) || m.opcode != ws::Opcode::binary || m.size != length ||
        (length && std::vector<uint8_t>(m.data, m.data + m.size) !=
                       std::vector<uint8_t>(stream, stream + length)) ||
        back.pending() != 0)
        __builtin_trap();
    return 0;
}
