"""Drill: the snapshot driver fails each of its four calls in turn, on one volume. Every
failed backup says in the history which call failed and with what errno, no volume is left
in snapshot mode, busy calls (EBUSY, EAGAIN) are retried, and the next backup leaves an
image that verifies."""
import errno

from volumes import fill_volume


def failed_calls(rig, backup_id):
    return [(row[2], row[5]) for row in rig.history(backup_id=backup_id) if row[3] == "failure"]


def check_failed_backup(rig, volume, faults, failed, states):
    """Runs a backup with the faults injected; it fails on the calls `failed`, leaving `states`."""
    for fault in faults:
        rig.sim.zbdctl("fault", *fault)
    backup_id = rig.start([volume])
    assert rig.wait(backup_id)["status"] == "failed"
    assert rig.history("backup_run", backup_id)[-1][3:5] == ("failure", "Volume backup failed.")
    assert failed_calls(rig, backup_id) == failed + [("backup_run", 0)]
    assert rig.states() == states


def test_each_driver_call_fails_in_turn(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=64, seed=51)
    rig.add_target(volume)
    # The first snapshot of a volume: no retry, not even for EBUSY.
    check_failed_backup(rig, volume, [("setup_snapshot", errno.EBUSY, 1)],
                        [("zelkobd_setup_snapshot", errno.EBUSY)], [])
    assert rig.backup([volume])["status"] == "finished"
    assert rig.states() == [2]
    # Turning the tracker back into a snapshot: the tracker goes on, with what it saw.
    volume.manifest.update(fill_volume(volume.mountpoint, seed=53, small_files=20, large_files=1, large_mib=2,
                                       sparse_files=0))
    check_failed_backup(rig, volume, [("transition_snapshot", errno.EIO, 1)],
                        [("zelkobd_transition_snapshot", errno.EIO)], [2])
    # Destroying a tracker that reports a driver error: the backup stops before any snapshot.
    rig.sim.zbdctl("set-error", 0, -errno.EIO)
    check_failed_backup(rig, volume, [("destroy", errno.EIO, 1)], [("destroy_driver_device", errno.EIO)], [2])
    # A busy destroy is retried once a second; then the snapshot is made anew and copied,
    # and turning it into a tracker fails: the snapshot is not left behind.
    rig.sim.zbdctl("set-error", 0, -errno.EIO)
    check_failed_backup(rig, volume, [("destroy", errno.EBUSY, 2), ("transition_incremental", errno.EIO, 1)],
                        [("zelkobd_transition_incremental", errno.EIO)], [])
    assert rig.agent.logs().count("Destroy driver device retry: Return = -1 errno = %d" % errno.EBUSY) == 2
    assert any(line.startswith("snapcleaner found a volume in snapshot mode") for line in rig.agent.logs())
    # A busy transition to incremental is retried too, and the image is whole.
    rig.sim.zbdctl("fault", "transition_incremental", "EAGAIN", 1)
    status = rig.backup([volume])
    assert status["status"] == "finished", status
    assert rig.agent.logs().count(
        "Transition snapshot to incremental retry: Return = -1 errno = %d" % errno.EAGAIN) == 1
    assert rig.states() == [2]
    assert rig.verify_image(volume) == []


def test_a_destroy_the_driver_refuses_leaves_the_snapshot_to_the_next_backup(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=64, seed=56)
    rig.add_target(volume)
    # The copy's end fails, and so does the clean-up's destroy.
    rig.sim.zbdctl("fault", "transition_incremental", "EIO", 1)
    rig.sim.zbdctl("fault", "destroy", "EIO", 1)
    backup_id = rig.start([volume])
    assert rig.wait(backup_id)["status"] == "failed"
    assert failed_calls(rig, backup_id) == [("zelkobd_transition_incremental", errno.EIO),
                                            ("destroy_driver_device", errno.EIO), ("backup_run", 0)]
    # The one case where a snapshot outlives its backup: the driver refused to let go.
    assert rig.states() == [3]
    backup_id = rig.start([volume])
    assert rig.wait(backup_id)["status"] == "finished"
    assert ("destroy_driver_device", "success") in [(r[2], r[3]) for r in rig.history(backup_id=backup_id)]
    assert rig.states() == [2]
    assert rig.verify_image(volume) == []
