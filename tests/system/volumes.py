"""Loop-device volumes, read-only image mounts and driver-simulator directories for system
tests; whatever made something tears it down, also when a test fails, and checks that
nothing is left (conftest.py registers the fixtures `loop_volumes` and `sim_dir`)."""

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
    """(source, fs type) of what /proc/self/mountinfo has mounted at `path`, or None."""
    path = os.path.realpath(path)
    with open("/proc/self/mountinfo") as f:
        for fields in map(str.split, f):
            if re.sub(r"\\([0-7]{3})", lambda m: chr(int(m.group(1), 8)), fields[4]) == path:
                dash = fields.index("-")
                return fields[dash + 2], fields[dash + 1]
    return None


def loop_backing_file(device):
    try:
        with open(f"/sys/block/{os.path.basename(device)}/loop/backing_file") as f:
            return f.read().strip()
    except OSError:
        return None


def loops_of(image):
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
    # Another process may take the free device between the lookup and the attach.
    for attempt in range(10):
        result = run("losetup", "-f", "--show", *(["-r"] if read_only else []), image, check=False)
        if result.returncode == 0:
            return result.stdout.strip()
        time.sleep(0.1 * (attempt + 1))
    raise VolumeError(f"cannot attach {image}: {result.stderr}")


class _Mount:
    """A file system on `device` mounted at `point`; ntfs through an ntfs-3g we own."""

    def __init__(self, device, point, fs_type, options):
        self.device, self.point, self.fs_type, self.options = device, point, fs_type, options
        self.fuse = None
        self.lazy = False

    def mount(self):
        os.makedirs(self.point, exist_ok=True)
        if self.fs_type != "ntfs":
            run("mount", "-t", self.fs_type, "-o", self.options, self.device, self.point)
            return
        # In the foreground, so that its exit tells when every write has reached the device.
        self.fuse = subprocess.Popen(["ntfs-3g", "-o", "no_detach," + self.options, self.device, self.point],
                                     stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        deadline = time.monotonic() + 20
        while mounted_at(self.point) is None:
            if self.fuse.poll() is not None or time.monotonic() > deadline:
                err = self.fuse.stderr.read().decode(errors="replace") if self.fuse.poll() is not None else ""
                self._stop_fuse()
                raise VolumeError(f"ntfs-3g did not mount {self.device}: {err}")
            time.sleep(0.05)

    def unmount(self):
        """Unmounts; returns the problems met. A file system that stays busy is detached lazily."""
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
        return problems + self._stop_fuse()

    def _stop_fuse(self):
        if self.fuse is None:
            return []
        problems = []
        try:
            # After a lazy unmount ntfs-3g waits for the last user; ours is gone then.
            self.fuse.wait(timeout=3 if self.lazy else 20)
        except subprocess.TimeoutExpired:
            problems.append(f"ntfs-3g (pid {self.fuse.pid}) did not exit after unmount; killed")
            self.fuse.send_signal(signal.SIGKILL)
            self.fuse.wait()
        self.fuse.stderr.close()
        self.fuse = None
        return problems


class LoopVolume:
    """A file system of `fs_type` on a loop device over a sparse image in `workdir`, mounted
    read-write at workdir/<name>.mnt; call teardown() when done."""

    def __init__(self, fs_type, workdir, size_mib=None, name=None):
        if fs_type not in FS_TYPES:
            raise ValueError(f"unknown file system {fs_type}")
        self.fs_type = fs_type
        self.size_mib = size_mib or DEFAULT_SIZE_MIB[fs_type]
        os.makedirs(workdir, exist_ok=True)
        base = os.path.join(os.path.realpath(workdir), name or fs_type)
        self.image, self.mountpoint = base + ".img", base + ".mnt"
        self.device = self.uuid = self._mount = None
        self._torn_down = False
        try:
            with open(self.image, "wb") as f:
                f.truncate(self.size_mib * MIB)
            _live.add(self)
            self.device = _attach(self.image)
            if fs_type == "xfs":
                run("mkfs.xfs", "-q", "-f", "-L", "orvtest", self.device)
            elif fs_type == "ntfs":
                run("mkntfs", "-q", "-F", "-Q", "-L", "orvtest", self.device)
            else:
                run(f"mkfs.{fs_type}", "-q", "-F", "-b", "4096", "-L", "orvtest", self.device)
            self.uuid = run("blkid", "-p", "-s", "UUID", "-o", "value", self.device).stdout.strip()
            self.mount()
        except BaseException:
            self.teardown(check=False)
            raise

    @property
    def by_uuid(self):
        return f"/dev/disk/by-uuid/{self.uuid}"

    def path(self, *parts):
        return os.path.join(self.mountpoint, *parts)

    def mount(self, read_only=False):
        if self._mount is not None:
            raise VolumeError(f"{self.device} is already mounted")
        self._mount = _Mount(self.device, self.mountpoint, self.fs_type, "ro" if read_only else "rw")
        self._mount.mount()

    def unmount(self):
        if self._mount is not None:
            problems, self._mount = self._mount.unmount(), None
            if problems:
                raise VolumeError("; ".join(problems))

    def sync(self):
        _sync_tree(self.mountpoint)

    def teardown(self, check=True):
        """Unmounts, detaches and removes the image; with `check`, raises VolumeError when
        anything was left behind (after still removing all it can)."""
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
        leftover = loops_of(self.image)
        for device in leftover:
            _detach(device, self.image, patience)
        if leftover:
            problems.append(f"loop devices still attached to {self.image}: {leftover}")
        if loops_of(self.image):
            problems.append(f"{self.image} is still attached")
        if mounted_at(self.mountpoint) is not None:
            problems.append(f"{self.mountpoint} is still mounted")
        elif os.path.isdir(self.mountpoint):
            os.rmdir(self.mountpoint)
        if os.path.exists(self.image):
            os.unlink(self.image)
        _live.discard(self)
        if check and problems:
            raise VolumeError("; ".join(problems))


class mount_image:
    """An image file (a capture, a copy) on a loop device of its own, mounted at `point`, by
    default read-only without journal replay; options not starting with "ro" attach it
    read-write. Use in a `with` block."""

    OPTIONS = {"ext2": "ro", "ext3": "ro,noload", "ext4": "ro,noload", "xfs": "ro,norecovery,nouuid", "ntfs": "ro"}

    def __init__(self, image, fs_type, point, options=None):
        self.image, self.point = image, point
        options = options or self.OPTIONS[fs_type]
        self.device = _attach(image, read_only=options.split(",")[0] == "ro")
        self._mount = _Mount(self.device, point, fs_type, options)
        try:
            self._mount.mount()
        except BaseException:
            _detach(self.device, image)
            raise

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        problems = self._mount.unmount()
        _detach(self.device, self.image)
        if os.path.isdir(self.point) and mounted_at(self.point) is None:
            os.rmdir(self.point)
        if problems or loops_of(self.image):
            raise VolumeError(f"image {self.image} left behind: {problems} {loops_of(self.image)}")


def sha256(path):
    digest = hashlib.sha256()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(MIB), b""):
            digest.update(block)
    return digest.hexdigest()


def fill_volume(root, seed=0, small_files=300, large_files=2, large_mib=8, sparse_files=3):
    """Writes known content under `root` and returns its manifest {relative path: sha256}:
    small files over nested directories, large files, and 32 MiB sparse files."""
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
        manifest[rel] = sha256(full)

    for i in range(small_files):
        size = rng.choice([0, 1, 100, 4095, 4096, 4097, rng.randrange(1, 24 * 1024)])
        write(f"small/d{i % 17}/e{i % 5}/f{i}.bin", [(0, rng.randbytes(size))], size)
    for i in range(large_files):
        write(f"large/big{i}.bin", [(0, rng.randbytes(large_mib * MIB))], large_mib * MIB)
    for i in range(sparse_files):
        offsets = sorted(rng.sample(range(0, 32 * MIB // 4096 - 16), 4))
        write(f"sparse/s{i}.bin", [(o * 4096, rng.randbytes(rng.randrange(1, 3 * 4096))) for o in offsets], 32 * MIB)
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
            if sha256(os.path.join(root, rel)) != expected:
                bad.append(f"{rel}: content differs")
        except OSError as e:
            bad.append(f"{rel}: {e.strerror}")
    return bad


FS_IOC_FIEMAP, FIBMAP, FIGETBSZ = 0xC020660B, 1, 2
_FIEMAP_HEAD = struct.Struct("=QQIIII")
_FIEMAP_EXTENT = struct.Struct("=QQQQQIIII")


def file_extents(path):
    """Where the file's data lies on its device: [(logical, physical, length)] in bytes, by
    FIEMAP, or by FIBMAP on file systems without it (ntfs-3g)."""
    fd = os.open(path, os.O_RDONLY)
    try:
        try:
            return _fiemap(fd, os.fstat(fd).st_size)
        except OSError as e:
            if e.errno not in (errno.EOPNOTSUPP, errno.ENOTTY):
                raise
        return fibmap(fd, os.fstat(fd).st_size)
    finally:
        os.close(fd)


def _fiemap(fd, size):
    extents, start, count = [], 0, 128
    while start < size:
        buf = bytearray(_FIEMAP_HEAD.size + count * _FIEMAP_EXTENT.size)
        _FIEMAP_HEAD.pack_into(buf, 0, start, size - start, 1, 0, count, 0)  # FIEMAP_FLAG_SYNC
        fcntl.ioctl(fd, FS_IOC_FIEMAP, buf, True)
        mapped = _FIEMAP_HEAD.unpack_from(buf, 0)[3]
        if mapped == 0:
            return extents
        for i in range(mapped):
            logical, physical, length, _, _, flags, _, _, _ = _FIEMAP_EXTENT.unpack_from(
                buf, _FIEMAP_HEAD.size + i * _FIEMAP_EXTENT.size)
            extents.append((logical, physical, length))
            start = logical + length
        if flags & 1:  # FIEMAP_EXTENT_LAST
            return extents
    return extents


def fibmap(fd, size):
    """The file's extents as FIBMAP names them, block by block."""
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
            blocks.update(range((physical + lo - logical) // block, (physical + hi - logical - 1) // block + 1))
    return blocks


def covered_blocks(path, block=4096):
    """The `block`-sized device blocks lying wholly inside the file's extents."""
    blocks = set()
    for _, physical, size in file_extents(path):
        blocks.update(range((physical + block - 1) // block, (physical + size) // block))
    return blocks


def block_digests(path, block=4096, chunk=12 * MIB):
    """One digest per block of a device or file read with O_DIRECT, as the agent reads a
    snapshot device (its size from a seek to the end): a compact image for changed_blocks."""
    digests = []
    fd = os.open(path, os.O_RDONLY | os.O_DIRECT)
    try:
        size = os.lseek(fd, 0, os.SEEK_END)
        view = memoryview(mmap.mmap(-1, chunk))  # page-aligned
        offset = 0
        while offset < size:
            n = os.preadv(fd, [view[:min(chunk, size - offset)]], offset)
            if n <= 0:
                raise OSError(errno.EIO, f"short read of {path} at {offset}")
            digests += [hashlib.blake2b(view[at:at + block], digest_size=16).digest() for at in range(0, n, block)]
            offset += n
    finally:
        os.close(fd)
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
        self.info_path = os.path.join(self.path, "zelko-info")
        self.dev_prefix = os.path.join(self.path, "dev", "zelko")
        self.zbdctl("load")

    def device_path(self, minor):
        return f"{self.dev_prefix}{minor}"

    def env(self, **extra):
        """The environment that points the library, zbdctl and the agent at this simulator."""
        env = dict(os.environ, ZELKO_SIM_DIR=self.path, ORVD_DRIVER_INFO=self.info_path,
                   ORVD_DRIVER_DEV=self.dev_prefix)
        env.update(extra)
        return env

    def zbdctl(self, *args, check=True, env=None):
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
        assert found, f"zbdctl {args} failed without an errno: {result.stderr}"
        return int(found.group(1))

    def info(self):
        with open(self.info_path) as f:
            return json.load(f)

    def device(self, minor):
        return next((d for d in self.info()["devices"] if d["minor"] == minor), None)


@atexit.register
def _teardown_leftovers():
    for volume in list(_live):
        volume.teardown(check=False)


@pytest.fixture
def loop_volumes(tmp_path):
    """loop_volumes(fs_type, size_mib=None, fill=True, seed=0, name=None) -> a mounted
    LoopVolume whose `manifest` lists its known content (None unless filled); the teardown
    fails the test if anything is left behind."""
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
