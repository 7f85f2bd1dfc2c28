"""What the engine reads from the device, taken down by the kernel's block tracing."""
import contextlib
import dataclasses
import os
import re
import struct

from commands import CommandFailed, run

# What is handed to the device, and what it has done; between the two reads are joined and cut.
EVENTS = ("block_bio_queue", "block_rq_complete")
LINE = re.compile(r"(block_bio_queue|block_rq_complete): \d+,\d+ (\w+) (?:\(.*?\) )?(\d+) \+ (\d+)")


@dataclasses.dataclass
class Reads:
    """Reads in the order in which they were handed to the device: (offset, length) in bytes."""

    places: list
    depth: int  # how many were under way at a time, at most

    @property
    def bytes(self):
        return sum(length for _, length in self.places)

    def save(self, path):
        with open(path, "wb") as out:
            for place in self.places:
                out.write(struct.pack("=QQ", *place))


class UnderWay:
    """The reads that the device has and has not done, in sectors."""

    def __init__(self):
        self.left = {}  # (first, end) -> sectors not done
        self.most = 0

    def begin(self, first, count):
        self.left[first, first + count] = count
        self.most = max(self.most, len(self.left))

    def done(self, first, count):
        """A stretch is done: whole reads, joined ones, or a part of one."""
        end = first + count
        for read in [read for read in self.left if read[0] < end and first < read[1]]:
            self.left[read] -= min(end, read[1]) - max(first, read[0])
            if self.left[read] <= 0:
                del self.left[read]


def parse(lines):
    """Reads from the lines of a trace.

    Reads of the kernel's file system carry the mark M (metadata) and are not the engine's.
    """
    places, under_way = [], UnderWay()
    for event, kind, sector, sectors in (m.groups() for m in map(LINE.search, lines) if m):
        first, count = int(sector), int(sectors)
        if not kind.startswith("R") or "M" in kind or count == 0:
            continue
        if event == "block_bio_queue":
            places.append((first * 512, count * 512))
            under_way.begin(first, count)
        else:
            under_way.done(first, count)
    return Reads(places, max(1, under_way.most))


@contextlib.contextmanager
def tracing_folder(mount):
    """The kernel's tracing files, mounted at `mount`. CommandFailed when there are none."""
    os.makedirs(mount, exist_ok=True)
    run("mount", "-t", "tracefs", "tracefs", mount)
    try:
        yield mount
    finally:
        run("umount", mount)


class Trace:
    """A buffer of block events of its own, so that nobody else's tracing is touched."""

    def __init__(self, tracing):
        self.folder = os.path.join(tracing, "instances", f"zorv_bench_{os.getpid()}")
        os.mkdir(self.folder)

    def write(self, name, value):
        with open(os.path.join(self.folder, name), "w") as control:
            control.write(f"{value}\n")

    def start(self, number):
        """Takes down the reads of the device with this number, as in 7:0."""
        major, minor = map(int, number.split(":"))
        self.write("buffer_size_kb", 65536)
        for event in EVENTS:
            self.write(f"events/block/{event}/filter", f"dev == {major << 20 | minor}")
            self.write(f"events/block/{event}/enable", 1)

    def stop(self):
        """The reads since the start. CommandFailed when some were lost."""
        for event in EVENTS:
            self.write(f"events/block/{event}/enable", 0)
        for processor in os.listdir(os.path.join(self.folder, "per_cpu")):
            with open(os.path.join(self.folder, "per_cpu", processor, "stats")) as text:
                if not re.search(r"^overrun: 0$", text.read(), re.M):
                    raise CommandFailed("the trace of the reads is not whole")
        with open(os.path.join(self.folder, "trace")) as text:
            return parse(text)

    def remove(self):
        os.rmdir(self.folder)


def recorded(device, mount, action):
    """Does `action` and gives the reads of `device` meanwhile. CommandFailed without tracing."""
    with tracing_folder(mount) as tracing:
        trace = Trace(tracing)
        try:
            trace.start(device.number)
            action()
            return trace.stop()
        finally:
            trace.remove()
