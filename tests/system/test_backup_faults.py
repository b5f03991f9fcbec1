"""Faults of the driver, the target, the scripts and the daemon during backups: the
appliance reads what happened, and no volume is left in snapshot mode."""
import os
import signal
import subprocess

from agent import wait_for

MIB = 1024 * 1024


def no_snapshot_left(rig):
    return all(d["state"] != 3 for d in rig.sim.info()["devices"])


def write_script(rig, name, text):
    directory = os.path.join(rig.agent.etc_dir, "pps")
    os.makedirs(directory, exist_ok=True)
    path = os.path.join(directory, name)
    with open(path, "w") as f:
        f.write("#!/bin/sh\n" + text)
    os.chmod(path, 0o755)


def test_full_volume_reports_error_100(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=64, fill=False)
    rig.add_target(volume)
    # Leave less free space than the COW file needs.
    stat = os.statvfs(volume.mountpoint)
    filler = stat.f_bavail * stat.f_frsize - 2 * MIB
    subprocess.run(["fallocate", "-l", str(filler), volume.path("filler")], check=True)
    volume.manifest = {}
    status = rig.backup([volume])
    assert status["status"] == "failed"
    assert status["errorData"]["errorCode"] == 100
    assert status["errorData"]["errorMsg"] == "Volume is full"
    assert status["errorData"]["errorParams"][0] == volume.uuid
    assert rig.sim.info()["devices"] == []
    assert rig.history("zelkobd_setup_snapshot")[-1][3] == "failure"


def test_missing_driver_reports_error_101(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=64, seed=31)
    rig.add_target(volume)
    rig.sim.zbdctl("unload")
    status = rig.backup([volume])
    assert status["status"] == "failed"
    assert status["errorData"]["errorCode"] == 101
    assert status["errorData"]["errorMsg"] == (
        "Driver not loaded. Kernel headers are probably incorrect, fix that and reinstall zelkobd.")
    assert rig.history("backup_run")[-1][3:5] == ("failure", "Loading driver info failed.")
    assert "Could not load driver info. Driver not loaded or installed." in rig.agent.logs()
    # The host inventory still answers, without a driver version.
    host = rig.client.host_inventory()
    assert host.status == 200 and host.json()["driverVersion"] == "unavailable"
    rig.sim.zbdctl("load")
    assert rig.backup([volume])["status"] == "finished"


def test_too_many_writes_at_the_transition_reports_error_106(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=64, seed=32)
    rig.add_target(volume)
    assert rig.backup([volume])["status"] == "finished"
    rig.sim.zbdctl("fault", "transition_incremental", "27", "1")
    status = rig.backup([volume])
    assert status["status"] == "failed"
    assert status["errorData"]["errorCode"] == 106
    assert status["errorData"]["errorMsg"] == "Too many writes while snapshotted"
    assert no_snapshot_left(rig)
    # The next backup still leaves a correct image.
    status = rig.backup([volume])
    assert status["status"] == "finished", status
    assert rig.verify_image(volume) == []


def test_target_gone_for_good_reports_error_108(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=256, seed=33)
    rig.add_target(volume)
    rig.agent.set_config("disable_usedblock", "Y")
    backup_id = rig.start([volume])
    wait_for(lambda: rig.status(backup_id)["details"][0]["transfer"]["bytesTransferred"] > 0, timeout=120,
             interval=0.05, what="the copy to start")
    rig.tgtd.kill()
    status = rig.wait(backup_id, timeout=300)
    assert status["status"] == "failed"
    assert status["errorData"]["errorCode"] == 108
    assert status["errorData"]["errorMsg"] == "Could not write to target device."
    assert no_snapshot_left(rig)
    assert any("Error from async write thread: Error performing iscsi target write: 5" in line
               for line in rig.agent.logs())


def test_scripts_quiesce_and_their_failures(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=64, seed=34)
    rig.add_target(volume)
    marks = os.path.join(rig.agent.root, "marks")
    write_script(rig, "ok.sh", 'echo "$1" >> %s\necho "$1-DONE"\nsleep 30\n' % marks)
    write_script(rig, "nopre.sh", 'exit 3\n')
    write_script(rig, "nopost.sh", '[ "$1" = PRE ] && echo PRE-DONE\nexit 0\n')
    scripts = lambda *names: {"scriptsPrePost": [{"scriptname": n, "timeout": 20} for n in names]}

    status = rig.backup([rig.volume_request(volume, **scripts("ok.sh"))])
    assert status["status"] == "finished", status
    assert open(marks).read().split() == ["PRE", "POST"]

    # A pre-script failure takes no snapshot.
    before = len(rig.history("zelkobd_transition_snapshot"))
    status = rig.backup([rig.volume_request(volume, **scripts("nopre.sh"))])
    assert status["status"] == "failed"
    assert "Quiesce scripts failed. Ending backup." in rig.agent.logs()
    assert len(rig.history("zelkobd_transition_snapshot")) == before

    # A post-script failure leaves no snapshot behind.
    status = rig.backup([rig.volume_request(volume, **scripts("nopost.sh"))])
    assert status["status"] == "failed"
    assert "Unquiesce scripts failed. Ending backup." in rig.agent.logs()
    assert no_snapshot_left(rig)

    # The inventory lists the scripts.
    names = sorted(s["scriptname"] for s in rig.client.host_inventory().json()["scriptsPrePost"])
    assert names == ["nopost.sh", "nopre.sh", "ok.sh"]


def test_sigterm_during_a_backup_cancels_it_and_exits_cleanly(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=256, seed=35)
    rig.add_target(volume)
    rig.agent.set_config("disable_usedblock", "Y")
    backup_id = rig.start([volume])
    wait_for(lambda: rig.status(backup_id)["details"][0]["transfer"]["bytesTransferred"] > 0, timeout=120,
             interval=0.05, what="the copy to start")
    assert rig.agent.stop(signal.SIGTERM, timeout=120) == 0
    assert not os.path.exists(rig.agent.pid_file)
    assert rig.history("backup_run", backup_id)[-1][3:5] == ("failure", "Backup cancelled.")
    assert no_snapshot_left(rig)
    logs = rig.agent.logs()
    assert logs.index("Shutting down") < logs.index("All backups cancelled")
