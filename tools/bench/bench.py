#!/usr/bin/python3
"""The agent's copies measured against what the target and the disk allow.

Run by scripts/bench (as root, on a release build), which checks the machine's room,
makes the work directory and removes whatever is left in it afterwards. This program
builds the rig inside that directory: an ext4 loop volume about half full (large and
small files), the driver simulator, a private tgtd on loopback (stock, then tuned), the
agent paired with an appliance client, and runs, in one go and `--reps` times each:

  baseline   orv_iscsi_baseline: sequential WRITE(16) and READ(16) of the LUN in 12 MiB
             commands, a plain two-thread two-slot copy of the snapshot's image onto the
             LUN, and an O_DIRECT read of that image
  agent      POST /backup to its end: full copy of all blocks, full copy of the used
             blocks, incremental after 1% and 10% of the volume's blocks changed,
             diff-merge of an identical image and of one with 10% of its chunks altered
  big logs   the all-blocks full copy again with the logs table holding what 30 days of
             daily backups of a 1 TiB volume leave behind

Each backup is timed end to end (POST to the finished status) and per phase from the
agent's own log lines, stamped as they reach its standard output (orvd -d); the peak
RSS of orvd is taken per copy (VmHWM, reset before each backup) and GET /backup/<id>
is polled ten times a second meanwhile, each poll a fresh mutual-TLS request as the
appliance makes it. Ratios are taken between figures of the same repetition, then the
median of the repetitions is reported. Results: results.json, results.md (the table)
and throughput.png (gnuplot) in --out.
"""
import argparse
import datetime
import json
import os
import random
import re
import signal
import sqlite3
import statistics
import subprocess
import sys
import threading
import time
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE_DIR = os.path.abspath(os.path.join(HERE, "..", ".."))
sys.path.insert(0, os.path.join(SOURCE_DIR, "tests", "system"))
sys.path.insert(0, os.path.join(SOURCE_DIR, "tools", "appliance"))

MIB = 1024 * 1024
CHUNK = 12582912
BLOCK = 4096
IQN = "iqn.2026-11.org.orvd.bench:volume"
DEVICE_ID = 42
POLL_INTERVAL = 0.1
TERMINAL = ("finished", "failed")

KINDS = [
    # kind, label, request flags, expected copy type, what its ratio is taken against
    ("full_all", "full copy, all blocks", {"forceCopyFull": True}, "full", "baseline_copy"),
    ("full_used", "full copy, used blocks", {"forceCopyFull": True}, "full", "full_all"),
    ("incremental_1", "incremental, 1% changed", {}, "incremental", "full_all"),
    ("incremental_10", "incremental, 10% changed", {}, "incremental", "full_all"),
    ("diff_identical", "diff-merge, identical image", {"forceDiffMerge": True}, "differential", "baseline_read"),
    ("diff_10", "diff-merge, 10% of chunks differ", {"forceDiffMerge": True}, "differential", "baseline_read"),
]
BASELINES = [
    ("baseline_write", "baseline WRITE(16), 12 MiB"),
    ("baseline_read", "baseline READ(16), 12 MiB"),
    ("baseline_copy", "baseline two-slot copy"),
    ("snapshot_direct_read", "O_DIRECT read of the snapshot"),
]
# Copies that move only some runs of the volume: each is followed by the baseline tool's
# two-slot copy of the very runs it wrote, what the target and the disk need for them.
RUNS_BASELINED = ("full_used", "incremental_1", "incremental_10")
BIG_LOGS = ("full_all_big_logs", "full copy, all blocks, 30 days of logs")

COPY_START = re.compile(r"^\[INFO\] Performing (copy full on all blocks|copy full on used blocks|"
                        r"copy incremental on all blocks|original diffmerge on all blocks)\.$")
COPY_END = "[DEBUG] starting getImageChecksum"
WRITER_POP = re.compile(r"^\[DEBUG\] read from queue writepos (\d+) writelen (\d+)$")
PROGRESS = re.compile(r"^\[DEBUG\] Set backup of volume \S+ 'BYTES TRANSFERRED' to \d+ bytes\.$")
WRITER_DONE = "[DEBUG] Wrote data chunk"


class BenchError(Exception):
    pass


def say(text):
    print("bench: " + text, flush=True)


def median(values):
    values = [v for v in values if v is not None]
    return statistics.median(values) if values else None


def percentile(values, fraction):
    if not values:
        return None
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(round(fraction * (len(ordered) - 1))))]


# ---------------------------------------------------------------------------------------
# The agent, with its display output stamped line by line

class LineClock(threading.Thread):
    """Reads the agent's standard output, stamps each line with the monotonic clock as it
    arrives and keeps the lines of the current backup; all of it also goes to a file. The
    agent's peak RSS is reset when a copy starts and read when it ends, so that it covers
    the copy alone (the driver simulator runs inside orvd and its captures are no part of
    what the agent holds)."""

    def __init__(self, stream, path, pid):
        super().__init__(daemon=True)
        self.stream = stream
        self.file = open(path, "ab")
        self.pid = pid
        self.lock = threading.Lock()
        self.lines = []
        self.copy_peak = None

    def run(self):
        for raw in iter(self.stream.readline, b""):
            now = time.monotonic()
            self.file.write(raw)
            text = raw.decode("utf-8", "replace").rstrip("\n")
            try:
                if COPY_START.match(text):
                    reset_peak_rss(self.pid)
                elif text == COPY_END:
                    self.copy_peak = proc_status(self.pid, "VmHWM")
            except OSError:
                pass
            with self.lock:
                self.lines.append((now, text))
        self.file.close()

    def take(self):
        """The lines since the last take."""
        with self.lock:
            lines, self.lines = self.lines, []
        return lines


def make_agent_class():
    import agent as agent_module

    class BenchAgent(agent_module.Agent):
        """orvd -d with its output read through a pipe by a LineClock."""

        clock = None

        def start(self, *args, wait=True, timeout=30):
            self.process = subprocess.Popen([agent_module.ORVD, "-d"] + list(args), env=self.env, cwd=self.root,
                                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            self.clock = LineClock(self.process.stdout, self.output_path, self.process.pid)
            self.clock.start()
            deadline = time.time() + timeout
            while time.time() < deadline:
                if self.process.poll() is not None:
                    raise BenchError("orvd exited with %d:\n%s" % (self.process.returncode, self.output()[-3000:]))
                if os.path.exists(self.pid_file) and open(self.pid_file).read().strip() == str(self.process.pid):
                    return self.process
                time.sleep(0.05)
            raise BenchError("orvd did not take its PID file")

    return BenchAgent


def proc_status(pid, field):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith(field + ":"):
                return int(line.split()[1]) * 1024
    return None


def reset_peak_rss(pid):
    with open("/proc/%d/clear_refs" % pid, "w") as f:
        f.write("5")


class Poller(threading.Thread):
    """GET /backup/<id> every POLL_INTERVAL seconds until the backup ends."""

    def __init__(self, client, backup_id, timeout):
        super().__init__(daemon=True)
        self.client = client
        self.backup_id = backup_id
        self.deadline = time.monotonic() + timeout
        self.samples = []  # (start, latency in seconds)
        self.final = None
        self.final_time = None
        self.error = None

    def run(self):
        while time.monotonic() < self.deadline:
            start = time.monotonic()
            try:
                response = self.client.backup_status(self.backup_id)
            except Exception as e:  # noqa: BLE001 - reported by the caller
                self.error = "GET /backup/%s: %s" % (self.backup_id, e)
                return
            end = time.monotonic()
            self.samples.append((start, end - start))
            if response.status != 200:
                self.error = "GET /backup/%s answered %d: %s" % (self.backup_id, response.status, response.text)
                return
            document = response.json()
            if document.get("status") in TERMINAL:
                self.final = document
                self.final_time = end
                return
            time.sleep(max(0.0, start + POLL_INTERVAL - time.monotonic()))
        self.error = "backup %s did not end in time" % self.backup_id


# ---------------------------------------------------------------------------------------
# The rig

class Rig:
    def __init__(self, args):
        self.args = args
        self.work = os.path.realpath(args.work)
        self.size = args.size_mib * MIB
        self.rng = random.Random(20261101)
        self.volume = None
        self.sim = None
        self.agent = None
        self.client = None
        self.tgtd = None
        self.lun_path = None
        self.pid_dir = os.path.join(self.work, "pids")
        os.makedirs(self.pid_dir, exist_ok=True)
        self.large_files = []
        self.baseline_tool = os.path.join(args.build, "tools", "bench", "orv_iscsi_baseline")

    # -- pids for scripts/bench's last-resort cleanup ------------------------------------
    def note_pid(self, name, pid, extra=""):
        with open(os.path.join(self.pid_dir, name), "w") as f:
            f.write("%d %s\n" % (pid, extra))

    def forget_pid(self, name):
        try:
            os.unlink(os.path.join(self.pid_dir, name))
        except FileNotFoundError:
            pass

    # -- volume ---------------------------------------------------------------------------
    def make_volume(self):
        from volumes import LoopVolume
        say("making a %d MiB ext4 loop volume" % self.args.size_mib)
        self.volume = LoopVolume("ext4", os.path.join(self.work, "volume"), self.args.size_mib, "bench")
        self.fill_volume()

    def fill_volume(self):
        """About half full: 45% of the volume in use (metadata and journal included), seven
        parts in eight of the data in large files, the rest in small ones of 1 to 64 KiB.
        The rest leaves room for the snapshot's COW files and the incremental history."""
        root = self.volume.mountpoint
        stat = os.statvfs(root)
        capacity = stat.f_blocks * stat.f_frsize
        data = self.size * 45 // 100 - (stat.f_blocks - stat.f_bfree) * stat.f_frsize
        large_size = max(4 * MIB, self.size // 16 // MIB * MIB)
        large_count = max(1, data * 7 // 8 // large_size)
        os.makedirs(os.path.join(root, "large"))
        for i in range(large_count):
            path = os.path.join(root, "large", "file%02d.bin" % i)
            with open(path, "wb") as f:
                left = large_size
                while left:
                    piece = min(left, 4 * MIB)
                    f.write(self.rng.randbytes(piece))
                    left -= piece
            self.large_files.append(path)
        small_total = data - large_count * large_size
        written = 0
        count = 0
        while written < small_total:
            directory = os.path.join(root, "small", "d%03d" % (count // 200))
            os.makedirs(directory, exist_ok=True)
            size = int(2 ** self.rng.uniform(10, 16))
            with open(os.path.join(directory, "f%05d.bin" % count), "wb") as f:
                f.write(self.rng.randbytes(size))
            written += size
            count += 1
        self.volume.sync()
        stat = os.statvfs(root)
        used = (stat.f_blocks - stat.f_bfree) * stat.f_frsize
        say("filled: %d large files of %d MiB, %d small files; %d MiB in use, %.0f%% of the volume" % (
            large_count, large_size // MIB, count, used // MIB, 100.0 * used / self.size))

    def change_volume(self, fraction):
        """Rewrites `fraction` of the volume's bytes in place, as extents of 64 KiB to 1 MiB at
        random places in the large files (each in its own 1 MiB slot); returns the bytes."""
        want = int(self.size * fraction) // BLOCK * BLOCK
        slots = [(path, k) for path in self.large_files for k in range(os.path.getsize(path) // MIB)]
        self.rng.shuffle(slots)
        done = 0
        handles = {}
        try:
            for path, k in slots:
                if done >= want:
                    break
                length = min(MIB, BLOCK * int(2 ** self.rng.uniform(4, 8)), want - done)
                offset = k * MIB + BLOCK * self.rng.randrange((MIB - length) // BLOCK + 1)
                if path not in handles:
                    handles[path] = os.open(path, os.O_WRONLY)
                os.pwrite(handles[path], self.rng.randbytes(length), offset)
                done += length
            for fd in handles.values():
                os.fsync(fd)
        finally:
            for fd in handles.values():
                os.close(fd)
        self.volume.sync()
        return done

    # -- driver simulator and agent ------------------------------------------------------------
    def start_agent(self):
        import pki
        from volumes import SimDir, zbdctl_path
        if self.sim is None:
            self.sim = SimDir(os.path.join(self.work, "zelkosim"))
        if self.agent is None:
            agent_class = make_agent_class()
            self.agent = agent_class(os.path.join(self.work, "agent"))
            self.authority = pki.Authority()
            self.agent.install_identity(self.authority)
            self.agent.env.update(self.sim.env(ORVD_ZBDCTL=zbdctl_path()))
            # The driver simulator runs inside orvd (a real driver lives in the kernel) and
            # frees 16 MiB capture buffers that malloc would keep in orvd's heap, where they
            # would count as the agent's memory. A fixed mmap threshold returns them; the
            # agent maps its own large buffers itself and is not affected.
            self.agent.env["MALLOC_MMAP_THRESHOLD_"] = str(1 << 20)
            self.agent.serve()
            directory = os.path.join(self.work, "client")
            os.makedirs(directory, exist_ok=True)
            self.client = self.agent.client(pki.write_client_files(directory, self.authority, DEVICE_ID), timeout=120)
            response = self.client.pair(DEVICE_ID)
            if response.status != 201:
                raise BenchError("pairing failed: %d %s" % (response.status, response.text))
        else:
            self.agent.start()
            self.agent.wait_listening(self.agent.port)
        self.note_pid("orvd", self.agent.process.pid)
        self.agent.clock.take()

    def stop_agent(self):
        if self.agent is None or self.agent.process is None:
            return
        try:
            self.agent.stop(timeout=120)
        except Exception:  # noqa: BLE001 - it is killed then
            self.agent.kill()
        self.forget_pid("orvd")

    def agent_pid(self):
        return self.agent.process.pid

    # -- target --------------------------------------------------------------------------
    def start_target(self, tuned):
        from tgt import Tgtd
        name = "tuned" if tuned else "stock"
        self.tgtd = Tgtd(os.path.join(self.work, "tgtd-" + name), tuned=tuned).start()
        self.note_pid("tgtd", self.tgtd.process.pid, str(self.tgtd.control_port))
        self.tgtd.add_target(1, IQN)
        self.lun_path = self.tgtd.add_lun(1, 1, self.size)

    def stop_target(self):
        if self.tgtd is None:
            return
        self.tgtd.close()
        if self.lun_path and os.path.exists(self.lun_path):
            os.unlink(self.lun_path)
        self.forget_pid("tgtd")
        self.tgtd = None

    def volume_request(self):
        return {"guid": self.volume.uuid, "offset": 0, "qualifiedName": IQN, "target": self.tgtd.portal, "lun": 1}

    def set_used_blocks(self, on):
        """Turns the used-block copy on or off with orvd's own config commands. They give up
        at once when the database is busy, so each is checked and repeated until it took."""
        for _ in range(50):
            if on:
                self.agent.run("delete_config", "disable_usedblock")
            else:
                self.agent.run("set_config", "disable_usedblock", "Y")
            if (self.agent.config("disable_usedblock") is None) == on:
                return
            time.sleep(0.1)
        raise BenchError("orvd could not %s disable_usedblock" % ("delete" if on else "set"))

    # -- the baseline tool --------------------------------------------------------------------
    def baseline(self, mode, source=None, runs=None):
        command = [self.baseline_tool, mode, "--bytes", str(self.size)]
        if mode != "direct-read":
            command += ["--portal", self.tgtd.portal, "--iqn", IQN, "--lun", "1"]
        if source:
            command += ["--source", source]
        if runs:
            command += ["--runs", runs]
        result = subprocess.run(command, capture_output=True, text=True, timeout=1800)
        if result.returncode != 0:
            raise BenchError("orv_iscsi_baseline %s failed: %s" % (mode, result.stderr.strip()))
        return json.loads(result.stdout.strip().splitlines()[-1])

    def snapshot_image(self):
        """The simulator's image of the volume as the last snapshot captured it: the file
        its snapshot device reads, kept between backups as the tracker's baseline."""
        images = os.path.join(self.sim.path, "images")
        for name in sorted(os.listdir(images)):
            if name.endswith(".baseline"):
                return os.path.join(images, name)
        raise BenchError("the simulator keeps no image of the volume in " + images)

    # -- one backup -----------------------------------------------------------------------------
    def backup(self, kind, flags, expect_type, timeout=1800):
        self.agent.clock.take()
        self.agent.clock.copy_peak = None
        start = time.monotonic()
        response = self.client.request("POST", "/backup", body=dict(volumes=[self.volume_request()], **flags))
        if response.status != 201:
            raise BenchError("POST /backup answered %d: %s" % (response.status, response.text))
        poller = Poller(self.client, response.text, timeout)
        poller.start()
        poller.join()
        time.sleep(0.05)  # the last lines of the job
        peak = self.agent.clock.copy_peak
        lines = self.agent.clock.take()
        if poller.error:
            raise BenchError(poller.error)
        if peak is None:
            raise BenchError("%s: orvd's peak RSS over the copy could not be read" % kind)
        document = poller.final
        detail = (document.get("details") or [{}])[0]
        if document["status"] != "finished" or detail.get("type") != expect_type:
            raise BenchError("%s: expected a finished %s copy, got %s" % (kind, expect_type, json.dumps(document)))
        run = {"e2e_seconds": poller.final_time - start, "rss_bytes": peak,
               "bytes": detail["transfer"]["totalSize"], "bytes_transferred": detail["transfer"]["bytesTransferred"]}
        run.update(parse_phases(lines, start, poller.final_time))
        window = (run["copy_start"], run["copy_end"])
        run["latency_ms"] = [latency * 1000 for at, latency in poller.samples if window[0] <= at <= window[1]]
        run["latency_all_ms"] = [latency * 1000 for _, latency in poller.samples]
        return run

    def lun_chunk_digests(self):
        digests = []
        with open(self.lun_path, "rb", buffering=0) as f:
            for _ in range((self.size + CHUNK - 1) // CHUNK):
                digests.append(zlib.crc32(f.read(CHUNK)))
        return digests

    def lun_runs_digest(self, pieces):
        """One CRC-32 over the LUN's bytes of `pieces` (offset, length), in order."""
        digest = 0
        with open(self.lun_path, "rb", buffering=0) as f:
            for offset, length in pieces:
                f.seek(offset)
                digest = zlib.crc32(f.read(length), digest)
        return digest

    def alter_lun_chunks(self, fraction):
        """Changes one 4 KiB block in `fraction` of the image's chunks on the LUN's file."""
        chunks = (self.size + CHUNK - 1) // CHUNK
        picks = self.rng.sample(range(chunks), max(1, round(chunks * fraction)))
        with open(self.lun_path, "r+b", buffering=0) as f:
            for chunk in picks:
                span = min(CHUNK, self.size - chunk * CHUNK)
                f.seek(chunk * CHUNK + BLOCK * self.rng.randrange(span // BLOCK))
                f.write(self.rng.randbytes(BLOCK))
            os.fsync(f.fileno())
        return len(picks)

    # -- the logs table of a month of daily backups ---------------------------------------------
    def fill_logs(self, rows_per_day):
        """Appends to the agent's logs table what 30 daily full backups leave behind: one
        progress row per chunk and the rows of the appliance's status polls and of each
        job. The oldest backup began a minute before the retention's edge, so the prunes
        of the measured copies keep deleting its rows as the edge moves through it."""
        db = sqlite3.connect(self.agent.db_path, isolation_level=None)
        try:
            db.execute("BEGIN")
            now = int(time.time())
            chunk_rows = max(1, rows_per_day * 96 // 100)
            duration = max(60, chunk_rows // 58)  # a 1 TiB copy at about 700 MiB/s
            uuid = self.volume.uuid
            batch = []
            for day in range(30, 0, -1):
                backup_id = "%08x-5b6a-4c7d-9e8f-%012x" % (day, day)
                begin = now - day * 86400 - 60
                for i in range(rows_per_day):
                    at = begin + duration * i // rows_per_day
                    stamp = time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(at))
                    if i % 25 == 24:
                        batch.append((None, 2, "Backup status request. Backup %s" % backup_id, stamp))
                    else:
                        batch.append((backup_id, 1, "Set backup of volume %s 'BYTES TRANSFERRED' to %d bytes." % (
                            uuid, (i + 1) * CHUNK), stamp))
                    if len(batch) >= 100000:
                        db.executemany("INSERT INTO logs ( backup_id, level, message, datetm ) VALUES( ?, ?, ?, ? )",
                                       batch)
                        batch = []
            if batch:
                db.executemany("INSERT INTO logs ( backup_id, level, message, datetm ) VALUES( ?, ?, ?, ? )", batch)
            db.execute("COMMIT")
            return db.execute("SELECT COUNT(*) FROM logs").fetchone()[0]
        finally:
            db.close()

    def commit_cost(self, journal, count=40):
        """Milliseconds that one row of the logs table costs on the agent's file system when
        stored as the agent stores every event: a connection of its own, one INSERT, close.
        `journal` "wal" is how the running agent does it (write-ahead log, an idle
        connection holding its index, the log statements' commit unsynced); "rollback" is
        SQLite's rollback journal with synchronous commits, as a file without the agent's
        keeper gets. Taken on a scratch database beside the agent's, median of `count`."""
        path = os.path.join(self.work, "commit-cost.sqlite")
        db = sqlite3.connect(path, isolation_level=None)
        db.execute("CREATE TABLE logs (id INTEGER PRIMARY KEY AUTOINCREMENT NOT NULL, backup_id TEXT NULL, "
                   "level INTEGER NOT NULL, message TEXT NOT NULL, datetm TEXT NOT NULL DEFAULT "
                   "( datetime( 'now', 'localtime' ) ) );")
        keeper = None
        if journal == "wal":
            db.execute("PRAGMA journal_mode=WAL;")
            keeper = db
            keeper.execute("SELECT COUNT(*) FROM sqlite_master;").fetchall()
        else:
            db.close()
        times = []
        try:
            for i in range(count):
                started = time.perf_counter()
                db = sqlite3.connect(path, isolation_level=None)
                if journal == "wal":
                    db.execute("PRAGMA synchronous=NORMAL;")
                db.execute("INSERT INTO logs ( backup_id, level, message, datetm ) VALUES( ?, ?, ?, "
                           "datetime( CURRENT_TIMESTAMP, 'localtime' ) );",
                           ("bench", 1, "Set backup of volume bench 'BYTES TRANSFERRED' to %d bytes." % i))
                db.close()
                times.append((time.perf_counter() - started) * 1000)
        finally:
            if keeper is not None:
                keeper.close()
            for suffix in ("", "-journal", "-wal", "-shm"):
                if os.path.exists(path + suffix):
                    os.unlink(path + suffix)
        return median(times)

    def logs_older_than(self, cutoff):
        db = sqlite3.connect(self.agent.db_path, timeout=60)
        try:
            return db.execute("SELECT COUNT(*) FROM logs WHERE CAST( strftime( '%s', datetm ) AS INTEGER ) < ?",
                              (cutoff,)).fetchone()[0]
        finally:
            db.close()

    def keep_agent_log(self, out):
        """After a failure: the agent's output goes to OUT/orvd.log, its errors to the screen."""
        if self.agent is None or not os.path.exists(self.agent.output_path):
            return
        os.makedirs(out, exist_ok=True)
        kept = os.path.join(out, "orvd.log")
        with open(self.agent.output_path, "rb") as source, open(kept, "wb") as target:
            target.write(source.read())
        errors = [line for line in self.agent.output().splitlines() if line.startswith(("[ERROR]", "[CRITICAL]"))]
        for line in errors[-15:]:
            say("orvd: " + line)
        say("the agent's output is in " + kept)

    # -- teardown ---------------------------------------------------------------------------------
    def close(self):
        problems = []
        for step in (self.stop_agent, self.stop_target):
            try:
                step()
            except Exception as e:  # noqa: BLE001 - every step runs
                problems.append(str(e))
        if self.volume is not None:
            try:
                self.volume.teardown()
            except Exception as e:  # noqa: BLE001
                problems.append(str(e))
        if problems:
            say("cleanup problems: " + "; ".join(problems))


def parse_phases(lines, start, end):
    """Phase boundaries from the agent's lines: request to copy start (snapshot), the copy
    itself, and copy end to the finished status (checksum, tracking, history)."""
    copy_start = copy_end = None
    pops, progress, done, pieces = [], [], [], []
    for at, text in lines:
        if copy_start is None:
            if COPY_START.match(text):
                copy_start = at
            continue
        if text == COPY_END:
            copy_end = at
            break
        popped = WRITER_POP.match(text)
        if popped:
            pops.append(at)
            pieces.append((int(popped.group(1)), int(popped.group(2))))
        elif PROGRESS.match(text):
            progress.append(at)
        elif text.startswith(WRITER_DONE):
            done.append(at)
    if copy_start is None or copy_end is None:
        raise BenchError("the agent's log lines do not show the copy's start and end")
    result = {"copy_start": copy_start, "copy_end": copy_end, "copy_seconds": copy_end - copy_start,
              "prepare_seconds": copy_start - start, "finish_seconds": end - copy_end, "chunks": len(progress),
              "pieces": pieces}
    # Per chunk on the writer thread: pop -> progress line (the write and the log row) ->
    # "Wrote data chunk" (the prune that follows every stored event).
    if pops and len(pops) == len(progress) == len(done):
        result["write_and_row_ms"] = median([(p - q) * 1000 for q, p in zip(pops, progress)])
        result["prune_ms"] = median([(d - p) * 1000 for p, d in zip(progress, done)])
    return result


# ---------------------------------------------------------------------------------------
# The run

class Bench:
    def __init__(self, args):
        self.args = args
        self.rig = Rig(args)
        self.runs = {}  # (target, kind) -> list of per-repetition dicts
        self.notes = {}

    def record(self, target, kind, run):
        self.runs.setdefault((target, kind), []).append(run)

    def phase(self, target):
        rig = self.rig
        tuned = target == "tuned"
        say("%s target: starting tgtd%s" % (target, " with raised session parameters and malloc thresholds" if tuned
                                            else ""))
        rig.start_target(tuned)
        # The LUN's file is written once before anything is timed: every later write is an
        # overwrite, as on an appliance's store, instead of an allocation.
        say("%s: writing the LUN once (untimed)" % target)
        rig.baseline("write")
        rig.set_used_blocks(False)
        say("%s: first full copy onto the new LUN (untimed)" % target)
        rig.backup("warm-up", {"forceCopyFull": True}, "full")
        for rep in range(1, self.args.reps + 1):
            tag = "[%s %d/%d]" % (target, rep, self.args.reps)
            cost = rig.commit_cost("wal")
            rollback = rig.commit_cost("rollback")
            self.record(target, "row_commit", {"ms": cost, "rollback_ms": rollback})
            say("%s one log row: %.2f ms as the agent stores it, %.1f ms in the rollback journal" % (
                tag, cost, rollback))
            image = rig.snapshot_image()
            for kind, mode, source in (("baseline_write", "write", None), ("snapshot_direct_read", "direct-read", image),
                                       ("baseline_copy", "copy", image)):
                result = rig.baseline(mode, source)
                self.record(target, kind, {"seconds": result["seconds"], "mib_s": result["mib_s"],
                                           "bytes": result["bytes"]})
                say("%s %s: %.0f MiB/s" % (tag, kind, result["mib_s"]))
            read_measured = False  # the baseline read goes before the first diff-merge measured
            for kind, label, flags, expect, _ in self.args.kinds:
                rig.set_used_blocks(kind != "full_all")
                extra = {}
                if kind.startswith("incremental_"):
                    extra["changed_bytes"] = rig.change_volume(int(kind.split("_")[1]) / 100.0)
                if kind.startswith("diff_") and not read_measured:
                    read_measured = True
                    result = rig.baseline("read")
                    self.record(target, "baseline_read", {"seconds": result["seconds"], "mib_s": result["mib_s"],
                                                          "bytes": result["bytes"]})
                    say("%s baseline_read: %.0f MiB/s" % (tag, result["mib_s"]))
                if kind == "diff_10":
                    extra["altered_chunks"] = rig.alter_lun_chunks(0.10)
                before = rig.lun_chunk_digests() if kind.startswith("diff_") and rep == 1 else None
                run = rig.backup(kind, flags, expect)
                run.update(extra)
                pieces = run.pop("pieces")
                if kind in RUNS_BASELINED:
                    # What the target and the disk need for the same runs without the agent.
                    # The snapshot's image holds what the copy just wrote, so the LUN stays
                    # as the copy left it for the copies after (checked: they depend on it).
                    # The image starts at the LUN's first byte, so a run's offset on the LUN
                    # is its offset in the image too.
                    listed = os.path.join(rig.work, "runs-%s.txt" % kind)
                    with open(listed, "w") as f:
                        f.writelines("%d %d\n" % piece for piece in pieces)
                    as_copied = rig.lun_runs_digest(pieces)
                    result = rig.baseline("copy", rig.snapshot_image(), listed)
                    if rig.lun_runs_digest(pieces) != as_copied:
                        raise BenchError("%s: the baseline's copy of its runs changed the LUN" % kind)
                    run["runs"] = len(pieces)
                    run["runs_baseline_seconds"] = result["seconds"]
                if before is not None:
                    after = rig.lun_chunk_digests()
                    run["rewritten_chunks"] = sum(1 for a, b in zip(before, after) if a != b)
                run["mib_s"] = run["bytes"] / MIB / run["copy_seconds"] if run["copy_seconds"] > 0 else None
                self.record(target, kind, run)
                say("%s %s: copy %.2f s (%.0f MiB/s of %d MiB), end to end %.2f s, peak RSS %.1f MiB" % (
                    tag, kind, run["copy_seconds"], run["mib_s"] or 0, run["bytes"] // MIB, run["e2e_seconds"],
                    run["rss_bytes"] / MIB))
                if "runs" in run:
                    say("%s %s: the baseline's two-slot copy of the same %d runs took %.2f s" % (
                        tag, kind, run["runs"], run["runs_baseline_seconds"]))
        return target

    def big_logs(self, target):
        rig = self.rig
        rows_per_day = self.args.log_rows // 30
        say("%s: stopping the agent to give its logs table %d rows (30 days of daily 1 TiB backups)" % (
            target, rows_per_day * 30))
        rig.stop_agent()
        total = rig.fill_logs(rows_per_day)
        say("%s: logs table now holds %d rows (%d MiB database); restarting the agent" % (
            target, total, os.path.getsize(rig.agent.db_path) // MIB))
        rig.start_agent()
        rig.set_used_blocks(False)
        self.notes["log_rows"] = total
        for rep in range(1, self.args.reps + 1):
            tag = "[%s big logs %d/%d]" % (target, rep, self.args.reps)
            result = rig.baseline("copy", rig.snapshot_image())
            self.record(target, "baseline_copy_big_logs", {"seconds": result["seconds"], "mib_s": result["mib_s"],
                                                          "bytes": result["bytes"]})
            run = rig.backup(BIG_LOGS[0], {"forceCopyFull": True}, "full")
            run["mib_s"] = run["bytes"] / MIB / run["copy_seconds"]
            self.record(target, BIG_LOGS[0], run)
            say("%s baseline copy %.0f MiB/s; full copy %.2f s (%.0f MiB/s), write and row %.2f ms, prune %.2f ms "
                "per chunk" % (tag, result["mib_s"], run["copy_seconds"], run["mib_s"],
                               run.get("write_and_row_ms") or 0, run.get("prune_ms") or 0))
        rig.stop_agent()
        # Whatever the last prune could see as old must be gone: a minute of slack for the
        # time since the agent's last event.
        cutoff = int(time.time()) - 30 * 86400 - 60
        self.notes["old_rows_left"] = rig.logs_older_than(cutoff)
        self.notes["log_rows_after"] = sqlite3.connect(rig.agent.db_path).execute(
            "SELECT COUNT(*) FROM logs").fetchone()[0]
        if self.notes["old_rows_left"]:
            raise BenchError("%d log rows older than the retention survived the prunes" % self.notes["old_rows_left"])

    def run(self):
        rig = self.rig
        rig.make_volume()
        rig.start_agent()
        targets = self.args.targets
        for target in targets:
            self.phase(target)
            if target == targets[-1] and self.args.log_rows > 0:
                self.big_logs(target)
            rig.stop_target()
        return self.report()

    # -- results -------------------------------------------------------------------------------
    def report(self):
        rows = []
        checks = []
        for target in self.args.targets:
            def runs(kind):
                return self.runs.get((target, kind), [])

            def per_rep_ratio(kind, other, field_a, field_b, invert=False):
                values = []
                for a, b in zip(runs(kind), runs(other)):
                    if a.get(field_a) and b.get(field_b):
                        values.append(b[field_b] / a[field_a] if invert else a[field_a] / b[field_b])
                return median(values)

            for kind, label in BASELINES:
                samples = runs(kind)
                rows.append({"target": target, "kind": kind, "label": label,
                             "mib_s": median([s["mib_s"] for s in samples]),
                             "seconds": median([s["seconds"] for s in samples]),
                             "ratio": None, "ratio_to": None, "samples": samples})
            kinds = [(k, label, against) for k, label, _, _, against in self.args.kinds]
            if runs(BIG_LOGS[0]):
                kinds.append((BIG_LOGS[0], BIG_LOGS[1], "baseline_copy_big_logs"))
            for kind, label, against in kinds:
                samples = runs(kind)
                if against.startswith("baseline"):
                    ratio = per_rep_ratio(kind, against, "mib_s", "mib_s")
                else:
                    # Time against the all-blocks copy's time.
                    ratio = per_rep_ratio(kind, against, "copy_seconds", "copy_seconds")
                latencies = [ms for s in samples for ms in s["latency_ms"]]
                row = {"target": target, "kind": kind, "label": label,
                       "mib_s": median([s["mib_s"] for s in samples]),
                       "seconds": median([s["copy_seconds"] for s in samples]),
                       "e2e_seconds": median([s["e2e_seconds"] for s in samples]),
                       "prepare_seconds": median([s["prepare_seconds"] for s in samples]),
                       "finish_seconds": median([s["finish_seconds"] for s in samples]),
                       "bytes": median([s["bytes"] for s in samples]),
                       "ratio": ratio, "ratio_to": against,
                       "rss_mib": max(s["rss_bytes"] for s in samples) / MIB,
                       "latency_p50_ms": percentile(latencies, 0.5), "latency_p99_ms": percentile(latencies, 0.99),
                       "latency_samples": len(latencies),
                       "write_and_row_ms": median([s.get("write_and_row_ms") for s in samples]),
                       "prune_ms": median([s.get("prune_ms") for s in samples]),
                       "chunks": median([s.get("chunks") for s in samples]),
                       "samples": [{k: v for k, v in s.items() if not k.startswith("latency_")} for s in samples]}
                if any("runs_baseline_seconds" in s for s in samples):
                    row["runs"] = median([s.get("runs") for s in samples])
                    row["runs_baseline_seconds"] = median([s.get("runs_baseline_seconds") for s in samples])
                    row["ratio_to_runs_baseline"] = median([s["copy_seconds"] / s["runs_baseline_seconds"]
                                                            for s in samples if s.get("runs_baseline_seconds")])
                for extra in ("changed_bytes", "altered_chunks", "rewritten_chunks"):
                    values = [s[extra] for s in samples if extra in s]
                    if values:
                        row[extra] = median(values)
                rows.append(row)
            self.notes.setdefault("row_commit_ms", {})[target] = median([s["ms"] for s in runs("row_commit")])
            self.notes.setdefault("row_commit_rollback_ms", {})[target] = median(
                [s["rollback_ms"] for s in runs("row_commit")])
            checks += self.checks(target, runs, per_rep_ratio)
        result = {"run": self.describe(), "rows": rows, "targets": checks, "notes": self.notes}
        return result

    def checks(self, target, runs, per_rep_ratio):
        checks = []

        def check(name, value, limit, at_least):
            if value is None and len(self.args.kinds) < len(KINDS):
                return  # a goal whose copies --kinds left out
            ok = value is not None and (value >= limit if at_least else value <= limit)
            checks.append({"target": target, "name": name, "value": value, "limit": limit,
                           "at_least": at_least, "ok": ok})

        check("full copy, all blocks: rate / baseline two-slot copy rate",
              per_rep_ratio("full_all", "baseline_copy", "mib_s", "mib_s"), 0.95, True)
        check("full copy, used blocks: time / all-blocks time",
              per_rep_ratio("full_used", "full_all", "copy_seconds", "copy_seconds"), 0.55, False)
        check("incremental, 1% changed: time / all-blocks time",
              per_rep_ratio("incremental_1", "full_all", "copy_seconds", "copy_seconds"), 0.05, False)
        check("incremental, 10% changed: time / all-blocks time",
              per_rep_ratio("incremental_10", "full_all", "copy_seconds", "copy_seconds"), 0.15, False)
        check("diff-merge, identical image: rate / baseline read rate",
              per_rep_ratio("diff_identical", "baseline_read", "mib_s", "mib_s"), 0.90, True)
        # 10% different: within 10% of reading the image at the baseline's rate plus writing
        # the rewritten chunks at the baseline's write rate.
        values = []
        for run, read, write in zip(runs("diff_10"), runs("baseline_read"), runs("baseline_write")):
            rewritten = run.get("rewritten_chunks", run.get("altered_chunks", 0))
            expected = run["bytes"] / MIB / read["mib_s"] + rewritten * CHUNK / MIB / write["mib_s"]
            values.append(run["copy_seconds"] / expected)
        check("diff-merge, 10% of chunks differ: time / (baseline read + writes)", median(values), 1.10, False)
        all_runs = [s for kind, *_ in self.args.kinds for s in runs(kind)] + runs(BIG_LOGS[0])
        check("peak RSS of orvd during any copy (MiB)", max(s["rss_bytes"] for s in all_runs) / MIB, 80, False)
        latencies = [ms for s in all_runs for ms in s["latency_ms"]]
        check("p99 latency of GET /backup/<id> during copies (ms)", percentile(latencies, 0.99), 50, False)
        if runs(BIG_LOGS[0]):
            check("full copy, all blocks, 30 days of logs: rate / baseline two-slot copy rate",
                  per_rep_ratio(BIG_LOGS[0], "baseline_copy_big_logs", "mib_s", "mib_s"), 0.95, True)
        return checks

    def describe(self):
        return {
            "date": datetime.datetime.now().astimezone().isoformat(timespec="seconds"),
            "host": os.uname().nodename, "kernel": os.uname().release, "cpus": os.cpu_count(),
            "volume_mib": self.args.size_mib, "reps": self.args.reps, "targets": self.args.targets,
            "chunk_bytes": CHUNK, "log_rows": self.notes.get("log_rows", 0),
            "orvd": os.path.join(self.args.build, "orvd"),
        }


# ---------------------------------------------------------------------------------------
# Output

def fmt(value, digits=0, suffix=""):
    if value is None:
        return "-"
    return ("%." + str(digits) + "f%s") % (value, suffix)


def table(result):
    lines = ["| target | copy | MiB/s | ratio | against | copy s | end to end s | chunks | prune ms/chunk | "
             "peak RSS MiB | GET p50 ms | GET p99 ms |",
             "|---|---|---:|---:|---|---:|---:|---:|---:|---:|---:|---:|"]
    for row in result["rows"]:
        lines.append("| %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s |" % (
            row["target"], row["label"], fmt(row["mib_s"]), fmt(row["ratio"], 3), row["ratio_to"] or "",
            fmt(row["seconds"], 2), fmt(row.get("e2e_seconds"), 2), fmt(row.get("chunks")),
            fmt(row.get("prune_ms"), 2), fmt(row.get("rss_mib"), 1), fmt(row.get("latency_p50_ms"), 1),
            fmt(row.get("latency_p99_ms"), 1)))
    rollback = result["notes"].get("row_commit_rollback_ms", {})
    lines += [""] + ["One log row (own connection, INSERT, close) on the %s run: %s ms as the agent stores it "
                     "(write-ahead log), %s ms in the rollback journal with synchronous commits" % (
                         target, fmt(ms, 2), fmt(rollback.get(target), 1))
                     for target, ms in result["notes"].get("row_commit_ms", {}).items()]
    lines += ["%s, %s target: %s runs; the baseline's two-slot copy of the same runs took %s s, the agent %s s "
              "(ratio %s)" % (row["label"].capitalize(), row["target"], fmt(row["runs"]),
                              fmt(row["runs_baseline_seconds"], 2), fmt(row["seconds"], 2),
                              fmt(row["ratio_to_runs_baseline"], 2))
              for row in result["rows"] if "runs_baseline_seconds" in row]
    lines += ["", "| target | goal | measured | limit | met |", "|---|---|---:|---:|---|"]
    for check in result["targets"]:
        lines.append("| %s | %s | %s | %s %s | %s |" % (
            check["target"], check["name"], fmt(check["value"], 3), ">=" if check["at_least"] else "<=",
            check["limit"], "yes" if check["ok"] else "NO"))
    return "\n".join(lines) + "\n"


def chart(result, path):
    """Throughput per copy kind next to the baseline it is held against, one panel per target."""
    pairs = [("full_all", "baseline_copy", "full, all"), ("full_used", "baseline_copy", "full, used"),
             ("incremental_1", "baseline_write", "incr. 1%"), ("incremental_10", "baseline_write", "incr. 10%"),
             ("diff_identical", "baseline_read", "diff, same"), ("diff_10", "baseline_read", "diff, 10%"),
             (BIG_LOGS[0], "baseline_copy_big_logs", "full, big logs")]
    rows = {(r["target"], r["kind"]): r for r in result["rows"]}
    targets = result["run"]["targets"]
    data = path + ".dat"
    with open(data, "w") as f:
        for target in targets:
            f.write("# %s\n" % target)
            for kind, against, label in pairs:
                agent = rows.get((target, kind))
                if agent is None:
                    continue
                if against == "baseline_copy_big_logs":
                    base = median([s["mib_s"] for s in result["samples_big_logs"].get(target, [])])
                else:
                    base = rows[(target, against)]["mib_s"]
                f.write('"%s" %s %s\n' % (label, fmt(agent["mib_s"], 1), fmt(base, 1)))
            f.write("\n\n")
    script = path + ".gp"
    with open(script, "w") as f:
        f.write('set terminal pngcairo size %d,520 font "DejaVu Sans,10"\n' % (520 * len(targets)))
        f.write('set output "%s"\n' % path)
        f.write("set multiplot layout 1,%d title \"orvd copies against the plain baseline (MiB/s, median of %d)\"\n" % (
            len(targets), result["run"]["reps"]))
        f.write("set style data histograms\nset style histogram clustered gap 1\nset style fill solid 0.8 border -1\n")
        f.write("set boxwidth 0.9\nset xtics rotate by -35 nomirror\nset ytics nomirror\nset grid ytics\n")
        f.write("set key top right\nset ylabel \"MiB/s\"\nset yrange [0:*]\n")
        for index, target in enumerate(targets):
            f.write('set title "%s tgtd"\n' % target)
            f.write('plot "%s" index %d using 2:xtic(1) title "orvd" lc rgb "#3465a4", '
                    '"" index %d using 3 title "baseline" lc rgb "#babdb6"\n' % (data, index, index))
        f.write("unset multiplot\n")
    result = subprocess.run(["gnuplot", script], capture_output=True, text=True)
    if result.returncode != 0:
        raise BenchError("gnuplot failed: " + result.stderr)
    os.unlink(data)
    os.unlink(script)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--work", required=True, help="an empty directory for the rig (removed by scripts/bench)")
    parser.add_argument("--build", required=True, help="the build directory holding orvd, zbdctl and the tool")
    parser.add_argument("--out", required=True, help="where results.json, results.md and throughput.png go")
    parser.add_argument("--size-mib", type=int, default=2048, help="the volume's size (default %(default)s)")
    parser.add_argument("--reps", type=int, default=3, help="repetitions of every measurement (default %(default)s)")
    parser.add_argument("--targets", default="stock,tuned", help="tgtd set-ups, in order (default %(default)s)")
    parser.add_argument("--log-rows", type=int, default=None,
                        help="rows for the logs table of the last target's big-logs copies (default: 30 days of "
                             "daily full backups of a 1 TiB volume; 0 skips them)")
    parser.add_argument("--kinds", default=",".join(k[0] for k in KINDS),
                        help="copies to measure, comma-separated, in the run's order (default all: %(default)s)")
    args = parser.parse_args()
    # A name picks that copy; a group (full, incremental, diff or diffmerge) all of its copies.
    def picks(name, kind):
        group = "diff" if name == "diffmerge" else name
        return kind == name or kind.startswith(group + "_")
    names = [k for k in args.kinds.split(",") if k]
    unknown = [k for k in names if not any(picks(k, kind[0]) for kind in KINDS)]
    if unknown or not names:
        parser.error("--kinds takes some of %s, or the groups full, incremental, diffmerge" %
                     ",".join(k[0] for k in KINDS))
    args.kinds = [kind for kind in KINDS if any(picks(k, kind[0]) for k in names)]
    args.targets = [t for t in args.targets.split(",") if t]
    if any(t not in ("stock", "tuned") for t in args.targets) or not args.targets:
        parser.error("--targets takes stock and/or tuned")
    if args.log_rows is None:
        # Per daily full backup: a progress row per 12 MiB chunk of 1 TiB and one in 25
        # more for the appliance's status polls.
        args.log_rows = 30 * ((1 << 40) // CHUNK * 25 // 24)
    os.environ["ORVD_BIN"] = os.path.join(args.build, "orvd")
    os.environ["ORV_BUILD_DIR"] = args.build
    os.environ["ZBDCTL"] = os.path.join(args.build, "zelkosim", "zbdctl")
    os.environ.setdefault("ASAN_OPTIONS", "detect_leaks=0")

    def stop(signum, frame):
        # One request to stop is enough: the cleanup that follows must not be cut short.
        for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT):
            signal.signal(number, signal.SIG_IGN)
        raise KeyboardInterrupt("signal %d" % signum)

    for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT):
        signal.signal(number, stop)
    bench = Bench(args)
    started = time.monotonic()
    try:
        result = bench.run()
    except KeyboardInterrupt:
        say("interrupted; cleaning up")
        bench.rig.close()
        return 130
    except BenchError as e:
        say("failed: %s" % e)
        bench.rig.keep_agent_log(args.out)
        bench.rig.close()
        return 1
    except BaseException:
        bench.rig.close()
        raise
    bench.rig.close()
    result["samples_big_logs"] = {t: bench.runs.get((t, "baseline_copy_big_logs"), []) for t in args.targets}
    result["run"]["seconds"] = round(time.monotonic() - started, 1)
    os.makedirs(args.out, exist_ok=True)
    with open(os.path.join(args.out, "results.json"), "w") as f:
        json.dump(result, f, indent=1, sort_keys=True)
    text = table(result)
    with open(os.path.join(args.out, "results.md"), "w") as f:
        f.write(text)
    chart(result, os.path.join(args.out, "throughput.png"))
    print()
    print(text)
    say("results in %s (results.json, results.md, throughput.png); %.0f s" % (args.out, result["run"]["seconds"]))
    return 0


if __name__ == "__main__":
    sys.exit(main())
