#include <qor/wamp/session.hpp>

#include <spdlog/logger.h>

namespace qor::wamp {

void Session::send(const Message& message) const {
    const serialization::msgpack::buffer bytes = serialize(message);
    // Printing walks the whole message, so it is done only when the line would be kept.
    if (logger != nullptr && logger->level() <= spdlog::level::trace) {
        logger->trace("[{} WAMP Out] {}", name, print(bytes.data, bytes.size, print_limit));
    }
    write(bytes.data, bytes.size);
}

}  // namespace qor::wamp
