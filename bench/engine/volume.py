"""File systems in image files: made, attached past the page cache, mounted with cold caches."""
import contextlib
import os
import time

from commands import CommandFailed, run

IN_MEMORY = ("tmpfs", "ramfs", "devtmpfs")


class Unfit(Exception):
    """This machine or path cannot give honest figures; the text says why."""


def refuse_memory(directory):
    """Unfit when the directory lies in memory: reading it would not be reading a disk."""
    kind = run("findmnt", "--noheadings", "--output", "FSTYPE", "--target", directory).split()[-1]
    if kind in IN_MEMORY:
        raise Unfit(f"{directory} lies in memory ({kind}); name a folder on a disk with --dir")


def drop_caches():
    os.sync()
    with open("/proc/sys/vm/drop_caches", "w") as control:
        control.write("3\n")


def read_line(path):
    with open(path) as text:
        return text.readline().strip()


class Attached:
    """A loop device on an image, reads and writes past the page cache of the image's file."""

    def __init__(self, image):
        self.device = run("losetup", "--find", "--show", "--direct-io=on", image).strip()
        self.name = os.path.basename(self.device)
        self.image = image
        if read_line(f"/sys/block/{self.name}/loop/dio") != "1":
            self.release()
            raise Unfit(f"the loop device does not read {image} past the page cache")

    @property
    def number(self):
        """Major and minor number, as in 7:0."""
        return read_line(f"/sys/block/{self.name}/dev")

    def setting(self, name, value):
        """Sets one of the device's queue settings."""
        with open(f"/sys/block/{self.name}/queue/{name}", "w") as control:
            control.write(f"{value}\n")

    def schedulers(self):
        """Names of the I/O schedulers that the device can have."""
        names = read_line(f"/sys/block/{self.name}/queue/scheduler")
        return names.replace("[", "").replace("]", "").split()

    def reads(self):
        """How many reads the device has had, and how many bytes."""
        fields = read_line(f"/sys/block/{self.name}/stat").split()
        return int(fields[0]), int(fields[2]) * 512

    def release(self):
        """Detaches; the kernel does so when the last user has gone."""
        run("losetup", "--detach", self.device)


def cached_bytes(image):
    """How much of the image's file lies in the page cache."""
    return int(run("fincore", "--bytes", "--noheadings", "--output", "RES", image))


def unmount(mount):
    """Tries a while: somebody who was just stopped may still hold it."""
    for patience in range(50):
        try:
            return run("umount", mount)
        except CommandFailed:
            if patience == 49:
                raise
            time.sleep(0.1)


@contextlib.contextmanager
def mounted(image, mount):
    """The file system of an image (or a device), mounted at `mount`; gives the device."""
    os.makedirs(mount, exist_ok=True)
    device = Attached(image)
    # A virtual disk says that it rotates, whatever lies below it, and loop devices repeat that.
    device.setting("rotational", 0)
    # A loop device keeps the scheduler that its last user chose.
    device.setting("scheduler", "none")
    try:
        # No access times: reading would write, and own numbers would change from peer to peer.
        run("mount", "-t", "btrfs", "-o", "noatime", device.device, mount)
    finally:
        device.release()  # with the mount, or at once when there is none
    try:
        yield device
    finally:
        unmount(mount)


@contextlib.contextmanager
def directly(image):
    """What a file system is mounted from: as a rule the image itself."""
    yield image


@contextlib.contextmanager
def cold(programs, image, mount, through=directly):
    """As `mounted`, with nothing of the file system in memory but what mounting reads."""
    drop_caches()
    # Where the image's bytes lie on the disk: a real disk has no such map to read.
    run("filefrag", image)
    with through(image) as source, mounted(source, mount) as device:
        run("sync", "--file-system", mount)
        programs.warm()
        yield device
        if cached_bytes(image) > 0:
            raise Unfit("the image's bytes are in the page cache: reads were not cold")
