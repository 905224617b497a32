"""The outside of a lab's namespaces: starts the holder, and runs programs and opens sockets through it.

One thread reads what the holder says; everything else runs in the caller's thread.
"""

import errno
import json
import os
import queue
import shutil
import socket
import subprocess
import sys
import tempfile
import threading

from . import rootview, waiting

_HOLDER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "holder.py")


class CommandFailed(AssertionError):
    """A command that the lab itself needs went wrong."""


class Process:
    """A process in the lab. `pid` is its number inside the lab."""

    def __init__(self, enclosure, pid, argv, stdout, stderr):
        self.enclosure, self.pid, self.argv = enclosure, pid, argv
        self.stdout_path, self.stderr_path = stdout, stderr

    @property
    def status(self):
        """Exit status, negative for a signal; None while it runs."""
        return self.enclosure.exits.get(self.pid)

    def wait(self, timeout=waiting.PATIENCE):
        if not self.enclosure.await_exit(self.pid, waiting.scaled(timeout)):
            raise waiting.TimedOut(f"not within {waiting.scaled(timeout):g} s: end of {self.argv}")
        return self.status

    def signal(self, number):
        try:
            self.enclosure.request({"op": "kill", "pid": self.pid, "signal_number": int(number)})
        except OSError as error:
            if error.errno != errno.ESRCH:
                raise

    @property
    def stdout(self):
        with open(self.stdout_path, encoding="utf-8", errors="replace") as file:
            return file.read()

    @property
    def stderr(self):
        with open(self.stderr_path, encoding="utf-8", errors="replace") as file:
            return file.read()


class Enclosure:
    """Private user, mount, network and pid namespaces with a private root view."""

    def __init__(self, user_namespace=True):
        """Root alone may do without the user namespace, which knows but one user."""
        # A short path: it holds a socket whose path may have 107 characters at most.
        self.top = tempfile.mkdtemp(prefix="lblab-")
        self._left_running = False
        rootview.make_directories(self.top)
        self.exits = {}
        self._exited = threading.Condition()
        self._answers = queue.Queue()
        self._lock = threading.Lock()
        self._counter = 0
        self.control, inside = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self._reader = threading.Thread(target=self._read, daemon=True)
        # Root alone may do without.
        self._has_user_namespace = os.geteuid() != 0 or (
            user_namespace and os.environ.get("LB_LAB_USERNS", "1") != "0")
        self._starter = self._start(inside)
        inside.close()
        self._reader.start()
        try:
            self._next_answer("ready")
        except waiting.TimedOut:
            with open(self.path("holder.log"), encoding="utf-8") as log:
                text = log.read()
            self.close()
            raise CommandFailed(f"the lab's namespaces could not be made: {text}") from None

    def _start(self, inside):
        namespaces = ["--net", "--mount", "--pid"]
        if self._has_user_namespace:
            namespaces += ["--user", "--map-root-user"]
        with open(self.path("holder.log"), "w", encoding="utf-8") as log:
            return subprocess.Popen(
                # Without packages of the host's, which take as long to set up as all the rest of the interpreter.
                ["unshare", *namespaces, "--fork", "--kill-child", sys.executable, "-S", _HOLDER, self.top,
                 str(inside.fileno())],
                pass_fds=[inside.fileno()], stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                process_group=0, env={**os.environ, "PYTHONDONTWRITEBYTECODE": "1"})

    def path(self, name):
        """A path below the lab's own directory; the same inside and outside."""
        return os.path.join(self.top, name)

    def _read(self):
        while True:
            try:
                data, descriptors, _, _ = socket.recv_fds(self.control, 1 << 16, 4)
            except OSError:
                data = b""
            if not data:
                self._answers.put((None, []))
                return
            message = json.loads(data)
            if "exit" in message:
                with self._exited:
                    self.exits[message["exit"]] = message["status"]
                    self._exited.notify_all()
            else:
                self._answers.put((message, descriptors))

    def _next_answer(self, key):
        try:
            message, descriptors = self._answers.get(timeout=waiting.scaled(2 * waiting.PATIENCE))
        except queue.Empty:
            raise waiting.TimedOut("the lab's holder does not answer") from None
        if message is None:
            raise waiting.TimedOut("the lab's holder has ended")
        if "error" in message:
            raise OSError(message["errno"], message["error"])
        return message[key], descriptors

    def request(self, message, descriptors=()):
        with self._lock:
            socket.send_fds(self.control, [json.dumps(message).encode()], list(descriptors))
            return self._next_answer("answer")

    def await_exit(self, pid, seconds):
        """True when that process has ended, or does so in time."""
        with self._exited:
            return self._exited.wait_for(lambda: pid in self.exits, seconds)

    def spawn(self, argv, netns=None, env=None, stdin=None, fixed_addresses=False):
        """Starts a program; its output goes to files below the lab's directory."""
        self._counter += 1
        stem = self.path(f"{self._counter}.{os.path.basename(argv[0])}")
        environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C", "TZ": "UTC", **(env or {})}
        with open(stdin or os.devnull, "rb") as source, open(stem + ".out", "wb") as out, \
                open(stem + ".err", "wb") as err:
            pid, _ = self.request(
                {"op": "spawn", "argv": list(argv), "env": environment, "netns": netns,
                 "fixed_addresses": fixed_addresses},
                [source.fileno(), out.fileno(), err.fileno()])
        return Process(self, pid, argv, stem + ".out", stem + ".err")

    def run(self, argv, netns=None, stdin_text=None, check=True, timeout=waiting.PATIENCE):
        """Runs a program to its end and returns its Process."""
        stdin = None
        if stdin_text is not None:
            stdin = self.path("stdin")
            with open(stdin, "w", encoding="utf-8") as file:
                file.write(stdin_text)
        process = self.spawn(argv, netns=netns, stdin=stdin)
        status = process.wait(timeout)
        if check and status != 0:
            raise CommandFailed(f"{argv} in {netns}: status {status}: {process.stdout}{process.stderr}")
        return process

    def socket(self, family, type, protocol=0, netns=None, interface=None):  # pylint: disable=redefined-builtin
        """A socket of the lab, usable in this process."""
        _, descriptors = self.request(
            {"op": "socket", "family": int(family), "type": int(type), "protocol": protocol,
             "netns": netns, "interface": interface})
        return socket.socket(fileno=descriptors[0])

    def sysctl(self, settings, netns=None):
        """Makes settings of the kernel: NAME=VALUE, NAME as for sysctl(8)."""
        self.request({"op": "sysctl", "settings": list(settings), "netns": netns})

    def add_netns(self, name):
        """Makes a named network namespace, whose loopback is up."""
        self.request({"op": "netns", "name": name})

    def holdings(self, pid):
        """Threads, descriptors, children, and KiB of memory of its own that a process has now."""
        answer, _ = self.request({"op": "holdings", "pid": pid})
        return answer

    def tun(self, name, mode="tun", netns=None):
        """The descriptor of a new tun or tap device."""
        _, descriptors = self.request({"op": "tun", "name": name, "mode": mode, "netns": netns})
        return descriptors[0]

    def holder_pid(self):
        """The number of the lab's process 1 outside, for nsenter."""
        with open(f"/proc/{self._starter.pid}/task/{self._starter.pid}/children", encoding="ascii") as file:
            return int(file.read().split()[0])

    def detach(self):
        """Leaves the lab running after this process has gone. Returns the commands that enter and that end it."""
        self._left_running = True
        pid = self.holder_pid()
        self.request({"op": "detach"})
        user = "--user --preserve-credentials " if self._has_user_namespace else ""
        return (f"nsenter --target {pid} {user}--mount --net --pid --root --wd bash\n"
                # As the first process of its namespace the holder takes no milder signal.
                f"End it, and all that runs in it, with\n  kill -KILL {pid}; rm -r {self.top}")

    def close(self):
        self.control.shutdown(socket.SHUT_RDWR)
        self._reader.join()
        self.control.close()
        if self._left_running:
            return
        try:
            self._starter.wait(timeout=waiting.scaled(waiting.PATIENCE))
        except subprocess.TimeoutExpired:
            self._starter.kill()
            self._starter.wait()
        shutil.rmtree(self.top, ignore_errors=True)
