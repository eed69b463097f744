// The frame dump sink: on request, copies a camera's next frame lists and has its writer
// thread write them into one dump file; also reads such a file back (inspectDumpFile).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>

#include <halden/sensor/Lumora.h>

#include "dump/DumpWriter.h"
#include "pipeline/Queue.h"

namespace lumora::dump {

class FrameDumpSink : public halden::sensor::LumoraSink, public halden::sensor::LumoraCamera::PreparedListener {
public:
    using Entry = std::tuple<halden::sensor::LumoraSource*, std::shared_ptr<halden::sensor::LumoraFrameList>>;

    // Reads the time zone for the file names now, on the thread that builds the sink.
    FrameDumpSink();
    // Stops a dump under way, waiting for its writer, and shuts the queue down.
    ~FrameDumpSink() override;
    FrameDumpSink(const FrameDumpSink&) = delete;
    FrameDumpSink& operator=(const FrameDumpSink&) = delete;

    // "FrameDumpSink".
    std::string name() const override;
    // Library threads. Each prints its trace line. State 2 or 0 stops a dump (waiting for
    // the writer); 0 also forgets the camera.
    void onLumoraCameraState(halden::sensor::LumoraSource* source, halden::sensor::LumoraCamera::State state) override;
    void onLumoraCameraError(halden::sensor::LumoraSource* source, halden::sensor::Result error) override;
    // The camera's delivery thread: while a dump takes lists, copies the list into the
    // queue (waiting at most 1 ms for room, else dropping it); once the count is reached,
    // prints "Frame dump finished!" and ends the capture. Never waits for the writer.
    void onLumoraFrameList(halden::sensor::LumoraSource* source,
                           const std::shared_ptr<halden::sensor::LumoraFrameList>& frameList) override;
    // Library thread: the camera this sink serves from now on (not owned).
    void onLumoraCameraPrepared(halden::sensor::LumoraCamera* camera) override;

    // Shell thread. Asks for `count` (0 to 300) frame lists in dump mode `mode` (0 to 3) from
    // a camera producing the frame types in `frameTypeMask`. Refusals are logged at error
    // level; nothing is returned. While a dump is under way, a new request changes its count
    // and mode instead of starting another.
    void requestDump(std::uint32_t frameTypeMask, std::uint32_t mode, std::uint32_t count);
    // Any thread but the delivery thread: ends the capture and waits for the writer. The
    // writer's end logs, at information level, what became of the lists the dump took.
    void stopDump();

    // The inspector, which uses none of the sink's state: prints what the dump file at `path`
    // holds (its header, both descriptors and as many frame headers as the header announces)
    // to standard output. An empty path prints nothing; a file that cannot be opened is
    // logged at error level. Runs on the caller's thread (the shell's).
    static void inspectDumpFile(const std::string& path);

private:
    enum class WriterEnd { kIdle, kGaveUp, kWriteFailed };
    // How the writer ended and what became of the lists it took.
    struct Written {
        WriterEnd end;
        std::uint32_t records;
        std::uint32_t withoutFrame;  // lists without the mode's frame
        std::uint32_t lineFailures;  // lists without an embedded line
    };

    static void writerMain(FrameDumpSink* sink);
    // The writer's loop: records from the queue into `file` until 100 ms pass without a list,
    // the embedded line failed too often, or a write failed.
    Written writeRecords(DumpWriter& file, std::uint8_t lineControl);
    // Waits for a writer whose capture has ended, and drops what it left in the queue.
    // Called with mWriterMutex held.
    void retireWriter();
    // Drops whatever the queue holds.
    void drainQueue();

    std::atomic<halden::sensor::LumoraCamera*> mAttachedCamera{nullptr};
    // Guards the writer thread object; never taken on the delivery thread.
    std::mutex mWriterMutex;
    std::thread mWriter;
    std::atomic<bool> mRunning{false};
    // True from a writer's start until its end; lists taken while it is false are counted
    // but not copied, since no file would hold them.
    std::atomic<bool> mWriting{false};
    halden::sensor::Queue<Entry> mQueue{10};
    std::atomic<int> mCameraState{0};
    // Written by the request, read by the callbacks and the writer.
    std::atomic<std::uint32_t> mWantedFrameCount{0};
    std::atomic<std::uint32_t> mDumpMode{0};
    std::atomic<std::uint8_t> mEmbeddedLineControl{0};
    // Lists of this dump dropped at the full queue; reset by the request, counted by the
    // delivery thread, logged by the writer at its end.
    std::atomic<std::uint32_t> mDroppedLists{0};

    // Frame lists taken since the last request, for the whole process.
    static std::atomic<std::uint32_t> sFramesTaken;
};

}  // namespace lumora::dump
