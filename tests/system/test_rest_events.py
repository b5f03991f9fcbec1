"""GET /event: the filters of the logs resource and the exact text of its document."""
import json
import time

import pytest


def local(seconds_ago):
    return time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(time.time() - seconds_ago))


def epoch(text):
    return int(time.mktime(time.strptime(text, "%Y-%m-%d %H:%M:%S")))


def formatted(value, level=0):
    """The agent's formatted text form, written independently of the agent."""
    tabs = "\t" * (level + 1)
    if isinstance(value, dict):
        if not value:
            return "{}"
        items = ["\n%s%s : %s" % (tabs, json.dumps(k), formatted(v, level + 1)) for k, v in value.items()]
        return "{" + ",".join(items) + "\n" + "\t" * level + "}"
    if isinstance(value, list):
        if not value:
            return "[]"
        return "[" + ",".join("\n%s%s" % (tabs, formatted(v, level + 1)) for v in value) + "\n" + "\t" * level + "]"
    return json.dumps(value, ensure_ascii=False)


@pytest.fixture
def logged(running_agent, paired_client):
    """Log records of three backups at known times, written straight into the table."""
    rows = [
        ("b-1", 2, "info of b-1", local(7200)),
        ("b-1", 3, "warning of b-1", local(7100)),
        ("b-1", 5, "critical of b-1", local(7000)),
        ("b-2", 4, "error of b-2", local(6000)),
        ("b-3", 3, "three hours ago", local(3 * 3600)),
        ("b-3", 3, "two hours ago", local(2 * 3600)),
        ("b-3", 3, "one hour ago", local(3600)),
    ]
    for row in rows:
        running_agent.query("INSERT INTO logs ( backup_id, level, message, datetm ) VALUES ( ?, ?, ?, ? )", row)
    return {(r[0], r[2]): r for r in rows}


def entry(row):
    return {"severity": row[1], "backupid": row[0], "timestamp": epoch(row[3]), "message": row[2], "raw": row[3]}


def test_backup_filter_and_exact_text(running_agent, paired_client, logged):
    response = paired_client.events(backupid="b-1")
    assert (response.status, response.content_type) == (200, "application/json")
    warning, critical = logged[("b-1", "warning of b-1")], logged[("b-1", "critical of b-1")]
    expected = (
        '{\n\t"log" : [\n'
        '\t\t{\n'
        '\t\t\t"severity" : 3,\n'
        '\t\t\t"backupid" : "b-1",\n'
        '\t\t\t"timestamp" : %d,\n'
        '\t\t\t"message" : "warning of b-1",\n'
        '\t\t\t"raw" : "%s"\n'
        '\t\t},\n'
        '\t\t{\n'
        '\t\t\t"severity" : 5,\n'
        '\t\t\t"backupid" : "b-1",\n'
        '\t\t\t"timestamp" : %d,\n'
        '\t\t\t"message" : "critical of b-1",\n'
        '\t\t\t"raw" : "%s"\n'
        '\t\t}\n'
        '\t]\n}') % (epoch(warning[3]), warning[3], epoch(critical[3]), critical[3])
    assert response.body == expected.encode()

    response = paired_client.events(backupid="none")
    assert response.body == b'{\n\t"log" : []\n}'


def test_severity_lines_and_time_bound(running_agent, paired_client, logged):
    b1 = [entry(logged[("b-1", m)]) for m in ("info of b-1", "warning of b-1", "critical of b-1")]
    assert paired_client.events(severity=1, backupid="b-1").json()["log"] == b1
    assert paired_client.events(severity=5, backupid="b-1").json()["log"] == b1[2:]
    assert paired_client.events(severity=1, lines=2, backupid="b-1").json()["log"] == b1[:2]
    # Text that is not a number reads as 0: every level.
    assert paired_client.events(severity="abc", backupid="b-1").json()["log"] == b1

    b3 = [entry(logged[("b-3", m)]) for m in ("two hours ago", "one hour ago")]
    response = paired_client.events(backupid="b-3", after=local(2 * 3600 + 600))
    assert response.body == formatted({"log": b3}).encode()

    # No arguments: severity 3 and all lines, including the agent's own records.
    records = paired_client.events().json()["log"]
    assert entry(logged[("b-2", "error of b-2")]) in records
    assert all(r["severity"] >= 3 for r in records)
    assert "Get logs request. Level 3" in running_agent.logs()
    # The route is matched by prefix.
    assert paired_client.request("GET", "/events?backupid=b-2&severity=4").json() == {
        "log": [entry(logged[("b-2", "error of b-2")])]}


def test_messages_are_escaped(running_agent, paired_client):
    message = 'tab\there\nquote" back\\slash \b\f end'
    running_agent.query("INSERT INTO logs ( backup_id, level, message, datetm ) VALUES ( 'esc', 4, ?, ? )",
                        (message, local(10)))
    body = paired_client.events(backupid="esc").body
    assert b'"message" : "tab\\there\\nquote\\" back\\\\slash \\b\\f end"' in body
    assert json.loads(body)["log"][0]["message"] == message


def test_server_answers_match_the_formatted_form(running_agent, paired_client):
    """Every document the agent answers here is in the formatted form, byte for byte."""
    for path in ("/config", "/event?severity=4", "/event?lines=3&severity=1"):
        response = paired_client.request("GET", path)
        assert response.status == 200
        assert response.body == formatted(json.loads(response.body)).encode(), path
