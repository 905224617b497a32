"""The packages as they are built, and what building takes. Nothing is installed, and root is not needed."""

import json
import os
import re
import subprocess
import textwrap

import pytest

from package_lab import buildroot

_ROOT = os.path.realpath(os.path.join(os.path.dirname(__file__), "..", ".."))
_EXAMPLES = "usr/share/doc/wan-lb/examples"
_LIBRARIES = {  # of the daemon alone, beside those of the C++ compiler
    "libdw.so.1", "libmnl.so.0", "libnetfilter_conntrack.so.3", "libsystemd.so.0"}
_COMPILER = {"libc.so.6", "libgcc_s.so.1", "libm.so.6", "libstdc++.so.6", "ld-linux-x86-64.so.2"}


def _output(*argv, **more):
    return subprocess.run(argv, check=True, capture_output=True, text=True, **more).stdout


def _source(path):
    return os.path.join(_ROOT, path)


def _listed(deb):
    """Modes and owners of the package's files by path."""
    found = {}
    for line in _output("dpkg-deb", "-c", deb).splitlines():
        mode, owner, _, _, _, path = line.split(None, 5)
        if not path.endswith("/"):
            found[path.removeprefix("./")] = (mode, owner)
    return found


def _manual_pages(*names):
    return {f"usr/share/man/man{name[-1]}/{name}.gz" for name in names}


def test_files_of_the_package(packages):
    """Everything in its place, and nothing else."""
    found = _listed(packages["wan-lb"])
    units = "lib/systemd/system"
    samples = {os.path.join(_EXAMPLES, os.path.relpath(os.path.join(top, name), _source("packaging/examples")))
               for top, _, names in os.walk(_source("packaging/examples")) for name in names}
    pages = {os.path.join("usr/share/doc/wan-lb", os.path.relpath(os.path.join(top, name), _source("docs")))
             for top, _, names in os.walk(_source("docs")) for name in names}
    assert set(found) == samples | pages | _manual_pages("lb.8", "lb.conf.5", "lbctl.1", "wlb_dump.5") | {
        "etc/wan_lb/lb.conf", "usr/sbin/lb", "usr/bin/lbctl", "usr/lib/tmpfiles.d/wan-lb.conf",
        "usr/share/bash-completion/completions/lbctl",
        f"{units}/wan-lb.service", f"{units}/wan-lb-metrics.service", f"{units}/wan-lb-metrics.timer",
        f"{units}/bird.service.d/wan-lb.conf",
        "usr/share/doc/wan-lb/changelog.gz", "usr/share/doc/wan-lb/copyright"}
    programs = {path for path, (mode, _) in found.items() if mode == "-rwxr-xr-x"}
    assert programs - samples == {"usr/sbin/lb", "usr/bin/lbctl"}
    assert {mode for mode, _ in found.values()} <= {"-rwxr-xr-x", "-rw-r--r--"}
    assert {owner for _, owner in found.values()} == {"root/root"}


def test_files_of_the_development_package(packages):
    assert set(_listed(packages["wan-lb-dev"])) == {
        "usr/include/wan-lb/dump_format.h", "usr/share/pkgconfig/wan-lb.pc",
        "usr/share/doc/wan-lb-dev/changelog.gz", "usr/share/doc/wan-lb-dev/copyright"}


def test_alert_rules(packages, tmp_path):
    subprocess.run(["dpkg-deb", "-x", packages["wan-lb"], tmp_path], check=True)
    told = subprocess.run(["promtool", "check", "rules", f"{tmp_path}/{_EXAMPLES}/alerts.yml"], capture_output=True,
                          text=True, check=False)
    assert told.returncode == 0 and "SUCCESS" in told.stdout, told.stdout + told.stderr


def _needed(program):
    """The libraries that it is linked with."""
    return set(re.findall(r"NEEDED\s+(\S+)", _output("objdump", "-p", program)))


def test_daemon_needs_its_own_libraries_only(packages, tmp_path):
    subprocess.run(["dpkg-deb", "-x", packages["wan-lb"], tmp_path], check=True)
    assert _needed(tmp_path / "usr" / "sbin" / "lb") - _COMPILER == _LIBRARIES


@pytest.fixture(scope="module")
def documented():
    """The packages that the documentation names for a build of the daemon alone."""
    texts = [_source("README.md")] + [os.path.join(top, name) for top, _, names in os.walk(_source("docs"))
                                      for name in names if name.endswith(".md")]
    found = set()
    for path in texts:
        with open(path, encoding="utf-8") as file:
            found |= {" ".join(words.split()) for words in re.findall(r"`(g\+\+ cmake [^`]*)`", file.read())}
    assert len(found) == 1, found
    return set(found.pop().split())


def _packages_of(paths):
    found = set()
    for line in _output("dpkg", "-S", *sorted(paths)).splitlines():
        found.add(line.split(":")[0])
    return found


def _with_dependencies(names):
    """With those that come with them at once, for headers are shared out among several packages."""
    told = _output("dpkg-query", "-W", "-f", "${Depends},", *sorted(names))
    return names | {words.split()[0].split(":")[0] for words in re.split("[,|]", told) if words.split()}


def test_daemon_alone_is_built_as_documented(documented, tmp_path):
    """The README's commands, where there is nothing of this machine but the packages that it names, and what those need.
    Not optimised, and several sources at once, since only what is there counts."""
    root = buildroot.BuildRoot(tmp_path / "root", documented)
    for name in ("CMakeLists.txt", "cmake", "src", "packaging", "docs"):
        root.bring(_source(name), f"source/{name}")
    with open(_source("README.md"), encoding="utf-8") as file:
        commands, = re.findall(r"^```sh\n(cmake [^`]*)```$", file.read(), re.MULTILINE)
    options = "-DLB_BUILD_TOOLS=OFF -DLB_BUILD_TESTS=OFF"
    assert commands.count(options) == 1
    told = root.run("source", commands.replace(options, f"{options} -DLB_BUNDLE=30"),
                    CMAKE_BUILD_TYPE="None", CXXFLAGS="-O0", CMAKE_BUILD_PARALLEL_LEVEL="2")
    assert told.returncode == 0, told.stdout[-4000:] + told.stderr[-4000:]
    build = tmp_path / "root" / "source" / "build"
    assert _needed(build / "lb") - _COMPILER == _LIBRARIES
    told = root.run("source", "build/lb -t -f packaging/examples/two-uplinks.conf")
    assert (told.returncode, told.stdout + told.stderr) == (0, "")
    compiled = {command["file"] for command in json.loads((build / "compile_commands.json").read_text())}
    assert "/source/src/main.cpp" in compiled and not [path for path in compiled if not path.startswith("/source/")]


def test_daemon_is_compiled_with_the_documented_packages(documented, tmp_path):
    """The headers that its sources name, and all that those include."""
    headers, choices = set(), set()
    for top, _, names in os.walk(_source("src")):
        for name in names:
            with open(os.path.join(top, name), encoding="utf-8") as file:
                text = file.read()
            headers |= set(re.findall(r"^#include <([^>]+)>", text, re.MULTILINE))
            choices |= set(re.findall(r"^#define BACKWARD_\w+ .*$", text, re.MULTILINE))
    assert "libmnl/libmnl.h" in headers
    order = sorted(headers, key=lambda header: (header.startswith("linux/"), header))  # the kernel's after libc's
    (tmp_path / "all.cpp").write_text("\n".join([*sorted(choices), *(f"#include <{header}>" for header in order), ""]))
    told = _output("c++", "-std=c++20", "-M", str(tmp_path / "all.cpp"))
    paths = {os.path.realpath(path) for path in told.replace("\\\n", " ").split()[2:]}
    used = {name for name in _packages_of(paths)
            if not re.match(r"(libc6|libcrypt|libstdc\+\+|libgcc|linux-libc)-?.*-dev$|g\+\+", name)}
    libraries = {name for name in documented if name.startswith("lib")}
    assert used <= _with_dependencies(libraries)
    assert libraries <= used, "a package that nothing needs"


def test_two_packages_that_differ_are_told_apart(tmp_path):
    """The comparison of two builds: content, modes and times."""
    for place, content, mode in (("a", "one\n", 0o644), ("b", "two\n", 0o600)):
        root = tmp_path / place / "root"
        (root / "DEBIAN").mkdir(parents=True)
        (root / "DEBIAN" / "control").write_text(textwrap.dedent("""\
            Package: sample
            Version: 1
            Architecture: all
            Maintainer: nobody <nobody@example.org>
            Description: sample
            """))
        (root / "file").write_text(content)
        (root / "file").chmod(mode)
        subprocess.run(["dpkg-deb", "--root-owner-group", "-b", root, tmp_path / place / "sample.deb"], check=True,
                       capture_output=True, env={**os.environ, "SOURCE_DATE_EPOCH": "1000000000"})
    compare = ["/usr/bin/python3", "-m", "package_lab.compare"]
    told = subprocess.run([*compare, "a", "b"], capture_output=True, text=True, check=False, cwd=tmp_path,
                          env={**os.environ, "PYTHONPATH": os.path.dirname(__file__)})
    assert told.returncode == 1, told.stderr
    assert re.search(r"data: ./file: mode 0o644 and 0o600, content \w+ and \w+\n", told.stdout), told.stdout
    told = subprocess.run([*compare, "a", "a"], capture_output=True, text=True, check=False, cwd=tmp_path,
                          env={**os.environ, "PYTHONPATH": os.path.dirname(__file__)})
    assert (told.returncode, told.stdout) == (0, "")
