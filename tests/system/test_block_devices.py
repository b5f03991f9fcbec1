"""The agent's block device records (printed by tests/orv_blockdev_probe) for loop volumes of every kind,
against what the kernel, blkid and statvfs say."""
import errno
import fcntl
import json
import os
import random
import shutil
import subprocess
import tempfile
import time

import pytest

from volumes import run

SOURCE_DIR = os.environ.get("ORV_SOURCE_DIR", os.path.abspath(os.path.join(os.path.dirname(__file__), "..", "..")))
PROBE = os.path.join(os.environ.get("ORV_BUILD_DIR", os.path.join(SOURCE_DIR, "build")), "tests", "orv_blockdev_probe")
MIB = 1 << 20
LOOP_CTL_ADD, LOOP_CTL_REMOVE = 0x4C80, 0x4C81
MKFS = {"ext4": ("mkfs.ext4", "-q", "-F", "-L"), "xfs": ("mkfs.xfs", "-q", "-f", "-L"),
        "ntfs": ("mkfs.ntfs", "-q", "-F", "-Q", "-L"), "vfat": ("mkfs.vfat", "-n"), "swap": ("mkswap", "-L")}


def blkid_tags(dev):
    out = run("blkid", "-p", "-o", "export", dev, check=False).stdout
    return dict(line.split("=", 1) for line in out.splitlines() if "=" in line)


def loop_control(request, number):
    fd = os.open("/dev/loop-control", os.O_RDWR)
    try:
        fcntl.ioctl(fd, request, number)
    finally:
        os.close(fd)


def retry(done, times=20, pause=0.25, what=None):
    for _ in range(times):
        if done():
            return True
        time.sleep(pause)
    if what:
        raise RuntimeError(f"{what} did not appear")
    return False


class Rig:
    """Loop devices, mounts and swaps of one test, released in reverse order."""

    def __init__(self):
        # A short private directory: mount points stay well below 80 bytes.
        self.dir = tempfile.mkdtemp(prefix="orvbd-", dir="/tmp")
        self.etc = os.path.join(self.dir, "etc")
        os.makedirs(self.etc)
        self.loops, self.mounts, self.swaps, self.added_loops = [], [], [], []

    def image(self, name, size_mb):
        path = os.path.join(self.dir, name)
        with open(path, "wb") as f:
            f.truncate(size_mb * MIB)
        return path

    def attach(self, image, partscan=False, device=None):
        dev = run("losetup", "--show", *(["-P"] if partscan else []), device or "-f", image).stdout.strip()
        self.loops.append(dev)
        return dev

    def partitions(self, dev, count):
        """This kernel reads no partition tables itself: partx adds the nodes."""
        names = [f"{dev}p{i}" for i in range(1, count + 1)]
        if not all(os.path.exists(n) for n in names):
            run("partx", "-a", dev)
        retry(lambda: all(os.path.exists(n) for n in names), 50, 0.1, f"partitions of {dev}")
        return names

    def mkfs(self, dev, fs, label):
        run(*MKFS[fs], label, dev, timeout=120)

    def volume(self, fs, size_mb, label):
        dev = self.attach(self.image(f"{fs}-{label}.img", size_mb))
        self.mkfs(dev, fs, label)
        return dev

    def mount(self, dev, name, options=None, ntfs=False):
        path = os.path.join(self.dir, name)
        os.makedirs(path)
        run(*(["ntfs-3g"] if ntfs else ["mount"] + (["-o", options] if options else [])), dev, path)
        self.mounts.append(path)
        return path

    def add_loop_device(self, number):
        """Makes /dev/loop<number> exist, or returns False when it is taken."""
        try:
            loop_control(LOOP_CTL_ADD, number)
        except OSError as e:
            if e.errno == errno.EEXIST:
                return False
            raise
        self.added_loops.append(number)
        return retry(lambda: os.path.exists(f"/dev/loop{number}"), 50, 0.1, f"/dev/loop{number}")

    def probe(self, *args, wrap=()):
        env = dict(os.environ, ORVD_ETC_DIR=self.etc, ORVD_DRIVER_INFO=os.path.join(self.dir, "zelko-info"),
                   ORVD_DRIVER_DEV=os.path.join(self.dir, "dev", "zelko"))
        env.setdefault("ASAN_OPTIONS", "detect_leaks=1")
        p = subprocess.run([*wrap, PROBE, *args], env=env, capture_output=True, text=True, timeout=300)
        assert p.returncode == 0, p.stdout + p.stderr
        lines = p.stdout.splitlines()
        results = [line[len("RESULT "):] for line in lines if line.startswith("RESULT ")]
        assert len(results) == 1, p.stdout
        return json.loads(results[0]), [line for line in lines if line.startswith("[")]

    def records(self):
        return {d["path"]: d for d in self.probe("list")[0]}

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        errors = [f"swapoff {dev}" for dev in reversed(self.swaps) if run("swapoff", dev, check=False).returncode]
        for path in reversed(self.mounts):
            if not retry(lambda: run("umount", path, check=False).returncode == 0 or not os.path.ismount(path)):
                run("umount", "-l", path, check=False)
                errors.append(f"umount {path}")
        for dev in reversed(self.loops):
            run("partx", "-d", dev, check=False)
            if not retry(lambda: run("losetup", "-d", dev, check=False).returncode == 0):
                errors.append(f"losetup -d {dev}")
        for number in self.added_loops:
            try:
                loop_control(LOOP_CTL_REMOVE, number)
            except OSError:
                pass
        shutil.rmtree(self.dir, ignore_errors=True)
        assert not errors, errors


@pytest.fixture
def rig():
    with Rig() as r:
        yield r


# A mount point with every character the mount table escapes, and one longer than the 80
# bytes the agent keeps of it.
ODD_NAME = "odd dir\twith\\back#slash"
LONG_NAME = "long-" + "x" * 90


@pytest.fixture(scope="module")
def host():
    """One host with every kind of volume, probed once."""
    with Rig() as r:
        v = {"rig": r}
        for key, fs, mib, label, directory, options in (
                ("ext4", "ext4", 64, "ext4vol", ODD_NAME, {}), ("xfs", "xfs", 300, "xfsvol", LONG_NAME, {}),
                ("ntfs", "ntfs", 64, "ntfsvol", "ntfs", {"ntfs": True}), ("vfat", "vfat", 64, "FATVOL", None, {}),
                ("ro", "ext4", 32, "rovol", "ro", {"options": "ro"}), ("swap", "swap", 32, "swapvol", None, {})):
            v[key] = r.volume(fs, mib, label)
            if directory:
                v[key + "_dir"] = r.mount(v[key], directory, **options)
        run("swapon", v["swap"])
        r.swaps.append(v["swap"])
        v["gpt"] = r.attach(r.image("gpt.img", 64), partscan=True)
        run("sfdisk", "-q", v["gpt"], input="label: gpt\n,16M\n,\n")
        v["gpt1"], v["gpt2"] = r.partitions(v["gpt"], 2)
        r.mkfs(v["gpt1"], "ext4", "gptone")
        v["gpt1_dir"] = r.mount(v["gpt1"], "gpt1")
        r.mkfs(v["gpt2"], "vfat", "GPTTWO")
        v["mbr"] = r.attach(r.image("mbr.img", 64), partscan=True)
        run("sfdisk", "-q", v["mbr"], input="label: dos\n4096,24M,83\n")
        (v["mbr1"],) = r.partitions(v["mbr"], 1)
        r.mkfs(v["mbr1"], "ext4", "mbrone")
        v["records"] = r.records()
        v["host"], v["host_logs"] = r.probe("host")
        yield v


def test_records_match_the_kernel_blkid_and_statvfs(host):
    records = host["records"]
    whole = lambda key: dict(wholeDiskPath=host[key], volumeType="disk", partitionScheme="", hiddenSectors=0)
    part = lambda disk, scheme: dict(wholeDiskPath=host[disk], volumeType="partition", partitionScheme=scheme,
                                     wholeDiskNumber=os.stat(host[disk]).st_rdev)
    # The mount table's escapes are decoded; the long mount point is cut to 79 bytes.
    cases = {
        "ext4": dict(whole("ext4"), type="ext4", mounted=True, readOnly=False, mountPoint=host["ext4_dir"]),
        "xfs": dict(whole("xfs"), type="xfs", mounted=True, readOnly=False, mountPoint=host["xfs_dir"][:79]),
        "ntfs": dict(whole("ntfs"), type="ntfs", mounted=True, readOnly=False, mountPoint=host["ntfs_dir"]),
        "ro": dict(mounted=True, readOnly=True, mountPoint=host["ro_dir"]),
        "vfat": dict(type="vfat", label="FATVOL", mounted=False, mountPoint=""),
        "swap": dict(type="swap", label="swapvol", mounted=False, mountPoint="<swap>"),
        "gpt1": dict(part("gpt", "GPT"), mounted=True, mountPoint=host["gpt1_dir"]),
        "gpt2": dict(part("gpt", "GPT"), mounted=False),
        "mbr1": dict(part("mbr", "MBR"), mounted=False, hiddenSectors=4096),
    }
    for key, expected in cases.items():
        dev = host[key]
        record = records[dev]
        st = os.stat(dev)
        tags = blkid_tags(dev)
        with open(f"/sys/dev/block/{os.major(st.st_rdev)}:{os.minor(st.st_rdev)}/size") as f:
            size = int(f.read()) * 512
        if expected.get("volumeType") == "disk":
            expected["wholeDiskNumber"] = st.st_rdev
        if expected.get("volumeType") == "partition":
            with open(f"/sys/class/block/{os.path.basename(dev)}/start") as f:
                expected.setdefault("hiddenSectors", int(f.read()))
        if key in ("ext4", "xfs", "ntfs"):
            s = os.statvfs(host[key + "_dir"])
            # Free space moves only when something writes; these volumes are idle.
            expected.update(blockSize=s.f_bsize, spaceTotal=s.f_blocks * s.f_frsize, spaceFree=s.f_bavail * s.f_frsize)
        expected = dict(dict(uuid=tags["UUID"], type=tags["TYPE"], label=tags.get("LABEL", ""), name=dev[5:],
                             sizeBytes=size, sectorSize=512, sectorCount=size // 512, deviceNumber=st.st_rdev,
                             minor=st.st_rdev & 255, removable=False), **expected)
        assert {k: record[k] for k in expected} == expected, key
    # Serial numbers: NTFS's is its 64-bit UUID, FAT's its volume id, ext4's the UUID's first 32 bits.
    ntfs, fat, ext4 = records[host["ntfs"]], records[host["vfat"]], records[host["ext4"]]
    assert ntfs["serialNumber"] == int(ntfs["uuid"], 16)
    assert fat["serialNumber"] == int(fat["uuid"].replace("-", ""), 16)
    assert ext4["serialNumber"] == int(ext4["uuid"].replace("-", "")[:8], 16)
    # An unmounted FAT has no free space to tell.
    assert fat["spaceTotal"] == fat["sizeBytes"] and fat["spaceFree"] == 0
    assert fat["blockSize"] == int(blkid_tags(host["vfat"])["BLOCK_SIZE"])
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
    assert doc["driverVersion"] == "unavailable" and doc["scriptsPrePost"] == []
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
    a, b = rig.attach(image), rig.attach(twin)
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
    assert [d["path"] for d in rig.probe("list")[0] if d["uuid"] == uuid] == [other]


def test_device_beyond_the_old_minor_split_keeps_its_record(rig):
    # The whole-disk lookup forms the sysfs name with an 8-bit minor, so a device whose
    # minor needs more bits gets no whole disk, but still its record.
    numbers = random.sample(range(300, 1000), 700)
    number = next(n for n in numbers if not os.path.exists(f"/dev/loop{n}") and rig.add_loop_device(n))
    dev = rig.attach(rig.image("wide.img", 32), device=f"/dev/loop{number}")
    rig.mkfs(dev, "ext4", "wide")
    devices, logs = rig.probe("list")
    record = next(d for d in devices if d["path"] == dev)
    assert record["uuid"] == blkid_tags(dev)["UUID"]
    assert record["deviceNumber"] == os.makedev(7, number)
    assert record["wholeDiskPath"] == "" and record["partitionScheme"] == ""
    assert f"[WARNING] Could not get path from device id: {os.makedev(7, number)}." in logs


def test_read_only_root_is_reported(rig):
    root = next(line.split()[0] for line in open("/proc/self/mounts") if line.split()[1] == "/")
    if not root.startswith("/dev/"):
        pytest.skip(f"root file system is {root}, not a device")
    assert rig.probe("mountcheck", root)[0] == {"flags": 3, "mountPoint": "/"}
    assert not os.path.exists("/.ismount-test-file")
    # In a private mount namespace the root can be made read-only for the probe alone.
    private_ro_root = ["unshare", "-m", "--propagation", "private", "sh", "-c",
                       'mount -o remount,bind,ro / && exec "$0" "$@"']
    assert rig.probe("mountcheck", root, wrap=private_ro_root)[0] == {"flags": 7, "mountPoint": "/"}
