"""Commands that start a program with few capabilities."""

# What the daemon needs, see docs/running.md.
NEEDED = ("net_raw", "net_admin", "sys_admin", "kill")
NOBODY = 65534


def _listed(capabilities):
    return ",".join(["-all", *(f"+{name}" for name in capabilities)])


def only(capabilities=NEEDED):
    """As root, with no others."""
    return ["setpriv", "--bounding-set", _listed(capabilities), "--inh-caps", "-all"]


def as_nobody(capabilities=NEEDED):
    """The same for a user who is nobody."""
    sets = [f"--{name}={_listed(capabilities)}" for name in ("bounding-set", "inh-caps", "ambient-caps")]
    return ["setpriv", "--reuid", str(NOBODY), "--regid", str(NOBODY), "--clear-groups", *sets]
