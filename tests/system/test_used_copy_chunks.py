"""The chunks of the used-blocks copy, one by one: every run of blocks that the used-block
map marks and that no COW file holds (the COW files' blocks asked block by block), in
volume order, cut into chunks of as many whole blocks as fit in 12 MiB."""
import os
import re
import subprocess

from volumes import _fibmap

CHUNK = 12 * 1024 * 1024
QUEUED = re.compile(r"^\[DEBUG\] Writing to queue writepos (\d+) writelen (\d+)$", re.M)
USEDCOPY = os.path.join(os.environ.get("ORV_BUILD_DIR", "build"), "tests", "usedcopy")


def used_map(image, workdir):
    """The used blocks of the image's file system, by the agent's own map reader, and its
    block size."""
    ranges = os.path.join(workdir, "ranges.txt")
    out = subprocess.run([USEDCOPY, "--ranges", ranges, image], capture_output=True, text=True, check=True).stdout
    block = int(re.search(r"blockSize=(\d+)", out).group(1))
    used = set()
    with open(ranges) as f:
        for line in f:
            start, length = map(int, line.split())
            used.update(range(start // block, (start + length) // block))
    return used, block


def cow_blocks(paths, block):
    """The COW files' device blocks as FIBMAP names them, block by block."""
    blocks = set()
    for path in paths:
        fd = os.open(path, os.O_RDONLY)
        try:
            for _, physical, length in _fibmap(fd, os.fstat(fd).st_size):
                blocks.update(range(physical // block, (physical + length) // block))
        finally:
            os.close(fd)
    return blocks


def expected_chunks(blocks, block):
    """(byte offset, length) of each chunk, as the copy's rules make them."""
    per_chunk = max(1, CHUNK // block)
    chunks = []
    for b in sorted(blocks):
        if chunks and chunks[-1][0] + chunks[-1][1] == b and chunks[-1][1] < per_chunk:
            chunks[-1][1] += 1
        else:
            chunks.append([b, 1])
    return [(first * block, count * block) for first, count in chunks]


def test_used_copy_sends_each_run_outside_the_cow_files_in_whole_chunks(rig, loop_volumes, tmp_path):
    volume = loop_volumes("ext4", size_mib=256, seed=7)
    # Runs longer than a chunk, and a file system whose block is not 4 KiB when mkfs
    # chooses 1 KiB for a small volume: the chunk then holds 12288 blocks.
    with open(volume.path("long.bin"), "wb") as f:
        f.write(os.urandom(1 << 20) * 30)
    subprocess.run(["sync"], check=True)
    lun = rig.add_target(volume)
    before = len(rig.agent.output())
    status = rig.backup([volume])
    assert status["status"] == "finished", status
    queued = [(int(p), int(n)) for p, n in QUEUED.findall(rig.agent.output()[before:])]

    # The LUN holds the snapshot's metadata, so its map is the snapshot's map.
    used, block = used_map(lun, str(tmp_path))
    cow_files = [volume.path(name) for name in (".zelko", ".zelko1") if os.path.exists(volume.path(name))]
    cow = cow_blocks(cow_files, block)
    assert cow and cow <= used  # the COW file was there to be left out
    expected = expected_chunks(used - cow, block)
    assert any(length == (CHUNK // block) * block for _, length in expected)  # a run longer than a chunk
    assert queued == expected
    transfer = status["details"][0]["transfer"]
    assert transfer["totalSize"] == len(used - cow) * block == transfer["bytesTransferred"]
