// The process's one terminal: raw key input, screen control and the line editor.
//
// The first getInstance() opens the terminal on descriptor 0, clears the screen and turns
// off canonical input and echo. The saved settings are written back when the instance is
// destroyed: at normal exit, and from the handler of SIGABRT, SIGFPE, SIGSEGV, SIGINT and
// SIGTSTP, which then exits with the signal number as status. A destroyed instance is
// rebuilt in place by the next getInstance().
//
// Threads: built under the one-time initialisation guard; after that only the shell thread
// calls it, and it has no lock. The signal handler runs on whichever thread the signal hits.
//
// Screen output goes to standard output; only the cursor-position query talks to the
// terminal descriptor. Every write loops until all bytes are out, retrying EINTR and EAGAIN,
// and gives up silently on any other error.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "terminal/History.h"

namespace lumora::terminal {

// Row and column, 1-based as the terminal reports them; (-1, -1) when unknown.
struct CursorPosition {
    std::int32_t row = -1;
    std::int32_t column = -1;
};

class Terminal {
public:
    // The single instance, built (or rebuilt after destruction) on demand.
    static Terminal& getInstance();

    virtual ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    // Raw terminal and screen.

    // One byte from the terminal as 0..255; -1 at end of file, -2 on any other error.
    int readKey();
    CursorPosition queryCursorPosition();
    // Writes "\e[row;colH"; nothing when row or column is negative.
    void moveCursor(CursorPosition position);
    // "\e[2K" when clearLine is set, then "\r" + prompt + " " unless the prompt is empty.
    void printPrompt(bool clearLine);
    void clearScreen();
    void newLine();
    void echoCharacter(char c);
    // Writes to standard output.
    void write(const std::string& text);
    // Every entry as "N text\n", oldest first.
    void printHistory();

    // Line editor.

    // Edits one line at the prompt until Enter; returns it without trailing " \n\r\t" and
    // records it in the history (an empty line is returned but not recorded).
    std::string readLine();
    // An empty prompt is ignored.
    void setPrompt(const std::string& prompt);
    // Tab completion offers these words, in the order added; adding one twice keeps one.
    void addCommandWord(const std::string& word);
    const History& history() const { return mHistory; }

private:
    Terminal();
    friend struct TerminalStorage;

    void insertCharacter(char c);
    void backspace();
    void moveLeft();
    void moveRight();
    void historyUp();
    void historyDown();
    void complete();
    std::string finishLine();
    void showLine();
    void showHistoryEntry();
    // The prompt is drawn as "\r", the prompt and one blank, so the line's first character
    // stands in column promptLength() + 2.
    std::int64_t promptLength() const { return static_cast<std::int64_t>(mPrompt.size()); }

    std::int32_t mHistoryIndex = -1;
    std::string mPrompt;
    std::vector<char> mLineBuffer;
    std::vector<std::string> mCommandWords;
    History mHistory;
    int mFd = -1;
};

}  // namespace lumora::terminal
