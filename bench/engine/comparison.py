"""One file system, all who answer, in alternating rounds."""
import dataclasses
import os

import aims
import engine
import peers
from commands import CommandFailed, TimedOut, timed
from figures import Figure, deviation, span
from reads import Reads, recorded
from volume import cold


class Wrong(Exception):
    """The engine's numbers are not the kernel's; the text says where."""


@dataclasses.dataclass
class Answer:
    """One who was asked: what it took, what it said. `figure` is None when there is none."""

    name: str
    figure: Figure
    answers: str
    exact: str
    note: str = ""


@dataclasses.dataclass
class Comparison:
    """What was found on one file system."""

    letter: str
    facts: dict
    engine: Figure
    resident_bytes: int
    processor_seconds: float
    reads: Reads  # None without block tracing
    replay: Figure  # whole program: start, commit, the reads
    reading: Figure  # the reads alone
    start: Figure  # start and commit alone
    quota: Answer
    peers: list
    way: str = "auto"  # of counting, of the engine's runs
    ways: dict = dataclasses.field(default_factory=dict)  # each way: its Figure, or why it has none


# The aim on (e) is about the reading of a large extent tree, where "auto" would walk.
WAY_OF = {"e": "scan"}

ROUNDS_OF_WAYS = 3


def check_numbers(found, kernel, where):
    """Wrong unless the engine says of each subvolume what the kernel says."""
    for one, own in kernel.items():
        if found.get(one) != own:
            raise Wrong(f"{where}: subvolume {one}: the engine says {found.get(one)}, the kernel {own}")


def way_words(found):
    return found if isinstance(found, str) else f"{span(found.median)} ({found.spread()})"


class Rounds:
    """The alternating rounds on one file system."""

    def __init__(self, bench, letter, item):
        self.bench, self.letter = bench, letter
        self.facts = bench.maker.facts(item)
        self.image, self.ids = bench.maker.image(item), self.facts["ids"]
        self.places = os.path.join(bench.folder, "reads.bin")
        self.none = os.path.join(bench.folder, "no-reads.bin")
        self.runs, self.replays, self.reading, self.starts, self.quotas = [], [], [], [], []
        self.kernel, self.given_up = None, ""
        self.way = WAY_OF.get(letter, "auto")
        self.ways = {}
        self.reads = None

    def cold(self):
        return cold(self.bench.programs, self.image, self.bench.mount)

    def engine_run(self):
        return engine.measure(self.bench.programs, self.bench.mount, self.ids, self.way)

    def record(self):
        """Takes down what the engine reads; leaves `reads` None where tracing is not to be had."""
        open(self.none, "wb").close()
        try:
            with self.cold() as device:
                self.reads = recorded(device, self.bench.tracing, self.engine_run)
        except CommandFailed as failure:
            print(f"  no list of the engine's reads: {failure}", flush=True)
            return
        self.reads.save(self.places)

    def replay(self, places):
        with self.cold() as device:
            depth = self.reads.depth if self.reads else 1
            return timed(self.bench.programs, self.bench.programs.replay_reads, self.bench.mount,
                         device.device, places, depth)

    def fast_round(self):
        with self.cold():
            self.runs.append(self.engine_run())
        if self.reads:
            took = self.replay(self.places)
            self.replays.append(took.seconds)
            self.reading.append(int(took.out) / 1e6)
        self.starts.append(self.replay(self.none).seconds)

    def quota_round(self, limit):
        try:
            with self.cold():
                took, self.kernel = peers.quota(self.bench.programs, self.bench.mount, self.ids, limit)
        except TimedOut:
            self.given_up = f"given up after {limit} s"
            return
        self.quotas.append(took.seconds)
        self.check()

    def check(self):
        """All runs until now against the kernel's last word."""
        for each in self.runs:
            check_numbers(engine.numbers(each.out), self.kernel, f"({self.letter})")

    def run(self, quota_rounds):
        self.record()
        for number in range(self.bench.rounds):
            self.fast_round()
            if number < quota_rounds and not self.given_up:
                self.quota_round(self.bench.limit_long)
            self.say_round(number)

        if self.kernel is not None:
            self.check()
        for way in engine.WAYS:
            self.ways[way] = self.way_rounds(way)
            print(f"  --method {way}: {way_words(self.ways[way])}", flush=True)

    def way_rounds(self, way):
        """The time of one way of counting, whose numbers are those of the others."""
        values = []
        for _ in range(min(ROUNDS_OF_WAYS, self.bench.rounds)):
            try:
                with self.cold():
                    took = engine.measure(self.bench.programs, self.bench.mount, self.ids, way,
                                          self.bench.limit)
            except TimedOut:
                return f"given up after {self.bench.limit} s"
            check_numbers(engine.numbers(took.out), engine.numbers(self.runs[0].out),
                          f"({self.letter}), --method {way}")
            values.append(took.seconds)
        return Figure(values)

    def say_round(self, number):
        last = [("engine", [run.seconds for run in self.runs]), ("same reads", self.replays),
                ("start and commit", self.starts), ("quotas", self.quotas)]
        print(f"  round {number + 1}: " + ", ".join(
            f"{name} {span(values[-1])}" for name, values in last if values), flush=True)

    def quota_answer(self):
        if not self.quotas:
            return Answer(peers.QUOTA_PEER, None, "all bytes of each", "", self.given_up)
        return Answer(peers.QUOTA_PEER, Figure(self.quotas), "all bytes of each",
                      f"{len(self.ids)} of {len(self.ids)} equal")

    def data_numbers(self):
        """The engine's numbers without tree blocks, which peers leave out."""
        with self.cold():
            return engine.numbers(timed(self.bench.programs, *engine.command(
                self.bench.programs, self.bench.mount, self.ids, metadata=False)).out)

    def limit_of(self, peer):
        needed = peer == aims.DU and self.letter in aims.DU_AIMS
        return self.bench.limit_long if needed else self.bench.limit

    def peer_answer(self, peer, data):
        """Asks a slow peer for some rounds; one that is given up is not asked again."""
        values, answer, why = [], None, ""
        for _ in range(self.bench.rounds_slow):
            with self.cold():
                answer, why = peers.ask(peer, self.bench.programs, self.bench.mount, self.facts,
                                        self.limit_of(peer))
            if answer is None:
                break
            values.append(answer[0].seconds)
        print(f"  {peer}: {why or span(Figure(values).median)}", flush=True)
        says = peers.PEERS[peer][1]
        if not values or answer is None:
            return Answer(peer, None, says, "", why)
        truth = {one: data[one] for one in answer[1]}
        return Answer(peer, Figure(values), says, deviation(answer[1], truth))

    def result(self, asked):
        data = self.data_numbers()
        return Comparison(
            self.letter, self.facts, Figure([each.seconds for each in self.runs]),
            max(each.resident_bytes for each in self.runs),
            Figure([each.processor_seconds for each in self.runs]).median, self.reads,
            Figure(self.replays) if self.reads else None, Figure(self.reading) if self.reads else None,
            Figure(self.starts), self.quota_answer(), [self.peer_answer(peer, data) for peer in asked],
            self.way, self.ways)


def compare(bench, letter, item):
    """Measures one file system. Wrong when a number of the engine is not the kernel's."""
    rounds = Rounds(bench, letter, item)
    # Where a rescan takes minutes, it has fewer rounds.
    rounds.run(bench.rounds if letter in "abc" else bench.rounds_slow)
    return rounds.result(bench.peers)
