// The RawSocket handshake decoder and frame splitter on arbitrary bytes. The stream is fed in
// pieces whose sizes come from the input (alternating feed and prepare/commit); every frame
// handed out must be exactly the bytes at its place in the stream, and every byte fed must be
// either in a frame or still pending; the length announced before a frame is complete is its
// header's; a partial message detached hands over exactly the payload bytes received so far.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <vector>

#include <qor/transport/rawsocket.hpp>

namespace rs = qor::transport::rawsocket;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 6) return 0;
    try {
        const rs::Handshake h = rs::parse_handshake(data);
        rs::refusal_text(h.exponent);
        if (h.serializer != 0 && rs::max_length_of(h.exponent) < 512) __builtin_trap();
    } catch (const std::exception&) {
        // a bad magic byte or reserved bits are refused with an error
    }
    rs::Splitter splitter(rs::max_length_of(data[4] % 16));
    const uint8_t piece_seed = data[5];
    const uint8_t* stream = data + 6;
    const size_t length = size - 6;

    size_t fed = 0;       // bytes of the stream given to the splitter
    size_t consumed = 0;  // bytes of the stream handed out as frames, headers included
    unsigned round = 0;
    try {
        while (fed < length) {
            size_t piece = 1 + (piece_seed + round * 37u) % 64;
            if (piece > length - fed) piece = length - fed;
            if (round++ % 2 == 0) {
                splitter.feed(stream + fed, piece);
            } else {
                std::memcpy(splitter.prepare(piece), stream + fed, piece);
                splitter.commit(piece);
            }
            fed += piece;
            rs::Frame frame;
            for (;;) {
                const uint8_t* header = stream + consumed;
                const uint32_t announced =
                    fed - consumed < 4
                        ? 0
                        : (uint32_t(header[1]) << 16) | (uint32_t(header[2]) << 8) | header[3];
                // What a receiver refuses a frame by must be the header's own length.
                if (splitter.announced() != announced) __builtin_trap();
                if (!splitter.next(frame)) break;
                if (frame.size != announced || frame.size > splitter.max_length() ||
                    static_cast<uint8_t>(frame.type) != (header[0] & 0x07) ||
                    consumed + 4 + frame.size > fed ||
                    std::memcmp(frame.data, header + 4, frame.size) != 0) {
                    __builtin_trap();
                }
                consumed += 4 + frame.size;
            }
            if (consumed + splitter.pending() != fed) __builtin_trap();
            // Now and then a partial message is taken out, its received payload checked, and
            // the rest of it read "elsewhere": the splitter goes on with what follows.
            if (round % 3 == 0 && splitter.partial_message()) {
                const uint8_t* header = stream + consumed;
                const size_t announced =
                    (size_t(header[1]) << 16) | (size_t(header[2]) << 8) | header[3];
                std::vector<uint8_t> to(announced);
                const size_t held = splitter.detach(to.data());
                if ((header[0] & 0x07) != 0 || held != fed - consumed - 4 || held >= announced ||
                    std::memcmp(to.data(), header + 4, held) != 0 || splitter.pending() != 0) {
                    __builtin_trap();
                }
                const size_t end = consumed + 4 + announced;
                if (end >= length) break;
                fed = consumed = end;
            }
        }
    } catch (const std::exception&) {
        // a bad frame type or an oversized frame ends the stream with an error
    }
    return 0;
}
