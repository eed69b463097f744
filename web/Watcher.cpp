#include "Watcher.h"

#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

#include "imaging/Readout.h"

namespace lumora::web {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using Clock = std::chrono::steady_clock;
using imaging::Readout;

namespace {

constexpr std::size_t kMaxSamples = 1U << 20U;

double millisecondsSince(Clock::time_point when) {
    return std::chrono::duration<double, std::milli>(Clock::now() - when).count();
}

void sample(std::vector<double>& samples, double value) {
    if (samples.size() < kMaxSamples) samples.push_back(value);
}

std::shared_ptr<const Broadcast> findRecent(const Server::State& state, std::uint32_t sequence) {
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

}  // namespace

Watcher::Watcher(Server::State& state, tcp::socket socket, bool png)
    : mState(state), mSocket(std::move(socket)), mPng(png) {
    mState.sockets.insert(this);
}

Watcher::~Watcher() { mState.sockets.erase(this); }

void Watcher::start(const http::request<http::empty_body>& request) {
    beast::get_lowest_layer(mSocket).expires_never();
    mSocket.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
    mSocket.read_message_max(kMaxPageMessage);
    // A picture goes out as one frame at once: Nagle's wait for the page's delayed
    // acknowledgement held the tail of each message back by tens of milliseconds.
    mSocket.auto_fragment(false);
    beast::error_code ignored;
    beast::get_lowest_layer(mSocket).socket().set_option(tcp::no_delay(true), ignored);
    mSocket.async_accept(request, [self = shared_from_this()](beast::error_code error) { self->onAccept(error); });
}

void Watcher::close() {
    beast::error_code ignored;
    beast::get_lowest_layer(mSocket).socket().close(ignored);
}

void Watcher::offer(int slot, std::shared_ptr<const std::string> bytes, bool binary, std::optional<Stamp> picture) {
    Pending& pending = mPending[static_cast<std::size_t>(slot)];
    if (pending.bytes) ++mState.stats.messagesDropped;
    pending = {std::move(bytes), binary, picture};
    if (!mWriting) writeNext();
}

void Watcher::onAccept(beast::error_code error) {
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

void Watcher::read() {
    mSocket.async_read(mInput,
                       [self = shared_from_this()](beast::error_code error, std::size_t) { self->onRead(error); });
}

void Watcher::onRead(beast::error_code error) {
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

void Watcher::handle(const PageMessage& message) {
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
            for (const auto& [sequence, written] : mWritten)
                if (sequence == message.sequence) sample(mState.inPage, millisecondsSince(written));
            break;
        case PageMessage::Kind::Measure:
            if (message.on == mMeasure) break;
            mMeasure = message.on;
            mState.measuring += message.on ? 1 : -1;
            // The first to turn it on and the last to turn it off change what is measured.
            if (mState.measuring == (message.on ? 1 : 0)) mState.measureChanged();
            break;
        case PageMessage::Kind::Roi:
            mState.roi = quality::RoiRequest{0, quality::Roi{message.x, message.y, message.width, message.height}};
            if (mState.measuring > 0) mState.measureChanged();
            break;
    }
}

void Watcher::leave() {
    const auto it = mState.joined.find(shared_from_this());
    if (it == mState.joined.end()) return;
    mState.joined.erase(it);
    mState.counters.watchers.fetch_sub(1);
    if (mPng) mState.counters.png.fetch_sub(1);
    if (mCloud) mState.counters.cloud.fetch_sub(1);
    mCloud = false;
    if (mMeasure && --mState.measuring == 0) mState.measureChanged();
    mMeasure = false;
}

// Round robin over the slots, so that no slot waits behind the others.
void Watcher::writeNext() {
    if (mState.stopping) return;
    for (int i = 0; i < kSlotCount; ++i) {
        const int slot = (mNextSlot + i) % kSlotCount;
        Pending& pending = mPending[static_cast<std::size_t>(slot)];
        if (!pending.bytes) continue;
        mNextSlot = (slot + 1) % kSlotCount;
        Pending taken = std::move(pending);
        pending = {};
        if (taken.picture) sample(mState.handOff, millisecondsSince(taken.picture->delivered));
        mWritingPicture = taken.picture;
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

void Watcher::onWritten(beast::error_code error, std::size_t written) {
    mWriting = false;
    if (error) {
        leave();
        return;
    }
    ++mState.stats.messagesSent;
    mState.stats.bytesSent += written;
    if (mWritingPicture) {
        const std::uint32_t sequence = mWritingPicture->sequence;
        const auto seen = [&](const auto& entry) { return entry.first == sequence; };
        if (std::none_of(mWritten.begin(), mWritten.end(), seen)) {
            mWritten[mNextWritten] = {sequence, Clock::now()};
            mNextWritten = (mNextWritten + 1) % mWritten.size();
        }
    }
    writeNext();
}

}  // namespace lumora::web
