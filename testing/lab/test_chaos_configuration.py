"""Configurations of a hundred thousand lines.

    router wan1 10.1.0.2 -------- 10.1.0.1 far1: responder
    ...
    router wan4 10.4.0.2 -------- 10.4.0.1 far4: responder
"""

from lab import configtext, daemon, dumps, waiting
from lab.configtext import interface, ping, route_file, route_line, rule
from lab.growth import Growth
from lab.route_watch import RouteWatch

ROUTE_FILE = "usr_etc/routing-wlb.conf"
LINKS = range(1, 5)
RULES, TARGETS = 5000, 4  # targets of each rule


def health(links):
    return [interface(link.name, [ping(link.gateway, resp_time=1000)], success_ct=1, nexthop=link.gateway)
            for link in links]


def noise(lines):
    """Comments, blank lines, keywords and whole sections that nobody knows."""
    five = "# comment {0}\n\n    keyword{0} value \"quoted # {0}\nsection{0} {{  # }}\n}}\n"
    return "".join(five.format(number) for number in range(lines // 5))


def memory_kib(lab, lb):
    return int(lab.run(["sh", "-c", f"grep VmHWM /proc/{lb.pid}/status"]).stdout.split()[1])


def start(lab, text, links, within):
    """The daemon, and the processor's seconds until every link is active, which are not to be more than `within`."""
    assert text.count("\n") >= 100_000
    lb = lab.start_lb(text)
    waiting.wait_until(lambda: (names := [record.text for record in lab.log.matching("changed state to active")])
                       and len(names) == len(links), "all links", timeout=60, interval=0.05)
    used = lb.processor_seconds()
    assert used < waiting.scaled(within)
    return lb, used


def work(lb, cycles, each):
    """Waits for so many cycles and returns what work each is, in seconds of a processor: `each` at most."""
    begun = lb.processor_seconds()
    lb.wait_cycles(cycles, timeout=60)
    used = (lb.processor_seconds() - begun) / cycles
    assert used < waiting.scaled(each)
    return used


def report(what, lab, lb, starting, cycle):
    print(f"{what}: {starting:.2f} s of a processor until the links are active, {cycle:.2f} s for a cycle, "
          f"at most {memory_kib(lab, lb)} KiB of memory")


def test_a_hundred_thousand_lines_of_noise(lab):
    links = [lab.uplink(number) for number in LINKS]
    weights = {link.name: link.number for link in links}
    text = (noise(50_000) + "health {\n" + noise(25_000).replace("section", "word")
            + "\n".join(health(links)) + "\n}\n" + noise(25_000)
            + rule("1_ipv4", weights, {"0.0.0.0/0": None}) + "\n")
    lb, starting = start(lab, text, links, within=1)
    cycle = work(lb, 4, 0.1)
    vias = [(link.gateway, link.number) for link in links]
    lab.wait_text(ROUTE_FILE, route_file(route_line("0.0.0.0/0", vias)))
    growth = Growth(lab, lb)
    assert set(lb.statuses()) == set(weights) and len(lb.rules()) == 1
    assert not lab.log.matching("Malformed|mismatched|Illegal rule number")
    report("noise", lab, lb, starting, cycle)
    if not daemon.has_sanitizer(daemon.program()):
        assert memory_kib(lab, lb) < 32 << 10
    growth.check()


def test_thousands_of_rules_and_targets(lab):
    links = [lab.uplink(number) for number in LINKS]
    weights = {link.name: link.number for link in links}
    numbers = sorted(map(str, range(1, RULES + 1)), key="{}_ipv4".format)

    def targets(number):
        return [f"10.{int(number) >> 8}.{int(number) & 255}.{part * 64}/26" for part in range(TARGETS)]

    config = configtext.build(health(links), [
        rule(f"{number}_ipv4", weights, dict.fromkeys(targets(number), int(number))) for number in numbers])
    texts = {}

    def explain(active):
        """The whole file while those links are active."""
        if active not in texts:
            vias = [(link.gateway, link.number) for link in links if link.name in active]
            texts[active] = route_file(*(route_line(prefix, vias, metric=number) for number in numbers
                                         for prefix in sorted(targets(number))))
        return texts[active]

    lb, starting = start(lab, config, links, within=2)
    everything, without_last = frozenset(weights), frozenset(list(weights)[:-1])
    lab.wait_text(ROUTE_FILE, explain(everything))
    growth = Growth(lab, lb)
    watch = RouteWatch(lab, ROUTE_FILE, explain)
    requests = len(links[0].responder.requests)
    cycle = work(lb, 5, 0.3)
    # A probe is judged in the cycle after its own, and the next one follows in the one after that.
    assert len(links[0].responder.requests) - requests >= 2
    links[-1].cut()
    lab.wait_text(ROUTE_FILE, explain(without_last))
    links[-1].restore()
    lab.wait_text(ROUTE_FILE, explain(everything))

    def whole():
        rules, routes = lb.dump("wlb_rules.bin"), lb.dump("wlb_routes.bin")
        return len(rules) == RULES * dumps.RULE_SIZE and len(routes) == RULES * TARGETS * dumps.ROUTE_SIZE and (
            rules, routes)

    rules, routes = waiting.wait_until(whole, "dumps of every rule and route")
    for place in range(0, RULES, 97):
        number = int(numbers[place])
        found = dumps.rule(rules[place * dumps.RULE_SIZE:(place + 1) * dumps.RULE_SIZE])
        assert found["number"] == number and [member["name"] for member in found["members"]] == sorted(weights)
        for part, prefix in enumerate(sorted(targets(numbers[place]))):
            at = (place * TARGETS + part) * dumps.ROUTE_SIZE
            assert dumps.route(routes[at:at + dumps.ROUTE_SIZE]) == {
                "destination": prefix, "nexthop": "", "metric": number, "index": part + 1, "number": number, "ipv6": 0}
    report("rules", lab, lb, starting, cycle)
    growth.check()
    watch.verify()
