"""The command line, configuration commands, PID-file lock and start-up checks."""
import os
import shutil
import signal
import tempfile

from agent import free_port, wait_for

USAGE = (
    "orvd version 1.0.16\n\n"
    "Usage:\n"
    "  -h, --help\n\tHelp: display this help and exit.\n\n"
    "  -s, --syslog\n  Syslog: send warnings/errors to the syslog.\n\n"
    "  -d, --display\n  Display: send warnings/errors to the display.\n\n"
    "  -l, --level LEVEL\n\tLog level: output to the screen or syslog.\n\t\tLevels:\n"
    "\t\t\t1 = DEBUG\n\t\t\t2 = INFO\n\t\t\t3 = WARNING\n\t\t\t4 = ERROR\n\t\t\t5 = CRITICAL\n\n"
    "get_config                 displays a list of current configuration settings\n"
    "set_config <key> <value>   sets the config key to value\n"
    "delete_config <key>        deletes the config key from the config table\n"
    "reset_certificate          recreates the taloq to agent certificate\n\n"
    "Available configuration options:\n\n"
    "cow_percent #       - percentage of disk size to use for cow file.\n"
    "max_cow_megs #      - max size in MiB allowed for the cow file.\n"
    "disable_cowskip Y   - override the default behavior of not copying the cow file during backup.\n"
    "disable_usedblock Y - override the default behavior of doing backups based on the used blocks of a volume.\n"
    "rest_port #         - override the default http bind port of 25567.\n"
    "log_days_to_keep #  - override the default number of days (default 30) of logs to keep.\n"
    "log_level #         - specify the log level (0-5) for logging.\n\n"
)


def start_daemon(agent, *args):
    agent.set_config("rest_port", free_port())
    return agent.start(*args)


def test_help_and_invalid_levels(agent_root):
    for option in ("-h", "--help"):
        result = agent_root.run(option)
        assert (result.returncode, result.stdout) == (0, USAGE)
    for level in ("0", "6", "abc"):
        result = agent_root.run("-l", level)
        assert (result.returncode, result.stdout) == (0, "Invalid log level: %s\n" % level)
    # Both exit before anything else: no database was made.
    assert not os.path.exists(agent_root.db_path)


def test_configuration_commands_print_exact_texts_and_exit_one(agent):
    hostile = "it's \"x\"; DROP TABLE config;"
    for args, out in [
            (["get_config"], "Current configuration settings:\n"),
            (["set_config", "rest_port"], "set_config requires a key and value.\n"),
            (["set_config", "", "5"], "set_config key invalid.\n"),
            (["set_config", "k", ""], "set_config value invalid.\n"),
            (["set_config", "note", hostile], "Setting config key note to %s\n" % hostile),
            (["set_config", "cow_percent", "20"], "Setting config key cow_percent to 20\n"),
            (["get_config"], "Current configuration settings:\nnote = %s\ncow_percent = 20\n" % hostile),
            # Values that look like options are values after a command word.
            (["set_config", "log_days_to_keep", "-1"], "Setting config key log_days_to_keep to -1\n"),
            (["delete_config", "log_days_to_keep"], "Deleting config key log_days_to_keep\n"),
            (["delete_config"], "delete_config requires a key.\n"),
            (["delete_config", ""], "delete_config key invalid.\n"),
            (["delete_config", "note"], "Deleting config key note\n")]:
        result = agent.run(*args)
        assert (result.returncode, result.stdout) == (1, out), args
    assert agent.query("SELECT name, value FROM config") == [("cow_percent", "20")]


def test_daemon_display_level_lock_and_orderly_stop(agent):
    # A command word that is not first starts the daemon.
    first = start_daemon(agent, "--level", "3", "get_config")
    wait_for(lambda: "Log level: 3" in agent.output(), what="the level line")
    pid_text = open(agent.pid_file).read()
    assert pid_text == str(first.pid)
    second = agent.run("-d")
    assert second.returncode == 1
    assert second.stdout.endswith("Could not start Zelko Linux Agent. An instance of the service is already running.\n")
    assert open(agent.pid_file).read() == pid_text
    assert agent.stop(signal.SIGTERM) == 0
    assert not os.path.exists(agent.pid_file)
    out, logs = agent.output(), agent.logs()
    assert "Log to display on." in out
    assert "[INFO] Shutting down" not in out  # INFO is stored but not shown under -l 3
    assert logs.index("Shutting down") < logs.index("All backups cancelled")

    open(agent.pid_file, "w").write("999999")  # stale: taken over
    start_daemon(agent)
    assert agent.stop(signal.SIGINT) == 0
    agent.env["ORVD_PID_FILE"] = os.path.join(agent.root, "missing", "orvd.pid")
    result = agent.run("-d")
    assert result.returncode == 1
    assert result.stdout.endswith("Could not start Zelko Linux Agent. Failed to lock PID file: Unable to lock file\n")


def test_non_root_gets_root_message_after_database_exists(agent):
    # pytest's own temporary tree is private to root: give the other user a root of its own.
    etc = tempfile.mkdtemp(prefix="orv-nonroot-")
    try:
        os.chmod(etc, 0o777)
        agent.env["ORVD_ETC_DIR"] = etc
        result = agent.run("get_config", user="nobody")
        assert result.returncode == 1
        assert result.stdout == "Could not start Zelko Linux Agent. The application must be run by the root account.\n"
        assert os.path.exists(os.path.join(etc, "orvd.sqlite"))
    finally:
        shutil.rmtree(etc)


def test_database_versions_and_unusable_database(agent):
    agent.run("get_config")
    assert agent.query("SELECT name FROM sqlite_master WHERE type = 'table' AND name != 'sqlite_sequence' "
                       "ORDER BY name") == [("about",), ("config",), ("device",), ("history",), ("logs",)]
    assert agent.query("SELECT version FROM about") == [("1.0.0",)]
    agent.query("UPDATE about SET version = '2.0.0'")
    agent.query("INSERT INTO config (name, value) VALUES ('kept', 'yes')")
    agent.run("get_config")
    assert agent.query("SELECT version FROM about") == [("2.0.0",)]
    assert agent.query("SELECT value FROM config WHERE name = 'kept'") == [("yes",)]
    agent.query("DELETE FROM about")
    agent.run("get_config")
    assert agent.query("SELECT version FROM about") == [("1.0.0",)]
    assert agent.query("SELECT * FROM config") == []

    os.remove(agent.db_path)
    with open(agent.db_path, "w") as f:
        f.write("not a database " * 200)
    failed = "Could not start Zelko Linux Agent. Failed to initialize sqlite3 database.\n"
    result = agent.run("get_config")
    assert (result.returncode, result.stdout) == (1, failed)
    os.remove(agent.db_path)
    os.mkdir(agent.db_path)  # a directory where the file should be
    assert agent.run("get_config").stdout == failed
