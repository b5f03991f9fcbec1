"""Load: many appliance clients poll the backup status over mutual TLS, each with a new
connection per request, while full backups run back to back. No request may fail, the
agent's resident memory must stay flat, and the copies' slowdown against the same copies
without pollers is measured.

Opt-in (minutes of full load): ORV_LOAD=1. scripts/load runs it on a release build.
    ORV_LOAD_CLIENTS   concurrent clients (default 200)
    ORV_LOAD_SECONDS   how long they poll (default 120)
    ORV_LOAD_INTERVAL  each client's pause between requests in seconds (default 1.0)
    ORV_LOAD_MIB       the volume copied by every backup (default 512)
"""
import multiprocessing
import os
import statistics
import threading
import time

import pytest

from agent import ConnectionFailure

ENABLED = os.environ.get("ORV_LOAD") == "1"
CLIENTS = int(os.environ.get("ORV_LOAD_CLIENTS", "200"))
SECONDS = float(os.environ.get("ORV_LOAD_SECONDS", "120"))
INTERVAL = float(os.environ.get("ORV_LOAD_INTERVAL", "1.0"))
VOLUME_MIB = int(os.environ.get("ORV_LOAD_MIB", "512"))
THREADS_PER_PROCESS = 25
STATES = ("active", "finished", "failed")

pytestmark = pytest.mark.skipif(not ENABLED, reason="minutes of full load; set ORV_LOAD=1 or run scripts/load")


def _poller_process(port, files, ca, current, stop, threads, interval, results):
    """`threads` clients in one process; puts (answers, failures, latencies) on results."""
    from agent import ApplianceClient, ConnectionFailure

    answers = [0]
    failures = []
    latencies = []
    lock = threading.Lock()

    def client_loop(number):
        client = ApplianceClient("127.0.0.1", port, cert=files[0], key=files[1], ca=ca, timeout=120)
        # Spread the clients' first requests over one interval.
        time.sleep(interval * number / threads)
        turn = number
        while not stop.is_set():
            backup_id = current.value.decode()
            path = "/backup" if turn % 4 == 0 else "/backup/" + backup_id
            turn += 1
            started = time.monotonic()
            problem = None
            try:
                response = client.request("GET", path)
                if response.status != 200:
                    problem = "%s: %d %r" % (path, response.status, response.body[:200])
                elif path != "/backup" and response.json().get("status") not in STATES:
                    problem = "%s: %r" % (path, response.body[:200])
            except (ConnectionFailure, ValueError) as e:
                problem = "%s: %s" % (path, e)
            elapsed = time.monotonic() - started
            with lock:
                latencies.append((started + elapsed, elapsed))
                if problem:
                    failures.append(problem)
                else:
                    answers[0] += 1
            stop.wait(interval)

    workers = [threading.Thread(target=client_loop, args=(n,)) for n in range(threads)]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join()
    results.put((answers[0], failures[:20], len(failures), latencies))


def rss_kib(pid):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0


class RssSampler:
    def __init__(self, pid):
        self.pid = pid
        self.samples = []
        self.stopping = threading.Event()
        self.thread = threading.Thread(target=self._run)

    def _run(self):
        while not self.stopping.wait(1.0):
            self.samples.append(rss_kib(self.pid))

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *exc):
        self.stopping.set()
        self.thread.join()


def timed_backup(rig, volume, current=None):
    started = time.monotonic()
    backup_id = rig.start([volume], forceCopyFull=True)
    if current is not None:
        current.value = backup_id.encode()
    status = rig.wait(backup_id, timeout=1800)
    assert status["status"] == "finished", status
    return time.monotonic() - started


def test_pollers_during_back_to_back_full_backups(rig, loop_volumes, client_files, authority):
    volume = loop_volumes("ext4", size_mib=VOLUME_MIB, seed=81)
    rig.add_target(volume)
    rig.agent.set_config("disable_usedblock", "Y")
    pid = rig.agent.process.pid
    files = client_files(authority, 42)

    # Without pollers: the copy's own time (the first backup also warms the caches).
    timed_backup(rig, volume)
    quiet = [timed_backup(rig, volume)]

    context = multiprocessing.get_context("spawn")
    current = context.Array("c", 64)
    stop = context.Event()
    results = context.Queue()
    ca = os.path.join(rig.agent.cert_dir, "ca.crt")
    processes = [context.Process(target=_poller_process,
                                 args=(rig.agent.port, files, ca, current, stop, THREADS_PER_PROCESS, INTERVAL,
                                       results))
                 for _ in range((CLIENTS + THREADS_PER_PROCESS - 1) // THREADS_PER_PROCESS)]
    # The appliance's own requests wait as long as the pollers' do.
    rig.client = rig.agent.client(files, timeout=120)
    loaded = []
    control_failures = []
    backup_id = rig.start([volume], forceCopyFull=True)
    current.value = backup_id.encode()
    assert rig.wait(backup_id, timeout=1800)["status"] == "finished"
    for process in processes:
        process.start()
    started = time.monotonic()
    with RssSampler(pid) as rss:
        try:
            while time.monotonic() - started < SECONDS:
                try:
                    loaded.append(timed_backup(rig, volume, current))
                except ConnectionFailure as e:
                    # The pollers go on for the whole time all the same.
                    control_failures.append(str(e))
                    stop.wait(max(0.0, SECONDS - (time.monotonic() - started)))
                    break
            threads_at_peak = len(os.listdir("/proc/%d/task" % pid))
        finally:
            stop.set()
            outcomes = [results.get(timeout=300) for _ in processes]
            for process in processes:
                process.join(60)
        polled = time.monotonic() - started

    answers = sum(o[0] for o in outcomes)
    failures = [f for o in outcomes for f in o[1]]
    failed = sum(o[2] for o in outcomes)
    timeline = sorted(l for o in outcomes for l in o[3])
    latencies = sorted(elapsed for _, elapsed in timeline) or [0.0]
    windows = [0] * (int(polled // 20) + 1)
    for ended, _ in timeline:
        windows[min(len(windows) - 1, max(0, int((ended - started) // 20)))] += 1
    samples = rss.samples
    fifth = max(1, len(samples) // 5)
    early, late = statistics.median(samples[:fifth]), statistics.median(samples[-fifth:])
    print("\n%d clients for %.0f s, one request each per %.1f s: %d answers (%.1f/s), %d failed; "
          "latency median %.3f s, p99 %.3f s, max %.3f s; %d agent threads at the peak" % (
              CLIENTS, polled, INTERVAL, answers, answers / polled, failed, latencies[len(latencies) // 2],
              latencies[int(len(latencies) * 0.99)], latencies[-1], threads_at_peak))
    print("answers per second in 20 s windows: %s" % " ".join("%.1f" % (n / 20) for n in windows))
    print("first failures: %s; the appliance's own requests: %s" % (failures[:3], control_failures or "all answered"))
    print("RSS of orvd (MiB) while polled: first fifth median %.1f, last fifth median %.1f, min %.1f, max %.1f "
          "(%d samples)" % (early / 1024, late / 1024, min(samples) / 1024, max(samples) / 1024, len(samples)))

    # The backup that was running when the pollers stopped ends first.
    rig.wait(current.value.decode(), timeout=1800)
    after = [timed_backup(rig, volume)]
    assert rig.verify_image(volume) == []
    slowdown = statistics.median(loaded) / statistics.median(quiet + after) if loaded else float("nan")
    print("full copy of %d MiB: quiet %s s, under load %s s (%d backups): slowdown x%.2f; RSS %.1f MiB after; "
          "%d rows in the log table" % (
              VOLUME_MIB, " ".join("%.1f" % t for t in quiet + after), " ".join("%.1f" % t for t in loaded),
              len(loaded), slowdown, rss_kib(pid) / 1024, rig.agent.query("SELECT COUNT(*) FROM logs")[0][0]))
    assert control_failures == []
    assert failed == 0, failures
    assert len(loaded) >= 1
    # Flat: no growth from the first fifth of the run to the last beyond allocator noise.
    assert late <= early * 1.10 + 16 * 1024, samples
