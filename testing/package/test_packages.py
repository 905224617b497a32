"""The packages in a root tree without a service manager: what they install, and what they leave behind."""

import glob
import os
import re
import subprocess

from package_lab import tree as trees

_EXAMPLES = "/usr/share/doc/wan-lb/examples"


_SOURCES = os.path.join(os.path.dirname(__file__), "..", "..")


def _version():
    with open(os.path.join(_SOURCES, "CMakeLists.txt"), encoding="utf-8") as file:
        return re.search(r"^project\(wan_lb VERSION ([\d.]+)", file.read(), re.MULTILINE)[1]


def test_version_is_one(tree, packages):
    assert trees.run(tree, "lbctl", "--version").stdout == f"lbctl {_version()}\n"
    assert trees.run(tree, "dpkg-query", "-W", "-f", "${Version}", "wan-lb").stdout == _version()
    for name, path in packages.items():
        assert f"_{_version()}_" in path, name
    pages = glob.glob(os.path.join(_SOURCES, "packaging", "man", "*"))
    assert len(pages) == 4
    for path in pages:
        with open(path, encoding="utf-8") as page:
            assert f'"wan-lb {_version()}"' in page.readline(), path
    told = set()
    for path in [os.path.join(_SOURCES, "README.md"), *glob.glob(os.path.join(_SOURCES, "docs", "guides", "*.md"))]:
        with open(path, encoding="utf-8") as page:
            told |= set(re.findall(r"wan-lb_([\d.]+)_", page.read()))
    assert told == {_version()}


def test_sample_is_read_and_clean(tree):
    """The samples of the configuration, and the file that is installed."""
    for sample in (f"{_EXAMPLES}/two-uplinks.conf", f"{_EXAMPLES}/two-providers.conf", "/etc/wan_lb/lb.conf"):
        assert trees.run(tree, "lb", "-t", "-f", sample).returncode == 0
        checked = trees.run(tree, "lbctl", "check", "--offline", sample)
        assert checked.stdout == "", checked.stdout


def test_bird_takes_the_sample(tree):
    done = trees.run(tree, "sh", "-ec", "systemd-tmpfiles --create wan-lb.conf || true\n"
                     f"bird -p -c {_EXAMPLES}/bird.conf")
    assert done.stdout + done.stderr == "" or "rror" not in done.stdout + done.stderr
    # Which is why a removal leaves the route files.
    for name in ("routing-wlb.conf", "routing-wlb6.conf"):
        done = trees.run(tree, "sh", "-ec", f"rm /usr/etc/{name}\nbird -p -c {_EXAMPLES}/bird.conf", check=False)
        assert done.returncode != 0 and f"Unable to open included file /usr/etc/{name}" in done.stderr, done.stderr
        trees.run(tree, "touch", f"/usr/etc/{name}")


def test_directories_are_made(tree):
    for directory in ("/usr/etc", "/var/vrfs", "/var/db"):
        assert os.path.isdir(tree + directory), directory
    for file in ("routing-wlb.conf", "routing-wlb6.conf"):
        assert os.path.getsize(f"{tree}/usr/etc/{file}") == 0


def test_manual_pages(tree):
    """man finds them, and has nothing to say against them."""
    for page in ("lb.8", "lb.conf.5", "lbctl.1", "wlb_dump.5"):
        name, section = page.rsplit(".", 1)
        shown = trees.run(tree, "env", "MANROFFOPT=-ww", "man", "--warnings", "-E", "UTF-8", "-Tutf8", section, name)
        assert shown.stderr == "" and f"{name}({section})".upper() in shown.stdout.upper(), f"{page}: {shown.stderr}"


def test_completion(tree):
    told = trees.run(tree, "bash", "-c", ". /usr/share/bash-completion/completions/lbctl && complete -p lbctl")
    assert told.stdout == "complete -F _lbctl lbctl\n", told.stderr


def _figure(text):
    """Something for whoever runs the tests to read."""
    if os.environ.get("LB_PACKAGE_FIGURES"):
        with open(os.environ["LB_PACKAGE_FIGURES"], "a", encoding="utf-8") as file:
            file.write(text + "\n")


def _use_vrf_samples(tree):
    trees.run(tree, "sh", "-ec", f"cd {_EXAMPLES}; units=/etc/systemd/system; mkdir -p $units/wan-lb.service.d\n"
              "cp *vrf@.service $units/; cp wan-lb.service.d/vrf.conf $units/wan-lb.service.d/")


def test_units_are_sound(tree):
    """Ours, BIRD's with our drop-in, and the sample hook's, then the samples for VRFs too; their manual pages are
    looked for as well."""
    trees.run(tree, "cp", f"{_EXAMPLES}/hooks/wan-lb-watch.service", "/etc/systemd/system/")
    units = ["wan-lb.service", "wan-lb-metrics.service", "wan-lb-metrics.timer", "bird.service", "wan-lb-watch.service"]
    for more in ([], ["vrf@blue.service", "bird-vrf@blue.service"]):
        if more:
            _use_vrf_samples(tree)
        told = trees.run(tree, "systemd-analyze", "verify", *units, *more, check=False)
        assert (told.returncode, told.stdout + told.stderr) == (0, "")


def _exposure(tree, unit):
    told = trees.run(tree, "systemd-analyze", "security", "--offline=true", "--no-pager", unit)
    return float(re.search(r"exposure level for \S+: ([\d.]+)", told.stdout)[1])


def test_exposure_of_the_services(tree):
    """At most 3.0, also with what VRFs need."""
    plain = {unit: _exposure(tree, unit) for unit in ("wan-lb.service", "wan-lb-metrics.service")}
    _use_vrf_samples(tree)
    with_vrfs = {unit: _exposure(tree, unit) for unit in ("wan-lb.service", "bird-vrf@blue.service")}
    for name, found in (("systemd-analyze security", plain), ("systemd-analyze security, with VRFs", with_vrfs)):
        _figure(f"{name}: " + ", ".join(f"{unit} {score}" for unit, score in found.items()))
        assert max(found.values()) <= 3.0, found


def test_development_package(tree, tmp_path):
    """A program of another project builds with nothing but the package."""
    (tmp_path / "reader.cpp").write_text("#include <wan-lb/dump_format.h>\n"
                                         "int main() { return sizeof(DumpOutbound) == 4312 ? 0 : 1; }\n")
    flags = subprocess.run(["pkg-config", "--cflags", "wan-lb"], check=True, capture_output=True, text=True,
                           env={**os.environ, "PKG_CONFIG_PATH": f"{tree}/usr/share/pkgconfig",
                                "PKG_CONFIG_SYSROOT_DIR": tree}).stdout.split()
    # /usr/include is where every compiler looks, so pkg-config leaves it out.
    flags = flags or [f"-I{tree}/usr/include"]
    subprocess.run(["c++", "-std=c++17", *flags, "-o", tmp_path / "reader", tmp_path / "reader.cpp"], check=True)
    assert subprocess.run([tmp_path / "reader"], check=False).returncode == 0


def test_nothing_is_left(tree):
    """After the removal the configuration is left, after the purge nothing is."""
    with_packages = trees.files(tree)
    assert "/usr/sbin/lb" in with_packages
    installed = set(trees.run(tree, "dpkg", "-L", "wan-lb", "wan-lb-dev").stdout.split())
    trees.run(tree, "dpkg", "--remove", "wan-lb", "wan-lb-dev")
    ours = re.compile(r"wan.?lb|wlb|lbctl|sbin/lb$|/lb\.|load-balance|routing\.pid")
    left = {path for path in trees.files(tree) if ours.search(path)} - {
        "/etc/wan_lb", "/etc/wan_lb/lb.conf",
        # written at run time
        "/usr/etc/routing-wlb.conf", "/usr/etc/routing-wlb6.conf", "/run/load-balance", "/run/routing.pid",
        # dpkg's memory of the configuration file
        "/var/lib/dpkg/info/wan-lb.list", "/var/lib/dpkg/info/wan-lb.postrm",
        "/var/lib/systemd/deb-systemd-helper-enabled/wan-lb.service.dsh-also",
        "/var/lib/systemd/deb-systemd-helper-enabled/wan-lb-metrics.timer.dsh-also"}
    assert left == set()
    trees.run(tree, "dpkg", "--purge", "wan-lb", "wan-lb-dev")
    assert {path for path in trees.files(tree) if ours.search(path)} == set()
    others = set(trees.run(tree, "sh", "-c", "cat /var/lib/dpkg/info/*.list").stdout.splitlines())
    for path in installed - others | {"/usr/etc", "/var/vrfs", "/var/db"}:
        assert not os.path.lexists(tree + path), path
