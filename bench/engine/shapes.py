"""The file systems that are measured, and how each is made."""
import dataclasses
import json
import os
import subprocess
import time

from commands import CommandFailed, run
from volume import mounted

BLOCK = 4096
NODE = 16384


@dataclasses.dataclass(frozen=True)
class Shape:
    """A file system to make: the recipe and its numbers decide everything."""

    name: str
    recipe: str
    numbers: tuple  # of (name, value), for the recipe

    @property
    def file_name(self):
        return f"{self.name}.img"

    def __getitem__(self, name):
        return dict(self.numbers)[name]


def shape(name, recipe, **numbers):
    return Shape(name, recipe, tuple(sorted(numbers.items())))


def figured_shapes(quick):
    """The shapes of the table, by letter."""
    if quick:
        return {
            "a": shape("a", "files", files=2000, snapshots=4, churned=20),
            "b": shape("b", "files", files=400, snapshots=12, churned=4),
            "c": shape("c", "blocks", blocks=3000, snapshots=3, churned=30),
            "d": shape("d", "received", files=300, snapshots=6, churned=3),
            "e": shape("e", "pieces", files=5, pieces=4000, clones=2, snapshots=2),
        }
    return {
        "a": shape("a", "files", files=200000, snapshots=20, churned=2000),
        "b": shape("b", "files", files=20000, snapshots=200, churned=200),
        "c": shape("c", "blocks", blocks=300000, snapshots=10, churned=3000),
        "d": shape("d", "received", files=20000, snapshots=200, churned=200),
        "e": shape("e", "pieces", files=100, pieces=70000, clones=2, snapshots=4),
    }


def growing_shapes(quick):
    """Series of small file systems that differ in one number: series -> (number, shapes)."""
    part = 50 if quick else 1
    extents = [50000, 100000, 200000, 400000, 800000, 1600000]
    snapshots = [1, 10, 25, 50, 100, 200]
    churned = [50, 200, 800, 3200, 12800]
    if quick:
        snapshots, churned = [1, 4, 8], [50, 800, 12800]
    files = 20000 // part
    return {
        "extents": [shape(f"extents{n // part}", "pieces", files=10, pieces=n // part // 10, clones=0,
                          snapshots=2) for n in extents],
        "snapshots": [shape(f"snapshots{n}", "files", files=files, snapshots=n,
                            churned=files // 100) for n in snapshots],
        "churn": [shape(f"churn{n // part}", "files", files=files, snapshots=20 if part == 1 else 4,
                        churned=n // part) for n in churned],
    }


def describe(item):
    """One line on what a shape is."""
    if item.recipe == "files":
        return (f"{item['files']:,} files of 4 KiB x {item['snapshots']} snapshots, {item['churned']:,} "
                "files written anew after each")
    if item.recipe == "received":
        return (f"{item['files']:,} files of 4 KiB x {item['snapshots']} snapshots received one upon the "
                f"other, {item['churned']:,} files written anew between two")
    if item.recipe == "blocks":
        return (f"1 file of {item['blocks']:,} extents of 4 KiB in random order x {item['snapshots']} "
                f"snapshots, {item['churned']:,} blocks written anew after each")
    clones = f", each reflinked {item['clones']} times" if item["clones"] else ""
    return (f"{item['files']} files of {item['pieces']:,} allocated extents of 4 KiB{clones}, x "
            f"{item['snapshots']} snapshots, one file replaced after each")


class Maker:
    """Makes file systems in a folder, and finds those that are there already."""

    def __init__(self, programs, folder, mount, keep):
        self.programs, self.folder, self.mount, self.keep = programs, folder, mount, keep

    def image(self, item):
        return os.path.join(self.folder, item.file_name)

    def facts(self, item):
        """What was noted when the shape was made: snapshots, extents, seconds. Makes it if need be."""
        path = self.image(item) + ".json"
        try:
            with open(path) as text:
                facts = json.load(text)
            if facts["recipe"] == item.recipe and facts["numbers"] == dict(item.numbers) \
                    and os.path.exists(self.image(item)):
                return facts
        except (FileNotFoundError, KeyError, ValueError):
            pass
        return self.make(item)

    def make(self, item):
        print(f"  making {item.name}: {describe(item)}", flush=True)
        self.remove(item)
        begin, part = time.monotonic(), self.image(item) + ".part"
        make_image(part)
        with mounted(part, self.mount):
            getattr(self, f"make_{item.recipe}")(item)
            facts = self.look(item)
        facts["seconds"] = round(time.monotonic() - begin, 1)
        facts["disk_bytes"] = os.stat(part).st_blocks * 512
        os.rename(part, self.image(item))
        with open(self.image(item) + ".json", "w") as text:
            json.dump(facts, text)
        print(f"  made in {facts['seconds']:.0f} s, {facts['extents']:,} extents and tree blocks, "
              f"extent tree {facts['extent_tree_bytes'] / 1e6:,.1f} MB", flush=True)
        return facts

    def look(self, item):
        """What a made file system holds."""
        names = sorted(name for name in os.listdir(self.mount) if name.startswith("snapshot"))
        run("sync", "--file-system", self.mount)
        extents, blocks = map(int, run(self.programs.make_files, "count", self.mount).split())
        return {
            "recipe": item.recipe, "numbers": dict(item.numbers), "snapshots": names,
            "ids": [int(run("btrfs", "inspect-internal", "rootid", self.path(name))) for name in names],
            "extents": extents, "extent_tree_bytes": blocks * NODE,
        }

    def let_go(self, item):
        """The shape has been measured: it goes, unless file systems are kept."""
        if not self.keep:
            self.remove(item)

    def remove(self, item):
        for name in (self.image(item), self.image(item) + ".part", self.image(item) + ".json",
                     self.source_image(item)):
            if os.path.exists(name):
                os.remove(name)

    def source_image(self, item):
        return self.image(item) + ".source"

    def path(self, *names):
        return os.path.join(self.mount, *names)

    def fill(self, *words):
        run(self.programs.make_files, *words)

    def snapshot(self, number):
        run("btrfs", "subvolume", "snapshot", "-r", self.path("live"), self.path(f"snapshot{number:03}"))

    def make_files(self, item):
        """Snapshots of a share whose files change one after the other."""
        live = self.path("live")
        run("btrfs", "subvolume", "create", live)
        self.fill("write", live, 0, item["files"], BLOCK)
        for number in range(item["snapshots"]):
            self.snapshot(number)
            self.fill("rewrite", live, item["files"], BLOCK, item["churned"], number + 1)

    def make_blocks(self, item):
        """Snapshots of one file, as a machine's disk image is one."""
        live = self.path("live")
        run("btrfs", "subvolume", "create", live)
        self.fill("blocks", os.path.join(live, "disk"), item["blocks"], item["blocks"], 0)
        for number in range(item["snapshots"]):
            self.snapshot(number)
            self.fill("blocks", os.path.join(live, "disk"), item["blocks"], item["churned"], number + 1)

    def make_received(self, item):
        """The snapshots of `make_files`, sent from another file system one upon the other."""
        source, below = self.source_image(item), self.mount + ".source"
        make_image(source)
        with mounted(source, below):
            Maker(self.programs, self.folder, below, self.keep).make_files(item)
            paths = [os.path.join(below, f"snapshot{n:03}") for n in range(item["snapshots"])]
            for parent, path in zip([None, *paths], paths):
                send(path, parent, self.mount)
        os.remove(source)

    def make_pieces(self, item):
        """Snapshots of files with very many extents, of which whole files come and go."""
        live, copies = self.path("live"), [f"copy{n}" for n in range(item["clones"])]
        run("btrfs", "subvolume", "create", live)
        os.mkdir(os.path.join(live, "files"))
        self.fill("pieces", os.path.join(live, "files"), 0, item["files"], item["pieces"])
        for copy in copies:
            os.mkdir(os.path.join(live, copy))
            self.fill("clone", os.path.join(live, "files"), os.path.join(live, copy))
        for number in range(item["snapshots"]):
            self.snapshot(number)
            for folder in ["files", *copies]:
                os.remove(os.path.join(live, folder, str(number)))
            self.fill("pieces", os.path.join(live, "files"), item["files"] + number, 1, item["pieces"])


def make_image(path):
    """An empty file system in a sparse file, far larger than any recipe fills."""
    if os.path.exists(path):
        os.remove(path)
    run("truncate", "--size", "64G", path)
    run("mkfs.btrfs", "--quiet", "--nodesize", NODE, path)


def send(path, parent, target):
    """Sends a snapshot, as the difference to `parent` if there is one, and receives it at `target`."""
    argv = ["btrfs", "send", "--quiet"] + (["-p", parent] if parent else []) + [path]
    with subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as sender:
        run("btrfs", "receive", "--quiet", target, stdin=sender.stdout)
        said = sender.stderr.read().decode()
    if sender.returncode != 0:
        raise CommandFailed(f"btrfs send: {said.strip()}")
