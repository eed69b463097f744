// The HTTP and WebSocket server of the web view (Boost.Beast on Asio): the page, the
// watchers' sockets and what they are sent. All network work runs on one thread of its own.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include <halden/sensor/LumoraFrame.h>

#include "quality/Roi.h"

namespace lumora::web {

// What each watcher may hold back, newest only: one picture per view (1..5), one point
// cloud per cloud view, the status, the last read-out and the last depth-quality figures.
enum Slot : int {
    kStatusSlot = 0,
    kCloudSlot = 6,
    kIntensityCloudSlot = 7,
    kReadoutSlot = 8,
    kFiguresSlot = 9,
    kSlotCount = 10
};

// The messages of one frame list, each encoded once for every watcher. Picture slots hold
// JPEG in `jpeg` and, when a watcher asked for lossless pictures, PNG in `png`; the status
// and the clouds are in `jpeg` only.
struct Broadcast {
    std::uint32_t sequence = 0;
    std::chrono::steady_clock::time_point delivered;
    std::shared_ptr<halden::sensor::LumoraFrameList> list;
    // Width and height of each view's picture, for read-outs.
    std::array<std::array<int, 2>, 6> sizes{};
    std::array<std::shared_ptr<const std::string>, kSlotCount> jpeg;
    std::array<std::shared_ptr<const std::string>, kSlotCount> png;
};

// Figures of one serving, from start to stop.
struct ServerStats {
    std::uint64_t messagesSent = 0;
    std::uint64_t messagesDropped = 0;
    std::uint64_t bytesSent = 0;
    std::uint64_t watchersRefused = 0;
    // Milliseconds from the library's delivery of a list to its pictures being handed to a
    // socket, and to the page reporting them decoded.
    double handOffP50 = 0.0;
    double handOffP99 = 0.0;
    double decodedP50 = 0.0;
    double decodedP99 = 0.0;
    // Milliseconds from a list's first picture written out to the page reporting it decoded:
    // the part of the above spent in the network's buffers and the browser.
    double inPageP50 = 0.0;
    double inPageP99 = 0.0;
};

class Server {
public:
    static constexpr int kMaxWatchers = 8;
    // Told, on the network thread, the ROI to measure while one watcher or more has Measure on
    // (the centred 40% until a page gives another; one for all of them, the last given), and
    // std::nullopt once none has.
    using MeasureHook = std::function<void(const std::optional<quality::RoiRequest>&)>;

    // `page` is the HTML sent for the page's route.
    explicit Server(std::string page);
    // Stops.
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Shell thread. Listens on address:port and starts the network thread; every request
    // must then carry `token`. Empty on success, else one line saying why (the address is
    // not one, the port is in use, ...). A server already started is stopped first.
    std::string start(const std::string& address, unsigned short port, const std::string& token);
    // Shell thread. Closes the listening socket and every connection and joins the network
    // thread: no port stays bound. Returns the figures of the serving.
    ServerStats stop();

    // Any thread. Hands a list's messages to the network thread, which sends each watcher
    // the newest it holds for each slot as its socket takes them.
    void broadcast(std::shared_ptr<const Broadcast> message);
    // Shell thread, before start(): the hook of the servings from then on.
    void setMeasureHook(MeasureHook hook) { mMeasureHook = std::move(hook); }
    // Any thread, from start() to stop() (the caller sees to it): a text message for the
    // watchers with Measure on, held back as the newest of its slot.
    void sendFigures(std::string json);

    // Any thread, lock-free.
    int watchers() const { return mCounters.watchers.load(std::memory_order_relaxed); }
    bool pngWanted() const { return mCounters.png.load(std::memory_order_relaxed) > 0; }
    bool cloudWanted() const { return mCounters.cloud.load(std::memory_order_relaxed) > 0; }

    // Watchers in all, those that asked for lossless pictures and those with the 3-D view
    // open: written by the network thread, read by any.
    struct Counters {
        std::atomic<int> watchers{0};
        std::atomic<int> png{0};
        std::atomic<int> cloud{0};
    };
    struct State;  // what the network thread owns while serving (ServerState.h)

private:
    Counters mCounters;
    MeasureHook mMeasureHook;
    std::string mPage;
    std::unique_ptr<State> mState;
    std::thread mThread;
};

}  // namespace lumora::web
