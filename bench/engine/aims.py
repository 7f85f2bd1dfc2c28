"""What the measurements are to reach, and whether they did."""
import dataclasses

QUOTA_AIMS = {"a": 150, "b": 150, "c": 80}
DU_AIMS = {"a": 1000, "b": 1000}
READING_AIMS = {"a": (2, 3.5), "b": (2, 3.5), "c": (2, 2.2), "e": (1.3, 1.3)}  # aim, must
RESIDENT_AIMS = {letter: 32_000_000 for letter in "abc"}  # bytes
DU = "btrfs filesystem du -s"


@dataclasses.dataclass
class Aim:
    """One aim, what was found, and whether that reaches it (None: there was no figure)."""

    text: str
    found: str
    reached: bool

    def verdict(self):
        return "not measured" if self.reached is None else "reached" if self.reached else "**not reached**"


def at_least(text, ratio, wanted):
    if ratio is None:
        return Aim(text, "no figure", None)
    return Aim(text, f"{ratio:,.0f} times", ratio >= wanted)


def peer_ratio(found, answer):
    """How many times as long as the engine an answer took; None when there was none."""
    return answer.figure.median / found.engine.median if answer and answer.figure else None


def quota_aim(letter, found):
    wanted = QUOTA_AIMS[letter]
    return at_least(f"({letter}) at least {wanted} times faster than quota enable + rescan",
                    peer_ratio(found, found.quota), wanted)


def du_aim(letter, found):
    wanted = DU_AIMS[letter]
    answer = next((peer for peer in found.peers if peer.name == DU), None)
    rounds = f" (its rounds: {answer.figure.rounds})" if answer and answer.figure else ""
    return at_least(f"({letter}) at least {wanted:,} times faster than `{DU}`{rounds}",
                    peer_ratio(found, answer), wanted)


def reading_ratio(found):
    """The engine's time by that of reading the same places; None when these are not known."""
    return found.engine.median / found.replay.median if found.replay else None


def reading_aims(letter, found):
    aim, must = READING_AIMS[letter]
    ratio = reading_ratio(found)
    for word, wanted in [("aim", aim), ("must", must)] if aim != must else [("must", must)]:
        yield Aim(f"({letter}) at most {wanted} times the reading of the same places ({word})",
                  "no figure" if ratio is None else f"{ratio:.2f} times",
                  None if ratio is None else ratio <= wanted)


def resident_aim(letter, found):
    wanted = RESIDENT_AIMS[letter]
    return Aim(f"({letter}) resident memory below 32 MB", f"{found.resident_bytes / 1e6:.1f} MB",
               found.resident_bytes < wanted)


def numbers_aim(letter, found):
    return Aim(f"({letter}) all numbers equal the kernel's",
               found.quota.exact or found.quota.note, True if found.quota.exact else None)


def size_aim(found):
    tree = found.facts["extent_tree_bytes"]
    return Aim("(e) the extent tree has at least 1 GB", f"{tree / 1e9:.2f} GB", tree >= 1e9)


def of_comparison(letter, found):
    """All aims that concern one file system."""
    aims = [numbers_aim(letter, found)]
    if letter in QUOTA_AIMS:
        aims.append(quota_aim(letter, found))
    if letter in DU_AIMS:
        aims.append(du_aim(letter, found))
    if letter in READING_AIMS:
        aims.extend(reading_aims(letter, found))
    if letter in RESIDENT_AIMS:
        aims.append(resident_aim(letter, found))
    if letter == "e":
        aims.append(size_aim(found))
    return aims
