#include "client_fixture.hpp"


namespace client_test {

std::string args_hex(const qor::wamp::Message& message) {
    if (message.args_count == 0) return "";
    return to_hex(message.raw.data + message.args_offset, message.args_end - message.args_offset);
}

}  // namespace client_test
