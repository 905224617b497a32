"""What one row of the table measures."""

from dataclasses import dataclass

FAMILIES = (4, 6)
PATHS = ("frame", "raw")

# Beyond this the kernel's neighbour table, one for the whole machine, might not hold both ends of every link.
MOST_LEARNT_NEIGHBOURS = 300


@dataclass(frozen=True)
class Case:
    """`path`: "frame" (links that resolve addresses) or "raw" (links that do not). `vrfs` share the interfaces."""

    interfaces: int
    family: int = 4
    path: str = "frame"
    vrfs: int = 1

    @property
    def arp(self):
        return self.path == "frame"

    @property
    def answered(self):
        """Whether probes succeed: over IPv6 the raw path never takes a reply for its own."""
        return self.family == 4 or self.arp

    @property
    def resp_time(self):
        """Milliseconds: below a second, so that a probe without an answer is judged in the next cycle."""
        return 900 if self.answered else 500

    @property
    def permanent_neighbours(self):
        return self.interfaces > MOST_LEARNT_NEIGHBOURS

    def __str__(self):
        vrfs = f", {self.vrfs} VRFs" if self.vrfs > 1 else ""
        return f"{self.interfaces} interfaces, IPv{self.family}, {self.path} path{vrfs}"


def cases(interfaces, families, paths):
    """Every combination."""
    return [Case(number, family, path) for family in families for path in paths for number in sorted(interfaces)]
