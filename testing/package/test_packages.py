"""The packages in a root tree without a service manager: what they install, and what they leave behind."""

import os
import re
import subprocess

from package_lab import tree as trees

_EXAMPLES = "/usr/share/doc/wan-lb/examples"


def _version():
    with open(os.path.join(os.path.dirname(__file__), "..", "..", "CMakeLists.txt"), encoding="utf-8") as file:
        return re.search(r"^project\(wan_lb VERSION ([\d.]+)", file.read(), re.MULTILINE)[1]


def test_version_is_one(tree, packages):
    assert trees.run(tree, "lbctl", "--version").stdout == f"lbctl {_version()}\n"
    assert trees.run(tree, "dpkg-query", "-W", "-f", "${Version}", "wan-lb").stdout == _version()
    for name, path in packages.items():
        assert f"_{_version()}_" in path, name
    with open(os.path.join(os.path.dirname(__file__), "..", "..", "packaging", "man", "lb.8"), encoding="utf-8") as page:
        assert f'"wan-lb {_version()}"' in page.readline()


def test_sample_is_read_and_clean(tree):
    """The samples of the configuration, and the file that is installed."""
    for sample in (f"{_EXAMPLES}/two-providers.conf", "/etc/wan_lb/lb.conf"):
        assert trees.run(tree, "lb", "-t", "-f", sample).returncode == 0
        checked = trees.run(tree, "lbctl", "check", "--offline", sample)
        assert checked.stdout == "", checked.stdout


def test_bird_takes_the_sample(tree):
    done = trees.run(tree, "sh", "-ec", "systemd-tmpfiles --create wan-lb.conf || true\n"
                     f"bird -p -c {_EXAMPLES}/bird.conf")
    assert done.stdout + done.stderr == "" or "rror" not in done.stdout + done.stderr


def test_directories_are_made(tree):
    for directory in ("/usr/etc", "/var/vrfs", "/var/db"):
        assert os.path.isdir(tree + directory), directory
    for file in ("routing-wlb.conf", "routing-wlb6.conf"):
        assert os.path.getsize(f"{tree}/usr/etc/{file}") == 0


def test_manual_pages(tree):
    for page in ("lb.8", "lb.conf.5", "lbctl.1", "wlb_dump.5"):
        path = f"{tree}/usr/share/man/man{page[-1]}/{page}.gz"
        assert os.path.exists(path), path


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
    trees.run(tree, "dpkg", "--remove", "wan-lb", "wan-lb-dev")
    ours = re.compile(r"wan.?lb|wlb|lbctl|sbin/lb$|/lb\.")
    left = {path for path in trees.files(tree) if ours.search(path)} - {
        "/etc/wan_lb", "/etc/wan_lb/lb.conf",
        # written at run time
        "/usr/etc/routing-wlb.conf", "/usr/etc/routing-wlb6.conf",
        # dpkg's memory of the configuration file
        "/var/lib/dpkg/info/wan-lb.list", "/var/lib/dpkg/info/wan-lb.postrm",
        "/var/lib/systemd/deb-systemd-helper-enabled/wan-lb.service.dsh-also",
        "/var/lib/systemd/deb-systemd-helper-enabled/wan-lb-metrics.timer.dsh-also"}
    assert left == set()
    trees.run(tree, "dpkg", "--purge", "wan-lb", "wan-lb-dev")
    assert {path for path in trees.files(tree) if ours.search(path)} == set()
    for directory in ("/usr/etc", "/var/vrfs", "/var/db"):
        assert not os.path.exists(tree + directory), directory
