"""Faults of the driver, the target, the scripts and the daemon during backups: the
appliance reads what happened, and no volume is left in snapshot mode."""
import os
import signal
import subprocess

MIB = 1024 * 1024


def test_full_volume_reports_error_100(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=64, fill=False)
    rig.add_target(volume)
    # Leave less free space than the COW file needs.
    stat = os.statvfs(volume.mountpoint)
    subprocess.run(["fallocate", "-l", str(stat.f_bavail * stat.f_frsize - 2 * MIB), volume.path("filler")],
                   check=True)
    status = rig.backup([volume])
    assert status["status"] == "failed"
    assert status["errorData"]["errorCode"] == 100
    assert status["errorData"]["errorMsg"] == "Volume is full"
    assert status["errorData"]["errorParams"][0] == volume.uuid
    assert rig.sim.info()["devices"] == []
    assert rig.history("zelkobd_setup_snapshot")[-1][3] == "failure"


def test_missing_driver_and_too_many_writes_report_errors_101_and_106(rig, loop_volumes):
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

    rig.sim.zbdctl("fault", "transition_incremental", "27", "1")
    status = rig.backup([volume])
    assert status["status"] == "failed"
    assert status["errorData"]["errorCode"] == 106
    assert status["errorData"]["errorMsg"] == "Too many writes while snapshotted"
    assert 3 not in rig.states()
    # The next backup still leaves a correct image.
    assert rig.backup([volume])["status"] == "finished"
    assert rig.verify_image(volume) == []


def test_target_gone_for_good_reports_error_108(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=256, seed=33)
    rig.add_target(volume)
    backup_id = rig.start_long_copy(volume)
    rig.tgtd.kill()
    status = rig.wait(backup_id, timeout=300)
    assert status["status"] == "failed"
    assert status["errorData"]["errorCode"] == 108
    assert status["errorData"]["errorMsg"] == "Could not write to target device."
    assert 3 not in rig.states()
    assert any("Error from async write thread: Error performing iscsi target write: 5" in line
               for line in rig.agent.logs())


def test_scripts_quiesce_and_their_failures(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=64, seed=34)
    rig.add_target(volume)
    marks = os.path.join(rig.agent.root, "marks")
    os.makedirs(os.path.join(rig.agent.etc_dir, "pps"), exist_ok=True)
    for name, text in (("ok.sh", 'echo "$1" >> %s\necho "$1-DONE"\nsleep 30\n' % marks), ("nopre.sh", "exit 3\n"),
                       ("nopost.sh", '[ "$1" = PRE ] && echo PRE-DONE\nexit 0\n')):
        path = os.path.join(rig.agent.etc_dir, "pps", name)
        with open(path, "w") as f:
            f.write("#!/bin/sh\n" + text)
        os.chmod(path, 0o755)
    with_script = lambda name: [rig.volume_request(volume, scriptsPrePost=[{"scriptname": name, "timeout": 20}])]

    assert rig.backup(with_script("ok.sh"))["status"] == "finished"
    assert open(marks).read().split() == ["PRE", "POST"]
    # A pre-script failure takes no snapshot.
    before = len(rig.history("zelkobd_transition_snapshot"))
    assert rig.backup(with_script("nopre.sh"))["status"] == "failed"
    assert "Quiesce scripts failed. Ending backup." in rig.agent.logs()
    assert len(rig.history("zelkobd_transition_snapshot")) == before
    # A post-script failure leaves no snapshot behind.
    assert rig.backup(with_script("nopost.sh"))["status"] == "failed"
    assert "Unquiesce scripts failed. Ending backup." in rig.agent.logs()
    assert 3 not in rig.states()
    # The inventory lists the scripts.
    names = sorted(s["scriptname"] for s in rig.client.host_inventory().json()["scriptsPrePost"])
    assert names == ["nopost.sh", "nopre.sh", "ok.sh"]


def test_sigterm_during_a_backup_cancels_it_and_exits_cleanly(rig, loop_volumes):
    volume = loop_volumes("ext4", size_mib=256, seed=35)
    rig.add_target(volume)
    backup_id = rig.start_long_copy(volume)
    assert rig.agent.stop(signal.SIGTERM, timeout=120) == 0
    assert not os.path.exists(rig.agent.pid_file)
    assert rig.history("backup_run", backup_id)[-1][3:5] == ("failure", "Backup cancelled.")
    assert 3 not in rig.states()
    logs = rig.agent.logs()
    assert logs.index("Shutting down") < logs.index("All backups cancelled")
