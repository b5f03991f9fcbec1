"""The development appliance's command line against a running agent, and large bodies."""
import json
import os
import subprocess

from agent import SOURCE_DIR, free_port

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
    assert (result.returncode, result.stdout) == (1, "HTTP 401\n")

    result = appliance(running_agent, device, "pair", "42")
    assert (result.returncode, result.stdout) == (0, "HTTP 201\n")
    running_agent.set_config("log_days_to_keep", 30)
    running_agent.set_config("log_level", 3)

    result = appliance(running_agent, device, "config", "get")
    assert result.returncode == 0
    assert result.stdout == "rest_port = %d\nlog_days_to_keep = 30\nlog_level = 3\n" % running_agent.port
    result = appliance(running_agent, device, "--json", "config", "get")
    assert json.loads(result.stdout)["rest_port"] == running_agent.port
    assert result.stdout.startswith('{\n\t"rest_port" : ')

    running_agent.query("INSERT INTO logs ( backup_id, level, message, datetm ) VALUES "
                        "( 'b-7', 4, 'disk on fire', '2030-01-02 03:04:05' )")
    result = appliance(running_agent, device, "events", "--backupid", "b-7", "--severity", "4")
    assert (result.returncode, result.stdout) == (0, "2030-01-02 03:04:05 [ERROR] b-7 disk on fire\n")

    result = appliance(running_agent, device, "--json", "backup", "cancel", "nothing")
    assert json.loads(result.stdout) == {"success": False, "errorString": "Cancel backup request failed or timed out."}

    # Refused callers get no answer at all: exit 3, as for an agent that isn't there.
    result = appliance(running_agent, client_files(foreign_authority, 42), "config", "get")
    assert result.returncode == 3 and "no answer" in result.stderr
    result = appliance(running_agent, None, "config", "get")
    assert result.returncode == 3
    running_agent.port = free_port()
    assert appliance(running_agent, device, "config", "get").returncode == 3

    assert appliance(running_agent, device, "config", "frobnicate").returncode == 2
    assert appliance(running_agent, ("/nonexistent.pem", "/nonexistent.key"), "config", "get").returncode == 2


def test_cli_config_set_moves_the_agent(running_agent, authority, client_files):
    device = client_files(authority, 42)
    assert appliance(running_agent, device, "pair", "42").returncode == 0
    new_port = free_port()
    result = appliance(running_agent, device, "config", "set", "--rest-port", str(new_port), "--log-days", "20",
                       "--log-level", "2")
    assert (result.returncode, result.stdout) == (0, "HTTP 200\n")
    running_agent.wait_listening(new_port, timeout=20)
    running_agent.port = new_port
    result = appliance(running_agent, device, "config", "get")
    assert result.stdout == "rest_port = %d\nlog_days_to_keep = 20\nlog_level = 2\n" % new_port


def peak_kib(pid):
    with open("/proc/%d/status" % pid) as f:
        return int(next(line for line in f if line.startswith("VmHWM:")).split()[1])


def test_bodies_up_to_32_mib_are_read_and_longer_ones_refused(agent, authority, client_files):
    # Under AddressSanitizer freed memory is held back for a while; without that the
    # agent's resident memory shows what it really keeps.
    agent.env["ASAN_OPTIONS"] = agent.env.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=0"
    agent.serve()
    running_agent = agent
    client = agent.client(client_files(authority, 42))
    head, tail = b'{"deviceID": 42, "pad": "', b'"}'
    # Far beyond the limit: refused, and the agent keeps no more of it than it needs to
    # know that it is too long.
    before = peak_kib(running_agent.process.pid)
    huge = head.replace(b"42", b"44") + b"x" * (300 * MIB) + tail
    assert client.request("POST", "/pair", huge).status == 400
    growth = peak_kib(running_agent.process.pid) - before
    assert growth < 200 * 1024, "peak resident memory grew by %d KiB" % growth

    exact = head + b"x" * (32 * MIB - len(head) - len(tail)) + tail
    assert len(exact) == 32 * MIB
    assert client.request("POST", "/pair", exact).status == 201
    assert running_agent.query("SELECT id FROM device") == [(42,)]
    over = head.replace(b"42", b"43") + b"x" * (32 * MIB - len(head) - len(tail) + 1) + tail
    assert client.request("POST", "/pair", over).status == 400
    assert running_agent.query("SELECT id FROM device") == [(42,)]
    invalid = [m for m in running_agent.logs() if m.startswith('Invalid JSON: {"deviceID": 4')]
    assert len(invalid) == 2
    running_agent.set_config("log_days_to_keep", 30)
    running_agent.set_config("log_level", 3)
    assert client.get_config().status == 200
