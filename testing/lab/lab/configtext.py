"""Builds configuration files for the daemon, so that a scenario shows only what matters to it."""

import textwrap


def ping(target="", kind="ping", **keywords):
    """The lines of one test. Keywords are written with "-" for "_": resp_time=300 gives "resp-time 300"."""
    lines = [f"type {kind}"]
    if target:
        lines.append(f"target {target}")
    lines += [f"{name.replace('_', '-')} {value}" for name, value in keywords.items()]
    return lines


def ping_ext(target="", **keywords):
    return ping(target, "ping_ext", **keywords)


def interface(name, tests=(), ipv6=False, check_all=False, nested=False, **keywords):
    """A block of the health section; `nested` writes the test's type as an inner block.

    Keywords: success_ct, failure_ct, nexthop, namespace, origin, source_address, lease_file, hold_down.
    """
    lines = [f"interface{'6' if ipv6 else ''} {name} {{"]
    for keyword, value in keywords.items():
        written = keyword if keyword == "source_address" else keyword.replace("_", "-")
        lines.append(f"    {written} {value}")
    if check_all:
        lines.append("    check_all")
    for index, test in enumerate(tests, start=1):
        lines.append(f"    test {index} {{")
        if nested:
            lines += [f"        {test[0]} {{", *(f"            {line}" for line in test[1:]), "        }"]
        else:
            lines += [f"        {line}" for line in test]
        lines.append("    }")
    return "\n".join(lines + ["}"])


def rule(name, members, targets, failover=False, namespace=None, ipv6=None):
    """A rule. members: {interface: weight}; targets: {prefix: metric or None}."""
    if ipv6 is None:
        ipv6 = "ipv4" not in name
    lines = [f"rule {name} {{"]
    if namespace:
        lines.append(f"    namespace {namespace}")
    if failover:
        lines.append("    failover")
    for member, weight in members.items():
        lines += [f"    interface{'6' if ipv6 else ''} {member} {{", f"        weight {weight}", "    }"]
    for prefix, metric in targets.items():
        lines += ["    target {", f"        address {prefix}"]
        if metric is not None:
            lines.append(f"        metric {metric}")
        lines.append("    }")
    return "\n".join(lines + ["}"])


def options(*lines):
    """The section of what goes beyond the defaults, to stand before the rest; nothing without lines."""
    return "\n".join(["options {", *(f"    {line}" for line in lines), "}\n"]) if lines else ""


def build(interfaces, rules):
    """The whole file."""
    health = textwrap.indent("\n".join(interfaces), "    ")
    return "health {\n" + health + "\n}\n" + "\n".join(rules) + "\n"


def single(link, tests=(), ipv6=False, target_prefix=None, **keywords):
    """A configuration with one uplink in one rule; settles after one result unless told otherwise."""
    settings = {"success_ct": 1, "nexthop": link.gateway6 if ipv6 else link.gateway, **keywords}
    if link.vrf:
        settings.setdefault("namespace", link.vrf)
    version = 6 if ipv6 else 4
    prefix = target_prefix or ("::/0" if ipv6 else "0.0.0.0/0")
    return build([interface(link.name, tests, ipv6=ipv6, **settings)],
                 [rule(f"1_ipv{version}", {link.name: 1}, {prefix: None}, namespace=link.vrf)])


def route_line(prefix, vias, metric=None):
    """The route over those pairs of next hop and weight; empty when there are none, as there is no route then."""
    hops = [f" via {nexthop} weight {weight}" for nexthop, weight in vias]
    if hops and metric is not None:
        hops[0] += f" metric {metric}"
    return f"route {prefix}{''.join(hops)};" if hops else ""


def route_file(*lines, ipv6=False):
    """The routing daemon's file for those route lines, as documented; empty lines are left out."""
    table = "ipv6 {table master6;};" if ipv6 else "ipv4 {table master4;};"
    return "".join(f"protocol static {{\n{table}\ncheck link 1;\n{line}\n}};\n" for line in lines if line)
