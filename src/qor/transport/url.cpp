#include <qor/transport/url.hpp>

#include <stdexcept>

namespace qor::transport {

namespace {

[[noreturn]] void invalid(const std::string& text, const std::string& reason) {
    throw std::runtime_error("invalid URL '" + text + "': " + reason);
}

}  // namespace

Url parse_url(const std::string& text) {
    Url url;
    const auto colon = text.find("://");
    if (colon == std::string::npos) invalid(text, "missing scheme");
    url.scheme = text.substr(0, colon);
    if (url.scheme == "rs" || url.scheme == "rss") {
        url.tls = url.scheme == "rss";
    } else if (url.scheme == "ws" || url.scheme == "wss") {
        url.tls = url.scheme == "wss";
        url.websocket = true;
    } else {
        invalid(text, "unsupported scheme '" + url.scheme + "' (use rs, rss, ws or wss)");
    }
    std::string rest = text.substr(colon + 3);
    const auto slash = rest.find('/');
    url.path = slash == std::string::npos ? "/" : rest.substr(slash);
    std::string authority = rest.substr(0, slash);
    if (!url.websocket && url.path != "/") invalid(text, "a RawSocket address has no path");
    if (authority.empty()) invalid(text, "missing host");
    std::string port;
    if (authority.front() == '[') {
        const auto close = authority.find(']');
        if (close == std::string::npos) invalid(text, "unclosed IPv6 address");
        url.host = authority.substr(1, close - 1);
        const std::string after = authority.substr(close + 1);
        if (!after.empty()) {
            if (after.front() != ':') invalid(text, "unexpected text after the address");
            port = after.substr(1);
            if (port.empty()) invalid(text, "empty port");
        }
    } else {
        const auto sep = authority.rfind(':');
        url.host = authority.substr(0, sep);
        if (sep != std::string::npos) {
            port = authority.substr(sep + 1);
            if (port.empty()) invalid(text, "empty port");
        }
    }
    if (url.host.empty()) invalid(text, "missing host");
    if (port.empty()) {
        if (!url.websocket) invalid(text, "a RawSocket address needs a port");
        port = url.tls ? "443" : "80";
    }
    if (port.find_first_not_of("0123456789") != std::string::npos || port.size() > 5 ||
        std::stoul(port) == 0 || std::stoul(port) > 65535)
        invalid(text, "bad port '" + port + "'");
    url.port = port;
    return url;
}

}  // namespace qor::transport
