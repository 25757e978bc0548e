#!/usr/bin/env python3
"""How qva runs programs from files and the command line, checked from
outside: a script that begins with a UTF-8 byte-order mark runs; a folder
given as the script is a clear error; a run that both fails and leaks
reports both and says so in its exit status.
Usage: program_runs.py QVA LEAKY_MODULE"""
import os, subprocess, sys, tempfile

qva, leaky = sys.argv[1], sys.argv[2]
failures = []


def run(args, expect_rc, *expect_out):
    p = subprocess.run([qva] + args, capture_output=True, text=True)
    out = p.stdout + p.stderr
    if p.returncode != expect_rc:
        failures.append("%r: exit status %d, expected %d\n%s" % (args, p.returncode, expect_rc, out))
    for text in expect_out:
        if text not in out:
            failures.append("%r: %r missing from\n%s" % (args, text, out))


with tempfile.TemporaryDirectory() as tmp:
    bom = os.path.join(tmp, "bom.pro")
    with open(bom, "wb") as f:
        f.write(b"\xef\xbb\xbfPRINT, 'ran past the mark'\n")
    run([bom], 0, "ran past the mark")
    run([tmp], 1, "Unable to open file: %s (is a directory)." % tmp)

fails = "x = undefined_thing + 1"
run(["--module", leaky, "--check-leaks", "-e", "leak_a_block"], 3, "% Leak check failed")
run(["--module", leaky, "--check-leaks", "-e", fails], 1, "Variable is undefined: UNDEFINED_THING")
run(["--module", leaky, "--check-leaks", "-e", "leak_a_block & " + fails], 4,
    "Variable is undefined: UNDEFINED_THING", "% Leak check failed")
if failures:
    sys.stderr.write("FAIL:\n" + "\n".join(failures) + "\n")
    sys.exit(1)
print("program runs passed")
