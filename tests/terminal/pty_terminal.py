"""A terminal for the line editor's tests: runs a program on the slave side of a pty and
plays the terminal on the master side. It keeps a screen of rows x columns, follows the
cursor through text, "\\r", "\\n" and the "\\e[...H", "\\e[2J", "\\e[2K" sequences, and answers
"\\e[6n" with the cursor position as a real terminal does (or with replies a test queues
instead). Output processing is off, so "\\n" is not turned into "\\r\\n" on the way. The
program runs in a session of its own with the pty as its controlling terminal, and reports
on descriptor 3 the lines it read; it is killed at close() if still running."""
import fcntl
import os
import select
import struct
import termios
import time

PATIENCE = 10  # seconds: a broken editor fails the test instead of hanging it
ENTER, LEFT, RIGHT, UP, DOWN, BACKSPACE, TAB = "\n", "\x1b[D", "\x1b[C", "\x1b[A", "\x1b[B", "\x7f", "\t"


class PtyTerminal:
    def __init__(self, program, arguments, rows=24, columns=80):
        self.rows, self.columns, self.row, self.column = rows, columns, 1, 1
        self.screen = [" " * columns] * rows
        self.output, self.sequence, self.replies, self.lines, self.partial = "", None, [], [], b""
        self.master, self.slave = os.openpty()
        fcntl.ioctl(self.slave, termios.TIOCSWINSZ, struct.pack("4H", rows, columns, 0, 0))
        attributes = termios.tcgetattr(self.slave)
        attributes[1] &= ~termios.OPOST
        termios.tcsetattr(self.slave, termios.TCSANOW, attributes)
        self.initial = termios.tcgetattr(self.slave)
        self.reports, report_end = os.pipe()
        self.child = os.fork()
        if self.child == 0:
            try:
                os.setsid()
                fcntl.ioctl(self.slave, termios.TIOCSCTTY, 0)
                for fd in (0, 1, 2):
                    os.dup2(self.slave, fd)
                os.dup2(report_end, 3)
                os.execv(program, [program, *arguments])
            finally:
                os._exit(127)
        os.close(report_end)
        os.set_blocking(self.master, False)
        os.set_blocking(self.reports, False)
        self.switches_at_send = 0
        self.settle()

    def close(self):
        if self.child:
            os.kill(self.child, 9)
            os.waitpid(self.child, 0)
        for fd in (self.master, self.slave, self.reports):
            os.close(fd)

    def key(self, keys):
        """Types the bytes of one key and waits until the program has dealt with it."""
        self.send(keys)
        self.settle()

    def type(self, text):
        for character in text:
            self.key(character)

    def enter(self, *lines):
        """Types each line, or none, and Enter after it."""
        for line in lines or ("",):
            self.type(line)
            self.key(ENTER)

    def send(self, data):
        self.switches_at_send = self.switches()
        os.write(self.master, data.encode("latin-1"))

    def row_text(self, row):
        """The text of a screen row (1-based), trailing blanks cut."""
        return self.screen[row - 1].rstrip(" ")

    def take_output(self):
        """Every byte the program wrote since the last take_output()."""
        output, self.output = self.output, ""
        return output

    def wait_exit(self):
        """Waits for the program to end; its exit status, or 128 + signal."""
        deadline = time.monotonic() + PATIENCE
        while time.monotonic() < deadline:
            self.pump(0.01)
            pid, status = os.waitpid(self.child, os.WNOHANG)
            if pid:
                self.child = 0
                while self.pump(0):
                    pass
                code = os.waitstatus_to_exitcode(status)
                return code if code >= 0 else 128 - code
        raise AssertionError("the program did not end")

    def settings(self):
        """The terminal's settings as the program sees them (compare with self.initial)."""
        return termios.tcgetattr(self.slave)

    def proc(self, name):
        with open(f"/proc/{self.child}/{name}") as file:
            return file.read()

    def switches(self):
        status = self.proc("status")
        return int(status.split("voluntary_ctxt_switches:")[1].split()[0])

    def settle(self):
        """Until the program is idle: it has slept since the last bytes sent, sleeps in the
        terminal's read now (the kernel's wait channel tells, also for a program run by
        user-mode emulation), and neither input nor output is in flight; twice in a row,
        since bytes cross the pty asynchronously."""
        deadline, quiet = time.monotonic() + PATIENCE, 0
        while time.monotonic() < deadline:
            if self.pump(0.002):
                quiet = 0
                continue
            if ") Z" in self.proc("stat"):
                return
            pending = struct.unpack("i", fcntl.ioctl(self.slave, termios.FIONREAD, b"\0" * 4))[0]
            reading = self.proc("wchan") in ("n_tty_read", "wait_woken")
            quiet = quiet + 1 if pending == 0 and self.switches() > self.switches_at_send and reading else 0
            if quiet == 2:
                return
        raise AssertionError(f"the program did not settle; screen row {self.row}: {self.row_text(self.row)}")

    def pump(self, timeout):
        """Takes what the program wrote; true when it wrote anything."""
        if not select.select([self.master, self.reports], [], [], timeout)[0]:
            return False
        got = False
        while chunk := self.read(self.master):
            got = True
            for character in chunk.decode("latin-1"):
                self.feed(character)
        while chunk := self.read(self.reports):
            *lines, self.partial = (self.partial + chunk).split(b"\n")
            self.lines += [line.decode() for line in lines]
        return got

    @staticmethod
    def read(fd):
        try:
            return os.read(fd, 4096)
        except (BlockingIOError, OSError):
            return b""

    def feed(self, character):
        self.output += character
        if self.sequence == "\x1b":
            self.sequence = "" if character == "[" else None
        elif self.sequence is not None:
            if character.isdigit() or character == ";":
                self.sequence += character
            else:
                self.control(character, [int(p) if p else 0 for p in self.sequence.split(";")] + [0, 0])
                self.sequence = None
        elif character == "\x1b":
            self.sequence = "\x1b"
        elif character == "\r":
            self.column = 1
        elif character == "\n":
            self.line_feed()
        elif " " <= character != "\x7f":
            self.put(character)

    def control(self, final, parameters):
        if final == "H":
            self.row = min(max(parameters[0], 1), self.rows)
            self.column = min(max(parameters[1], 1), self.columns)
        elif final == "J" and parameters[0] == 2:
            self.screen = [" " * self.columns] * self.rows
        elif final == "K" and parameters[0] == 2:
            self.screen[self.row - 1] = " " * self.columns
        elif final == "n" and parameters[0] == 6:
            reply = f"\x1b[{self.row};{min(self.column, self.columns)}R"
            self.send(self.replies.pop(0) if self.replies else reply)

    def put(self, character):
        if self.column > self.columns:
            self.column = 1
            self.line_feed()
        line = self.screen[self.row - 1]
        self.screen[self.row - 1] = line[:self.column - 1] + character + line[self.column:]
        self.column += 1

    def line_feed(self):
        self.row += 1
        if self.row > self.rows:
            self.screen = self.screen[1:] + [" " * self.columns]
            self.row = self.rows
