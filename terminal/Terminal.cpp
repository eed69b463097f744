#include "terminal/Terminal.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <new>

namespace lumora::terminal {

namespace {

// Written back whenever the instance is destroyed, whichever build of it saved them.
termios gSavedSettings{};
// Read by the signal handler on any thread.
std::atomic<bool> gDestroyed{false};
std::atomic<Terminal*> gInstance{nullptr};

bool retry(ssize_t result) { return result == -1 && (errno == EINTR || errno == EAGAIN); }

// False when a write made no progress or failed for good.
bool write_all(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (retry(written)) continue;
        if (written <= 0) return false;
        data += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

// 1 with a byte, 0 at end of file, -1 on an error.
int read_byte(int fd, unsigned char& byte) {
    for (;;) {
        const ssize_t result = ::read(fd, &byte, 1);
        if (retry(result)) continue;
        return result == 1 ? 1 : result == 0 ? 0 : -1;
    }
}

// Reads decimal digits into value; true when the byte that ends them is `end`. A number too
// large for 32 bits saturates, so that the whole reply is still consumed.
bool read_number(int fd, char end, std::int32_t& value) {
    constexpr std::int64_t kLargest = std::numeric_limits<std::int32_t>::max();
    std::int64_t number = 0;
    unsigned char byte = 0;
    while (read_byte(fd, byte) == 1) {
        if (byte < '0' || byte > '9') {
            value = static_cast<std::int32_t>(number);
            return byte == static_cast<unsigned char>(end);
        }
        number = std::min(number * 10 + (byte - '0'), kLargest);
    }
    return false;
}

void destroy_instance() {
    // A signal may already have restored the terminal; never destroy twice.
    if (!gDestroyed && gInstance != nullptr) gInstance.load()->~Terminal();
}

void on_fatal_signal(int signal) {
    Terminal::getInstance().~Terminal();
    timespec remaining{0, 200000000};
    while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
    }
    std::exit(signal);  // NOLINT(concurrency-mt-unsafe): atexit routines must run
}

}  // namespace

// Storage that outlives the instance, so a destroyed terminal can be rebuilt in place. Its
// own destructor does nothing: the instance is destroyed by an atexit routine that knows
// whether a signal got there first.
struct TerminalStorage {
    TerminalStorage() {
        gInstance = new (&bytes) Terminal();
        std::atexit(destroy_instance);
    }
    alignas(Terminal) unsigned char bytes[sizeof(Terminal)];
};

Terminal& Terminal::getInstance() {
    if (gDestroyed && gInstance != nullptr) {
        new (gInstance.load()) Terminal();
        std::atexit(destroy_instance);
        gDestroyed = false;
        return *gInstance;
    }
    static TerminalStorage storage;
    return *gInstance;
}

Terminal::Terminal() : mPrompt("#") {
    clearScreen();
    if (const char* name = ttyname(0)) {  // NOLINT(concurrency-mt-unsafe): under the one-time guard
        do {
            mFd = open(name, O_RDWR | O_NOCTTY);
        } while (mFd == -1 && errno == EINTR);
    }
    while (tcgetattr(mFd, &gSavedSettings) == -1 && errno == EINTR) {
    }
    termios raw{};
    while (tcgetattr(mFd, &raw) == -1 && errno == EINTR) {
    }
    // Input, output and timing flags stay as they were; clearing CREAD is deliberate.
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_cflag &= ~static_cast<tcflag_t>(CREAD);
    while (tcsetattr(mFd, TCSANOW, &raw) == -1 && errno == EINTR) {
    }

    struct sigaction action {};
    action.sa_handler = on_fatal_signal;
    sigemptyset(&action.sa_mask);
    for (const int signal : {SIGABRT, SIGFPE, SIGSEGV, SIGINT, SIGTSTP})
        sigaction(signal, &action, nullptr);
}

Terminal::~Terminal() {
    gDestroyed = true;
    // Descriptor 0 is the process's own input, never one this object opened.
    if (mFd > 0) {
        tcflush(mFd, TCIOFLUSH);
        tcsetattr(mFd, TCSANOW, &gSavedSettings);
        close(mFd);
        mFd = -1;
    }
}

int Terminal::readKey() {
    unsigned char byte = 0;
    const int result = read_byte(mFd, byte);
    return result == 1 ? byte : result == 0 ? -1 : -2;
}

CursorPosition Terminal::queryCursorPosition() {
    if (mFd < 0) return {};
    if (!write_all(mFd, "\x1b[6n", 4)) {
        tcflush(mFd, TCIOFLUSH);
        return {};
    }
    unsigned char byte = 0;
    if (read_byte(mFd, byte) != 1 || byte != 27) {
        // Whatever else is pending cannot be told apart from the reply: drop it all.
        tcflush(mFd, TCIFLUSH);
        return {};
    }
    CursorPosition position;
    if (read_byte(mFd, byte) != 1 || byte != '[') return {};
    if (!read_number(mFd, ';', position.row) || !read_number(mFd, 'R', position.column)) return {};
    return position;
}

void Terminal::moveCursor(CursorPosition position) {
    if (position.row < 0 || position.column < 0) return;
    write("\x1b[" + std::to_string(position.row) + ";" + std::to_string(position.column) + "H");
}

void Terminal::printPrompt(bool clearLine) {
    if (clearLine) write("\x1b[2K");
    if (!mPrompt.empty()) write("\r" + mPrompt + " ");
}

void Terminal::clearScreen() { write("\x1b[2J\x1b[1;1H"); }

void Terminal::newLine() { write("\n\r"); }

void Terminal::echoCharacter(char c) { write_all(STDOUT_FILENO, &c, 1); }

void Terminal::write(const std::string& text) { write_all(STDOUT_FILENO, text.data(), text.size()); }

void Terminal::printHistory() { mHistory.print(); }

}  // namespace lumora::terminal
