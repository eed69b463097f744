// Design note: one network thread runs an Asio io_context and owns every connection, the
// set of watchers and their held-back messages (Watcher.cpp); nothing else touches them.
// The encoder thread produces a Broadcast per frame list and posts it here; each watcher
// keeps, per slot, only the newest message not yet written, and writes one message at a
// time, so a slow watcher holds at most one message per slot and never delays the others.
// Page messages (clicks, cloud and Measure on/off, ROIs, decode reports) are read and
// answered on this thread; the depth-quality figures come from the live measurement's worker
// thread, posted like the broadcasts. Shutdown: stop() posts a task that marks the state
// stopping, tells the measure hook that nobody measures, and closes the listening socket and
// every connection; each handler then ends without starting new work, run() returns once none
// is left, and the shell thread joins the network thread.
#include "Server.h"

#include <optional>

#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include "Routes.h"
#include "ServerState.h"
#include "Watcher.h"
#include "pipeline/Percentile.h"

namespace lumora::web {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using Clock = std::chrono::steady_clock;
using pipeline::percentile;

namespace {

constexpr std::size_t kHeaderLimit = 4096;
// Connections still in their request: beyond this many, a new one is closed at once.
constexpr int kMaxConnections = 128;
constexpr auto kRequestTimeout = std::chrono::seconds(10);
// Lists kept for read-outs and decode reports of pictures the pages still show.
constexpr std::size_t kRecent = 16;

}  // namespace

using State = Server::State;

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

namespace {

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
            watcher->offer(
                slot, bytes, slot != kStatusSlot,
                picture ? std::optional<Watcher::Stamp>({message->sequence, message->delivered}) : std::nullopt);
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
    auto state = std::make_unique<State>(mPage, token, mCounters, mMeasureHook);
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
        if (state.measuring > 0) {
            state.measuring = 0;
            state.measureChanged();
        }
    });
    if (mThread.joinable()) mThread.join();
    ServerStats stats = state.stats;
    stats.handOffP50 = percentile(state.handOff, 0.5);
    stats.handOffP99 = percentile(state.handOff, 0.99);
    stats.decodedP50 = percentile(state.decoded, 0.5);
    stats.decodedP99 = percentile(state.decoded, 0.99);
    stats.inPageP50 = percentile(state.inPage, 0.5);
    stats.inPageP99 = percentile(state.inPage, 0.99);
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

void Server::sendFigures(std::string json) {
    if (!mState) return;
    State& state = *mState;
    auto bytes = std::make_shared<const std::string>(std::move(json));
    asio::post(*state.io, [&state, bytes = std::move(bytes)] {
        if (state.stopping) return;
        for (const auto& watcher : state.joined)
            if (watcher->measuring()) watcher->offer(kFiguresSlot, bytes, false, std::nullopt);
    });
}

}  // namespace lumora::web
