"""An agent wired to the driver simulator and a tgtd target, paired with an appliance
client (device 42), for end-to-end backups."""
import os
import subprocess
import time

from agent import wait_for
from volumes import mount_image, verify_content, zbdctl_path

TERMINAL = ("finished", "failed")
BUSY = "A backup is currently in progress."


class BackupRig:
    def __init__(self, agent, sim, tgtd, client_files, authority, tmp_path):
        self.agent, self.sim, self.tgtd, self.tmp_path = agent, sim, tgtd, tmp_path
        self.luns = {}  # volume uuid -> (tid, iqn, lun path, lun)
        agent.env.update(sim.env(ORVD_ZBDCTL=zbdctl_path()))
        tgtd.start()
        agent.serve()
        self.client = agent.client(client_files(authority, 42))
        assert self.client.pair(42).status == 201

    def add_target(self, volume, size=None, lun=1):
        """A target with one LUN large enough for the volume; returns the LUN's file."""
        tid = len(self.luns) + 1
        iqn = "iqn.2026-11.org.orvd.test:vol%d" % tid
        self.tgtd.add_target(tid, iqn)
        path = self.tgtd.add_lun(tid, lun, size or volume.size_mib * 1024 * 1024)
        self.luns[volume.uuid] = (tid, iqn, path, lun)
        return path

    def volume_request(self, volume, offset=0, **extra):
        tid, iqn, path, lun = self.luns[volume.uuid]
        return dict({"guid": volume.uuid, "offset": offset, "qualifiedName": iqn, "target": self.tgtd.portal,
                     "lun": lun}, **extra)

    def start(self, volumes, expect=201, **flags):
        body = dict({"volumes": [v if isinstance(v, dict) else self.volume_request(v) for v in volumes]}, **flags)
        response = self.client.request("POST", "/backup", body=body)
        # A backup's thread outlives its "finished" status by its bookkeeping, and a new
        # backup is refused until it ended: retry the refusal as an appliance would.
        deadline = time.monotonic() + 30
        while (expect == 201 and response.status == 400 and response.text == BUSY
               and time.monotonic() < deadline):
            time.sleep(0.1)
            response = self.client.request("POST", "/backup", body=body)
        assert response.status == expect, (response.status, response.text)
        return response.text

    def start_long_copy(self, volume):
        """Starts an all-blocks copy of the volume and returns its id once data moves."""
        self.agent.set_config("disable_usedblock", "Y")
        backup_id = self.start([volume])
        wait_for(lambda: self.status(backup_id)["details"][0]["transfer"]["bytesTransferred"] > 0, timeout=120,
                 interval=0.05, what="the copy to start")
        return backup_id

    def status(self, backup_id):
        response = self.client.backup_status(backup_id)
        assert response.status == 200, (response.status, response.text)
        return response.json()

    def wait(self, backup_id, timeout=300):
        return wait_for(lambda: (lambda s: s if s["status"] in TERMINAL else None)(self.status(backup_id)),
                        timeout=timeout, interval=0.25, what="backup %s to end" % backup_id)

    def backup(self, volumes, **flags):
        """Runs one backup to its end; returns its final status document."""
        return self.wait(self.start(volumes, **flags))

    def states(self):
        """The simulator's device states (2 tracking, 3 snapshot)."""
        return [d["state"] for d in self.sim.info()["devices"]]

    def verify_image(self, volume):
        """Checks and mounts the image on the LUN read-only; returns the files that differ from the volume's."""
        image = self.luns[volume.uuid][2]
        if volume.fs_type.startswith("ext"):
            # The image is a consistent file system, not just files that read back.
            check = subprocess.run(["e2fsck", "-fn", image], capture_output=True, text=True)
            assert check.returncode == 0, check.stdout + check.stderr
        point = str(self.tmp_path / ("check-%s" % volume.uuid))
        os.makedirs(point, exist_ok=True)
        with mount_image(image, volume.fs_type, point):
            return verify_content(point, volume.manifest)

    def history(self, command=None, backup_id=None):
        """Rows (backup_id, device, command, result, result_detail, error, image_chksum), oldest first."""
        where = [(c, v) for c, v in (("command", command), ("backup_id", backup_id)) if v]
        return self.agent.query("SELECT backup_id, device, command, result, result_detail, error, image_chksum "
                                "FROM history WHERE 1=1" + "".join(" AND %s = ?" % c for c, _ in where)
                                + " ORDER BY id", [v for _, v in where])
