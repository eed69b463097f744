// A minimal program around the line editor, driven by the terminal tests through a pty.
// Arguments: the prompt, then the command words. Each line the editor returns is written to
// descriptor 3, one per line; a few lines act instead of being echoed back:
//   "@history" prints the history, "@exit" returns from main, "@rebuild" destroys the
//   terminal and builds it again, "@abort" and "@fpe" raise those signals.
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include "terminal/Terminal.h"

using lumora::terminal::Terminal;

int main(int argc, char** argv) {
    Terminal& terminal = Terminal::getInstance();
    if (argc > 1) terminal.setPrompt(argv[1]);
    for (int i = 2; i < argc; ++i)
        terminal.addCommandWord(argv[i]);
    for (;;) {
        const std::string line = Terminal::getInstance().readLine() + "\n";
        if (::write(3, line.data(), line.size()) != static_cast<ssize_t>(line.size())) return 1;
        if (line == "@history\n") Terminal::getInstance().printHistory();
        if (line == "@exit\n") return 0;
        if (line == "@rebuild\n") {
            Terminal::getInstance().~Terminal();
            Terminal::getInstance();
        }
        if (line == "@abort\n") std::abort();
        if (line == "@fpe\n") std::raise(SIGFPE);
    }
}
