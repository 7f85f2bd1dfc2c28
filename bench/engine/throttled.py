"""The engine and a rescan on a disk that gives few reads a second, as rotating disks do."""
import contextlib
import dataclasses
import os

import engine
import peers
from commands import TimedOut
from comparison import check_numbers
from figures import Figure, span
from volume import Attached, Unfit, cold

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


class Below:
    """A loop device that the file system's own lies on, and that can be limited.

    Limits do not hold the file system's reads of metadata, but those of the loop device above it,
    which have no such mark.  The kernel's threads belong to the root group: the limit stands there.
    """

    def __init__(self):
        if not os.path.exists(LIMITS):
            raise Unfit("needs the blkio controller of cgroup v1, whose root group can be limited")
        self.number = None

    @contextlib.contextmanager
    def attached(self, image):
        device = Attached(image)
        try:
            self.number = device.number
            yield device.device
        finally:
            device.release()

    def limit(self, reads):
        with open(LIMITS, "w") as limits:
            limits.write(f"{self.number} {reads}\n")

    @contextlib.contextmanager
    def slow(self, device):
        """Gives 150 reads a second to all; `device`, which lies on it, calls itself rotating."""
        device.setting("rotational", 1)
        self.limit(READS_A_SECOND)
        try:
            yield
        finally:
            self.limit(0)


def difference(after, before):
    return after[0] - before[0], after[1] - before[1]


def engine_round(bench, image, ids):
    below = Below()
    with cold(bench.programs, image, bench.mount, below.attached) as device, below.slow(device):
        before = device.reads()
        took = engine.measure(bench.programs, bench.mount, ids)
        return took, difference(device.reads(), before)


def quota_round(bench, image, ids):
    """Seconds, whether it was given up, reads, and the kernel's numbers (then had unthrottled)."""
    below = Below()
    with cold(bench.programs, image, bench.mount, below.attached) as device:
        before, kernel = device.reads(), None
        try:
            with below.slow(device):
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
