// Commands from a standard input that is not a terminal: a file or a pipe.
//
// Lines are taken as they arrive, so a pipe paces the session. Nothing is edited and no
// control sequence is written: each line is shown after its prompt as a terminal would
// show it once typed, so the output reads like the session. "!N" recalls history entry N
// as at a terminal; a line that begins with "#" is a comment and is neither shown nor run.
#pragma once

#include <optional>
#include <string>

#include "terminal/History.h"

namespace lumora::terminal {

// Only the shell thread uses it.
class ScriptReader {
public:
    // Reads from the descriptor, which stays open.
    explicit ScriptReader(int fd);

    // Waits for the next line that is not a comment, writes "PROMPT LINE\n" to standard
    // output and returns the line without trailing " \n\r\t"; a recalled entry is shown on
    // a line of its own. A non-empty line is recorded in the history. Nothing at the end
    // of the input (a last line without a newline still counts) or on a read error.
    std::optional<std::string> readLine(const std::string& prompt);
    const History& history() const { return mHistory; }

private:
    std::optional<std::string> nextLine();

    int mFd;
    std::string mPending;
    bool mEnded = false;
    History mHistory;
};

}  // namespace lumora::terminal
