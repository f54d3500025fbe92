"""Echo requests of the kernel's ping, many a second, to see for how long nothing comes back."""

import re
import signal
import subprocess

from lab.core import LabError

REPLY = re.compile(r"^\[(\d+\.\d+)\] \d+ bytes from .* icmp_seq=(\d+) ", re.MULTILINE)


class Pings:
    """Requests from a node to an address until stop(). The lab ends it, too."""

    def __init__(self, node, address, interval_s=0.02):
        self.replies = []  # when each came, wall-clock time
        self.lost = 0
        self._process = node.popen(["ping", "-n", "-D", "-i", str(interval_s), address],
                                   stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    def stop(self):
        """Ends it; the longest time between two replies, in seconds."""
        self._process.send_signal(signal.SIGINT)
        said, _ = self._process.communicate(timeout=10)
        found = REPLY.findall(said)
        if len(found) < 2:
            raise LabError(f"no two replies came back:\n{said[-500:]}")
        self.replies = [float(when) for when, _ in found]
        self.lost = int(found[-1][1]) - int(found[0][1]) + 1 - len(found)
        return max(b - a for a, b in zip(self.replies, self.replies[1:]))
