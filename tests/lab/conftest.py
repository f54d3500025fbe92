"""What the lab's tests share: one lab and one running daemon per module, and its log on a failure.
"""

import os

import pytest

from lab import Basic, Lab, Program, build_dir, sanitized


def pytest_configure():
    """Says at once what would otherwise fail in every test."""
    if os.geteuid() != 0:
        pytest.exit("the lab's tests make network namespaces: run them as root", 1)
    if not all((build_dir() / name).exists() for name in ("vellb2", "vellbctl", "cpserver")):
        pytest.exit(f"no vellb2, vellbctl and cpserver in {build_dir()}: run script/test, or "
                    "cmake --preset release && cmake --build --preset release", 1)


def pytest_generate_tests(metafunc):
    """A module that names its IP_VERSIONS is tested over each, on a net of its own."""
    if "net" in metafunc.fixturenames and hasattr(metafunc.module, "IP_VERSIONS"):
        metafunc.parametrize("net", metafunc.module.IP_VERSIONS, indirect=True, scope="module",
                             ids=lambda version: f"ipv{version}")


@pytest.fixture(name="net", scope="module")
def _net(request):
    """The topology Basic; a module's make_net(lab) makes another one."""
    words = {"ipv6": True} if getattr(request, "param", 4) == 6 else {}
    with Lab() as lab:
        yield getattr(request.module, "make_net", Basic)(lab, **words)


@pytest.fixture(name="daemon", scope="module")
def _daemon(net, request):
    """A running daemon that knows its interfaces; it must stop well, without a sanitizer's word.

    A module may say how many WORKERS it wants, which log MASK, and what ENVIRONMENT.
    """
    running = net.start_daemon(workers=getattr(request.module, "WORKERS", 4),
                               mask=getattr(request.module, "MASK", 0x200),
                               env=getattr(request.module, "ENVIRONMENT", None))
    yield running
    if sanitized():  # Objects that are there at the end would look like leaks.
        running.clear()
    assert running.stop() == 0


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item):
    """Adds the end of every daemon's log to the report of a failed test."""
    outcome = yield
    report = outcome.get_result()
    if report.failed:
        for name, value in getattr(item, "funcargs", {}).items():
            several = value.daemons if name == "pair" else [value]
            for each in several:
                if isinstance(each, Program) and each.process is not None:
                    report.sections.append((f"log of {name}: {each.node.name}", each.tail(60)))
