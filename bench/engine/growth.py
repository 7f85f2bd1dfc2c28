"""How the engine's time grows, on series of file systems that differ in one number."""
import dataclasses
import os
import statistics
import subprocess

import engine
from commands import CommandFailed
from figures import Figure, span, straight_line
from volume import cold

# Of each series: which number differs, and its words for one and for the axis.
SERIES = {
    "extents": ("extents", "extents and tree blocks"),
    "snapshots": ("snapshots", "snapshots of the same files"),
    "churn": ("churned", "files written anew after each snapshot"),
}


@dataclasses.dataclass
class Point:
    """One file system of a series."""

    series: str
    number: int
    extents: int
    tree_bytes: int  # what the engine read
    figure: Figure


def measure_point(bench, series, item):
    facts, runs = bench.maker.facts(item), []
    for _ in range(min(5, bench.rounds)):
        with cold(bench.programs, bench.maker.image(item), bench.mount):
            runs.append(engine.measure(bench.programs, bench.mount, facts["ids"]))
    number = facts["extents"] if series == "extents" else item[SERIES[series][0]]
    point = Point(series, number, facts["extents"], engine.planned_bytes(runs[-1].out),
                  Figure([each.seconds for each in runs]))
    bench.maker.let_go(item)
    print(f"  {series} {number:,}: {point.figure.median * 1e3:.1f} ms", flush=True)
    return point


def measure(bench, series_shapes):
    return [measure_point(bench, series, item) for series, shapes in series_shapes.items()
            for item in shapes]


def of_series(points, series):
    return [point for point in points if point.series == series]


def words(points, series):
    """How the time grows along a series, from the data alone."""
    found = of_series(points, series)
    first, last = found[0], found[-1]
    line = straight_line([(point.number, point.figure.median) for point in found])
    by_tree = straight_line([(point.tree_bytes, point.figure.median) for point in found])
    return (f"from {first.number:,} to {last.number:,} {SERIES[series][1]} (x "
            f"{last.number / first.number:.3g}; the extent tree and what else is read grows x "
            f"{last.tree_bytes / first.tree_bytes:.3g}) the time grows x "
            f"{last.figure.median / first.figure.median:.3g}, from {span(first.figure.median)} to "
            f"{span(last.figure.median)}. Least squares: {span(line.start)} and "
            f"{span(line.slope * 1000)} for each thousand (R² {line.fit:.3f}); against the bytes read, "
            f"{span(by_tree.slope * 1e6)} for each MB (R² {by_tree.fit:.3f})")


def save(points, path):
    with open(path, "w") as out:
        out.write("series\tnumber\textents\tbytes_read\tmedian_s\tlowest_s\thighest_s\n")
        for point in points:
            out.write(f"{point.series}\t{point.number}\t{point.extents}\t{point.tree_bytes}\t"
                      f"{statistics.median(point.figure.values):.6f}\t{min(point.figure.values):.6f}\t"
                      f"{max(point.figure.values):.6f}\n")


def plot(data, picture):
    """Draws the data with gnuplot. CommandFailed when it cannot."""
    script = os.path.join(os.path.dirname(__file__), "growth.gp")
    done = subprocess.run(["gnuplot", "-e", f"data='{data}'; picture='{picture}'", script],
                          capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise CommandFailed(f"gnuplot: {done.stderr.strip()}")
