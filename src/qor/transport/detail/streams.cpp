#include <qor/transport/detail/streams.hpp>

namespace qor::transport::detail {

std::string cause_of(const error_code& ec) {
    if (ec == asio::error::eof || ec == websocket::error::closed)
        return "connection closed by peer";
    if (ec == asio::error::connection_reset) return "connection reset by peer";
    if (ec == asio::error::connection_refused) return "connection refused";
    if (ec == asio::error::operation_aborted) return "cancelled";
    if (ec == asio::error::timed_out || ec == beast::error::timeout) return "timed out";
#if QOR_HAVE_TLS
    if (ec == ssl::error::stream_truncated) return "TLS stream truncated";
    if (ec.category() == asio::error::get_ssl_category()) return "TLS error: " + ec.message();
#endif
    if (ec == websocket::error::message_too_big) return "websocket: message too large";
    return ec.message();
}

#if QOR_HAVE_TLS
std::string tls_cause(const error_code& ec) {
    const std::string cause = cause_of(ec);
    return cause.rfind("TLS", 0) == 0 ? cause : "TLS error: handshake failed: " + cause;
}
#endif

std::string peer_of(const tcp::socket& s) {
    error_code ec;
    const auto ep = s.remote_endpoint(ec);
    if (ec) return "unknown";
    return ep.address().to_string() + ":" + std::to_string(ep.port());
}

void close_socket(tcp::socket& s, bool graceful) {
    error_code ignored;
    // Sending FIN first lets the bytes already written reach the peer before the close.
    if (graceful) s.shutdown(tcp::socket::shutdown_send, ignored);
    s.close(ignored);
}

}  // namespace qor::transport::detail
