// What the server's network thread owns while it serves, from start() to stop(): the
// io_context, the listening socket, the open connections and watchers, the recent lists and
// the figures of the serving. The server (Server.cpp) and its watchers (Watcher.cpp) share
// it; only the network thread touches it, except `counters`, which any thread reads.
#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "Server.h"

namespace lumora::web {

class Connection;
class Watcher;

struct Server::State {
    State(const std::string& pageText, const std::string& tokenText, Counters& sharedCounters, MeasureHook hook)
        : page(pageText), token(tokenText), counters(sharedCounters), measure(std::move(hook)) {}
    // The acceptor and the connections go before the io_context they were made on.
    ~State() {
        acceptor.reset();
        io.reset();
    }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    std::unique_ptr<boost::asio::io_context> io = std::make_unique<boost::asio::io_context>(1);
    std::optional<boost::asio::ip::tcp::acceptor> acceptor;
    const std::string page;
    const std::string token;
    Counters& counters;
    const MeasureHook measure;
    // The network thread's own from here on.
    bool stopping = false;
    std::set<Connection*> connections;
    std::set<Watcher*> sockets;
    std::set<std::shared_ptr<Watcher>> joined;
    std::deque<std::shared_ptr<const Broadcast>> recent;
    ServerStats stats;
    std::vector<double> handOff;
    std::vector<double> decoded;
    std::vector<double> inPage;
    // Watchers with Measure on, and the ROI they measure over.
    int measuring = 0;
    quality::RoiRequest roi;

    // Tells the hook what is measured now.
    void measureChanged() const {
        if (measure) measure(measuring > 0 ? std::optional<quality::RoiRequest>(roi) : std::nullopt);
    }
};

}  // namespace lumora::web
