#include <qor/wamp/incoming.hpp>

#include <sstream>

namespace qor::wamp {

serialization::msgpack::ReadBuffer args_cursor(const Message& message) {
    const uint64_t size = message.raw.size;
    const uint64_t begin = message.args_offset < size ? message.args_offset : size;
    // A message built locally has no recorded end: its arguments may run to the end of `raw`.
    uint64_t end = message.args_end == 0 ? size : message.args_end;
    if (end > size) end = size;
    if (end < begin) end = begin;
    return serialization::msgpack::ReadBuffer(message.raw.data + begin, end - begin);
}

void IncomingMessage::throw_count(uint64_t in_message, uint64_t expected) {
    std::ostringstream text;
    text << "IncomingMessage::fillArgsNS : wrong number of arguments. " << in_message
         << " in message, " << expected << " in tuple";
    throw std::runtime_error(text.str());
}

void IncomingMessage::throw_parsing(const std::exception& cause) {
    throw std::runtime_error(
        std::string("IncomingMessage::fillArgsNS : error during argument parsing '") +
        cause.what() + "'");
}

}  // namespace qor::wamp
