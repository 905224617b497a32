"""The manual pages: lb.conf(5) against what the reader knows and does, and all pages against man.

    router wan1 10.1.0.2 -------- far1: responder
"""

import re
import subprocess

import pytest

from lab import pages
from lab.tool import ctl

PAGES = [("lb", 8), ("lb.conf", 5), ("lbctl", 1), ("wlb_dump", 5)]
PAGE = "packaging/man/lb.conf.5"

# Each block of the configuration with a word that nothing begins with, and where the page has the block's keywords.
NOWHERE = "xyzzyxyzzy"
CONTEXTS = {
    "": "",
    "options {{\n{}\n}}\n": "OPTIONS",
    "health {{\n{}\n}}\n": "HEALTH",
    "health {{\ninterface a {{\n{}\n}}\n}}\n": "Keywords of an interface",
    "health {{\ninterface a {{\ntest 1 {{\n{}\n}}\n}}\n}}\n": "Keywords of a test",
    "health {{\ninterface a {{\ntest 1 {{\ntype ping {{\n{}\n}}\n}}\n}}\n}}\n": "Keywords of a test",
    "rule 1_ipv4 {{\n{}\n}}\n": "RULES",
    "rule 1_ipv4 {{\ninterface a {{\n{}\n}}\n}}\n": "RULES",
    "rule 1_ipv4 {{\ntarget {{\n{}\n}}\n}}\n": "RULES",
}


def plain(line):
    """A line of the page without its requests and fonts."""
    line = re.sub(r"^\.[A-Z]{1,2} ", "", line)
    return re.sub(r'\\f[A-Z]|\\\[aq\]|"', "", line).replace("\\~", " ").replace("\\-", "-")


def entries():
    """{section: {keyword: text}}, from the tags of the page."""
    found, section, words, in_text = {}, "", [], False
    lines = iter(pages.text_of(PAGE).splitlines())
    for line in lines:
        if line.startswith((".SH", ".SS")):
            section, words = plain(line), []
        elif line in (".TP", ".TQ"):
            word = plain(next(lines)).split()[0]
            words = [*words, word] if line == ".TQ" or (words and not in_text) else [word]
            in_text = False
            found.setdefault(section, {}).setdefault(word, "")
        elif line == ".PP":
            words = []
        else:
            in_text = True
            for word in words:
                found[section][word] += plain(line) + "\n"
    return found


def known_here(lab, frame):
    """The words that the block knows, of lbctl's own hint."""
    text = frame.format(NOWHERE + " x") if frame else f"{NOWHERE} {{\n}}\n"
    told = ctl(lab, "check", "--offline", lab.write("lb.conf", text)).stdout
    return set(re.search(r"known here: (.*)", told)[1].split(", "))


def test_every_keyword_is_on_the_page_and_no_other(lab):
    written = entries()
    known = {}
    for frame, section in CONTEXTS.items():
        known.setdefault(section, set()).update(known_here(lab, frame))
    assert known.pop("") == {"options", "health", "rule"}
    known["RULES"].add("rule")
    assert {section: set(written[section]) for section in known} == known
    for section in known:
        for word, text in written[section].items():
            assert "Default:" in text and "Range:" in text, f"{word}:\n{text}"
            if re.search(r"Range: (\d|above|the number)", text) and word not in ("test", "rule"):
                assert "Unit: " in text, f"{word}:\n{text}"


def test_the_reader_knows_no_other_keyword():
    """What the sources compare a word of the file with."""
    text = "".join(pages.text_of(f"src/config/{name}_section.cpp") for name in ("health", "rule", "options"))
    words = set(re.findall(r'(?:key|block) == "([^"]+)"', text) + re.findall(r'\{"([^"]+)", TestKeyword', text) +
                re.findall(r'\{"([^"]+)", "[^"]*", &Options', text))
    written = entries()
    assert words == {word for section in set(CONTEXTS.values()) - {""} for word in written[section]} - {"rule", "test"}
    types = set(re.findall(r'type == "([^"]+)"', pages.text_of("src/tests/probe_factory.cpp")))
    assert f"|{'|'.join(sorted(types))}\n" in pages.text_of(PAGE).replace(".B type ", "|").replace("\\fR|\\fP", "|")


def default_of(section, word):
    return re.search(r"Default: (\S+?)[.;,\s]*$", entries()[section][word].strip())[1]


def test_defaults_are_those_in_force(lab):
    link = lab.uplink(1)
    lb = lab.start_lb("health {\ninterface wan1 {\nnexthop 10.1.0.1\ntest 1 {\ntype ping_ext\nperiod 1\n}\n}\n}\n"
                      "rule 1_ipv4 {\ninterface wan1 {\nweight 1\n}\ntarget {\naddress 0.0.0.0/0\n}\n}\n")
    lb.wait_status("wan1", "active")
    found = lb.outbounds()[0]
    thresholds = {word: int(default_of("Keywords of an interface", word)) for word in ("success-ct", "failure-ct")}
    assert thresholds == {"success-ct": found["success_ct"], "failure-ct": found["failure_ct"]}
    test = found["tests"][0]
    of_tests = {word: int(default_of("Keywords of a test", word)) for word in
                ("resp-time", "count", "jitter", "loss", "rtt")}
    assert of_tests["resp-time"] & 0xff == test["resp_time"]
    assert (of_tests["jitter"], of_tests["loss"], of_tests["rtt"]) == test["measurement"][3:]
    sequences = {request.sequence for request in list(link.responder.requests)}
    assert sequences == set(range(of_tests["count"]))


def examples():
    return [found for found in re.findall(r"^\.EX\n(.*?)^\.EE$", pages.text_of(PAGE), re.MULTILINE | re.DOTALL)
            if found.startswith(("options", "health"))]


def test_there_are_examples():
    assert len(examples()) == 4


@pytest.mark.parametrize("number", range(4))
def test_examples_are_sound(lab, number):
    path = lab.write("lb.conf", examples()[number].replace("\\-", "-"))
    checked = ctl(lab, "check", "--strict", "--offline", path)
    assert (checked.status, checked.stdout, checked.stderr) == (0, "", ""), checked.stdout
    lb = lab.start_lb(None, argv=["-t", "-f", path])
    assert lb.expect_end() == 0
    assert not lab.log.matching(".")


def test_route_files_on_the_page(lab):
    """As the page's first example makes them, with and without bird2."""
    text = examples()[0].replace("nexthop kernel", "nexthop 198.51.100.1")
    plain_text = re.sub(r"options \{.*?^\}\n", "", text, flags=re.DOTALL | re.MULTILINE)
    shown = re.findall(r"^\.EX\n((?:protocol|route) .*?)^\.EE$", pages.text_of(PAGE).replace("\\[aq]", "'"),
                       re.MULTILINE | re.DOTALL)
    assert len(shown) == 2
    for number, configuration in enumerate((plain_text, text)):
        made = ctl(lab, "routes", lab.write("lb.conf", configuration), "-4").stdout
        assert shown[number] in made, made


def test_options_of_the_daemon_are_on_its_page(lab):
    told = lab.run_lb(None, argv=["-h"])
    assert told.status == 0
    known = set(re.findall(r"^ +(-\w) ", told.stdout + told.stderr, re.MULTILINE))
    text = pages.text_of("packaging/man/lb.8").split(".SH OPTIONS")[1].split(".SH")[0]
    assert set(re.findall(r"^\.BI? \\(-\w)", text, re.MULTILINE)) == known


def options_in(text):
    return set(re.findall(r"(?<![\w-])(--?[a-zA-Z0-9][\w-]*)", text))


def test_options_of_lbctl_are_on_its_page(lab):
    """Those that each subcommand's help names, and no others."""
    page = pages.text_of("packaging/man/lbctl.1")
    subcommands = re.findall(r"^  (\w+)  ", ctl(lab, "--help").stdout.split("Subcommands:")[1], re.MULTILINE)
    assert len(subcommands) == 9
    for name in subcommands:
        text = page.split(f".TP\n.B {name} ")[1].split(".TP")[0].split(".SH")[0]
        # A subcommand's environment variables and traces have no hyphens of their own.
        shown = options_in("\n".join(plain(re.sub(r"\\f[A-Z]", "", line)) for line in text.splitlines()))
        known = options_in("\n".join(re.findall(r"^  (-.*?)(?:  |$)", ctl(lab, name, "--help").stdout, re.MULTILINE)))
        # -o is told once, for all.
        assert shown - {"-o"} == known - {"-h", "--help", "-o"}, name


def test_dump_files_are_told_alike():
    """The manual page has the offsets of the reference, record by record, and those are the header's."""
    reference = re.findall(r"^\| (\d+) \| (\S+?)(?: × \d+)? \| `(\w+)` \|", pages.text_of("docs/dump-files.md"),
                           re.MULTILINE)
    page = [(at, size, name) for name, at, size in
            re.findall(r"^\\fI(\w+)\\fP \(offset (\d+), (\d+)", pages.text_of("packaging/man/wlb_dump.5"),
                       re.MULTILINE)]
    assert page == reference
    asserted = re.findall(r"offsetof\(\w+, (\w+)\) == (\d+)", pages.text_of("src/output/dump_format.h"))
    assert asserted and not set(asserted) - {(name, at) for at, _, name in reference}


@pytest.mark.parametrize("name, section", PAGES)
def test_man_takes_the_page(name, section):
    """Not a warning, and something to read."""
    path = f"{pages.REPOSITORY}/packaging/man/{name}.{section}"
    made = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", path], text=True, capture_output=True,
                          check=False, env={"PATH": "/usr/bin:/bin", "MANWIDTH": "80", "LC_ALL": "C.UTF-8"})
    assert (made.returncode, made.stderr) == (0, "")
    assert re.sub(".\b", "", made.stdout).split("\n")[0].startswith(f"{name.upper()}({section})")
