// The terminal's life: raw mode while the program runs, the settings restored on every way
// out, and an instance rebuilt after it has been destroyed.
#include <termios.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstring>

#include "PtyTerminal.h"

namespace {

using lumora::test::PtyTerminal;

void expect_same_settings(const termios& a, const termios& b, const std::string& when) {
    EXPECT_EQ(a.c_iflag, b.c_iflag) << when;
    EXPECT_EQ(a.c_oflag, b.c_oflag) << when;
    EXPECT_EQ(a.c_cflag, b.c_cflag) << when;
    EXPECT_EQ(a.c_lflag, b.c_lflag) << when;
    EXPECT_EQ(0, std::memcmp(a.c_cc, b.c_cc, sizeof a.c_cc)) << when;
}

TEST(TerminalTest, RawWhileRunningAndRestoredOnEveryWayOut) {
    struct Way {
        const char* name;
        const char* keys;
        int status;
    };
    const Way ways[] = {
        {"@exit", "@exit\n", 0},        {"Ctrl-C", "\x03", SIGINT},   {"Ctrl-Z", "\x1a", SIGTSTP},
        {"abort", "@abort\n", SIGABRT}, {"SIGFPE", "@fpe\n", SIGFPE},
    };
    for (const Way& way : ways) {
        PtyTerminal t(LUMORA_EDITOR_PROBE, {">"});
        const termios& before = t.initialSettings();
        const termios running = t.settings();
        EXPECT_EQ(running.c_lflag, before.c_lflag & ~tcflag_t{ICANON | ECHO}) << way.name;
        EXPECT_EQ(running.c_iflag, before.c_iflag) << way.name;
        EXPECT_EQ(running.c_oflag, before.c_oflag) << way.name;
        EXPECT_EQ(running.c_cc[VMIN], before.c_cc[VMIN]) << way.name;
        EXPECT_EQ(running.c_cc[VTIME], before.c_cc[VTIME]) << way.name;
        if (way.keys[0] == '@') {
            t.type(way.keys);
        } else {
            t.key(way.keys);
        }
        EXPECT_EQ(t.waitExit(), way.status) << way.name;
        expect_same_settings(t.settings(), before, way.name);
    }
}

TEST(TerminalTest, RebuiltAfterDestructionClearsTheScreenAndIsRestoredAtExit) {
    PtyTerminal t(LUMORA_EDITOR_PROBE, {">"});
    t.type("@rebuild");
    t.takeOutput();
    t.enter();
    // The rebuilt instance starts afresh: screen cleared, default prompt, raw again. (The
    // destruction discards output still in flight, so the line end may or may not be seen.)
    const std::string output = t.takeOutput();
    const std::string rebuilt = "\x1b[2J\x1b[1;1H\r# ";
    EXPECT_EQ(output.substr(output.size() - std::min(output.size(), rebuilt.size())), rebuilt);
    EXPECT_EQ(t.settings().c_lflag & tcflag_t{ICANON | ECHO}, 0u);
    t.type("@history");
    t.enter();
    EXPECT_EQ(t.takeOutput().find("@rebuild"), std::string::npos) << "the history went with the old instance";
    t.type("@exit");
    t.enter();
    EXPECT_EQ(t.waitExit(), 0);
    expect_same_settings(t.settings(), t.initialSettings(), "exit after a rebuild");
}

}  // namespace
