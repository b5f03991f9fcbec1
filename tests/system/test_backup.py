"""Backups end to end: the agent as a process, the driver simulator, loop volumes and
a real tgtd target, driven over REST as the appliance drives them."""
import hashlib
import os

import pytest

from agent import wait_for



def test_two_volumes_full_backup_end_to_end(rig, loop_volumes):
    first = loop_volumes("ext4", size_mib=96, seed=1)
    second = loop_volumes("ext4", size_mib=96, seed=2)
    for volume in (first, second):
        rig.add_target(volume)
    backup_id = rig.start([first, second])
    status = rig.wait(backup_id)
    assert status["status"] == "finished", status
    assert status["errorData"] == {"errorMsg": "", "errorCode": 0, "errorParams": []}
    details = {d["volume"]: d for d in status["details"]}
    for volume in (first, second):
        record = details[volume.uuid]
        assert record["status"] == "finished"
        assert record["type"] == "full"
        assert record["transfer"]["totalSize"] > 0
        assert record["transfer"]["bytesTransferred"] == record["transfer"]["totalSize"]
        assert rig.verify_image(volume) == []
    # Both volumes are left tracked incrementally, with reload scripts for a reboot.
    devices = rig.sim.info()["devices"]
    assert sorted(d["state"] for d in devices) == [2, 2]
    for device in devices:
        script = os.path.join(rig.agent.etc_dir, "reload_%d" % device["minor"])
        assert os.access(script, os.X_OK)
        assert open(script).read().rstrip().endswith(" %d" % device["minor"])
    commands = [row[2] for row in rig.history(backup_id=backup_id)]
    for expected in ("zelkobd_setup_snapshot", "copy_full", "zelkobd_transition_incremental"):
        assert commands.count(expected) == 2, commands
    # Each volume's path records its flag, and the successful finish records it again.
    assert commands.count("incremental_ok") == 4, commands
    assert rig.history("backup_run", backup_id)[-1][3:5] == ("success", "Backup successful.")
    # The copy records carry the image checksum that the next backup validates against.
    assert all(row[6] for row in rig.history("copy_full", backup_id))


def thread_nice(pid):
    """{thread name: [nice values]} of a process's threads, the main thread first."""
    found = {}
    for tid in sorted(os.listdir("/proc/%d/task" % pid), key=lambda t: int(t) != pid):
        try:
            with open("/proc/%d/task/%s/stat" % (pid, tid)) as f:
                stat = f.read()
        except FileNotFoundError:
            continue  # ended meanwhile
        name = stat[stat.index("(") + 1:stat.rindex(")")]
        # Fields after the name: state is the third field, nice the nineteenth.
        found.setdefault(name, []).append(int(stat[stat.rindex(")") + 2:].split()[16]))
    return found


def test_second_start_while_running_and_cancel(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=256, seed=3)
    rig.add_target(volume)
    rig.agent.set_config("disable_usedblock", "Y")  # a long all-blocks copy to cancel
    backup_id = rig.start([volume])
    response = rig.client.request("POST", "/backup", body={"volumes": [rig.volume_request(volume)]})
    assert (response.status, response.text) == (400, "A backup is currently in progress.")
    wait_for(lambda: any(d["transfer"]["bytesTransferred"] > 0 for d in rig.status(backup_id)["details"]),
             timeout=120, interval=0.05, what="the copy to start")
    # The server's threads run ahead of the copy; the copy, though started by a request,
    # runs at the daemon's own priority.
    nice = thread_nice(rig.agent.process.pid)
    main = nice["orvd"][0]
    assert set(nice["MHD-listen"]) == {main - 5}, nice
    assert set(nice["orvd-backup"]) == {main} and set(nice["orvd-writer"]) == {main}, nice
    cancel = rig.client.backup_cancel(backup_id)
    assert cancel.status == 200
    assert cancel.json() == {"success": True}
    status = rig.wait(backup_id)
    assert status["status"] == "failed"
    assert rig.history("backup_run", backup_id)[-1][3:5] == ("failure", "Backup cancelled.")
    # No volume is left in snapshot mode.
    assert all(d["state"] != 3 for d in rig.sim.info()["devices"])
    # A cancel of a job that has ended fails and says so.
    again = rig.client.backup_cancel(backup_id).json()
    assert again == {"success": False, "errorString": "Cancel backup request failed or timed out."}


def test_bad_requests_fail_the_backup_and_the_agent_stays_ready(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=64, seed=4)
    rig.add_target(volume)
    # Unknown volume.
    status = rig.wait(rig.start([dict(rig.volume_request(volume), guid="00000000-dead-beef-0000-000000000000")]))
    assert status["status"] == "failed"
    assert status["errorData"]["errorMsg"].startswith("Could not get block device for GUID:")
    # Unaligned offset.
    status = rig.wait(rig.start([rig.volume_request(volume, offset=100)]))
    assert status["status"] == "failed"
    assert status["errorData"]["errorMsg"].endswith(" - Specified offset is not sector aligned")
    # No volumes at all.
    status = rig.wait(rig.start([]))
    assert status["status"] == "failed"
    # A LUN that does not exist.
    status = rig.wait(rig.start([rig.volume_request(volume, lun=9)]))
    assert status["status"] == "failed"
    assert "Could not connect to ISCSI target storage" in status["errorData"]["errorMsg"]
    assert all(d["state"] != 3 for d in rig.sim.info()["devices"])
    # Wrong shapes are refused before a job exists.
    for body in ('{"volumes": 3}', '{"volumes": [1]}', "not json"):
        assert rig.client.request("POST", "/backup", body=body).status == 400
    # And the next good backup works.
    status = rig.backup([volume])
    assert status["status"] == "finished", status
    assert rig.verify_image(volume) == []


def test_status_of_all_backups_and_unknown_ids(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=64, seed=5)
    rig.add_target(volume)
    backup_id = rig.start([volume])
    rig.wait(backup_id)
    everything = rig.client.backup_status().json()
    assert backup_id in everything["finished"]
    assert everything["backups"][0]["backupId"] == backup_id
    assert rig.client.backup_status("no-such-backup").status == 500
    assert rig.client.request("DELETE", "/backup").status == 400


@pytest.mark.parametrize("fs_type", ["xfs", "ntfs", "ext2", "ext3"])
def test_other_file_systems_back_up_and_verify(rig, loop_volumes, fs_type):
    volume = loop_volumes(fs_type, seed=6)
    rig.add_target(volume)
    status = rig.backup([volume])
    assert status["status"] == "finished", status
    detail = status["details"][0]
    # Only the used blocks travel: far less than the whole volume.
    assert 0 < detail["transfer"]["totalSize"] < volume.size_mib * 1024 * 1024
    assert rig.verify_image(volume) == []
    # The next backup of the tracked volume is incremental and still verifies.
    with open(volume.path("after-first-backup.bin"), "wb") as f:
        f.write(os.urandom(300000))
    with open(volume.path("after-first-backup.bin"), "rb") as f:
        volume.manifest["after-first-backup.bin"] = hashlib.sha256(f.read()).hexdigest()
    volume.sync()
    status = rig.backup([volume])
    assert status["status"] == "finished", status
    assert status["details"][0]["type"] == "incremental"
    assert rig.verify_image(volume) == []
