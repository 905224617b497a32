"""Hardware addresses as texts ("02:00:00:00:01:01"), and those that the kernel has for its neighbours."""

from . import waiting


def packed(text):
    return bytes.fromhex(text.replace(":", ""))


def entry_of(lab, device, address, netns=None):
    """The words behind the address in the kernel's table, the last of which is the entry's state; [] for no entry."""
    return lab.neighbours(device, netns, ipv6=":" in address).get(address, "").split()[1:]


def address_of(lab, device, address, netns=None):
    """The hardware address of the kernel's entry; None without one."""
    words = entry_of(lab, device, address, netns)
    return words[words.index("lladdr") + 1] if "lladdr" in words else None


def wait_address(lab, device, address, mac, netns=None):
    waiting.wait_until(lambda: address_of(lab, device, address, netns) == mac,
                       lambda: f"{address} at {mac} on {device}: {entry_of(lab, device, address, netns)}")


def wait_state(lab, device, address, state, netns=None):
    """state: for example "STALE". The kernel's own timers bring it about."""
    waiting.wait_until(lambda: state in entry_of(lab, device, address, netns),
                       lambda: f"{address} {state} on {device}: {entry_of(lab, device, address, netns)}", timeout=60)
