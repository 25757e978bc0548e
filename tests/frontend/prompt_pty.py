#!/usr/bin/env python3
"""Drives the qva prompt in a pseudo-terminal as a person would: a
statement, an error that returns to the prompt, a line recalled from the
history with the up arrow, and EXIT.  Usage: prompt_pty.py QVA_BINARY"""
import os
import pty
import select
import sys
import tempfile
import time

PROMPT = b"QVA> "


def main():
    qva = sys.argv[1]
    home = tempfile.mkdtemp(prefix="qva_pty_")
    env = dict(os.environ, HOME=home, TERM="xterm", INPUTRC="/dev/null")
    pid, fd = pty.fork()
    if pid == 0:
        os.execve(qva, [qva, "--check-leaks"], env)
    seen = b""

    def read_until(pattern, count=1, timeout=10.0):
        nonlocal seen
        end = time.time() + timeout
        while seen.count(pattern) < count:
            left = end - time.time()
            if left <= 0:
                fail("timed out waiting for %r (x%d)" % (pattern, count))
            ready, _, _ = select.select([fd], [], [], left)
            if ready:
                try:
                    chunk = os.read(fd, 4096)
                except OSError:
                    chunk = b""
                if not chunk:
                    fail("qva closed the terminal while waiting for %r" % pattern)
                seen += chunk

    def fail(why):
        sys.stderr.write("FAIL: %s\n--- terminal so far ---\n%s\n" % (why, seen.decode(errors="replace")))
        try:
            os.kill(pid, 9)
        except OSError:
            pass
        sys.exit(1)

    def send(text):
        os.write(fd, text.encode())

    read_until(PROMPT, 1)
    send("x = 6 * 7\r")
    read_until(PROMPT, 2)
    send("print, x + 0\r")
    read_until(b"42", 1)
    read_until(PROMPT, 3)
    send("print, no_such_variable\r")
    read_until(b"Variable is undefined: NO_SUCH_VARIABLE.", 1)
    read_until(PROMPT, 4)
    # Up twice: back past the failing line to the PRINT of x.
    send("\x1b[A\x1b[A\r")
    read_until(b"42", 2)
    read_until(PROMPT, 5)
    # A multi-line construct continues on a second prompt.
    send("for i = 1, 2 do begin\r")
    read_until(b"...> ", 1)
    send("print, 'line', i\r")
    send("endfor\r")
    read_until(b"line           2", 1)
    read_until(PROMPT, 6)
    send("exit\r")
    _, status = os.waitpid(pid, 0)
    if not os.WIFEXITED(status) or os.WEXITSTATUS(status) != 0:
        fail("qva ended with status %r" % status)
    history = os.path.join(home, ".qva_history")
    if not os.path.exists(history) or b"x = 6 * 7" not in open(history, "rb").read():
        fail("the history was not saved to %s" % history)
    print("prompt session passed")


if __name__ == "__main__":
    main()
