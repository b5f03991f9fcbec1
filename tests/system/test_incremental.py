"""Incremental and diff-merge backups over several cycles, and the copy each volume's
history calls for."""
import hashlib
import os
import random

from volumes import block_digests, changed_blocks, device_blocks

MIB = 1024 * 1024
CHUNK = 12 * MIB


def agent_files_blocks(volume):
    """Device blocks of the agent's and the driver's own files on the volume."""
    blocks = set()
    for name in (".zelko", ".zelko1", ".zelko.inc"):
        path = volume.path(name)
        if os.path.exists(path):
            blocks |= device_blocks(path)
    return blocks


def change_files(volume, seed):
    """Creates, overwrites, appends, deletes and rewrites a large file; returns nothing:
    the manifest is updated from the files themselves."""
    rng = random.Random(seed)
    root = volume.mountpoint
    small = sorted(p for p in volume.manifest if p.startswith("small/"))
    # Overwrite in place, append, delete, create.
    victim = small[rng.randrange(len(small))]
    with open(os.path.join(root, victim), "r+b") as f:
        f.write(rng.randbytes(3000))
    appended = small[rng.randrange(len(small))]
    with open(os.path.join(root, appended), "ab") as f:
        f.write(rng.randbytes(9000))
    gone = small[rng.randrange(len(small))]
    os.remove(os.path.join(root, gone))
    del volume.manifest[gone]
    os.makedirs(os.path.join(root, "new"), exist_ok=True)
    with open(os.path.join(root, "new", "n%d.bin" % seed), "wb") as f:
        f.write(rng.randbytes(50000))
    # A large rewrite of the middle of a big file.
    with open(os.path.join(root, "large", "big0.bin"), "r+b") as f:
        f.seek(MIB)
        f.write(rng.randbytes(2 * MIB))
    for rel in list(volume.manifest) + ["new/n%d.bin" % seed]:
        path = os.path.join(root, rel)
        if os.path.exists(path):
            with open(path, "rb") as f:
                volume.manifest[rel] = hashlib.sha256(f.read()).hexdigest()
    volume.sync()


def lun_path(rig, volume):
    return rig.luns[volume.uuid][2]


def test_incremental_cycles_write_only_changed_blocks(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=128, seed=11)
    rig.add_target(volume)
    first = rig.backup([volume])
    assert first["status"] == "finished" and first["details"][0]["type"] == "full"
    assert rig.verify_image(volume) == []

    cow_names = []
    for cycle in range(2, 6):
        change_files(volume, seed=cycle)
        before = block_digests(lun_path(rig, volume))
        device_now = block_digests(volume.device)
        expected = changed_blocks(before, device_now) - agent_files_blocks(volume)
        status = rig.backup([volume])
        assert status["status"] == "finished", status
        detail = status["details"][0]
        assert detail["type"] == "incremental", detail
        after = block_digests(lun_path(rig, volume))
        written = changed_blocks(before, after)
        # What reached the image is what changed: the blocks that differ now, give or take
        # what the snapshot itself touched between our look and the capture (the new COW
        # file's allocation, which may also put a bitmap back as the image has it).
        sent_blocks = detail["transfer"]["bytesTransferred"] // 4096
        assert detail["transfer"]["bytesTransferred"] == detail["transfer"]["totalSize"]
        assert len(written) <= sent_blocks, (len(written), sent_blocks)
        assert sent_blocks <= len(expected | written) + 64, (len(expected), len(written), sent_blocks)
        assert sent_blocks * 4096 < 16 * MIB  # far from the 128 MiB a full copy sends
        assert rig.verify_image(volume) == []
        cow_names.append(os.path.basename(rig.sim.info()["devices"][0]["cow_file"]))
    # The COW file name alternates at every snapshot.
    assert cow_names == [".zelko1", ".zelko", ".zelko1", ".zelko"]
    assert not os.path.exists(volume.path(".zelko.inc"))


def test_altered_image_is_brought_back_by_diff_merge(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=96, seed=12)
    path = rig.add_target(volume)
    assert rig.backup([volume])["status"] == "finished"
    # Damage the image in its first 10 MiB (where the checksum looks) and in one later chunk.
    with open(path, "r+b") as f:
        for offset in (5 * MIB + 17, 40 * MIB + 3):
            f.seek(offset)
            f.write(b"\xA5" * 4096)
    before = block_digests(path)
    status = rig.backup([volume])
    assert status["status"] == "finished", status
    detail = status["details"][0]
    assert detail["type"] == "differential"
    assert detail["transfer"]["bytesTransferred"] == volume.size_mib * MIB
    logs = rig.agent.logs()
    assert "Invalid prior backup image, Forcing a differential merge." in logs
    after = block_digests(path)
    rewritten_chunks = {b * 4096 // CHUNK for b in changed_blocks(before, after)}
    assert {0, 3} <= rewritten_chunks
    assert rig.verify_image(volume) == []


def test_flags_and_reboot_choose_their_paths(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=96, seed=13)
    rig.add_target(volume)
    assert rig.backup([volume])["status"] == "finished"

    status = rig.backup([volume], forceCopyFull=True, forceDiffMerge=True)
    assert status["details"][0]["type"] == "full"
    assert "Forcing copy full." in rig.agent.logs()

    status = rig.backup([volume], forceDiffMerge=True)
    assert status["details"][0]["type"] == "differential"
    assert "Valid prior backup image. forcediffmerge set." in rig.agent.logs()

    # After a reboot the tracker is dormant: it is destroyed and made again.
    rig.sim.zbdctl("reboot")
    change_files(volume, seed=99)
    status = rig.backup([volume])
    assert status["status"] == "finished", status
    assert status["details"][0]["type"] == "differential"
    assert "starting PostDestroyCreateSnapshotAndCopyFull" in rig.agent.logs()
    assert rig.verify_image(volume) == []
    assert [d["state"] for d in rig.sim.info()["devices"]] == [2]


def test_failed_volume_keeps_the_others_history_for_the_next_backup(rig, loop_volumes):
    good = loop_volumes("ext4", size_mib=96, seed=14)
    bad = loop_volumes("ext4", size_mib=96, seed=15)
    rig.add_target(good)
    rig.add_target(bad)
    assert rig.backup([good, bad])["status"] == "finished"
    change_files(good, seed=21)
    change_files(bad, seed=22)
    # The second volume's LUN disappears: the backup fails after the first volume's copy.
    status = rig.backup([good, rig.volume_request(bad, lun=7)])
    assert status["status"] == "failed"
    assert os.path.exists(good.path(".zelko.inc"))
    change_files(good, seed=23)
    status = rig.backup([good, bad])
    assert status["status"] == "finished", status
    assert "History shows that incremental history exists." in rig.agent.logs()
    assert rig.verify_image(good) == []
    assert rig.verify_image(bad) == []
    assert all(d["state"] == 2 for d in rig.sim.info()["devices"])
