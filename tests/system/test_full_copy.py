"""The used-blocks full copy against what the file system and the driver hold: every run of
blocks the used-block map marks and no COW file holds (the COW files' blocks asked of FIBMAP
block by block), in volume order, in chunks of as many whole blocks as fit in 12 MiB."""
import os
import re
import subprocess

from volumes import fibmap

CHUNK = 12 * 1024 * 1024
QUEUED = re.compile(r"^\[DEBUG\] Writing to queue writepos (\d+) writelen (\d+)$", re.M)
USEDCOPY = os.path.join(os.environ.get("ORV_BUILD_DIR", "build"), "tests", "usedcopy")
SENTINEL = b"ORVSENTINEL-4096" * 256  # one block's worth, over every block of the LUN


def used_map(image, workdir):
    """The used blocks of the image's file system by the agent's own map reader, and its block size."""
    ranges = os.path.join(workdir, "ranges.txt")
    out = subprocess.run([USEDCOPY, "--ranges", ranges, image], capture_output=True, text=True, check=True).stdout
    block = int(re.search(r"blockSize=(\d+)", out).group(1))
    with open(ranges) as f:
        return {b for s, n in (map(int, line.split()) for line in f) for b in range(s // block, (s + n) // block)}, block


def cow_blocks(paths, block):
    blocks = set()
    for path in paths:
        fd = os.open(path, os.O_RDONLY)
        try:
            for _, physical, length in fibmap(fd, os.fstat(fd).st_size):
                blocks.update(range(physical // block, (physical + length) // block))
        finally:
            os.close(fd)
    return blocks


def expected_chunks(blocks, block):
    """(byte offset, length) of each chunk, as the copy's rules make them."""
    chunks = []
    for b in sorted(blocks):
        if chunks and chunks[-1][0] + chunks[-1][1] == b and chunks[-1][1] < CHUNK // block:
            chunks[-1][1] += 1
        else:
            chunks.append([b, 1])
    return [(first * block, count * block) for first, count in chunks]


def test_used_copy_sends_each_run_outside_the_cow_files_in_whole_chunks(rig, loop_volumes, tmp_path):
    volume = loop_volumes("ext4", size_mib=128, seed=7)
    with open(volume.path("long.bin"), "wb") as f:  # a run longer than a chunk
        f.write(os.urandom(1 << 20) * 30)
    volume.sync()
    lun = rig.add_target(volume)
    with open(lun, "r+b") as f:
        f.write(SENTINEL * (volume.size_mib * 256))
    before = len(rig.agent.output())
    status = rig.backup([volume])
    assert status["status"] == "finished", status
    queued = [(int(p), int(n)) for p, n in QUEUED.findall(rig.agent.output()[before:])]

    # The LUN holds the snapshot's metadata, so its map is the snapshot's map.
    used, block = used_map(lun, str(tmp_path))
    cow = cow_blocks([volume.path(n) for n in (".zelko", ".zelko1") if os.path.exists(volume.path(n))], block)
    assert cow and cow <= used  # the COW file was there to be left out
    sent = used - cow
    expected = expected_chunks(sent, block)
    assert any(length == (CHUNK // block) * block for _, length in expected)
    assert queued == expected
    transfer = status["details"][0]["transfer"]
    assert transfer["totalSize"] == len(sent) * block == transfer["bytesTransferred"]
    # Nothing but the sent blocks reached the LUN: free and COW blocks still hold the sentinel.
    with open(lun, "rb") as f:
        image = f.read()
    written = {b for b in range(len(image) // 4096) if image[b * 4096:(b + 1) * 4096] != SENTINEL}
    assert written <= {b * block // 4096 for b in sent}, sorted(written - sent)[:10]
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
    assert 3 not in rig.states()
