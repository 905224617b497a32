"""python3 -m whole_run, with the lab's directory and this one's parent in PYTHONPATH."""

import os
import sys

from .run import main

os.environ["PATH"] += ":/usr/sbin:/sbin"
sys.exit(main(sys.argv[1:]))
