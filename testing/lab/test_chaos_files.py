"""Disks that are full, closed or gone, under the reports and under the route file.

    router wan1 10.1.0.2 -------- 10.1.0.1 far1: responder      output directory: reports and dumps
    router wan2 10.2.0.2 -------- 10.2.0.1 far2: responder      /usr/etc, /var/vrfs/red/usr/etc: route files
"""

import os
import shutil

import pytest

from lab import dumps, waiting
from lab.inside import SmallDisk, seen
from lab.weighted_pair import PLAIN_OWNER, STATE, WeightedPair

# The first link is probed once in a cycle: that many requests are two cycles and what is left of a third.
TWO_CYCLES = 4


class OutputFaults:
    """Breaks the output directory in one way (`begin`) and mends it again (`end`)."""

    def __init__(self, lab, out):
        self.lab, self.out = lab, out
        self.dumps = os.path.join(out, "wlb_dump")

    def begin_directory_removed(self):
        shutil.rmtree(self.out)

    def end_directory_removed(self):
        os.mkdir(self.out)

    def begin_directory_replaced_by_a_file(self):
        shutil.rmtree(self.out)
        with open(self.out, "w", encoding="ascii"):
            pass

    def end_directory_replaced_by_a_file(self):
        os.unlink(self.out)
        os.mkdir(self.out)

    def begin_directory_closed_to_its_owner(self):
        shutil.rmtree(self.dumps)
        os.chmod(self.out, 0)

    def end_directory_closed_to_its_owner(self):
        os.chmod(self.out, 0o755)

    def begin_dumps_removed(self):
        shutil.rmtree(self.dumps)

    def end_dumps_removed(self):
        pass

    def begin_dumps_replaced_by_a_file(self):
        os.rename(self.dumps, self.out + ".away")
        with open(self.dumps, "w", encoding="ascii"):
            pass

    def end_dumps_replaced_by_a_file(self):
        os.unlink(self.dumps)

    def begin_dumps_are_a_symlink_to_nowhere(self):
        shutil.rmtree(self.dumps)
        os.symlink("/nowhere/at/all", self.dumps)

    def end_dumps_are_a_symlink_to_nowhere(self):
        os.unlink(self.dumps)

    def begin_directories_for_files(self):
        for name in ("wlb_ipv4.out", "wlb_dump/wlb_rules.bin", "wlb_dump/wlb_ipv4_outbounds.bin"):
            os.unlink(os.path.join(self.out, name))
            os.mkdir(os.path.join(self.out, name))

    def end_directories_for_files(self):
        for name in ("wlb_ipv4.out", "wlb_dump/wlb_rules.bin", "wlb_dump/wlb_ipv4_outbounds.bin"):
            os.rmdir(os.path.join(self.out, name))


OUTPUT_FAULTS = [name.removeprefix("begin_") for name in vars(OutputFaults) if name.startswith("begin_")]

EVERY_FILE = ("wlb_ipv4.out", "wlb_dump/wlb_ipv4_outbounds.bin", "wlb_dump/wlb_rules.bin", "wlb_dump/wlb_routes.bin")


def all_right(pair, since):
    """Every file was written after that moment (of the clock of the files) and says what is the case."""
    paths = [os.path.join(pair.lb.out, name) for name in EVERY_FILE]
    try:
        if not all(os.path.isfile(path) and os.stat(path).st_mtime_ns > since for path in paths):
            return False
        report, outbounds, rules, routes = [open_bytes(path) for path in paths]
    except OSError:
        return False
    if (len(outbounds), len(rules), len(routes)) != (2 * dumps.OUTBOUND_SIZE, dumps.RULE_SIZE, dumps.ROUTE_SIZE):
        return False
    wanted = [1, 0 if pair.second_is_cut else 1]
    active = [dumps.outbound(outbounds[at:at + dumps.OUTBOUND_SIZE])["active"] for at in (0, dumps.OUTBOUND_SIZE)]
    return (report.endswith(b"\n\n") and report.count(b"Status:  active") == sum(wanted) and active == wanted
            and dumps.route(routes)["destination"] == "0.0.0.0/0")


def open_bytes(path):
    with open(path, "rb") as file:
        return file.read()


def broken_for_a_while(lab, pair, fault, begin, end):
    """The fault comes and goes: probing and routing go on in it, and the files are right soon after it."""
    mark, requests = lab.log.mark(), pair.requests()
    begin()
    waiting.wait_until(lambda: pair.requests() >= requests + 2, "probes")
    assert not lab.log.matching(STATE, mark), fault
    pair.change()
    stamp = lab.path("stamp")
    with open(stamp, "w", encoding="ascii"):
        pass
    end()
    requests = len(pair.links[0].responder.requests)
    waiting.wait_until(lambda: all_right(pair, os.stat(stamp).st_mtime_ns), lambda: f"{fault}: files that are right")
    assert len(pair.links[0].responder.requests) - requests <= TWO_CYCLES, fault
    assert len(lab.log.matching(STATE, mark)) == 1, "the change of the second link and no other"


@pytest.mark.parametrize("faults", [OUTPUT_FAULTS[:2], OUTPUT_FAULTS[2:4], OUTPUT_FAULTS[4:]],
                         ids=lambda names: names[0])
def test_output_directory(lab, faults):
    pair = WeightedPair(lab, prefix=PLAIN_OWNER)
    pair.wait_settled()
    broken = OutputFaults(lab, pair.lb.out)
    for fault in faults:
        mark = lab.log.mark()
        broken_for_a_while(lab, pair, fault, getattr(broken, f"begin_{fault}"), getattr(broken, f"end_{fault}"))
        if fault != "dumps_removed":
            assert lab.log.matching("wan_lb: .*(error create directory|[Ee]rror open file for writing)", mark), fault
    pair.check()


def test_output_on_a_small_disk(lab):
    """It fills up and is cleared, and becomes read-only and writable again."""
    disk = SmallDisk(lab, lab.path("small"))
    pair = WeightedPair(lab, out=lab.path("small"))
    pair.lb.out = disk.path
    pair.wait_settled()
    mark = lab.log.mark()
    broken_for_a_while(lab, pair, "full", disk.fill, disk.free)
    lab.log.wait_for("<dump_outbounds> error writing data block", since=mark)
    mark = lab.log.mark()
    broken_for_a_while(lab, pair, "read-only", disk.read_only, lambda: disk.read_only(False))
    assert lab.log.matching("error ordering output file .*/small/wlb_ipv4.out", mark)
    pair.check()


RED_ETC = "/var/vrfs/red/usr/etc"


@pytest.mark.parametrize("fault", ["full", "read-only", "missing"])
def test_directory_of_the_route_file(lab, fault):
    """What could not be written is not written later: the next change of the routes is what is written right."""
    lab.add_netns("red")
    routing = lab.routing_daemon("var_vrfs/red/usr/var/run/routing.pid", ())
    disk = SmallDisk(lab, RED_ETC)  # with room for a new file beside the old one: overwriting could be watched
    pair = WeightedPair(lab, vrf="red", route_file=seen(lab, f"{RED_ETC}/routing-wlb.conf"))
    pair.wait_settled()
    pair.lb.wait_cycles(1)
    pair.watch.verify()
    hups = len(routing.hups)
    away = "/var/vrfs/red/away"
    begin, end, left = {
        "full": (disk.fill, disk.free, ""),
        "read-only": (disk.read_only, lambda: disk.read_only(False), pair.current_text()),
        "missing": (lambda: lab.run(["mv", "/var/vrfs/red/usr", away]),
                    lambda: lab.run(["mv", away, "/var/vrfs/red/usr"]), pair.current_text()),
    }[fault]
    mark = lab.log.mark()
    begin()
    pair.change(wait=False)
    pair.lb.wait_cycles(2)
    if fault == "full":
        assert lab.log.matching(r"error writing file '/var/vrfs/red/usr/etc/routing-wlb.conf', errno = 28", mark)
    if fault != "missing":  # There the pid file is away too.
        hups += 1
    assert len(routing.hups) == hups
    end()
    pair.lb.wait_cycles(2)
    assert lab.read(pair.route_file) == left, "no second try"
    pair.change()
    pair.watch_from_now()
    pair.change()
    routing.wait_hups(hups + 2)
    pair.check()
