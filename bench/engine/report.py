"""Writes what was measured, for the terminal and for docs/benchmarks.md."""
import aims
import growth
import library
import shapes
from comparison import ROUNDS_OF_WAYS, way_words
from engine import WAYS
from figures import size, span, times
from neighbour import ENGINE, NOBODY, QUOTA
from peers import QUOTA_PEER


def table(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    return lines + ["| " + " | ".join(row) + " |" for row in rows] + [""]


def figure_cells(figure, engine):
    """Median, spread, rounds, and how many times the engine's time."""
    ratio = figure.median / engine.median
    return [span(figure.median), figure.spread(), str(figure.rounds), times(ratio)]


def answer_row(answer, engine):
    cells = figure_cells(answer.figure, engine) if answer.figure else [answer.note, "", "", ""]
    exact = "the kernel's own, the measure" if answer.name == QUOTA_PEER else answer.exact
    return [answer.name, *cells, answer.answers, exact]


def reading_rows(found):
    """The floors: the same reads, and the start alone."""
    if found.replay:
        yield ["the same reads, nothing done to the bytes", *figure_cells(found.replay, found.engine),
               "nothing", ""]
        yield ["  of it the reads alone", *figure_cells(found.reading, found.engine), "nothing", ""]
    yield ["  process start and commit alone", *figure_cells(found.start, found.engine), "nothing", ""]


def reads_words(found):
    if not found.reads:
        return "What it reads could not be taken down: this machine gives no block tracing."
    count, total = len(found.reads.places), found.reads.bytes
    return (f"It reads {size(total)} in {count:,} requests ({size(total / max(1, count))} each on "
            f"average), {found.reads.depth} under way at most; the reads alone run at "
            f"{size(total / found.reading.median)}/s.")


def comparison_part(letter, found):
    facts, engine = found.facts, found.engine
    item = shapes.shape(letter, facts["recipe"], **facts["numbers"])
    lines = [f"### ({letter}) {shapes.describe(item)}", "",
             f"{facts['extents']:,} extents and tree blocks, extent tree {size(facts['extent_tree_bytes'])}; "
             f"made in {facts['seconds']:.0f} s. {reads_words(found)} Resident memory "
             f"{found.resident_bytes / 1e6:.1f} MB, processor time {span(found.processor_seconds)}.", ""]
    way = "" if found.way == "auto" else f" (`--method {found.way}`)"
    rows = [[f"**engine**{way}", span(engine.median), engine.spread(), str(engine.rounds), "1",
             "all bytes of each", f"exact: {found.quota.exact}" if found.quota.exact else
             "not held against the kernel"]]
    rows += list(reading_rows(found))
    rows += [answer_row(answer, engine) for answer in [found.quota, *found.peers]]
    return lines + table(["", "median", "lowest - highest", "rounds", "times the engine", "answers",
                          "exact?"], rows)


def ways_part(comparisons):
    rows = [[f"({letter})", *(way_words(found.ways[way]) for way in WAYS)]
            for letter, found in comparisons.items()]
    return ["## Ways of counting", "",
            f"Medians of {ROUNDS_OF_WAYS}, with the lowest and the highest; all give the same numbers. `auto` is what "
            "the engine does when it is not told: it walks while that stays small, else it scans.", ""] \
        + table(["", *(f"`--method {way}`" for way in WAYS)], rows)


def throttled_part(found):
    rows = [[f"({each.letter})", span(each.engine.median), each.engine.spread(), str(each.engine.rounds),
             f"{each.reads:,}", size(each.bytes / max(1, each.reads)),
             *(f"{'over ' * each.given_up}{text}" for text in
               (span(each.quota_seconds), f"{each.quota_reads:,}",
                times(each.quota_seconds / each.engine.median)))] for each in found]
    return ["## A disk of 150 reads a second", "",
            "The loop device lies on another one that gives 150 reads a second to everybody (cgroup v1, "
            "root group, so that the kernel's own threads are held too) and calls itself rotating. "
            "`btrfs filesystem du -s` is left out: it reads every leaf of every snapshot, one after the other, "
            "and would take hours.", ""] \
        + table(["", "engine", "lowest - highest", "rounds", "reads", "bytes a read", "quota enable + rescan",
                 "its reads", "times the engine"], rows)


def neighbour_part(loads, seconds, rounds):
    rows = [[load.scheduler, load.beside, f"{load.read_p99.median * 1e3:.2f} ms", load.read_p99.spread(),
             f"{load.write_p99.median * 1e3:.2f} ms", load.write_p99.spread(),
             f"{load.operations.median:,.0f}", ", ".join(map(str, load.runs)) if load.beside != NOBODY else ""]
            for load in loads]
    return ["## As a neighbour", "",
            f"A foreground load (fio: random reads and writes of 4 KiB, 70 % reads, 4 under way, past the "
            f"page cache) on a file of file system (a); {rounds} alternating rounds of {seconds} s each, "
            "medians. 99 of 100 operations end within p99.", ""] \
        + table(["I/O scheduler", "beside it", "read p99", "lowest - highest", "write p99",
                 "lowest - highest", "operations a second", "runs ended beside it"], rows) \
        + neighbour_words(loads)


def neighbour_words(loads):
    lines = []
    for scheduler in dict.fromkeys(load.scheduler for load in loads):
        by = {load.beside: load for load in loads if load.scheduler == scheduler}
        lines.append(f"- {scheduler}: " + "; ".join(
            f"beside {name} the reads' p99 is {times(by[what].read_p99.median / by[NOBODY].read_p99.median)} "
            f"times and the writes' {times(by[what].write_p99.median / by[NOBODY].write_p99.median)} times "
            "that of the load alone" for what, name in [(ENGINE, "the engine"), (QUOTA, "quotas")]) + ".")
    return lines + [""]


def growth_part(points, picture):
    return ["## Growth", "", f"![time against extents, snapshots and churn]({picture}.svg)", "",
            f"Data: [{picture}.tsv]({picture}.tsv).", ""] \
        + [f"- {series}: {growth.words(points, series)}." for series in growth.SERIES] + [""]


def aims_part(comparisons):
    rows = [[aim.text, aim.found, aim.verdict()] for letter, found in comparisons.items()
            for aim in aims.of_comparison(letter, found)]
    return ["## Aims", ""] + table(["aim", "found", ""], rows)


METHOD = """\
Except where a part says otherwise: every round begins cold. The file system is unmounted, its loop device
detached, all caches are dropped, and both are set up anew. The loop device reads the image past the page cache (direct I/O); that this took effect
is asked of the kernel after each attaching, and after each round no byte of the image may be in the page
cache, else the run fails. Where the image's bytes lie on the disk is looked up beforehand, since a real disk
has no such map to read; the programs themselves are in memory. Loop devices are told that they do not rotate
(a virtual disk says that it does, whatever lies below), and have no I/O scheduler of their own. Those who are
compared take turns within a round.
Medians; the lowest and the highest stand beside them. Below 100 ms look at these: a few milliseconds are the
machine's.

"The same reads": the kernel's block tracing took down what the engine hands to the device (offsets, lengths,
how many under way). A program reads these places again in this order, as many under way, through io_uring, and
does nothing with the bytes. Like the engine it has the file system commit first, so process start and commit
are in both; they stand on a line of their own as well.

Exactness: the engine's numbers (`-vm`) have to equal the kernel's in every round, else the run fails; peers
that count data alone are held against the engine's numbers without tree blocks (`-v`). Resident memory is
the largest of the engine's processes.

The extents of (e) and of the series "extents" are allocated, not written: what the extent tree says of them is
the same.
"""


def document(bench, found):
    """The whole page, as text. Parts that were not measured are not in it."""
    written = "Written by `sudo scripts/bench.sh`; every figure and verdict comes from one run."
    if bench.quick:
        written = "Tiny file systems: a trial of the parts, no measurement. The aims are the whole run's."
    lines = ["# Benchmarks", "", written, "",
             *(f"- {name}: {value}" for name, value in found["machine"].items()), "",
             METHOD]
    comparisons = found["comparisons"]
    if comparisons:
        lines += aims_part(comparisons) + ["## Side by side", ""]
        for letter, each in comparisons.items():
            lines += comparison_part(letter, each)
        lines += ways_part(comparisons)
    if found.get("throttled"):
        lines += throttled_part(found["throttled"])
    if found.get("loads"):
        lines += neighbour_part(found["loads"], bench.load_seconds, bench.load_rounds)
    if found.get("points"):
        lines += growth_part(found["points"], bench.picture)
    if found.get("library"):
        lines += library.section(found["library"])
    for part, why in found["left_out"].items():
        lines += [f"Not measured: {part} ({why}).", ""]
    return "\n".join(lines).rstrip() + "\n"
