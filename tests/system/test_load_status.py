"""Load: appliance clients poll the backup status over mutual TLS, a new connection per
request, while full backups run back to back. No request may fail, the agent's resident
memory must stay flat, and the copies' slowdown against quiet ones is measured.

Opt-in (minutes of full load): ORV_LOAD=1; scripts/load runs it on a release build.
ORV_LOAD_CLIENTS (200), ORV_LOAD_SECONDS (120), ORV_LOAD_INTERVAL (1.0 s between a
client's requests), ORV_LOAD_MIB (512, the volume every backup copies).
"""
import multiprocessing
import os
import statistics
import threading
import time

import pytest

from agent import ConnectionFailure

CLIENTS = int(os.environ.get("ORV_LOAD_CLIENTS", "200"))
SECONDS = float(os.environ.get("ORV_LOAD_SECONDS", "120"))
INTERVAL = float(os.environ.get("ORV_LOAD_INTERVAL", "1.0"))
VOLUME_MIB = int(os.environ.get("ORV_LOAD_MIB", "512"))
THREADS_PER_PROCESS = 25

pytestmark = pytest.mark.skipif(os.environ.get("ORV_LOAD") != "1",
                                reason="minutes of full load; set ORV_LOAD=1 or run scripts/load")


def _poller_process(port, files, ca, current, stop, threads, interval, results):
    """`threads` clients in one process; puts (answers, first failures, failures, [(end, latency)]) on results."""
    from agent import ApplianceClient, ConnectionFailure

    answers, failures, latencies = [0], [], []
    lock = threading.Lock()

    def client_loop(number):
        client = ApplianceClient("127.0.0.1", port, cert=files[0], key=files[1], ca=ca, timeout=120)
        time.sleep(interval * number / threads)  # first requests spread over one interval
        turn = number
        while not stop.is_set():
            path = "/backup" if turn % 4 == 0 else "/backup/" + current.value.decode()
            turn += 1
            started, problem = time.monotonic(), None
            try:
                response = client.request("GET", path)
                if response.status != 200:
                    problem = "%s: %d %r" % (path, response.status, response.body[:200])
                elif path != "/backup" and response.json().get("status") not in ("active", "finished", "failed"):
                    problem = "%s: %r" % (path, response.body[:200])
            except (ConnectionFailure, ValueError) as e:
                problem = "%s: %s" % (path, e)
            ended = time.monotonic()
            with lock:
                latencies.append((ended, ended - started))
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
        return int(next(line for line in f if line.startswith("VmRSS:")).split()[1])


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
    timed_backup(rig, volume)  # warms the caches
    quiet = [timed_backup(rig, volume)]

    # Spawned, not forked: a fork taken while a thread holds a lock leaves the child stuck.
    context = multiprocessing.get_context("spawn")
    current, stop, results = context.Array("c", 64), context.Event(), context.Queue()
    ca = os.path.join(rig.agent.cert_dir, "ca.crt")
    processes = [context.Process(target=_poller_process, daemon=True, args=(
        rig.agent.port, files, ca, current, stop, THREADS_PER_PROCESS, INTERVAL, results))
        for _ in range((CLIENTS + THREADS_PER_PROCESS - 1) // THREADS_PER_PROCESS)]
    rig.client = rig.agent.client(files, timeout=120)  # the appliance waits as long as the pollers
    loaded, control_failures, samples = [], [], []
    timed_backup(rig, volume, current)
    sampling = threading.Event()

    def sample():
        while not sampling.wait(1.0):
            samples.append(rss_kib(pid))
    sampler = threading.Thread(target=sample)
    try:
        for process in processes:
            process.start()
        sampler.start()
        started = time.monotonic()
        while time.monotonic() - started < SECONDS:
            try:
                loaded.append(timed_backup(rig, volume, current))
            except ConnectionFailure as e:
                control_failures.append(str(e))  # the pollers go on all the same
                stop.wait(max(0.0, SECONDS - (time.monotonic() - started)))
                break
        threads_at_peak = len(os.listdir("/proc/%d/task" % pid))
        stop.set()
        outcomes = [results.get(timeout=300) for _ in processes]
        polled = time.monotonic() - started
        for process in processes:
            process.join(60)
    finally:
        stop.set()
        sampling.set()
        if sampler.is_alive():
            sampler.join()
        for process in processes:
            if process.is_alive():
                process.kill()

    answers = sum(o[0] for o in outcomes)
    failed = sum(o[2] for o in outcomes)
    failures = [f for o in outcomes for f in o[1]]
    timeline = sorted(entry for o in outcomes for entry in o[3])
    latencies = sorted(latency for _, latency in timeline) or [0.0]
    windows = [0] * (int(polled // 20) + 1)
    for ended, _ in timeline:
        windows[min(len(windows) - 1, max(0, int((ended - started) // 20)))] += 1
    fifth = max(1, len(samples) // 5)
    early, late = statistics.median(samples[:fifth]), statistics.median(samples[-fifth:])
    print("\n%d clients for %.0f s, one request each per %.1f s: %d answers (%.1f/s), %d failed; latency median "
          "%.3f s, p99 %.3f s, max %.3f s; %d agent threads at the peak" % (
              CLIENTS, polled, INTERVAL, answers, answers / polled, failed, latencies[len(latencies) // 2],
              latencies[int(len(latencies) * 0.99)], latencies[-1], threads_at_peak))
    print("answers per second in 20 s windows: %s" % " ".join("%.1f" % (n / 20) for n in windows))
    print("first failures: %s; the appliance's own requests: %s" % (failures[:3], control_failures or "all answered"))
    print("RSS of orvd (MiB) while polled: first fifth median %.1f, last fifth median %.1f, min %.1f, max %.1f "
          "(%d samples)" % (early / 1024, late / 1024, min(samples) / 1024, max(samples) / 1024, len(samples)))

    rig.wait(current.value.decode(), timeout=1800)  # the backup running when the pollers stopped
    after = [timed_backup(rig, volume)]
    assert rig.verify_image(volume) == []
    slowdown = statistics.median(loaded) / statistics.median(quiet + after) if loaded else float("nan")
    print("full copy of %d MiB: quiet %s s, under load %s s: slowdown x%.2f; RSS %.1f MiB after; %d log rows" % (
        VOLUME_MIB, " ".join("%.1f" % t for t in quiet + after), " ".join("%.1f" % t for t in loaded), slowdown,
        rss_kib(pid) / 1024, rig.agent.query("SELECT COUNT(*) FROM logs")[0][0]))
    assert control_failures == []
    assert failed == 0, failures
    assert len(loaded) >= 1
    # Flat: no growth from the first fifth of the run to the last beyond allocator noise.
    assert late <= early * 1.10 + 16 * 1024, samples
