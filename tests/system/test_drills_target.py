"""Drill: the iSCSI target goes away and comes back again and again while one full copy
runs. The writer reconnects up to five times per write; the backup either finishes with an
image that verifies or fails with error 108, and in both cases no volume is left in
snapshot mode. ORV_TARGET_RESTARTS sets the number of restarts (default 20)."""
import os
import time

from backup_rig import TERMINAL

RESTARTS = int(os.environ.get("ORV_TARGET_RESTARTS", "20"))
# Every restart costs the copy at least one chunk (12 MiB) of progress before the next:
# 512 MiB holds 42 chunks, enough for 20 restarts with room to spare.
VOLUME_MIB = max(256, RESTARTS * 24)


def test_target_restarted_again_and_again_during_one_full_copy(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=VOLUME_MIB, seed=41)
    rig.add_target(volume)
    backup_id = rig.start_long_copy(volume)  # every block: long enough to be cut many times
    transferred = lambda status: status["details"][0]["transfer"]["bytesTransferred"]
    restarts, last = [], 0
    status = rig.status(backup_id)
    while len(restarts) < RESTARTS and status["status"] not in TERMINAL:
        # Cut the session again only once the writer has come back and moved on.
        if transferred(status) > last:
            last = transferred(status)
            started = time.monotonic()
            rig.tgtd.restart()
            restarts.append((last, time.monotonic() - started))
        else:
            time.sleep(0.02)
        status = rig.status(backup_id)
    status = rig.wait(backup_id, timeout=600)

    retries = sum(line in ("Write iscsi failed, sleeping, reconnecting, and retrying",
                           "Read iscsi failed, sleeping, reconnecting, and retrying") for line in rig.agent.logs())
    print("\n%d target restarts (%.2f s each at most) during a %d MiB copy: %s, %d reconnects" % (
        len(restarts), max(r[1] for r in restarts), VOLUME_MIB, status["status"], retries))
    assert 3 not in rig.states()
    if status["status"] == "finished":
        # The copy lived through every restart, mending cut sessions by reconnecting (15 to
        # 20 times in our runs: a restart can fall where no write needs the old session).
        assert len(restarts) == RESTARTS, restarts
        assert retries > 0
        assert rig.history("backup_run", backup_id)[-1][3:5] == ("success", "Backup successful.")
        assert rig.verify_image(volume) == []
        return
    assert status["errorData"]["errorCode"] == 108, status
    assert rig.history("backup_run", backup_id)[-1][3:5] == ("failure", "Volume backup failed.")
    # The target and the agent are whole afterwards: the next backup verifies.
    assert rig.backup([volume])["status"] == "finished"
    assert rig.verify_image(volume) == []
