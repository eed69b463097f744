// The live view in a web browser: an HTTP and WebSocket server on a port of its own that
// sends every watcher the pictures the live display converts, with the values under the
// mouse read from the frames themselves. Nobody without the session's token sees anything.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "imaging/Publisher.h"

namespace lumora::quality {
class LiveQuality;
}  // namespace lumora::quality

namespace lumora::web {

class PictureEncoder;
class Server;

// Threads: the shell thread starts and stops the view; the render thread publishes; the
// view's encoder thread encodes each snapshot once and hands it to the server's network
// thread, which sends it; the live measurement's worker hands it the depth-quality figures of
// the watchers with Measure on.
class WebView : public imaging::Publisher {
public:
    static constexpr unsigned short kDefaultPort = 8080;
    static constexpr const char* kDefaultBind = "127.0.0.1";

    WebView();
    // Stops.
    ~WebView() override;
    WebView(const WebView&) = delete;
    WebView& operator=(const WebView&) = delete;

    // Shell thread. Where the next start() listens: an IPv4 or IPv6 address (false, and
    // nothing changed, for a text that is none) and a port.
    bool setBind(const std::string& address);
    const std::string& bind() const { return mBind; }
    void setPort(unsigned short port) { mPort = port; }
    unsigned short port() const { return mPort; }
    // Shell thread, before start(): the live measurement that the pages' Measure turns on and
    // off and gives its ROI (not owned; it must outlive the view). Without one, Measure shows
    // nothing.
    void setMeasurement(quality::LiveQuality* live);

    // Shell thread. Serves on bind():port() with a new token (a view already serving is
    // stopped first). Empty on success, else one line saying why.
    std::string start();
    // Shell thread. Closes every connection and the port, ends the threads and logs the
    // serving's figures. Nothing when not serving.
    void stop();
    // Shell thread: whether serving, and its address with the token; empty when not serving.
    bool isOn() const { return !mUrl.empty(); }
    const std::string& url() const { return mUrl; }

    // True while someone watches.
    bool wanted() const override;
    void publish(imaging::Snapshot snapshot) override;

private:
    void encodeLoop();
    void encode(const imaging::Snapshot& snapshot, PictureEncoder& encoder);

    const std::unique_ptr<Server> mServer;
    quality::LiveQuality* mLive = nullptr;
    std::string mBind = kDefaultBind;
    unsigned short mPort = kDefaultPort;
    std::string mUrl;
    std::mutex mMutex;
    std::condition_variable mWake;
    bool mStopping = false;
    std::optional<imaging::Snapshot> mPending;
    std::thread mEncoder;
    std::uint32_t mSequence = 0;
    std::chrono::steady_clock::time_point mLastCloud;
};

}  // namespace lumora::web
