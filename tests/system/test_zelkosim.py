"""The driver simulator through zbdctl (which makes exactly the control library's calls), on real loop volumes."""

import errno
import fcntl
import mmap
import os
import struct
import subprocess
import time

import pytest

from volumes import (FS_TYPES, MIB, block_digests, changed_blocks, covered_blocks, device_blocks, mount_image,
                     verify_content, zbdctl_path)

COW_MIB = 26  # what the agent asks for a 256 MiB volume


def setup_snapshot(sim, volume, minor=0, cow=".zelko", mib=COW_MIB):
    sim.zbdctl("setup-snapshot", minor, volume.device, volume.path(cow), mib)


def read_map(cow_path, volume_bytes):
    """The COW file's change map as the agent reads it: a u64 per 4 KiB block after the 4 KiB header."""
    blocks = (volume_bytes + 4095) // 4096
    with open(cow_path, "rb") as f:
        f.seek(4096)
        data = f.read(blocks * 8)
    assert len(data) == blocks * 8, f"{cow_path} holds a short map"
    return {i for i, entry in enumerate(struct.iter_unpack("=Q", data)) if entry[0]}


def header_use(cow_path):
    with open(cow_path, "rb") as f:
        head = f.read(16)
    assert head[:8] == b"ZELKOCOW"
    return struct.unpack_from("=I", head, 12)[0]


def write_device(device, block, data):
    """Writes `data` at 4096-byte block `block` of the raw device, past the file system."""
    buf = mmap.mmap(-1, len(data))
    buf.write(data)
    fd = os.open(device, os.O_WRONLY | os.O_DIRECT)
    try:
        assert os.pwritev(fd, [buf], block * 4096) == len(data)
        os.fsync(fd)
    finally:
        os.close(fd)
        buf.close()


def overwrite(path, offset, data):
    with open(path, "r+b") as f:
        f.seek(offset)
        f.write(data)
        f.flush()
        os.fsync(f.fileno())


@pytest.mark.parametrize("fs_type", FS_TYPES)
def test_snapshot_keeps_the_volume_as_it_was(sim_dir, loop_volumes, fs_type, tmp_path):
    volume = loop_volumes(fs_type)
    setup_snapshot(sim_dir, volume)
    assert sim_dir.info()["devices"] == [{"minor": 0, "state": 3, "cow_file": volume.path(".zelko"),
                                          "block_device": volume.device, "error": 0}]
    assert os.path.getsize(volume.path(".zelko")) == COW_MIB * MIB
    assert header_use(volume.path(".zelko")) == 1
    snapshot = sim_dir.device_path(0)
    before = block_digests(snapshot)
    assert len(before) * 4096 == volume.size_mib * MIB
    # Write, overwrite and delete through the file system.
    with open(volume.path("after.bin"), "wb") as f:
        f.write(os.urandom(3 * MIB))
    overwrite(volume.path("large", "big0.bin"), 5000, os.urandom(70000))
    os.unlink(volume.path("large", "big1.bin"))
    volume.sync()
    assert block_digests(snapshot) == before, "writes to the volume reached the snapshot"
    # The capture is a consistent file system holding exactly the files of its moment.
    with mount_image(snapshot, fs_type, str(tmp_path / "snap")) as image:
        assert verify_content(image.point, volume.manifest) == []
        assert not os.path.exists(os.path.join(image.point, "after.bin"))


@pytest.mark.parametrize("fs_type", ["ext4", "xfs", "ntfs"])
def test_change_map_marks_exactly_the_changed_blocks(sim_dir, loop_volumes, fs_type):
    volume = loop_volumes(fs_type)
    size = volume.size_mib * MIB
    setup_snapshot(sim_dir, volume)
    baseline = block_digests(sim_dir.device_path(0))
    sim_dir.zbdctl("transition-incremental", 0)
    assert sim_dir.device(0)["state"] == 2
    assert not os.path.exists(sim_dir.device_path(0))
    # Through the file system: 5000 bytes in place, straddling two blocks.
    big0 = volume.path("large", "big0.bin")
    through_fs = device_blocks(big0, MIB + 4000, 5000)
    overwrite(big0, MIB + 4000, os.urandom(5000))
    # Past the file system: three scattered blocks of another file, on the raw device.
    raw = sorted(device_blocks(volume.path("large", "big1.bin"), 2 * MIB, 40 * 4096))[::17][:3]
    for block in raw:
        write_device(volume.device, block, os.urandom(4096))
    volume.sync()

    sim_dir.zbdctl("transition-snapshot", 0, volume.path(".zelko1"), COW_MIB)
    assert sim_dir.device(0) == {"minor": 0, "state": 3, "cow_file": volume.path(".zelko1"),
                                 "block_device": volume.device, "error": 0}
    cow_blocks = covered_blocks(volume.path(".zelko")) | covered_blocks(volume.path(".zelko1"))
    marked = read_map(volume.path(".zelko"), size)
    assert marked == changed_blocks(baseline, block_digests(sim_dir.device_path(0))) - cow_blocks
    assert through_fs <= marked and set(raw) <= marked
    assert header_use(volume.path(".zelko")) == 3  # retired, for the agent to merge

    # The agent merges and deletes the retired COW file, then tracks again: its header and
    # map must not come back as changes once its blocks are freed, nor anything but metadata.
    retired = device_blocks(volume.path(".zelko"), 0, 4096 + (size // 4096) * 8)
    os.unlink(volume.path(".zelko"))
    volume.sync()
    sim_dir.zbdctl("transition-incremental", 0)
    sim_dir.zbdctl("transition-snapshot", 0, volume.path(".zelko"), COW_MIB)
    second = read_map(volume.path(".zelko1"), size)
    assert not second & retired, f"retired map blocks marked: {sorted(second & retired)}"
    assert len(second) < 300, f"{len(second)} blocks marked after only metadata changed"


def test_sync_keeps_the_map_current_and_never_unmarks(sim_dir, loop_volumes):
    volume = loop_volumes("ext4")
    size = volume.size_mib * MIB
    setup_snapshot(sim_dir, volume)
    sim_dir.zbdctl("transition-incremental", 0)
    big0 = volume.path("large", "big0.bin")
    target = min(device_blocks(big0, 0, 4096))
    with open(big0, "rb") as f:
        original = f.read(4096)
    assert target not in read_map(volume.path(".zelko"), size)
    write_device(volume.device, target, os.urandom(4096))
    assert "zelko0: incremental, " in sim_dir.zbdctl("sync").stdout
    marked = read_map(volume.path(".zelko"), size)
    assert target in marked
    # Written back to its old content the block stays marked, as a driver's would.
    write_device(volume.device, target, original)
    sim_dir.zbdctl("sync")
    assert read_map(volume.path(".zelko"), size) >= marked


@pytest.mark.parametrize("fs_type", ["ext4", "xfs", "ntfs"])
def test_cow_larger_than_free_space_fails_with_enospc(sim_dir, loop_volumes, fs_type):
    volume = loop_volumes(fs_type, fill=False)
    free = os.statvfs(volume.mountpoint).f_bavail
    assert sim_dir.call_errno("setup-snapshot", 0, volume.device, volume.path(".zelko"), 2048) == errno.ENOSPC
    assert sim_dir.info()["devices"] == []
    assert not os.path.exists(volume.path(".zelko"))
    assert not os.listdir(os.path.join(sim_dir.path, "dev")) and not os.listdir(os.path.join(sim_dir.path, "images"))
    assert os.statvfs(volume.mountpoint).f_bavail >= free - 16
    setup_snapshot(sim_dir, volume, mib=16)
    assert sim_dir.device(0)["state"] == 3


def test_each_injected_fault_fails_exactly_the_calls_asked_for(sim_dir, loop_volumes):
    volume = loop_volumes("ext4", fill=False)
    setup = ("setup-snapshot", 0, volume.device, volume.path(".zelko"), 16)
    sim_dir.zbdctl("fault", "setup_snapshot", "EBUSY", 2)
    assert [sim_dir.call_errno(*setup) for _ in range(3)] == [errno.EBUSY, errno.EBUSY, 0]
    assert sim_dir.device(0)["state"] == 3

    sim_dir.zbdctl("fault", "zelkobd_transition_incremental", 11, 3)
    sim_dir.zbdctl("fault", "destroy", "16")  # queued for another call: no effect here
    assert [sim_dir.call_errno("transition-incremental", 0) for _ in range(3)] == [errno.EAGAIN] * 3
    assert sim_dir.device(0)["state"] == 3
    assert sim_dir.call_errno("transition-incremental", 0) == 0
    assert sim_dir.device(0)["state"] == 2

    sim_dir.zbdctl("fault", "transition_snapshot", "ENOSPC")
    assert sim_dir.call_errno("transition-snapshot", 0, volume.path(".zelko1"), 16) == errno.ENOSPC
    assert sim_dir.device(0)["state"] == 2
    assert not os.path.exists(volume.path(".zelko1"))
    assert sim_dir.call_errno("transition-snapshot", 0, volume.path(".zelko1"), 16) == 0

    sim_dir.zbdctl("fault", "transition_incremental", "EFBIG")
    assert sim_dir.call_errno("transition-incremental", 0) == errno.EFBIG
    assert sim_dir.call_errno("destroy", 0) == errno.EBUSY
    sim_dir.zbdctl("fault", "destroy", "EBUSY", 5)
    sim_dir.zbdctl("fault", "destroy", 0)  # clears
    with open(os.path.join(sim_dir.path, "state")) as f:
        assert not [line for line in f if line.startswith("fault ")]
    assert sim_dir.call_errno("destroy", 0) == 0
    assert sim_dir.info()["devices"] == []
    with open(os.path.join(sim_dir.path, "zelkosim.log")) as f:
        assert "injected failure" in f.read()


def test_device_errors_fail_transitions(sim_dir, loop_volumes):
    volume = loop_volumes("ext4", fill=False)
    setup_snapshot(sim_dir, volume, mib=16)
    sim_dir.zbdctl("set-error", 0, -27)
    assert sim_dir.device(0)["error"] == -27
    assert sim_dir.call_errno("transition-incremental", 0) == errno.EFBIG
    sim_dir.zbdctl("set-error", 0, 0)
    assert sim_dir.call_errno("transition-incremental", 0) == 0
    sim_dir.zbdctl("set-error", 0, -5)
    assert sim_dir.call_errno("transition-snapshot", 0, volume.path(".zelko1"), 16) == errno.EIO
    assert sim_dir.zbdctl("set-error", 0, 5, check=False).returncode == 1
    assert sim_dir.zbdctl("set-error", 9, -5, check=False).returncode == 1
    assert sim_dir.call_errno("destroy", 0) == 0

    def burst(name):
        with open(volume.path(name), "wb") as f:
            f.write(os.urandom(2 * MIB))
        volume.sync()

    # 1 MiB holds the header and the 512 KiB map of a 256 MiB volume, and room for 127 blocks.
    setup_snapshot(sim_dir, volume, cow=".zelko2", mib=1)
    burst("burst.bin")
    assert sim_dir.call_errno("transition-incremental", 0) == errno.EFBIG
    assert (sim_dir.device(0)["error"], sim_dir.device(0)["state"]) == (-errno.EFBIG, 3)
    assert sim_dir.call_errno("transition-incremental", 0) == errno.EFBIG
    assert sim_dir.call_errno("destroy", 0) == 0
    # Found by sync while the snapshot is being read: the snapshot device goes dead.
    setup_snapshot(sim_dir, volume, cow=".zelko3", mib=1)
    burst("burst2.bin")
    assert "overflowed" in sim_dir.zbdctl("sync").stdout
    assert sim_dir.device(0)["error"] == -errno.EFBIG
    fd = os.open(sim_dir.device_path(0), os.O_RDONLY | os.O_DIRECT)
    try:
        assert os.lseek(fd, 0, os.SEEK_END) == 0
    finally:
        os.close(fd)


def test_reboot_and_reload_keep_tracking_and_lose_snapshots(sim_dir, loop_volumes):
    tracked = loop_volumes("ext4", fill=False)
    snapped = loop_volumes("xfs", fill=False)
    setup_snapshot(sim_dir, tracked, minor=0, mib=16)
    sim_dir.zbdctl("transition-incremental", 0)
    setup_snapshot(sim_dir, snapped, minor=1, mib=16)
    written = set()

    def write(name):
        with open(tracked.path(name), "wb") as f:
            f.write(os.urandom(256 * 1024))
        tracked.sync()
        written.update(device_blocks(tracked.path(name)))

    write("before-reboot.bin")
    sim_dir.zbdctl("reboot")
    assert [(d["minor"], d["state"]) for d in sim_dir.info()["devices"]] == [(0, 0), (1, 1)]
    assert not os.path.exists(sim_dir.device_path(1))
    assert sim_dir.call_errno("transition-snapshot", 0, tracked.path(".zelko1"), 16) == errno.EINVAL
    # A tracker reloaded before its volume is mounted waits for the mount.
    tracked.unmount()
    sim_dir.zbdctl("reload-incremental", tracked.device, tracked.path(".zelko"), 0)
    assert sim_dir.device(0)["state"] == 4
    sim_dir.zbdctl("sync")
    assert sim_dir.device(0)["state"] == 4
    tracked.mount()
    sim_dir.zbdctl("sync")
    assert sim_dir.device(0)["state"] == 2
    # A snapshot does not survive a reboot: it can only be reloaded as one, to be destroyed.
    assert sim_dir.call_errno("transition-incremental", 1) == errno.EINVAL
    sim_dir.zbdctl("reload-snapshot", snapped.device, snapped.path(".zelko"), 1)
    assert sim_dir.device(1)["state"] == 5
    assert sim_dir.zbdctl("reload-incremental", snapped.device, snapped.path(".zelko"), 1,
                          check=False).returncode == 1
    assert sim_dir.call_errno("destroy", 1) == 0
    # The map holds what was written before the reboot and after the reload.
    write("after-reload.bin")
    sim_dir.zbdctl("transition-snapshot", 0, tracked.path(".zelko1"), 16)
    marked = read_map(tracked.path(".zelko"), tracked.size_mib * MIB)
    assert written <= marked
    # A tracker reloaded on a free minor (named by uuid, as the reload script does; no udev
    # links needed) takes a new baseline and keeps the COW file's map.
    assert sim_dir.call_errno("destroy", 0) == 0
    out = sim_dir.zbdctl("reload-incremental", tracked.by_uuid, tracked.path(".zelko"), 7).stdout
    assert "active incremental" in out
    assert sim_dir.device(7) == {"minor": 7, "state": 2, "cow_file": tracked.path(".zelko"),
                                 "block_device": tracked.by_uuid, "error": 0}
    sim_dir.zbdctl("sync")
    assert marked <= read_map(tracked.path(".zelko"), tracked.size_mib * MIB)


def test_state_survives_the_processes_and_concurrent_callers_do_not_corrupt_it(sim_dir, loop_volumes):
    a = loop_volumes("ext4", fill=False, size_mib=128)
    b = loop_volumes("ext4", fill=False, size_mib=128)

    def start(*args):
        return subprocess.Popen([zbdctl_path()] + [str(x) for x in args], env=sim_dir.env(), stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True)

    # Two snapshots at once, on different minors: both made.
    procs = [start("setup-snapshot", m, v.device, v.path(".zelko"), 16) for m, v in ((0, a), (1, b))]
    assert [p.wait() for p in procs] == [0, 0], [p.stderr.read() for p in procs]
    assert [(d["minor"], d["state"]) for d in sim_dir.info()["devices"]] == [(0, 3), (1, 3)]
    # Two for the same minor: exactly one wins, the other sees the minor taken.
    for minor in (0, 1):
        sim_dir.zbdctl("destroy", minor)
    procs = [start("setup-snapshot", 5, v.device, v.path(".zelko"), 16) for v in (a, b)]
    assert sorted(p.wait() for p in procs) == [0, 1]
    assert f"(errno {errno.EEXIST}, " in "".join(p.stderr.read() for p in procs)
    assert [d["minor"] for d in sim_dir.info()["devices"]] == [5]
    # A caller killed while it waited for the lock changes nothing.
    lock = os.open(os.path.join(sim_dir.path, "lock"), os.O_RDWR)
    try:
        fcntl.flock(lock, fcntl.LOCK_EX)
        waiting = start("destroy", 5)
        time.sleep(0.5)
        assert waiting.poll() is None
        waiting.kill()
        waiting.wait()
    finally:
        fcntl.flock(lock, fcntl.LOCK_UN)
        os.close(lock)
    assert sim_dir.device(5)["state"] == 3
    # A fresh process carries on from the state the others left.
    sim_dir.zbdctl("transition-incremental", 5)
    assert sim_dir.device(5)["state"] == 2


def test_bad_input_gets_an_errno_and_a_readable_message(sim_dir, loop_volumes, tmp_path):
    volume = loop_volumes("ext4", fill=False)
    cow = volume.path(".zelko")

    def fails(args, err, text, env=None):
        result = sim_dir.zbdctl(*args, check=False, env=env)
        assert result.returncode == 1, result
        assert f"(errno {err}, " in result.stderr and text in result.stderr, result.stderr

    regular = tmp_path / "regular"
    regular.write_bytes(b"x" * 4096)
    for args, err, text in (
            (("setup-snapshot", 256, volume.device, cow, 16), errno.EINVAL, "minor 256 is above 255"),
            (("setup-snapshot", 0, tmp_path / "missing", cow, 16), errno.ENOENT, "No such file"),
            (("setup-snapshot", 0, regular, cow, 16), errno.EINVAL, "is not a block device"),
            (("setup-snapshot", 0, volume.device, tmp_path / ".zelko", 16), errno.EINVAL, "is not on"),
            (("setup-snapshot", 0, volume.device, "relative/.zelko", 16), errno.EINVAL, "not an absolute"),
            (("destroy", 3), errno.ENOENT, "no device has minor 3")):
        fails(args, err, text)

    setup_snapshot(sim_dir, volume, mib=16)
    fails(("setup-snapshot", 0, volume.device, cow, 16), errno.EEXIST, "minor 0 is in use")
    fails(("setup-snapshot", 1, volume.device, volume.path(".other"), 16), errno.EBUSY, "already tracked by minor 0")
    fails(("transition-snapshot", 0, volume.path(".zelko1"), 16), errno.EINVAL, "not an active incremental")
    sim_dir.zbdctl("transition-incremental", 0)
    fails(("transition-incremental", 0), errno.EINVAL, "not an active snapshot")
    fails(("transition-snapshot", 0, cow, 16), errno.EINVAL, "must differ")
    sim_dir.zbdctl("destroy", 0)

    volume.unmount()
    fails(("setup-snapshot", 0, volume.device, cow, 16), errno.EINVAL, "is not mounted")
    volume.mount(read_only=True)
    fails(("setup-snapshot", 0, volume.device, cow, 16), errno.EINVAL, "mounted read-only")
    volume.unmount()
    volume.mount()
    # A simulator directory on the volume itself would freeze its own capture.
    env = sim_dir.env(ZELKO_SIM_DIR=volume.path("sim"))
    subprocess.run([zbdctl_path(), "load"], env=env, check=True, capture_output=True)
    fails(("setup-snapshot", 0, volume.device, cow, 16), errno.EINVAL, "freezing it", env=env)
    fails(("destroy", 0), errno.ENODEV, "does not exist", env=sim_dir.env(ZELKO_SIM_DIR=str(tmp_path / "nowhere")))
    env = sim_dir.env()
    del env["ZELKO_SIM_DIR"]
    fails(("destroy", 0), errno.ENODEV, "ZELKO_SIM_DIR is not set", env=env)

    for args in (("destroy", "x"), ("fault", "destroy", "EWHAT"), ("frobnicate",), ("destroy",)):
        result = sim_dir.zbdctl(*args, check=False)
        assert result.returncode in (1, 2) and result.stderr.startswith("zbdctl: "), (args, result)
    assert sim_dir.zbdctl("--help").stdout.startswith("usage: zbdctl")
    assert subprocess.run([zbdctl_path()], capture_output=True).returncode == 2
