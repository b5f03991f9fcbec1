"""The install layout, units and man page in a temporary prefix; with ORV_TEST_DEB=1 also the Debian package,
installed into the real system and purged."""
import os
import re
import shutil
import signal
import sqlite3
import stat
import subprocess

import pytest

from agent import SOURCE_DIR, free_port, wait_for

import ca_server

BUILD_DIR = os.environ.get("ORV_BUILD_DIR", os.path.join(SOURCE_DIR, "build"))
PACKAGING = os.path.join(SOURCE_DIR, "packaging")
VERSION = "1.0.16"
PRIVATE_DIRS = ("etc/zelko/orv", "etc/zelko/orv/certs", "etc/zelko/orv/pps")
UNITS = ("orvd.service", "orvd-reload-trackers.service")


def mode(path):
    return stat.S_IMODE(os.lstat(path).st_mode)


def cmake_install(prefix, destdir=None):
    env = {k: v for k, v in os.environ.items() if k != "DESTDIR"}
    if destdir is not None:
        env["DESTDIR"] = str(destdir)
    result = subprocess.run(["cmake", "--install", BUILD_DIR, "--prefix", str(prefix)], env=env,
                            capture_output=True, text=True, timeout=120)
    assert result.returncode == 0, result.stdout + result.stderr


def unit_settings(path):
    """{(section, key): [values]} in file order."""
    settings, section = {}, None
    with open(path) as f:
        for line in (line.strip() for line in f):
            if line.startswith("["):
                section = line.strip("[]")
            elif line and not line.startswith("#"):
                key, value = line.split("=", 1)
                settings.setdefault((section, key), []).append(value)
    return settings


@pytest.fixture(scope="module")
def prefix(tmp_path_factory):
    root = tmp_path_factory.mktemp("prefix")
    cmake_install(root)
    return str(root)


def test_install_lays_out_the_agent_units_man_page_and_private_directories(prefix):
    for path, want in [("sbin/orvd", 0o755), ("libexec/orvd/reload-trackers", 0o755), ("share/man/man8/orvd.8", 0o644)] + \
            [("lib/systemd/system/" + unit, 0o644) for unit in UNITS] + [(path, 0o700) for path in PRIVATE_DIRS]:
        full = os.path.join(prefix, path)
        assert os.path.isdir(full) if want == 0o700 else os.path.isfile(full), path
        assert mode(full) == want, path
    assert os.listdir(os.path.join(prefix, "etc/zelko/orv/certs")) == []
    # The driver's tool and the simulator are never installed.
    for root, dirs, files in os.walk(prefix):
        for name in dirs + files:
            assert not re.search("zbdctl|zelkosim|zelkobd", name), os.path.join(root, name)
    # The units name what this install put in place, and are in the manifest.
    with open(os.path.join(BUILD_DIR, "install_manifest.txt")) as f:
        manifest = f.read().split()
    for unit, command in zip(UNITS, ("/sbin/orvd -d -l 2", "/libexec/orvd/reload-trackers")):
        path = os.path.join(prefix, "lib/systemd/system", unit)
        assert unit_settings(path)[("Service", "ExecStart")] == [prefix + command] and path in manifest, unit
    result = subprocess.run([os.path.join(prefix, "sbin/orvd"), "-h"], capture_output=True, text=True, timeout=30)
    assert result.returncode == 0 and result.stdout.startswith("orvd version %s\n" % VERSION)


def test_destdir_install_for_usr_and_reinstall(tmp_path):
    # Should a staged install for /usr escape DESTDIR, the host's /etc/zelko appears: removed, and a failure.
    etc_existed = os.path.exists("/etc/zelko")
    dest = tmp_path / "dest"
    try:
        cmake_install("/usr", destdir=dest)
    finally:
        leaked = not etc_existed and os.path.exists("/etc/zelko")
        if leaked:
            shutil.rmtree("/etc/zelko")
    assert not leaked, "install wrote to the host's /etc/zelko despite DESTDIR"
    assert os.path.isfile(dest / "usr/sbin/orvd") and os.path.isfile(dest / "usr/share/man/man8/orvd.8")
    # For /usr the units are the shipped files, unchanged.
    for unit in UNITS:
        with open(dest / "usr/lib/systemd/system" / unit) as installed, open(os.path.join(PACKAGING, unit)) as source:
            assert installed.read() == source.read(), unit
    # A reinstall makes existing configuration directories private again and keeps their files.
    for path in PRIVATE_DIRS:
        assert mode(dest / path) == 0o700, path
        os.chmod(dest / path, 0o755)
    (dest / "etc/zelko/orv/certs/server.key").write_text("kept")
    cmake_install("/usr", destdir=dest)
    for path in PRIVATE_DIRS:
        assert mode(dest / path) == 0o700, path
    assert (dest / "etc/zelko/orv/certs/server.key").read_text() == "kept"


def test_man_page_renders_without_warnings_and_documents_every_key_variable_and_command(prefix):
    page = os.path.join(PACKAGING, "orvd.8")
    groff = subprocess.run(["groff", "-man", "-ww", "-z", page], capture_output=True, text=True, timeout=60)
    assert (groff.returncode, groff.stderr) == (0, "")
    env = dict(os.environ, MANWIDTH="200", MAN_KEEP_FORMATTING="0", LC_ALL="C.UTF-8")
    man = subprocess.run(["man", "--warnings", "-l", page], capture_output=True, text=True, env=env, timeout=60)
    assert (man.returncode, man.stderr) == (0, "")
    text = re.sub(r".\x08", "", man.stdout)
    assert "orvd %s" % VERSION in text.splitlines()[-1]
    parts = re.split(r"^([A-Z][A-Z ]+)\n", text, flags=re.M)  # {HEADING: body with blanks folded}
    sections = {name: re.sub(r"\s+", " ", body.replace("\u2010\n", "").replace("-\n", "-"))
                for name, body in zip(parts[1::2], parts[2::2])}
    for heading in ("NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "COMMANDS", "CONFIGURATION", "FILES",
                    "ENVIRONMENT", "SIGNALS", "EXIT STATUS", "SECURITY", "SEE ALSO"):
        assert heading in sections, heading

    # Every configuration key the agent's help lists, every path variable it reads, every command and option.
    usage = subprocess.run([os.path.join(prefix, "sbin/orvd"), "-h"], capture_output=True, text=True,
                           timeout=30).stdout
    keys = [line.split()[0] for line in usage.split("Available configuration options:\n")[1].splitlines() if line]
    assert len(keys) == 7, keys
    for key in keys:
        assert re.search(r"(^| )%s " % key, sections["CONFIGURATION"]), key
    with open(os.path.join(SOURCE_DIR, "daemon", "paths.cpp")) as f:
        variables = re.findall(r'FromEnv\("(ORVD_\w+)"', f.read())
    assert len(variables) >= 6, variables
    for variable in variables:
        assert variable in sections["ENVIRONMENT"], variable
    for command in ("get_config", "set_config", "delete_config", "reset_certificate"):
        assert command in sections["SYNOPSIS"] and command in sections["COMMANDS"], command
    for option in ("-h, --help", "-s, --syslog", "-d, --display", "-l, --level"):
        assert option in sections["OPTIONS"], option
    assert "status 1, on success as on failure" in sections["COMMANDS"]


@pytest.mark.skipif(shutil.which("systemd-analyze") is None, reason="systemd-analyze is not installed")
def test_units_pass_systemd_analyze_verify(prefix):
    unit_dir = os.path.join(prefix, "lib/systemd/system")
    # The units' Documentation= must resolve to the installed page.
    env = dict(os.environ, MANPATH=os.path.join(prefix, "share/man"), SYSTEMD_UNIT_PATH=unit_dir + ":")
    result = subprocess.run(["systemd-analyze", "verify"] + [os.path.join(unit_dir, u) for u in UNITS],
                            capture_output=True, text=True, env=env, timeout=120)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")


def write_script(directory, name, body, executable=True):
    path = os.path.join(directory, name)
    with open(path, "w") as f:
        f.write("#!/bin/sh\n" + body + "\n")
    os.chmod(path, 0o700 if executable else 0o600)


def test_reload_trackers_runs_every_reload_script_once_and_reports_failures(prefix, tmp_path):
    etc, ran = tmp_path / "etc", tmp_path / "ran"
    etc.mkdir()

    def helper():
        return subprocess.run([os.path.join(prefix, "libexec/orvd/reload-trackers")], capture_output=True,
                              text=True, env=dict(os.environ, ORVD_ETC_DIR=str(etc)), timeout=60)

    result = helper()
    assert result.returncode == 0 and "no reload scripts in %s" % etc in result.stdout
    # Only executable regular files named reload_<minor> run.
    for name, word, executable in [("reload_3", "3", True), ("reload_12", "12; exit 4", True),
                                   ("reload_5", "5", False), ("reload_3.bak", "bak", True),
                                   ("reload_", "empty", True), ("orvd.sqlite", "db", True)]:
        number, _, rest = word.partition(";")
        write_script(etc, name, "echo %s >> %s;%s" % (number, ran, rest), executable)
    (etc / "reload_9").mkdir()
    result = helper()
    assert result.returncode == 1, result.stdout + result.stderr
    assert ran.read_text().split() == ["12", "3"]
    assert "%s/reload_12 failed with status 4" % etc in result.stderr
    assert "ran 2 reload script(s), 1 failed" in result.stdout
    os.unlink(etc / "reload_12")
    ran.unlink()
    result = helper()
    assert result.returncode == 0, result.stdout + result.stderr
    assert ran.read_text().split() == ["3"]


# -- the Debian package, installed into the real system (opt-in) -------------------------

SYSTEM_PATHS = ("/etc/zelko", "/var/run/orvd.pid", "/usr/sbin/orvd", "/usr/libexec/orvd")


def installed_agent_alive(pid):
    """Not a zombie, nor a reused pid."""
    try:
        with open("/proc/%d/status" % pid) as f:
            alive = not re.search(r"^State:\s*Z", f.read(), re.M)
        return alive and os.readlink("/proc/%d/exe" % pid).startswith("/usr/sbin/orvd")
    except OSError:
        return False


def daemon_pid():
    try:
        with open("/var/run/orvd.pid") as f:
            pid = int(f.read().strip() or 0)
    except (FileNotFoundError, ValueError):
        return 0
    return pid if installed_agent_alive(pid) else 0


def package_installed():
    result = subprocess.run(["dpkg-query", "-W", "-f=${Status}", "orvd"], capture_output=True, text=True)
    return result.returncode == 0 and "not-installed" not in result.stdout


def run(*command, timeout=60, **env):
    """With the installed agent's own paths: no ORVD_* of the test run."""
    environment = {k: v for k, v in os.environ.items() if not k.startswith("ORVD_")}
    return subprocess.run(list(command), capture_output=True, text=True, env=dict(environment, **env),
                          timeout=timeout)


@pytest.mark.skipif(os.environ.get("ORV_TEST_DEB") != "1",
                    reason="builds a release and installs it into the real system: set ORV_TEST_DEB=1")
def test_debian_package_installs_runs_the_daemon_and_purges_without_a_trace(tmp_path):
    present = [p for p in SYSTEM_PATHS if os.path.lexists(p)]
    if package_installed() or present:
        pytest.fail("the system already has orvd (%s); this test installs and purges the real package"
                    % (", ".join(present) or "package installed"))
    deb = os.environ.get("ORV_DEB")
    if not deb:
        result = subprocess.run([os.path.join(SOURCE_DIR, "scripts", "package")], cwd=SOURCE_DIR,
                                capture_output=True, text=True, timeout=3000)
        assert result.returncode == 0, result.stdout[-4000:] + result.stderr[-4000:]
        deb = os.path.join(SOURCE_DIR, "build-release", "orvd_%s_amd64.deb" % VERSION)
    assert os.path.basename(deb) == "orvd_%s_amd64.deb" % VERSION
    description = run("dpkg-deb", "-f", deb, "Description").stdout
    assert "simulator" in description and "zbdctl" in description, description  # says what it lacks
    contents = {line.split()[-1].lstrip(".").rstrip("/") or "/": line.split()[0]  # {path: mode text}
                for line in run("dpkg-deb", "-c", deb).stdout.splitlines()}
    for path in contents:
        assert "zbdctl" not in path and "zelkosim" not in path, path
    for path in PRIVATE_DIRS:
        assert contents["/" + path] == "drwx------", (path, contents["/" + path])
    for path in ("/usr/sbin/orvd", "/usr/lib/systemd/system/orvd.service", "/usr/share/man/man8/orvd.8",
                 "/usr/lib/systemd/system/orvd-reload-trackers.service", "/usr/libexec/orvd/reload-trackers"):
        assert path in contents, path

    started = []
    try:
        install = run("dpkg", "-i", deb, timeout=300)
        assert install.returncode == 0, install.stdout + install.stderr
        if not os.path.isdir("/run/systemd/system"):
            assert "systemd is not running; start the agent with /usr/sbin/orvd" in install.stdout
        for path in PRIVATE_DIRS:
            assert mode("/" + path) == 0o700, path
        result = run("/usr/sbin/orvd", "-h", timeout=30)
        assert result.returncode == 0 and result.stdout.startswith("orvd version %s\n\nUsage:\n" % VERSION)

        with ca_server.CertificateAuthorityServer(state_dir=tmp_path / "ca") as ca:
            # The first command enrols the agent, then lists the (empty) configuration;
            # commands always exit with status 1.
            result = run("/usr/sbin/orvd", "get_config", timeout=180, ORVD_CA_URL=ca.url)
            assert result.returncode == 1, result.stdout + result.stderr
            assert "Certificate information not found, recreating certificate." in result.stdout
            assert result.stdout.endswith("Current configuration settings:\n"), result.stdout
        assert sorted(os.listdir("/etc/zelko/orv/certs")) == ["ca.crt", "server.csr", "server.key", "server.pem"]
        assert mode("/etc/zelko/orv/certs/server.key") == 0o600
        port = free_port()
        result = run("/usr/sbin/orvd", "set_config", "rest_port", str(port))
        assert (result.returncode, result.stdout.splitlines()[-1]) == (1, "Setting config key rest_port to %d" % port)

        # Without systemd the agent forks away with daemon(0,0): the command returns at
        # once and the daemon's pid appears in the PID file.
        result = run("/usr/sbin/orvd")
        assert result.returncode == 0, result.stdout + result.stderr
        pid = wait_for(daemon_pid, timeout=30, interval=0.05, what="the daemon to write /var/run/orvd.pid")
        started.append(pid)
        assert pid != os.getpid()
        # The commands work beside the running daemon, on the same database.
        result = run("/usr/sbin/orvd", "get_config")
        assert result.stdout.endswith("Current configuration settings:\nrest_port = %d\n" % port), result.stdout
        os.kill(pid, signal.SIGTERM)
        wait_for(lambda: not installed_agent_alive(pid), timeout=60, interval=0.05, what="orvd %d to end" % pid)
        assert not os.path.exists("/var/run/orvd.pid")
        with sqlite3.connect("/etc/zelko/orv/orvd.sqlite") as db:
            assert "Shutting down" in [row[0] for row in db.execute("SELECT message FROM logs ORDER BY id")]

        # A plain remove keeps the identity, the database and the scripts: a reinstall
        # starts with them, without enrolling again.
        write_script("/etc/zelko/orv/pps", "quiesce", "echo PRE-DONE")
        remove = run("dpkg", "--remove", "orvd", timeout=600)
        assert remove.returncode == 0, remove.stdout + remove.stderr
        assert not os.path.exists("/usr/sbin/orvd")
        kept = ["/etc/zelko/orv/orvd.sqlite", "/etc/zelko/orv/pps/quiesce"] + [
            "/etc/zelko/orv/certs/" + name for name in ("ca.crt", "server.csr", "server.key", "server.pem")]
        assert [p for p in kept if not os.path.isfile(p)] == []
        install = run("dpkg", "-i", deb, timeout=300)
        assert install.returncode == 0, install.stdout + install.stderr
        result = run("/usr/sbin/orvd", "get_config", ORVD_CA_URL="https://127.0.0.1:9/certApi.php")
        assert result.returncode == 1
        assert result.stdout.endswith("Current configuration settings:\nrest_port = %d\n" % port), result.stdout

        # Purging stops an agent still running, then removes everything it owned.
        result = run("/usr/sbin/orvd")
        assert result.returncode == 0, result.stdout + result.stderr
        pid = wait_for(daemon_pid, timeout=30, interval=0.05, what="the daemon to write /var/run/orvd.pid")
        started.append(pid)
        purge = run("dpkg", "--purge", "orvd", timeout=600)
        assert purge.returncode == 0, purge.stdout + purge.stderr
        assert "orvd: stopping the agent (pid %d)" % pid in purge.stdout, purge.stdout
        assert not installed_agent_alive(pid)
    finally:
        for pid in started:
            if installed_agent_alive(pid):
                os.kill(pid, signal.SIGKILL)
        if package_installed():
            subprocess.run(["dpkg", "--purge", "orvd"], capture_output=True, timeout=600)

    assert not package_installed()
    left = [p for p in SYSTEM_PATHS if os.path.lexists(p)]
    left += [p for p, kind in contents.items() if not kind.startswith("d") and os.path.lexists(p)]
    assert left == []
