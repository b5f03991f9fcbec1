"""Drill: the daemon is killed (SIGKILL: no shutdown, no clean-up) in the middle of a
full copy and started again. The snapshot it left behind is destroyed by the next backup of
the volume, whose image verifies; the database survives the kill."""
import os
import signal
import time

from agent import wait_for


def states(rig):
    return [d["state"] for d in rig.sim.info()["devices"]]


def kill_and_restart(rig):
    rig.agent.stop(signal.SIGKILL)
    # The PID file of the dead daemon is still there; its lock went with the process.
    rig.agent.start()
    rig.agent.wait_listening(rig.agent.port)
    assert rig.agent.query("PRAGMA integrity_check") == [("ok",)]


def test_sigkill_mid_copy_then_restart_and_back_up_again(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=256, seed=61)
    rig.add_target(volume)
    rig.agent.set_config("disable_usedblock", "Y")

    # Killed in the middle of the first, full copy.
    backup_id = rig.start([volume])
    done = wait_for(lambda: rig.status(backup_id)["details"][0]["transfer"]["bytesTransferred"], timeout=120,
                    interval=0.05, what="the copy to start")
    killed_at = time.monotonic()
    kill_and_restart(rig)
    print("\nkilled after %d MiB of 256; serving again %.1f s later" % (done >> 20, time.monotonic() - killed_at))
    assert states(rig) == [3]
    # The new daemon knows nothing of the old backup.
    assert rig.client.backup_status(backup_id).status == 500
    status = rig.backup([volume])
    assert status["status"] == "finished", status
    assert states(rig) == [2]
    assert "A snapshot exists for %s. Minor number: 0 State: 3" % volume.uuid in rig.agent.logs()
    assert rig.verify_image(volume) == []

    # No COW file of the killed backups is left on the volume besides the tracker's own.
    tracked = rig.sim.info()["devices"][0]["cow_file"]
    leftovers = [name for name in (".zelko", ".zelko1") if volume.path(name) != tracked]
    assert [name for name in leftovers if os.path.exists(volume.path(name))] == []
