"""The configuration resource, the port it sets and the server's restart after a write."""
import os
import socket
import time

from agent import ConnectionFailure, accepts_tls, free_port, wait_for

DEFAULT_PORT = 25567


def test_get_config_document_and_missing_key(running_agent, paired_client):
    response = paired_client.get_config()
    assert (response.status, response.content_type) == (200, "application/json")
    expected = '{\n\t"rest_port" : %d,\n\t"log_days_to_keep" : 30,\n\t"log_level" : 3\n}' % running_agent.port
    assert response.body == expected.encode()
    running_agent.set_config("log_level", "4x")  # strtol reads the leading digits
    assert paired_client.get_config().json()["log_level"] == 4
    assert running_agent.run("delete_config", "log_level").returncode == 1
    assert (paired_client.get_config().status, paired_client.get_config().body) == (500, b"")
    assert "Get logs handler exception: Could not retrieve configurations." in running_agent.logs()


def test_post_config_bodies_restart_and_move_the_server(running_agent, paired_client):
    def post(body):
        return paired_client.request("POST", "/config", body)

    for body in ["{", '{"rest_port": 1', "[1, 2]", "", '"text"']:
        assert post(body).status == 400, body
    assert "Invalid JSON: {" in running_agent.logs()
    assert running_agent.config("log_level") == "3"

    # Members are read with strtol of their text; wrong types and missing members read 0.
    port = running_agent.port
    response = post('{"log_level": "5", "rest_port": "%d", "log_days_to_keep": [7], "other": {}}' % port)
    assert response.status == 200
    assert (running_agent.config("rest_port"), running_agent.config("log_level")) == (str(port), "5")
    # "0" days was stored; the logger's next prune finds it invalid and puts back 30.
    assert "Invalid log days to keep configuration - using default." in running_agent.logs()
    assert running_agent.config("log_days_to_keep") == "30"
    wait_for(lambda: "Setting server port to configuration: %d" % port in running_agent.logs()[-40:], timeout=20,
             what="the restart on the same port")
    running_agent.wait_listening(port)
    assert paired_client.get_config().json()["log_level"] == 5

    new_port = free_port()
    posted = time.time()
    response = paired_client.set_config(rest_port=new_port, log_days_to_keep="45", log_level=2)
    assert (response.status, response.body, response.content_type) == (200, b"", "text/plain")
    assert [running_agent.config(k) for k in ("rest_port", "log_days_to_keep", "log_level")] == [
        str(new_port), "45", "2"]
    assert "Http server restart in 5 secs..." in running_agent.logs()
    wait_for(lambda: accepts_tls(new_port), timeout=20, what="the new port")
    assert 4.0 <= time.time() - posted <= 12.0
    assert not accepts_tls(port)
    assert paired_client.at(new_port).get_config().json() == {"rest_port": new_port, "log_days_to_keep": 45,
                                                              "log_level": 2}
    # A restart still pending at shutdown does not hold it up.
    assert paired_client.at(new_port).set_config(rest_port=port, log_days_to_keep=30, log_level=3).status == 200
    assert running_agent.stop() == 0
    assert "Shutting down" in running_agent.logs()


def test_unusable_port_falls_back_to_the_default(running_agent, paired_client):
    # The restart fails on a taken port, gives the configuration back to 25567 and tries
    # that five seconds later. Another agent on this machine may hold 25567: then the
    # retries go on, which the log shows instead.
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as blocker:
        blocker.bind(("0.0.0.0", 0))
        blocker.listen(1)
        taken = blocker.getsockname()[1]
        assert paired_client.set_config(rest_port=taken, log_days_to_keep=30, log_level=3).status == 200
        wait_for(lambda: running_agent.config("rest_port") == "25567", timeout=20, what="the fallback")
        logs = running_agent.logs()
        assert "Setting server port to configuration: %d" % taken in logs
        assert any(m.startswith("Api server failed to start: ") for m in logs)
        assert "Could not restart api server. Trying again in 5 seconds..." in logs

    def attempt_on_default():
        logs = running_agent.logs()
        marker = "Setting server port to configuration: %d" % DEFAULT_PORT
        if marker not in logs:
            return None
        if any(m.startswith("Api server failed to start: ") for m in logs[logs.index(marker) + 1:]):
            return "busy"
        try:
            return paired_client.at(DEFAULT_PORT).get_config()  # another agent's fails our CA check
        except ConnectionFailure:
            return None

    outcome = wait_for(attempt_on_default, timeout=30, what="an attempt on the default port")
    if outcome != "busy":
        assert outcome.json() == {"rest_port": DEFAULT_PORT, "log_days_to_keep": 30, "log_level": 3}
        assert not accepts_tls(taken)
    assert running_agent.config("rest_port") == "25567"
    assert running_agent.stop() == 0


def test_unusable_server_key_ends_the_start(agent):
    with open(os.path.join(agent.cert_dir, "server.key"), "w") as f:
        f.write("not a key\n")
    agent.set_config("rest_port", free_port())
    result = agent.run("-d", timeout=60)
    assert result.returncode == 1
    assert "Could not start Zelko Linux Agent. Failed to initialize HTTP server." in result.stdout
    assert any(m.startswith("Api server failed to start: ") for m in agent.logs())
