"""What a foreground load feels of the engine, and of quotas, on the same file system."""
import dataclasses
import json
import os
import signal
import subprocess

import engine
from commands import run, stop_group
from figures import Figure
from volume import drop_caches, mounted

# Beside the load, again and again: the engine; and quotas from off to known numbers.
AGAIN = 'n=0; trap \'echo $n >"$0"; exit 0\' TERM; while :; do "$@" >/dev/null 2>&1 && n=$((n + 1)); done'
QUOTAS = ('btrfs quota enable "$0" && btrfs quota rescan -w "$0"; s=$?; btrfs quota disable "$0"; '
          "exit $s")
NOBODY, ENGINE, QUOTA = "nobody", "the engine, again and again", "quota enable + rescan, again and again"


@dataclasses.dataclass
class Load:
    """A phase of the foreground load: latencies in seconds, 99 of 100 below."""

    beside: str
    scheduler: str
    read_p99: Figure
    write_p99: Figure
    operations: Figure  # a second
    runs: list  # how many runs ended beside it, a number for each round


class Beside:
    """A command that runs again and again beside the load, in a session of its own."""

    def __init__(self, counter, argv):
        self.counter = counter
        self.process = argv and subprocess.Popen(["/bin/sh", "-c", AGAIN, counter, *map(str, argv)],
                                                 start_new_session=True)

    def stop(self):
        """Ends after the run that is under way; how many there were."""
        if not self.process:
            return 0
        os.kill(self.process.pid, signal.SIGTERM)
        try:
            self.process.wait(timeout=120)
        finally:
            stop_group(self.process)
        with open(self.counter) as text:
            return int(text.read())


def fio(path, seconds):
    """Random reads and writes of 4 KiB; fio's own account of them."""
    return json.loads(run(
        "fio", "--name=load", f"--filename={path}", "--size=512M", "--rw=randrw", "--rwmixread=70",
        "--bs=4k", "--direct=1", "--ioengine=io_uring", "--iodepth=4", "--time_based", "--randseed=1",
        "--norandommap", f"--runtime={seconds}", "--output-format=json"))["jobs"][0]


def p99(job, way):
    return job[way]["clat_ns"]["percentile"]["99.000000"] / 1e9


class Neighbour:
    """The phases, on a copy of a file system."""

    def __init__(self, bench, item):
        self.bench = bench
        self.ids = bench.maker.facts(item)["ids"]
        self.copy = os.path.join(bench.folder, "neighbour.img")
        run("cp", "--sparse=always", bench.maker.image(item), self.copy)
        self.load = os.path.join(bench.mount, "load")

    def beside(self, what):
        mount = self.bench.mount
        return {NOBODY: None, ENGINE: engine.command(self.bench.programs, mount, self.ids),
                QUOTA: ["/bin/sh", "-c", QUOTAS, mount]}[what]

    def phase(self, what):
        """One phase: fio's account and how many runs ended beside it."""
        drop_caches()
        beside = Beside(os.path.join(self.bench.folder, "runs"), self.beside(what))
        try:
            job = fio(self.load, self.bench.load_seconds)
        finally:
            runs = beside.stop()
        return job, runs

    def under(self, scheduler):
        """All phases, alternating, under one I/O scheduler."""
        phases = {NOBODY: [], ENGINE: [], QUOTA: []}
        with mounted(self.copy, self.bench.mount) as device:
            device.setting("scheduler", scheduler)
            fio(self.load, 1)  # has the file written once
            for _ in range(self.bench.load_rounds):
                for what, found in phases.items():
                    found.append(self.phase(what))
        return [self.summary(what, scheduler, found) for what, found in phases.items()]

    @staticmethod
    def summary(what, scheduler, found):
        jobs = [job for job, _ in found]
        load = Load(what, scheduler, Figure([p99(job, "read") for job in jobs]),
                    Figure([p99(job, "write") for job in jobs]),
                    Figure([job["read"]["iops"] + job["write"]["iops"] for job in jobs]),
                    [runs for _, runs in found])
        print(f"  {scheduler}, beside {what}: read p99 {load.read_p99.median * 1e3:.2f} ms, write p99 "
              f"{load.write_p99.median * 1e3:.2f} ms, {load.runs} runs", flush=True)
        return load

    def schedulers(self):
        with mounted(self.copy, self.bench.mount) as device:
            return [name for name in ("none", "bfq") if name in device.schedulers()]

    def remove(self):
        if os.path.exists(self.copy):
            os.remove(self.copy)


def measure(bench, item):
    """Loads in all phases, under each scheduler that matters: none, and one that knows idle."""
    neighbour = Neighbour(bench, item)
    try:
        return [load for name in neighbour.schedulers() for load in neighbour.under(name)]
    finally:
        neighbour.remove()
