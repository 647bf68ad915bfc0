#include <qor/router/server.hpp>

#include <qor/router/detail/server_impl.hpp>

namespace qor::router {

Server::Server(ServerOptions options) : impl_(std::make_shared<Impl>(std::move(options))) {}

Server::~Server() {
    stop();
}

void Server::on_join(JoinHandler handler) {
    impl_->join_handler = std::move(handler);
}
void Server::on_message(MessageHandler handler) {
    impl_->message_handler = std::move(handler);
}
void Server::on_leave(LeaveHandler handler) {
    impl_->leave_handler = std::move(handler);
}

void Server::start() {
    Impl& s = *impl_;
    if (s.running) throw std::logic_error("transport server: already started");
    if (!s.options.tls_certificate_file.empty() || !s.options.tls_private_key_file.empty()) {
        std::string cause;
        s.tls = detail::server_tls_context(s.options.tls_certificate_file,
                                           s.options.tls_private_key_file, cause);
        if (!s.tls) throw std::runtime_error("transport server: " + cause);
    }
    // Both listen before either accepts: a port that cannot be had leaves nothing running.
    if (s.options.rawsocket)
        s.rs_acceptor = detail::listen(s.io, s.options.host, s.options.rawsocket_port);
    if (s.options.websocket)
        s.ws_acceptor = detail::listen(s.io, s.options.host, s.options.websocket_port);
    if (s.rs_acceptor) s.rs_port = s.rs_acceptor->local_endpoint().port();
    if (s.ws_acceptor) s.ws_port = s.ws_acceptor->local_endpoint().port();
    if (s.rs_acceptor) s.accept(*s.rs_acceptor, transport::detail::Framing::rawsocket);
    if (s.ws_acceptor) s.accept(*s.ws_acceptor, transport::detail::Framing::websocket);
    s.work.emplace(s.io.get_executor());
    s.running = true;
    s.thread = std::thread([impl = impl_] {
        for (;;) {
            try {
                impl->io.run();
                return;
            } catch (const std::exception& e) {
                // A handler of ours failed; keep serving the other sessions.
                impl->log_warn("[transport server] I/O thread: {}", e.what());
            }
        }
    });
}

void Server::stop() {
    Impl& s = *impl_;
    if (!s.running) return;
    if (s.on_io_thread()) throw std::logic_error("transport server: stop from its own thread");
    s.running = false;
    asio::post(s.io, [impl = impl_] {
        impl->teardown();
        impl->work.reset();
        impl->io.stop();
    });
    s.thread.join();
    // The cancelled operations still hold the state they captured; running their handlers
    // here releases it, so nothing outlives the server.
    s.io.restart();
    s.io.poll();
    s.rs_port = 0;
    s.ws_port = 0;
}

void Server::shutdown(const std::string& reason, std::chrono::milliseconds grace) {
    Impl& s = *impl_;
    if (!s.running) return;
    for (uint64_t id : sessions()) close(id, reason);
    const auto deadline = std::chrono::steady_clock::now() + grace;
    while (!sessions().empty() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    stop();
}

uint16_t Server::rawsocket_port() const {
    return impl_->rs_port;
}
uint16_t Server::websocket_port() const {
    return impl_->ws_port;
}

bool Server::send(uint64_t session, const wamp::Message& message) {
    return send_encoded(session, wamp::serialize(message));
}

bool Server::send(uint64_t session, wamp::Message&& message, std::vector<uint8_t>&& last) {
    auto peer = impl_->find(session);
    if (!peer) return false;
    if (impl_->on_io_thread()) {
        impl_->deliver(peer, message, last);
        return true;
    }
    asio::post(impl_->io,
               [impl = impl_, peer, message = std::move(message), last = std::move(last)] {
                   if (peer->stage == Stage::joined) impl->deliver(peer, message, last);
               });
    return true;
}

bool Server::send_encoded(uint64_t session, const serialization::msgpack::buffer& encoded) {
    if (!impl_->on_io_thread()) return send_encoded(session, msgpack::buffer(encoded));
    auto peer = impl_->find(session);
    if (!peer) return false;
    impl_->deliver(peer, encoded.data, encoded.size);
    return true;
}

bool Server::send_encoded(uint64_t session, serialization::msgpack::buffer&& encoded) {
    if (impl_->on_io_thread()) return send_encoded(session, std::as_const(encoded));
    auto peer = impl_->find(session);
    if (!peer) return false;
    asio::post(impl_->io, [impl = impl_, peer, bytes = std::move(encoded)] {
        if (peer->stage == Stage::joined) impl->deliver(peer, bytes.data, bytes.size);
    });
    return true;
}

size_t Server::send_encoded(const std::vector<uint64_t>& sessions,
                            serialization::msgpack::buffer&& encoded) {
    std::vector<std::shared_ptr<Peer>> peers;
    for (uint64_t id : sessions)
        if (auto peer = impl_->find(id)) peers.push_back(std::move(peer));
    if (peers.empty()) return 0;
    const size_t count = peers.size();
    if (impl_->on_io_thread()) {
        for (const auto& peer : peers) impl_->deliver(peer, encoded.data, encoded.size);
        return count;
    }
    asio::post(impl_->io, [impl = impl_, peers = std::move(peers), bytes = std::move(encoded)] {
        for (const auto& peer : peers)
            if (peer->stage == Stage::joined) impl->deliver(peer, bytes.data, bytes.size);
    });
    return count;
}

size_t Server::max_send(uint64_t session) const {
    auto peer = impl_->find(session);
    // The channel's limit is settled by the opening and never changes afterwards.
    return peer && peer->channel ? peer->channel->max_send() : 0;
}

void Server::close(uint64_t session, const std::string& reason) {
    auto peer = impl_->find(session);
    if (!peer) return;
    impl_->run_on_io([impl = impl_, peer, reason] { impl->close_session(peer, reason); });
}

void Server::drop(uint64_t session) {
    auto peer = impl_->find(session);
    if (!peer) return;
    impl_->run_on_io([impl = impl_, peer] { impl->end(peer, "dropped by the server"); });
}

void Server::post(std::function<void()> task) {
    asio::post(impl_->io, std::move(task));
}

std::vector<uint64_t> Server::sessions() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    std::vector<uint64_t> ids;
    for (const auto& [id, peer] : impl_->joined) ids.push_back(id);
    return ids;
}

size_t Server::connections() const {
    return impl_->connection_count;
}

void Server::set_silent(bool silent) {
    impl_->run_on_io([impl = impl_, silent] {
        impl->silent = silent;
        for (const auto& peer : impl->peers)
            if (peer->channel) peer->channel->set_paused(silent);
    });
}

}  // namespace qor::router
