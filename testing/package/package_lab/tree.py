"""A Debian root tree that has nothing but what the packages bring, and copies of it that cost nothing."""

import contextlib
import glob
import os
import shlex
import subprocess

_DOCUMENTATION = ["--dpkgopt=path-exclude=/usr/share/doc/*", "--dpkgopt=path-include=/usr/share/doc/wan-lb/*",
                  "--dpkgopt=path-exclude=/usr/share/locale/*"]
# The administrator says yes; what is only recommended the guides name; a mirror that fails is asked again.
_ANSWERS = ['--aptopt=APT::Get::Assume-Yes "true"', '--aptopt=APT::Install-Recommends "false"',
            '--aptopt=Acquire::Retries "3"']


def packages(directory):
    """The paths of the packages by name."""
    found = {os.path.basename(path).split("_")[0]: path for path in glob.glob(os.path.join(directory, "*.deb"))}
    assert {"wan-lb", "wan-lb-dev"} <= set(found), f"no packages in {directory}: {found}"
    return found


def make(directory, debs, commands, also=()):
    """A minimal Debian 12 in `directory`, with `also` of Debian's packages; then the packages `debs` are copied there,
    and the commands carried out where they lie."""
    hooks = [f"--customize-hook=cp {deb} \"$1/tmp/\"" for deb in debs]
    hooks.append(f"--customize-hook=chroot \"$1\" sh -ec {shlex.quote('cd /tmp' + chr(10) + commands)}")
    done = subprocess.run(["mmdebstrap", "--mode=root", "--variant=minbase", *_DOCUMENTATION, *_ANSWERS, *hooks,
                           f"--include={','.join(['systemd', *also])}", "bookworm", directory],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    assert done.returncode == 0, done.stdout[-4000:]
    return directory


@contextlib.contextmanager
def copy(tree, work):
    """A copy of the tree to change at will; what was changed is below `work`/changed."""
    names = {name: os.path.join(work, name) for name in ("changed", "work", "root")}
    for path in names.values():
        os.makedirs(path)
    subprocess.run(["mount", "-t", "overlay", "overlay", "-o",
                    f"lowerdir={tree},upperdir={names['changed']},workdir={names['work']}", names["root"]], check=True)
    try:
        yield names["root"]
    finally:
        subprocess.run(["umount", "-l", names["root"]], check=True)


def run(root, *argv, check=True):
    """A command in the tree, without a service manager."""
    done = subprocess.run(["unshare", "-n", "-m", "-p", "--fork", "--kill-child", "sh", "-ec",
                           'mount -t proc proc "$0/proc"; exec chroot "$0" /usr/bin/env -i "$@"', root,
                           "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "DEBIAN_FRONTEND=noninteractive", *argv],
                          capture_output=True, text=True, check=False, timeout=300)
    assert not check or done.returncode == 0, f"{argv}: {done.returncode}\n{done.stdout}{done.stderr}"
    return done


def files(root):
    """Every path of the tree but what lives in memory on a machine that runs."""
    found = set()
    for top, names, others in os.walk(root):
        place = "/" + os.path.relpath(top, root)
        if place in ("/proc", "/sys", "/dev", "/tmp"):
            names.clear()
            continue
        found |= {os.path.normpath(os.path.join(place, name)) for name in names + others}
    return found
