"""50 appliance clients polling at once get only right answers (ORV_REST_SOAK_SECONDS, default 20)."""
import os
import threading
import time

CLIENTS = 50
SECONDS = float(os.environ.get("ORV_REST_SOAK_SECONDS", "20"))


def test_fifty_clients_polling(running_agent, appliance, paired_client):
    running_agent.query("INSERT INTO logs ( backup_id, level, message, datetm ) VALUES "
                        "( 'soak', 4, 'fixed record', '2030-01-01 00:00:00' )")
    config, events = paired_client.get_config().body, paired_client.events(backupid="soak").body
    assert b"fixed record" in events
    stranger = appliance(7)
    expected = {"config": (paired_client, "GET", "/config", 200, config),
                "event": (paired_client, "GET", "/event?backupid=soak", 200, events),
                "stranger": (stranger, "GET", "/config", 401, b""),
                "bad": (paired_client, "DELETE", "/backup", 400, b"Bad request.")}
    kinds = ["config", "event", "config", "stranger", "config", "bad"]
    counts, failures, latencies = {kind: 0 for kind in expected}, [], []
    lock = threading.Lock()
    deadline = time.time() + SECONDS

    def poll(i):
        while time.time() < deadline:
            kind = kinds[i % len(kinds)]
            i += 1
            client, method, path, status, body = expected[kind]
            started = time.time()
            try:
                response = client.request(method, path)
                problem = None if (response.status, response.body) == (status, body) else "%s: %r" % (kind, response)
            except Exception as e:  # noqa: BLE001 - every failure is a finding here
                problem = "%s: %s" % (kind, e)
            with lock:
                latencies.append(time.time() - started)
                if problem:
                    failures.append(problem)
                else:
                    counts[kind] += 1

    threads = [threading.Thread(target=poll, args=(n,)) for n in range(CLIENTS)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(timeout=SECONDS + 180)
    assert not any(thread.is_alive() for thread in threads)
    latencies.sort()
    print("\n%d clients, %.0f s: %s, latency median %.3f s, max %.3f s" % (
        CLIENTS, SECONDS, counts, latencies[len(latencies) // 2], latencies[-1]))
    assert failures == []
    assert all(counts.values()), counts
    assert paired_client.get_config().body == config
    assert running_agent.stop() == 0
