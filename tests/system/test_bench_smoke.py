"""scripts/bench in its tiny mode on the build under test: a run that reports every row, a
refusal when the machine lacks room, and an interrupted run that leaves nothing behind. The
full benchmark takes minutes and is not part of the test command."""
import json
import os
import signal
import subprocess
import time

from volumes import loop_backing_file

SOURCE_DIR = os.environ.get("ORV_SOURCE_DIR", os.path.abspath(os.path.join(os.path.dirname(__file__), "..", "..")))
TARGETS = ("stock", "tuned")
BASELINES = ("baseline_write", "baseline_read", "baseline_copy", "snapshot_direct_read")
COPIES = ("full_all", "full_used", "incremental_1", "incremental_10", "diff_identical", "diff_10")
MIB = 1024 * 1024


def start_bench(work, *args):
    env = dict(os.environ)
    env.setdefault("ORV_BUILD_DIR", os.path.join(SOURCE_DIR, "build"))
    # SIGINT as the default: a shell cannot trap a signal ignored at its start, as it is in
    # a test run started in the background by a script.
    return subprocess.Popen([os.path.join(SOURCE_DIR, "scripts", "bench"), "--tiny", "--work-dir", str(work), *args],
                            env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                            start_new_session=True, preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))


def finish(bench, timeout):
    """The output of a bench run once it ended. One still going after `timeout` gets SIGTERM
    (the script then removes its rig), SIGKILL only if that fails, and fails the test."""
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


def assert_nothing_left(work):
    prefix = os.path.realpath(work) + "/"
    assert mounts_under(work) == []
    assert [n for n in os.listdir("/sys/block") if (loop_backing_file(n) or "").startswith(prefix)] == []
    assert os.listdir(work) == []


def test_tiny_run_reports_every_row(tmp_path):
    work, out = tmp_path / "work", tmp_path / "out"
    work.mkdir()
    bench = start_bench(work, "--out", str(out))
    output = finish(bench, 1800)  # minutes on a sanitizer build of a busy machine
    assert bench.returncode == 0, output
    result = json.loads((out / "results.json").read_text())
    rows = {(row["target"], row["kind"]): row for row in result["rows"]}
    assert set(rows) == {(t, k) for t in TARGETS for k in BASELINES + COPIES} | {("tuned", "full_all_big_logs")}
    for key, row in rows.items():
        assert row["mib_s"] > 0 and row["seconds"] > 0, (key, row)
    for target in TARGETS:
        assert rows[(target, "full_all")]["bytes"] == 128 * MIB
        assert 0 < rows[(target, "full_used")]["bytes"] < 128 * MIB
        for kind in COPIES:
            row = rows[(target, kind)]
            assert row["ratio"] > 0 and row["e2e_seconds"] >= row["seconds"] and row["rss_mib"] > 0, (kind, row)
            # A copy shorter than two of the 0.1 s between polls may have no poll inside it.
            p99 = row["latency_p99_ms"]
            assert (p99 is not None and p99 > 0) or (row["seconds"] < 0.2 and p99 is None), (target, kind, row)
        assert rows[(target, "diff_10")]["rewritten_chunks"] >= rows[(target, "diff_10")]["altered_chunks"]
        for kind in ("full_used", "incremental_1", "incremental_10"):
            row = rows[(target, kind)]
            assert row["runs"] == row["chunks"] > 0 and row["runs_baseline_seconds"] > 0, (target, kind, row)
    # Every goal is measured, met or not; the big table was pruned as the agent went.
    assert len(result["targets"]) == 2 * 8 + 1
    assert all(isinstance(check["value"], float) for check in result["targets"])
    assert result["notes"]["old_rows_left"] == 0
    assert (out / "throughput.png").read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"
    assert "| tuned | full copy, all blocks |" in (out / "results.md").read_text()
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
        while time.monotonic() < deadline and bench.poll() is None and not (len(pids) == 2 and mounts_under(work)):
            for name in ("tgtd", "orvd"):
                for run in os.listdir(work):
                    try:
                        pids[name] = int((work / run / "pids" / name).read_text().split()[0])
                    except (OSError, ValueError, IndexError):
                        pass
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
