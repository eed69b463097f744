// The baseline of the display's processor time: shows a VGA colour image, a VGA gray image
// and a small frame-rate image at 30 frames per second for the seconds given (default 60),
// with one cv::waitKey(1) per frame, and does nothing else. At the end it prints the times
// from each frame's due moment to the hand-over of its last image, the display latency's
// baseline: "imshow p50 %.2f ms p99 %.2f ms".
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/highgui.hpp>
#include <opencv2/imgproc.hpp>

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 60;
    cv::Mat colour(480, 640, CV_8UC3);
    cv::Mat gray(480, 640, CV_8UC1);
    for (int y = 0; y < 480; ++y)
        for (int x = 0; x < 640; ++x) {
            colour.at<cv::Vec3b>(y, x) = cv::Vec3b(static_cast<uchar>(x), static_cast<uchar>(y), 128);
            gray.at<uchar>(y, x) = static_cast<uchar>(x ^ y);
        }
    const std::string text = "fps : 30.00";
    cv::Mat fps = cv::Mat::zeros(60, 20 * static_cast<int>(text.size()) - 40, CV_8UC1);
    cv::putText(fps, text, {30, 40}, cv::FONT_HERSHEY_DUPLEX, 1.0, {255, 255, 255});
    std::vector<double> millis;
    auto next = std::chrono::steady_clock::now();
    for (int frame = 0; frame < seconds * 30; ++frame) {
        cv::imshow("bare framerate", fps);
        cv::imshow("bare Depth", colour);
        cv::imshow("bare Amplitude", gray);
        millis.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - next).count());
        cv::waitKey(1);
        next += std::chrono::microseconds(33333);
        std::this_thread::sleep_until(next);
    }
    std::sort(millis.begin(), millis.end());
    if (!millis.empty())
        std::printf("imshow p50 %.2f ms p99 %.2f ms\n", millis[millis.size() / 2], millis[millis.size() * 99 / 100]);
    return 0;
}
