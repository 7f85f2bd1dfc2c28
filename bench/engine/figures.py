"""Statistics and their words."""
import dataclasses
import statistics


@dataclasses.dataclass
class Figure:
    """Measured seconds of several rounds."""

    values: list

    @property
    def median(self):
        return statistics.median(self.values)

    @property
    def rounds(self):
        return len(self.values)

    def spread(self):
        return f"{span(min(self.values))} - {span(max(self.values))}"


def span(seconds):
    """A time with three digits: 41.2 ms, 107 s."""
    if seconds < 1:
        return f"{seconds * 1e3:.3g} ms" if seconds < 0.1 else f"{seconds * 1e3:.0f} ms"
    return f"{seconds:.3g} s" if seconds < 100 else f"{seconds:.0f} s"


def size(count):
    """Bytes with three digits: 24.1 MB."""
    for unit in ("bytes", "kB", "MB", "GB"):
        if count < 999.5 or unit == "GB":
            return f"{count:.3g} {unit}" if count < 1000 else f"{count:.0f} {unit}"
        count /= 1000
    return None


def times(ratio):
    """A ratio: 1.70, 24, 2,613."""
    return f"{ratio:.2f}" if ratio < 10 else f"{ratio:,.0f}"


@dataclasses.dataclass
class Line:
    """The straight line that fits points best: y = start + slope * x."""

    slope: float
    start: float
    fit: float  # share of the variance that the line explains (R squared)


def straight_line(points):
    """Least squares through (x, y) points with at least two different x."""
    xs, ys = zip(*points)
    slope, start = statistics.linear_regression(xs, ys)
    mean = statistics.fmean(ys)
    total = sum((y - mean) ** 2 for y in ys)
    missed = sum((y - start - slope * x) ** 2 for x, y in points)
    return Line(slope, start, 1 - missed / total if total else 1.0)


def deviation(answer, truth):
    """How an answer (number by id) stands to the true numbers, in words."""
    equal = sum(answer.get(key) == value for key, value in truth.items())
    if equal == len(truth):
        return f"exact: {equal} of {equal} equal"
    worst = max(truth, key=lambda key: abs(answer.get(key, 0) - truth[key]))
    off = answer.get(worst, 0) - truth[worst]
    share = sum(answer.get(key, 0) for key in truth) / max(1, sum(truth.values()))
    return (f"{equal} of {len(truth)} equal; all together {share:.1%} of the true bytes; worst "
            f"{size(abs(off))} too {'high' if off > 0 else 'low'} of {size(truth[worst])}")
