"""The line editor, typed at key by key through a pty whose other end answers cursor queries
as a terminal does (pty_terminal.py), and the terminal's life: raw mode while the program
runs, the settings restored on every way out, and an instance rebuilt after it has been
destroyed. Prompt ">" puts the line's first character in column 3.
Usage: terminal_test.py path/to/editor-probe"""
import signal
import sys
import termios
import unittest

from pty_terminal import BACKSPACE, DOWN, LEFT, RIGHT, TAB, UP, PtyTerminal

PROBE = ""
QUERY = "\x1b[6n"
CLEAR = "\x1b[2J\x1b[1;1H\r> "


class ProbeTest(unittest.TestCase):
    def terminal(self, *arguments, rows=24, columns=80):
        """The probe with the prompt and command words `arguments`, closed after the test."""
        t = PtyTerminal(PROBE, arguments or (">",), rows, columns)
        self.addCleanup(t.close)
        return t


class Editor(ProbeTest):
    def test_typing_echoes_and_inserts_mid_line(self):
        t = self.terminal()
        self.assertEqual(t.take_output(), CLEAR)
        # The first character is echoed; each further one redraws the line, even at its end.
        t.type("abd")
        self.assertEqual(t.take_output(), QUERY + "a" + QUERY + "\x1b[2K\r> ab\x1b[1;5H" + QUERY + "\x1b[2K\r> abd\x1b[1;6H")
        t.key(LEFT)
        self.assertEqual(t.take_output(), QUERY + "\x1b[1;5H")
        t.type("c")
        self.assertEqual(t.take_output(), QUERY + "\x1b[2K\r> abcd\x1b[1;6H")
        self.assertEqual(t.row_text(1), "> abcd")
        t.enter()
        self.assertEqual(t.take_output(), "\n\r\r> ")
        self.assertEqual(t.lines, ["abcd"])

    def test_backspace_removes_the_last_character_wherever_the_cursor_is(self):
        t = self.terminal()
        t.key(BACKSPACE)
        self.assertEqual(t.take_output(), CLEAR, "an empty line asks nothing")
        t.type("abcd")
        t.key(LEFT)
        t.key(LEFT)
        t.take_output()
        t.key(BACKSPACE)
        self.assertEqual(t.take_output(), QUERY + "\x1b[2K\r> abc\x1b[1;4H")
        t.enter("X")
        # At the first character there is nothing to its left to move to.
        t.type("a")
        t.key(LEFT)
        t.take_output()
        t.key(BACKSPACE)
        self.assertEqual(t.take_output(), QUERY)
        t.key(RIGHT)
        t.key(BACKSPACE)
        self.assertEqual(t.row_text(2), ">")
        t.enter()
        self.assertEqual(t.lines, ["aXbc", ""])

    def test_left_and_right_stop_at_the_ends_of_the_line(self):
        t = self.terminal()
        t.key(LEFT)
        t.key(RIGHT)
        t.take_output()
        t.type("ab")
        self.assertEqual(t.column, 5)
        t.key(RIGHT)
        self.assertEqual(t.take_output(), QUERY + "a" + QUERY + "\x1b[2K\r> ab\x1b[1;5H" + QUERY, "no move past the end")
        t.key(LEFT)
        t.key(LEFT)
        self.assertEqual(t.column, 3)
        t.take_output()
        t.key(LEFT)
        self.assertEqual(t.take_output(), QUERY, "no move onto the prompt")
        t.key(RIGHT)
        t.key(RIGHT)
        self.assertEqual(t.column, 5, "one past the last character")
        t.key(RIGHT)
        self.assertEqual(t.column, 5)

    def test_arrows_walk_the_history_both_ways(self):
        t = self.terminal()
        t.key(DOWN)
        t.key(UP)
        self.assertEqual(t.take_output(), CLEAR, "no history, nothing to show")
        t.enter("a", "b")
        row = t.row
        t.key(UP)
        self.assertEqual(t.row_text(row), "> b")
        t.key(UP)
        self.assertEqual(t.row_text(row), "> a")
        t.key(UP)
        self.assertEqual(t.row_text(row), "> a", "stays on the oldest")
        t.key(DOWN)
        self.assertEqual(t.row_text(row), "> b")
        t.take_output()
        t.key(DOWN)
        self.assertEqual(t.take_output(), "\x1b[2K\r> ")
        t.key(DOWN)
        self.assertEqual(t.take_output(), "", "past the newest there is nothing")
        t.key(UP)
        t.enter("c", "", "@history")
        self.assertEqual(t.lines, ["a", "b", "bc", "", "@history"])
        self.assertIn("1 a\n2 b\n3 bc\n4 @history\n", t.take_output(), "an empty line is not recorded")

    def test_bang_recalls_an_entry_by_number_otherwise_the_line_is_literal(self):
        t = self.terminal()
        t.enter("one", "two")
        t.take_output()
        t.enter("!1")
        self.assertEqual(t.take_output(), QUERY + "!" + QUERY + "\x1b[2K\r> !1\x1b[3;5H\n\rone\n\r\r> ")
        literal = ["! 2", "!x", "!-1", "!9", "!", "!99999999999", "!1.0"]
        t.enter(*literal, "@history")
        self.assertEqual(t.lines, ["one", "two", "one", "two", *literal[1:], "@history"])
        self.assertIn("2 two\n3 one\n4 two\n5 !x\n", t.take_output(), "a recalled line is recorded again")

    def test_tab_completes_one_match_and_lists_several(self):
        t = self.terminal(">", "search", "select", "set", "search", "run", "setpl")
        t.key(TAB)
        t.type("xyz")
        t.take_output()
        t.key(TAB)
        self.assertEqual(t.take_output(), "", "no match")
        t.enter()
        t.type("sea")
        t.take_output()
        t.key(TAB)
        self.assertEqual(t.take_output(), "\x1b[2K\r> search ")
        t.enter()
        t.type("se")
        t.take_output()
        t.key(TAB)
        self.assertEqual(t.take_output(), "\n\rsearch select set setpl \n\r\r> ", "a word added twice is offered once")
        t.enter()
        self.assertEqual(t.lines, ["xyz", "search", ""], "the typed prefix is dropped")

        many = self.terminal(">", *(f"w{i}" for i in range(1, 11)))
        many.type("w")
        many.take_output()
        many.key(TAB)
        self.assertEqual(many.take_output(), "\n\rw1 w2 w3 w4 \n\rw5 w6 w7 w8 w9 \n\rw10 \n\r\r> ")

    def test_window_size_decides_where_characters_go(self):
        # The cursor column must stay below the column count.
        narrow = self.terminal("12345", rows=24, columns=10)
        narrow.type("abc")
        narrow.take_output()
        narrow.type("d")
        self.assertEqual(narrow.take_output(), QUERY + "error : please check for windows size(10:24)\n")
        narrow.enter()
        self.assertEqual(narrow.lines, ["abc"])
        # A cursor column not below the ROW count appends at the end of the line.
        flat = self.terminal(rows=5, columns=80)
        flat.type("abcdef")
        for _ in range(3):
            flat.key(LEFT)
        flat.enter("X")
        self.assertEqual(flat.lines, ["abcdefX"])

    def test_trailing_blanks_are_cut_and_a_blank_line_is_recorded_empty(self):
        t = self.terminal()
        t.enter("run   ", "   ", " get x ", "@history")
        self.assertEqual(t.lines, ["run", "", " get x", "@history"])
        self.assertIn("1 run\n2 \n3  get x\n4 @history\n", t.take_output())

    def test_malformed_cursor_replies_drop_the_key(self):
        t = self.terminal()
        t.type("ab")
        # No digits before ";" is row 0, and row 0 is written back as it is.
        t.replies.append("\x1b[;4R")
        t.take_output()
        t.type("X")
        self.assertEqual(t.take_output(), QUERY + "\x1b[2K\r> aXb\x1b[0;5H")
        # No digits before "R" is column 0, which is left of the line: the character is appended.
        t.replies.append("\x1b[1;R")
        t.type("Y")
        # A reply that does not start with ESC is dropped together with all pending input.
        t.replies.append("x[1;4R")
        t.type("Z")
        # Wrong terminators fail without discarding anything.
        t.replies.append("\x1b[1x")
        t.type("V")
        t.replies.append("\x1b[1;4x")
        t.type("W")
        # A number too large for 32 bits saturates.
        t.replies.append("\x1b[99999999999;4R")
        t.take_output()
        t.type("U")
        self.assertEqual(t.take_output(), QUERY + "\x1b[2K\r> aUXbY\x1b[2147483647;5H")
        t.enter()
        self.assertEqual(t.lines, ["aUXbY"])


class Terminal(ProbeTest):
    def test_raw_while_running_and_restored_on_every_way_out(self):
        ways = (("@exit", "@exit\n", 0), ("Ctrl-C", "\x03", signal.SIGINT), ("Ctrl-Z", "\x1a", signal.SIGTSTP),
                ("abort", "@abort\n", signal.SIGABRT), ("SIGFPE", "@fpe\n", signal.SIGFPE))
        for name, keys, status in ways:
            t = self.terminal()
            running = t.settings()
            # Raw: no line buffering and no echo, the rest as it was.
            self.assertEqual(running[3], t.initial[3] & ~(termios.ICANON | termios.ECHO), name)
            self.assertEqual(running[:3], t.initial[:3], name)
            for index in termios.VMIN, termios.VTIME:  # integers in raw mode, bytes otherwise
                self.assertEqual(bytes([running[6][index]]), t.initial[6][index], name)
            if keys.startswith("@"):
                t.type(keys)
            else:
                t.key(keys)
            self.assertEqual(t.wait_exit(), status, name)
            self.assertEqual(t.settings(), t.initial, name)

    def test_rebuilt_after_destruction_clears_the_screen_and_is_restored_at_exit(self):
        t = self.terminal()
        t.type("@rebuild")
        t.take_output()
        t.enter()
        # The rebuilt instance starts afresh: screen cleared, default prompt, raw again. (The
        # destruction discards output still in flight, so the line end may or may not be seen.)
        self.assertTrue(t.take_output().endswith("\x1b[2J\x1b[1;1H\r# "))
        self.assertEqual(t.settings()[3] & (termios.ICANON | termios.ECHO), 0)
        t.enter("@history")
        self.assertNotIn("@rebuild", t.take_output(), "the history went with the old instance")
        t.enter("@exit")
        self.assertEqual(t.wait_exit(), 0)
        self.assertEqual(t.settings(), t.initial)


if __name__ == "__main__":
    PROBE = sys.argv.pop(1)
    unittest.main()
