#!/usr/bin/python3
"""Sample data, changes, image comparison and the summary table of scripts/demo.

  demo_data.py fill ROOT                 many small files, a few large ones
  demo_data.py change ROOT               overwrite, append, delete, create, rewrite
  demo_data.py compare SOURCE IMAGE      every file, directory and link of both trees
  demo_data.py summary VOLUME_BYTES ROW...   ROW: id,seconds,status-document-file

Everything is seeded, so two runs write the same bytes.
"""
import hashlib
import json
import os
import random
import stat
import sys

MIB = 1024 * 1024
# The agent's and the driver's own files on a volume: the COW files (skipped by the
# copy, so their content in the image is not the volume's) and the incremental history.
AGENT_FILES = {".zelko", ".zelko1", ".zelko.inc", "lost+found"}


def write(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data)


def sync_tree(root):
    fd = os.open(root, os.O_RDONLY | os.O_DIRECTORY)
    try:
        os.syncfs(fd) if hasattr(os, "syncfs") else os.fsync(fd)
    finally:
        os.close(fd)
    os.sync()


def fill(root):
    rng = random.Random(20261107)
    total = 0
    count = 0
    for i in range(2400):
        size = rng.choice([0, 100, 1500, 4096, 4097, rng.randrange(1, 48 * 1024)])
        write(os.path.join(root, "docs", "d%02d" % (i % 40), "f%04d.bin" % i), rng.randbytes(size))
        total += size
        count += 1
    for i in range(4):
        size = (16 + 8 * i) * MIB
        write(os.path.join(root, "media", "large%d.bin" % i), rng.randbytes(size))
        total += size
        count += 1
    os.symlink("media/large0.bin", os.path.join(root, "latest"))
    os.makedirs(os.path.join(root, "empty-dir"))
    sync_tree(root)
    print("  %d files, %.1f MiB: 2400 small ones in 40 directories, 4 large ones (16..40 MiB)" %
          (count, total / MIB))


def change(root):
    rng = random.Random(1107)
    small = sorted(os.path.join(dp, f) for dp, _, fs in os.walk(os.path.join(root, "docs")) for f in fs)
    picked = rng.sample(small, 120)
    for path in picked[:60]:  # overwrite the start in place
        with open(path, "r+b") as f:
            f.write(rng.randbytes(2000))
    for path in picked[60:90]:  # append
        with open(path, "ab") as f:
            f.write(rng.randbytes(rng.randrange(100, 20000)))
    for path in picked[90:]:  # delete
        os.remove(path)
    for i in range(200):  # new files
        write(os.path.join(root, "new", "n%03d.bin" % i), rng.randbytes(rng.randrange(1, 32 * 1024)))
    with open(os.path.join(root, "media", "large1.bin"), "r+b") as f:  # rewrite 4 MiB in the middle
        f.seek(10 * MIB)
        f.write(rng.randbytes(4 * MIB))
    with open(os.path.join(root, "media", "large2.bin"), "ab") as f:
        f.write(rng.randbytes(2 * MIB))
    sync_tree(root)
    print("  60 files overwritten, 30 appended to, 30 deleted, 200 created, "
          "4 MiB rewritten in media/large1.bin, 2 MiB appended to media/large2.bin")


def entries(root):
    """{relative path: (kind, mode, size or link target)} of a tree, the agent's files left out."""
    found = {}
    for dirpath, dirnames, filenames in os.walk(root):
        rel_dir = os.path.relpath(dirpath, root)
        if rel_dir == ".":
            dirnames[:] = [d for d in dirnames if d not in AGENT_FILES]
            filenames = [f for f in filenames if f not in AGENT_FILES]
        for name in dirnames + filenames:
            path = os.path.join(dirpath, name)
            rel = os.path.normpath(os.path.join(rel_dir, name))
            info = os.lstat(path)
            if stat.S_ISLNK(info.st_mode):
                found[rel] = ("link", stat.S_IMODE(info.st_mode), os.readlink(path))
            elif stat.S_ISDIR(info.st_mode):
                found[rel] = ("dir", stat.S_IMODE(info.st_mode), None)
            else:
                found[rel] = ("file", stat.S_IMODE(info.st_mode), info.st_size)
    return found


def digest(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(4 * MIB), b""):
            h.update(block)
    return h.digest()


def compare(source, image):
    want, got = entries(source), entries(image)
    problems = ["missing in the image: %s" % p for p in sorted(set(want) - set(got))]
    problems += ["only in the image: %s" % p for p in sorted(set(got) - set(want))]
    files = 0
    size = 0
    for rel in sorted(set(want) & set(got)):
        if want[rel] != got[rel]:
            problems.append("differs (type, mode, size or link): %s" % rel)
        elif want[rel][0] == "file":
            files += 1
            size += want[rel][2]
            if digest(os.path.join(source, rel)) != digest(os.path.join(image, rel)):
                problems.append("content differs: %s" % rel)
    for line in problems[:20]:
        print("  " + line, file=sys.stderr)
    if len(problems) > 20:
        print("  ... and %d more" % (len(problems) - 20), file=sys.stderr)
    if problems:
        return 1
    print("  %d files (%.1f MiB), %d directories and links: identical to the volume" %
          (files, size / MIB, len(want) - files))
    return 0


def summary(volume_bytes, rows):
    table = [("backup", "type", "sent", "skipped (unused/unchanged)", "time", "MiB/s")]
    for row in rows:
        backup_id, seconds, document_file = row.split(",", 2)
        with open(document_file) as f:
            document = json.load(f)
        details = document.get("details", [])
        sent = sum(d["transfer"]["bytesTransferred"] for d in details)
        kinds = "+".join(sorted({d.get("type") or "?" for d in details}))
        seconds = float(seconds)
        table.append((backup_id[:8], kinds, "%.1f MiB" % (sent / MIB),
                      "%.1f MiB (%.0f %%)" % ((volume_bytes - sent) / MIB, 100.0 * (volume_bytes - sent) / volume_bytes),
                      "%.1f s" % seconds, "%.1f" % (sent / MIB / seconds if seconds > 0 else 0)))
    widths = [max(len(r[i]) for r in table) for i in range(len(table[0]))]
    for i, r in enumerate(table):
        print("  " + "  ".join(c.rjust(w) if 1 < n else c.ljust(w) for n, (c, w) in enumerate(zip(r, widths))))
        if i == 0:
            print("  " + "  ".join("-" * w for w in widths))
    return 0


def main(argv):
    if len(argv) >= 2 and argv[0] == "fill":
        fill(argv[1])
        return 0
    if len(argv) >= 2 and argv[0] == "change":
        change(argv[1])
        return 0
    if len(argv) == 3 and argv[0] == "compare":
        return compare(argv[1], argv[2])
    if len(argv) >= 3 and argv[0] == "summary":
        return summary(int(argv[1]), argv[2:])
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
