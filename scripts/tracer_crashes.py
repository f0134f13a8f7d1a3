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
    # The tracer's crash ends in this line; a leak found reads "detected memory leaks" instead.
    others = [t for t in failed if "LeakSanitizer has encountered a fatal error" not in
              "\n".join(outputs.get(t, []))]
    if not failed or others:
        print("tracer_crashes: failed for other reasons: " + ", ".join(others or ["(none listed)"]))
        return 1
    print("tracer_crashes: LeakSanitizer's tracer crashed in " + ", ".join(failed) +
          "; running them once more")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
