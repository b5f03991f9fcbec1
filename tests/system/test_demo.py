"""scripts/demo on the test build: a full and an incremental backup verified file by
file, and nothing left behind: not after a good run, not after Ctrl-C while the agent
starts or in the middle of a backup, not when another demo holds the lock or no loop
device is free. The demo runs on its smaller sample data here (ORV_DEMO_DATA=small),
and those runs go side by side, as demos with locks of their own may."""
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


@pytest.fixture
def demo_env(tmp_path):
    return environment(tmp_path)


class Demo:
    """scripts/demo as a process in a session of its own (as a terminal runs it)."""

    def __init__(self, env, tmp_path):
        self.out_path = tmp_path / "demo.out"
        self.out = open(self.out_path, "w")
        self.process = subprocess.Popen([DEMO], stdout=self.out, stderr=subprocess.STDOUT, env=env,
                                        start_new_session=True)

    def output(self):
        return self.out_path.read_text()

    def wait_output(self, pattern, timeout):
        deadline = time.time() + timeout
        while time.time() < deadline:
            found = re.search(pattern, self.output(), re.M)
            if found:
                return found
            if self.process.poll() is not None:
                break
            time.sleep(0.2)
        raise AssertionError("no %r in the demo's output:\n%s" % (pattern, self.output()))

    def interrupt_at(self, pattern):
        """Ctrl-C as soon as `pattern` appears: the terminal signals the whole foreground
        group. Runs beside the test; wait() gives the outcome."""
        def watch():
            try:
                self.wait_output(pattern, timeout=300)
            except AssertionError:
                return  # ended or stuck without reaching it: the test sees the status
            os.killpg(self.process.pid, signal.SIGINT)
        threading.Thread(target=watch, daemon=True).start()
        return self

    def wait(self, timeout):
        try:
            return self.process.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            os.killpg(self.process.pid, signal.SIGKILL)
            self.process.wait()
            raise AssertionError("the demo did not end in %d s:\n%s" % (timeout, self.output()))
        finally:
            self.out.close()


def ours(output):
    """What the demo said it made: its directory, processes, target and LUN."""
    found = {"root": re.search(r"^demo: working directory (\S+)", output, re.M).group(1), "pids": []}
    for pattern in (r"\(pid (\d+)\); its key", r"tgtd pid (\d+),", r"orvd pid (\d+) serving"):
        match = re.search(pattern, output)
        if match:
            found["pids"].append(int(match.group(1)))
    control = re.search(r"control port (\d+)", output)
    found["control"] = control and control.group(1)
    lun = re.search(r"backed by (\S+)", output)
    found["lun_dir"] = lun and os.path.dirname(lun.group(1))
    return found


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
    """Everything of the demo's still on the machine; empty when it cleaned up."""
    made = ours(output)
    root = made["root"]
    left = []
    if os.path.exists(root):
        left.append("directory " + root)
    if made["lun_dir"] and os.path.exists(made["lun_dir"]):
        left.append("target directory " + made["lun_dir"])
    loops = subprocess.run(["losetup", "-l", "-n", "-O", "NAME,BACK-FILE"], capture_output=True, text=True).stdout
    for line in loops.splitlines():
        if root in line or (made["lun_dir"] and made["lun_dir"] in line):
            left.append("loop device " + line)
    with open("/proc/mounts") as f:
        left += ["mount " + line for line in f if root in line]
    for pid in made["pids"]:
        if os.path.exists("/proc/%d" % pid):
            left.append("process %d" % pid)
    for entry in os.listdir("/proc"):
        if entry.isdigit() and int(entry) != os.getpid() and mentions(int(entry), root):
            left.append("process %s mentions %s" % (entry, root))
    if made["control"]:
        left += [p for p in ("/var/run/tgtd/socket.%s" % made["control"],) if os.path.exists(p)]
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
    """The good run, the interrupted ones and one without loop devices, started
    together; two loop devices are taken before, as other programs hold them."""
    busy = []
    for i in range(2):
        image = tmp_path_factory.mktemp("busy") / ("busy%d.img" % i)
        with open(image, "wb") as f:
            f.truncate(1 << 20)
        busy.append((subprocess.run(["losetup", "-f", "--show", str(image)], capture_output=True, text=True,
                                    check=True).stdout.strip(), str(image)))
    runs = {}
    try:
        directory = tmp_path_factory.mktemp("full")
        runs["full"] = Demo(environment(directory), directory)
        for moment, pattern in INTERRUPTS.items():
            directory = tmp_path_factory.mktemp(moment)
            runs[moment] = Demo(environment(directory), directory).interrupt_at(pattern)
        # A losetup that finds no free device, as on a machine whose loop devices are all
        # taken.
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


def backing(device):
    try:
        with open("/sys/block/%s/loop/backing_file" % os.path.basename(device)) as f:
            return f.read().strip()
    except OSError:
        return None


def test_demo_backs_up_verifies_and_leaves_nothing(demos):
    runs, busy_loops = demos
    demo = runs["full"]
    status = demo.wait(timeout=300)
    output = demo.output()
    assert status == 0, output
    # The verdict is the last line, after the clean-up.
    assert re.search(r"removed the volume.*\n\nverified \([^\n]*\)\n\Z", output), output
    rows = re.findall(r"^  ([0-9a-f]{8})  (full|incremental) +([0-9.]+) MiB +([0-9.]+) MiB \(\d+ %\)", output, re.M)
    assert [row[1] for row in rows] == ["full", "incremental"], output
    for _, _, sent, skipped in rows:
        assert abs(float(sent) + float(skipped) - 256.0) < 0.2
    # Only used blocks went in full (31 MiB of files and the file system's own), and only
    # changed ones in the incremental.
    assert 31 < float(rows[0][2]) < 100 and float(rows[1][2]) < 20, rows
    assert output.count("identical to the volume") == 2
    assert leftovers(output) == []
    for device, image in busy_loops:
        assert backing(device) == image, "the demo touched %s" % device


@pytest.mark.parametrize("moment", sorted(INTERRUPTS))
def test_interrupt_cleans_up(demos, moment):
    demo = demos[0][moment]
    status = demo.wait(timeout=300)
    output = demo.output()
    assert status == 130, output
    assert "cleaning up (exit status 130)" in output
    assert "removed the volume" in output, output
    assert "failed at line" not in output, output
    if moment == "backup":
        assert "stopping orvd" in output, output
    assert "verified" not in output
    assert leftovers(output) == []


def test_second_demo_is_refused_while_one_runs(demo_env):
    with open(demo_env["ORV_DEMO_LOCK"], "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        lock.write("4242\n")
        lock.flush()
        result = subprocess.run([DEMO], capture_output=True, text=True, env=demo_env, timeout=60)
    assert result.returncode == 1
    assert "demo: another demo is running (pid 4242); wait for it to end" in result.stderr
    assert "working directory" not in result.stdout


def test_no_free_loop_device_is_said_plainly(demos):
    demo = demos[0]["no loop device"]
    status = demo.wait(timeout=300)
    output = demo.output()
    assert status == 1, output
    assert "no free loop device for " in output
    assert "demo: could not attach the volume" in output
    assert "removed the volume, the target, the agent, the authority" in output
    assert leftovers(output) == []
