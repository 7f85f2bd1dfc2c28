"""What the library costs over the bare engine; measured by programs of their own."""
import dataclasses
import os
import subprocess

from volume import Unfit

TABLES = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "library_cost.py")
MEASURED, OVER_LIMIT = 0, 3  # its exit statuses


@dataclasses.dataclass
class Cost:
    """The tables as text, and whether a whole calculation stayed within its limit."""

    tables: str
    within: bool


def measure(programs, folder):
    """Runs everything; files of state lie below `folder`."""
    done = subprocess.run([TABLES, programs, folder], stdout=subprocess.PIPE, text=True, check=False)
    if done.returncode not in (MEASURED, OVER_LIMIT):
        raise Unfit(f"{os.path.basename(TABLES)} ended with {done.returncode}")
    return Cost(done.stdout, done.returncode == MEASURED)


def section(cost):
    """The part of the page."""
    verdict = "reached" if cost.within else "**not reached**"
    return ["## The library", "",
            "Files of state and results lie on a disk file system. A whole calculation (task created, engine "
            "run, results read) stands beside the bare engine on the same snapshots, in turns.", "",
            f"Aim: at most 30 ms over the bare engine: {verdict}.", "", cost.tables.rstrip(), ""]
