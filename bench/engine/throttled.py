"""The engine and a rescan on a disk that gives few reads a second, as rotating disks do."""
import contextlib
import dataclasses
import os

import engine
import peers
from commands import TimedOut
from comparison import check_numbers
from figures import Figure, span
from volume import Unfit, cold

LIMITS = "/sys/fs/cgroup/blkio/blkio.throttle.read_iops_device"
READS_A_SECOND = 150


@dataclasses.dataclass
class Throttled:
    """What was found on one file system."""

    letter: str
    engine: Figure
    reads: int
    bytes: int
    quota_seconds: float
    given_up: bool  # the rescan was stopped after so many seconds, unfinished
    quota_reads: int


@contextlib.contextmanager
def slow(device):
    """Lets the device give 150 reads a second to everybody, and call itself rotating."""
    # Reads of kernel threads belong to the root group, so the limit has to stand there.
    if not os.path.exists(LIMITS):
        raise Unfit("needs the blkio controller of cgroup v1, whose root group can be limited")
    with open("/sys/fs/cgroup/blkio/cgroup.procs", "w") as group:
        group.write(f"{os.getpid()}\n")
    device.setting("rotational", 1)
    with open(LIMITS, "w") as limits:
        limits.write(f"{device.number} {READS_A_SECOND}\n")
    try:
        yield
    finally:
        with open(LIMITS, "w") as limits:
            limits.write(f"{device.number} 0\n")


def difference(after, before):
    return after[0] - before[0], after[1] - before[1]


def engine_round(bench, image, ids):
    with cold(bench.programs, image, bench.mount) as device, slow(device):
        before = device.reads()
        took = engine.measure(bench.programs, bench.mount, ids)
        return took, difference(device.reads(), before)


def quota_round(bench, image, ids):
    """Seconds, whether it was given up, reads, and the kernel's numbers (then had unthrottled)."""
    with cold(bench.programs, image, bench.mount) as device:
        before, kernel = device.reads(), None
        try:
            with slow(device):
                took, kernel = peers.quota(bench.programs, bench.mount, ids, bench.limit)
            seconds = took.seconds
        except TimedOut:
            seconds = bench.limit
        count, given_up = device.reads()[0] - before[0], kernel is None
        if given_up:
            _, kernel = peers.quota(bench.programs, bench.mount, ids)
        return seconds, given_up, count, kernel


def measure(bench, letter, item):
    facts, image = bench.maker.facts(item), bench.maker.image(item)
    runs = [engine_round(bench, image, facts["ids"]) for _ in range(min(3, bench.rounds))]
    seconds, given_up, quota_reads, kernel = quota_round(bench, image, facts["ids"])
    for took, _ in runs:
        check_numbers(engine.numbers(took.out), kernel, f"({letter}), throttled")
    count, size = runs[-1][1]
    found = Throttled(letter, Figure([took.seconds for took, _ in runs]), count, size, seconds, given_up,
                      quota_reads)
    print(f"  ({letter}) engine {span(found.engine.median)} in {count} reads, rescan "
          f"{'given up after ' * given_up}{span(seconds)}", flush=True)
    return found
