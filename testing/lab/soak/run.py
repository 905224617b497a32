"""Runs the soak and reports. See scripts/soak.

Every fault that must be noticed makes two switches due for each family of its link, one when it begins and one when
it ends or the link heals by itself; any other switch that the daemon logs is wrong. The seed decides which fault comes
when to which link; where one is still at work, or its switches are still to come, the next one's turn is passed over.
"""

import argparse
import collections
import heapq
import itertools
import random
import sys
import time

from lab import stalls, waiting
from lab.growth import Growth, holdings
from lab.lab import Lab
from lab.route_watch import STATE_CHANGE

from . import faults
from .ledger import Ledger
from .router import Router

# Three probes of a second each in cycles that other links' faults stretch; then the way back.
DEADLINE = 15.0
LONGEST_SILENCE = 10.0  # between two signs of life for the watchdog
COOL_DOWN = 4.0  # until what was lost lately is forgotten
PACE = 1.0  # seconds between tries to begin a fault, on average


class Soak:
    def __init__(self, router, seed, verbose):
        self.router, self.lab, self.verbose = router, router.lab, verbose
        self.rng = random.Random(seed)
        self.ledger = Ledger()
        self.injected = collections.Counter()
        self.notify = self.lab.notify_socket()
        self.began = time.monotonic()
        self._log_seen = self._beats_seen = 0
        self._settled = float("inf")  # until then the announcements at the start are no switches
        self._order = itertools.count()
        self._endings = []  # (when, order, fault, generator, link number or None)
        self._busy = {None: 0.0, **{number: 0.0 for number in router.links}}  # free again when
        self.longest_silence = 0.0

    def say(self, text):
        print(f"{time.monotonic() - self.began:8.1f} s  {text}", flush=True)

    def _due(self, number, families, state, deadline=DEADLINE):
        now = time.monotonic()
        for key in self.router.keys(number, families):
            self.ledger.expect(key, state, now, now + waiting.scaled(deadline))

    def _read_log(self):
        records = self.lab.log.records
        while self._log_seen < len(records):
            record = records[self._log_seen]
            self._log_seen += 1
            found = STATE_CHANGE.search(record.text)
            if found and not (found[3] == "inactive" and record.when < self._settled):
                self._saw((6 if found[1] else 4, found[2]), found[3], record.when)
        self.ledger.give_up(time.monotonic())

    def _saw(self, key, state, when):
        wrong = len(self.ledger.wrong)
        self.ledger.saw(key, state, when)
        if self.verbose or len(self.ledger.wrong) > wrong:
            self.say(f"{'WRONG: ' if len(self.ledger.wrong) > wrong else ''}IPv{key[0]} {key[1]} is {state}")

    def _read_heartbeats(self):
        beats = [record.when for record in self.notify.records if "WATCHDOG=1" in record.text]
        for earlier, later in zip(beats[max(0, self._beats_seen - 1):], beats[max(1, self._beats_seen):]):
            self.longest_silence = max(self.longest_silence, later - earlier)
        self._beats_seen = len(beats)

    def _watch(self, seconds):
        until = time.monotonic() + seconds
        while time.monotonic() < until:
            self._end_faults()
            self._read_log()
            assert self.router.lb.alive, f"the daemon has ended: {self.router.lb.process.stderr}"
            time.sleep(0.02)

    def _end_faults(self):
        while self._endings and self._endings[0][0] <= time.monotonic():
            _, _, fault, steps, number = heapq.heappop(self._endings)
            if fault.families and not fault.heals:
                self._due(number, fault.families, "active")
            next(steps, None)
            self._busy[number] = time.monotonic() + waiting.scaled(COOL_DOWN)
            if self.verbose:
                self.say(f"ended: {fault.name}, {self._place(number)}")

    def _place(self, number):
        return "router" if number is None else self.router.links[number].name

    def _free(self, number):
        return (self._busy[number] <= time.monotonic()
                and (number is None or not self.ledger.is_due(*self.router.keys(number))))

    def _inject(self):
        """Begins a fault where none is at work."""
        kind = self.rng.choice([faults.FAILING, faults.FAILING, faults.HARMLESS, faults.HARMLESS, faults.GLOBAL])
        number = None if kind is faults.GLOBAL else self.rng.choice(list(self.router.links))
        fault = faults.choose(self.rng, kind, number)
        # A generator of its own: what is drawn while it lasts must not change the choices that follow.
        own = random.Random(self.rng.random())
        if not self._free(number):
            return
        if fault.families:
            self._due(number, fault.families, "inactive")
        if fault.heals:
            self._due(number, fault.families, "active", fault.heals)
        steps = fault.run(self.router, number, own)
        if self.verbose:
            self.say(f"begins: {fault.name}, {self._place(number)}")
        seconds = next(steps)
        self.injected[fault.name] += 1
        self._busy[number] = float("inf")
        heapq.heappush(self._endings, (time.monotonic() + seconds, next(self._order), fault, steps, number))

    def _calm(self):
        """Waits until no fault is at work and no switch is due."""
        while self._endings or self.ledger.is_due():
            self._watch(0.1)

    def _settle(self):
        for number in self.router.links:
            self._due(number, (4, 6), "active")
        self._calm()
        self._settled = time.monotonic()
        self._watch(waiting.scaled(3))

    def run(self, minutes):
        self.router.start()
        self._settle()
        self.say(f"all {len(self.ledger.right)} interfaces are ACTIVE in {len(self.router.watches) // 2} VRFs")
        # The first fault of each kind makes the daemon touch all of its code and buffers once.
        growth = None
        end, next_word = time.monotonic() + minutes * 60, time.monotonic() + 60
        warm = time.monotonic() + min(120.0, minutes * 20)
        while time.monotonic() < end:
            self._inject()
            self._watch(self.rng.uniform(0.2, 2 * PACE))
            if growth is None and time.monotonic() > warm:
                self._watch(0.5)  # the shortest faults end before what follows holds up all endings
                # Requests for neighbours that cannot leave close the VRF's socket of that family.
                growth = Growth(self.lab, self.router.lb, closed_sockets=len(self.router.watches))
            if time.monotonic() > next_word:
                next_word += 60
                self._read_heartbeats()
                self.say(f"{sum(self.injected.values())} faults, {len(self.ledger.right)} switches right, "
                         f"{len(self.ledger.wrong)} wrong, {len(self.ledger.missed)} missed; "
                         f"{holdings(self.lab, self.router.lb)}")
        self._calm()
        self._watch(waiting.scaled(COOL_DOWN))
        return self._report(growth)

    def _problems(self, growth):
        """What is not as it should be, in words."""
        problems = [f"wrong switch of IPv{key[0]} {key[1]} to {state} at {when - self.began:.1f} s"
                    for key, state, when, _ in self.ledger.wrong]
        problems += [f"IPv{key[0]} {key[1]} did not become {state} in time ({after:.1f} s)"
                     for key, state, _, after in self.ledger.missed]
        for check in [watch.verify for watch in self.router.watches] + [growth.check, self._check_kernel]:
            try:
                check()
            except AssertionError as problem:
                problems.append(str(problem))
        self._read_heartbeats()
        if self.longest_silence > waiting.scaled(LONGEST_SILENCE):
            problems.append(f"no sign of life for the watchdog for {self.longest_silence:.1f} s")
        return problems

    def _check_kernel(self):
        """The routing daemon hears of the next change, whatever happened to the signals before."""
        next(steps := faults.far_end_silent(self.router, 2, self.rng))
        self._due(2, (4, 6), "inactive")
        self._calm()
        self._due(2, (4, 6), "active")
        next(steps, None)
        self._calm()
        for family in (4, 6):
            wanted = {number for number in (1, 2, 3, 4, 5) if family in self.router.families(number)}
            waiting.wait_until(lambda f=family, w=wanted: self.router.kernel_next_hops(f) == w,
                               lambda f=family: f"next hops of IPv{f}: {self.router.kernel_next_hops(f)}")

    def _report(self, growth):
        problems = self._problems(growth)
        now = holdings(self.lab, self.router.lb)
        texts = sum(len(watch.contents) for watch in self.router.watches)
        times = sorted(after for _, state, _, after in self.ledger.right if state == "inactive")
        unexplained = len([problem for problem in problems if "route file" in problem])
        print(f"""
time             {time.monotonic() - self.began:.0f} s
faults injected  {sum(self.injected.values())}""")
        for name, count in sorted(self.injected.items()):
            print(f"                 {count:5} {name}")
        print(f"""probes sent      {self.router.probes()} (as counted at the far ends)
switches right   {len(self.ledger.right)}
switches wrong   {len(self.ledger.wrong)}
switches missed  {len(self.ledger.missed)}
failure noticed  {times[len(times) // 2]:.1f} s in the middle, {times[-1]:.1f} s at most (three probes of a second)
route files      {texts} texts seen, {unexplained} files with one that no state explains
watchdog         longest time between two signs of life {self.longest_silence:.1f} s
holdings before  {growth.before}
holdings after   {now}""")
        for problem in problems:
            print(f"PROBLEM  {problem}")
        return problems


def main(arguments):
    parser = argparse.ArgumentParser(prog="scripts/soak", description="A router under random faults.")
    parser.add_argument("--minutes", type=float, required=True)
    parser.add_argument("--seed", type=int, default=None, help="repeat the faults of an earlier run")
    parser.add_argument("--verbose", action="store_true", help="tell every fault and every switch")
    options = parser.parse_args(arguments)
    if options.minutes < 0.5:
        parser.error("a soak takes half a minute at least")
    seed = options.seed if options.seed is not None else random.SystemRandom().randrange(1 << 32)
    print(f"seed {seed}; repeat with: scripts/soak --minutes {options.minutes:g} --seed {seed}", flush=True)
    problems = stalls.last_result(lambda: _once(seed, options),
                                  lambda _, stall: print(f"not judged: the machine stood still for {stall:.2f} s; "
                                                         "the same faults again", flush=True))
    print(f"soak: {'ok' if not problems else f'{len(problems)} problems'}")
    return 1 if problems else 0


def _once(seed, options):
    """The problems of one run, and whether there are some that a machine that stood still may have made."""
    with Lab() as lab:
        soak = Soak(Router(lab), seed, options.verbose)
        try:
            problems = soak.run(options.minutes)
        except (AssertionError, OSError) as problem:
            problems = [str(problem)]
            print(f"PROBLEM  {problem}")
        # An end of the daemon or a sanitizer's report is no matter of time.
        faults_of_the_daemon = lab.finish()
        for fault in faults_of_the_daemon:
            print(f"PROBLEM  {fault}")
        problems += faults_of_the_daemon
        if problems:
            print("The daemon's last words:\n" + "\n".join(lab.log.text().splitlines()[-60:]))
        return problems, bool(problems) and not faults_of_the_daemon
