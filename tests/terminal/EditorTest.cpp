// The line editor, typed at key by key through a pty whose other end answers cursor
// queries as a terminal does. Prompt ">" puts the line's first character in column 3.
#include <gtest/gtest.h>

#include "PtyTerminal.h"

namespace {

using lumora::test::PtyTerminal;

const std::string kQuery = "\x1b[6n";

TEST(EditorTest, TypingEchoesAndInsertsMidLine) {
    PtyTerminal t(LUMORA_EDITOR_PROBE, {">"});
    EXPECT_EQ(t.takeOutput(), "\x1b[2J\x1b[1;1H\r> ");
    // The first character is echoed; each further one redraws the line, even at its end.
    t.type("abd");
    EXPECT_EQ(t.takeOutput(), kQuery + "a" + kQuery + "\x1b[2K\r> ab\x1b[1;5H" + kQuery + "\x1b[2K\r> abd\x1b[1;6H");
    t.left();
    EXPECT_EQ(t.takeOutput(), kQuery + "\x1b[1;5H");
    t.type("c");
    EXPECT_EQ(t.takeOutput(), kQuery + "\x1b[2K\r> abcd\x1b[1;6H");
    EXPECT_EQ(t.row(1), "> abcd");
    t.enter();
    EXPECT_EQ(t.takeOutput(), "\n\r\r> ");
    ASSERT_EQ(t.lines(), std::vector<std::string>{"abcd"});
}

TEST(EditorTest, BackspaceRemovesTheLastCharacterWhereverTheCursorIs) {
    PtyTerminal t(LUMORA_EDITOR_PROBE, {">"});
    t.backspace();
    EXPECT_EQ(t.takeOutput(), "\x1b[2J\x1b[1;1H\r> ") << "an empty line asks nothing";
    t.type("abcd");
    t.left();
    t.left();
    t.takeOutput();
    t.backspace();
    EXPECT_EQ(t.takeOutput(), kQuery + "\x1b[2K\r> abc\x1b[1;4H");
    t.type("X");
    t.enter();
    // At the first character there is nothing to its left to move to.
    t.type("a");
    t.left();
    t.takeOutput();
    t.backspace();
    EXPECT_EQ(t.takeOutput(), kQuery);
    t.right();
    t.backspace();
    EXPECT_EQ(t.row(2), ">");
    t.enter();
    EXPECT_EQ(t.lines(), (std::vector<std::string>{"aXbc", ""}));
}

TEST(EditorTest, LeftAndRightStopAtTheEndsOfTheLine) {
    PtyTerminal t(LUMORA_EDITOR_PROBE, {">"});
    t.left();
    t.right();
    t.takeOutput();
    t.type("ab");
    EXPECT_EQ(t.cursorColumn(), 5);
    t.right();
    EXPECT_EQ(t.takeOutput(), kQuery + "a" + kQuery + "\x1b[2K\r> ab\x1b[1;5H" + kQuery) << "no move past the end";
    t.left();
    t.left();
    EXPECT_EQ(t.cursorColumn(), 3);
    t.takeOutput();
    t.left();
    EXPECT_EQ(t.takeOutput(), kQuery) << "no move onto the prompt";
    t.right();
    t.right();
    EXPECT_EQ(t.cursorColumn(), 5) << "one past the last character";
    t.right();
    EXPECT_EQ(t.cursorColumn(), 5);
}

TEST(EditorTest, ArrowsWalkTheHistoryBothWays) {
    PtyTerminal t(LUMORA_EDITOR_PROBE, {">"});
    t.down();
    t.up();
    EXPECT_EQ(t.takeOutput(), "\x1b[2J\x1b[1;1H\r> ") << "no history, nothing to show";
    for (const char* line : {"a", "b"}) {
        t.type(line);
        t.enter();
    }
    const int row = t.cursorRow();
    t.up();
    EXPECT_EQ(t.row(row), "> b");
    t.up();
    EXPECT_EQ(t.row(row), "> a");
    t.up();
    EXPECT_EQ(t.row(row), "> a") << "stays on the oldest";
    t.down();
    EXPECT_EQ(t.row(row), "> b");
    t.takeOutput();
    t.down();
    EXPECT_EQ(t.takeOutput(), "\x1b[2K\r> ");
    t.down();
    EXPECT_EQ(t.takeOutput(), "") << "past the newest there is nothing";
    t.up();
    t.type("c");
    t.enter();
    t.enter();
    t.type("@history");
    t.enter();
    EXPECT_EQ(t.lines(), (std::vector<std::string>{"a", "b", "bc", "", "@history"}));
    EXPECT_NE(t.takeOutput().find("1 a\n2 b\n3 bc\n4 @history\n"), std::string::npos)
        << "an empty line is not recorded";
}

TEST(EditorTest, BangRecallsAnEntryByNumberOtherwiseTheLineIsLiteral) {
    PtyTerminal t(LUMORA_EDITOR_PROBE, {">"});
    for (const char* line : {"one", "two"}) {
        t.type(line);
        t.enter();
    }
    t.takeOutput();
    t.type("!1");
    t.enter();
    EXPECT_EQ(t.takeOutput(), kQuery + "!" + kQuery + "\x1b[2K\r> !1\x1b[3;5H\n\rone\n\r\r> ");
    for (const char* line : {"! 2", "!x", "!-1", "!9", "!", "!99999999999", "!1.0"}) {
        t.type(line);
        t.enter();
    }
    t.type("@history");
    t.enter();
    EXPECT_EQ(t.lines(), (std::vector<std::string>{"one", "two", "one", "two", "!x", "!-1", "!9", "!", "!99999999999",
                                                   "!1.0", "@history"}));
    EXPECT_NE(t.takeOutput().find("2 two\n3 one\n4 two\n5 !x\n"), std::string::npos)
        << "a recalled line is recorded again under a new number";
}

TEST(EditorTest, TabCompletesOneMatchAndListsSeveral) {
    PtyTerminal t(LUMORA_EDITOR_PROBE, {">", "search", "select", "set", "search", "run", "setpl"});
    t.tab();
    t.type("xyz");
    t.takeOutput();
    t.tab();
    EXPECT_EQ(t.takeOutput(), "") << "no match";
    t.enter();
    t.type("sea");
    t.takeOutput();
    t.tab();
    EXPECT_EQ(t.takeOutput(), "\x1b[2K\r> search ");
    t.enter();
    t.type("se");
    t.takeOutput();
    t.tab();
    EXPECT_EQ(t.takeOutput(), "\n\rsearch select set setpl \n\r\r> ") << "a word added twice is offered once";
    t.enter();
    EXPECT_EQ(t.lines(), (std::vector<std::string>{"xyz", "search", ""})) << "the typed prefix is dropped";

    PtyTerminal many(LUMORA_EDITOR_PROBE, {">", "w1", "w2", "w3", "w4", "w5", "w6", "w7", "w8", "w9", "w10"});
    many.type("w");
    many.takeOutput();
    many.tab();
    EXPECT_EQ(many.takeOutput(), "\n\rw1 w2 w3 w4 \n\rw5 w6 w7 w8 w9 \n\rw10 \n\r\r> ");
}

TEST(EditorTest, WindowSizeDecidesWhereCharactersGo) {
    // The cursor column must stay below the column count.
    PtyTerminal narrow(LUMORA_EDITOR_PROBE, {"12345"}, 24, 10);
    narrow.type("abc");
    narrow.takeOutput();
    narrow.type("d");
    EXPECT_EQ(narrow.takeOutput(), kQuery + "error : please check for windows size(10:24)\n");
    narrow.enter();
    EXPECT_EQ(narrow.lines(), std::vector<std::string>{"abc"});

    // A cursor column not below the ROW count appends at the end of the line.
    PtyTerminal flat(LUMORA_EDITOR_PROBE, {">"}, 5, 80);
    flat.type("abcdef");
    for (int i = 0; i < 3; ++i)
        flat.left();
    flat.type("X");
    flat.enter();
    EXPECT_EQ(flat.lines(), std::vector<std::string>{"abcdefX"});
}

TEST(EditorTest, TrailingBlanksAreCutAndABlankLineIsRecordedEmpty) {
    PtyTerminal t(LUMORA_EDITOR_PROBE, {">"});
    t.type("run   ");
    t.enter();
    t.type("   ");
    t.enter();
    t.type(" get x ");
    t.enter();
    t.type("@history");
    t.enter();
    EXPECT_EQ(t.lines(), (std::vector<std::string>{"run", "", " get x", "@history"}));
    EXPECT_NE(t.takeOutput().find("1 run\n2 \n3  get x\n4 @history\n"), std::string::npos);
}

TEST(EditorTest, MalformedCursorRepliesDropTheKey) {
    PtyTerminal t(LUMORA_EDITOR_PROBE, {">"});
    t.type("ab");
    // No digits before ";" is row 0, and row 0 is written back as it is.
    t.queueReply("\x1b[;4R");
    t.takeOutput();
    t.type("X");
    EXPECT_EQ(t.takeOutput(), kQuery + "\x1b[2K\r> aXb\x1b[0;5H");
    // No digits before "R" is column 0, which is left of the line: the character is appended.
    t.queueReply("\x1b[1;R");
    t.type("Y");
    // A reply that does not start with ESC is dropped together with all pending input.
    t.queueReply("x[1;4R");
    t.type("Z");
    // Wrong terminators fail without discarding anything.
    t.queueReply("\x1b[1x");
    t.type("V");
    t.queueReply("\x1b[1;4x");
    t.type("W");
    // A number too large for 32 bits saturates.
    t.queueReply("\x1b[99999999999;4R");
    t.takeOutput();
    t.type("U");
    EXPECT_EQ(t.takeOutput(), kQuery + "\x1b[2K\r> aUXbY\x1b[2147483647;5H");
    t.enter();
    EXPECT_EQ(t.lines(), std::vector<std::string>{"aUXbY"});
}

}  // namespace
