"""python3 -m soak, from the lab's directory."""

import os
import sys

from .run import main

# The far ends are threads of this process; they are to answer at once whatever else it does.
sys.setswitchinterval(0.0005)
os.environ["PATH"] += ":/usr/sbin:/sbin"
sys.exit(main(sys.argv[1:]))
