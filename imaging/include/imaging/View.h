// The pictures the live view shows of a frame list, numbered once for the display's
// windows, the web view's messages and its page.
#pragma once

namespace lumora::imaging {

enum View : int {
    kFramerate = 0,
    kDepth = 1,
    kAmplitude = 2,
    kPointCloud = 3,
    kIntensityDepth = 4,
    kIntensityAmplitude = 5,
};
inline constexpr int kViewCount = 6;

// The name a view's window title carries after the camera's model ("framerate", "Depth",
// "Amplitude", "PCL-Depth", "IPCL-Depth", "IPCL-Amplitude"); "" for a number that is none.
constexpr const char* viewName(int view) {
    constexpr const char* kNames[kViewCount] = {"framerate", "Depth",      "Amplitude",
                                                "PCL-Depth", "IPCL-Depth", "IPCL-Amplitude"};
    return view >= 0 && view < kViewCount ? kNames[view] : "";
}

}  // namespace lumora::imaging
