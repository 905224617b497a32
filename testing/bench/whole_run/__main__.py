"""python3 -m whole_run, with the lab's directory and this one's parent in PYTHONPATH."""

import os
import sys

from .run import main

# The log's reader and the routes' stamp what they get; they are to run at once.
sys.setswitchinterval(0.0005)
os.environ["PATH"] += ":/usr/sbin:/sbin"
sys.exit(main(sys.argv[1:]))
