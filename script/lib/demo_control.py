"""The demonstration of the control server: one file, changed under load; a mistake; a kill -9."""

import difflib
import time

import steps
from lab import Basic, Control, wait_until

FIRST = """\
executor: {client-gateway: 10.0.0.1}
interfaces: [eth0]
clusters:
  - address: 10.0.0.100
    ports:
      - port: 80
        algorithm: connection
        servers:
          - {address: 10.0.0.11, weight: 10}
          - {address: 10.0.0.12, weight: 10}
"""
SECOND = FIRST.replace("0.12, weight: 10", "0.12, weight: 5").rstrip("\n") + """
          - {address: 10.0.0.13, weight: 10}
      - port: 443
        servers: [10.0.0.11]
"""
WRONG = SECOND.replace("weight: 5", "wieght: 5").replace("10.0.0.13", "10.0.0.11")
DONE = "commands? carried out"


class Requests:
    """One HTTP request after the other, 50 a second, until it is stopped."""

    def __init__(self, net):
        self._answers = net.client.root / "answers"
        # On standard error, which curl does not buffer.
        with open(self._answers, "wb") as out:
            self._curl = net.client.popen(
                ["curl", "-s", "-H", "Connection: close", "--connect-timeout", "3", "--rate", "50/s",
                 "-o", "/dev/null", "-w", "%{stderr}%{http_code}\n",
                 f"http://{net.host()}/[1-100000]"], stderr=out)
        self.wait_more()

    def counted(self):
        """How many were answered, how many failed."""
        lines = self._answers.read_text(encoding="ascii").split()
        return lines.count("200"), len(lines) - lines.count("200")

    def wait_more(self, count=50):
        """Until so many more were made."""
        before = sum(self.counted())
        wait_until(lambda: sum(self.counted()) >= before + count, 10, f"{count} more requests")

    def stop(self):
        """Ends them; what counted() says."""
        self._curl.terminate()
        self._curl.wait(10)
        return self.counted()


def told(control, since, until):
    """Shows what cpserver logged from a mark to a line like `until`."""
    control.wait_log(until, 10, since)
    for line in control.lines[since:]:
        print(f"    {steps.paint('cpserver:', 'dim')} {line.text[11:]}")


def shown(text, old=None):
    """Shows a file, or what was changed in it."""
    lines = text.splitlines()
    if old is not None:
        lines = [line for line in difflib.unified_diff(old.splitlines(), lines, n=1, lineterm="")
                 if line[:2] not in ("--", "++", "@@")]
    for line in lines:
        print(f"    {line}")


def change(net, control):
    """A changed file under load, and one with mistakes."""
    print("\n  The file is changed while 50 requests a second arrive:\n")
    shown(SECOND, FIRST)
    print()
    requests = Requests(net)
    mark = control.mark()
    control.write(SECOND)
    told(control, mark, DONE)
    requests.wait_more()
    print("\n  With two mistakes in it:\n")
    shown(WRONG, SECOND)
    print()
    mark = control.mark()
    control.write(WRONG)
    told(control, mark, "nothing was changed")
    requests.wait_more()
    done, failed = requests.stop()
    if failed:
        raise steps.StepFailed(f"{failed} of {done + failed} requests failed meanwhile")
    print(f"\n  {done} requests meanwhile, none failed.")
    mark = control.mark()
    control.write(SECOND)
    control.wait_log("changed: nothing to do", 5, mark)


def kill(net, control):
    """kill -9 of the forwarder, which a supervisor starts again: seconds to the next answer."""
    print(f"\n    {steps.paint(f'fwd# kill -9 {net.daemon.pid}', 'red')}    "
          "(vellb2; its supervisor starts it again after 0.1 s)\n")
    mark, begin = control.mark(), time.monotonic()
    net.daemon.kill()
    time.sleep(0.1)
    net.start_daemon(sync=False)
    probe = ["curl", "-s", "-o", "/dev/null", "--connect-timeout", "0.2", f"http://{net.host()}/"]
    wait_until(lambda: net.client.run(probe, check=False).returncode == 0, 10, "an answer")
    took = time.monotonic() - begin
    told(control, mark, DONE)
    return took


def run(lab, command):
    """The whole demonstration."""
    with steps.Step("lab: a client, the forwarder's host and three nginx servers in namespaces"):
        net = Basic(lab)
        net.start_web()
    print("\n  /etc/vellb2/cpserver.yaml on the forwarder's host:\n")
    shown(FIRST)
    print("\n    fwd# vellb2; cpserver\n")
    net.start_daemon(sync=False)
    control = Control(net.forwarder, FIRST)
    control.launch()
    told(control, 0, DONE)
    net.daemon.wait_neighbour("10.0.0.11")
    change(net, control)
    took = kill(net, control)
    print()
    for line in command(net.forwarder, "show").splitlines():
        print(f"    {line}".rstrip())
    print(f"""
  What happened: vellb2 started empty and cpserver made it what the file says. A changed file cost
  what it did not touch nothing; one with mistakes changed nothing. {took:.2f} s after the kill the
  forwarder, as empty as at its first start, served again.""")
    if control.stop() != 0 or net.daemon.stop() != 0:
        raise steps.StepFailed("cpserver or vellb2 did not end in order", control.log_path)
