"""The used-blocks full copy against what the file system and the driver hold."""
import re
import subprocess

from volumes import device_blocks

SENTINEL = b"ORVSENTINEL-4096"  # 16 bytes, repeated over every block of the LUN


def used_blocks(image):
    """Blocks the ext file system allocates, read with dumpe2fs from the image."""
    out = subprocess.run(["dumpe2fs", "-h", image], capture_output=True, text=True, check=True).stdout
    total = int(re.search(r"Block count:\s+(\d+)", out).group(1))
    free = int(re.search(r"Free blocks:\s+(\d+)", out).group(1))
    return total - free


def test_used_blocks_copy_leaves_out_free_and_cow_blocks(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=128, seed=41)
    lun = rig.add_target(volume)
    with open(lun, "r+b") as f:
        f.write(SENTINEL * (volume.size_mib * 1024 * 1024 // len(SENTINEL)))
    status = rig.backup([volume])
    assert status["status"] == "finished", status
    transfer = status["details"][0]["transfer"]
    assert transfer["bytesTransferred"] == transfer["totalSize"]
    # The total is the used blocks at the snapshot less the COW file's own blocks.
    cow_blocks = device_blocks(volume.path(".zelko"))
    with open(lun, "rb") as f:
        image = f.read()
    used = used_blocks(lun)
    assert transfer["totalSize"] == (used - len(cow_blocks)) * 4096
    # The COW file's blocks were never written: the LUN still holds the sentinel there.
    for block in sorted(cow_blocks)[:: max(1, len(cow_blocks) // 50)]:
        assert image[block * 4096:(block + 1) * 4096] == SENTINEL * 256, block
    # Free blocks were not written either; the image still mounts and verifies.
    assert image.count(SENTINEL * 256) >= volume.size_mib * 256 - used
    assert rig.verify_image(volume) == []


def test_a_volume_larger_than_the_target_is_refused_before_data_moves(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=64, seed=42)
    lun = rig.add_target(volume, size=32 * 1024 * 1024)
    status = rig.backup([volume])
    assert status["status"] == "failed"
    assert status["errorData"]["errorMsg"] == (
        "Backup volume is larger than the target storage (Did you resize the volume?)")
    assert status["details"][0]["transfer"]["bytesTransferred"] == 0
    with open(lun, "rb") as f:
        assert f.read().count(b"\0") == 32 * 1024 * 1024  # untouched
    assert all(d["state"] != 3 for d in rig.sim.info()["devices"])
