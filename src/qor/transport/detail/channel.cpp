#include <qor/transport/detail/streams.hpp>

#include <algorithm>
#include <chrono>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>

#include <qor/transport/rawsocket.hpp>

namespace qor::transport::detail {

namespace {

constexpr size_t READ_CHUNK = 64 * 1024;

// Asio's transfer_all hands the socket at most 64 KiB per write, so a 1 MiB message cost
// sixteen system calls and as many trips through the reactor; here each write offers the
// kernel everything that is left and it takes what its buffer has room for.
struct TransferRest {
    size_t operator()(const error_code& ec, size_t) const {
        return ec ? 0 : std::numeric_limits<size_t>::max();
    }
};

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
        : stream_(std::move(stream)), splitter_(max_in), limit_(max_in), max_out_(max_out) {
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

    void limit_incoming(uint32_t max) override { limit_ = std::min(max, splitter_.max_length()); }

    void limit_frame_idle(std::chrono::milliseconds idle) override { frame_idle_ = idle; }

    void set_paused(bool paused) override {
        paused_ = paused;
        watch_partial();
        if (!paused_ && started_ && !reading_) read();
    }

    size_t queued() const override { return out_.size(); }
    size_t max_send() const override { return max_out_; }
    const char* kind() const override { return "rawsocket"; }

  private:
    void read() {
        if (paused_ || closed_ || reading_ || refused_) return;
        reading_ = true;
        // The rest of a frame whose header has come is read in one go, into room taken once:
        // a large message neither grows the buffer step by step nor costs a read per chunk.
        // A length above the limit takes no room: the frame is refused by its header.
        size_t want = READ_CHUNK;
        const uint32_t announced = splitter_.announced();
        const size_t frame = 4 + size_t(announced);
        if (announced != 0 && announced <= limit_ && frame > splitter_.pending())
            want = std::max(want, frame - splitter_.pending());
        uint8_t* room = splitter_.prepare(want);
        stream_->async_read_some(
            asio::buffer(room, want),
            [self = this->shared_from_this()](error_code ec, size_t n) { self->on_read(ec, n); });
    }

    void on_read(error_code ec, size_t n) {
        reading_ = false;
        if (closed_) return;
        if (ec) return finish(cause_of(ec), false);
        splitter_.commit(n);
        rawsocket::Frame frame;
        try {
            while (!closed_ && !paused_ && !refused_ && admissible() && splitter_.next(frame)) {
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
        watch_partial();
        read();
    }

    // The next frame fits the current limit; otherwise its header is reported and reading
    // stops, so none of its bytes are kept.
    bool admissible() {
        const uint32_t announced = splitter_.announced();
        if (announced <= limit_) return true;
        if (!handlers_.too_large) throw std::runtime_error("rawsocket: frame too large");
        refused_ = true;
        handlers_.too_large(announced);
        return false;
    }

    // A frame left unfinished by this read must make progress within `frame_idle_`.
    void watch_partial() {
        if (frame_idle_.count() == 0 || closed_ || refused_) return;
        // Paused, the bytes wait for us, not for the peer.
        if (splitter_.pending() == 0 || paused_) {
            if (idle_timer_) idle_timer_->cancel();
            return;
        }
        if (!idle_timer_)
            idle_timer_ = std::make_unique<asio::steady_timer>(stream_->get_executor());
        idle_timer_->expires_after(frame_idle_);
        idle_timer_->async_wait([weak = this->weak_from_this(), idle = frame_idle_](error_code ec) {
            auto self = weak.lock();
            if (ec || !self) return;
            self->finish("unfinished frame idle for " + std::to_string(idle.count()) + " ms",
                         false);
        });
    }

    void flush() {
        if (writing_ || out_.empty() || closed_) return;
        writing_ = true;
        // Everything queued since the last write goes out in one call.
        sending_.swap(out_);
        asio::async_write(
            *stream_, asio::buffer(sending_), TransferRest{},
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
        if (idle_timer_) idle_timer_->cancel();
        close_socket(beast::get_lowest_layer(*stream_), graceful);
        report_closed(cause);
    }

    std::unique_ptr<Stream> stream_;
    rawsocket::Splitter splitter_;
    uint32_t limit_;        // incoming frames above this are refused by their header
    bool refused_ = false;  // a frame was refused: nothing more is read
    std::chrono::milliseconds frame_idle_{0};
    std::unique_ptr<asio::steady_timer> idle_timer_;
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
    explicit WebSocketChannel(std::unique_ptr<websocket::stream<Stream>> ws)
        : ws_(std::move(ws)), max_in_(ws_->read_message_max()) {
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

    void limit_incoming(uint32_t max) override {
        ws_->read_message_max(std::min<uint64_t>(max, max_in_));
    }

    // Beast keeps no per-frame clock; the opening time-out and the size limit bound a peer.
    void limit_frame_idle(std::chrono::milliseconds) override {}

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
    size_t max_send() const override { return max_in_; }
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
        // The wait for the peer's close frame is bounded by our own timer, not the stream's
        // handshake timeout: a time-out delivered by the stream wakes the read suspended
        // behind the close with an error the stream itself does not expect. Closing the
        // socket instead fails both operations in the way it does expect.
        close_timer_ = std::make_unique<asio::steady_timer>(ws_->get_executor(),
                                                            std::chrono::seconds(2));
        close_timer_->async_wait([weak = this->weak_from_this()](error_code ec) {
            if (ec) return;
            if (auto self = weak.lock()) self->finish(self->close_cause_);
        });
        // A peer that broke the protocol hears so in the close frame as well as in the ABORT.
        ws_->async_close(
            close_cause_ == "wamp.error.protocol_violation" ? websocket::close_code::protocol_error
                                                            : websocket::close_code::normal,
            [self = this->shared_from_this()](error_code) { self->finish(self->close_cause_); });
    }

    void finish(const std::string& cause) {
        if (closed_) return;
        closed_ = true;
        if (close_timer_) close_timer_->cancel();
        close_socket(beast::get_lowest_layer(*ws_), false);
        report_closed(cause);
    }

    std::unique_ptr<websocket::stream<Stream>> ws_;
    uint64_t max_in_;  // the limit the link was opened with
    beast::flat_buffer in_;
    std::unique_ptr<asio::steady_timer> close_timer_;
};

}  // namespace

std::shared_ptr<Channel> rawsocket_channel(std::unique_ptr<tcp::socket> stream, uint32_t max_in,
                                           uint32_t max_out) {
    return std::make_shared<RawSocketChannel<tcp::socket>>(std::move(stream), max_in, max_out);
}
std::shared_ptr<Channel> websocket_channel(std::unique_ptr<WsPlain> stream) {
    return std::make_shared<WebSocketChannel<Coalescing<tcp::socket>>>(std::move(stream));
}
#if QOR_HAVE_TLS
std::shared_ptr<Channel> rawsocket_channel(std::unique_ptr<TlsStream> stream, uint32_t max_in,
                                           uint32_t max_out) {
    return std::make_shared<RawSocketChannel<TlsStream>>(std::move(stream), max_in, max_out);
}
std::shared_ptr<Channel> websocket_channel(std::unique_ptr<WsTls> stream) {
    return std::make_shared<WebSocketChannel<Coalescing<TlsStream>>>(std::move(stream));
}
#endif

}  // namespace qor::transport::detail
