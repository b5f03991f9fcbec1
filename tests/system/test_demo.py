"""scripts/demo on the test build (ORV_DEMO_DATA=small): a full and an incremental backup
verified file by file, and nothing left behind: not after a good run, not after Ctrl-C
while the agent starts or mid-backup, not when another demo holds the lock or no loop
device is free. The runs go side by side, as demos with locks of their own may."""
import fcntl
import os
import re
import signal
import subprocess
import threading
import time

import pytest

from agent import SOURCE_DIR

DEMO = os.path.join(SOURCE_DIR, "scripts", "demo")
BUILD_DIR = os.environ.get("ORV_BUILD_DIR", os.path.join(SOURCE_DIR, "build"))


def environment(directory):
    """The demo on the test build, with a lock of its own: other worktrees may run it too."""
    env = dict(os.environ, ORV_DEMO_BUILD_DIR=BUILD_DIR, ORV_DEMO_LOCK=str(directory / "demo.lock"),
               ORV_DEMO_SIZE_MIB="256", ORV_DEMO_DATA="small", ASAN_OPTIONS="detect_leaks=0")
    env.pop("ZELKO_SIM_DIR", None)
    return env


class Demo:
    """scripts/demo in a session of its own (as a terminal runs it); Ctrl-C as soon as
    `interrupt_at` appears in its output (the terminal signals the whole group)."""

    def __init__(self, env, directory, interrupt_at=None):
        self.out_path = directory / "demo.out"
        self.out = open(self.out_path, "w")
        self.process = subprocess.Popen([DEMO], stdout=self.out, stderr=subprocess.STDOUT, env=env,
                                        start_new_session=True)
        if interrupt_at:
            threading.Thread(target=self._interrupt, args=(interrupt_at,), daemon=True).start()

    def output(self):
        return self.out_path.read_text()

    def _interrupt(self, pattern):
        deadline = time.time() + 300
        while time.time() < deadline and self.process.poll() is None:
            if re.search(pattern, self.output(), re.M):
                os.killpg(self.process.pid, signal.SIGINT)
                return
            time.sleep(0.2)  # ended or stuck without reaching it: the test sees the status

    def wait(self, timeout=300):
        try:
            return self.process.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            os.killpg(self.process.pid, signal.SIGKILL)
            self.process.wait()
            raise AssertionError("the demo did not end in %d s:\n%s" % (timeout, self.output()))
        finally:
            self.out.close()


def mentions(pid, text):
    for name in ("cmdline", "environ"):
        try:
            with open("/proc/%d/%s" % (pid, name), "rb") as f:
                if text.encode() in f.read():
                    return True
        except OSError:
            pass
    return False


def leftovers(output):
    """Everything the demo said it made (directory, processes, target, LUN) still on the machine."""
    root = re.search(r"^demo: working directory (\S+)", output, re.M).group(1)
    pids = [int(m.group(1)) for m in (re.search(p, output) for p in (
        r"\(pid (\d+)\); its key", r"tgtd pid (\d+),", r"orvd pid (\d+) serving")) if m]
    control = re.search(r"control port (\d+)", output)
    lun = re.search(r"backed by (\S+)", output)
    lun_dir = lun and os.path.dirname(lun.group(1))
    left = ["directory " + d for d in (root, lun_dir) if d and os.path.exists(d)]
    loops = subprocess.run(["losetup", "-l", "-n", "-O", "NAME,BACK-FILE"], capture_output=True, text=True).stdout
    left += ["loop device " + line for line in loops.splitlines() if root in line or (lun_dir and lun_dir in line)]
    with open("/proc/mounts") as f:
        left += ["mount " + line for line in f if root in line]
    left += ["process %d" % pid for pid in pids if os.path.exists("/proc/%d" % pid)]
    left += ["process %s mentions %s" % (entry, root) for entry in os.listdir("/proc")
             if entry.isdigit() and int(entry) != os.getpid() and mentions(int(entry), root)]
    if control and os.path.exists("/var/run/tgtd/socket.%s" % control.group(1)):
        left.append("/var/run/tgtd/socket.%s" % control.group(1))
    return left


INTERRUPTS = {
    # Right after enrolling the agent is started in the background and probed until it
    # answers: a signal then must not leave it running, nor lose the clean-up's report
    # to the probe's silenced output.
    "enrolment": r"^    issuer=",
    # The copy is under way: the agent must first take the volume out of snapshot mode.
    "backup": r"^\S+ full .* active *$",
}


@pytest.fixture(scope="module")
def demos(tmp_path_factory):
    """The good run, the interrupted ones and one without loop devices, started together;
    two loop devices are taken before, as other programs hold them."""
    busy, runs = [], {}
    try:
        for i in range(2):
            image = tmp_path_factory.mktemp("busy") / ("busy%d.img" % i)
            image.write_bytes(b"")
            os.truncate(image, 1 << 20)
            busy.append((subprocess.run(["losetup", "-f", "--show", str(image)], capture_output=True, text=True,
                                        check=True).stdout.strip(), str(image)))
        directory = tmp_path_factory.mktemp("full")
        runs["full"] = Demo(environment(directory), directory)
        for moment, pattern in INTERRUPTS.items():
            directory = tmp_path_factory.mktemp(moment)
            runs[moment] = Demo(environment(directory), directory, interrupt_at=pattern)
        # A losetup that finds no free device, as on a machine whose loop devices are all taken.
        directory = tmp_path_factory.mktemp("noloop")
        (directory / "losetup").write_text('#!/bin/sh\nfor a in "$@"; do [ "$a" = -f ] && '
                                           '{ echo "losetup: cannot find an unused loop device" >&2; exit 1; }; done\n'
                                           'exec /usr/sbin/losetup "$@"\n')
        (directory / "losetup").chmod(0o755)
        env = environment(directory)
        env["PATH"] = "%s:%s" % (directory, env["PATH"])
        runs["no loop device"] = Demo(env, directory)
        yield runs, busy
    finally:
        for demo in runs.values():
            if demo.process.poll() is None:
                os.killpg(demo.process.pid, signal.SIGINT)
                demo.process.wait(timeout=300)
        for device, image in busy:
            subprocess.run(["losetup", "-d", device], check=False)


def test_demo_backs_up_verifies_and_leaves_nothing(demos):
    runs, busy_loops = demos
    status, output = runs["full"].wait(), runs["full"].output()
    assert status == 0, output
    # The verdict is the last line, after the clean-up.
    assert re.search(r"removed the volume.*\n\nverified \([^\n]*\)\n\Z", output), output
    rows = re.findall(r"^  ([0-9a-f]{8})  (full|incremental) +([0-9.]+) MiB +([0-9.]+) MiB \(\d+ %\)", output, re.M)
    assert [row[1] for row in rows] == ["full", "incremental"], output
    for _, _, sent, skipped in rows:
        assert abs(float(sent) + float(skipped) - 256.0) < 0.2
    # Only used blocks went in full (31 MiB of files and the file system's own), only changed ones after.
    assert 31 < float(rows[0][2]) < 100 and float(rows[1][2]) < 20, rows
    assert output.count("identical to the volume") == 2
    assert leftovers(output) == []
    for device, image in busy_loops:
        with open("/sys/block/%s/loop/backing_file" % os.path.basename(device)) as f:
            assert f.read().strip() == image, "the demo touched %s" % device


@pytest.mark.parametrize("moment", sorted(INTERRUPTS) + ["no loop device"])
def test_interrupted_or_failed_demo_cleans_up(demos, moment):
    status, output = demos[0][moment].wait(), demos[0][moment].output()
    if moment == "no loop device":
        assert status == 1, output
        assert "no free loop device for " in output and "demo: could not attach the volume" in output, output
        assert "removed the volume, the target, the agent, the authority" in output
    else:
        assert status == 130, output
        assert "cleaning up (exit status 130)" in output and "removed the volume" in output, output
        assert "failed at line" not in output and "verified" not in output, output
        assert moment != "backup" or "stopping orvd" in output, output
    assert leftovers(output) == []


def test_second_demo_is_refused_while_one_runs(tmp_path):
    env = environment(tmp_path)
    with open(env["ORV_DEMO_LOCK"], "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        lock.write("4242\n")
        lock.flush()
        result = subprocess.run([DEMO], capture_output=True, text=True, env=env, timeout=60)
    assert result.returncode == 1
    assert "demo: another demo is running (pid 4242); wait for it to end" in result.stderr
    assert "working directory" not in result.stdout
