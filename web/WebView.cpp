// Design note: the render thread publishes a snapshot per converted frame list into a
// slot of one; a snapshot the encoder has not taken yet is replaced, so the render thread
// never waits. The encoder thread takes the newest, encodes each picture once (and the
// point clouds at most ten times a second while a watcher has the 3-D view open) and posts
// the result to the server's network thread. The live measurement's worker hands its figures
// over once a second while a watcher measures; they are posted to the network thread the same
// way. Shutdown: stop() takes the figures listener back (waiting for a call under way), marks
// the encoder stopping, wakes and joins it, then stops the server, which tells the live
// measurement that nobody measures.
#include "web/WebView.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include <boost/asio/ip/address.hpp>

#include <halden/sensor/Log.h>

#include "PageAssets.h"
#include "PictureEncoder.h"
#include "Server.h"
#include "Token.h"
#include "imaging/View.h"
#include "quality/LiveQuality.h"
#include "quality/Report.h"

namespace lumora::web {

namespace hs = halden::sensor;
using Clock = std::chrono::steady_clock;
using imaging::Picture;
using imaging::Snapshot;
using imaging::Status;

namespace {

constexpr int kJpegQuality = 80;
constexpr auto kCloudInterval = std::chrono::milliseconds(100);
// Points of a cloud sent: every second column of every second row.
constexpr int kCloudStride = 2;
constexpr std::size_t kHeaderSize = 24;

enum Kind : std::uint8_t { kPictureMessage = 1, kCloudMessage = 2 };
enum Format : std::uint8_t { kJpeg = 0, kPng = 1, kPoints = 2 };

void putLe(std::string& out, std::uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i)
        out += static_cast<char>((value >> (8 * i)) & 0xffU);
}

// The fixed head of every binary message, little-endian: kind, view, format, 0, sequence
// (32 bits), frame timestamp in microseconds (64), width and height (16 each), count (32).
std::string header(Kind kind, int view, Format format, std::uint32_t sequence, std::uint64_t timestamp, int width,
                   int height, std::uint32_t count) {
    std::string out;
    out.reserve(kHeaderSize);
    out += static_cast<char>(kind);
    out += static_cast<char>(view);
    out += static_cast<char>(format);
    out += '\0';
    putLe(out, sequence, 4);
    putLe(out, timestamp, 8);
    putLe(out, static_cast<std::uint64_t>(width), 2);
    putLe(out, static_cast<std::uint64_t>(height), 2);
    putLe(out, count, 4);
    return out;
}

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string statusJson(const Status& status, std::uint32_t sequence, std::uint64_t timestamp) {
    char numbers[256];
    std::snprintf(numbers, sizeof numbers,
                  R"("mask":%u,"width":%d,"height":%d,"drawn":%llu,"dropped":%llu,"sequence":%u,"timestamp":%llu)",
                  status.mask, status.width, status.height, static_cast<unsigned long long>(status.drawn),
                  static_cast<unsigned long long>(status.dropped), sequence,
                  static_cast<unsigned long long>(timestamp));
    return R"({"type":"status","camera":)" + jsonString(status.camera) + R"(,"serial":)" + jsonString(status.serial) +
           R"(,"fps":)" + jsonString(status.fpsText) + "," + numbers + "}";
}

// The figures as quality::format_json gives them, with the type, the window and the problem.
std::string figuresJson(const quality::LiveFigures& figures) {
    const std::string report = quality::format_json(figures.quality);
    return R"({"type":"quality","window":)" + std::to_string(figures.window) + R"(,"problem":)" +
           jsonString(figures.problem) + "," + report.substr(1);
}

std::int16_t millimetres(float metres) {
    const float mm = metres * 1000.0F;
    if (!std::isfinite(mm)) return 0;
    return static_cast<std::int16_t>(std::fmax(-32767.0F, std::fmin(32767.0F, mm)));
}

// A cloud thinned to every second point of every second row, as 16-bit x, y, z in mm of
// the points with z > 0; null for a frame of another kind.
std::shared_ptr<const std::string> cloudMessage(const std::shared_ptr<hs::LumoraFrame>& frame, int view,
                                                std::uint32_t sequence) {
    if (!frame || frame->planeCount() < 3) return nullptr;
    const int width = frame->width();
    const int height = frame->height();
    const std::size_t plane = frame->elementCount();
    std::string points;
    std::uint32_t count = 0;
    const bool floats = frame->dataType() == hs::DATA_TYPE_FLOAT32;
    if (!floats && frame->dataType() != hs::DATA_TYPE_UINT16) return nullptr;
    for (int row = 0; row < height; row += kCloudStride) {
        for (int column = 0; column < width; column += kCloudStride) {
            const std::size_t i = static_cast<std::size_t>(row) * width + column;
            std::int16_t xyz[3];
            for (std::size_t p = 0; p < 3; ++p) {
                if (floats) {
                    xyz[p] = millimetres(static_cast<const float*>(frame->data())[p * plane + i]);
                } else {
                    const std::uint16_t raw = static_cast<const std::uint16_t*>(frame->data())[p * plane + i];
                    std::memcpy(&xyz[p], &raw, sizeof raw);
                }
            }
            if (xyz[2] <= 0) continue;
            for (const std::int16_t value : xyz)
                putLe(points, static_cast<std::uint16_t>(value), 2);
            ++count;
        }
    }
    return std::make_shared<const std::string>(
        header(kCloudMessage, view, kPoints, sequence, frame->timestamp(), width, height, count) + points);
}

}  // namespace

WebView::WebView() : mServer(std::make_unique<Server>(std::string(pageHtml()))) {}

WebView::~WebView() { stop(); }

void WebView::setMeasurement(quality::LiveQuality* live) {
    mLive = live;
    if (live == nullptr)
        mServer->setMeasureHook({});
    else
        mServer->setMeasureHook([live](const std::optional<quality::RoiRequest>& roi) { live->setRolling(roi); });
}

bool WebView::setBind(const std::string& address) {
    boost::system::error_code error;
    boost::asio::ip::make_address(address, error);
    if (error) return false;
    mBind = address;
    return true;
}

std::string WebView::start() {
    stop();
    const std::string token = makeToken();
    if (token.empty()) return "no random token could be made";
    std::string failure = mServer->start(mBind, mPort, token);
    if (!failure.empty()) return failure;
    const bool ipv6 = mBind.find(':') != std::string::npos;
    mUrl = "http://" + (ipv6 ? "[" + mBind + "]" : mBind) + ":" + std::to_string(mPort) + "/?token=" + token;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mStopping = false;
        mPending.reset();
    }
    mEncoder = std::thread([this] { encodeLoop(); });
    if (mLive != nullptr)
        mLive->setFiguresListener(
            [this](const quality::LiveFigures& figures) { mServer->sendFigures(figuresJson(figures)); });
    return {};
}

void WebView::stop() {
    if (!isOn()) return;
    if (mLive != nullptr) mLive->setFiguresListener({});
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mStopping = true;
        mPending.reset();
    }
    mWake.notify_all();
    if (mEncoder.joinable()) mEncoder.join();
    const ServerStats stats = mServer->stop();
    mUrl.clear();
    hs::Log::i(LUMORA_LOG_TAG("WebView"),
               "web view: %llu messages sent, %llu dropped for slow watchers, %llu bytes, %llu watchers refused; "
               "delivery to socket p50 %.1f ms p99 %.1f ms, to decoded in the page p50 %.1f ms p99 %.1f ms; "
               "written to decoded in the page p50 %.1f ms p99 %.1f ms",
               static_cast<unsigned long long>(stats.messagesSent),
               static_cast<unsigned long long>(stats.messagesDropped), static_cast<unsigned long long>(stats.bytesSent),
               static_cast<unsigned long long>(stats.watchersRefused), stats.handOffP50, stats.handOffP99,
               stats.decodedP50, stats.decodedP99, stats.inPageP50, stats.inPageP99);
}

bool WebView::wanted() const { return mServer->watchers() > 0; }

void WebView::publish(Snapshot snapshot) {
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mStopping) return;
        mPending = std::move(snapshot);
    }
    mWake.notify_one();
}

void WebView::encodeLoop() {
    PictureEncoder encoder;
    for (;;) {
        Snapshot snapshot;
        {
            std::unique_lock<std::mutex> lock(mMutex);
            mWake.wait(lock, [this] { return mStopping || mPending.has_value(); });
            if (mStopping) return;
            snapshot = std::move(*mPending);
            mPending.reset();
        }
        if (mServer->watchers() > 0) encode(snapshot, encoder);
    }
}

void WebView::encode(const Snapshot& snapshot, PictureEncoder& encoder) {
    auto message = std::make_shared<Broadcast>();
    message->sequence = ++mSequence;
    message->delivered = snapshot.delivered;
    message->list = snapshot.list;
    const std::uint64_t timestamp = snapshot.list ? snapshot.list->timestamp() : 0;
    const bool png = mServer->pngWanted();
    for (const Picture& picture : snapshot.pictures) {
        if (picture.view < imaging::kDepth || picture.view > imaging::kIntensityAmplitude || picture.image.empty())
            continue;
        const auto slot = static_cast<std::size_t>(picture.view);
        message->sizes[slot] = {picture.image.cols, picture.image.rows};
        const auto head = [&](Format format) {
            return header(kPictureMessage, picture.view, format, message->sequence, timestamp, picture.image.cols,
                          picture.image.rows, 0);
        };
        std::string jpeg = head(kJpeg);
        if (encoder.jpeg(picture.image, kJpegQuality, jpeg))
            message->jpeg[slot] = std::make_shared<std::string>(std::move(jpeg));
        if (!png) continue;
        std::string lossless = head(kPng);
        if (PictureEncoder::png(picture.image, lossless))
            message->png[slot] = std::make_shared<std::string>(std::move(lossless));
    }
    message->jpeg[kStatusSlot] =
        std::make_shared<std::string>(statusJson(snapshot.status, message->sequence, timestamp));
    const auto now = Clock::now();
    if (mServer->cloudWanted() && snapshot.list && now - mLastCloud >= kCloudInterval) {
        mLastCloud = now;
        message->jpeg[kCloudSlot] = cloudMessage(hs::find_frame(snapshot.list, hs::LumoraFrame::FRAME_POINTCLOUD),
                                                 imaging::kPointCloud, message->sequence);
        message->jpeg[kIntensityCloudSlot] =
            cloudMessage(hs::find_frame(snapshot.list, hs::LumoraFrame::FRAME_INTENSITY_POINTCLOUD),
                         imaging::kIntensityDepth, message->sequence);
    }
    mServer->broadcast(std::move(message));
}

}  // namespace lumora::web
