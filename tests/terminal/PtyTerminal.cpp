#include "PtyTerminal.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <sstream>

namespace lumora::test {

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kPatience = std::chrono::seconds(10);

std::string proc_file(pid_t pid, const char* name) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/" + name);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

PtyTerminal::PtyTerminal(const std::string& program, const std::vector<std::string>& arguments, int rows, int columns)
    : mRows(rows), mColumns(columns), mScreen(static_cast<size_t>(rows), std::string(columns, ' ')) {
    winsize size{};
    size.ws_row = static_cast<unsigned short>(rows);
    size.ws_col = static_cast<unsigned short>(columns);
    int reports[2];
    if (openpty(&mMaster, &mSlave, nullptr, nullptr, &size) != 0 || pipe2(reports, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "no pty";
        return;
    }
    // No output processing, so that the bytes seen are the bytes the program wrote.
    tcgetattr(mSlave, &mInitial);
    mInitial.c_oflag &= ~tcflag_t{OPOST};
    tcsetattr(mSlave, TCSANOW, &mInitial);
    std::vector<std::string> argv{program};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    pointers.reserve(argv.size() + 1);
    for (std::string& argument : argv)
        pointers.push_back(argument.data());
    pointers.push_back(nullptr);

    mChild = fork();
    if (mChild == 0) {
        setsid();
        ioctl(mSlave, TIOCSCTTY, 0);
        dup2(mSlave, 0);
        dup2(mSlave, 1);
        dup2(mSlave, 2);
        dup2(reports[1], 3);
        execv(program.c_str(), pointers.data());
        _exit(127);
    }
    close(reports[1]);
    mReports = reports[0];
    fcntl(mMaster, F_SETFL, O_NONBLOCK);
    fcntl(mReports, F_SETFL, O_NONBLOCK);
    settle();
}

PtyTerminal::~PtyTerminal() {
    if (mChild > 0) {
        kill(mChild, SIGKILL);
        waitpid(mChild, nullptr, 0);
    }
    for (const int fd : {mMaster, mSlave, mReports})
        if (fd >= 0) close(fd);
}

void PtyTerminal::key(const std::string& bytes) {
    send(bytes);
    settle();
}

void PtyTerminal::type(const std::string& text) {
    for (const char c : text)
        key(std::string(1, c));
}

void PtyTerminal::send(const std::string& bytes) {
    mSwitchesAtSend = childSwitches();
    ASSERT_EQ(write(mMaster, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

// The program has dealt with everything sent once it has slept since, sleeps in read()
// now, and neither input nor output is in flight; that must hold twice in a row, since
// bytes cross the pty asynchronously.
void PtyTerminal::settle() {
    const auto deadline = Clock::now() + kPatience;
    int quietRounds = 0;
    while (Clock::now() < deadline) {
        if (pump(2)) {
            quietRounds = 0;
            continue;
        }
        if (proc_file(mChild, "stat").find(") Z") != std::string::npos) return;
        int pending = 0;
        ioctl(mSlave, FIONREAD, &pending);
        const bool idle = pending == 0 && childSwitches() > mSwitchesAtSend && childReading();
        quietRounds = idle ? quietRounds + 1 : 0;
        if (quietRounds == 2) return;
    }
    ADD_FAILURE() << "the program did not settle; screen row " << mRow << ": " << row(mRow);
}

// Asked of the kernel's wait channel, not of the call number: a program run by user-mode
// emulation shows the host's call there, while a read of a terminal sleeps in the terminal's
// read (or the generic wait it inlines) either way.
bool PtyTerminal::childReading() const {
    const std::string channel = proc_file(mChild, "wchan");
    return channel == "n_tty_read" || channel == "wait_woken";
}

long PtyTerminal::childSwitches() const {
    const std::string status = proc_file(mChild, "status");
    const auto at = status.find("\nvoluntary_ctxt_switches:");
    return at == std::string::npos ? -1 : std::stol(status.substr(status.find(':', at) + 1));
}

bool PtyTerminal::pump(int timeoutMs) {
    pollfd fds[2] = {{mMaster, POLLIN, 0}, {mReports, POLLIN, 0}};
    if (poll(fds, 2, timeoutMs) <= 0) return false;
    bool got = false;
    char buffer[4096];
    ssize_t n = 0;
    while ((n = read(mMaster, buffer, sizeof buffer)) > 0) {
        got = true;
        for (ssize_t i = 0; i < n; ++i)
            feed(buffer[i]);
    }
    readReports();
    return got;
}

void PtyTerminal::readReports() {
    char buffer[4096];
    ssize_t n = 0;
    while ((n = read(mReports, buffer, sizeof buffer)) > 0) {
        mPartialReport.append(buffer, static_cast<size_t>(n));
        size_t end = 0;
        while ((end = mPartialReport.find('\n')) != std::string::npos) {
            mLines.push_back(mPartialReport.substr(0, end));
            mPartialReport.erase(0, end + 1);
        }
    }
}

void PtyTerminal::feed(char byte) {
    mOutput += byte;
    if (mEscape) {
        mEscape = false;
        mInSequence = byte == '[';
        mSequence.clear();
        return;
    }
    if (mInSequence) {
        if ((byte >= '0' && byte <= '9') || byte == ';') {
            mSequence += byte;
        } else {
            mInSequence = false;
            control(byte);
        }
        return;
    }
    if (byte == '\x1b') {
        mEscape = true;
    } else if (byte == '\r') {
        mColumn = 1;
    } else if (byte == '\n') {
        lineFeed();
    } else if (byte >= ' ' && byte != '\x7f') {
        put(byte);
    }
}

void PtyTerminal::control(char final) {
    std::vector<int> parameters;
    std::stringstream in(mSequence);
    for (std::string part; std::getline(in, part, ';');)
        parameters.push_back(part.empty() ? 0 : std::stoi(part));
    const auto parameter = [&](size_t i) { return i < parameters.size() ? parameters[i] : 0; };
    switch (final) {
        case 'H':
            mRow = std::clamp(parameter(0), 1, mRows);
            mColumn = std::clamp(parameter(1), 1, mColumns);
            break;
        case 'J':
            if (parameter(0) == 2) std::fill(mScreen.begin(), mScreen.end(), std::string(mColumns, ' '));
            break;
        case 'K':
            if (parameter(0) == 2) mScreen[mRow - 1].assign(mColumns, ' ');
            break;
        case 'n':
            if (parameter(0) == 6) {
                std::string reply =
                    "\x1b[" + std::to_string(mRow) + ";" + std::to_string(std::min(mColumn, mColumns)) + "R";
                if (!mReplies.empty()) {
                    reply = mReplies.front();
                    mReplies.pop_front();
                }
                send(reply);
            }
            break;
        default:
            break;
    }
}

void PtyTerminal::put(char byte) {
    if (mColumn > mColumns) {
        mColumn = 1;
        lineFeed();
    }
    mScreen[mRow - 1][mColumn - 1] = byte;
    ++mColumn;
}

void PtyTerminal::lineFeed() {
    if (++mRow <= mRows) return;
    mScreen.erase(mScreen.begin());
    mScreen.emplace_back(mColumns, ' ');
    mRow = mRows;
}

std::string PtyTerminal::row(int row) const {
    std::string text = mScreen.at(static_cast<size_t>(row - 1));
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

std::string PtyTerminal::takeOutput() {
    std::string output;
    output.swap(mOutput);
    return output;
}

int PtyTerminal::waitExit() {
    const auto deadline = Clock::now() + kPatience;
    int status = 0;
    while (Clock::now() < deadline) {
        pump(10);
        if (waitpid(mChild, &status, WNOHANG) == mChild) {
            mChild = -1;
            while (pump(0)) {
            }
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
    }
    ADD_FAILURE() << "the program did not end";
    return -1;
}

termios PtyTerminal::settings() const {
    termios settings{};
    tcgetattr(mSlave, &settings);
    return settings;
}

}  // namespace lumora::test
