"""What the figures were taken on."""
import datetime
import os
import platform
import re

from commands import run


def processor():
    with open("/proc/cpuinfo") as text:
        names = re.findall(r"^model name\s*: (.*)$", text.read(), re.M)
    return f"{names[0] if names else platform.machine()}, {os.cpu_count()} cores"


def memory():
    with open("/proc/meminfo") as text:
        return f"{int(re.search(r'MemTotal: *([0-9]+)', text.read()).group(1)) / 1e6:.0f} GB"


def driver_of(device):
    """The kernel's driver of a disk, such as virtio_blk or nvme; the kernel's name when unknown."""
    link = f"/sys/class/block/{os.path.basename(device)}"
    folder = os.path.realpath(link)
    for _ in range(4):  # a partition's disk, the disk's controller
        for name in ("driver", "device/driver"):
            if os.path.islink(os.path.join(folder, name)):
                return os.path.basename(os.path.realpath(os.path.join(folder, name)))
        folder = os.path.dirname(folder)
    return "a disk"


def disk(folder):
    kind, source = run("findmnt", "--noheadings", "--output", "FSTYPE,SOURCE", "--target",
                       folder).split()[-2:]
    return f"images in {kind} on {driver_of(source)}, loop devices with direct I/O"


def describe(folder):
    """Name and value, for the head of the page."""
    return {
        "date": datetime.date.today().isoformat(),
        "processor": processor(),
        "memory": memory(),
        "kernel": f"{platform.system()} {platform.release()}",
        "btrfs-progs": run("btrfs", "--version").split("\n")[0].removeprefix("btrfs-progs "),
        "disk": disk(folder),
        "load before": f"{os.getloadavg()[0]:.2f} (mean of runnable processes over a minute)",
    }
