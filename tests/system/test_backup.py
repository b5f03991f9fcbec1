"""Backups end to end: the agent as a process, the driver simulator, loop volumes and a real
tgtd target, driven over REST as the appliance drives them."""
import os
import re

import pytest

from volumes import sha256


def test_two_volumes_full_backup_end_to_end(rig, loop_volumes):
    volumes = [loop_volumes("ext4", size_mib=96, seed=seed) for seed in (1, 2)]
    for volume in volumes:
        rig.add_target(volume)
    backup_id = rig.start(volumes)
    status = rig.wait(backup_id)
    assert status["status"] == "finished", status
    assert status["errorData"] == {"errorMsg": "", "errorCode": 0, "errorParams": []}
    details = {d["volume"]: d for d in status["details"]}
    for volume in volumes:
        record = details[volume.uuid]
        assert (record["status"], record["type"]) == ("finished", "full")
        assert 0 < record["transfer"]["totalSize"] == record["transfer"]["bytesTransferred"]
        assert rig.verify_image(volume) == []
    # Both volumes are left tracked incrementally, with reload scripts for a reboot.
    assert rig.states() == [2, 2]
    for device in rig.sim.info()["devices"]:
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
        # After the name in parentheses, nice is the seventeenth field.
        found.setdefault(stat[stat.index("(") + 1:stat.rindex(")")], []).append(
            int(stat[stat.rindex(")") + 2:].split()[16]))
    return found


def test_second_start_while_running_and_cancel(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=256, seed=3)
    rig.add_target(volume)
    backup_id = rig.start_long_copy(volume)
    response = rig.client.request("POST", "/backup", body={"volumes": [rig.volume_request(volume)]})
    assert (response.status, response.text) == (400, "A backup is currently in progress.")
    # The server's threads run ahead of the copy; the copy, though started by a request,
    # runs at the daemon's own priority.
    nice = thread_nice(rig.agent.process.pid)
    main = nice["orvd"][0]
    assert set(nice["MHD-listen"]) == {main - 5}, nice
    assert set(nice["orvd-backup"]) == {main} and set(nice["orvd-writer"]) == {main}, nice
    cancel = rig.client.backup_cancel(backup_id)
    assert (cancel.status, cancel.json()) == (200, {"success": True})
    assert rig.wait(backup_id)["status"] == "failed"
    assert rig.history("backup_run", backup_id)[-1][3:5] == ("failure", "Backup cancelled.")
    assert 3 not in rig.states()
    # A cancel of a job that has ended fails and says so.
    again = rig.client.backup_cancel(backup_id).json()
    assert again == {"success": False, "errorString": "Cancel backup request failed or timed out."}


def test_bad_requests_fail_the_backup_and_the_agent_stays_ready(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=64, seed=4)
    rig.add_target(volume)
    unknown = dict(rig.volume_request(volume), guid="00000000-dead-beef-0000-000000000000")
    for volumes, message in (([unknown], "^Could not get block device for GUID:"),
                             ([rig.volume_request(volume, offset=100)], " - Specified offset is not sector aligned$"),
                             ([], ""),
                             ([rig.volume_request(volume, lun=9)], "Could not connect to ISCSI target storage")):
        status = rig.backup(volumes)
        assert status["status"] == "failed", (volumes, status)
        assert re.search(message, status["errorData"]["errorMsg"]), (message, status)
    assert 3 not in rig.states()
    # Wrong shapes are refused before a job exists.
    for body in ('{"volumes": 3}', '{"volumes": [1]}', "not json"):
        assert rig.client.request("POST", "/backup", body=body).status == 400
    # And the next good backup works.
    backup_id = rig.start([volume])
    status = rig.wait(backup_id)
    assert status["status"] == "finished", status
    assert rig.verify_image(volume) == []
    # The status of all backups lists the ids by state, and each one's document in that order.
    everything = rig.client.backup_status().json()
    assert (everything["active"], len(everything["failed"]), everything["finished"]) == ([], 4, [backup_id])
    assert [b["backupId"] for b in everything["backups"]] == everything["failed"] + [backup_id]
    assert rig.client.backup_status("no-such-backup").status == 500
    assert rig.client.request("DELETE", "/backup").status == 400


# ext2 and ext3 take the ext4 path (their maps: test_used_blocks; their COW files: the file skipper's unit test).
@pytest.mark.parametrize("fs_type", ["xfs", "ntfs"])
def test_other_file_systems_back_up_and_verify(rig, loop_volumes, fs_type):
    volume = loop_volumes(fs_type, seed=6)
    rig.add_target(volume)
    status = rig.backup([volume])
    assert status["status"] == "finished", status
    # Only the used blocks travel: far less than the whole volume.
    assert 0 < status["details"][0]["transfer"]["totalSize"] < volume.size_mib * 1024 * 1024
    assert rig.verify_image(volume) == []
    # The next backup of the tracked volume is incremental and still verifies.
    with open(volume.path("after-first-backup.bin"), "wb") as f:
        f.write(os.urandom(300000))
    volume.manifest["after-first-backup.bin"] = sha256(volume.path("after-first-backup.bin"))
    volume.sync()
    status = rig.backup([volume])
    assert status["status"] == "finished" and status["details"][0]["type"] == "incremental", status
    assert rig.verify_image(volume) == []
