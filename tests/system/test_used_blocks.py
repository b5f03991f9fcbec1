"""Used-block maps on real file systems.

Each case formats a sparse image, writes a mixed file set (small and large files,
a sparse file, a file fragmented into the holes left by deleted files), then copies
only the used blocks that GetUsedBlockBitmap reports into a zero-filled image of the
same size (tests/tools/usedcopy). The copy must be a clean file system holding every
file of the source, and the used blocks must agree with an independent reader.
"""

import hashlib
import os
import random
import re
import shutil
import tempfile

import pytest

from volumes import mount_image, run

USEDCOPY = os.environ.get("ORV_USEDCOPY") or os.path.join(os.environ.get("ORV_BUILD_DIR", "build"), "tests",
                                                          "usedcopy")
MIB = 1024 * 1024


@pytest.fixture
def workdir():
    path = tempfile.mkdtemp(prefix="orv-usedblocks-")
    yield path
    shutil.rmtree(path, ignore_errors=True)


def populate(root, seed, fragment_mib=4, fillers=96, filler_size=64 * 1024):
    """Writes the mixed file set under `root`."""
    rng = random.Random(seed)
    os.makedirs(os.path.join(root, "docs", "deep", "er"), exist_ok=True)
    for i in range(40):
        sub = ("docs", "docs/deep", "docs/deep/er")[i % 3]
        with open(os.path.join(root, sub, f"small{i}.txt"), "wb") as f:
            f.write(rng.randbytes(rng.randrange(1, 6000)))
    with open(os.path.join(root, "large.bin"), "wb") as f:
        f.write(rng.randbytes(3 * MIB + 123))
    open(os.path.join(root, "empty"), "wb").close()
    with open(os.path.join(root, "sparse.bin"), "wb") as f:
        f.write(b"head" * 1000)
        f.seek(2 * MIB)
        f.write(b"tail" * 1000)
    # Fill, delete every other filler, then write a file that has to take the holes.
    os.makedirs(os.path.join(root, "fill"))
    names = []
    for i in range(fillers):
        name = os.path.join(root, "fill", f"f{i:03d}")
        with open(name, "wb") as f:
            f.write(rng.randbytes(filler_size))
        names.append(name)
    os.sync()
    for name in names[::2]:
        os.unlink(name)
    os.sync()
    with open(os.path.join(root, "fragmented.bin"), "wb") as f:
        for _ in range(fragment_mib * 16):
            f.write(rng.randbytes(64 * 1024))
            f.flush()
            os.fsync(f.fileno())
    os.sync()


def tree_digest(root):
    """{relative path: sha256} of every file, and the set of directories."""
    files, dirs = {}, set()
    for base, subdirs, names in os.walk(root):
        rel = os.path.relpath(base, root)
        for d in subdirs:
            if not (rel == "." and d in ("lost+found", "System Volume Information")):
                dirs.add(os.path.normpath(os.path.join(rel, d)))
        if rel.split(os.sep)[0] in ("lost+found", "System Volume Information"):
            continue
        for name in names:
            with open(os.path.join(base, name), "rb") as f:
                files[os.path.normpath(os.path.join(rel, name))] = hashlib.sha256(f.read()).hexdigest()
    return files, {d for d in dirs if d.split(os.sep)[0] not in ("lost+found", "System Volume Information")}


def usedcopy(source, target=None, buffer_bytes=None, ranges=None):
    args = [USEDCOPY]
    if buffer_bytes:
        args += ["--buffer-bytes", str(buffer_bytes)]
    if ranges:
        args += ["--ranges", ranges]
    args.append(source)
    if target:
        args.append(target)
    out = run(*args).stdout
    return {k: int(v) for k, v in re.findall(r"(\w+)=(\d+)", out)}


def used_ranges(path):
    """Merged [start, end) byte ranges from usedcopy's --ranges file."""
    spans = [tuple(map(int, line.split())) for line in open(path)]
    return merge([(s, s + n) for s, n in spans])


def merge(spans):
    merged = []
    for start, end in sorted(spans):
        if merged and merged[-1][1] >= start:
            merged[-1][1] = max(merged[-1][1], end)
        else:
            merged.append([start, end])
    return [tuple(m) for m in merged]


def partclone_ranges(tool, image, workdir):
    """Used byte ranges according to partclone's ddrescue domain log."""
    domain = os.path.join(workdir, "domain.log")
    run(tool, "-q", "-D", "-s", image, "-O", domain)
    spans = []
    for line in open(domain):
        fields = line.split()
        if len(fields) == 3 and fields[2] == "+" and not line.startswith("#"):
            start, size = int(fields[0], 16), int(fields[1], 16)
            spans.append((start, start + size))
    return merge(spans)


def subtract(a, b):
    """Byte ranges of `a` not in `b` (both merged)."""
    out = []
    for start, end in a:
        cursor = start
        for bs, be in b:
            if be <= cursor or bs >= end:
                continue
            if bs > cursor:
                out.append((cursor, bs))
            cursor = max(cursor, be)
        if cursor < end:
            out.append((cursor, end))
    return out


def make_image(workdir, name, size):
    path = os.path.join(workdir, name)
    with open(path, "wb") as f:
        f.truncate(size)
    return path


def copy_used(workdir, source, buffer_bytes=None):
    target = make_image(workdir, "copy.img", os.path.getsize(source))
    ranges = os.path.join(workdir, "ranges.txt")
    info = usedcopy(source, target, buffer_bytes=buffer_bytes, ranges=ranges)
    return target, info, used_ranges(ranges)


def check_pieces(source, info, buffer_bytes):
    """Several small pieces must cover exactly what one large piece covers."""
    per_piece = buffer_bytes * 8
    assert info["pieces"] == -(-info["blockCount"] // per_piece)
    whole = usedcopy(source)
    assert whole["pieces"] == 1
    assert whole["usedBlocks"] == info["usedBlocks"]


EXT_CASES = [
    ("ext2", ["-b", "1024"]),
    ("ext3", ["-b", "4096", "-g", "4096"]),
    ("ext4", ["-b", "4096", "-g", "4096"]),
    ("ext4", ["-b", "1024", "-O", "^flex_bg,^64bit"]),
    ("ext4", ["-b", "4096", "-g", "4096", "-O", "^flex_bg,64bit"]),
    ("ext4", ["-b", "4096", "-g", "2048", "-O", "meta_bg,^resize_inode"]),
    ("ext4", ["-b", "4096", "-O", "bigalloc", "-C", "16384"]),
]


def dumpe2fs_used_blocks(image):
    """Used blocks as dumpe2fs counts them, less those the map leaves out on purpose:
    block 0 of 1 KiB-block volumes (before the first group) and every block of a group
    whose bitmap is uninitialised. Also returns the byte ranges of those groups."""
    text = run("dumpe2fs", image).stdout
    block_size = int(re.search(r"^Block size:\s+(\d+)", text, re.M).group(1))
    cluster = re.search(r"^Cluster size:\s+(\d+)", text, re.M)
    unit = int(cluster.group(1)) if cluster else block_size
    total = int(re.search(r"^Block count:\s+(\d+)", text, re.M).group(1))
    free = int(re.search(r"^Free blocks:\s+(\d+)", text, re.M).group(1))
    first = int(re.search(r"^First block:\s+(\d+)", text, re.M).group(1))
    used = (total - free) // (unit // block_size) - first
    skipped = [(0, first * block_size)] if first else []
    for m in re.finditer(r"^Group \d+: \(Blocks (\d+)-(\d+)\)[^\n]*\[[^\]]*BLOCK_UNINIT[^\]]*\]"
                         r".*?^\s+(\d+) free (?:blocks|clusters)", text, re.M | re.S):
        lo, hi, group_free = int(m.group(1)), int(m.group(2)), int(m.group(3))
        used -= (hi - lo + 1) // (unit // block_size) - group_free
        skipped.append((lo * block_size, (hi + 1) * block_size))
    return used, unit, merge(skipped)


@pytest.mark.parametrize("fstype,options", EXT_CASES, ids=[f"{t}{''.join(o)}" for t, o in EXT_CASES])
def test_ext_copy_of_used_blocks_is_the_same_file_system(workdir, fstype, options):
    source = make_image(workdir, "source.img", 64 * MIB)
    run(f"mkfs.{fstype}", "-q", "-F", *options, source)
    # The ext4 driver mounts all three, and knows noload.
    with mount_image(source, "ext4", os.path.join(workdir, "src"), "rw") as image:
        populate(image.point, seed=len(options))
        expected = tree_digest(image.point)

    target, info, ours = copy_used(workdir, source, buffer_bytes=512)
    check_pieces(source, info, 512)
    used, unit, skipped = dumpe2fs_used_blocks(source)
    assert info["blockSize"] == unit
    assert info["usedBlocks"] == used
    # partclone reads the same bitmaps but rebuilds uninitialised groups: it may only
    # add what the map leaves out on purpose. It does not read bigalloc volumes.
    if "bigalloc" not in options:
        theirs = partclone_ranges("partclone.extfs", source, workdir)
        assert subtract(ours, theirs) == []
        assert subtract(subtract(theirs, ours), skipped) == []

    run("e2fsck", "-fn", target)
    with mount_image(target, "ext4", os.path.join(workdir, "dst"), "ro,noload") as image:
        assert tree_digest(image.point) == expected


def write_proto(staging, path):
    """An mkfs.xfs prototype file that recreates the tree under `staging`."""
    lines = ["/dev/null", "0 0", "d--755 0 0"]

    def walk(directory, depth):
        for name in sorted(os.listdir(directory)):
            full = os.path.join(directory, name)
            if os.path.isdir(full):
                lines.append(f"{' ' * depth}{name} d--755 0 0")
                walk(full, depth + 1)
                lines.append(f"{' ' * depth}$")
            else:
                lines.append(f"{' ' * depth}{name} ---644 0 0 {full}")

    walk(staging, 1)
    lines.append("$")
    with open(path, "w") as f:
        f.write("\n".join(lines) + "\n")


def test_xfs_v5_copy_of_used_blocks_is_the_same_file_system(workdir):
    source = make_image(workdir, "source.img", 320 * MIB)
    # 1 KiB blocks and many small holes give the free-space btree interior nodes.
    run("mkfs.xfs", "-q", "-f", "-b", "size=1024", source)
    with mount_image(source, "xfs", os.path.join(workdir, "src"), "rw") as image:
        populate(image.point, seed=7, fillers=800, filler_size=4096)
        expected = tree_digest(image.point)
    levels = [int(v) for v in re.findall(r"bnolevel = (\d+)", run(
        "xfs_db", "-r", "-c", "agf 0", "-c", "p bnolevel", "-c", "agf 1", "-c", "p bnolevel", "-c", "agf 2",
        "-c", "p bnolevel", "-c", "agf 3", "-c", "p bnolevel", source).stdout)]
    assert max(levels) >= 2

    target = check_xfs_copy(workdir, source)
    with mount_image(target, "xfs", os.path.join(workdir, "dst"), "ro,norecovery,nouuid") as image:
        assert tree_digest(image.point) == expected


def test_xfs_v4_copy_of_used_blocks_is_clean(workdir):
    # This kernel no longer mounts v4 (crc=0) file systems: the content is written at
    # mkfs time from a prototype file, and the copy is checked by xfs_repair and by
    # the block ranges, not by reading its files back.
    staging = os.path.join(workdir, "staging")
    populate(staging, seed=8, fragment_mib=1)
    proto = os.path.join(workdir, "proto")
    write_proto(staging, proto)
    source = make_image(workdir, "source.img", 320 * MIB)
    run("mkfs.xfs", "-q", "-f", "-m", "crc=0", "-p", proto, source)
    files = run("xfs_db", "-r", "-c", "sb 0", "-c", "p icount", source).stdout
    assert int(re.search(r"icount = (\d+)", files).group(1)) > 100
    check_xfs_copy(workdir, source)


def check_xfs_copy(workdir, source):
    target, info, ours = copy_used(workdir, source, buffer_bytes=1024)
    check_pieces(source, info, 1024)
    text = run("xfs_db", "-r", "-c", "freesp -s", "-c", "sb 0", "-c", "p dblocks", source).stdout
    free = int(re.search(r"total free blocks (\d+)", text).group(1))
    dblocks = int(re.search(r"dblocks = (\d+)", text).group(1))
    assert info["blockCount"] == dblocks
    assert info["usedBlocks"] == dblocks - free
    assert ours == partclone_ranges("partclone.xfs", source, workdir)
    run("xfs_repair", "-n", "-f", target)
    return target


def mtools(*args):
    return run(*args, env=dict(os.environ, MTOOLS_SKIP_CHECK="1"))


# mtools, like other readers, takes a volume of fewer than 65525 clusters for FAT16:
# volumes with 4 KiB clusters need 260 MiB or more.
FAT_CASES = [
    ("512-byte clusters", 80, ["-s", "1"], 512),
    ("4 KiB clusters", 300, ["-s", "8"], 4096),
    ("unaligned data area", 300, ["-s", "8", "-a", "-R", "33"], 512),
]


@pytest.mark.parametrize("name,mib,options,unit", FAT_CASES, ids=[c[0] for c in FAT_CASES])
def test_fat32_copy_of_used_blocks_is_the_same_file_system(workdir, name, mib, options, unit):
    source = make_image(workdir, "source.img", mib * MIB)
    run("mkfs.fat", "-F", "32", *options, source)
    staging = os.path.join(workdir, "staging")
    os.makedirs(staging)
    populate(staging, seed=11, fragment_mib=0)
    # mtools takes the first free clusters: fillers, deletions, then a file that has to
    # take the holes, as on a mounted volume.
    mtools("mcopy", "-i", source, "-s", "-Q", *[os.path.join(staging, n) for n in sorted(os.listdir(staging))], "::/")
    fillers = sorted(os.listdir(os.path.join(staging, "fill")))
    mtools("mdel", "-i", source, *[f"::/fill/{n}" for n in fillers[::2]])
    for n in fillers[::2]:
        os.unlink(os.path.join(staging, "fill", n))
    with open(os.path.join(staging, "fragmented.bin"), "wb") as f:
        f.write(random.Random(3).randbytes(4 * MIB))
    mtools("mcopy", "-i", source, "-o", "-Q", os.path.join(staging, "fragmented.bin"), "::/")
    expected = tree_digest(staging)

    target, info, ours = copy_used(workdir, source, buffer_bytes=256)
    check_pieces(source, info, 256)
    assert info["blockSize"] == unit
    # fsck.fat's own count: used clusters, plus the reserved sectors and FATs.
    text = run("fsck.fat", "-n", "-v", source).stdout
    used_clusters, clusters = map(int, re.search(r"(\d+)/(\d+) clusters", text).groups())
    cluster = int(re.search(r"(\d+) bytes per cluster", text).group(1))
    data_start = int(re.search(r"Data area starts at byte (\d+)", text).group(1))
    assert info["usedBlocks"] * unit == data_start + used_clusters * cluster
    # partclone also keeps the sectors past the last whole cluster, which FAT never
    # allocates.
    tail = [(data_start + clusters * cluster, os.path.getsize(source))]
    assert ours == subtract(partclone_ranges("partclone.fat32", source, workdir), tail)

    run("fsck.fat", "-n", target)
    out = os.path.join(workdir, "out")
    os.makedirs(out)
    mtools("mcopy", "-i", target, "-s", "-n", "-Q", "::/*", out)
    assert tree_digest(out) == expected


def test_ntfs_copy_of_used_blocks_is_the_same_file_system(workdir):
    source = make_image(workdir, "source.img", 96 * MIB)
    run("mkntfs", "-q", "-F", "-f", source)
    with mount_image(source, "ntfs", os.path.join(workdir, "src"), "rw") as image:
        populate(image.point, seed=5)
        expected = tree_digest(image.point)

    target, info, ours = copy_used(workdir, source, buffer_bytes=64)
    check_pieces(source, info, 64)
    theirs = partclone_ranges("partclone.ntfs", source, workdir)
    # partclone stops at the last cluster; the map adds the backup boot sector's block
    # at the very end of the device.
    backup = (os.path.getsize(source) - info["blockSize"], os.path.getsize(source))
    assert ours == merge(theirs + [backup])

    run("ntfsfix", "-n", target)
    with mount_image(target, "ntfs", os.path.join(workdir, "dst"), "ro") as image:
        assert tree_digest(image.point) == expected


def test_unknown_and_damaged_devices(workdir):
    """An unknown device maps to nothing; damage is an error, not a crash."""
    blank = make_image(workdir, "blank.img", 8 * MIB)
    assert usedcopy(blank)["usedBlocks"] == 0

    source = make_image(workdir, "ext.img", 16 * MIB)
    run("mkfs.ext4", "-q", "-F", "-b", "1024", source)
    # A truncated copy of the volume: the file system no longer fits its device.
    with open(source, "r+b") as f:
        f.truncate(8 * MIB)
    result = run(USEDCOPY, source, check=False)
    assert result.returncode == 1
    assert "larger than its device" in result.stderr
