"""A root directory that has some of this machine's packages and nothing else. It takes a second, and needs no root."""

import os
import re
import shutil
import subprocess

_USELESS = ("/usr/share/doc/", "/usr/share/man/", "/usr/share/locale/", "/usr/share/info/")

# Not root, it is one in a namespace of its own.
_ENTER = r"""
root=$1
mkdir -p "$root/dev" "$root/tmp" "$root/ccache"
touch "$root/dev/null"
mount --bind /dev/null "$root/dev/null"
[ -z "$CCACHE_DIR" ] || mount --bind "$CCACHE_DIR" "$root/ccache"
cd "$root"
shift
exec chroot . /usr/bin/env -i CCACHE_DIR=/ccache HOME=/tmp PATH=/usr/bin:/bin "$@"
"""


def _described(*fields):
    """Those fields of each installed package."""
    form = "\t".join("${%s}" % field for field in ("db:Status-Status", *fields)) + "\n"
    told = subprocess.run(["dpkg-query", "-W", "-f", form], check=True, capture_output=True, text=True).stdout
    for line in told.splitlines():
        status, *rest = line.split("\t")
        if status == "installed":
            yield rest


def _names(text):
    """Of a list of dependencies: all that would do."""
    return [words.split()[0].split(":")[0] for words in re.split("[,|]", text) if words.split()]


def with_all_they_need(names):
    """The installed packages among the names, and those that they depend on, and so on."""
    needs, called = {}, {}
    for name, first, second, provided in _described("Package", "Pre-Depends", "Depends", "Provides"):
        needs[name] = _names(first) + _names(second)
        for other in [name, *_names(provided)]:
            called.setdefault(other, set()).add(name)
    found, left = set(), list(names)
    while left:
        for name in called.get(left.pop(), set()) - found:
            found.add(name)
            left += needs[name]
    return found


class BuildRoot:
    def __init__(self, path, packages):
        self._path = path
        # Builds have a shell.
        chosen = with_all_they_need({*packages, "dash", "coreutils"})
        assert set(packages) <= chosen, f"not installed: {set(packages) - chosen}"
        self._cache = os.environ.get("CCACHE_DIR", "") if shutil.which("ccache") else ""
        if self._cache:
            # It brings nothing to compile with.
            os.makedirs(self._cache, exist_ok=True)
            chosen |= {name for name in with_all_they_need({"ccache"}) if not name.endswith("-dev")}
        os.makedirs(path)
        for name in ("bin", "sbin", "lib", "lib64"):
            os.makedirs(path / "usr" / name)
            os.symlink(f"usr/{name}", path / name)
        listed = subprocess.run(["dpkg-query", "-L", *sorted(chosen)], check=True, capture_output=True, text=True)
        for line in sorted(set(listed.stdout.splitlines())):
            if line.startswith("/") and not line.startswith(_USELESS):
                self._bring_one(line)

    def _bring_one(self, name):
        target = self._path / name.removeprefix("/")
        if os.path.islink(name):
            if not os.path.lexists(target):
                target.parent.mkdir(parents=True, exist_ok=True)
                os.symlink(os.readlink(name), target)
        elif os.path.isdir(name):
            target.mkdir(parents=True, exist_ok=True)
        elif os.path.exists(name) and not target.exists():
            target.parent.mkdir(parents=True, exist_ok=True)
            try:
                os.link(name, target)
            except OSError:  # another file system, or not our file
                shutil.copy2(name, target)

    def bring(self, source, name):
        """A file or a directory, as a copy."""
        target = self._path / name
        target.parent.mkdir(parents=True, exist_ok=True)
        (shutil.copytree if os.path.isdir(source) else shutil.copy2)(source, target)

    def run(self, directory, commands, **environment):
        """The commands of a shell in that directory."""
        if self._cache:
            environment["CMAKE_CXX_COMPILER_LAUNCHER"] = "ccache"
        settings = [f"{name}={value}" for name, value in environment.items()]
        settings += [f"{name}={value}" for name, value in os.environ.items()
                     if name.startswith("CCACHE_") and name != "CCACHE_DIR"]
        return subprocess.run(["unshare", "-m", *([] if os.geteuid() == 0 else ["-r"]), "sh", "-ec", _ENTER, "sh",
                               str(self._path), *settings, "sh", "-ec", f"cd /{directory}\n{commands}"],
                              env={**os.environ, "CCACHE_DIR": self._cache}, capture_output=True, text=True,
                              check=False, timeout=600)
