"""Used-block maps on real file systems: a copy of only the marked blocks (tests/tools/usedcopy) must be a clean
file system holding every file, and the map must agree with independent readers (dumpe2fs, xfs_db, partclone)."""

import hashlib
import os
import random
import re

import pytest

from volumes import MIB, mount_image, run

USEDCOPY = os.environ.get("ORV_USEDCOPY") or os.path.join(os.environ.get("ORV_BUILD_DIR", "build"), "tests",
                                                          "usedcopy")
SKIPPED_DIRS = ("lost+found", "System Volume Information")


def populate(root, seed, fragment_mib=4, fillers=96, filler_size=64 * 1024):
    """Small, large, empty and sparse files, and one fragmented into the holes of deleted fillers."""
    rng = random.Random(seed)
    os.makedirs(os.path.join(root, "docs", "deep", "er"), exist_ok=True)
    for i in range(40):
        with open(os.path.join(root, ("docs", "docs/deep", "docs/deep/er")[i % 3], f"small{i}.txt"), "wb") as f:
            f.write(rng.randbytes(rng.randrange(1, 6000)))
    with open(os.path.join(root, "large.bin"), "wb") as f:
        f.write(rng.randbytes(3 * MIB + 123))
    open(os.path.join(root, "empty"), "wb").close()
    with open(os.path.join(root, "sparse.bin"), "wb") as f:
        f.write(b"head" * 1000)
        f.seek(2 * MIB)
        f.write(b"tail" * 1000)
    os.makedirs(os.path.join(root, "fill"))
    names = [os.path.join(root, "fill", f"f{i:03d}") for i in range(fillers)]
    for name in names:
        with open(name, "wb") as f:
            f.write(rng.randbytes(filler_size))
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
    """({relative path: sha256} of every file, set of directories), without the file system's own."""
    files, dirs = {}, set()
    for base, subdirs, names in os.walk(root):
        rel = os.path.relpath(base, root)
        if rel == ".":
            subdirs[:] = [d for d in subdirs if d not in SKIPPED_DIRS]
        dirs.update(os.path.normpath(os.path.join(rel, d)) for d in subdirs)
        for name in names:
            with open(os.path.join(base, name), "rb") as f:
                files[os.path.normpath(os.path.join(rel, name))] = hashlib.sha256(f.read()).hexdigest()
    return files, dirs


def merge(spans):
    merged = []
    for start, end in sorted(spans):
        if merged and merged[-1][1] >= start:
            merged[-1][1] = max(merged[-1][1], end)
        else:
            merged.append([start, end])
    return [tuple(m) for m in merged]


def subtract(a, b):
    """Byte ranges of `a` not in `b` (both merged)."""
    out = []
    for start, end in a:
        cursor = start
        for bs, be in b:
            if be > cursor and bs < end:
                if bs > cursor:
                    out.append((cursor, bs))
                cursor = max(cursor, be)
        if cursor < end:
            out.append((cursor, end))
    return out


def make_image(tmp_path, name, mib):
    path = str(tmp_path / name)
    with open(path, "wb") as f:
        f.truncate(mib * MIB)
    return path


def usedcopy(*args):
    return {k: int(v) for k, v in re.findall(r"(\w+)=(\d+)", run(USEDCOPY, *args).stdout)}


def copy_used(tmp_path, source, buffer_bytes):
    """(copy, counts, used byte ranges) of a copy in pieces of `buffer_bytes` of bitmap; one piece must agree."""
    target = make_image(tmp_path, "copy.img", os.path.getsize(source) // MIB)
    ranges = str(tmp_path / "ranges.txt")
    info = usedcopy("--buffer-bytes", buffer_bytes, "--ranges", ranges, source, target)
    assert info["pieces"] == -(-info["blockCount"] // (buffer_bytes * 8))
    whole = usedcopy(source)
    assert (whole["pieces"], whole["usedBlocks"]) == (1, info["usedBlocks"])
    with open(ranges) as f:
        used = merge([(s, s + n) for s, n in (map(int, line.split()) for line in f)])
    return target, info, used


def partclone_ranges(tool, image, tmp_path):
    """Used byte ranges according to partclone's ddrescue domain log."""
    domain = str(tmp_path / "domain.log")
    run(tool, "-q", "-D", "-s", image, "-O", domain)
    with open(domain) as f:
        fields = [line.split() for line in f if not line.startswith("#")]
    return merge([(int(s, 16), int(s, 16) + int(n, 16)) for s, n, mark in (x for x in fields if len(x) == 3)
                  if mark == "+"])


def dumpe2fs_used_blocks(image):
    """(used blocks, unit, skipped ranges) per dumpe2fs, less what the map leaves out on purpose: block 0 of
    1 KiB-block volumes and groups whose bitmap is uninitialised."""
    text = run("dumpe2fs", image).stdout
    field = lambda name: int(re.search(r"^%s:\s+(\d+)" % name, text, re.M).group(1))
    block_size, first = field("Block size"), field("First block")
    unit = field("Cluster size") if "Cluster size:" in text else block_size
    used = (field("Block count") - field("Free blocks")) // (unit // block_size) - first
    skipped = [(0, first * block_size)] if first else []
    for m in re.finditer(r"^Group \d+: \(Blocks (\d+)-(\d+)\)[^\n]*\[[^\]]*BLOCK_UNINIT[^\]]*\]"
                         r".*?^\s+(\d+) free (?:blocks|clusters)", text, re.M | re.S):
        lo, hi, group_free = int(m.group(1)), int(m.group(2)), int(m.group(3))
        used -= (hi - lo + 1) // (unit // block_size) - group_free
        skipped.append((lo * block_size, (hi + 1) * block_size))
    return used, unit, merge(skipped)


EXT_CASES = [
    ("ext2", ["-b", "1024"]),
    ("ext3", ["-b", "4096", "-g", "4096"]),
    ("ext4", ["-b", "4096", "-g", "4096"]),
    ("ext4", ["-b", "1024", "-O", "^flex_bg,^64bit"]),
    ("ext4", ["-b", "4096", "-g", "4096", "-O", "^flex_bg,64bit"]),
    ("ext4", ["-b", "4096", "-g", "2048", "-O", "meta_bg,^resize_inode"]),
    ("ext4", ["-b", "4096", "-O", "bigalloc", "-C", "16384"]),
]


@pytest.mark.parametrize("fstype,options", EXT_CASES, ids=[f"{t}{''.join(o)}" for t, o in EXT_CASES])
def test_ext_copy_of_used_blocks_is_the_same_file_system(tmp_path, fstype, options):
    source = make_image(tmp_path, "source.img", 64)
    run(f"mkfs.{fstype}", "-q", "-F", *options, source)
    with mount_image(source, "ext4", str(tmp_path / "src"), "rw") as image:  # ext4 mounts all three
        populate(image.point, seed=len(options))
        expected = tree_digest(image.point)

    target, info, ours = copy_used(tmp_path, source, 512)
    used, unit, skipped = dumpe2fs_used_blocks(source)
    assert (info["blockSize"], info["usedBlocks"]) == (unit, used)
    # partclone rebuilds uninitialised groups: it may only add what the map leaves out on
    # purpose. It does not read bigalloc volumes.
    if "bigalloc" not in options:
        theirs = partclone_ranges("partclone.extfs", source, tmp_path)
        assert subtract(ours, theirs) == []
        assert subtract(subtract(theirs, ours), skipped) == []
    run("e2fsck", "-fn", target)
    with mount_image(target, "ext4", str(tmp_path / "dst"), "ro,noload") as image:
        assert tree_digest(image.point) == expected


def check_xfs_copy(tmp_path, source):
    target, info, ours = copy_used(tmp_path, source, 1024)
    text = run("xfs_db", "-r", "-c", "freesp -s", "-c", "sb 0", "-c", "p dblocks", source).stdout
    free = int(re.search(r"total free blocks (\d+)", text).group(1))
    dblocks = int(re.search(r"dblocks = (\d+)", text).group(1))
    assert (info["blockCount"], info["usedBlocks"]) == (dblocks, dblocks - free)
    assert ours == partclone_ranges("partclone.xfs", source, tmp_path)
    run("xfs_repair", "-n", "-f", target)
    return target


def test_xfs_v5_copy_of_used_blocks_is_the_same_file_system(tmp_path):
    source = make_image(tmp_path, "source.img", 320)
    # 1 KiB blocks and many small holes give the free-space btree interior nodes.
    run("mkfs.xfs", "-q", "-f", "-b", "size=1024", source)
    with mount_image(source, "xfs", str(tmp_path / "src"), "rw") as image:
        populate(image.point, seed=7, fillers=800, filler_size=4096)
        expected = tree_digest(image.point)
    agfs = [arg for ag in range(4) for arg in ("-c", f"agf {ag}", "-c", "p bnolevel")]
    assert max(int(v) for v in re.findall(r"bnolevel = (\d+)", run("xfs_db", "-r", *agfs, source).stdout)) >= 2
    target = check_xfs_copy(tmp_path, source)
    with mount_image(target, "xfs", str(tmp_path / "dst")) as image:
        assert tree_digest(image.point) == expected


def test_xfs_v4_copy_of_used_blocks_is_clean(tmp_path):
    # This kernel no longer mounts v4 (crc=0) file systems: the content comes from an mkfs
    # prototype file, and the copy is checked by xfs_repair and the block ranges only.
    staging = str(tmp_path / "staging")
    populate(staging, seed=8, fragment_mib=1)
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
    (tmp_path / "proto").write_text("\n".join(lines + ["$"]) + "\n")
    source = make_image(tmp_path, "source.img", 320)
    run("mkfs.xfs", "-q", "-f", "-m", "crc=0", "-p", tmp_path / "proto", source)
    icount = run("xfs_db", "-r", "-c", "sb 0", "-c", "p icount", source).stdout
    assert int(re.search(r"icount = (\d+)", icount).group(1)) > 100
    check_xfs_copy(tmp_path, source)


def mtools(*args):
    return run(*args, env=dict(os.environ, MTOOLS_SKIP_CHECK="1"))


# The unit is the cluster when the data area is cluster-aligned, else the sector. Readers take a volume of
# fewer than 65525 clusters for FAT16: 4 KiB clusters need 260 MiB.
FAT_CASES = [("aligned data area", ["-s", "8"], 4096), ("unaligned data area", ["-s", "8", "-a", "-R", "33"], 512)]


@pytest.mark.parametrize("name,options,unit", FAT_CASES, ids=[c[0] for c in FAT_CASES])
def test_fat32_copy_of_used_blocks_is_the_same_file_system(tmp_path, name, options, unit):
    source = make_image(tmp_path, "source.img", 300)
    run("mkfs.fat", "-F", "32", *options, source)
    staging = tmp_path / "staging"
    populate(str(staging), seed=11, fragment_mib=0)
    # mtools takes the first free clusters: fillers, deletions, then a file that has to take
    # the holes, as on a mounted volume.
    mtools("mcopy", "-i", source, "-s", "-Q", *sorted(staging.iterdir()), "::/")
    fillers = sorted(os.listdir(staging / "fill"))[::2]
    mtools("mdel", "-i", source, *[f"::/fill/{n}" for n in fillers])
    for n in fillers:
        os.unlink(staging / "fill" / n)
    (staging / "fragmented.bin").write_bytes(random.Random(3).randbytes(4 * MIB))
    mtools("mcopy", "-i", source, "-o", "-Q", staging / "fragmented.bin", "::/")
    expected = tree_digest(str(staging))

    target, info, ours = copy_used(tmp_path, source, 256)
    assert info["blockSize"] == unit
    # fsck.fat's own count: used clusters, plus the reserved sectors and FATs.
    text = run("fsck.fat", "-n", "-v", source).stdout
    used_clusters, clusters = map(int, re.search(r"(\d+)/(\d+) clusters", text).groups())
    cluster = int(re.search(r"(\d+) bytes per cluster", text).group(1))
    data_start = int(re.search(r"Data area starts at byte (\d+)", text).group(1))
    assert info["usedBlocks"] * unit == data_start + used_clusters * cluster
    # partclone also keeps the sectors past the last whole cluster, which FAT never allocates.
    tail = [(data_start + clusters * cluster, os.path.getsize(source))]
    assert ours == subtract(partclone_ranges("partclone.fat32", source, tmp_path), tail)
    run("fsck.fat", "-n", target)
    out = tmp_path / "out"
    out.mkdir()
    mtools("mcopy", "-i", target, "-s", "-n", "-Q", "::/*", out)
    assert tree_digest(str(out)) == expected


def test_ntfs_copy_of_used_blocks_is_the_same_file_system(tmp_path):
    source = make_image(tmp_path, "source.img", 96)
    run("mkntfs", "-q", "-F", "-f", source)
    with mount_image(source, "ntfs", str(tmp_path / "src"), "rw") as image:
        populate(image.point, seed=5)
        expected = tree_digest(image.point)
    target, info, ours = copy_used(tmp_path, source, 64)
    # partclone stops at the last cluster; the map adds the backup boot sector's block at
    # the very end of the device.
    size = os.path.getsize(source)
    assert ours == merge(partclone_ranges("partclone.ntfs", source, tmp_path) + [(size - info["blockSize"], size)])
    run("ntfsfix", "-n", target)
    with mount_image(target, "ntfs", str(tmp_path / "dst")) as image:
        assert tree_digest(image.point) == expected


def test_damaged_device_is_an_error_not_a_crash(tmp_path):
    source = make_image(tmp_path, "ext.img", 16)
    run("mkfs.ext4", "-q", "-F", "-b", "1024", source)
    os.truncate(source, 8 * MIB)  # the file system no longer fits its device
    result = run(USEDCOPY, source, check=False)
    assert result.returncode == 1 and "larger than its device" in result.stderr
