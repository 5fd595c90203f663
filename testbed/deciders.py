"""The cluster manager that decides the role on both EMs of a pair: keepalived or Pacemaker, Debian's
versions."""

import os
import re
import signal
import subprocess
import threading
from pathlib import Path

from em_pair import EMS, REPO, EmPair, wait_for

PATIENCE = 60

# Resets an EM: writes which one, and waits until it is done.
FENCE_AGENT = """#!/bin/sh
[ "$1" = --action=metadata ] || while read -r line; do
  case $line in action=*) action=${{line#action=}} ;; nodename=* | plug=*) em=${{line#*=em}} ;; esac
done
case ${{action:-metadata}} in
  metadata) cat << 'END'
<?xml version="1.0"?>
<resource-agent name="fence_testbed" shortdesc="resets an EM"><longdesc>Resets an EM.</longdesc>
<parameters><parameter name="plug"><content type="string"/></parameter></parameters>
<actions><action name="on"/><action name="off"/><action name="reboot"/><action name="status"/>
<action name="list"/><action name="monitor"/><action name="metadata"/></actions></resource-agent>
END
    ;;
  off | reboot)
    touch "{work_dir}/reset$em"
    while [ -e "{work_dir}/reset$em" ]; do sleep 0.05; done
    ;;
  *) exit 0 ;;
esac
"""


class Decider:
    """The cluster manager's processes on both EMs. `can_reset`: it always makes sure that the other EM is not
    active before it makes one active."""

    can_reset = False
    said: str  # logged when a decision is made

    def __init__(self, pair: EmPair):
        self.pair = pair
        self.processes: dict[int, subprocess.Popen] = {}

    def log(self, n: int) -> Path:
        return self.pair.log_path(n, type(self).__name__.lower())

    def decisions(self, n: int) -> int:
        path = self.log(n)
        return path.read_text(errors="replace").count(self.said) if path.exists() else 0

    def spawn(self, n: int, argv: list, **environment: str) -> None:
        with open(self.log(n), "ab") as log:
            self.processes[n] = self.pair.popen(
                n, argv, stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True,
                env=os.environ | environment)

    def family(self, n: int) -> list[int]:
        """The cluster manager's processes on EM `n`: all in its session or descended from it."""
        first = self.processes[n].pid
        found = [first]
        for pid in map(int, filter(str.isdigit, os.listdir("/proc"))):
            try:
                fields = Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
            except OSError:
                continue
            if int(fields[1]) in found and pid != first:
                found.append(pid)
        return found

    def signal(self, n: int, number: int) -> None:
        for pid in self.family(n):
            try:
                os.kill(pid, number)
            except ProcessLookupError:
                pass
        if number == signal.SIGKILL:
            self.processes[n].wait()

    def stop(self, n: int) -> None:
        self.processes[n].terminate()
        self.processes[n].wait(timeout=PATIENCE)

    def back(self, n: int) -> None:
        """Undoes crash() and orderly()."""
        if self.processes[n].poll() is not None:
            self.start(n)

    def start(self, n: int) -> None:
        raise NotImplementedError

    def crash(self, n: int) -> None:
        raise NotImplementedError

    def orderly(self, n: int) -> None:
        raise NotImplementedError

    def configure(self) -> None:
        pass

    def ready(self) -> bool:
        """Whether a failover may be started now."""
        return True

    def close(self) -> None:
        pass


class Keepalived(Decider):
    said = "Entering MASTER STATE"
    DROP_IN = REPO / "packaging/keepalived/keepalived.service.conf"

    def start(self, n: int) -> None:
        text = (REPO / "packaging/keepalived/keepalived.conf").read_text()
        if n == 2:
            text = re.sub(r"77\.([12])", lambda found: f"77.{3 - int(found[1])}", text)
        self.pair.path(n, "/etc/keepalived.conf").write_text(text)
        self.spawn(n, ["keepalived", "--dont-fork", "--log-console", "--log-detail",
                       "--use-file=/etc/keepalived.conf"])

    def after_end(self, n: int) -> None:
        """Does what the service manager runs after every exit of the service."""
        for line in self.DROP_IN.read_text().splitlines():
            if line.startswith("ExecStopPost="):
                self.pair.run(n, line.partition("=")[2].split(), check=True)

    def crash(self, n: int) -> None:
        self.signal(n, signal.SIGKILL)
        self.after_end(n)

    def orderly(self, n: int) -> None:
        self.stop(n)
        self.after_end(n)

class Pacemaker(Decider):
    can_reset = True
    said = "Requesting local execution of promote operation"
    CONFIGURATION = REPO / "packaging/ocf/pacemaker.crm"

    def __init__(self, pair: EmPair):
        super().__init__(pair)
        self.over = threading.Event()
        self.resets: list[int] = []
        self.switch = threading.Thread(target=self.power_switch)
        self.switch.start()

    def log(self, n: int) -> Path:
        return self.pair.path(n, "/var/log/pacemaker/pacemaker.log")

    def prepare(self, n: int) -> None:
        script = """
            for dir in lib log; do mount -n -t tmpfs -o mode=755 pacemaker /var/$dir/pacemaker; done
            cd /var/lib/pacemaker
            mkdir cib pengine blackbox cores
            chown hacluster:haclient /var/log/pacemaker /var/lib/pacemaker/*"""
        self.pair.run(n, ["sh", "-e", "-c", script], check=True)

    def start(self, n: int) -> None:
        if not self.pair.path(n, "/var/lib/pacemaker/cib").is_dir() or not self.log(n).exists():
            self.prepare(n)
        self.processes[n] = self.pair.popen(
            n, ["pacemakerd"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL, start_new_session=True,
            env=os.environ | {"PCMK_logfile": "/var/log/pacemaker/pacemaker.log"})

    def configure(self) -> None:
        wait_for(lambda: self.online(1) == {"em1", "em2"}, PATIENCE, "both nodes are online")
        text = self.CONFIGURATION.read_text()
        for n in EMS:
            text = text.replace(f"ip=192.0.2.{n} username=fence password=secret lanplus=1 ", "")
        text = text.replace("fence_ipmilan", "fence_testbed")
        self.pair.path(1, "/tmp/pacemaker.crm").write_text(text)
        # Fails until a controller is elected.
        wait_for(self.load_configuration, PATIENCE, "the configuration is taken", 1)

    def load_configuration(self) -> bool:
        done = self.pair.run(1, ["crm", "-F", "configure", "load", "update", "/tmp/pacemaker.crm"])
        return done.returncode == 0

    def online(self, n: int) -> set[str]:
        output = self.pair.run(n, ["crm_node", "--partition"])
        return set(output.stdout.split()) if output.returncode == 0 else set()

    def ready(self) -> bool:
        # A node is ready for a failover when its instance runs and has its score.
        text = self.pair.run(1, ["crm_mon", "-1", "--inactive"]).stdout
        return "Promoted: [ em" in text and "Unpromoted: [ em" in text

    def power_switch(self) -> None:
        """Resets an EM when a fence agent asks for it: ends all its processes and empties its /run."""
        while not self.over.wait(0.02):
            for n in EMS:
                request = self.pair.work_dir / f"reset{n}"
                if request.exists():
                    self.reset(n)
                    self.resets.append(n)
                    request.unlink()

    def reset(self, n: int) -> None:
        for what in ("daemon", "corosync"):
            if self.pair.alive(n, what):
                self.pair.kill(n, what)
        self.signal(n, signal.SIGKILL)
        for path in ("/run/em/active", "/run/em/pacemaker"):
            self.pair.path(n, path).unlink(missing_ok=True)

    def crash(self, n: int) -> None:
        self.signal(n, signal.SIGKILL)

    def orderly(self, n: int) -> None:
        self.pair.run(n, ["crm_standby", "-N", f"em{n}", "-v", "on"], check=True)

    def back(self, n: int) -> None:
        super().back(n)
        self.pair.run(n, ["crm_standby", "-N", f"em{n}", "-D"])

    def close(self) -> None:
        self.over.set()
        self.switch.join()

