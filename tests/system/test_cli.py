"""The command line, configuration commands, PID-file lock and start-up checks."""
import os
import shutil
import signal
import sqlite3
import subprocess
import tempfile

import pytest

from agent import free_port

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


def test_help_prints_usage_byte_for_byte(agent_root):
    for option in ("-h", "--help"):
        result = agent_root.run(option)
        assert result.returncode == 0
        assert result.stdout == USAGE
    # Help exits before anything else: no database was made.
    assert not os.path.exists(agent_root.db_path)


@pytest.mark.parametrize("level", ["0", "6", "abc", "-1"])
def test_invalid_levels_exit_zero(agent_root, level):
    result = agent_root.run("-l", level)
    assert result.returncode == 0
    assert result.stdout == "Invalid log level: %s\n" % level


def test_configuration_commands_print_exact_texts_and_exit_one(agent):
    result = agent.run("get_config")
    assert (result.returncode, result.stdout) == (1, "Current configuration settings:\n")

    result = agent.run("set_config", "rest_port")
    assert (result.returncode, result.stdout) == (1, "set_config requires a key and value.\n")
    result = agent.run("set_config", "", "5")
    assert (result.returncode, result.stdout) == (1, "set_config key invalid.\n")
    result = agent.run("set_config", "k", "")
    assert (result.returncode, result.stdout) == (1, "set_config value invalid.\n")

    hostile = "it's \"x\"; DROP TABLE config;"
    result = agent.run("set_config", "note", hostile)
    assert (result.returncode, result.stdout) == (1, "Setting config key note to %s\n" % hostile)
    agent.set_config("cow_percent", 20)
    result = agent.run("get_config")
    assert result.stdout == "Current configuration settings:\nnote = %s\ncow_percent = 20\n" % hostile

    # Values that look like options are values after a command word.
    result = agent.run("set_config", "log_days_to_keep", "-1")
    assert (result.returncode, result.stdout) == (1, "Setting config key log_days_to_keep to -1\n")
    agent.run("delete_config", "log_days_to_keep")

    result = agent.run("delete_config")
    assert (result.returncode, result.stdout) == (1, "delete_config requires a key.\n")
    result = agent.run("delete_config", "")
    assert (result.returncode, result.stdout) == (1, "delete_config key invalid.\n")
    result = agent.run("delete_config", "note")
    assert (result.returncode, result.stdout) == (1, "Deleting config key note\n")
    assert agent.query("SELECT name, value FROM config") == [("cow_percent", "20")]


def test_display_flag_and_level_threshold(agent):
    start_daemon(agent, "--level", "3")
    agent.wait_output("Log level: 3")
    agent.stop()
    out = agent.output()
    assert "Log to display on." in out
    # INFO is stored but not shown under -l 3.
    assert "[INFO] Shutting down" not in out
    assert "Shutting down" in agent.logs()


def test_command_word_not_first_starts_the_daemon(agent):
    start_daemon(agent, "get_config")
    assert agent.process.poll() is None
    assert agent.stop() == 0


def test_second_instance_is_refused_and_sigterm_cleans_up(agent):
    first = start_daemon(agent)
    pid_text = open(agent.pid_file).read()
    assert pid_text == str(first.pid)
    second = subprocess.run([os.environ.get("ORVD_BIN"), "-d"], env=agent.env, capture_output=True, text=True,
                            timeout=60)
    assert second.returncode == 1
    assert second.stdout.endswith("Could not start Zelko Linux Agent. An instance of the service is already running.\n")
    assert open(agent.pid_file).read() == pid_text
    assert agent.stop(signal.SIGTERM) == 0
    assert not os.path.exists(agent.pid_file)
    logs = agent.logs()
    assert logs.index("Shutting down") < logs.index("All backups cancelled")


def test_stale_pid_file_is_taken_over_and_missing_directory_refused(agent):
    open(agent.pid_file, "w").write("999999")
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


def test_unusable_database_stops_start_up(agent):
    with open(agent.db_path, "w") as f:
        f.write("not a database " * 200)
    result = agent.run("get_config")
    assert result.returncode == 1
    assert result.stdout == "Could not start Zelko Linux Agent. Failed to initialize sqlite3 database.\n"
    os.remove(agent.db_path)
    os.mkdir(agent.db_path)  # a directory where the file should be
    result = agent.run("get_config")
    assert result.stdout == "Could not start Zelko Linux Agent. Failed to initialize sqlite3 database.\n"


def test_database_versions(agent):
    agent.run("get_config")
    assert agent.query("SELECT name FROM sqlite_master WHERE type = 'table' AND name != 'sqlite_sequence' "
                       "ORDER BY name") == [("about",), ("config",), ("device",), ("history",), ("logs",)]
    assert agent.query("SELECT version FROM about") == [("1.0.0",)]
    with sqlite3.connect(agent.db_path) as db:
        db.execute("UPDATE about SET version = '2.0.0'")
        db.execute("INSERT INTO config (name, value) VALUES ('kept', 'yes')")
    agent.run("get_config")
    assert agent.query("SELECT version FROM about") == [("2.0.0",)]
    assert agent.query("SELECT value FROM config WHERE name = 'kept'") == [("yes",)]
    with sqlite3.connect(agent.db_path) as db:
        db.execute("DELETE FROM about")
    agent.run("get_config")
    assert agent.query("SELECT version FROM about") == [("1.0.0",)]
    assert agent.query("SELECT * FROM config") == []
