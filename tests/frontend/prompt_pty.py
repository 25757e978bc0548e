#!/usr/bin/env python3
"""Drives the qva prompt in a pseudo-terminal as a person would: a statement,
an error that returns to the prompt, a line recalled from the history with
the up arrow, a block over two prompts, a line continued with '$', Ctrl-C during a running loop and
during typing, a definition with a syntax error, and EXIT.  The history
file holds each line as soon as it is entered.  Usage: prompt_pty.py QVA"""
import os, pty, select, sys, tempfile, time

qva = sys.argv[1]
home = tempfile.mkdtemp(prefix="qva_pty_")
pid, fd = pty.fork()
if pid == 0:
    env = dict(os.environ, HOME=home, TERM="xterm", INPUTRC="/dev/null")
    os.execve(qva, [qva, "--check-leaks"], env)
seen = b""


def fail(why):
    sys.stderr.write("FAIL: %s\n--- terminal ---\n%s\n" % (why, seen.decode(errors="replace")))
    os.kill(pid, 9)
    sys.exit(1)


def expect(pattern, count=1):
    global seen
    end = time.time() + 10
    while seen.count(pattern) < count:
        ready, _, _ = select.select([fd], [], [], max(0, end - time.time()))
        if not ready:
            fail("timed out waiting for %r (x%d)" % (pattern, count))
        try:
            chunk = os.read(fd, 4096)
        except OSError:
            chunk = b""
        if not chunk:
            fail("qva closed the terminal while waiting for %r" % pattern)
        seen += chunk


def step(text, *expected):
    """Types `text`, then waits for each (pattern, times seen in all)."""
    os.write(fd, text.encode())
    for pattern, count in expected:
        expect(pattern, count)


P = b"QVA> "
expect(P)
step("x = 6 * 7\r", (P, 2))
step("print, x + 0\r", (b"42", 1), (P, 3))
step("print, no_such_variable\r", (b"Variable is undefined: NO_SUCH_VARIABLE.", 1), (P, 4))
step("\x1b[A\x1b[A\r", (b"42", 2), (P, 5))  # up twice: past the failing line to the PRINT
step("for i = 1, 2 do begin\r", (b"...> ", 1))
step("print, 'line', i\rendfor\r", (b"line           2", 1), (P, 6))
history = os.path.join(home, ".qva_history")
if b"print, x + 0" not in open(history, "rb").read():
    fail("the history file does not hold the lines entered so far")

# Ctrl-C stops a running loop; the session keeps its variables and routines.
step("pro tick\r", (b"...> ", 2))
step("n = 0 & while 1 do n = n + 1\rend\r", (P, 7))
step("tick\r")
time.sleep(0.5)
step("\x03", (b"% Interrupted at: TICK", 1), (P, 8))
step("print, x * 2\r", (b"84", 1), (P, 9))
step("print, 'still here' & tick\r", (b"still here", 1))
time.sleep(0.3)
step("\x03", (b"% Interrupted at: TICK", 2), (P, 10))
# Ctrl-C at a half-typed line drops the line.
step("print, 'never run", )
step("\x03", (P, 11))
step("print, 'fresh line'\r", (b"fresh line", 1), (P, 12))
if b"never run" in seen.split(b"fresh line")[-1] or seen.count(b"Syntax error") > 0:
    fail("the interrupted line was run")
# A syntax error inside a definition: its remaining lines are skipped up to
# its END, none runs at main level, and the routine is not defined.
step("pro broken\r", (b"...> ", 3))
step("x = (1 +)\r", (b"Syntax error", 1), (b"definition is discarded", 1))
step("print, 'inside the definition'\r", (b"...> ", 5))
step("if 1 then begin\r", (b"...> ", 6))
step("endif\r", (b"...> ", 7))
step("end\r", (P, 13))
step("broken\r", (b"undefined procedure: 'BROKEN'", 1), (P, 14))
if b"inside the definition\r\n" in seen.replace(b"print, 'inside the definition'\r\n", b""):
    fail("a line of the discarded definition ran at main level")
# A line continued with '$' waits for the rest before running.
step("print, 'joined', $\r", (b"...> ", 8))
step("7\r", (b"joined           7", 1), (P, 15))
step("exit\r")
_, status = os.waitpid(pid, 0)
if not os.WIFEXITED(status) or os.WEXITSTATUS(status) != 0:
    fail("qva ended with status %r" % status)
if not os.path.exists(history) or b"x = 6 * 7" not in open(history, "rb").read():
    fail("the history was not saved to %s" % history)
print("prompt session passed")
