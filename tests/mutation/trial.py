"""A private copy of the tree in which one changed line after the other is built and tested."""

import dataclasses
import filecmp
import os
import re
import resource
import shutil
import signal
import subprocess
import time

PROGRAMS = ["zu_tier", "zu_tierctl", "restore_driver"]
TESTS = ["cli_tests", "fault_tests", "unit_tests", "tierctl_tests"]
UNIT_TESTS = ["unit_tests", "tests/libunit_test_cases.a"]
COPIED = ["CHANGELOG.md", "CMakeLists.txt", "CMakePresets.json", "README.md", "bench", "docs",
          "packaging", "scripts", "tests", "tier"]

# Run after all others: they take long and rarely tell more of the tool.
LAST = {"tierctl_tests": "*", "unit_tests": "TimeZones*"}

# Of a test executable and of each program that it starts. Images are sparse files; what a wrong
# tool writes without end is bounded by what it leaves of the memory and the disk.
FILE_SIZE = 16 << 40
ADDRESS_SPACE = 6 << 30
CPU_SECONDS = 300
MEMORY_LEFT = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE") // 5
DISK_LEFT = 4 << 30
BUILD_SECONDS = 900
TEST_SECONDS = 900

# The tests of a mutant run first if the name of their suite has a word that belongs to one of the
# name of the function or, where there is none, of the file.
SUBJECTS = {
    "brick": ["brick"], "convert": ["convert"], "calc": ["convert"], "map": ["convert"],
    "exp": ["expansion", "inodev2"], "extent": ["extent"], "hot": ["hot"], "inode": ["inode"],
    "json": ["json"], "option": ["commandline"], "packed": ["shard"], "params": ["commandline"],
    "restore": ["restore"], "sb": ["super"], "shard": ["shard"], "super": ["super"],
    "usage": ["usage"],
    "filter": ["filter"], "run": ["dispatch", "output"], "registry": ["dispatch"],
    "log": ["commandline", "dispatchlog"], "time": ["inodedump"], "areas": ["super"],
    "rules": ["super"], "driver": ["driver"],
    "utils": ["driver", "faults"],
    "format": ["super", "inode", "extent"], "literal": ["brick"], "digits": ["brick"],
    "record": ["brick"], "text": ["brick"], "debug": ["brick"], "bits": ["shard"],
}
ACTIONS = {"dump": "dump", "print": "dump", "repair": "repair", "parse": "repair"}


@dataclasses.dataclass
class Outcome:
    name: str  # refused, same, caught or survived
    cause: str = ""
    seconds: float = 0


class Copy:
    """The copy of `checkout` under `work`, its build, and what of it belongs to the clean tree."""

    def __init__(self, checkout, work, jobs):
        self.checkout, self.jobs = checkout, jobs
        self.tree, self.build = os.path.join(work, "tree"), os.path.join(work, "build")
        self.clean, self.scratch = os.path.join(work, "clean"), os.path.join(work, "scratch")
        self.suites = {}

    def prepare(self, known_good):
        """Copies, builds everything and, unless that is known, sees that the tests pass."""
        self.copy_tree()
        self.run_tool("cmake", "-G", "Ninja", "-S", self.tree, "-B", self.build,
                      "-DCMAKE_BUILD_TYPE=Release", "-DBUILD_TESTING=ON",
                      "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST")
        self.run_tool(*self.ninja(PROGRAMS + TESTS + ["zutr_faults"]))
        shutil.rmtree(self.clean, ignore_errors=True)
        for path in self.products():
            kept = os.path.join(self.clean, path)
            os.makedirs(os.path.dirname(kept), exist_ok=True)
            shutil.copy2(os.path.join(self.build, path), kept)
        for test in TESTS:
            self.suites[test] = self.list_suites(test)
        cause = None if known_good else self.failing_test(self.every_run())
        if cause:
            raise RuntimeError(f"the tests fail on the unchanged tree: {cause}")

    def copy_tree(self):
        """Touches only what differs, so that a second run builds little."""
        wanted = set()
        for top in COPIED:
            source = os.path.join(self.checkout, top)
            files = [source] if os.path.isfile(source) else [
                os.path.join(where, name) for where, _, names in os.walk(source) for name in names]
            wanted.update(os.path.relpath(path, self.checkout) for path in files
                          if "__pycache__" not in path)
        for path in wanted:
            source, target = os.path.join(self.checkout, path), os.path.join(self.tree, path)
            if not os.path.exists(target) or not filecmp.cmp(source, target, shallow=False):
                os.makedirs(os.path.dirname(target), exist_ok=True)
                shutil.copy(source, target)
        for where, _, names in os.walk(self.tree):
            for path in (os.path.join(where, name) for name in names):
                if os.path.relpath(path, self.tree) not in wanted:
                    os.remove(path)

    def run_tool(self, *command):
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if done.returncode != 0:
            raise RuntimeError(f"{' '.join(command)}:\n{done.stdout[-4000:]}")

    def ninja(self, targets):
        return ["ninja", "-C", self.build, "-j", str(self.jobs), *targets]

    def products(self):
        """What the sources of the tool go into, relative to the build."""
        for where, _, names in os.walk(self.build):
            for name in names:
                path = os.path.relpath(os.path.join(where, name), self.build)
                of_tool = path.startswith("tier/") or "/unit_test_cases.dir/" in path \
                    or "/restore_driver.dir/" in path
                if path in PROGRAMS + UNIT_TESTS or (name.endswith(".o") and of_tool):
                    yield path

    def stale(self):
        """Products that have been built since."""
        for where, _, names in os.walk(self.clean):
            for name in names:
                path = os.path.relpath(os.path.join(where, name), self.clean)
                kept, built = os.path.join(self.clean, path), os.path.join(self.build, path)
                if not os.path.exists(built) or stamp(built) != stamp(kept):
                    yield path

    def list_suites(self, test):
        listing = subprocess.run([os.path.join(self.build, test), "--gtest_list_tests"], check=True,
                                 capture_output=True, text=True).stdout
        return sorted(set(re.findall(r"^(\S+)\.", listing, re.MULTILINE)))

    # One mutant

    def try_mutant(self, mutant):
        begin = time.monotonic()
        path = os.path.join(self.tree, mutant.path)
        with open(path, encoding="utf-8") as file:
            text = file.read()
        changed = mutant.apply(text)
        if changed is None:
            return Outcome("gone")
        stamp = os.stat(path)
        try:
            with open(path, "w", encoding="utf-8") as file:
                file.write(changed)
            outcome = self.judge(mutant, text)
        finally:
            with open(path, "w", encoding="utf-8") as file:
                file.write(text)
            os.utime(path, ns=(stamp.st_atime_ns, stamp.st_mtime_ns))
            for product in list(self.stale()):
                shutil.copy2(os.path.join(self.clean, product), os.path.join(self.build, product))
        outcome.seconds = round(time.monotonic() - begin, 1)
        return outcome

    def judge(self, mutant, text):
        first = "zu_tierctl" if "/zu_tierctl/" in mutant.path else "zu_tier"
        if not self.builds([first]):
            return Outcome("refused")
        cause = self.failing_test(self.focus(mutant, text)) if self.differs() else None
        if cause is None and not self.builds(PROGRAMS):
            return Outcome("refused")
        if not self.differs():
            return Outcome("same")
        if cause is None and mutant.path.endswith(".cpp"):  # these need only be linked again
            cause = self.failing_unit_test()
        if cause is None and first == "zu_tier":  # the companion is no part of these
            cause = self.failing_test(self.most("cli_tests"))
        if cause is None:
            cause = self.failing_test(self.most("fault_tests"))
        if cause is None and not mutant.path.endswith(".cpp"):
            cause = self.failing_unit_test()
        if cause is None:
            cause = self.failing_test(self.last())
        return Outcome("caught", cause) if cause else Outcome("survived")

    def differs(self):
        """Whether any object code is not that of the clean tree."""
        objects = [path for path in self.stale() if path.endswith(".o")]
        return filecmp.cmpfiles(self.clean, self.build, objects, shallow=False)[0] != objects

    def builds(self, targets):
        return self.finish([self.start(self.ninja(targets), limited=False)], BUILD_SECONDS) is None

    def failing_unit_test(self):
        return self.failing_test(self.most("unit_tests")) if self.builds(["unit_tests"]) \
            else "the unit tests cannot be built"

    # Tests: a run is an executable and the environment that selects some of its tests.

    def most(self, test):
        """All but the last."""
        return self.parts(test, "*-" + LAST.get(test, ""))

    def last(self):
        return [run for test, pattern in LAST.items() for run in self.parts(test, pattern)]

    def parts(self, test, pattern):
        """As many runs as jobs."""
        return [(test, {"GTEST_FILTER": pattern, "GTEST_TOTAL_SHARDS": str(self.jobs),
                        "GTEST_SHARD_INDEX": str(part)}) for part in range(self.jobs)]

    def every_run(self):
        return [run for test in TESTS if LAST.get(test) != "*"
                for run in self.most(test)] + self.last()

    def focus(self, mutant, text):
        """Runs of those suites whose names speak of what the mutant is about."""
        if "/zu_tierctl/" in mutant.path:
            room = os.path.basename(os.path.dirname(mutant.path))
            about = [suite for suite in self.suites["tierctl_tests"] if room in suite.lower()]
            return self.parts("tierctl_tests", ":".join(suite + ".*" for suite in about) or "*")
        words = mutant.function_words(text)
        stem = os.path.basename(mutant.path).split(".")[0].split("_")
        about = {name for word in words for name in SUBJECTS.get(word, [])} \
            or {name for word in stem for name in SUBJECTS.get(word, [])}
        versions = {word for word in stem if re.fullmatch(r"v\d", word)}
        other = {"dump", "repair"} - {ACTIONS[word] for word in words if word in ACTIONS}
        runs = []
        for test in ("cli_tests", "fault_tests"):
            chosen = [suite for suite in self.suites[test]
                      if any(word in suite.lower() for word in about)
                      and (len(other) != 1 or not any(word in suite.lower() for word in other))
                      and (not versions or versions >= set(re.findall(r"v\d", suite.lower())))]
            if chosen:
                runs.append((test, {"GTEST_FILTER": ":".join(suite + ".*" for suite in chosen)}))
        return runs

    def failing_test(self, runs):
        """The first test that fails, or None. At most as many runs as jobs at once."""
        waiting = list(runs)
        while waiting:
            batch, waiting = waiting[:self.jobs], waiting[self.jobs:]
            shutil.rmtree(self.scratch, ignore_errors=True)
            os.makedirs(self.scratch)
            processes = [self.start([os.path.join(self.build, test), "--gtest_break_on_failure"],
                                    environment=environment, number=number)
                         for number, (test, environment) in enumerate(batch)]
            failed = self.finish(processes, TEST_SECONDS)
            detach_loops(self.scratch)
            if failed is not None:
                return failed if isinstance(failed, str) else self.name_of_failure(failed)
        return None

    def name_of_failure(self, number):
        with open(os.path.join(self.scratch, f"output{number}"), "rb") as file:
            output = file.read().decode(errors="replace")
        started = re.findall(r"^\[ RUN      \] (\S+)", output, re.MULTILINE)
        return started[-1] if started else "a test executable ended"

    def start(self, command, limited=True, environment=None, number=0):
        os.makedirs(self.scratch, exist_ok=True)
        environment = environment or {}
        limits = {resource.RLIMIT_FSIZE: FILE_SIZE,
                  resource.RLIMIT_AS: ADDRESS_SPACE,
                  resource.RLIMIT_CPU: CPU_SECONDS,
                  resource.RLIMIT_CORE: 0} if limited else {}

        def limit():
            os.setpgid(0, 0)
            os.nice(2)
            for kind, most in limits.items():
                resource.setrlimit(kind, (most, most))

        with open(os.path.join(self.scratch, f"output{number}"), "wb") as output:
            return subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                preexec_fn=limit, env={**os.environ, "TMPDIR": self.scratch,
                                       "ZU_TIER_PROGRAMS": self.build, **environment})

    def finish(self, processes, seconds):
        """Waits for all or the first that fails, and ends the others: its number, a word for what
        was exhausted, or None."""
        end = time.monotonic() + seconds
        try:
            while True:
                states = [process.poll() for process in processes]
                for number, state in enumerate(states):
                    if state not in (None, 0):
                        return number
                if None not in states:
                    return None
                if time.monotonic() > end:
                    return "time"
                if memory_left() < MEMORY_LEFT:
                    return "memory"
                if shutil.disk_usage(self.scratch).free < DISK_LEFT:
                    return "disk"
                time.sleep(0.05)
        finally:
            for process in processes:
                end_group(process)


def end_group(process):
    """A build first has the time to end its compilers, which have process groups of their own and
    would put wrong object code in the place of the right."""
    if process.args[0] == "ninja" and process.poll() is None:
        process.terminate()
        try:
            process.wait(60)
        except subprocess.TimeoutExpired:
            pass
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


def stamp(path):
    return os.stat(path).st_mtime_ns


def memory_left():
    with open("/proc/meminfo", encoding="ascii") as file:
        return int(re.search(r"MemAvailable:\s+(\d+)", file.read()).group(1)) << 10


def detach_loops(directory):
    """Loop devices that a killed test left on files in `directory`."""
    losetup = shutil.which("losetup", path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")
    if losetup is None:
        return
    listing = subprocess.run([losetup, "--list", "--noheadings", "--output", "NAME,BACK-FILE"],
                             check=False, capture_output=True, text=True).stdout
    for line in listing.splitlines():
        name, _, image = line.partition(" ")
        if image.strip().startswith(directory + "/"):
            subprocess.run([losetup, "--detach", name], check=False)
