#include <qor/transport/detail/channel.hpp>

#include <functional>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include <boost/asio/connect.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include <qor/transport/rawsocket.hpp>

namespace qor::transport::detail {

namespace ssl = asio::ssl;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using error_code = boost::system::error_code;
using TlsStream = ssl::stream<tcp::socket>;

namespace {

constexpr size_t READ_CHUNK = 64 * 1024;
constexpr const char* SUBPROTOCOL = "wamp.2.msgpack";

// The layer under a WebSocket stream. Beast writes each frame with its own write_some; here
// those writes only append to memory. The owner flushes after each message: with the socket
// idle that writes at once, and while a write is in flight everything collected meanwhile
// leaves together in the next one. Each WAMP message stays its own frame, but a burst of
// them costs one syscall, not one each. Frames Beast writes on its own (pong, close) get a
// posted flush, so they go out even when nobody calls it. Reads pass straight through. The
// socket lives in shared state so that a write still in flight keeps it, and the bytes it
// sends, alive after the channel is gone.
template <class Next>
class Coalescing {
    struct Core : std::enable_shared_from_this<Core> {
        template <class... Args>
        explicit Core(Args&&... args) : next(std::forward<Args>(args)...) {}

        template <class Buffers>
        size_t append(const Buffers& buffers, error_code& ec) {
            if (failed) {
                ec = failed;
                return 0;
            }
            ec = {};
            size_t n = 0;
            for (const auto b : beast::buffers_range_ref(buffers)) {
                const auto* p = static_cast<const uint8_t*>(b.data());
                out.insert(out.end(), p, p + b.size());
                n += b.size();
            }
            if (!writing && !scheduled && !holding && !out.empty()) {
                scheduled = true;
                // Posted rather than written now, so the rest of this pass joins the write.
                asio::post(next.get_executor(), [self = this->shared_from_this()] {
                    self->scheduled = false;
                    self->flush();
                });
            }
            return n;
        }

        void flush() {
            if (writing || failed) return;
            if (out.empty()) return drained({});
            writing = true;
            sending.swap(out);
            // async_write carries on after a partial write until all of `sending` is out.
            asio::async_write(
                next, asio::buffer(sending),
                [self = this->shared_from_this()](error_code ec, size_t) { self->written(ec); });
        }

        void written(error_code ec) {
            writing = false;
            sending.clear();
            if (!ec) return flush();
            failed = ec;
            out.clear();
            if (on_error) {
                auto report = on_error;
                report(ec);
            } else {
                // Nobody to tell yet (a handshake is running): fail its pending read instead.
                error_code ignored;
                beast::get_lowest_layer(next).cancel(ignored);
            }
            drained(ec);
        }

        void drained(error_code ec) {
            auto waiting = std::move(waiters);
            waiters.clear();
            for (auto& w : waiting) w(ec);
        }

        Next next;
        std::vector<uint8_t> out;      // collecting for the next write
        std::vector<uint8_t> sending;  // in the write in flight
        bool writing = false;
        bool scheduled = false;
        bool holding = false;  // the owner flushes when its write is done
        error_code failed;
        std::function<void(const error_code&)> on_error;
        std::vector<std::function<void(error_code)>> waiters;
    };

  public:
    using next_layer_type = Next;
    using executor_type = typename Next::executor_type;

    template <class... Args>
    explicit Coalescing(Args&&... args)
        : core_(std::make_shared<Core>(std::forward<Args>(args)...)) {}
    Coalescing(Coalescing&&) = default;
    Coalescing& operator=(Coalescing&&) = default;
    ~Coalescing() {
        // Bytes still queued must not keep a connection open that nobody owns any more.
        if (!core_) return;
        error_code ignored;
        beast::get_lowest_layer(core_->next).close(ignored);
    }

    executor_type get_executor() { return core_->next.get_executor(); }
    Next& next_layer() { return core_->next; }
    const Next& next_layer() const { return core_->next; }

    /// Runs `write` (frames into this layer), then starts a socket write of what is collected
    /// unless one is in flight (it follows when that one completes) or a hold is on.
    template <class Write>
    void collect(Write&& write) {
        if (core_->holding) return write();
        struct Hold {
            Core& core;
            ~Hold() {
                core.holding = false;
                core.flush();
            }
        } hold{*core_};
        core_->holding = true;
        write();
    }
    /// While held, frames only collect; the next socket read or `flush` sends them.
    void hold(bool on) { core_->holding = on; }
    /// Starts a socket write of what is collected unless one is in flight.
    void flush() { core_->flush(); }
    /// Bytes collected and not yet handed to the socket.
    size_t pending() const { return core_->out.size(); }
    /// Called when a socket write fails; later writes fail with the same error.
    void on_error(std::function<void(const error_code&)> report) {
        core_->on_error = std::move(report);
    }
    /// Calls `done` (never from inside this call) once everything collected so far is out.
    void when_drained(std::function<void(error_code)> done) {
        core_->waiters.push_back(std::move(done));
        if (!core_->writing && !core_->scheduled) {
            core_->scheduled = true;
            asio::post(get_executor(), [core = core_] {
                core->scheduled = false;
                if (core->failed) return core->drained(core->failed);
                core->flush();
            });
        }
    }

    template <class Buffers>
    size_t write_some(const Buffers& buffers, error_code& ec) {
        return core_->append(buffers, ec);
    }
    template <class Buffers>
    size_t write_some(const Buffers& buffers) {
        error_code ec;
        const size_t n = core_->append(buffers, ec);
        if (ec) throw boost::system::system_error(ec);
        return n;
    }
    template <class Buffers>
    size_t read_some(const Buffers& buffers, error_code& ec) {
        return core_->next.read_some(buffers, ec);
    }
    template <class Buffers>
    size_t read_some(const Buffers& buffers) {
        return core_->next.read_some(buffers);
    }

    template <class Buffers, class Handler>
    auto async_read_some(const Buffers& buffers, Handler&& handler) {
        // About to wait for the peer: what was answered so far must not wait with us.
        core_->flush();
        return core_->next.async_read_some(buffers, std::forward<Handler>(handler));
    }

    template <class Buffers, class Handler>
    auto async_write_some(const Buffers& buffers, Handler&& handler) {
        return asio::async_initiate<Handler, void(error_code, size_t)>(
            [](auto h, std::shared_ptr<Core> core, const Buffers& buffers) {
                error_code ec;
                const size_t n = core->append(buffers, ec);
                auto ex = core->next.get_executor();
                asio::post(ex, beast::bind_front_handler(std::move(h), ec, n));
            },
            handler, core_, buffers);
    }

  private:
    std::shared_ptr<Core> core_;
};

// Closing a WebSocket ends with a teardown of the layer below; the close frame may still be
// collected here, so it has to leave before the socket (or TLS) is shut down.
template <class Next, class Handler>
void async_teardown(beast::role_type role, Coalescing<Next>& stream, Handler&& handler) {
    auto h = std::make_shared<std::decay_t<Handler>>(std::forward<Handler>(handler));
    Next& next = stream.next_layer();
    stream.when_drained([role, &next, h](error_code ec) {
        if (ec) return (*h)(ec);
        using beast::async_teardown;
        using websocket::async_teardown;
        async_teardown(role, next, std::move(*h));
    });
}

template <class Next>
void teardown(beast::role_type role, Coalescing<Next>& stream, error_code& ec) {
    using beast::teardown;
    using websocket::teardown;
    teardown(role, stream.next_layer(), ec);
}

using WsPlain = websocket::stream<Coalescing<tcp::socket>>;
using WsTls = websocket::stream<Coalescing<TlsStream>>;

template <class T>
struct is_tls : std::false_type {};
template <>
struct is_tls<TlsStream> : std::true_type {};
template <>
struct is_tls<WsTls> : std::true_type {};

template <class T>
struct is_ws : std::false_type {};
template <class S>
struct is_ws<websocket::stream<S>> : std::true_type {};

TlsStream& tls_layer(TlsStream& s) {
    return s;
}
TlsStream& tls_layer(WsTls& s) {
    return s.next_layer().next_layer();
}

std::string cause_of(const error_code& ec) {
    if (ec == asio::error::eof || ec == websocket::error::closed)
        return "connection closed by peer";
    if (ec == asio::error::connection_reset) return "connection reset by peer";
    if (ec == asio::error::connection_refused) return "connection refused";
    if (ec == asio::error::operation_aborted) return "cancelled";
    if (ec == asio::error::timed_out || ec == beast::error::timeout) return "timed out";
    if (ec == ssl::error::stream_truncated) return "TLS stream truncated";
    if (ec.category() == asio::error::get_ssl_category()) return "TLS error: " + ec.message();
    if (ec == websocket::error::message_too_big) return "websocket: message too large";
    return ec.message();
}

// A failed TLS handshake is a TLS error whatever broke it (a plain peer usually just hangs up).
std::string tls_cause(const error_code& ec) {
    const std::string cause = cause_of(ec);
    return cause.rfind("TLS", 0) == 0 ? cause : "TLS error: handshake failed: " + cause;
}

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

// State shared by both framings: the closed flag and the one-shot close report.
class ChannelBase : public Channel {
  protected:
    Handlers handlers_;
    bool started_ = false;
    bool closed_ = false;
    bool closing_ = false;
    bool paused_ = false;
    bool reading_ = false;
    bool writing_ = false;
    std::string close_cause_;
    std::string peer_;

    void report_closed(const std::string& cause) {
        // The message handler may be the caller of this very close, so it is left in place;
        // once `closed_` is set it is never called again.
        auto closed = std::move(handlers_.closed);
        handlers_.closed = nullptr;
        if (closed) closed(cause);
    }

  public:
    std::string peer() const override { return peer_; }
};

template <class Stream>
class RawSocketChannel final : public ChannelBase,
                               public std::enable_shared_from_this<RawSocketChannel<Stream>> {
  public:
    RawSocketChannel(std::unique_ptr<Stream> stream, uint32_t max_in, uint32_t max_out)
        : stream_(std::move(stream)), splitter_(max_in), max_out_(max_out) {
        peer_ = peer_of(beast::get_lowest_layer(*stream_));
    }

    void start(Handlers handlers) override {
        handlers_ = std::move(handlers);
        started_ = true;
        read();
        flush();
    }

    void send(const uint8_t* data, size_t size) override {
        if (closed_ || closing_) return;
        if (size > max_out_)
            throw std::runtime_error("rawsocket: message larger than the peer accepts");
        rawsocket::append_frame(out_, rawsocket::FrameType::message, data, uint32_t(size));
        flush();
    }

    void ping() override {
        if (closed_ || closing_) return;
        rawsocket::append_header(out_, rawsocket::FrameType::ping, 0);
        flush();
    }

    void close(const std::string& cause) override {
        if (closed_ || closing_) return;
        closing_ = true;
        close_cause_ = cause;
        if (!writing_ && out_.empty()) finish(cause, true);
    }

    void abort(const std::string& cause) override { finish(cause, false); }

    void set_paused(bool paused) override {
        paused_ = paused;
        if (!paused_ && started_ && !reading_) read();
    }

    size_t queued() const override { return out_.size(); }
    const char* kind() const override { return "rawsocket"; }

  private:
    void read() {
        if (paused_ || closed_ || reading_) return;
        reading_ = true;
        uint8_t* room = splitter_.prepare(READ_CHUNK);
        stream_->async_read_some(
            asio::buffer(room, READ_CHUNK),
            [self = this->shared_from_this()](error_code ec, size_t n) { self->on_read(ec, n); });
    }

    void on_read(error_code ec, size_t n) {
        reading_ = false;
        if (closed_) return;
        if (ec) return finish(cause_of(ec), false);
        splitter_.commit(n);
        rawsocket::Frame frame;
        try {
            while (!closed_ && !paused_ && splitter_.next(frame)) {
                if (frame.type == rawsocket::FrameType::message) {
                    if (handlers_.message) handlers_.message(frame.data, frame.size);
                } else if (frame.type == rawsocket::FrameType::ping) {
                    rawsocket::append_frame(out_, rawsocket::FrameType::pong, frame.data,
                                            frame.size);
                } else if (handlers_.pong) {
                    handlers_.pong();
                }
            }
        } catch (const std::exception& e) {
            return finish(e.what(), false);
        }
        flush();
        read();
    }

    void flush() {
        if (writing_ || out_.empty() || closed_) return;
        writing_ = true;
        // Everything queued since the last write goes out in one call.
        sending_.swap(out_);
        asio::async_write(
            *stream_, asio::buffer(sending_),
            [self = this->shared_from_this()](error_code ec, size_t) { self->on_written(ec); });
    }

    void on_written(error_code ec) {
        writing_ = false;
        sending_.clear();
        if (closed_) return;
        if (ec) return finish(cause_of(ec), false);
        if (!out_.empty()) return flush();
        if (closing_) finish(close_cause_, true);
    }

    void finish(const std::string& cause, bool graceful) {
        if (closed_) return;
        closed_ = true;
        close_socket(beast::get_lowest_layer(*stream_), graceful);
        report_closed(cause);
    }

    std::unique_ptr<Stream> stream_;
    rawsocket::Splitter splitter_;
    uint32_t max_out_;
    std::vector<uint8_t> out_;
    std::vector<uint8_t> sending_;
};

// `Stream` is the Coalescing layer: frames are written synchronously into its memory, which
// never blocks, and it sends them on with one socket write per pass.
template <class Stream>
class WebSocketChannel final : public ChannelBase,
                               public std::enable_shared_from_this<WebSocketChannel<Stream>> {
  public:
    explicit WebSocketChannel(std::unique_ptr<websocket::stream<Stream>> ws) : ws_(std::move(ws)) {
        peer_ = peer_of(beast::get_lowest_layer(*ws_));
        ws_->binary(true);
        // One WAMP message is one WebSocket message, so each goes out as a single frame.
        ws_->auto_fragment(false);
    }

    void start(Handlers handlers) override {
        handlers_ = std::move(handlers);
        started_ = true;
        ws_->control_callback([this](websocket::frame_type kind, beast::string_view) {
            if (kind == websocket::frame_type::pong && handlers_.pong) handlers_.pong();
        });
        std::weak_ptr<WebSocketChannel> weak = this->shared_from_this();
        ws_->next_layer().on_error([weak](const error_code& ec) {
            if (auto self = weak.lock()) self->finish(cause_of(ec));
        });
        read();
    }

    void send(const uint8_t* data, size_t size) override {
        if (!writable()) return;
        // Out at once when the socket is idle, like a direct write; while a write is in
        // flight this message joins the next one.
        error_code ec;
        ws_->next_layer().collect([&] { ws_->write(asio::buffer(data, size), ec); });
        if (ec) fail_later(ec);
    }

    void ping() override {
        if (!writable()) return;
        error_code ec;
        ws_->next_layer().collect([&] { ws_->ping({}, ec); });
        if (ec) fail_later(ec);
    }

    void close(const std::string& cause) override {
        if (closed_ || closing_) return;
        closing_ = true;
        close_cause_ = cause;
        // The close frame queues behind every message already written.
        send_close();
    }

    void abort(const std::string& cause) override { finish(cause); }

    void set_paused(bool paused) override {
        paused_ = paused;
        // A pending WebSocket read answers pings by itself, so pausing has to cancel it. The
        // stream does not survive a cancelled read: resuming after that ends the link.
        if (paused_ && reading_) {
            error_code ignored;
            beast::get_lowest_layer(*ws_).cancel(ignored);
        }
        if (!paused_ && started_ && !reading_) read();
    }

    size_t queued() const override { return ws_->next_layer().pending(); }
    const char* kind() const override { return "websocket"; }

  private:
    // After the peer's close frame the stream is no longer open; a frame written then would
    // follow our close reply.
    bool writable() const { return !closed_ && !closing_ && ws_->is_open(); }

    // Failures are reported from the io_context, never from inside the caller's send.
    void fail_later(const error_code& ec) {
        asio::post(ws_->get_executor(), [self = this->shared_from_this(), cause = cause_of(ec)] {
            self->finish(cause);
        });
    }

    void read() {
        if (paused_ || closed_ || reading_) return;
        reading_ = true;
        ws_->async_read(
            in_, [self = this->shared_from_this()](error_code ec, size_t) { self->on_read(ec); });
    }

    void on_read(error_code ec) {
        reading_ = false;
        if (closed_) return;
        if (ec == asio::error::operation_aborted && paused_) return;
        if (ec) return finish(cause_of(ec));
        if (!ws_->got_binary()) return finish("websocket: text message where binary was expected");
        const auto bytes = in_.cdata();
        // Beast hands over one message per read, even when more are already buffered. The
        // answers to them collect and leave together when it next has to read the socket,
        // not one write each.
        auto& layer = ws_->next_layer();
        layer.hold(true);
        try {
            if (handlers_.message)
                handlers_.message(static_cast<const uint8_t*>(bytes.data()), bytes.size());
        } catch (const std::exception& e) {
            layer.hold(false);
            return finish(e.what());
        }
        layer.hold(false);
        in_.consume(in_.size());
        read();
        // No socket read may follow when reading stopped or a close began.
        if (!reading_ || closing_) layer.flush();
    }

    void send_close() {
        if (closed_) return;
        websocket::stream_base::timeout limits{std::chrono::seconds(2),
                                               websocket::stream_base::none(), false};
        ws_->set_option(limits);
        ws_->async_close(
            websocket::close_code::normal,
            [self = this->shared_from_this()](error_code) { self->finish(self->close_cause_); });
    }

    void finish(const std::string& cause) {
        if (closed_) return;
        closed_ = true;
        close_socket(beast::get_lowest_layer(*ws_), false);
        report_closed(cause);
    }

    std::unique_ptr<websocket::stream<Stream>> ws_;
    beast::flat_buffer in_;
};

using Done = std::function<void(std::shared_ptr<Channel>, const std::string&)>;

// One opening, client or server side: TLS (if any), then the framing handshake. `T` is the
// whole layered stream (socket, TLS stream, or a WebSocket stream over either).
template <class T>
class OpeningImpl final : public Opening, public std::enable_shared_from_this<OpeningImpl<T>> {
  public:
    OpeningImpl(std::unique_ptr<T> stream, bool client, uint32_t max_in, Done done)
        : stream_(std::move(stream)), client_(client), max_in_(max_in), done_(std::move(done)) {}

    void cancel() override { fail("cancelled"); }

    void run(const std::string& host, const std::string& port, const std::string& path,
             bool verify) {
        host_ = host;
        port_ = port;
        path_ = path;
        if constexpr (is_tls<T>::value) {
            TlsStream& tls = tls_layer(*stream_);
            if (client_) {
                // SNI, and the name the certificate must carry when verifying.
                SSL_set_tlsext_host_name(tls.native_handle(), host.c_str());
                if (verify) {
                    tls.set_verify_mode(ssl::verify_peer);
                    tls.set_verify_callback(ssl::host_name_verification(host));
                } else {
                    tls.set_verify_mode(ssl::verify_none);
                }
            }
            tls.async_handshake(client_ ? ssl::stream_base::client : ssl::stream_base::server,
                                [self = this->shared_from_this()](error_code ec) {
                                    if (ec) return self->fail(tls_cause(ec));
                                    self->framing();
                                });
        } else {
            framing();
        }
    }

  private:
    void framing() {
        if (finished_) return;
        if constexpr (is_ws<T>::value) {
            if (client_)
                ws_client();
            else
                ws_server();
        } else {
            rs_exchange();
        }
    }

    void rs_exchange() {
        const uint8_t ours = rawsocket::exponent_for(max_in_);
        hs_out_ = client_ ? rawsocket::client_hello(ours) : std::array<uint8_t, 4>{};
        auto self = this->shared_from_this();
        if (client_) {
            asio::async_write(*stream_, asio::buffer(hs_out_), [self](error_code ec, size_t) {
                if (ec) self->fail(cause_of(ec));
            });
        }
        asio::async_read(*stream_, asio::buffer(hs_in_), [self](error_code ec, size_t) {
            if (ec)
                return self->fail(self->client_ ? "no handshake reply: " + cause_of(ec)
                                                : cause_of(ec));
            self->client_ ? self->rs_client_check() : self->rs_server_check();
        });
    }

    void rs_client_check() {
        rawsocket::Handshake h;
        try {
            h = rawsocket::parse_handshake(hs_in_.data());
        } catch (const std::exception& e) {
            return fail(std::string("bad handshake: ") + e.what());
        }
        if (h.serializer == 0)
            return fail("handshake refused: " + rawsocket::refusal_text(h.exponent));
        if (h.serializer != rawsocket::SERIALIZER_MSGPACK)
            return fail("handshake refused: unsupported serializer " +
                        std::to_string(h.serializer));
        complete_rs(rawsocket::max_length_of(h.exponent));
    }

    void rs_server_check() {
        rawsocket::Handshake h;
        try {
            h = rawsocket::parse_handshake(hs_in_.data());
        } catch (const std::exception& e) {
            // A peer that is not speaking RawSocket gets no reply, only a closed socket.
            return fail(std::string("bad handshake: ") + e.what());
        }
        if (h.serializer != rawsocket::SERIALIZER_MSGPACK) {
            hs_out_ = rawsocket::server_refuse(rawsocket::ERROR_SERIALIZER_UNSUPPORTED);
            auto self = this->shared_from_this();
            asio::async_write(*stream_, asio::buffer(hs_out_), [self](error_code, size_t) {
                self->fail("handshake refused: serializer unsupported");
            });
            return;
        }
        const uint32_t peer_max = rawsocket::max_length_of(h.exponent);
        hs_out_ = rawsocket::server_accept(rawsocket::exponent_for(max_in_));
        auto self = this->shared_from_this();
        asio::async_write(*stream_, asio::buffer(hs_out_), [self, peer_max](error_code ec, size_t) {
            if (ec) return self->fail(cause_of(ec));
            self->complete_rs(peer_max);
        });
    }

    void complete_rs(uint32_t peer_max) {
        if constexpr (!is_ws<T>::value) {
            if (finished_) return;
            finished_ = true;
            // The peer may announce more than the 24-bit length field can carry.
            const uint32_t max_out = std::min(peer_max, rawsocket::MAX_FRAME_LENGTH - 1);
            auto channel =
                std::make_shared<RawSocketChannel<T>>(std::move(stream_), max_in_, max_out);
            auto done = std::move(done_);
            done(channel, "");
        }
    }

    void ws_client() {
        if constexpr (is_ws<T>::value) {
            stream_->set_option(websocket::stream_base::decorator([](websocket::request_type& req) {
                req.set(http::field::sec_websocket_protocol, SUBPROTOCOL);
            }));
            stream_->read_message_max(max_in_);
            stream_->async_handshake(
                response_, host_ + ":" + port_, path_,
                [self = this->shared_from_this()](error_code ec) {
                    if (ec == websocket::error::upgrade_declined)
                        return self->fail("bad handshake: HTTP " +
                                          std::to_string(self->response_.result_int()) +
                                          " instead of a WebSocket upgrade");
                    if (ec) return self->fail("bad handshake: " + cause_of(ec));
                    if (self->response_[http::field::sec_websocket_protocol] != SUBPROTOCOL)
                        return self->fail("unsupported serializer: the server did not accept " +
                                          std::string(SUBPROTOCOL));
                    self->complete_ws();
                });
        }
    }

    void ws_server() {
        if constexpr (is_ws<T>::value) {
            http::async_read(stream_->next_layer(), http_in_, request_,
                             [self = this->shared_from_this()](error_code ec, size_t) {
                                 if (ec) return self->fail("bad handshake: " + cause_of(ec));
                                 self->ws_server_accept();
                             });
        }
    }

    static bool offers_wamp(beast::string_view offered) {
        // A comma separated list; compare each token without its blanks.
        std::string list(offered);
        size_t start = 0;
        while (start <= list.size()) {
            size_t end = list.find(',', start);
            if (end == std::string::npos) end = list.size();
            std::string token = list.substr(start, end - start);
            const auto first = token.find_first_not_of(" \t");
            const auto last = token.find_last_not_of(" \t");
            if (first != std::string::npos && token.substr(first, last - first + 1) == SUBPROTOCOL)
                return true;
            start = end + 1;
        }
        return false;
    }

    void ws_server_accept() {
        if constexpr (is_ws<T>::value) {
            if (!websocket::is_upgrade(request_) && http_) return answer_http();
            std::string refusal;
            if (!websocket::is_upgrade(request_))
                refusal = "not a WebSocket upgrade";
            else if (!offers_wamp(request_[http::field::sec_websocket_protocol]))
                refusal = "subprotocol wamp.2.msgpack not offered";
            if (!refusal.empty()) {
                auto res = std::make_shared<http::response<http::string_body>>(
                    http::status::bad_request, request_.version());
                res->set(http::field::content_type, "text/plain");
                res->body() = refusal;
                res->prepare_payload();
                auto self = this->shared_from_this();
                http::async_write(stream_->next_layer(), *res,
                                  [self, res, refusal](error_code, size_t) {
                                      self->fail("bad handshake: " + refusal);
                                  });
                return;
            }
            stream_->set_option(
                websocket::stream_base::decorator([](websocket::response_type& res) {
                    res.set(http::field::sec_websocket_protocol, SUBPROTOCOL);
                }));
            stream_->read_message_max(max_in_);
            stream_->async_accept(request_, [self = this->shared_from_this()](error_code ec) {
                if (ec) return self->fail("bad handshake: " + cause_of(ec));
                self->complete_ws();
            });
        }
    }

    void answer_http() {
        if constexpr (is_ws<T>::value) {
            HttpRequest in;
            in.method = std::string(request_.method_string());
            in.target = std::string(request_.target());
            HttpResponse out;
            try {
                out = http_(in);
            } catch (const std::exception& e) {
                out = HttpResponse{500, "text/plain; charset=utf-8", e.what()};
            }
            auto res = std::make_shared<http::response<http::string_body>>(
                static_cast<http::status>(out.status), request_.version());
            res->set(http::field::content_type, out.content_type);
            res->set(http::field::cache_control, "no-cache");
            res->set("X-Content-Type-Options", "nosniff");
            res->keep_alive(false);
            const size_t length = out.body.size();
            if (request_.method() != http::verb::head) res->body() = std::move(out.body);
            res->content_length(length);
            auto self = this->shared_from_this();
            // The answer only collects in the layer below; it must have left before the close.
            http::async_write(stream_->next_layer(), *res, [self, res](error_code ec, size_t) {
                if (ec) return self->fail(kServedHttp);
                self->stream_->next_layer().when_drained([self](error_code) {
                    close_socket(beast::get_lowest_layer(*self->stream_), true);
                    self->fail(kServedHttp);
                });
            });
        }
    }

    void complete_ws() {
        if constexpr (is_ws<T>::value) {
            if (finished_) return;
            finished_ = true;
            using Next = typename T::next_layer_type;
            auto channel = std::make_shared<WebSocketChannel<Next>>(std::move(stream_));
            auto done = std::move(done_);
            done(channel, "");
        }
    }

    void fail(const std::string& cause) {
        if (finished_) return;
        finished_ = true;
        close_socket(beast::get_lowest_layer(*stream_), false);
        auto done = std::move(done_);
        if (done) done(nullptr, cause);
    }

  public:
    HttpHandler http_;

  private:
    std::unique_ptr<T> stream_;
    bool client_;
    uint32_t max_in_;
    Done done_;
    bool finished_ = false;
    std::string host_, port_, path_;
    std::array<uint8_t, 4> hs_out_{};
    std::array<uint8_t, 4> hs_in_{};
    websocket::response_type response_;
    http::request<http::string_body> request_;
    beast::flat_buffer http_in_;
};

// Builds the layered stream the settings ask for around a connected socket, then runs it.
template <class Start>
void with_stream(tcp::socket socket, Framing framing, ssl::context* tls, Start&& start) {
    if (framing == Framing::rawsocket) {
        if (tls)
            start(std::make_unique<TlsStream>(std::move(socket), *tls));
        else
            start(std::make_unique<tcp::socket>(std::move(socket)));
    } else {
        if (tls)
            start(std::make_unique<WsTls>(std::move(socket), *tls));
        else
            start(std::make_unique<WsPlain>(std::move(socket)));
    }
}

class ClientOpening final : public Opening, public std::enable_shared_from_this<ClientOpening> {
  public:
    ClientOpening(asio::io_context& io, ClientSettings settings, Done done)
        : io_(io),
          settings_(std::move(settings)),
          done_(std::move(done)),
          resolver_(io),
          socket_(io) {}

    void run() {
        resolver_.async_resolve(
            settings_.host, settings_.port,
            [self = shared_from_this()](error_code ec, tcp::resolver::results_type results) {
                if (self->finished_) return;
                if (ec) return self->fail("cannot resolve host: " + ec.message());
                asio::async_connect(
                    self->socket_, results,
                    [self](error_code ec, const tcp::endpoint&) { self->connected(ec); });
            });
    }

    void cancel() override {
        if (inner_) inner_->cancel();
        fail("cancelled");
    }

  private:
    void connected(error_code ec) {
        if (finished_) return;
        if (ec) return fail(cause_of(ec));
        socket_.set_option(tcp::no_delay(true), ec);
        auto self = shared_from_this();
        Done forward = [self](std::shared_ptr<Channel> channel, const std::string& cause) {
            if (self->finished_) return;
            self->finished_ = true;
            self->inner_.reset();
            auto done = std::move(self->done_);
            done(std::move(channel), cause);
        };
        with_stream(std::move(socket_), settings_.framing,
                    settings_.tls ? settings_.tls_context : nullptr, [&](auto stream) {
                        using T = typename decltype(stream)::element_type;
                        auto opening = std::make_shared<OpeningImpl<T>>(
                            std::move(stream), true, settings_.max_message_size, forward);
                        inner_ = opening;
                        opening->run(settings_.host, settings_.port, settings_.path,
                                     settings_.verify_peer);
                    });
    }

    void fail(const std::string& cause) {
        if (finished_) return;
        finished_ = true;
        error_code ignored;
        resolver_.cancel();
        socket_.close(ignored);
        auto done = std::move(done_);
        if (done) done(nullptr, cause);
    }

    asio::io_context& io_;
    ClientSettings settings_;
    Done done_;
    tcp::resolver resolver_;
    tcp::socket socket_;
    std::shared_ptr<Opening> inner_;
    bool finished_ = false;
};

}  // namespace

std::shared_ptr<Opening> open_client(asio::io_context& io, const ClientSettings& settings,
                                     Done done) {
    if (settings.tls && !settings.tls_context)
        throw std::logic_error("open_client: TLS requested without a context");
    auto opening = std::make_shared<ClientOpening>(io, settings, std::move(done));
    opening->run();
    return opening;
}

std::shared_ptr<Opening> accept_server(tcp::socket socket, const AcceptSettings& settings,
                                       Done done) {
    error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    std::shared_ptr<Opening> result;
    with_stream(std::move(socket), settings.framing, settings.tls_context, [&](auto stream) {
        using T = typename decltype(stream)::element_type;
        auto opening = std::make_shared<OpeningImpl<T>>(std::move(stream), false,
                                                        settings.max_message_size, std::move(done));
        result = opening;
        opening->http_ = settings.http;
        opening->run("", "", "", false);
    });
    return result;
}

}  // namespace qor::transport::detail
