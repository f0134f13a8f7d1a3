#!/usr/bin/env python3
"""Says whether every test that failed in a ctest run failed only because LeakSanitizer's tracer
crashed (signal 11 while it stops the process's threads at exit, which happens now and then when
the embedded engine's threads are ending). Such a crash is the checker's, not a finding, and
the caller runs those tests once more. Exit status 0 if so (the tests are listed), 1 otherwise.

usage: tracer_crashes.py BUILD_DIR
"""
import pathlib
import re
import sys


FATAL = "LeakSanitizer has encountered a fatal error"
# Any of these is a finding of its own, whatever else the test printed.
FINDINGS = ("[  FAILED  ]", "runtime error:", "ERROR: AddressSanitizer",
            "detected memory leaks", "Failure\n")


def only_tracer(output):
    """Whether the tracer's crash is the test's only failure: a test of GoogleTest's must have
    passed, and a test of the docs must have as many failed commands as crashed tracers."""
    if FATAL not in output or any(f in output for f in FINDINGS):
        return False
    if "[==========]" in output and "[  PASSED  ]" not in output:
        return False
    commands_failed = len(re.findall(r"^\s+status -?\d+, not -?\d+:", output, re.M))
    return commands_failed <= output.count(FATAL)


def main(build):
    temporary = pathlib.Path(build) / "Testing" / "Temporary"
    failed_log = temporary / "LastTestsFailed.log"
    if not failed_log.exists():
        print("tracer_crashes: no failed tests recorded in " + str(failed_log))
        return 1
    failed = [line.split(":", 1)[1].strip() for line in failed_log.read_text().splitlines()
              if ":" in line]
    outputs, name = {}, None
    for line in (temporary / "LastTest.log").read_text(errors="replace").splitlines():
        heading = re.match(r"^\d+/\d+ Test: (.+)$", line)
        if heading:
            name = heading.group(1).strip()
            outputs[name] = []
        elif name:
            outputs[name].append(line)
    others = [t for t in failed if not only_tracer("\n".join(outputs.get(t, [])))]
    if not failed or others:
        print("tracer_crashes: failed for other reasons: " + ", ".join(others or ["(none listed)"]))
        return 1
    print("tracer_crashes: LeakSanitizer's tracer crashed in " + ", ".join(failed) +
          "; running them once more")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
