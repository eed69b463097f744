#include "terminal/ScriptReader.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

namespace lumora::terminal {

ScriptReader::ScriptReader(int fd) : mFd(fd) {}

std::optional<std::string> ScriptReader::nextLine() {
    for (;;) {
        const size_t end = mPending.find('\n');
        if (end != std::string::npos) {
            std::string line = mPending.substr(0, end);
            mPending.erase(0, end + 1);
            return line;
        }
        if (mEnded) {
            if (mPending.empty()) return std::nullopt;
            return std::exchange(mPending, {});
        }
        char buffer[4096];
        const ssize_t count = ::read(mFd, buffer, sizeof buffer);
        if (count > 0) {
            mPending.append(buffer, static_cast<size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            mEnded = true;
        }
    }
}

std::optional<std::string> ScriptReader::readLine(const std::string& prompt) {
    std::optional<std::string> line;
    do {
        line = nextLine();
    } while (line && !line->empty() && line->front() == '#');
    if (!line) return std::nullopt;
    // A file written on another system ends its lines in "\r\n".
    if (!line->empty() && line->back() == '\r') line->pop_back();
    std::printf("%s %s\n", prompt.c_str(), line->c_str());
    if (const std::string* recalled = mHistory.recall(*line)) {
        *line = *recalled;
        std::printf("%s\n", line->c_str());
    }
    line->erase(line->find_last_not_of(" \n\r\t") + 1);
    if (!line->empty()) mHistory.add(*line);
    std::fflush(stdout);
    return line;
}

}  // namespace lumora::terminal
