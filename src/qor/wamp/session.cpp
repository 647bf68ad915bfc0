#include <qor/wamp/session.hpp>

#include <exception>
#include <string>

#include <spdlog/logger.h>

namespace qor::wamp {

namespace {

// The trace text of one encoded message.
std::string trace_text(const uint8_t* data, uint64_t size) {
    try {
        return print(data, size, print_limit);
    } catch (const std::exception& e) {
        // A shortened container makes the printer read what follows it from the wrong
        // place, which can run off the end; the message itself is fine and still goes out.
        return std::string("<unprintable: ") + e.what() + ">";
    }
}

}  // namespace

void Session::send(const Message& message) const {
    send(message, nullptr);
}

void Session::send(const Message& message, const Trailing& last) const {
    send(message, &last);
}

void Session::send(const Message& message, const Trailing* last) const {
    // Printing walks the whole message, so it is done only when the line would be kept.
    const bool tracing = logger != nullptr && logger->level() <= spdlog::level::trace;
    std::string text;
    if (write_in_place) {
        const uint64_t size = last ? serialized_size(message, *last) : serialized_size(message);
        // One reference is all the filler holds, so that wrapping it allocates nothing.
        struct Fill {
            const Message& message;
            const Trailing* last;
            uint64_t size;
            bool tracing;
            std::string& text;
        } fill{message, last, size, tracing, text};
        const bool taken = write_in_place(size, [&fill](uint8_t* frame) {
            if (fill.last)
                serialize_into(fill.message, *fill.last, frame);
            else
                serialize_into(fill.message, frame);
            if (fill.tracing) fill.text = trace_text(frame, fill.size);
        });
        if (taken) {
            if (tracing) logger->trace("[{} WAMP Out] {}", name, text);
            return;
        }
    }
    serialization::msgpack::buffer bytes;
    if (last) {
        bytes = serialization::msgpack::buffer(serialized_size(message, *last));
        serialize_into(message, *last, bytes.data);
    } else {
        bytes = serialize(message);
    }
    if (tracing) logger->trace("[{} WAMP Out] {}", name, trace_text(bytes.data, bytes.size));
    write(bytes.data, bytes.size);
}

}  // namespace qor::wamp
