#include <qor/wamp/client.hpp>

#include <spdlog/logger.h>

namespace qor::wamp {

Client::Client(const std::string& name, spdlog::logger* logger)
    : session{name, logger, {}, {}}, caller(&session), subscriber(&session) {
    caller.logger = logger;
    caller.name = name;
    subscriber.logger = logger;
    subscriber.name = name;
}

bool Client::dispatch(const Message& message) {
    switch (message.type) {
        case RESULT:
            return caller.handle(message);
        case ERROR:
            if (message.request_type == static_cast<int32_t>(CALL)) return caller.handle(message);
            if (message.request_type == static_cast<int32_t>(SUBSCRIBE)) {
                return subscriber.handle_error(message);
            }
            break;
        case SUBSCRIBED:
            return subscriber.handle_subscribed(message);
        case EVENT:
            return subscriber.handle_event(message);
        default:
            break;
    }
    if (session.logger != nullptr) {
        session.logger->debug("[{}] dropping {} message", session.name, type_name(message.type));
    }
    return false;
}

}  // namespace qor::wamp
