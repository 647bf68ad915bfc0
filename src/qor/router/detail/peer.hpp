#pragma once

#include <memory>
#include <optional>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <qor/router/server.hpp>
#include <qor/transport/detail/channel.hpp>
#include <qor/wamp/opening.hpp>

namespace qor::router::detail {

/// Where one accepted connection stands: the transport opening, the WAMP opening, use.
enum class Stage { transport, opening, joined, closing, closed };

/// One accepted connection as the router keeps it. I/O thread only.
struct Peer {
    explicit Peer(boost::asio::io_context& io) : timer(io) {}
    std::shared_ptr<transport::detail::Opening> opening;
    std::shared_ptr<transport::detail::Channel> channel;
    boost::asio::steady_timer timer;
    Stage stage = Stage::transport;
    bool refused_full = false;  ///< over the connection limit: only told so, then closed
    SessionInfo info;
    std::optional<wamp::RouterOpening> wamp_opening;  ///< while stage is opening
    std::string leave_reason;
};

}  // namespace qor::router::detail
