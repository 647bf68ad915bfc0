#include <qor/transport/detail/streams.hpp>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <random>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>

#include <qor/transport/rawsocket.hpp>
#include <qor/transport/websocket.hpp>

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

// The WebSocket framing of our own; `websocket` here is Beast's, which did the upgrade.
namespace frames = transport::websocket;

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

    bool send_in_place(size_t size, const std::function<void(uint8_t*)>& fill) override {
        if (closed_ || closing_) return false;
        if (size > max_out_)
            throw std::runtime_error("rawsocket: message larger than the peer accepts");
        const size_t frame = out_.size();
        rawsocket::append_header(out_, rawsocket::FrameType::message, uint32_t(size));
        out_.resize(frame + 4 + size);
        try {
            fill(out_.data() + frame + 4);
        } catch (...) {
            out_.resize(frame);  // no half-written frame may reach the peer
            throw;
        }
        flush();
        return true;
    }

    void recycle(serialization::msgpack::buffer&& block) override {
        if (block.size > READ_CHUNK) spare_ = std::move(block);
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
        if (gathering_) {
            // Only up to the message's end: what follows it goes through the splitter.
            stream_->async_read_some(
                asio::buffer(large_.data + large_filled_, large_.size - large_filled_),
                [self = this->shared_from_this()](error_code ec, size_t n) {
                    self->on_gathered(ec, n);
                });
            return;
        }
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
            // A message larger than a read is gathered in a block of its own size, which
            // then moves to the receiver: the splitter's buffer neither grows to hold it nor
            // is it copied out of there, and a small message never pins a large block.
            if (!closed_ && !paused_ && !refused_ && handlers_.owned_message &&
                splitter_.partial_message() && splitter_.announced() > READ_CHUNK) {
                const uint64_t size = splitter_.announced();
                // A run of large answers (a scene fetched again and again, the state of many
                // bodies every step) reuses the last block and its warm pages: a fresh one,
                // freed at once, is often handed back to the system and faulted in again.
                if (spare_.size >= size && spare_.size / 2 <= size) {
                    large_ = std::move(spare_);
                    large_.size = size;  // the block may be larger; only `size` is read
                } else {
                    large_ = serialization::msgpack::buffer(size);
                }
                large_filled_ = splitter_.detach(large_.data);
                gathering_ = true;
            }
        } catch (const std::exception& e) {
            return finish(e.what(), false);
        }
        flush();
        watch_partial();
        read();
    }

    void on_gathered(error_code ec, size_t n) {
        reading_ = false;
        if (closed_) return;
        if (ec) return finish(cause_of(ec), false);
        large_filled_ += n;
        if (large_filled_ == large_.size) {
            gathering_ = false;
            try {
                handlers_.owned_message(std::move(large_));
            } catch (const std::exception& e) {
                return finish(e.what(), false);
            }
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
        if ((splitter_.pending() == 0 && !gathering_) || paused_) {
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
    bool gathering_ = false;                // reading a large message into `large_`
    serialization::msgpack::buffer large_;  // that message, sized by its header
    serialization::msgpack::buffer spare_;  // the last one, handed back by `recycle`
    size_t large_filled_ = 0;               // bytes of it received so far
    uint32_t limit_;        // incoming frames above this are refused by their header
    bool refused_ = false;  // a frame was refused: nothing more is read
    std::chrono::milliseconds frame_idle_{0};
    std::unique_ptr<asio::steady_timer> idle_timer_;
    uint32_t max_out_;
    std::vector<uint8_t> out_;
    std::vector<uint8_t> sending_;
};

// WebSocket after the upgrade. Beast did the HTTP part; from here the frames are ours, read
// like RawSocket's: each socket read takes whatever has arrived and every complete message in
// it is handled before the next read. `Layer` is the Coalescing layer the upgrade ran on: frames
// are written straight into its memory and leave with one socket write per pass.
template <class Layer>
class WebSocketChannel final : public ChannelBase,
                               public std::enable_shared_from_this<WebSocketChannel<Layer>> {
  public:
    WebSocketChannel(std::unique_ptr<Layer> layer, Side side, uint32_t max_in,
                     const std::vector<uint8_t>& early)
        : layer_(std::move(layer)),
          client_(side == Side::client),
          reader_(side == Side::server, max_in),
          max_in_(max_in) {
        peer_ = peer_of(beast::get_lowest_layer(*layer_));
        // Bytes the peer sent right behind its upgrade request.
        reader_.feed(early.data(), early.size());
        if (client_) {
            // The key only has to be unpredictable to scripts on the path, not secret.
            std::random_device seed;
            rng_ = (uint64_t(seed()) << 32) ^ seed() ^ uint64_t(reinterpret_cast<uintptr_t>(this));
            if (rng_ == 0) rng_ = 0x9E3779B97F4A7C15ull;
        }
    }

    void start(Handlers handlers) override {
        handlers_ = std::move(handlers);
        started_ = true;
        std::weak_ptr<WebSocketChannel> weak = this->shared_from_this();
        layer_->on_error([weak](const error_code& ec) {
            if (auto self = weak.lock()) self->finish(cause_of(ec), false);
        });
        // What came with the upgrade is handled first, from the io_context.
        resume();
    }

    void send(const uint8_t* data, size_t size) override {
        if (closed_ || closing_) return;
        // Out at once when the socket is idle; while a write is in flight this message joins
        // the next one.
        layer_->collect([&] { frame(frames::Opcode::binary, data, size); });
    }

    void ping() override {
        if (closed_ || closing_) return;
        layer_->collect([&] { frame(frames::Opcode::ping, nullptr, 0); });
    }

    void close(const std::string& cause) override {
        if (closed_ || closing_) return;
        closing_ = true;
        close_cause_ = cause;
        // A peer that broke the protocol hears so in the close frame as well as in the ABORT.
        const uint16_t code = cause == "wamp.error.protocol_violation"
                                  ? frames::CLOSE_PROTOCOL_ERROR
                                  : frames::CLOSE_NORMAL;
        // The close frame queues behind every message already written; the peer's answer is
        // awaited for a while, reading on even when paused.
        layer_->collect([&] { close_frame(code); });
        close_timer_ = std::make_unique<asio::steady_timer>(layer_->get_executor(),
                                                            std::chrono::seconds(2));
        close_timer_->async_wait([weak = this->weak_from_this()](error_code ec) {
            if (ec) return;
            if (auto self = weak.lock()) self->finish(self->close_cause_, false);
        });
        if (started_) resume();
    }

    void abort(const std::string& cause) override { finish(cause, false); }

    void limit_incoming(uint32_t max) override { reader_.set_max_message(std::min(max, max_in_)); }

    void limit_frame_idle(std::chrono::milliseconds idle) override { frame_idle_ = idle; }

    void set_paused(bool paused) override {
        paused_ = paused;
        watch_partial();
        if (!paused_ && started_) resume();
    }

    size_t queued() const override { return layer_->pending(); }
    size_t max_send() const override { return max_in_; }
    const char* kind() const override { return "websocket"; }

  private:
    // One frame into the layer's memory; a client masks it with a fresh key.
    void frame(frames::Opcode opcode, const uint8_t* data, size_t size) {
        uint8_t key[4];
        frames::append_frame(layer_->collecting(), opcode, data, size, next_key(key));
    }

    void close_frame(uint16_t code) {
        uint8_t key[4];
        frames::append_close(layer_->collecting(), code, next_key(key));
    }

    uint8_t* next_key(uint8_t* key) {
        if (!client_) return nullptr;
        // xorshift64*: cheap, and seeded per link from the system's entropy.
        rng_ ^= rng_ >> 12;
        rng_ ^= rng_ << 25;
        rng_ ^= rng_ >> 27;
        const uint64_t r = rng_ * 0x2545F4914F6CDD1Dull;
        std::memcpy(key, &r, 4);
        return key;
    }

    bool reads() const { return !closed_ && !reading_ && (!paused_ || closing_); }

    // Handles what is buffered, then reads on; posted, so that no handler runs inside the
    // caller's `start` or `set_paused`.
    void resume() {
        if (!reads()) return;
        reading_ = true;
        asio::post(layer_->get_executor(),
                   [self = this->shared_from_this()] { self->on_read({}, 0); });
    }

    void read() {
        if (!reads()) return;
        reading_ = true;
        uint8_t* room = reader_.prepare(READ_CHUNK);
        layer_->async_read_some(
            asio::buffer(room, READ_CHUNK),
            [self = this->shared_from_this()](error_code ec, size_t n) { self->on_read(ec, n); });
    }

    void on_read(error_code ec, size_t n) {
        reading_ = false;
        if (closed_) return;
        if (ec) return finish(closing_ ? close_cause_ : cause_of(ec), false);
        if (n) reader_.commit(n);
        // The answers to everything this read brought leave together, in one write.
        layer_->hold(true);
        frames::Message m;
        try {
            while (!closed_ && (!paused_ || closing_) && reader_.next(m)) handle(m);
        } catch (const frames::Error& e) {
            layer_->hold(false);
            return fail(e.code(), e.what());
        } catch (const std::exception& e) {
            layer_->hold(false);
            return finish(e.what(), false);
        }
        layer_->hold(false);
        if (closed_) return;
        layer_->flush();
        watch_partial();
        read();
    }

    void handle(const frames::Message& m) {
        switch (m.opcode) {
            case frames::Opcode::binary:
                // Once our close frame is out, the peer's last messages are not ours to act on.
                if (!closing_ && handlers_.message) handlers_.message(m.data, m.size);
                return;
            case frames::Opcode::ping:
                if (!closing_) frame(frames::Opcode::pong, m.data, m.size);
                return;
            case frames::Opcode::pong:
                if (handlers_.pong) handlers_.pong();
                return;
            case frames::Opcode::close:
                if (closing_) return finish(close_cause_, true);
                // The peer's close is echoed, then the link ends once the echo is out.
                close_frame(frames::close_code_of(m.data, m.size) == frames::CLOSE_NO_STATUS
                                ? frames::CLOSE_NORMAL
                                : frames::close_code_of(m.data, m.size));
                return finish(cause_of(asio::error::eof), true);
            default:
                return fail(frames::CLOSE_UNSUPPORTED,
                            "websocket: text message where binary was expected");
        }
    }

    // The peer broke the framing: it hears why in a close frame, then the link ends.
    void fail(uint16_t code, const std::string& cause) {
        if (closed_) return;
        if (!closing_) layer_->collect([&] { close_frame(code); });
        finish(cause, true);
    }

    // An unfinished message must make progress within `frame_idle_`.
    void watch_partial() {
        if (frame_idle_.count() == 0 || closed_) return;
        // Paused, the bytes wait for us, not for the peer.
        if (reader_.pending() == 0 || paused_) {
            if (idle_timer_) idle_timer_->cancel();
            return;
        }
        if (!idle_timer_)
            idle_timer_ = std::make_unique<asio::steady_timer>(layer_->get_executor());
        idle_timer_->expires_after(frame_idle_);
        idle_timer_->async_wait([weak = this->weak_from_this(), idle = frame_idle_](error_code ec) {
            auto self = weak.lock();
            if (ec || !self) return;
            self->fail(frames::CLOSE_PROTOCOL_ERROR,
                       "unfinished frame idle for " + std::to_string(idle.count()) + " ms");
        });
    }

    // `graceful`: the bytes collected so far (a close frame among them) leave before the
    // socket closes.
    void finish(const std::string& cause, bool graceful) {
        if (closed_) return;
        closed_ = true;
        if (close_timer_) close_timer_->cancel();
        if (idle_timer_) idle_timer_->cancel();
        if (graceful && !layer_->failed()) {
            // The timer keeps this link alive until the bytes are out, and a peer that reads
            // nothing more cannot hold the socket open for long. The layer holds its waiter
            // weakly: it is part of this link.
            linger_ = std::make_unique<asio::steady_timer>(layer_->get_executor(),
                                                           std::chrono::seconds(2));
            linger_->async_wait([self = this->shared_from_this()](error_code ec) {
                if (!ec) close_socket(beast::get_lowest_layer(*self->layer_), false);
            });
            layer_->when_drained([weak = this->weak_from_this()](error_code) {
                auto self = weak.lock();
                if (!self) return;
                self->linger_->cancel();
                close_socket(beast::get_lowest_layer(*self->layer_), true);
            });
        } else {
            close_socket(beast::get_lowest_layer(*layer_), false);
        }
        report_closed(cause);
    }

    std::unique_ptr<Layer> layer_;
    bool client_;
    frames::Reader reader_;
    uint32_t max_in_;  // the limit the link was opened with
    uint64_t rng_ = 0;
    std::chrono::milliseconds frame_idle_{0};
    std::unique_ptr<asio::steady_timer> idle_timer_;
    std::unique_ptr<asio::steady_timer> close_timer_;
    std::unique_ptr<asio::steady_timer> linger_;
};

// The upgraded Beast stream is left behind; its layer below goes on carrying our frames. What
// Beast read past the handshake's HTTP answer stays with it; a server sends nothing before
// our HELLO, so nothing does. On the accepting side Beast read nothing: the request was read
// into `early` and the Coalescing layer's read-ahead, both handed on.
template <class S>
std::shared_ptr<Channel> upgraded(std::unique_ptr<websocket::stream<Coalescing<S>>> ws, Side side,
                                  uint32_t max_in, const std::vector<uint8_t>& early) {
    auto layer = std::make_unique<Coalescing<S>>(std::move(ws->next_layer()));
    ws.reset();
    return std::make_shared<WebSocketChannel<Coalescing<S>>>(std::move(layer), side, max_in,
                                                             early);
}

}  // namespace

std::shared_ptr<Channel> rawsocket_channel(std::unique_ptr<tcp::socket> stream, uint32_t max_in,
                                           uint32_t max_out) {
    return std::make_shared<RawSocketChannel<tcp::socket>>(std::move(stream), max_in, max_out);
}
std::shared_ptr<Channel> websocket_channel(std::unique_ptr<WsPlain> stream, Side side,
                                           uint32_t max_in, const std::vector<uint8_t>& early) {
    return upgraded(std::move(stream), side, max_in, early);
}
#if QOR_HAVE_TLS
std::shared_ptr<Channel> rawsocket_channel(std::unique_ptr<TlsStream> stream, uint32_t max_in,
                                           uint32_t max_out) {
    return std::make_shared<RawSocketChannel<TlsStream>>(std::move(stream), max_in, max_out);
}
std::shared_ptr<Channel> websocket_channel(std::unique_ptr<WsTls> stream, Side side,
                                           uint32_t max_in, const std::vector<uint8_t>& early) {
    return upgraded(std::move(stream), side, max_in, early);
}
#endif

}  // namespace qor::transport::detail
