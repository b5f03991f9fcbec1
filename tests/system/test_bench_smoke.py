"""scripts/bench in its tiny mode on the build under test: a run that reports every row,
a refusal when the machine lacks room, and an interrupted run that leaves nothing behind.
The full benchmark takes minutes and is not part of the test command."""
import json
import os
import signal
import subprocess
import time

SOURCE_DIR = os.environ.get("ORV_SOURCE_DIR", os.path.abspath(os.path.join(os.path.dirname(__file__), "..", "..")))
BENCH = os.path.join(SOURCE_DIR, "scripts", "bench")
TARGETS = ("stock", "tuned")
BASELINES = ("baseline_write", "baseline_read", "baseline_copy", "snapshot_direct_read")
COPIES = ("full_all", "full_used", "incremental_1", "incremental_10", "diff_identical", "diff_10")
MIB = 1024 * 1024


def start_bench(work, *args):
    env = dict(os.environ)
    env.setdefault("ORV_BUILD_DIR", os.path.join(SOURCE_DIR, "build"))
    return subprocess.Popen([BENCH, "--tiny", "--work-dir", str(work)] + list(args), env=env, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True, start_new_session=True)


def finish(bench, timeout):
    """The output of a bench run once it ended. A run still going after `timeout` is asked to
    stop (SIGTERM: scripts/bench then removes its rig itself) and killed only when it does
    not; the test fails either way, and leaves no rig running behind it."""
    try:
        return bench.communicate(timeout=timeout)[0]
    except subprocess.TimeoutExpired:
        os.kill(bench.pid, signal.SIGTERM)
        try:
            output = bench.communicate(timeout=300)[0]
        except subprocess.TimeoutExpired:
            os.killpg(bench.pid, signal.SIGKILL)
            output = bench.communicate()[0]
        raise AssertionError("scripts/bench did not end within %d s:\n%s" % (timeout, output))


def mounts_under(path):
    prefix = os.path.realpath(path) + "/"
    with open("/proc/self/mountinfo") as f:
        return [line.split()[4] for line in f if line.split()[4].startswith(prefix)]


def loops_under(path):
    prefix = os.path.realpath(path) + "/"
    found = []
    for name in os.listdir("/sys/block"):
        try:
            with open("/sys/block/%s/loop/backing_file" % name) as f:
                if f.read().strip().startswith(prefix):
                    found.append(name)
        except OSError:
            continue
    return found


def assert_nothing_left(work):
    assert mounts_under(work) == []
    assert loops_under(work) == []
    assert os.listdir(work) == []


def test_tiny_run_reports_every_row(tmp_path):
    work = tmp_path / "work"
    out = tmp_path / "out"
    work.mkdir()
    bench = start_bench(work, "--out", str(out))
    # Minutes on a sanitizer build of a busy machine.
    output = finish(bench, 1800)
    assert bench.returncode == 0, output
    result = json.loads((out / "results.json").read_text())
    rows = {(row["target"], row["kind"]): row for row in result["rows"]}
    expected = {(t, k) for t in TARGETS for k in BASELINES + COPIES} | {("tuned", "full_all_big_logs")}
    assert set(rows) == expected
    for key, row in rows.items():
        assert row["mib_s"] > 0 and row["seconds"] > 0, (key, row)
    for target in TARGETS:
        assert rows[(target, "full_all")]["bytes"] == 128 * MIB
        assert 0 < rows[(target, "full_used")]["bytes"] < 128 * MIB
        for kind in COPIES:
            row = rows[(target, kind)]
            assert row["ratio"] > 0 and row["e2e_seconds"] >= row["seconds"], (target, kind, row)
            assert row["rss_mib"] > 0, (target, kind, row)
            # A copy shorter than two of the 0.1 s between polls may have no poll inside it.
            p99 = row["latency_p99_ms"]
            assert (p99 is not None and p99 > 0) or (row["seconds"] < 0.2 and p99 is None), (target, kind, row)
        assert rows[(target, "diff_10")]["rewritten_chunks"] >= rows[(target, "diff_10")]["altered_chunks"]
    # Every goal is measured, met or not; the big table was pruned as the agent went.
    assert len(result["targets"]) == 2 * 8 + 1
    assert all(isinstance(check["value"], float) for check in result["targets"])
    assert result["notes"]["old_rows_left"] == 0
    assert (out / "throughput.png").read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"
    table = (out / "results.md").read_text()
    assert "| tuned | full copy, all blocks |" in table
    assert "| target | copy | MiB/s | ratio |" in output
    assert_nothing_left(work)


def test_refuses_to_start_without_room(tmp_path):
    # A volume of a petabyte needs more disk and memory than any machine here has.
    bench = start_bench(tmp_path, "--size-mib", str(1 << 30))
    output = finish(bench, 60)
    assert bench.returncode == 1, output
    assert "MiB free in %s, only" % tmp_path in output
    assert "MiB of available memory, only" in output
    assert "not started; nothing was created" in output
    assert os.listdir(tmp_path) == []


def test_interrupted_run_leaves_nothing_behind(tmp_path):
    work = tmp_path / "work"
    work.mkdir()
    bench = start_bench(work, "--out", str(tmp_path / "out"))
    pids = {}
    try:
        # Wait until the rig stands: the volume mounted, tgtd and the agent running.
        deadline = time.monotonic() + 300
        while time.monotonic() < deadline and bench.poll() is None:
            for run in os.listdir(work):
                pid_dir = work / run / "pids"
                for name in ("tgtd", "orvd"):
                    try:
                        pids[name] = int((pid_dir / name).read_text().split()[0])
                    except (OSError, ValueError, IndexError):
                        pass
            if len(pids) == 2 and mounts_under(work):
                break
            time.sleep(0.1)
        assert len(pids) == 2 and mounts_under(work), "the rig never stood up"
        os.kill(bench.pid, signal.SIGINT)
        output, _ = bench.communicate(timeout=300)
    finally:
        if bench.poll() is None:
            os.killpg(bench.pid, signal.SIGKILL)
            bench.wait()
    assert bench.returncode == 130, output
    assert "interrupted; cleaning up" in output
    for name, pid in pids.items():
        assert not os.path.exists("/proc/%d" % pid) or open("/proc/%d/comm" % pid).read().strip() != name
    assert_nothing_left(work)
