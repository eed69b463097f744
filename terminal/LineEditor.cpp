// The line editor: the key loop of Terminal::readLine.
//
// The cursor column is never tracked here; every key that needs it asks the terminal, so
// the editor stays right whatever else wrote to the screen.
#include <sys/ioctl.h>
#include <termios.h>

#include <algorithm>
#include <cstdio>

#include "terminal/Terminal.h"

namespace lumora::terminal {

namespace {

constexpr int kEnter = 10;
constexpr int kBackspace = 127;
constexpr int kTab = 9;
constexpr int kEscape = 27;
// Completion lists four matches on the first row and five on each further row.
constexpr int kMatchesPerRow = 4;

bool is_printable(int key) { return key == 26 || (key >= 28 && key <= 126); }

}  // namespace

std::string Terminal::readLine() {
    printPrompt(false);
    mLineBuffer.clear();
    for (;;) {
        const int key = readKey();
        if (key == kEnter) return finishLine();
        if (key == kBackspace) {
            backspace();
        } else if (key == kTab) {
            complete();
        } else if (key == kEscape) {
            if (readKey() != '[') continue;
            switch (readKey()) {
                case 'A':
                    historyUp();
                    break;
                case 'B':
                    historyDown();
                    break;
                case 'C':
                    moveRight();
                    break;
                case 'D':
                    moveLeft();
                    break;
                default:
                    tcflush(mFd, TCIFLUSH);
                    break;
            }
        } else if (is_printable(key)) {
            insertCharacter(static_cast<char>(key));
        }
    }
}

void Terminal::setPrompt(const std::string& prompt) {
    if (!prompt.empty()) mPrompt = prompt;
}

void Terminal::addCommandWord(const std::string& word) {
    if (std::find(mCommandWords.begin(), mCommandWords.end(), word) == mCommandWords.end())
        mCommandWords.push_back(word);
}

void Terminal::showLine() { write(std::string(mLineBuffer.begin(), mLineBuffer.end())); }

void Terminal::insertCharacter(char c) {
    const CursorPosition cursor = queryCursorPosition();
    winsize window{};
    if (ioctl(0, TIOCGWINSZ, &window) == -1 || cursor.row < 0 || cursor.column < 0) return;
    if (cursor.column >= window.ws_col) {
        char message[64];
        std::snprintf(message, sizeof message, "error : please check for windows size(%d:%d)\n", window.ws_col,
                      window.ws_row);
        write(message);
        return;
    }
    // Comparing with the row count is deliberate: on a window with fewer rows than the
    // cursor's column the character goes to the end of the line.
    if (mLineBuffer.empty() || cursor.column < promptLength() + 1 || cursor.column >= window.ws_row) {
        mLineBuffer.push_back(c);
        echoCharacter(c);
        return;
    }
    const std::int64_t index = cursor.column - promptLength() - 2;
    if (index < 0) return;
    printPrompt(true);
    const auto at = static_cast<size_t>(std::min<std::int64_t>(index, static_cast<std::int64_t>(mLineBuffer.size())));
    mLineBuffer.insert(mLineBuffer.begin() + static_cast<std::ptrdiff_t>(at), c);
    showLine();
    moveCursor({cursor.row, cursor.column + 1});
}

void Terminal::backspace() {
    if (mLineBuffer.empty()) return;
    const CursorPosition cursor = queryCursorPosition();
    const std::int32_t column = cursor.column - 1;
    if (column <= promptLength() + 1) return;
    // The last character goes, wherever the cursor stands; the cursor moves one step left.
    printPrompt(true);
    mLineBuffer.pop_back();
    showLine();
    moveCursor({cursor.row, column});
}

void Terminal::moveRight() {
    if (mLineBuffer.empty()) return;
    const CursorPosition cursor = queryCursorPosition();
    if (cursor.column < 0) return;
    if (std::int64_t{cursor.column} + 1 > promptLength() + 2 + static_cast<std::int64_t>(mLineBuffer.size())) return;
    moveCursor({cursor.row, cursor.column + 1});
}

void Terminal::moveLeft() {
    if (mLineBuffer.empty()) return;
    const CursorPosition cursor = queryCursorPosition();
    if (cursor.column < 0 || cursor.column - 1 <= promptLength() + 1) return;
    moveCursor({cursor.row, cursor.column - 1});
}

void Terminal::showHistoryEntry() {
    printPrompt(true);
    const std::string& text = mHistory.at(static_cast<size_t>(mHistoryIndex)).text;
    mLineBuffer.assign(text.begin(), text.end());
    showLine();
}

void Terminal::historyUp() {
    if (mHistory.empty()) return;
    if (mHistoryIndex == -1) {
        mHistoryIndex = static_cast<std::int32_t>(mHistory.size() - 1);
    } else if (mHistoryIndex > 0) {
        --mHistoryIndex;
    }
    showHistoryEntry();
}

void Terminal::historyDown() {
    if (mHistory.empty() || mHistoryIndex == -1) return;
    if (static_cast<size_t>(mHistoryIndex) == mHistory.size() - 1) {
        printPrompt(true);
        mLineBuffer.clear();
        mHistoryIndex = -1;
        return;
    }
    ++mHistoryIndex;
    showHistoryEntry();
}

void Terminal::complete() {
    if (mLineBuffer.empty()) return;
    const std::string typed(mLineBuffer.begin(), mLineBuffer.end());
    std::vector<const std::string*> matches;
    for (const std::string& word : mCommandWords)
        if (word.compare(0, typed.size(), typed) == 0 && word.size() >= typed.size()) matches.push_back(&word);
    if (matches.empty()) return;
    if (matches.size() == 1) {
        printPrompt(true);
        write(*matches.front());
        echoCharacter(' ');
        const std::string completed = *matches.front() + " ";
        mLineBuffer.assign(completed.begin(), completed.end());
        return;
    }
    newLine();
    int count = 0;
    for (const std::string* match : matches) {
        if (++count > kMatchesPerRow) {
            newLine();
            count = 0;
        }
        write(*match + " ");
    }
    newLine();
    // The typed prefix is dropped: the user starts again on an empty line.
    mLineBuffer.clear();
    printPrompt(false);
}

std::string Terminal::finishLine() {
    if (const std::string* recalled = mHistory.recall(std::string(mLineBuffer.begin(), mLineBuffer.end()))) {
        newLine();
        write(*recalled);
        mLineBuffer.assign(recalled->begin(), recalled->end());
    }
    newLine();
    mHistoryIndex = -1;
    if (mLineBuffer.empty()) return {};
    std::string line(mLineBuffer.begin(), mLineBuffer.end());
    line.erase(line.find_last_not_of(" \n\r\t") + 1);
    mHistory.add(line);
    return line;
}

}  // namespace lumora::terminal
