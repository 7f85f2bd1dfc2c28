"""Others that answer the question, or a part of it. Each gives its run and its numbers."""
import os
import re

from commands import CommandFailed, TimedOut, run, timed

QUOTA_PEER = "quota enable + rescan"
QUOTA = 'btrfs quota enable "$1" && btrfs quota rescan -w "$1"'


def kernel_numbers(mount):
    """Exclusive bytes by subvolume as the kernel's quotas say."""
    text = run("btrfs", "qgroup", "show", "--raw", "--sync", mount)
    return {int(one): int(own) for one, own in re.findall(r"^0/(\d+)\s+\d+\s+(\d+)", text, re.M)}


def quota(programs, mount, ids, limit=None):
    """Quotas from off to known numbers; they are off again afterwards. TimedOut as `timed`."""
    try:
        took = timed(programs, "/bin/sh", "-c", QUOTA, "sh", mount, limit=limit)
        known = kernel_numbers(mount)
        return took, {one: known[one] for one in ids}
    finally:
        run("btrfs", "quota", "disable", mount)
        run("sync", "--file-system", mount)


def filesystem_du(programs, mount, facts, limit):
    paths = [os.path.join(mount, name) for name in facts["snapshots"]]
    took = timed(programs, "btrfs", "filesystem", "du", "-s", "--raw", *paths, limit=limit)
    found = dict((path, int(own)) for own, path in
                 re.findall(r"^\s*\d+\s+(\d+)\s+\d+\s+(/.*)$", took.out, re.M))
    return took, {one: found[path] for one, path in zip(facts["ids"], paths)}


def btrbk_extents(programs, mount, facts, limit):
    """Told of the live share too: it counts as exclusive what none of the others named shares."""
    paths = [os.path.join(mount, name) for name in facts["snapshots"]]
    live = [path for path in [os.path.join(mount, "live")] if os.path.exists(path)]
    took = timed(programs, "btrbk", "--format=raw", "extents", "diff", *live, *paths, limit=limit)
    # Values are quoted only where a shell would need it.
    found = dict((path, int(own)) for own, path in
                 re.findall(r"\bexclusive='?(\d+)'? .*\bsubvol='?([^' \n]+)'?", took.out))
    return took, {one: found.get(path, 0) for one, path in zip(facts["ids"], paths)}


def disk_usage(text):
    """The bytes on disk that `compsize -b` says."""
    return int(re.search(r"^TOTAL\s+\d+%\s+(\d+)", text, re.M).group(1))


def compsize(programs, mount, facts, limit):
    """What all hold together; less what all but the newest snapshot hold is the newest's own."""
    paths = [os.path.join(mount, name) for name in os.listdir(mount)]
    newest = os.path.join(mount, facts["snapshots"][-1])
    took = timed(programs, "compsize", "-b", *paths, limit=limit)
    others = timed(programs, "compsize", "-b", *(path for path in paths if path != newest), limit=limit)
    return took, {facts["ids"][-1]: disk_usage(took.out) - disk_usage(others.out)}


PEERS = {
    "btrfs filesystem du -s": (filesystem_du, "data bytes of each (uncompressed lengths)"),
    "btrbk extents diff": (btrbk_extents, "data bytes of each among those named"),
    "compsize": (compsize, "data bytes of all together; one snapshot's own as the difference of two runs"),
}


def ask(peer, programs, mount, facts, limit):
    """Run and numbers, or the sentence why there are none."""
    try:
        return PEERS[peer][0](programs, mount, facts, limit), None
    except TimedOut:
        return None, f"given up after {limit} s"
    except CommandFailed as failure:
        return None, f"failed: {str(failure).replace(mount, 'MOUNT')[:160]}"
