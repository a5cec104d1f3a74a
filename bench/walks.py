#!/usr/bin/env python3
"""Times whole walks against their yardsticks, in pairs that run in turn on one processor.

    walks.py PROGRAMS WORK [--disk DISK] [--pairs N] [--only PART] [--json FILE]

PROGRAMS is a build directory. WORK takes images and outputs; on a file system in memory, and as root,
the images are attached as block devices. Before a pair is timed the two outputs are compared.
DISK, a directory on a disk, takes the images that the companion reads. The largest table has
ZU_TIER_BENCH_EXTENTS entries, 2^30 if that is not set: 8 GiB, and as much again for its copies.
PART is companion, salvage or largest: nothing else is measured.
"""

import argparse
import contextlib
import json
import mmap
import os
import re
import shutil
import statistics
import subprocess
import sys
import time

NOTHING = "/dev/null"

IMAGES = {
    "v1": ["--layout", "v1", "--inodes", "40000", "--blocks", "40000", "--extent-size", "568"],
    "v2": ["--layout", "v2", "--inodes", "40000", "--blocks", "40000", "--block-size", "524288"],
    "v3": ["--layout", "v3", "--shards", "524288", "--extents", "4194304"],
    "few": ["--layout", "v3", "--shards", "512", "--extents", "1048576"],
}


# What the companion reads: 1.2 GiB each.
TABLES = ["--inodes", "100000", "--blocks", "200000"]
DISK_IMAGES = {
    "v1": ["--layout", "v1", *TABLES, "--extent-size", "568"],
    "v2": ["--layout", "v2", *TABLES, "--block-size", "524288"],
}
DEPTHS = (1, 2, 4, 8, 16)

# Of which the companion salvages the data: 256 to 640 MiB in use.
DATA_IMAGES = {
    "v1": ["--layout", "v1", "--blocks", "640"],
    "v2": ["--layout", "v2", "--blocks", "1280", "--block-size", "524288"],
    "v3": ["--layout", "v3", "--extents", "32768", "--blocks", "32768", "--block-size", "16384"],
}
SALVAGE_READ = 1 << 20
# The largest table that there is, how many of its entries claim what another does, and the goal.
LARGEST = 1 << 30
PLANTED = 20
LARGEST_SECONDS = 60
LARGEST_MIB = 512


class Bench:
    def __init__(self, programs, work, disk, pairs):
        self.programs, self.work, self.disk, self.pairs = programs, work, disk, pairs
        self.loops, self.devices, self.rows = [], {}, []

    def path(self, name):
        return os.path.join(self.work, name)

    def program(self, name):
        return os.path.join(self.programs, name)

    def make_images(self):
        for name, sizes in IMAGES.items():
            image = self.path(name + ".img")
            subprocess.run([self.program("zu_tierctl"), "sample", "--force", *sizes, image], check=True)
            self.devices[name] = self.attach(image)

    def attach(self, image):
        """A block device over the file where that is possible, else the file."""
        try:
            loop = subprocess.run(["losetup", "--find", "--show", "--read-only", image], check=True,
                                  capture_output=True, text=True).stdout.strip()
        except (OSError, subprocess.CalledProcessError):
            return image
        self.loops.append(loop)
        return loop

    def attach_directly(self, image):
        """A block device over the file, past the page cache; None where there is none."""
        try:
            loop = subprocess.run(["losetup", "--find", "--show", "--read-only", "--direct-io=on", image],
                                  check=True, capture_output=True, text=True).stdout.strip()
        except (OSError, subprocess.CalledProcessError):
            return None
        self.loops.append(loop)
        return loop

    def detach(self):
        for loop in self.loops:
            subprocess.run(["losetup", "-d", loop], check=False)

    def tool(self, layout, command, *options):
        return [self.program("zu_tier"), "-p", self.devices[layout], "-c", command, *options]

    def straightforward(self, layout, table, *options):
        return [self.program("straightforward"), self.devices[layout], table, *options]

    def run(self, command, output, env, status=0):
        """Wall time in seconds, with new files to write to."""
        for leftover in (output, *command):
            if leftover.startswith(self.work) and not leftover.endswith(".img"):
                with contextlib.suppress(FileNotFoundError):
                    os.remove(leftover)
        with open(output, "wb") as out:
            begin = time.perf_counter()
            ended = subprocess.run(command, stdout=out, stderr=subprocess.DEVNULL, env=env)
            seconds = time.perf_counter() - begin
        if ended.returncode != status:
            sys.exit(f"{' '.join(command)}: exit status {ended.returncode}")
        return seconds

    def outputs_are_equal(self, first, second, env):
        outputs = [self.path("first.out"), self.path("second.out")]
        for command, output in zip((first, second), outputs):
            self.run(command, output, env)
        equal = subprocess.run(["cmp", "-s", *outputs]).returncode == 0
        for output in outputs:
            os.remove(output)
        time.sleep(0.5)  # the memory of the outputs is freed in the background
        return equal

    def pair(self, yardstick, command, output, env):
        """The medians of both, run in turn. A run that is not timed goes before each, so that memory and
        caches are equally warm for both."""
        times = [[], []]
        for _ in range(self.pairs):
            for i, one in enumerate((yardstick, command)):
                self.run(one, output, env)
                times[i].append(self.run(one, output, env))
        return [statistics.median(t) for t in times]

    def row(self, name, goal, ratio, met, detail):
        self.rows.append({"walk": name, "goal": goal, "ratio": round(ratio, 2), "met": met, **detail})
        print(f"{name:58} {goal:>10} {ratio:8.2f}  {'pass' if met else 'short'}", flush=True)

    def faster(self, name, goal, yardstick, command, output=NOTHING, **env):
        env = {"PATH": os.environ["PATH"], **env}
        if not self.outputs_are_equal(yardstick, command, env):
            sys.exit(f"{name}: the outputs differ")
        slow, fast = self.pair(yardstick, command, output, env)
        self.row(name, f"{goal} x", slow / fast, slow / fast >= goal,
                 {"yardstick_s": round(slow, 4), "tool_s": round(fast, 4)})

    def within(self, name, goal, yardstick, command):
        env = {"PATH": os.environ["PATH"], "TZ": "UTC"}
        bare, walk = self.pair(yardstick, command, NOTHING, env)
        self.row(name, f"<= {goal}", walk / bare, walk / bare <= goal,
                 {"yardstick_s": round(bare, 4), "tool_s": round(walk, 4)})

    def full_walks(self):
        null_log = ["-l", NOTHING]
        for table, goal in (("extent", 18), ("shard", 14)):
            yardstick = self.straightforward("v3", "v3_" + table)
            command = self.tool("v3", "dump_" + table, *null_log)
            self.faster(f"V3 dump_{table} to /dev/null", goal, yardstick, command)
            self.faster(f"V3 dump_{table} to a new file", 6, yardstick, command, self.path("new.out"))
        for layout in ("v1", "v2"):
            yardstick = self.straightforward(layout, layout + "_inode")
            command = self.tool(layout, "dump_inode", *null_log)
            self.faster(f"{layout.upper()} dump_inode, TZ unset", 5.5, yardstick, command)
            self.faster(f"{layout.upper()} dump_inode, TZ set", 3.5, yardstick, command, TZ="Europe/Berlin")
        self.faster("V2 dump_extent, 16 pieces an extent", 5.5, self.straightforward("v2", "v2_extent"),
                    self.tool("v2", "dump_extent", *null_log))
        self.faster("V1 dump_extent, a bitmap of 64 words", 10, self.straightforward("v1", "v1_extent"),
                    self.tool("v1", "dump_extent", *null_log))

    def bare_reads(self):
        dump = subprocess.run(self.tool("v2", "dump_super"), capture_output=True, text=True, check=True)
        super_block = json.loads(dump.stdout)
        inodes = 0x101000 + super_block["brick_table_size"]
        extents = inodes + super_block["inode_table_size"]
        for table, start, count, goal in (("inode", inodes, super_block["inode_cnt"], 1.5),
                                          ("extent", extents, super_block["block_cnt"], 1.9)):
            self.within(f"V2 dump_{table} against bare reads", goal,
                        [self.program("bare_reads"), self.devices["v2"], str(start), str(count * 4096)],
                        self.tool("v2", "dump_" + table, "-l", NOTHING))

    def questions(self):
        """Rows of zu_tierctl sql, against the entries that check goes over in the same time."""
        companion, device = self.program("zu_tierctl"), self.devices["v3"]
        self.within("V3 sql, count and sum over extents, against check", 5,
                    [companion, "check", "--table", "extent", device],
                    [companion, "sql", device, "SELECT count(*), sum(dirty) FROM extent"])
        database = self.path("new.db")
        seconds = self.run([companion, "sql", "--into", database, device], NOTHING, dict(os.environ))
        rows = 4194304 / seconds / 1e6
        self.row("V3 sql --into, million rows a second", ">= 1", rows, rows >= 1, {"tool_s": round(seconds, 4)})

    def filtered_walks(self):
        """An owner with a few entries in nearly every block: each of the others makes a line."""
        owner = "1"
        log, other_log = self.path("walk.log"), self.path("straightforward.log")
        command = self.tool("few", "dump_extent", "-g", "owner=" + owner)
        yardstick = self.straightforward("few", "v3_extent", owner)
        self.faster("V3 dump_extent -g owner, a log file in memory", 8, [*yardstick, other_log],
                    [*command, "-l", log])
        self.faster("V3 dump_extent -g owner, a log that keeps nothing", 8, [*yardstick, NOTHING],
                    [*command, "-l", NOTHING])
        self.faster("V3 dump_extent -g owner, nothing to log to", 1.7, yardstick, command)

    def companion(self):
        """Reads in flight, against fio and against reads one after the other."""
        for layout, sizes in DISK_IMAGES.items():
            image = os.path.join(self.disk, layout + ".img")
            subprocess.run([self.program("zu_tierctl"), "sample", "--force", *sizes, image], check=True)
            subprocess.run(["sync", image], check=True)
            name, tables = layout.upper(), self.tables(image)
            self.check_against_fio(f"{name} check of a file", image, tables)
            loop = self.attach_directly(image)
            if loop is not None:
                self.check_against_fio(f"{name} check of a loop device", loop, tables)
            if layout == "v1":
                self.diff_and_save(image, tables)
            self.in_flight(name, image)
            self.detach()
            self.loops.clear()
            os.remove(image)

    def tables(self, image):
        """Where the tables of V1 and V2 lie, one after the other: offset and length."""
        dump = subprocess.run([self.program("zu_tier"), "-p", image, "-c", "dump_super"],
                              capture_output=True, text=True, check=True)
        super_block = json.loads(dump.stdout)
        length = (super_block["brick_table_size"] + super_block["inode_table_size"] +
                  super_block["block_cnt"] * 4096)
        return 0x101000, length

    def fio(self, path, tables, depth):
        """What fio reads of the tables in a second, in bytes."""
        report = subprocess.run(["fio", "--name=read", "--filename=" + path, "--readonly", "--rw=read",
                                 "--direct=1", "--bs=1M", "--ioengine=libaio", f"--iodepth={depth}",
                                 f"--offset={tables[0]}", f"--size={tables[1]}", "--output-format=json"],
                                check=True, capture_output=True, text=True).stdout
        return json.loads(report)["jobs"][0]["read"]["bw_bytes"]

    def against_fio(self, name, goal, path, tables, command, times=1):
        """The command reads `times` as much as fio, at its best depth: the medians of both, run in turn."""
        best = max(DEPTHS, key=lambda depth: self.fio(path, tables, depth))
        env, yardsticks, tools = {"PATH": os.environ["PATH"]}, [], []
        for _ in range(self.pairs):
            yardsticks.append(tables[1] / self.fio(path, tables, best))
            tools.append(self.run(command, NOTHING, env) / times)
        slow, fast = statistics.median(tools), statistics.median(yardsticks)
        self.row(f"{name} against fio, depth {best}", f">= {goal}", fast / slow, fast / slow >= goal,
                 {"yardstick_s": round(fast, 4), "tool_s": round(slow, 4)})

    def check_against_fio(self, name, path, tables):
        self.against_fio(name, 0.8, path, tables, [self.program("zu_tierctl"), "check", path])

    @staticmethod
    def copy(image, copy):
        """With its holes, and on the disk."""
        subprocess.run(["cp", "--sparse=always", image, copy], check=True)
        subprocess.run(["sync", copy], check=True)

    def diff_and_save(self, image, tables):
        copy = os.path.join(self.disk, "copy.img")
        self.copy(image, copy)
        self.against_fio("V1 diff of two files", 0.8, image, tables,
                         [self.program("zu_tierctl"), "diff", image, copy], times=2)
        os.remove(copy)
        self.save_against_dd("V1 save of a file", image, tables, self.pairs)

    def save_against_dd(self, name, image, tables, pairs):
        copy, saved = os.path.join(self.disk, "copy.img"), os.path.join(self.disk, "saved.img")
        plain = ["dd", "if=" + image, "of=" + copy, "bs=1M", "iflag=direct,skip_bytes,count_bytes",
                 f"skip={tables[0]}", f"count={tables[1]}", "conv=fsync"]
        save = [self.program("zu_tierctl"), "save", image, saved]
        times = ([], [])
        for _ in range(pairs):
            for command, made, one in zip((plain, save), (copy, saved), times):
                one.append(self.run(command, NOTHING, {"PATH": os.environ["PATH"]}))
                os.remove(made)
        slow, fast = (statistics.median(one) for one in times)
        self.row(f"{name} against dd", ">= 0.7", slow / fast, slow / fast >= 0.7,
                 {"yardstick_s": round(slow, 4), "tool_s": round(fast, 4)})

    def largest(self):
        """A full table, against the time that fio takes to read it once."""
        extents = int(os.environ.get("ZU_TIER_BENCH_EXTENTS", LARGEST))
        pairs = min(self.pairs, 3)
        ctl, image = self.program("zu_tierctl"), os.path.join(self.disk, "largest.img")
        subprocess.run([ctl, "sample", "--force", "--layout", "v3", "--shards", "524288", "--block-size",
                        "8192", "--extents", "512", image], check=True)
        planted = subprocess.run([self.program("full_extents"), image, str(extents), str(PLANTED)],
                                 check=True, capture_output=True, text=True).stdout
        check = [ctl, "check", "--json", "--all", image]
        report = json.loads(subprocess.run(check, stdout=subprocess.PIPE, text=True).stdout)
        found = [(one["no"], int(one["text"].split()[-1])) for one in report["findings"]]
        if found != sorted(tuple(map(int, line.split())) for line in planted.splitlines()):
            sys.exit(f"check of {image}: other findings than were planted")

        dump = subprocess.run([self.program("zu_tier"), "-p", image, "-c", "dump_super", "-l", NOTHING],
                              capture_output=True, text=True, check=True)
        table = json.loads(dump.stdout)["extent_table_offset"], extents * 8
        best = max(DEPTHS, key=lambda depth: self.fio(image, table, depth))
        for name, command, status in (("check", check, 1), ("map", [ctl, "map", image], 0),
                                      ("diff", [ctl, "diff", image, image], 0)):
            env, yardsticks, tools = {"PATH": os.environ["PATH"]}, [], []
            for _ in range(pairs):
                yardsticks.append(table[1] / self.fio(image, table, best))
                tools.append(self.run(command, NOTHING, env, status))
            seconds, goal = statistics.median(tools), LARGEST_SECONDS * extents / LARGEST
            self.row(f"V3 {name} of {extents} extents in s", f"< {goal:g}", seconds, seconds < goal,
                     {"yardstick_s": round(statistics.median(yardsticks), 4), "tool_s": round(seconds, 4)})
        timed = subprocess.run(["time", "-f", "%M", *check], stdout=subprocess.DEVNULL,
                               stderr=subprocess.PIPE, text=True).stderr
        peak = int(timed.split()[-1]) / 1024
        self.row(f"V3 check of {extents} extents, peak memory in MiB", f"<= {LARGEST_MIB}", peak,
                 peak <= LARGEST_MIB, {})
        self.save_against_dd(f"V3 save of {extents} extents", image, table, pairs)
        os.remove(image)

    def in_flight(self, name, image):
        """The image in memory, and every read takes a millisecond longer."""
        copy = self.path("slow.img")
        self.copy(image, copy)
        env = {"PATH": os.environ["PATH"], "LD_PRELOAD": self.program("slow_reads.so")}
        times = ([], [])
        for _ in range(self.pairs):
            for one_at_a_time, one in zip(({"ONE_AT_A_TIME": "1"}, {}), times):
                one.append(self.run([self.program("zu_tierctl"), "check", copy], NOTHING,
                                    {**env, **one_at_a_time}))
        slow, fast = (statistics.median(one) for one in times)
        self.row(f"{name} check, 1 ms more a read, against one at a time", "4 x", slow / fast,
                 slow / fast >= 4, {"yardstick_s": round(slow, 4), "tool_s": round(fast, 4)})
        os.remove(copy)

    def salvages(self):
        """The data of files of an image on a disk, to memory, against reads of the same blocks one after
        the other, as dd makes them with iflag=direct bs=1M."""
        ctl, env = self.program("zu_tierctl"), {"PATH": os.environ["PATH"]}
        for layout, sizes in DATA_IMAGES.items():
            image, into = os.path.join(self.disk, "data.img"), self.path("salvaged")
            subprocess.run([ctl, "sample", "--force", "--data", *sizes, image], check=True)
            subprocess.run(["sync", image], check=True)
            command = [ctl, "salvage", "--all", image, into]
            self.run(command, NOTHING, env)
            stretches = self.stretches(os.path.join(into, "manifest.ndjson"))
            times = ([], [])
            for _ in range(self.pairs):
                times[0].append(self.read_directly(image, stretches))
                shutil.rmtree(into)
                times[1].append(self.run(command, NOTHING, env))
            shutil.rmtree(into)
            os.remove(image)
            bare, salvage = (statistics.median(one) for one in times)
            mib = sum(length for _, length in stretches) / (1 << 20)
            self.row(f"{layout.upper()} salvage of a file against dd", ">= 0.8", bare / salvage,
                     bare / salvage >= 0.8, {"yardstick_s": round(bare, 4), "tool_s": round(salvage, 4),
                                             "mib": round(mib), "stretches": len(stretches)})

    @staticmethod
    def stretches(manifest):
        """Of the device, in whole blocks, those that touch each other as one: offset and length."""
        stretches = []
        with open(manifest, encoding="utf-8") as lines:
            next(lines)
            for line in map(json.loads, lines):
                start, length = line["device_offset"], -(-line["length"] // 4096) * 4096
                if stretches and sum(stretches[-1]) == start:
                    start, length = stretches[-1][0], stretches.pop()[1] + length
                stretches.append((start, length))
        return stretches

    @staticmethod
    def read_directly(path, stretches):
        """Wall time in seconds."""
        device, buffer = os.open(path, os.O_RDONLY | os.O_DIRECT), mmap.mmap(-1, SALVAGE_READ)
        begin = time.perf_counter()
        for start, length in stretches:
            for at in range(start, start + length, SALVAGE_READ):
                os.preadv(device, [memoryview(buffer)[:min(SALVAGE_READ, start + length - at)]], at)
        seconds = time.perf_counter() - begin
        os.close(device)
        return seconds

    def checksums(self):
        run = subprocess.run([self.program("micro"), "--benchmark_filter=crc32", "--benchmark_format=json",
                              "--benchmark_repetitions=5", "--benchmark_report_aggregates_only"],
                             capture_output=True, text=True, check=True)
        medians = {b["run_name"]: b["real_time"] for b in json.loads(run.stdout)["benchmarks"]
                   if b["aggregate_name"] == "median"}
        for way, length, goal in (("multiplication", 4096, 30), ("slices", 4096, 6),
                                  ("multiplication", 92, 4), ("slices", 92, 4)):
            name = f"crc32/{way}/{length}"
            if name in medians:
                table = medians[f"crc32/table/{length}"]
                self.row(f"CRC-32 of {length} bytes, {way}, against the table", f"{goal} x",
                         table / medians[name], table / medians[name] >= goal,
                         {"yardstick_ns": round(table, 1), "tool_ns": round(medians[name], 1)})

    @contextlib.contextmanager
    def extents(self, count):
        """The command that dumps a table of so many V3 extents."""
        image = self.path("extents.img")
        subprocess.run([self.program("zu_tierctl"), "sample", "--force", "--layout", "v3", "--shards",
                        "524288", "--extents", str(count), image], check=True)
        yield [self.program("zu_tier"), "-p", image, "-c", "dump_extent", "-l", NOTHING]
        os.remove(image)

    def growth(self):
        """The cost of an extent must not depend on their number."""
        cost = {}
        for power in range(16, 27, 2):
            with self.extents(1 << power) as command:
                env = {"PATH": os.environ["PATH"]}
                times = [self.run(command, NOTHING, env) for _ in range(self.pairs)]
                cost[power] = statistics.median(times) / (1 << power) * 1e9
        self.row("Cost of an extent, one of 2^26 against one of 2^20", "<= 1.2", cost[26] / cost[20],
                 cost[26] / cost[20] <= 1.2, {"ns_an_extent": {f"2^{p}": round(c, 1) for p, c in cost.items()}})

    def memory(self):
        """The peak memory over a table of 1 MiB and one of 4 GiB."""
        peaks = []
        for extents in (1 << 17, 1 << 29):
            with self.extents(extents) as command, open(NOTHING, "wb") as out:
                # A small program in between: a child's peak begins with that of its parent.
                report = subprocess.run(["time", "-f", "%M", *command], stdout=out, check=True,
                                        stderr=subprocess.PIPE, text=True).stderr
                peaks.append(int(report) / 1024)
        self.row("Peak memory in MiB, table of 4 GiB (1 MiB: %.1f)" % peaks[0], "<= 6", peaks[1],
                 peaks[1] <= 6 and peaks[1] - peaks[0] < 0.5, {"small_mib": round(peaks[0], 2)})

    def first_byte(self):
        times = []
        for _ in range(self.pairs):
            begin = time.perf_counter()
            child = subprocess.Popen(self.tool("v3", "dump_extent", "-l", NOTHING), stdout=subprocess.PIPE)
            child.stdout.read(1)
            times.append((time.perf_counter() - begin) * 1000)
            child.kill()
            child.communicate()
        middle = statistics.median(times)
        self.row("Start to first byte in ms", "< 5", middle, middle < 5, {})


    def short_runs(self):
        """The companion's shortest runs, beside a program that does nothing."""
        ctl, env = self.program("zu_tierctl"), {"PATH": os.environ["PATH"]}
        usage = subprocess.run([ctl, "--help"], capture_output=True, text=True, check=True).stdout
        commands = re.findall(r"^  ([a-z]+) ", usage.split("Subcommands:")[1], re.MULTILINE)
        devices = []
        for layout in ("v1", "v2", "v3"):
            devices.append(self.path(f"small_{layout}.img"))
            subprocess.run([ctl, "sample", "--force", "--layout", layout, devices[-1]], check=True)
        for name, goal, lines in (("--help of a command in ms, the slowest", 5, [[c, "--help"] for c in commands]),
                                  ("Check of a small device in ms, the slowest", 10, [["check", d] for d in devices])):
            pairs = [self.pair(["true"], [ctl, *line], NOTHING, env) for line in lines]
            nothing, slowest = max(pairs, key=lambda pair: pair[1])
            self.row(name, f"< {goal}", slowest * 1000, slowest * 1000 < goal,
                     {"yardstick_s": round(nothing, 4), "tool_s": round(slowest, 4)})


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("programs")
    parser.add_argument("work")
    parser.add_argument("--disk")
    parser.add_argument("--only", choices=["companion", "salvage", "largest"])
    parser.add_argument("--pairs", type=int, default=7)
    parser.add_argument("--json")
    options = parser.parse_args()

    bench = Bench(os.path.abspath(options.programs), options.work, options.disk, options.pairs)
    os.sched_setaffinity(0, {max(os.sched_getaffinity(0))})
    try:
        print(f"{'walk':58} {'goal':>10} {'measured':>8}")
        if options.only is None:
            bench.make_images()
            bench.full_walks()
            bench.bare_reads()
            bench.filtered_walks()
            bench.questions()
            bench.checksums()
            bench.growth()
            bench.memory()
            bench.first_byte()
            bench.short_runs()
            bench.detach()
        if options.disk is not None:
            for part, measure in (("companion", bench.companion), ("salvage", bench.salvages),
                                  ("largest", bench.largest)):
                if options.only in (None, part):
                    measure()
    finally:
        bench.detach()
    if options.json:
        with open(options.json, "w") as out:
            json.dump(bench.rows, out, indent=1)


if __name__ == "__main__":
    main()
