"""What the agent sees of the host's block devices, on real loop devices.

Volumes of every kind the agent backs up (ext4, XFS, NTFS through ntfs-3g, an
unmounted FAT, a read-only mount, swap, GPT and MBR partitions) are made on loop
devices; orv_blockdev_probe prints the agent's records of them, which are compared
with what the kernel, blkid and statvfs say. Every loop device, mount and swap is
released again, also when a test fails.
"""
import errno
import fcntl
import json
import os
import random
import shutil
import subprocess
import tempfile
import threading
import time

import pytest

from volumes import run

SOURCE_DIR = os.environ.get("ORV_SOURCE_DIR", os.path.abspath(os.path.join(os.path.dirname(__file__), "..", "..")))
BUILD_DIR = os.environ.get("ORV_BUILD_DIR", os.path.join(SOURCE_DIR, "build"))
PROBE = os.path.join(BUILD_DIR, "tests", "orv_blockdev_probe")

MIB = 1 << 20
LOOP_CTL_ADD = 0x4C80
LOOP_CTL_REMOVE = 0x4C81


def blkid_tags(dev):
    """The low-level probe of the device, without any cache."""
    out = run("blkid", "-p", "-o", "export", dev, check=False).stdout
    return dict(line.split("=", 1) for line in out.splitlines() if "=" in line)


class Rig:
    """Loop devices, mounts and swaps of one test, released in reverse order."""

    def __init__(self):
        # A short private directory: mount points stay well below 80 bytes.
        self.dir = tempfile.mkdtemp(prefix="orvbd-", dir="/tmp")
        self.etc = os.path.join(self.dir, "etc")
        os.makedirs(self.etc)
        self.loops = []
        self.mounts = []
        self.swaps = []
        self.added_loops = []

    # -- building ----------------------------------------------------------------------
    def image(self, name, size_mb):
        path = os.path.join(self.dir, name)
        with open(path, "wb") as f:
            f.truncate(size_mb * MIB)
        return path

    def attach(self, image, partscan=False, device=None):
        args = ["losetup", "--show"]
        if partscan:
            args.append("-P")
        args += [device] if device else ["-f"]
        dev = run(*args, image).stdout.strip()
        self.loops.append(dev)
        return dev

    def partitions(self, dev, count):
        """The partition nodes of a partition-scanned loop disk; this kernel reads no
        partition tables itself, so partx adds them."""
        names = [f"{dev}p{i}" for i in range(1, count + 1)]
        if not all(os.path.exists(n) for n in names):
            run("partx", "-a", dev)
        for _ in range(50):
            if all(os.path.exists(n) for n in names):
                return names
            time.sleep(0.1)
        raise RuntimeError(f"partitions of {dev} did not appear")

    def volume(self, fs, size_mb, label):
        dev = self.attach(self.image(f"{fs}-{label}.img", size_mb))
        self.mkfs(dev, fs, label)
        return dev

    MKFS = {"ext4": ("mkfs.ext4", "-q", "-F", "-L"), "xfs": ("mkfs.xfs", "-q", "-f", "-L"),
            "ntfs": ("mkfs.ntfs", "-q", "-F", "-Q", "-L"), "vfat": ("mkfs.vfat", "-n"), "swap": ("mkswap", "-L")}

    def mkfs(self, dev, fs, label):
        run(*self.MKFS[fs], label, dev, timeout=120)

    def mount(self, dev, name, options=None, ntfs=False):
        path = os.path.join(self.dir, name)
        os.makedirs(path)
        if ntfs:
            run("ntfs-3g", dev, path)
        else:
            run("mount", *(["-o", options] if options else []), dev, path)
        self.mounts.append(path)
        return path

    def swapon(self, dev):
        run("swapon", dev)
        self.swaps.append(dev)

    def add_loop_device(self, number):
        """Makes /dev/loop<number> exist (loop-control), or returns False when taken."""
        fd = os.open("/dev/loop-control", os.O_RDWR)
        try:
            fcntl.ioctl(fd, LOOP_CTL_ADD, number)
        except OSError as e:
            if e.errno == errno.EEXIST:
                return False
            raise
        finally:
            os.close(fd)
        self.added_loops.append(number)
        for _ in range(50):
            if os.path.exists(f"/dev/loop{number}"):
                return True
            time.sleep(0.1)
        raise RuntimeError(f"/dev/loop{number} did not appear")

    # -- probing -----------------------------------------------------------------------
    def probe(self, *args):
        env = dict(os.environ)
        env.update({
            "ORVD_ETC_DIR": self.etc,
            "ORVD_DRIVER_INFO": os.path.join(self.dir, "zelko-info"),
            "ORVD_DRIVER_DEV": os.path.join(self.dir, "dev", "zelko"),
        })
        env.setdefault("ASAN_OPTIONS", "detect_leaks=1")
        p = subprocess.run([PROBE, *args], env=env, capture_output=True, text=True, timeout=300)
        assert p.returncode == 0, p.stdout + p.stderr
        logs = [line for line in p.stdout.splitlines() if line.startswith("[")]
        results = [line[len("RESULT "):] for line in p.stdout.splitlines() if line.startswith("RESULT ")]
        assert len(results) == 1, p.stdout
        return json.loads(results[0]), logs

    def records(self):
        devices, _ = self.probe("list")
        return {d["path"]: d for d in devices}

    # -- teardown ----------------------------------------------------------------------
    def cleanup(self):
        errors = []
        for dev in reversed(self.swaps):
            if run("swapoff", dev, check=False).returncode != 0:
                errors.append(f"swapoff {dev}")
        for path in reversed(self.mounts):
            for attempt in range(20):
                if run("umount", path, check=False).returncode == 0 or not os.path.ismount(path):
                    break
                time.sleep(0.25)
            else:
                run("umount", "-l", path, check=False)
                errors.append(f"umount {path}")
        for dev in reversed(self.loops):
            run("partx", "-d", dev, check=False)
            for attempt in range(20):
                if run("losetup", "-d", dev, check=False).returncode == 0:
                    break
                time.sleep(0.25)
            else:
                errors.append(f"losetup -d {dev}")
        for number in self.added_loops:
            fd = os.open("/dev/loop-control", os.O_RDWR)
            try:
                fcntl.ioctl(fd, LOOP_CTL_REMOVE, number)
            except OSError:
                pass
            finally:
                os.close(fd)
        shutil.rmtree(self.dir, ignore_errors=True)
        assert not errors, errors


@pytest.fixture
def rig():
    r = Rig()
    try:
        yield r
    finally:
        r.cleanup()


# A mount point with every character the mount table escapes, and one longer than
# the 80 bytes the agent keeps of it.
ODD_NAME = "odd dir\twith\\back#slash"
LONG_NAME = "long-" + "x" * 90


@pytest.fixture(scope="module")
def host():
    """One host with every kind of volume, probed once."""
    r = Rig()
    try:
        v = {}
        v["ext4"] = r.volume("ext4", 64, "ext4vol")
        v["ext4_dir"] = r.mount(v["ext4"], ODD_NAME)
        v["xfs"] = r.volume("xfs", 300, "xfsvol")
        v["xfs_dir"] = r.mount(v["xfs"], LONG_NAME)
        v["ntfs"] = r.volume("ntfs", 64, "ntfsvol")
        v["ntfs_dir"] = r.mount(v["ntfs"], "ntfs", ntfs=True)
        v["vfat"] = r.volume("vfat", 64, "FATVOL")
        v["ro"] = r.volume("ext4", 32, "rovol")
        v["ro_dir"] = r.mount(v["ro"], "ro", options="ro")
        v["swap"] = r.volume("swap", 32, "swapvol")
        r.swapon(v["swap"])

        gpt = r.attach(r.image("gpt.img", 64), partscan=True)
        run("sfdisk", "-q", gpt, input="label: gpt\n,16M\n,\n")
        v["gpt"] = gpt
        v["gpt1"], v["gpt2"] = r.partitions(gpt, 2)
        r.mkfs(v["gpt1"], "ext4", "gptone")
        v["gpt1_dir"] = r.mount(v["gpt1"], "gpt1")
        r.mkfs(v["gpt2"], "vfat", "GPTTWO")

        mbr = r.attach(r.image("mbr.img", 64), partscan=True)
        run("sfdisk", "-q", mbr, input="label: dos\n4096,24M,83\n")
        v["mbr"] = mbr
        (v["mbr1"],) = r.partitions(mbr, 1)
        r.mkfs(v["mbr1"], "ext4", "mbrone")

        v["records"] = r.records()
        v["host"], v["host_logs"] = r.probe("host")
        v["rig"] = r
        yield v
    finally:
        r.cleanup()


def check_common(record, dev):
    st = os.stat(dev)
    tags = blkid_tags(dev)
    assert record["uuid"] == tags["UUID"]
    assert record["type"] == tags["TYPE"]
    assert record["label"] == tags.get("LABEL", "")
    assert record["name"] == dev[len("/dev/"):]
    with open(f"/sys/dev/block/{os.major(st.st_rdev)}:{os.minor(st.st_rdev)}/size") as f:
        size = int(f.read()) * 512
    assert record["sizeBytes"] == size
    assert record["sectorSize"] == 512
    assert record["sectorCount"] == size // 512
    assert record["deviceNumber"] == st.st_rdev
    assert record["minor"] == st.st_rdev & 255
    assert record["removable"] is False


def check_mounted_space(record, path):
    s = os.statvfs(path)
    assert record["blockSize"] == s.f_bsize
    assert record["spaceTotal"] == s.f_blocks * s.f_frsize
    # Free space moves only when something writes; these volumes are idle.
    assert record["spaceFree"] == s.f_bavail * s.f_frsize


def test_mounted_whole_disk_volumes(host):
    records = host["records"]
    for fs, dev, path in (("ext4", host["ext4"], host["ext4_dir"]), ("xfs", host["xfs"], host["xfs_dir"]),
                          ("ntfs", host["ntfs"], host["ntfs_dir"])):
        record = records[dev]
        check_common(record, dev)
        assert record["type"] == fs
        assert record["mounted"] is True and record["readOnly"] is False and record["root"] is False
        assert record["wholeDiskPath"] == dev
        assert record["wholeDiskNumber"] == record["deviceNumber"]
        assert record["partitionScheme"] == ""
        assert record["volumeType"] == "disk"
        assert record["hiddenSectors"] == 0
        check_mounted_space(record, path)
    # The mount table's escapes are decoded; the long one is cut to 79 bytes.
    assert records[host["ext4"]]["mountPoint"] == host["ext4_dir"]
    assert records[host["ntfs"]]["mountPoint"] == host["ntfs_dir"]
    assert records[host["xfs"]]["mountPoint"] == host["xfs_dir"][:79]
    # The NTFS serial is its 64-bit UUID.
    assert records[host["ntfs"]]["serialNumber"] == int(records[host["ntfs"]]["uuid"], 16)
    uuid = records[host["ext4"]]["uuid"]
    assert records[host["ext4"]]["serialNumber"] == int(uuid.replace("-", "")[:8], 16)


def test_unmounted_readonly_and_swap(host):
    records = host["records"]
    fat = records[host["vfat"]]
    check_common(fat, host["vfat"])
    assert (fat["type"], fat["label"]) == ("vfat", "FATVOL")
    assert fat["mounted"] is False and fat["mountPoint"] == ""
    assert fat["spaceTotal"] == fat["sizeBytes"] and fat["spaceFree"] == 0
    assert fat["blockSize"] == int(blkid_tags(host["vfat"])["BLOCK_SIZE"])
    assert fat["serialNumber"] == int(fat["uuid"].replace("-", ""), 16)

    ro = records[host["ro"]]
    check_common(ro, host["ro"])
    assert ro["mounted"] is True and ro["readOnly"] is True and ro["mountPoint"] == host["ro_dir"]

    swap = records[host["swap"]]
    check_common(swap, host["swap"])
    assert (swap["type"], swap["label"], swap["mountPoint"]) == ("swap", "swapvol", "<swap>")
    assert swap["mounted"] is False


def test_partitions_carry_their_disk_and_scheme(host):
    records = host["records"]
    for part, disk, scheme, mounted in ((host["gpt1"], host["gpt"], "GPT", True),
                                        (host["gpt2"], host["gpt"], "GPT", False),
                                        (host["mbr1"], host["mbr"], "MBR", False)):
        record = records[part]
        check_common(record, part)
        assert record["wholeDiskPath"] == disk
        assert record["wholeDiskNumber"] == os.stat(disk).st_rdev
        assert record["partitionScheme"] == scheme
        assert record["volumeType"] == "partition"
        name = os.path.basename(part)
        with open(f"/sys/class/block/{name}/start") as f:
            assert record["hiddenSectors"] == int(f.read())
        assert record["mounted"] is mounted
    assert records[host["mbr1"]]["hiddenSectors"] == 4096
    assert records[host["gpt1"]]["mountPoint"] == host["gpt1_dir"]
    # A disk that holds partitions is not itself a volume.
    assert host["gpt"] not in records and host["mbr"] not in records


def test_host_document_lists_the_volumes(host):
    doc = host["host"]
    assert list(doc) == ["cpus", "ram", "freeram", "scriptsPrePost", "volumes", "kernel", "os", "os_arch",
                         "archBits", "agentVersion", "apiVersion", "driverVersion", "hostname",
                         "networkInterfaceList", "capabilities"]
    by_device = {v["device"]: v for v in doc["volumes"]}
    keys = ["guid", "mountpoints", "device", "diskdevice", "spaceTotal", "spaceFree", "filesystem", "sectorSize",
            "sectorsTotal", "hiddenSectors", "blockSize", "serialNumber", "volumeType", "label", "OSVolume",
            "sysVolume", "removable", "mounted", "readonly", "partScheme"]
    mounted = by_device[host["ro"]]
    assert list(mounted) == keys
    assert mounted["readonly"] is True and mounted["mounted"] is True and mounted["OSVolume"] is False
    unmounted = by_device[host["mbr1"]]
    assert list(unmounted) == [k for k in keys if k != "readonly"]
    assert unmounted["partScheme"] == "MBR" and unmounted["diskdevice"] == host["mbr"]
    assert unmounted["guid"] == host["records"][host["mbr1"]]["uuid"]
    # No driver and no scripts directory: still a full document.
    assert doc["driverVersion"] == "unavailable"
    assert doc["scriptsPrePost"] == []
    assert "[ERROR] Host: Could not retrieve pre-post scripts." in host["host_logs"]
    assert doc["cpus"] == os.cpu_count()
    assert doc["os_arch"] == os.uname().machine and doc["hostname"] == os.uname().nodename
    names = [i["name"] for i in doc["networkInterfaceList"]]
    assert "lo" in names and len(names) == len(set(names))


def test_clone_lookup_prefers_the_mounted_copy(rig):
    image = rig.image("clone-a.img", 64)
    run("mkfs.ext4", "-q", "-F", "-L", "clone", image)
    twin = os.path.join(rig.dir, "clone-b.img")
    shutil.copyfile(image, twin)
    a = rig.attach(image)
    b = rig.attach(twin)
    uuid = blkid_tags(a)["UUID"]
    assert blkid_tags(b)["UUID"] == uuid

    first, _ = rig.probe("uuid", uuid, "0")
    assert first["path"] in (a, b)
    # Nothing mounted: the lookup that wants a mounted copy finds none.
    none, logs = rig.probe("uuid", uuid, "1")
    assert none is None
    assert (f"[WARNING] GetBlockDeviceFromUUID found UUID {uuid} unmounted. "
            f"Scanning for another instance that is mounted.") in logs

    other = b if first["path"] == a else a
    path = rig.mount(other, "clone")
    found, logs = rig.probe("uuid", uuid, "1")
    assert found["path"] == other and found["mounted"] is True and found["mountPoint"] == path
    assert f"[WARNING] Found UUID {uuid} mounted on {path}" in logs
    # The enumeration keeps one record per UUID: the mounted one.
    records = [d for d in rig.probe("list")[0] if d["uuid"] == uuid]
    assert [d["path"] for d in records] == [other]
    unknown, _ = rig.probe("uuid", "00000000-1111-2222-3333-444444444444", "1")
    assert unknown is None


def test_device_beyond_the_old_minor_split_keeps_its_record(rig):
    # The whole-disk lookup forms the sysfs name with an 8-bit minor, so a device
    # whose minor needs more bits gets no whole disk, but still its record.
    numbers = list(range(300, 1000))
    random.shuffle(numbers)
    number = next(n for n in numbers if not os.path.exists(f"/dev/loop{n}") and rig.add_loop_device(n))
    dev = rig.attach(rig.image("wide.img", 32), device=f"/dev/loop{number}")
    rig.mkfs(dev, "ext4", "wide")
    devices, logs = rig.probe("list")
    record = next(d for d in devices if d["path"] == dev)
    assert record["uuid"] == blkid_tags(dev)["UUID"]
    assert record["deviceNumber"] == os.makedev(7, number)
    assert record["wholeDiskPath"] == "" and record["partitionScheme"] == ""
    assert f"[WARNING] Could not get path from device id: {os.makedev(7, number)}." in logs


def test_devices_vanishing_during_enumeration(rig):
    stable = rig.volume("ext4", 32, "stable")
    churn_image = rig.image("churn.img", 32)
    run("mkfs.ext4", "-q", "-F", "-L", "churn", churn_image)
    stop = threading.Event()
    attached = []
    failures = []

    def churn():
        try:
            while not stop.is_set():
                dev = run("losetup", "-f", "--show", churn_image).stdout.strip()
                attached.append(dev)
                time.sleep(random.uniform(0, 0.05))
                run("losetup", "-d", dev)
                attached.remove(dev)
        except Exception as e:  # reported by the test below
            failures.append(e)

    worker = threading.Thread(target=churn)
    worker.start()
    try:
        for _ in range(4):
            records = rig.records()
            assert records[stable]["label"] == "stable"
    finally:
        stop.set()
        worker.join()
        for dev in attached:
            run("losetup", "-d", dev, check=False)
    assert not failures, failures


def test_read_only_root_is_reported(rig):
    root = next(line.split()[0] for line in open("/proc/self/mounts") if line.split()[1] == "/")
    if not root.startswith("/dev/"):
        pytest.skip(f"root file system is {root}, not a device")
    flags, _ = rig.probe("mountcheck", root)
    assert flags == {"flags": 3, "mountPoint": "/"}
    assert not os.path.exists("/.ismount-test-file")
    # In a private mount namespace the root can be made read-only for the probe alone.
    env = dict(os.environ, ORVD_ETC_DIR=rig.etc)
    p = subprocess.run(["unshare", "-m", "--propagation", "private", "sh", "-c",
                        f"mount -o remount,bind,ro / && exec {PROBE} mountcheck {root}"],
                       env=env, capture_output=True, text=True, timeout=60)
    assert p.returncode == 0, p.stderr
    result = [line for line in p.stdout.splitlines() if line.startswith("RESULT ")]
    assert json.loads(result[0][len("RESULT "):]) == {"flags": 7, "mountPoint": "/"}
