#include <qor/wamp/session.hpp>

#include <exception>
#include <string>

#include <spdlog/logger.h>

namespace qor::wamp {

void Session::send(const Message& message) const {
    const serialization::msgpack::buffer bytes = serialize(message);
    // Printing walks the whole message, so it is done only when the line would be kept.
    if (logger != nullptr && logger->level() <= spdlog::level::trace) {
        std::string text;
        try {
            text = print(bytes.data, bytes.size, print_limit);
        } catch (const std::exception& e) {
            // A shortened container makes the printer read what follows it from the wrong
            // place, which can run off the end; the message itself is fine and still goes out.
            text = std::string("<unprintable: ") + e.what() + ">";
        }
        logger->trace("[{} WAMP Out] {}", name, text);
    }
    write(bytes.data, bytes.size);
}

}  // namespace qor::wamp
