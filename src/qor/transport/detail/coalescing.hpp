#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>

namespace qor::transport::detail {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using error_code = boost::system::error_code;

// The layer under a WebSocket link. During the upgrade Beast writes through it; afterwards the
// channel frames straight into its memory (`collecting`). Either way writes only append to
// memory and the owner flushes after each pass: with the socket idle that writes at once, and
// while a write is in flight everything collected meanwhile leaves together in the next one, so
// a burst of messages costs one syscall, not one each. Bytes written outside a hold get a
// posted flush, so they go out even when nobody calls it. Reads smaller than READ_AHEAD take
// whatever has arrived into a buffer here and hand it on in the pieces asked for (the HTTP
// parser asks for little); what is left after the upgrade goes to the channel's first reads.
// Larger reads go straight to the caller's buffers, and every read that has to wait for the
// peer flushes first, so answers never wait with it. The socket lives in shared state so that
// a write still in flight keeps it, and the bytes it sends, alive after the channel is gone.
template <class Next>
class Coalescing {
    static constexpr size_t READ_AHEAD = 64 * 1024;

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

        // Hands the caller what is left of the last socket read; how much it took.
        template <class Buffers>
        size_t take_ahead(const Buffers& buffers) {
            const size_t n = asio::buffer_copy(
                buffers, asio::buffer(ahead.data() + ahead_used, ahead_size - ahead_used));
            ahead_used += n;
            return n;
        }

        Next next;
        std::vector<uint8_t> ahead;  // bytes read from the socket that the caller has not taken
        size_t ahead_size = 0;
        size_t ahead_used = 0;
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
    /// The bytes collecting for the next write, for an owner that frames straight into them;
    /// only inside `collect` or while held, so that a flush follows.
    std::vector<uint8_t>& collecting() { return core_->out; }
    /// True once a socket write failed.
    bool failed() const { return bool(core_->failed); }
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
        ec = {};
        if (core_->ahead_used < core_->ahead_size) return core_->take_ahead(buffers);
        return core_->next.read_some(buffers, ec);
    }
    template <class Buffers>
    size_t read_some(const Buffers& buffers) {
        if (core_->ahead_used < core_->ahead_size) return core_->take_ahead(buffers);
        return core_->next.read_some(buffers);
    }

    template <class Buffers, class Handler>
    auto async_read_some(const Buffers& buffers, Handler&& handler) {
        return asio::async_initiate<Handler, void(error_code, size_t)>(
            [](auto h, std::shared_ptr<Core> core, const Buffers& buffers) {
                if (core->ahead_used < core->ahead_size) {
                    const size_t n = core->take_ahead(buffers);
                    auto ex = core->next.get_executor();
                    asio::post(ex, beast::bind_front_handler(std::move(h), error_code{}, n));
                    return;
                }
                // About to wait for the peer: what was answered so far must not wait with us.
                core->flush();
                if (asio::buffer_size(buffers) >= READ_AHEAD) {
                    core->next.async_read_some(buffers, std::move(h));
                    return;
                }
                core->ahead.resize(READ_AHEAD);
                core->next.async_read_some(
                    asio::buffer(core->ahead),
                    [core, buffers, h = std::move(h)](error_code ec, size_t n) mutable {
                        core->ahead_size = ec ? 0 : n;
                        core->ahead_used = 0;
                        const size_t taken = ec ? 0 : core->take_ahead(buffers);
                        std::move(h)(ec, taken);
                    });
            },
            handler, core_, buffers);
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

}  // namespace qor::transport::detail
