// A camera's side of what tests inject: lists handed over in place of its own, error
// callbacks, and the faults that "sim_fault" names (parsed in Faults.cpp), which spoil the
// next lists at hand-over or hold delivery back before it.
#include "SimCamera.h"

#include <utility>

namespace halden::sensor::sim {

Result SimCamera::injectFrameList(std::shared_ptr<LumoraFrameList> list) {
    if (!list) return RESULT_INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(mMutex);
    if (const Result result = usable(); result != RESULT_SUCCESS) return result;
    if (mState != STATE_RUNNING) return RESULT_NOT_READY;
    mInjected.push_back(std::move(list));
    return RESULT_SUCCESS;
}

Result SimCamera::injectError(Result error) {
    std::lock_guard<std::mutex> lock(mMutex);
    if (const Result result = usable(); result != RESULT_SUCCESS) return result;
    postError(error);
    return RESULT_SUCCESS;
}

Result SimCamera::injectFault(const Fault& fault) {
    std::lock_guard<std::mutex> lock(mMutex);
    if (const Result result = usable(); result != RESULT_SUCCESS) return result;
    if (fault.kind == Fault::kErrors) {
        for (std::uint32_t i = 0; i < fault.argument; ++i)
            postError(RESULT_FAIL);
        return RESULT_SUCCESS;
    }
    if (mState != STATE_RUNNING) return RESULT_NOT_READY;
    if (fault.kind == Fault::kStall) {
        mStall = std::chrono::milliseconds(fault.argument);
        mWake.notify_all();
    } else {
        mListFaults.push_back(fault);
    }
    return RESULT_SUCCESS;
}

std::shared_ptr<LumoraFrameList> SimCamera::withFault(const std::shared_ptr<SimFrameList>& list) {
    if (mListFaults.empty()) return list;
    Fault& fault = mListFaults.front();
    auto faulty = std::make_shared<SimFrameList>();
    for (const auto& frame : list->frames()) {
        switch (fault.kind) {
            case Fault::kMissing:
                if (frame->frameType() != fault.argument) faulty->add(frame);
                break;
            case Fault::kZeroSize:
                faulty->add(std::make_shared<SimFrame>(frame->frameType(), frame->dataType(), 0, 0));
                break;
            case Fault::kNoLine:
                frame->removeProperty(embedded_line_key());
                faulty->add(frame);
                break;
            default:  // kEmpty
                break;
        }
    }
    faulty->stamp(list->frameNumber(), list->timestamp());
    // A missing frame's argument is its type: it spoils one list.
    if (fault.kind == Fault::kMissing || --fault.argument == 0) mListFaults.pop_front();
    return faulty;
}

bool SimCamera::waitOutStall(std::unique_lock<std::mutex>& lock) {
    if (mStall.count() <= 0) return false;
    const auto until = std::chrono::steady_clock::now() + mStall;
    mStall = {};
    return mWake.wait_until(lock, until, [this] { return mStopDelivery; });
}

void SimCamera::forgetFaults() {
    mListFaults.clear();
    mStall = {};
}

}  // namespace halden::sensor::sim
