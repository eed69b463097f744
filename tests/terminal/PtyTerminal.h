// A terminal for tests: runs a program on the slave side of a pty and plays the terminal on
// the master side. It keeps a screen of rows x columns, follows the cursor through text,
// "\r", "\n" and the "\e[...H", "\e[2J", "\e[2K" sequences, and answers "\e[6n" with the
// cursor position as a real terminal does (or with replies a test queues instead). Output
// processing is off, so "\n" is not turned into "\r\n" on the way.
//
// Threads: one test thread drives it. The program runs as a child process in its own
// session with the pty as its controlling terminal; it is killed in the destructor if it is
// still running.
#pragma once

#include <sys/types.h>
#include <termios.h>

#include <deque>
#include <string>
#include <vector>

namespace lumora::test {

class PtyTerminal {
public:
    PtyTerminal(const std::string& program, const std::vector<std::string>& arguments, int rows = 24, int columns = 80);
    ~PtyTerminal();
    PtyTerminal(const PtyTerminal&) = delete;
    PtyTerminal& operator=(const PtyTerminal&) = delete;

    // Types the bytes of one key and waits until the program has dealt with it.
    void key(const std::string& bytes);
    // Types each character of text as one key.
    void type(const std::string& text);
    void enter() { key("\n"); }
    void left() { key("\x1b[D"); }
    void right() { key("\x1b[C"); }
    void up() { key("\x1b[A"); }
    void down() { key("\x1b[B"); }
    void backspace() { key("\x7f"); }
    void tab() { key("\t"); }

    // The next cursor query is answered with these bytes instead of the position.
    void queueReply(const std::string& bytes) { mReplies.push_back(bytes); }

    // The text of a screen row (1-based), trailing blanks cut.
    std::string row(int row) const;
    int cursorRow() const { return mRow; }
    int cursorColumn() const { return mColumn; }
    // Every byte the program wrote since the last takeOutput().
    std::string takeOutput();
    // The lines the program reported on descriptor 3.
    const std::vector<std::string>& lines() const { return mLines; }
    // Waits for the program to end; its exit status, or 128 + signal.
    int waitExit();
    // The terminal's settings as the program sees them, and as they were before it started.
    termios settings() const;
    const termios& initialSettings() const { return mInitial; }
    // Until the program is idle: blocked reading its terminal, with nothing left to read
    // or to show.
    void settle();

private:
    bool pump(int timeoutMs);
    void feed(char byte);
    void control(char final);
    void put(char byte);
    void lineFeed();
    void readReports();
    bool childReading() const;
    long childSwitches() const;
    void send(const std::string& bytes);

    int mMaster = -1;
    int mSlave = -1;
    int mReports = -1;
    pid_t mChild = -1;
    int mRows;
    int mColumns;
    std::vector<std::string> mScreen;
    int mRow = 1;
    int mColumn = 1;
    std::string mOutput;
    std::string mSequence;
    bool mInSequence = false;
    bool mEscape = false;
    std::deque<std::string> mReplies;
    std::string mPartialReport;
    std::vector<std::string> mLines;
    long mSwitchesAtSend = 0;
    termios mInitial{};
};

}  // namespace lumora::test
