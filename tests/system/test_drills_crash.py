"""Drill: the daemon is killed (SIGKILL: no shutdown, no clean-up) in the middle of a full
copy and started again. The next backup of the volume destroys the snapshot left behind and
its image verifies; the database survives the kill."""
import os
import signal
import time


def test_sigkill_mid_copy_then_restart_and_back_up_again(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=256, seed=61)
    rig.add_target(volume)
    backup_id = rig.start_long_copy(volume)
    done = rig.status(backup_id)["details"][0]["transfer"]["bytesTransferred"]
    killed_at = time.monotonic()
    rig.agent.stop(signal.SIGKILL)
    # The PID file of the dead daemon is still there; its lock went with the process.
    rig.agent.start()
    rig.agent.wait_listening(rig.agent.port)
    print("\nkilled after %d MiB of 256; serving again %.1f s later" % (done >> 20, time.monotonic() - killed_at))
    assert rig.agent.query("PRAGMA integrity_check") == [("ok",)]
    assert rig.states() == [3]
    # The new daemon knows nothing of the old backup.
    assert rig.client.backup_status(backup_id).status == 500
    status = rig.backup([volume])
    assert status["status"] == "finished", status
    assert rig.states() == [2]
    assert "A snapshot exists for %s. Minor number: 0 State: 3" % volume.uuid in rig.agent.logs()
    assert rig.verify_image(volume) == []
    # No COW file of the killed backup is left on the volume besides the tracker's own.
    tracked = rig.sim.info()["devices"][0]["cow_file"]
    assert [n for n in (".zelko", ".zelko1") if volume.path(n) != tracked and os.path.exists(volume.path(n))] == []
