"""Running commands: for their effect, and for what they take."""
import dataclasses
import os
import signal
import subprocess
import tempfile


class CommandFailed(Exception):
    """A command ended with an error status; the text has the command and what it said."""


class TimedOut(Exception):
    """A command was stopped after its limit."""


@dataclasses.dataclass
class Run:
    """What one run of a command took and printed."""

    seconds: float
    processor_seconds: float
    resident_bytes: int  # the largest of its processes
    out: str


@dataclasses.dataclass(frozen=True)
class Programs:
    """The built programs, by the folder that they lie in."""

    folder: str

    def __getattr__(self, name):
        return os.path.join(self.folder, name)

    @property
    def engine(self):
        return os.path.join(self.folder, "btrfs")

    def warm(self):
        """Has the programs in memory after caches were dropped: their own bytes are not measured."""
        for argv in ([self.engine, "subvolume", "size", "--version"], ["/usr/bin/btrfs", "--version"],
                     [self.replay_reads], [self.timed_run], ["/bin/sh", "-c", ":"]):
            subprocess.run(argv, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)


def text_of(argv):
    return " ".join(argv[:6]) + (" ..." if len(argv) > 6 else "")


def run(*argv, stdin=None):
    """Runs a command; what it printed. CommandFailed with what it said."""
    argv = [str(word) for word in argv]
    done = subprocess.run(argv, stdin=stdin, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise CommandFailed(f"{text_of(argv)}: status {done.returncode}: {done.stderr.strip()[-500:]}")
    return done.stdout


def stop_group(process):
    """Ends a process that leads its own session, with all that it started."""
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


def timed(programs, *argv, limit=None):
    """Runs a command and measures it. TimedOut after `limit` seconds, CommandFailed on an error."""
    argv = [str(word) for word in argv]
    with tempfile.NamedTemporaryFile(mode="r") as result, tempfile.TemporaryFile(mode="w+") as out, \
            tempfile.TemporaryFile(mode="w+") as said:
        process = subprocess.Popen([programs.timed_run, result.name, *argv], stdout=out, stderr=said,
                                   stdin=subprocess.DEVNULL, start_new_session=True)
        try:
            status = process.wait(timeout=limit)
        except subprocess.TimeoutExpired:
            raise TimedOut(text_of(argv)) from None
        finally:
            stop_group(process)
        out.seek(0)
        said.seek(0)
        if status != 0:
            raise CommandFailed(f"{text_of(argv)}: status {status}: {said.read().strip()[-500:]}")
        elapsed, processor, resident_kib, _ = result.read().split()
        return Run(int(elapsed) / 1e6, int(processor) / 1e6, int(resident_kib) * 1024, out.read())
