// Design note: one network thread runs an Asio io_context and owns every connection, the
// set of watchers and their held-back messages; nothing else touches them. The encoder
// thread produces a Broadcast per frame list and posts it here; each watcher keeps, per
// slot, only the newest message not yet written, and writes one message at a time, so a
// slow watcher holds at most one message per slot and never delays the others. Page
// messages (clicks, cloud on/off, decode reports) are read and answered on this thread.
// Shutdown: stop() posts a task that marks the state stopping and closes the listening
// socket and every connection; each handler then ends without starting new work, run()
// returns once none is left, and the shell thread joins the network thread.
#include "Server.h"

#include <algorithm>
#include <cstdio>
#include <deque>
#include <optional>
#include <set>
#include <vector>

#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include "PageMessage.h"
#include "Routes.h"
#include "imaging/Readout.h"
#include "pipeline/Percentile.h"

namespace lumora::web {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using Clock = std::chrono::steady_clock;
using imaging::Readout;
using pipeline::percentile;

namespace {

constexpr std::size_t kHeaderLimit = 4096;
// Connections still in their request: beyond this many, a new one is closed at once.
constexpr int kMaxConnections = 128;
constexpr auto kRequestTimeout = std::chrono::seconds(10);
// Lists kept for read-outs and decode reports of pictures the pages still show.
constexpr std::size_t kRecent = 16;
constexpr std::size_t kMaxSamples = 1U << 20U;

class Connection;
class Watcher;

}  // namespace

struct Server::State {
    State(const std::string& pageText, const std::string& tokenText, Counters& sharedCounters)
        : page(pageText), token(tokenText), counters(sharedCounters) {}
    // The acceptor and the connections go before the io_context they were made on.
    ~State() {
        acceptor.reset();
        io.reset();
    }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    std::unique_ptr<asio::io_context> io = std::make_unique<asio::io_context>(1);
    std::optional<tcp::acceptor> acceptor;
    const std::string page;
    const std::string token;
    Counters& counters;
    // The network thread's own from here on.
    bool stopping = false;
    std::set<Connection*> connections;
    std::set<Watcher*> sockets;
    std::set<std::shared_ptr<Watcher>> joined;
    std::deque<std::shared_ptr<const Broadcast>> recent;
    ServerStats stats;
    std::vector<double> handOff;
    std::vector<double> decoded;
};

namespace {

using State = Server::State;

double millisecondsSince(Clock::time_point when) {
    return std::chrono::duration<double, std::milli>(Clock::now() - when).count();
}

void sample(std::vector<double>& samples, double value) {
    if (samples.size() < kMaxSamples) samples.push_back(value);
}

std::shared_ptr<const Broadcast> findRecent(const State& state, std::uint32_t sequence) {
    for (auto it = state.recent.rbegin(); it != state.recent.rend(); ++it)
        if ((*it)->sequence == sequence) return *it;
    return nullptr;
}

std::string readoutJson(int view, const std::optional<Readout>& readout) {
    char text[256];
    if (!readout) {
        std::snprintf(text, sizeof text, R"({"type":"readout","view":%d,"none":true})", view);
    } else {
        std::snprintf(
            text, sizeof text,
            R"({"type":"readout","view":%d,"x":%d,"y":%d,"letter":"%c","value":%d,"timestamp":%llu,"text":"%s"})", view,
            readout->column, readout->row, readout->letter, readout->value,
            static_cast<unsigned long long>(readout->timestamp), readout->text.c_str());
    }
    return text;
}

// A watcher: one WebSocket, from its handshake to its end.
class Watcher : public std::enable_shared_from_this<Watcher> {
public:
    Watcher(State& state, tcp::socket socket, bool png) : mState(state), mSocket(std::move(socket)), mPng(png) {
        mState.sockets.insert(this);
    }
    ~Watcher() { mState.sockets.erase(this); }
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;

    void start(const http::request<http::empty_body>& request) {
        beast::get_lowest_layer(mSocket).expires_never();
        mSocket.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
        mSocket.read_message_max(kMaxPageMessage);
        mSocket.async_accept(request, [self = shared_from_this()](beast::error_code error) { self->onAccept(error); });
    }

    void close() {
        beast::error_code ignored;
        beast::get_lowest_layer(mSocket).socket().close(ignored);
    }

    void offer(int slot, std::shared_ptr<const std::string> bytes, bool binary,
               std::optional<Clock::time_point> delivered) {
        Pending& pending = mPending[static_cast<std::size_t>(slot)];
        if (pending.bytes) ++mState.stats.messagesDropped;
        pending = {std::move(bytes), binary, delivered};
        if (!mWriting) writeNext();
    }

    bool png() const { return mPng; }
    bool cloud() const { return mCloud; }

private:
    struct Pending {
        std::shared_ptr<const std::string> bytes;
        bool binary = true;
        std::optional<Clock::time_point> delivered;
    };

    void onAccept(beast::error_code error) {
        if (error || mState.stopping) return;
        if (mState.joined.size() >= static_cast<std::size_t>(Server::kMaxWatchers)) {
            ++mState.stats.watchersRefused;
            mSocket.async_close(
                websocket::close_reason(websocket::close_code::policy_error, "at most 8 watchers: this one is closed"),
                [self = shared_from_this()](beast::error_code) {});
            return;
        }
        mState.joined.insert(shared_from_this());
        mState.counters.watchers.fetch_add(1);
        if (mPng) mState.counters.png.fetch_add(1);
        read();
    }

    void read() {
        mSocket.async_read(mInput,
                           [self = shared_from_this()](beast::error_code error, std::size_t) { self->onRead(error); });
    }

    void onRead(beast::error_code error) {
        if (error || mState.stopping) {
            leave();
            return;
        }
        const std::string text = beast::buffers_to_string(mInput.data());
        mInput.consume(mInput.size());
        const auto message = mSocket.got_text() ? parsePageMessage(text) : std::nullopt;
        if (!message) {
            // Not the page's: refused, and the connection closed.
            leave();
            close();
            return;
        }
        handle(*message);
        read();
    }

    void handle(const PageMessage& message) {
        switch (message.kind) {
            case PageMessage::Kind::Click: {
                auto found = findRecent(mState, message.sequence);
                if (!found && !mState.recent.empty()) found = mState.recent.back();
                std::optional<Readout> readout;
                if (found) {
                    const auto& size = found->sizes[static_cast<std::size_t>(message.view)];
                    readout = imaging::readValue(found->list, message.view, message.x, message.y, size[0], size[1]);
                }
                offer(kReadoutSlot, std::make_shared<const std::string>(readoutJson(message.view, readout)), false,
                      std::nullopt);
                break;
            }
            case PageMessage::Kind::Cloud:
                if (message.on != mCloud) mState.counters.cloud.fetch_add(message.on ? 1 : -1);
                mCloud = message.on;
                break;
            case PageMessage::Kind::Decoded:
                if (const auto found = findRecent(mState, message.sequence))
                    sample(mState.decoded, millisecondsSince(found->delivered));
                break;
        }
    }

    void leave() {
        const auto it = mState.joined.find(shared_from_this());
        if (it == mState.joined.end()) return;
        mState.joined.erase(it);
        mState.counters.watchers.fetch_sub(1);
        if (mPng) mState.counters.png.fetch_sub(1);
        if (mCloud) mState.counters.cloud.fetch_sub(1);
        mCloud = false;
    }

    // Round robin over the slots, so that no slot waits behind the others.
    void writeNext() {
        if (mState.stopping) return;
        for (int i = 0; i < kSlotCount; ++i) {
            const int slot = (mNextSlot + i) % kSlotCount;
            Pending& pending = mPending[static_cast<std::size_t>(slot)];
            if (!pending.bytes) continue;
            mNextSlot = (slot + 1) % kSlotCount;
            Pending taken = std::move(pending);
            pending = {};
            if (taken.delivered) sample(mState.handOff, millisecondsSince(*taken.delivered));
            mWriting = true;
            mSocket.binary(taken.binary);
            const auto bytes = taken.bytes;
            mSocket.async_write(asio::buffer(*bytes),
                                [self = shared_from_this(), bytes](beast::error_code error, std::size_t written) {
                                    self->onWritten(error, written);
                                });
            return;
        }
    }

    void onWritten(beast::error_code error, std::size_t written) {
        mWriting = false;
        if (error) {
            leave();
            return;
        }
        ++mState.stats.messagesSent;
        mState.stats.bytesSent += written;
        writeNext();
    }

    State& mState;
    websocket::stream<beast::tcp_stream> mSocket;
    const bool mPng;
    bool mCloud = false;
    bool mWriting = false;
    int mNextSlot = 0;
    std::array<Pending, kSlotCount> mPending;
    beast::flat_buffer mInput;
};

// An HTTP connection: one request, one answer or a WebSocket handshake, then closed.
class Connection : public std::enable_shared_from_this<Connection> {
public:
    Connection(State& state, tcp::socket socket) : mState(state), mStream(std::move(socket)) {
        mState.connections.insert(this);
    }
    ~Connection() { mState.connections.erase(this); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void start() {
        mParser.emplace();
        mParser->header_limit(kHeaderLimit);
        mParser->body_limit(0);
        mStream.expires_after(kRequestTimeout);
        http::async_read(mStream, mBuffer, *mParser,
                         [self = shared_from_this()](beast::error_code error, std::size_t) { self->onRead(error); });
    }

    void close() {
        beast::error_code ignored;
        mStream.socket().close(ignored);
    }

private:
    void onRead(beast::error_code error) {
        if (mState.stopping) return;
        if (error == http::error::header_limit) return reply(http::status::request_header_fields_too_large);
        if (error == http::error::body_limit) return reply(http::status::payload_too_large);
        // Malformed, timed out or gone: closed without an answer.
        if (error) return close();
        const auto& request = mParser->get();
        const std::string_view target(request.target().data(), request.target().size());
        const Decision decision = decide(target, mState.token);
        if (decision.status != 200) return reply(static_cast<http::status>(decision.status));
        if (request.method() != http::verb::get) return reply(http::status::method_not_allowed);
        if (decision.route == Route::Page) return reply(http::status::ok);
        if (!websocket::is_upgrade(request)) return reply(http::status::bad_request);
        const auto parsed = parseTarget(target);
        auto watcher = std::make_shared<Watcher>(mState, mStream.release_socket(), parsed && parsed->png);
        watcher->start(mParser->release());
    }

    void reply(http::status status) {
        mResponse.result(status);
        mResponse.version(11);
        mResponse.keep_alive(false);
        mResponse.set(http::field::cache_control, "no-store");
        mResponse.set("X-Content-Type-Options", "nosniff");
        if (status == http::status::ok) {
            mResponse.set(http::field::content_type, "text/html; charset=utf-8");
            mResponse.set("Content-Security-Policy",
                          "default-src 'none'; script-src 'unsafe-inline'; style-src 'unsafe-inline'; "
                          "img-src blob: data:; connect-src 'self'");
            mResponse.body() = mState.page;
        } else {
            mResponse.set(http::field::content_type, "text/plain");
            mResponse.body() = std::string(http::obsolete_reason(status)) + "\n";
        }
        mResponse.prepare_payload();
        http::async_write(mStream, mResponse, [self = shared_from_this()](beast::error_code, std::size_t) {
            beast::error_code ignored;
            self->mStream.socket().shutdown(tcp::socket::shutdown_send, ignored);
        });
    }

    State& mState;
    beast::tcp_stream mStream;
    beast::flat_buffer mBuffer;
    std::optional<http::request_parser<http::empty_body>> mParser;
    http::response<http::string_body> mResponse;
};

void accept(State& state) {
    state.acceptor->async_accept([&state](beast::error_code error, tcp::socket socket) {
        if (state.stopping) return;
        if (!error) {
            if (state.connections.size() >= static_cast<std::size_t>(kMaxConnections)) {
                beast::error_code ignored;
                socket.close(ignored);
            } else {
                std::make_shared<Connection>(state, std::move(socket))->start();
            }
        }
        accept(state);
    });
}

void deliver(State& state, const std::shared_ptr<const Broadcast>& message) {
    if (state.stopping) return;
    state.recent.push_back(message);
    if (state.recent.size() > kRecent) state.recent.pop_front();
    for (const auto& watcher : state.joined) {
        for (int slot = 0; slot < kReadoutSlot; ++slot) {
            const auto index = static_cast<std::size_t>(slot);
            const bool cloud = slot == kCloudSlot || slot == kIntensityCloudSlot;
            if (cloud && !watcher->cloud()) continue;
            const auto& bytes = watcher->png() && message->png[index] ? message->png[index] : message->jpeg[index];
            if (!bytes) continue;
            const bool picture = slot != kStatusSlot && !cloud;
            watcher->offer(slot, bytes, slot != kStatusSlot,
                           picture ? std::optional<Clock::time_point>(message->delivered) : std::nullopt);
        }
    }
}

}  // namespace

Server::Server(std::string page) : mPage(std::move(page)) {}

Server::~Server() { stop(); }

std::string Server::start(const std::string& address, unsigned short port, const std::string& token) {
    stop();
    beast::error_code error;
    const auto ip = asio::ip::make_address(address, error);
    if (error) return "\"" + address + "\" is not an address";
    auto state = std::make_unique<State>(mPage, token, mCounters);
    const tcp::endpoint endpoint(ip, port);
    const std::string where = address + ":" + std::to_string(port);
    state->acceptor.emplace(*state->io);
    state->acceptor->open(endpoint.protocol(), error);
    if (!error) state->acceptor->set_option(asio::socket_base::reuse_address(true), error);
    if (!error) state->acceptor->bind(endpoint, error);
    if (!error) state->acceptor->listen(asio::socket_base::max_listen_connections, error);
    if (error) return "cannot listen on " + where + ": " + error.message();
    accept(*state);
    mState = std::move(state);
    mThread = std::thread([state = mState.get()] { state->io->run(); });
    return {};
}

ServerStats Server::stop() {
    if (!mState) return {};
    State& state = *mState;
    asio::post(*state.io, [&state] {
        state.stopping = true;
        beast::error_code ignored;
        state.acceptor->close(ignored);
        for (Connection* connection : state.connections)
            connection->close();
        for (Watcher* watcher : state.sockets)
            watcher->close();
        state.joined.clear();
        state.counters.watchers.store(0);
        state.counters.png.store(0);
        state.counters.cloud.store(0);
        state.recent.clear();
    });
    if (mThread.joinable()) mThread.join();
    ServerStats stats = state.stats;
    stats.handOffP50 = percentile(state.handOff, 0.5);
    stats.handOffP99 = percentile(state.handOff, 0.99);
    stats.decodedP50 = percentile(state.decoded, 0.5);
    stats.decodedP99 = percentile(state.decoded, 0.99);
    mState.reset();
    return stats;
}

void Server::broadcast(std::shared_ptr<const Broadcast> message) {
    // The state lives from start() to stop(), both on the shell thread, which also stops the
    // encoder thread that calls this before stop().
    if (!mState) return;
    State& state = *mState;
    asio::post(*state.io, [&state, message = std::move(message)] { deliver(state, message); });
}

}  // namespace lumora::web
