"""Loop-device volumes and driver-simulator directories for system tests.

`LoopVolume`: a sparse image on a loop device with ext2/3/4, xfs or ntfs (ntfs-3g, run in
the foreground by us), mounted read-write; `fill_volume` writes known content and returns
the manifest `verify_content` checks a copy against; `mount_image` mounts a captured image
(read-only without journal replay unless told otherwise); `SimDir` is a ZELKO_SIM_DIR.
Whatever made something tears it down, also when a test fails, and checks that nothing is
left; loop devices are detached only while they still hold our image. conftest.py
registers the fixtures `loop_volumes` and `sim_dir`.
"""

import atexit
import errno
import fcntl
import hashlib
import json
import mmap
import os
import random
import re
import signal
import struct
import subprocess
import time

import pytest

MIB = 1024 * 1024
FS_TYPES = ("ext2", "ext3", "ext4", "xfs", "ntfs")
# xfsprogs refuses file systems below 300 MiB.
DEFAULT_SIZE_MIB = {"ext2": 256, "ext3": 256, "ext4": 256, "xfs": 320, "ntfs": 256}

_live = set()  # volumes not yet torn down, for the exit handler


class VolumeError(Exception):
    """A volume could not be made, or could not be removed without leaving something behind."""


def run(*args, check=True, **kwargs):
    """Runs a command, capturing its output; a failure raises with both streams."""
    result = subprocess.run([str(a) for a in args], capture_output=True, text=True, **kwargs)
    if check and result.returncode != 0:
        raise VolumeError(f"{' '.join(str(a) for a in args)} exited {result.returncode}:\n"
                          f"{result.stdout}{result.stderr}")
    return result


def mounted_at(path):
    """The /proc/self/mountinfo entry mounted at `path` as (source, fs type), or None."""
    path = os.path.realpath(path)
    with open("/proc/self/mountinfo") as f:
        for line in f:
            fields = line.split()
            point = re.sub(r"\\([0-7]{3})", lambda m: chr(int(m.group(1), 8)), fields[4])
            if point == path:
                dash = fields.index("-")
                return fields[dash + 2], fields[dash + 1]
    return None


def loop_backing_file(device):
    """The file behind loop device `device`, or None when it is detached."""
    name = os.path.basename(device)
    try:
        with open(f"/sys/block/{name}/loop/backing_file") as f:
            return f.read().strip()
    except OSError:
        return None


def loops_of(image):
    """Loop devices attached to `image`."""
    out = run("losetup", "-j", image, check=False).stdout
    return [line.split(":")[0] for line in out.splitlines() if line.strip()]


def _detach(device, image, patience=10):
    """Detaches `device` if it still holds `image` (never someone else's device)."""
    for _ in range(50):
        if loop_backing_file(device) != os.path.realpath(image):
            return
        if run("losetup", "-d", device, check=False).returncode == 0:
            # Detaching a device still open elsewhere only marks it for autoclear.
            deadline = time.monotonic() + patience
            while loop_backing_file(device) == os.path.realpath(image) and time.monotonic() < deadline:
                time.sleep(0.05)
            return
        time.sleep(0.1)


def _attach(image, read_only=False):
    args = ["losetup", "-f", "--show"] + (["-r"] if read_only else []) + [image]
    # Another process may take the free device between the lookup and the attach.
    for attempt in range(10):
        result = run(*args, check=False)
        if result.returncode == 0:
            return result.stdout.strip()
        time.sleep(0.1 * (attempt + 1))
    raise VolumeError(f"cannot attach {image}: {result.stderr}")


class _Mount:
    """A file system on `device` mounted at `point`; ntfs through an ntfs-3g we own."""

    def __init__(self, device, point, fs_type, options):
        self.device = device
        self.point = point
        self.fs_type = fs_type
        self.options = options
        self.fuse = None
        self.lazy = False

    def mount(self):
        os.makedirs(self.point, exist_ok=True)
        if self.fs_type == "ntfs":
            # In the foreground, so that this process owns it and its exit tells when
            # every write has reached the device.
            self.fuse = subprocess.Popen(["ntfs-3g", "-o", "no_detach," + self.options, self.device, self.point],
                                         stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
            deadline = time.monotonic() + 20
            while mounted_at(self.point) is None:
                if self.fuse.poll() is not None or time.monotonic() > deadline:
                    err = self.fuse.stderr.read().decode(errors="replace") if self.fuse.poll() is not None else ""
                    self._stop_fuse()
                    raise VolumeError(f"ntfs-3g did not mount {self.device}: {err}")
                time.sleep(0.05)
        else:
            run("mount", "-t", self.fs_type, "-o", self.options, self.device, self.point)

    def unmount(self):
        """Unmounts; returns a list of problems (empty when all went well). A file system
        that stays busy is detached lazily: it goes when its last user lets go."""
        problems = []
        self.lazy = False
        if mounted_at(self.point) is not None:
            # A test that died while the file system was frozen must not block the unmount.
            run("fsfreeze", "--unfreeze", self.point, check=False)
            for _ in range(30):
                result = run("umount", self.point, check=False)
                if result.returncode == 0 or mounted_at(self.point) is None:
                    break
                time.sleep(0.1)
            else:
                problems.append(f"umount {self.point} kept failing: {result.stderr.strip()}; detached lazily")
                run("umount", "-l", self.point, check=False)
                self.lazy = True
        problems += self._stop_fuse()
        return problems

    def _stop_fuse(self):
        problems = []
        if self.fuse is None:
            return problems
        try:
            # After a lazy unmount ntfs-3g waits for the last user; ours is gone then.
            self.fuse.wait(timeout=3 if self.lazy else 20)
        except subprocess.TimeoutExpired:
            problems.append(f"ntfs-3g (pid {self.fuse.pid}) did not exit after unmount; killed")
            self.fuse.send_signal(signal.SIGKILL)
            self.fuse.wait()
        if self.fuse.stderr:
            self.fuse.stderr.close()
        self.fuse = None
        return problems


class LoopVolume:
    """A file system of `fs_type` on a loop device over a sparse image in `workdir`,
    mounted read-write at workdir/mnt. Use as a context manager or call teardown()."""

    def __init__(self, fs_type, workdir, size_mib=None, name=None):
        if fs_type not in FS_TYPES:
            raise ValueError(f"unknown file system {fs_type}")
        self.fs_type = fs_type
        self.size_mib = size_mib or DEFAULT_SIZE_MIB[fs_type]
        name = name or fs_type
        os.makedirs(workdir, exist_ok=True)
        self.image = os.path.join(os.path.realpath(workdir), f"{name}.img")
        self.mountpoint = os.path.join(os.path.realpath(workdir), f"{name}.mnt")
        self.device = None
        self.uuid = None
        self._mount = None
        self._torn_down = False
        try:
            with open(self.image, "wb") as f:
                f.truncate(self.size_mib * MIB)
            _live.add(self)
            self.device = _attach(self.image)
            self._format()
            self.uuid = run("blkid", "-p", "-s", "UUID", "-o", "value", self.device).stdout.strip()
            self.mount()
        except BaseException:
            self.teardown(check=False)
            raise

    def _format(self):
        if self.fs_type in ("ext2", "ext3", "ext4"):
            run(f"mkfs.{self.fs_type}", "-q", "-F", "-b", "4096", "-L", "orvtest", self.device)
        elif self.fs_type == "xfs":
            run("mkfs.xfs", "-q", "-f", "-L", "orvtest", self.device)
        else:
            run("mkntfs", "-q", "-F", "-Q", "-L", "orvtest", self.device)

    @property
    def by_uuid(self):
        """The /dev/disk/by-uuid path of the volume (resolved by the simulator without udev)."""
        return f"/dev/disk/by-uuid/{self.uuid}"

    def path(self, *parts):
        return os.path.join(self.mountpoint, *parts)

    def mount(self, read_only=False):
        if self._mount is not None:
            raise VolumeError(f"{self.device} is already mounted")
        options = "ro" if read_only else "rw"
        self._mount = _Mount(self.device, self.mountpoint, self.fs_type, options)
        self._mount.mount()

    def unmount(self):
        if self._mount is None:
            return
        problems = self._mount.unmount()
        self._mount = None
        if problems:
            raise VolumeError("; ".join(problems))

    def sync(self):
        """Writes everything the file system holds back to the device."""
        _sync_tree(self.mountpoint)

    def teardown(self, check=True):
        """Unmounts, detaches and removes the image; with `check`, raises VolumeError
        when anything was left behind (after still removing all it can)."""
        if self._torn_down:
            return
        self._torn_down = True
        problems = []
        patience = 10
        if self._mount is not None:
            problems += self._mount.unmount()
            patience = 1 if self._mount.lazy else patience
            self._mount = None
        if self.device:
            _detach(self.device, self.image, patience)
        leftover_loops = loops_of(self.image)
        for device in leftover_loops:
            _detach(device, self.image, patience)
        if leftover_loops:
            problems.append(f"loop devices still attached to {self.image}: {leftover_loops}")
        if mounted_at(self.mountpoint) is not None:
            problems.append(f"{self.mountpoint} is still mounted")
        if loops_of(self.image):
            problems.append(f"{self.image} is still attached")
        if os.path.exists(self.image):
            os.unlink(self.image)
        if os.path.isdir(self.mountpoint) and mounted_at(self.mountpoint) is None:
            os.rmdir(self.mountpoint)
        _live.discard(self)
        if check and problems:
            raise VolumeError("; ".join(problems))

class ReadOnlyImage:
    """An image file (a captured snapshot, a copy) on a loop device of its own, mounted at
    `point`: by default read-only without replaying its journal, to look at its files.
    Other `options` that do not start with "ro" attach it read-write."""

    OPTIONS = {"ext2": "ro", "ext3": "ro,noload", "ext4": "ro,noload", "xfs": "ro,norecovery,nouuid", "ntfs": "ro"}

    def __init__(self, image, fs_type, point, options=None):
        self.image = image
        self.point = point
        options = options or self.OPTIONS[fs_type]
        self.device = _attach(image, read_only=options.split(",")[0] == "ro")
        self._mount = _Mount(self.device, point, fs_type, options)
        try:
            self._mount.mount()
        except BaseException:
            _detach(self.device, image)
            raise

    def close(self):
        problems = self._mount.unmount()
        _detach(self.device, self.image)
        if os.path.isdir(self.point) and mounted_at(self.point) is None:
            os.rmdir(self.point)
        if problems or loops_of(self.image):
            raise VolumeError(f"image {self.image} left behind: {problems} {loops_of(self.image)}")

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


def mount_image(image, fs_type, point, options=None):
    """The image mounted at `point` (see ReadOnlyImage); leave the `with` block to unmount it."""
    return ReadOnlyImage(image, fs_type, point, options)


def _sha256(path):
    digest = hashlib.sha256()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(MIB), b""):
            digest.update(block)
    return digest.hexdigest()


def fill_volume(root, seed=0, small_files=300, large_files=2, large_mib=8, sparse_files=3):
    """Writes known content under `root` and returns its manifest {relative path: sha256}.
    Small files (0 to 24 KiB) spread over nested directories, `large_files` of
    `large_mib` MiB, and sparse files of 32 MiB with data at a few offsets only."""
    rng = random.Random(seed)
    manifest = {}

    def write(rel, data_at, size):
        full = os.path.join(root, rel)
        os.makedirs(os.path.dirname(full), exist_ok=True)
        with open(full, "wb") as f:
            f.truncate(size)
            for offset, data in data_at:
                f.seek(offset)
                f.write(data)
        manifest[rel] = _sha256(full)

    for i in range(small_files):
        size = rng.choice([0, 1, 100, 4095, 4096, 4097, rng.randrange(1, 24 * 1024)])
        write(f"small/d{i % 17}/e{i % 5}/f{i}.bin", [(0, rng.randbytes(size))], size)
    for i in range(large_files):
        size = large_mib * MIB
        write(f"large/big{i}.bin", [(0, rng.randbytes(size))], size)
    for i in range(sparse_files):
        size = 32 * MIB
        offsets = sorted(rng.sample(range(0, size // 4096 - 16), 4))
        write(f"sparse/s{i}.bin", [(o * 4096, rng.randbytes(rng.randrange(1, 3 * 4096))) for o in offsets], size)
    _sync_tree(root)
    return manifest


def _sync_tree(root):
    fd = os.open(root, os.O_RDONLY | os.O_DIRECTORY)
    try:
        os.fsync(fd)
    finally:
        os.close(fd)
    os.sync()


def verify_content(root, manifest):
    """Paths of `manifest` whose content under `root` differs or is missing."""
    bad = []
    for rel, expected in sorted(manifest.items()):
        try:
            if _sha256(os.path.join(root, rel)) != expected:
                bad.append(f"{rel}: content differs")
        except OSError as e:
            bad.append(f"{rel}: {e.strerror}")
    return bad


FS_IOC_FIEMAP = 0xC020660B
FIBMAP = 1
FIGETBSZ = 2
FIEMAP_FLAG_SYNC = 1
FIEMAP_EXTENT_LAST = 1
_FIEMAP_HEAD = struct.Struct("=QQIIII")
_FIEMAP_EXTENT = struct.Struct("=QQQQQIIII")


def file_extents(path):
    """Where the file's data lies on its device: [(logical, physical, length)] in bytes,
    by FIEMAP, or by FIBMAP on file systems without it (ntfs-3g)."""
    fd = os.open(path, os.O_RDONLY)
    try:
        size = os.fstat(fd).st_size
        try:
            return _fiemap(fd, size)
        except OSError as e:
            if e.errno not in (errno.EOPNOTSUPP, errno.ENOTTY):
                raise
        return _fibmap(fd, size)
    finally:
        os.close(fd)


def _fiemap(fd, size):
    extents = []
    start = 0
    count = 128
    while start < size:
        buf = bytearray(_FIEMAP_HEAD.size + count * _FIEMAP_EXTENT.size)
        _FIEMAP_HEAD.pack_into(buf, 0, start, size - start, FIEMAP_FLAG_SYNC, 0, count, 0)
        fcntl.ioctl(fd, FS_IOC_FIEMAP, buf, True)
        mapped = _FIEMAP_HEAD.unpack_from(buf, 0)[3]
        if mapped == 0:
            break
        last = False
        for i in range(mapped):
            logical, physical, length, _, _, flags, _, _, _ = _FIEMAP_EXTENT.unpack_from(
                buf, _FIEMAP_HEAD.size + i * _FIEMAP_EXTENT.size)
            extents.append((logical, physical, length))
            start = logical + length
            last = bool(flags & FIEMAP_EXTENT_LAST)
        if last:
            break
    return extents


def _fibmap(fd, size):
    block_size = struct.unpack("i", fcntl.ioctl(fd, FIGETBSZ, struct.pack("i", 0)))[0]
    extents = []
    for block in range((size + block_size - 1) // block_size):
        physical = struct.unpack("i", fcntl.ioctl(fd, FIBMAP, struct.pack("i", block)))[0]
        if physical == 0:
            continue
        logical, phys = block * block_size, physical * block_size
        if extents and extents[-1][0] + extents[-1][2] == logical and extents[-1][1] + extents[-1][2] == phys:
            extents[-1] = (extents[-1][0], extents[-1][1], extents[-1][2] + block_size)
        else:
            extents.append((logical, phys, block_size))
    return extents


def device_blocks(path, start=0, length=None, block=4096):
    """The `block`-sized device blocks that hold bytes [start, start + length) of the file."""
    length = os.path.getsize(path) - start if length is None else length
    blocks = set()
    for logical, physical, size in file_extents(path):
        lo, hi = max(logical, start), min(logical + size, start + length)
        if lo < hi:
            first = (physical + lo - logical) // block
            last = (physical + hi - logical - 1) // block
            blocks.update(range(first, last + 1))
    return blocks


def covered_blocks(path, block=4096):
    """The `block`-sized device blocks lying wholly inside the file's extents."""
    blocks = set()
    for _, physical, size in file_extents(path):
        blocks.update(range((physical + block - 1) // block, (physical + size) // block))
    return blocks


def _direct_chunks(path, chunk=12 * MIB):
    """Yields (offset, view) over a whole device or file read with O_DIRECT in page-aligned
    chunks, as the agent reads a snapshot device; the size comes from a seek to the end.
    Each view is valid until the next one."""
    fd = os.open(path, os.O_RDONLY | os.O_DIRECT)
    try:
        size = os.lseek(fd, 0, os.SEEK_END)
        os.lseek(fd, 0, os.SEEK_SET)
        # Page-aligned; left to the garbage collector, as the views handed out refer to it.
        view = memoryview(mmap.mmap(-1, chunk))
        offset = 0
        while offset < size:
            n = os.preadv(fd, [view[:min(chunk, size - offset)]], offset)
            if n <= 0:
                raise OSError(errno.EIO, f"short read of {path} at {offset}")
            yield offset, view[:n]
            offset += n
    finally:
        os.close(fd)


def read_block(path, block, size=4096):
    """One `size`-byte block of a device or file, read with O_DIRECT."""
    fd = os.open(path, os.O_RDONLY | os.O_DIRECT)
    try:
        buf = mmap.mmap(-1, size)
        assert os.preadv(fd, [buf], block * size) == size
        return bytes(buf)
    finally:
        os.close(fd)


def block_digests(path, block=4096):
    """One digest per `block`-sized block of a device or file read with O_DIRECT: a compact
    image to compare with changed_blocks."""
    digests = []
    for _, view in _direct_chunks(path):
        for at in range(0, len(view), block):
            digests.append(hashlib.blake2b(view[at:at + block], digest_size=16).digest())
    return digests


def changed_blocks(before, after):
    """Indices of the blocks whose digests differ between two block_digests of one size."""
    assert len(before) == len(after), "images of different sizes"
    return {i for i, (a, b) in enumerate(zip(before, after)) if a != b}


def zbdctl_path():
    path = os.environ.get("ZBDCTL") or os.path.join(os.environ.get("ORV_BUILD_DIR", "build"), "zelkosim", "zbdctl")
    if not os.access(path, os.X_OK):
        raise VolumeError(f"zbdctl not found at {path} (set ZBDCTL or ORV_BUILD_DIR)")
    return path


class SimDir:
    """A driver-simulator directory (ZELKO_SIM_DIR), loaded and without devices."""

    def __init__(self, path):
        self.path = os.path.realpath(path)
        self.zbdctl("load")

    @property
    def info_path(self):
        return os.path.join(self.path, "zelko-info")

    @property
    def dev_prefix(self):
        return os.path.join(self.path, "dev", "zelko")

    def device_path(self, minor):
        return f"{self.dev_prefix}{minor}"

    def env(self, **extra):
        """The environment that points the library, zbdctl and the agent at this simulator."""
        env = dict(os.environ, ZELKO_SIM_DIR=self.path, ORVD_DRIVER_INFO=self.info_path,
                   ORVD_DRIVER_DEV=self.dev_prefix)
        env.update(extra)
        return env

    def zbdctl(self, *args, check=True, env=None):
        """Runs zbdctl on this simulator; with `check`, a non-zero exit raises."""
        result = subprocess.run([zbdctl_path()] + [str(a) for a in args], capture_output=True, text=True,
                                env=env or self.env(), timeout=600)
        if check and result.returncode != 0:
            raise AssertionError(f"zbdctl {' '.join(str(a) for a in args)} exited {result.returncode}:\n"
                                 f"{result.stdout}{result.stderr}")
        return result

    def call_errno(self, *args):
        """Runs one of the library's calls through zbdctl; returns 0 or the errno it failed with."""
        result = self.zbdctl(*args, check=False)
        if result.returncode == 0:
            return 0
        found = re.search(r"\(errno (\d+), ", result.stderr)
        if not found:
            raise AssertionError(f"zbdctl {args} failed without an errno: {result.stderr}")
        return int(found.group(1))

    def info(self):
        """The status document, parsed."""
        with open(self.info_path) as f:
            return json.load(f)

    def device(self, minor):
        return next((d for d in self.info()["devices"] if d["minor"] == minor), None)

    def log(self):
        try:
            with open(os.path.join(self.path, "zelkosim.log")) as f:
                return f.read()
        except FileNotFoundError:
            return ""


@atexit.register
def _teardown_leftovers():
    for volume in list(_live):
        volume.teardown(check=False)


# pytest fixtures (registered by conftest.py)

@pytest.fixture
def loop_volumes(tmp_path):
    """A factory of mounted loop volumes: loop_volumes(fs_type, size_mib=None, fill=True,
    seed=0) returns a LoopVolume with a `manifest` of its known content (None unless
    filled). Every volume is torn down after the test, and the teardown fails the test
    if anything is left behind."""
    made = []

    def make(fs_type, size_mib=None, fill=True, seed=0, name=None):
        volume = LoopVolume(fs_type, tmp_path / "volumes", size_mib, name or f"{fs_type}{len(made)}")
        made.append(volume)
        volume.manifest = fill_volume(volume.mountpoint, seed=seed) if fill else None
        return volume

    yield make
    problems = []
    for volume in reversed(made):
        try:
            volume.teardown()
        except VolumeError as e:
            problems.append(str(e))
    if problems:
        pytest.fail("volumes left behind: " + "; ".join(problems))


@pytest.fixture
def sim_dir(tmp_path):
    """A loaded driver simulator in a temporary ZELKO_SIM_DIR."""
    return SimDir(tmp_path / "zelkosim")
