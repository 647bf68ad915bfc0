#pragma once

#include <string>

namespace qor::transport {

/// A WAMP server address: rs://host:port, rss://host:port, ws://host[:port][/path],
/// wss://host[:port][/path].
struct Url {
    std::string scheme;      ///< "rs", "rss", "ws" or "wss"
    std::string host;        ///< name or address, without IPv6 brackets
    std::string port;        ///< decimal; ws and wss default to 80 and 443
    std::string path;        ///< WebSocket request target, "/" when absent; "/" for RawSocket
    bool tls = false;        ///< rss and wss
    bool websocket = false;  ///< ws and wss
};

/// Splits `text`; throws std::runtime_error "invalid URL '<text>': <reason>".
Url parse_url(const std::string& text);

}  // namespace qor::transport
