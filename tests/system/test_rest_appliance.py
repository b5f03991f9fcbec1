"""The development appliance's command line against a running agent, and large bodies."""
import contextlib
import io
import json
import os
import re
import runpy
import subprocess

from agent import SOURCE_DIR, free_port, wait_for

APPLIANCE = os.path.join(SOURCE_DIR, "tools", "appliance", "appliance")
MIB = 1024 * 1024


def appliance(agent, files, *args):
    cert, key = files if files else (None, None)
    command = [APPLIANCE, "--agent", "127.0.0.1:%d" % agent.port, "--ca", os.path.join(agent.cert_dir, "ca.crt")]
    if cert:
        command += ["--cert", cert, "--key", key]
    return subprocess.run(command + list(args), capture_output=True, text=True, timeout=120)


def test_cli_commands_and_exit_codes(running_agent, authority, foreign_authority, client_files):
    device = client_files(authority, 42)
    result = appliance(running_agent, device, "config", "get")
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr.startswith("appliance: the agent answered HTTP 401 (this client's device id is not")
    result = appliance(running_agent, device, "pair", "42")
    assert (result.returncode, result.stdout) == (0, "paired: the agent now serves device 42\n")
    running_agent.set_config("log_days_to_keep", 30)
    running_agent.set_config("log_level", 3)

    result = appliance(running_agent, device, "config", "get")
    assert (result.returncode, result.stdout) == (
        0, "rest_port = %d\nlog_days_to_keep = 30\nlog_level = 3\n" % running_agent.port)
    result = appliance(running_agent, device, "--json", "config", "get")
    assert result.stdout.startswith('{\n\t"rest_port" : ')
    assert json.loads(result.stdout)["rest_port"] == running_agent.port
    # Common options are also taken after the command.
    assert json.loads(appliance(running_agent, device, "config", "get", "--json").stdout)["log_level"] == 3

    running_agent.query("INSERT INTO logs ( backup_id, level, message, datetm ) VALUES "
                        "( 'b-7', 4, 'disk on fire', '2030-01-02 03:04:05' )")
    result = appliance(running_agent, device, "events", "--backupid", "b-7", "--severity", "4")
    assert (result.returncode, result.stdout) == (0, "2030-01-02 03:04:05 [ERROR] b-7 disk on fire\n")

    # A cancel the agent refuses is a failure for scripts, in either output form.
    result = appliance(running_agent, device, "--json", "backup", "cancel", "nothing")
    assert json.loads(result.stdout) == {"success": False, "errorString": "Cancel backup request failed or timed out."}
    assert result.returncode == 1
    result = appliance(running_agent, device, "backup", "cancel", "nothing")
    assert result.returncode == 1
    assert "did not cancel backup nothing: Cancel backup request failed or timed out." in result.stderr

    # Refused callers get no answer at all: exit 3, as for an agent that isn't there.
    result = appliance(running_agent, client_files(foreign_authority, 42), "config", "get")
    assert result.returncode == 3 and "no answer" in result.stderr
    assert appliance(running_agent, None, "config", "get").returncode == 3
    assert appliance(running_agent, device, "config", "frobnicate").returncode == 2
    assert appliance(running_agent, ("/nonexistent.pem", "/nonexistent.key"), "config", "get").returncode == 2

    new_port = free_port()
    result = appliance(running_agent, device, "config", "set", "--rest-port", str(new_port), "--log-days", "20",
                       "--log-level", "2")
    assert (result.returncode, result.stdout) == (
        0, "configuration stored; the agent restarts its HTTPS server in 5 s on port %d\n" % new_port)
    running_agent.wait_listening(new_port, timeout=20)
    old_port, running_agent.port = running_agent.port, new_port
    result = appliance(running_agent, device, "config", "get")
    assert result.stdout == "rest_port = %d\nlog_days_to_keep = 20\nlog_level = 2\n" % new_port
    running_agent.port = old_port  # nobody there now
    assert appliance(running_agent, device, "config", "get").returncode == 3


def peak_kib(pid):
    with open("/proc/%d/status" % pid) as f:
        return int(next(line for line in f if line.startswith("VmHWM:")).split()[1])


def test_bodies_up_to_32_mib_are_read_and_longer_ones_refused(agent, authority, client_files):
    # Without AddressSanitizer's quarantine of freed memory the peak shows what the agent keeps.
    agent.env["ASAN_OPTIONS"] = agent.env.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=0"
    agent.serve()
    client = agent.client(client_files(authority, 42))
    head, tail = b'{"deviceID": 42, "pad": "', b'"}'
    # Far beyond the limit: refused, keeping no more than it takes to know it is too long.
    before = peak_kib(agent.process.pid)
    assert client.request("POST", "/pair", head.replace(b"42", b"44") + b"x" * (300 * MIB) + tail).status == 400
    growth = peak_kib(agent.process.pid) - before
    if os.environ.get("ORV_SANITIZE") != "thread":  # TSan's shadow memory mirrors every byte touched
        assert growth < 200 * 1024, "peak resident memory grew by %d KiB" % growth
    exact = head + b"x" * (32 * MIB - len(head) - len(tail)) + tail
    assert len(exact) == 32 * MIB
    assert client.request("POST", "/pair", exact).status == 201
    over = head.replace(b"42", b"43") + b"x" * (32 * MIB - len(head) - len(tail) + 1) + tail
    assert client.request("POST", "/pair", over).status == 400
    assert agent.query("SELECT id FROM device") == [(42,)]
    assert len([m for m in agent.logs() if m.startswith('Invalid JSON: {"deviceID": 4')]) == 2
    agent.set_config("log_days_to_keep", 30)
    agent.set_config("log_level", 3)
    assert client.get_config().status == 200


def test_cli_help_for_every_command_and_usage_errors(monkeypatch):
    for name in [n for n in os.environ if n.startswith("APPLIANCE_")]:
        monkeypatch.delenv(name)
    tool = runpy.run_path(APPLIANCE, run_name="appliance_cli")  # many command lines without a process each

    def run(*words):
        out, err = io.StringIO(), io.StringIO()
        with contextlib.redirect_stdout(out), contextlib.redirect_stderr(err):
            try:
                status = tool["main"](list(words))
            except SystemExit as e:
                status = e.code
        return status, out.getvalue(), err.getvalue()

    status, out, _ = run("--help")
    assert status == 0
    for code in ("0 ", "1 ", "2 ", "3 ", "130"):  # the documented exit statuses
        assert "\n  " + code in out
    for words in (["pair"], ["basichost"], ["host"], ["config", "get"], ["config", "set"], ["events"],
                  ["backup", "start"], ["backup", "status"], ["backup", "watch"], ["backup", "cancel"]):
        status, out, _ = run(*words, "--help")
        assert status == 0 and out.startswith("usage: appliance " + " ".join(words)), words
    volume = ["backup", "start", "--volume", "u", "--target", "h:1", "--iqn", "q"]
    for words in (["backup", "start", "--target", "127.0.0.1:3260"],  # before any --volume
                  volume, volume + ["--lun", "one"], volume + ["--lun", "1", "--file", "f.json"],
                  ["backup", "start"], ["backup", "start", "--volume", "guid=u,bogus=1"], ["backup", "watch"],
                  ["--agent", "h:notaport", "host"], ["--cert", "/etc/hostname", "host"],  # a certificate, no key
                  ["--cert", "/nonexistent.pem", "--key", "/nonexistent.key", "host"]):
        status, out, err = run("--ca", "/etc/hostname", *words)
        assert status == 2 and re.match("usage: appliance|appliance: cannot read", err), (words, out, err)
    assert run("host")[0] == 2  # no --ca and not --insecure
    # And as a process: a usage error says so on standard error, without a traceback.
    result = subprocess.run([APPLIANCE, "--ca", "/etc/hostname", "backup", "start", "--volume", "guid=u,bogus=1"],
                            capture_output=True, text=True)
    assert result.returncode == 2 and "unknown volume item 'bogus'" in result.stderr, result.stderr


def cli_command(rig, *args):
    return [APPLIANCE, "--agent", "127.0.0.1:%d" % rig.agent.port, "--ca", os.path.join(rig.agent.cert_dir, "ca.crt"),
            "--cert", rig.client.cert, "--key", rig.client.key] + list(args)


def rig_cli(rig, *args, timeout=300):
    return subprocess.run(cli_command(rig, *args), capture_output=True, text=True, timeout=timeout)


def volume_args(rig, volume, lun=None):
    tid, iqn, path, default_lun = rig.luns[volume.uuid]
    return ["--volume", volume.uuid, "--target", rig.tgtd.portal, "--iqn", iqn,
            "--lun", str(lun if lun is not None else default_lun)]


def test_cli_backup_start_watch_status_cancel_and_host(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=192, seed=31)
    rig.add_target(volume)

    result = rig_cli(rig, "host")
    assert result.returncode == 0, result.stderr
    assert re.search(r"^versions: +agent 1\.0\.16, api 1\.0\.0, driver ", result.stdout, re.M)
    line = next(line for line in result.stdout.splitlines() if volume.uuid in line)
    listed = next(v for v in json.loads(rig_cli(rig, "--json", "host").stdout)["volumes"] if v["guid"] == volume.uuid)
    assert line.split() == [volume.uuid, volume.device, "ext4", "%.1f" % (listed["spaceTotal"] / MIB), "MiB",
                            "%.1f" % (listed["spaceFree"] / MIB), "MiB", listed["mountpoints"]], line
    result = rig_cli(rig, "basichost")
    assert result.returncode == 0 and re.search(r"^os_arch: +\S+$", result.stdout, re.M)

    result = rig_cli(rig, "backup", "start", *volume_args(rig, volume), "--watch", "--interval", "0.1")
    assert result.returncode == 0, result.stdout + result.stderr
    lines = result.stdout.splitlines()
    backup_id = re.fullmatch(r"backup (\S+) started", lines[0]).group(1)
    # Not a terminal: one line per visible change, the last one the finished volume.
    assert re.match(r"%s full +\[#+\] 100\.0%% .* finished" % volume.uuid[:8], lines[-2]), lines
    assert re.fullmatch(r"backup %s finished: 1 volume, [0-9.]+ MiB sent in [0-9.]+ s \([0-9.]+ MiB/s\)" % backup_id,
                        lines[-1]), lines
    assert rig.verify_image(volume) == []
    document = json.loads(rig_cli(rig, "--json", "backup", "status", backup_id).stdout)
    assert document["status"] == "finished" and document["details"][0]["volume"] == volume.uuid
    result = rig_cli(rig, "backup", "status", backup_id)
    assert result.returncode == 0 and result.stdout.startswith("backup %s: finished, " % backup_id)
    assert "volume %s  full         finished" % volume.uuid in result.stdout
    assert "backup %s: finished" % backup_id in rig_cli(rig, "backup", "status").stdout
    # Watching a backup that has ended prints its end at once; --json prints the document.
    result = rig_cli(rig, "--json", "backup", "watch", backup_id)
    assert result.returncode == 0 and json.loads(result.stdout)["status"] == "finished"

    # A LUN the target does not have: the backup fails, and so does the command.
    result = rig_cli(rig, "backup", "start", *volume_args(rig, volume, lun=9), "--watch", "--interval", "0.1")
    assert result.returncode == 1, result.stdout + result.stderr
    assert re.search(r"^backup \S+ failed: 1 volume", result.stdout, re.M), result.stdout
    assert "Could not connect to ISCSI target storage" in result.stdout
    failed_id = result.stdout.split()[1]
    assert rig_cli(rig, "backup", "watch", failed_id).returncode == 1
    result = rig_cli(rig, "backup", "status", failed_id)
    assert result.returncode == 0 and "failed" in result.stdout.splitlines()[0]
    # An id the agent does not know, and a cancel of a backup that has ended.
    result = rig_cli(rig, "backup", "watch", "no-such-backup")
    assert result.returncode == 1 and "knows no backup no-such-backup" in result.stderr
    assert rig_cli(rig, "backup", "cancel", backup_id).returncode == 1

    # The start document as a file, with the id alone on standard output; a long
    # all-blocks copy, cancelled while a watcher follows it.
    rig.agent.set_config("disable_usedblock", "Y")
    request = os.path.join(str(rig.tmp_path), "request.json")
    with open(request, "w") as f:
        json.dump({"volumes": [rig.volume_request(volume)], "forceCopyFull": True}, f)
    result = rig_cli(rig, "--json", "backup", "start", "--file", request)
    assert result.returncode == 0
    started = result.stdout.strip()
    assert re.fullmatch(r"[0-9a-f-]{36}", started)
    watcher = subprocess.Popen(cli_command(rig, "backup", "watch", started, "--interval", "0.1"),
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        wait_for(lambda: rig.status(started)["details"] and
                 rig.status(started)["details"][0]["transfer"]["bytesTransferred"] > 0,
                 timeout=120, interval=0.05, what="the copy to start")
        result = rig_cli(rig, "backup", "cancel", started)
        assert result.returncode == 0 and result.stdout.startswith("backup %s: cancel requested" % started), result
        out, err = watcher.communicate(timeout=120)
    finally:
        if watcher.poll() is None:
            watcher.kill()
            watcher.wait()
    assert watcher.returncode == 1 and "backup %s failed" % started in out, out + err
    assert rig.status(started)["details"][0]["type"] == "full"
    assert all(d["state"] != 3 for d in rig.sim.info()["devices"])
