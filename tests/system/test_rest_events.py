"""GET /event: the filters of the logs resource and the exact text of its document."""
import json
import time


def local(seconds_ago):
    return time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(time.time() - seconds_ago))


def epoch(text):
    return int(time.mktime(time.strptime(text, "%Y-%m-%d %H:%M:%S")))


ESCAPED = 'tab\there\nquote" back\\slash \b\f end'


def test_filters_exact_text_and_escapes(running_agent, paired_client):
    rows = [("b-1", 2, "info of b-1", local(7200)), ("b-1", 3, "warning of b-1", local(7100)),
            ("b-1", 5, "critical of b-1", local(7000)), ("b-2", 4, "error of b-2", local(6000)),
            ("b-3", 3, "three hours ago", local(3 * 3600)), ("b-3", 3, "two hours ago", local(2 * 3600)),
            ("b-3", 3, "one hour ago", local(3600)), ("esc", 4, ESCAPED, local(10))]
    for row in rows:
        running_agent.query("INSERT INTO logs ( backup_id, level, message, datetm ) VALUES ( ?, ?, ?, ? )", row)
    entry = [{"severity": r[1], "backupid": r[0], "timestamp": epoch(r[3]), "message": r[2], "raw": r[3]}
             for r in rows]

    response = paired_client.events(backupid="b-1")
    assert (response.status, response.content_type) == (200, "application/json")
    item = '\t\t{\n\t\t\t"severity" : %d,\n\t\t\t"backupid" : "b-1",\n\t\t\t"timestamp" : %d,\n' \
           '\t\t\t"message" : "%s",\n\t\t\t"raw" : "%s"\n\t\t}'
    expected = '{\n\t"log" : [\n%s,\n%s\n\t]\n}' % tuple(item % (r[1], epoch(r[3]), r[2], r[3]) for r in rows[1:3])
    assert response.body == expected.encode()
    assert paired_client.events(backupid="none").body == b'{\n\t"log" : []\n}'

    body = paired_client.events(backupid="esc").body
    assert b'"message" : "tab\\there\\nquote\\" back\\\\slash \\b\\f end"' in body
    assert json.loads(body)["log"][0]["message"] == ESCAPED

    for query, want in [
            (dict(severity=1, backupid="b-1"), entry[0:3]), (dict(severity=5, backupid="b-1"), entry[2:3]),
            (dict(severity=1, lines=2, backupid="b-1"), entry[0:2]),
            (dict(severity="abc", backupid="b-1"), entry[0:3]),  # not a number reads as 0: every level
            (dict(backupid="b-3", after=local(2 * 3600 + 600)), entry[5:7])]:
        assert paired_client.events(**query).json()["log"] == want, query

    # No arguments: severity 3 and all lines, including the agent's own records.
    records = paired_client.events().json()["log"]
    assert entry[3] in records and all(r["severity"] >= 3 for r in records)
    assert "Get logs request. Level 3" in running_agent.logs()
    # The route is matched by prefix.
    assert paired_client.request("GET", "/events?backupid=b-2&severity=4").json() == {"log": [entry[3]]}
