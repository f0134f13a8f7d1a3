#!/usr/bin/env python3
"""Every command the docs show runs, so that docs and program cannot drift apart.

    check_docs.py FBCDC SOURCE_DIR

Each `fbcdc` (or `printf`) line of a ```sh block of README.md and docs/*.md runs, page after page
and in order, in one scratch directory holding a small demo's files under the demo's names
(out/demo/logs, out/demo/source.fdb, out/demo/replica.fdb), and must end with status 0, or N where
the line ends in "# exit N". One directory for all: a copy of the logs would change their
status-change times, and so their order (docs/publication-order.md). A line with `--sink kafka`
gets librdkafka's mock cluster (-X test.mock.num.brokers=1), one with `--sink redis` the address of
a redis-server started here on a free loopback port. A `follow` or `apply --follow` that waits for
more logs is stopped after a while with SIGTERM and must end with status 0. Any other line of a sh
block must be one that another test or CI runs. Every long option the pages name must be one the
program has, and each option of the program must be in docs/commands.md.
"""
import glob, os, re, shlex, shutil, signal, socket, subprocess, sys, tempfile, time

fbcdc, source = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
pages = [os.path.join(source, "README.md")] + sorted(glob.glob(source + "/docs/*.md"))
USAGE = subprocess.run([fbcdc, "--help"], capture_output=True, text=True).stdout
COMMANDS = re.findall(r"^  (\w+) ", USAGE, re.M)
FOREIGN = {"--prefix", "--install", "--wrap", "--gtest_filter", "--benchmark_filter", "--now"}
RUN_HERE = re.compile(r"^(fbcdc|printf) ")
# Run by CI (scripts/test.sh runs the test and fuzz scripts and ctest), or by ctest itself (the
# consumer's and the package's tests install, build and pack).
ELSEWHERE = re.compile(r"^(sh (scripts|bench|fuzz)/\S+\.sh\b|cmake --install |c\+\+ |build/tests/"
                       r"|cd build && cpack -G DEB)")
failures = []


def sh_lines(page):
    """The logical lines of the page's sh blocks, with their line numbers."""
    lines, inside, pending = [], False, None
    for number, line in enumerate(open(page, encoding="utf-8"), 1):
        line = line.rstrip("\n")
        if line.startswith("```"):
            inside = line == "```sh"
        elif inside and line.strip():
            part = line.rstrip("\\").strip()
            pending = (number, part) if pending is None else (pending[0], pending[1] + " " + part)
            if not line.endswith("\\"):
                lines.append(pending)
                pending = None
    return lines


def options(command):
    text = subprocess.run([fbcdc, "help", command], capture_output=True, text=True).stdout
    return set(re.findall(r"^\s+(?:-\w,)?(--[\w-]+|-\w)\b", text, re.M))


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def run(line, cwd, redis_port):
    """Whether line ends as it says; otherwise why not."""
    expected = re.search(r"#\s*exit (\d+)\s*$", line)
    expected = int(expected.group(1)) if expected else 0
    if "--sink kafka" in line:
        line = line.split("#")[0] + " -X test.mock.num.brokers=1"
    if "--sink redis" in line:
        line = re.sub(r"--redis \S+", "", line.split("#")[0]) + " --redis 127.0.0.1:%d" % redis_port
    words = shlex.split(line, comments=True)
    waits = words[1:2] == ["follow"] and not {"--once", "--until", "--to"} & set(words)
    waits = waits or (words[1:2] == ["apply"] and "--follow" in words)
    env = dict(os.environ, PATH=os.path.dirname(fbcdc) + os.pathsep + os.environ["PATH"])
    if waits:
        process = subprocess.Popen([fbcdc] + words[1:], cwd=cwd, env=env, text=True,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        time.sleep(2)
        process.send_signal(signal.SIGTERM)
        status, err = process.wait(timeout=60), process.stderr.read()
    else:
        done = subprocess.run(["bash", "-o", "pipefail", "-c", line], cwd=cwd, env=env, text=True,
                              timeout=120, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        status, err = done.returncode, done.stderr
    return status == expected, "status %d, not %d: %s" % (status, expected, err.strip()[-300:])


scratch = tempfile.mkdtemp(prefix="fbcdc-docs-")
redis_port = free_port()
redis = subprocess.Popen(["redis-server", "--port", str(redis_port), "--bind", "127.0.0.1",
                          "--save", "", "--appendonly", "no"], stdout=subprocess.DEVNULL)
try:
    subprocess.run([fbcdc, "demo", "--dir", "out/demo", "--transactions", "30", "--max-blob",
                    "65536"], cwd=scratch, check=True, stdout=subprocess.DEVNULL)
    ran = 0
    for page in pages:
        name = os.path.relpath(page, source)
        for number, line in sh_lines(page):
            if RUN_HERE.match(line):
                ok, why = run(line, scratch, redis_port)
                ran += 1
                if not ok:
                    failures.append("%s:%d: %s\n    %s" % (name, number, line, why))
                continue
            command = re.sub(r"^(\w+=\S+ )+", "", line)
            script = command.split()[1] if command.startswith("sh ") else ""
            if not ELSEWHERE.match(command) or script and not os.path.exists(source + "/" + script):
                failures.append("%s:%d: no test runs this line: %s" % (name, number, line))
    program = set().union(*(options(c) for c in COMMANDS), re.findall(r"--[\w-]+", USAGE))
    for page in pages:
        text = open(page, encoding="utf-8").read()
        for option in sorted(set(re.findall(r"(?<![\w-])--[A-Za-z][\w-]*", text))):
            if option not in program | FOREIGN:
                failures.append("%s: names %s, which fbcdc does not have"
                                % (os.path.relpath(page, source), option))
    reference = open(source + "/docs/commands.md", encoding="utf-8").read()
    for command in COMMANDS:
        for option in sorted(options(command) - {"-h", "--help"}):
            if "`" + option not in reference:
                failures.append("docs/commands.md: says nothing of %s %s" % (command, option))
finally:
    redis.terminate()
    redis.wait()
    shutil.rmtree(scratch, ignore_errors=True)
print("\n".join(failures) or "%d commands of %d pages ran as the pages say" % (ran, len(pages)))
sys.exit(1 if failures else 0)
