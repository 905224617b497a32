"""Tells whether two builds of the packages are the same bytes, and what differs: python3 -m package_lab.compare A B."""

import glob
import hashlib
import io
import os
import subprocess
import sys
import tarfile


def _members(deb, option):
    """What the archive says of each member, and a digest of its content."""
    archive = subprocess.run(["dpkg-deb", option, deb], check=True, capture_output=True).stdout
    found = {}
    with tarfile.open(fileobj=io.BytesIO(archive)) as files:
        for member in files:
            content = files.extractfile(member) if member.isfile() else None
            found[member.name] = {"mode": oct(member.mode), "owner": f"{member.uname}:{member.gname}",
                                  "time": member.mtime, "size": member.size, "link": member.linkname,
                                  "content": hashlib.sha256(content.read()).hexdigest()[:12] if content else ""}
    return found


def _differences(one, other):
    for option, part in (("--ctrl-tarfile", "control"), ("--fsys-tarfile", "data")):
        first, second = _members(one, option), _members(other, option)
        if list(first) != list(second) and set(first) == set(second):
            yield f"{part}: another order of the members"
        for name in sorted(set(first) | set(second)):
            here, there = first.get(name), second.get(name)
            if here is None or there is None:
                yield f"{part}: {name} is in {one if here else other} only"
            elif here != there:
                yield f"{part}: {name}: " + ", ".join(
                    f"{key} {here[key]} and {there[key]}" for key in here if here[key] != there[key])


def _bytes_of(path):
    with open(path, "rb") as file:
        return file.read()


def main(one, other):
    names = {directory: {os.path.basename(path) for path in glob.glob(os.path.join(directory, "*.deb"))}
             for directory in (one, other)}
    if names[one] != names[other] or not names[one]:
        print(f"FAILED: {sorted(names[one])} in {one}, {sorted(names[other])} in {other}")
        return 1
    status = 0
    for name in sorted(names[one]):
        pair = [os.path.join(directory, name) for directory in (one, other)]
        if _bytes_of(pair[0]) == _bytes_of(pair[1]):
            continue
        status = 1
        print(f"FAILED: {name} differs:")
        found = list(_differences(*pair))
        print("\n".join(f"  {line}" for line in found[:40]) or "  only in how the archive is packed")
    return status


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
