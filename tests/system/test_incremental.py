"""Incremental and diff-merge backups over several cycles, and the copy each volume's
history calls for."""
import os
import random

from volumes import block_digests, changed_blocks, device_blocks, sha256

MIB = 1024 * 1024
CHUNK = 12 * MIB


def change_files(volume, seed):
    """Overwrites, appends to, deletes and creates small files and rewrites the middle of a
    large one; the manifest follows."""
    rng = random.Random(seed)
    small = sorted(p for p in volume.manifest if p.startswith("small/"))
    for rel, mode, data in ((rng.choice(small), "r+b", rng.randbytes(3000)),
                            (rng.choice(small), "ab", rng.randbytes(9000)),
                            ("new/n%d.bin" % seed, "wb", rng.randbytes(50000))):
        os.makedirs(os.path.dirname(volume.path(rel)), exist_ok=True)
        with open(volume.path(rel), mode) as f:
            f.write(data)
        volume.manifest[rel] = sha256(volume.path(rel))
    with open(volume.path("large", "big0.bin"), "r+b") as f:
        f.seek(MIB)
        f.write(rng.randbytes(2 * MIB))
    volume.manifest["large/big0.bin"] = sha256(volume.path("large", "big0.bin"))
    gone = rng.choice(sorted(p for p in volume.manifest if p.startswith("small/")))
    os.remove(volume.path(gone))
    del volume.manifest[gone]
    volume.sync()


def test_incremental_cycles_write_only_changed_blocks(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=128, seed=11)
    lun = rig.add_target(volume)
    first = rig.backup([volume])
    assert first["status"] == "finished" and first["details"][0]["type"] == "full"
    assert rig.verify_image(volume) == []
    cow_names = []
    for cycle in range(2, 6):
        change_files(volume, seed=cycle)
        before = block_digests(lun)
        own_files = set().union(*(device_blocks(volume.path(n)) for n in (".zelko", ".zelko1", ".zelko.inc")
                                  if os.path.exists(volume.path(n))))
        expected = changed_blocks(before, block_digests(volume.device)) - own_files
        status = rig.backup([volume])
        assert status["status"] == "finished", status
        detail = status["details"][0]
        assert detail["type"] == "incremental", detail
        written = changed_blocks(before, block_digests(lun))
        # What reached the image is what changed, give or take what the snapshot itself
        # touched between our look and the capture (the new COW file's allocation, which
        # may also put a bitmap back as the image has it).
        sent_blocks = detail["transfer"]["bytesTransferred"] // 4096
        assert detail["transfer"]["bytesTransferred"] == detail["transfer"]["totalSize"]
        assert len(written) <= sent_blocks <= len(expected | written) + 64, (len(expected), len(written), sent_blocks)
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
    assert "Invalid prior backup image, Forcing a differential merge." in rig.agent.logs()
    assert {0, 3} <= {b * 4096 // CHUNK for b in changed_blocks(before, block_digests(path))}
    assert rig.verify_image(volume) == []


def test_flags_and_reboot_choose_their_paths(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=96, seed=13)
    rig.add_target(volume)
    assert rig.backup([volume])["status"] == "finished"
    for flags, kind, line in (({"forceCopyFull": True, "forceDiffMerge": True}, "full", "Forcing copy full."),
                              ({"forceDiffMerge": True}, "differential",
                               "Valid prior backup image. forcediffmerge set.")):
        assert rig.backup([volume], **flags)["details"][0]["type"] == kind, flags
        assert line in rig.agent.logs()
    # After a reboot the tracker is dormant: it is destroyed and made again.
    rig.sim.zbdctl("reboot")
    change_files(volume, seed=99)
    status = rig.backup([volume])
    assert status["status"] == "finished" and status["details"][0]["type"] == "differential", status
    assert "starting PostDestroyCreateSnapshotAndCopyFull" in rig.agent.logs()
    assert rig.verify_image(volume) == []
    assert rig.states() == [2]


def test_failed_volume_keeps_the_others_history_for_the_next_backup(rig, loop_volumes):
    good, bad = loop_volumes("ext4", size_mib=96, seed=14), loop_volumes("ext4", size_mib=96, seed=15)
    rig.add_target(good)
    rig.add_target(bad)
    assert rig.backup([good, bad])["status"] == "finished"
    change_files(good, seed=21)
    change_files(bad, seed=22)
    # The second volume's LUN disappears: the backup fails after the first volume's copy.
    assert rig.backup([good, rig.volume_request(bad, lun=7)])["status"] == "failed"
    assert os.path.exists(good.path(".zelko.inc"))
    change_files(good, seed=23)
    status = rig.backup([good, bad])
    assert status["status"] == "finished", status
    assert "History shows that incremental history exists." in rig.agent.logs()
    assert rig.verify_image(good) == [] and rig.verify_image(bad) == []
    assert rig.states() == [2, 2]
