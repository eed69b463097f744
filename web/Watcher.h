// A watcher of the web view: the WebSocket of one browser, from its handshake to its end,
// the messages held back for it (the newest not yet written per slot) and its answers to
// the page's messages. Network thread only.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include "PageMessage.h"
#include "ServerState.h"

namespace lumora::web {

class Watcher : public std::enable_shared_from_this<Watcher> {
public:
    // `socket` is that of a connection whose request asked for the upgrade; `png`: whether
    // the page asked for lossless pictures. The watcher is in `state.sockets` from here to
    // its destruction, so that a stop can close it.
    Watcher(Server::State& state, boost::asio::ip::tcp::socket socket, bool png);
    ~Watcher();
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;

    // Answers the handshake of `request`. A watcher beyond the server's limit is closed with
    // a reason; the others join `state.joined`, are counted and read the page's messages.
    void start(const boost::beast::http::request<boost::beast::http::empty_body>& request);
    // Closes the socket; the handlers under way then end.
    void close();
    // For a picture: its message's sequence, and when the library delivered its list.
    struct Stamp {
        std::uint32_t sequence = 0;
        std::chrono::steady_clock::time_point delivered;
    };

    // Holds `bytes` as the newest message of `slot`, replacing (and counting as dropped) one
    // not yet written, and writes when the socket is free. `picture`: set for a picture.
    void offer(int slot, std::shared_ptr<const std::string> bytes, bool binary, std::optional<Stamp> picture);

    bool png() const { return mPng; }
    bool cloud() const { return mCloud; }
    bool measuring() const { return mMeasure; }

private:
    struct Pending {
        std::shared_ptr<const std::string> bytes;
        bool binary = true;
        std::optional<Stamp> picture;
    };

    void onAccept(boost::beast::error_code error);
    void read();
    void onRead(boost::beast::error_code error);
    void handle(const PageMessage& message);
    // Leaves `state.joined` and the counters; nothing for one that never joined.
    void leave();
    void writeNext();
    void onWritten(boost::beast::error_code error, std::size_t written);

    Server::State& mState;
    boost::beast::websocket::stream<boost::beast::tcp_stream> mSocket;
    const bool mPng;
    bool mCloud = false;
    bool mMeasure = false;
    bool mWriting = false;
    int mNextSlot = 0;
    std::array<Pending, kSlotCount> mPending;
    // The picture being written, and when the last few messages' first pictures were written
    // out, for the time the page then takes to decode them. Sequences start at 1, so the
    // entries not yet written (0) match none.
    std::optional<Stamp> mWritingPicture;
    std::array<std::pair<std::uint32_t, std::chrono::steady_clock::time_point>, 8> mWritten{};
    std::size_t mNextWritten = 0;
    boost::beast::flat_buffer mInput;
};

}  // namespace lumora::web
