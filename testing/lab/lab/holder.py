"""Process 1 of a lab: owns its namespaces and starts everything that runs in them.

Started by enclosure.py under unshare(1), with a control socket on descriptor 3 (SOCK_SEQPACKET). Each request
is one JSON object, with descriptors passed beside it; each gets one answer, and ends of processes are reported as
they happen. When the other side of the socket goes away the holder ends, and the kernel kills whatever
is left in its pid namespace.

Requests:
  spawn    argv, env, netns, fixed_addresses; descriptors: standard input, output, error
  kill     pid, signal
  sysctl   settings, netns: "net.ipv4.conf.all.rp_filter=0" and the like
  netns    name: makes that network namespace, as `ip netns add` does, with its loopback up
  holdings pid: what /proc says that it holds
  socket   family, type, protocol, netns, interface; answers with the descriptor
  tun      name, mode, netns; answers with the descriptor
  detach   go on without the other side
"""

import ctypes
import errno
import fcntl
import json
import os
import select
import signal
import socket
import struct
import sys
import threading

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

from lab import rootview  # noqa: E402  (the path above is needed first)

CLONE_NEWNET = 0x40000000
ADDR_NO_RANDOMIZE, ASK_PERSONALITY = 0x0040000, 0xFFFFFFFF
SIOCGIFFLAGS, SIOCSIFFLAGS, IFF_UP = 0x8913, 0x8914, 1
TUNSETIFF, IFF_TUN, IFF_TAP, IFF_NO_PI = 0x400454CA, 1, 2, 0x1000

_SIGNALS = signal.valid_signals() - {signal.SIGKILL, signal.SIGSTOP}
_libc = ctypes.CDLL(None, use_errno=True)
_libc.personality.argtypes = [ctypes.c_ulong]


def _found(program, path):
    """The file of a program, looked for as a shell does."""
    if "/" in program:
        return program
    for directory in path.split(":"):
        if os.access(os.path.join(directory, program), os.X_OK):
            return os.path.join(directory, program)
    raise FileNotFoundError(errno.ENOENT, os.strerror(errno.ENOENT), program)


def _in_thread(action):
    """What `action` returns. It may enter a network namespace: process 1 itself, which programs of the lab may look
    at or name, is in the lab's own at every moment."""
    ends = []

    def run():
        try:
            ends.append((action(), None))
        except OSError as error:
            ends.append((None, error))

    thread = threading.Thread(target=run)
    thread.start()
    thread.join()
    result, error = ends[0]
    if error:
        raise error
    return result


def _enter_netns(name):
    """Moves the calling thread into a named network namespace."""
    descriptor = os.open(f"/run/netns/{name}", os.O_RDONLY | os.O_CLOEXEC)
    try:
        if _libc.setns(descriptor, CLONE_NEWNET) != 0:
            raise _last_error(f"setns {name}")
    finally:
        os.close(descriptor)


def _last_error(call):
    number = ctypes.get_errno()
    return OSError(number, os.strerror(number), call)


def _loopback_up():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as asker:
        request = fcntl.ioctl(asker, SIOCGIFFLAGS, struct.pack("16s24x", b"lo"))
        flags, = struct.unpack_from("H", request, 16)
        fcntl.ioctl(asker, SIOCSIFFLAGS, struct.pack("16sH22x", b"lo", flags | IFF_UP))


class Holder:
    def __init__(self, control):
        self.control = control
        self.detached = False

    def serve(self):
        wake_read, wake_write = os.pipe2(os.O_NONBLOCK | os.O_CLOEXEC)
        signal.set_wakeup_fd(wake_write)
        signal.signal(signal.SIGCHLD, lambda *_: None)
        poller = select.poll()
        poller.register(wake_read, select.POLLIN)
        poller.register(self.control, select.POLLIN)
        self.send({"ready": True})
        while True:
            for descriptor, _ in poller.poll():
                if descriptor == wake_read:
                    os.read(wake_read, 4096)
                elif not self.handle_request():
                    if not self.detached:
                        return
                    poller.unregister(self.control)
            self.reap()

    def send(self, message, descriptors=()):
        if not self.detached:
            socket.send_fds(self.control, [json.dumps(message).encode()], list(descriptors))

    def reap(self):
        while True:
            try:
                pid, status = os.waitpid(-1, os.WNOHANG)
            except ChildProcessError:
                return
            if pid == 0:
                return
            try:
                self.send({"exit": pid, "status": os.waitstatus_to_exitcode(status)})
            except OSError:
                pass

    def handle_request(self):
        data, descriptors, _, _ = socket.recv_fds(self.control, 1 << 20, 8, socket.MSG_CMSG_CLOEXEC)
        if not data:
            return False
        request = json.loads(data)
        try:
            operation = getattr(self, "do_" + request.pop("op"))
            answer, passed = operation(descriptors, **request)
            self.send({"answer": answer}, passed)
        except OSError as error:
            self.send({"error": str(error), "errno": error.errno})
            passed = []
        for descriptor in descriptors + list(passed):
            os.close(descriptor)
        return True

    def do_spawn(self, descriptors, argv, env, netns, fixed_addresses):
        """A copy of this process for the child would cost more than most programs that run here: the child shares
        its memory until it is another program, and everything else as it is at the moment."""
        usual = _libc.personality(ASK_PERSONALITY)
        if fixed_addresses:
            _libc.personality(usual | ADDR_NO_RANDOMIZE)
        try:
            # A lab may be started by one who ignores SIGHUP, for example. A session of its own would be more than is
            # needed to outlive the terminal's interruptions: Linux gives each session the same share of the processor
            # (sched_autogroup, sched(7)), so that with many of them all wait for seconds when the machine is busy.
            pid = self.in_netns(netns, lambda: os.posix_spawn(
                _found(argv[0], env["PATH"]), argv, env, setpgroup=0, setsigdef=_SIGNALS,
                file_actions=[(os.POSIX_SPAWN_DUP2, descriptors[number], number) for number in range(3)]))
        finally:
            _libc.personality(usual)
        return pid, []

    def do_kill(self, _, pid, signal_number):
        os.kill(pid, signal_number)
        return True, []

    @staticmethod
    def in_netns(netns, action):
        if not netns:
            return action()
        return _in_thread(lambda: (_enter_netns(netns), action())[1])

    def do_sysctl(self, _, settings, netns):
        def write():
            for setting in settings:
                name, value = setting.split("=", 1)
                # As for sysctl(8): names with a slash may have dots in them.
                path = name if "/" in name else name.replace(".", "/")
                with open(f"/proc/sys/{path}", "w", encoding="ascii") as file:
                    file.write(value)

        self.in_netns(netns, write)
        return True, []

    def do_netns(self, _, name):
        os.close(os.open(f"/run/netns/{name}", os.O_RDONLY | os.O_CREAT | os.O_EXCL | os.O_CLOEXEC, 0))

        def make():
            if _libc.unshare(CLONE_NEWNET) != 0:
                raise _last_error("unshare")
            rootview.mount("/proc/thread-self/ns/net", f"/run/netns/{name}", None, rootview.MS_BIND)
            _loopback_up()

        _in_thread(make)
        return True, []

    def do_holdings(self, _, pid):
        base = f"/proc/{pid}"
        children = 0
        threads = os.listdir(f"{base}/task")
        for thread in threads:
            try:
                with open(f"{base}/task/{thread}/children", encoding="ascii") as file:
                    children += len(file.read().split())
            except (FileNotFoundError, ProcessLookupError):  # it has just ended
                pass
        with open(f"{base}/status", encoding="utf-8") as file:
            memory, = [int(line.split()[1]) for line in file if line.startswith("RssAnon:")]
        return [len(threads), len(os.listdir(f"{base}/fd")), children, memory], []

    def do_socket(self, _, family, type, protocol, netns, interface):  # pylint: disable=redefined-builtin
        def make():
            if family != socket.AF_PACKET:
                return socket.socket(family, type, protocol)
            # Bound before it listens, so that nothing of another interface slips in.
            made = socket.socket(family, type, 0)
            made.bind((interface, protocol))
            return made

        return True, [self.in_netns(netns, make).detach()]

    def do_tun(self, _, name, mode, netns):
        def make():
            descriptor = os.open("/dev/net/tun", os.O_RDWR | os.O_CLOEXEC)
            flags = (IFF_TUN if mode == "tun" else IFF_TAP) | IFF_NO_PI
            fcntl.ioctl(descriptor, TUNSETIFF, struct.pack("16sH22x", name.encode(), flags))
            return descriptor

        return True, [self.in_netns(netns, make)]

    def do_detach(self, _):
        self.send({"answer": True})
        self.detached = True
        return True, []


def main():
    control = socket.socket(fileno=int(sys.argv[2]))
    os.set_inheritable(control.fileno(), False)
    # A pid above 65535 is what an administrator's machine has; a small one would hide a lost upper half.
    rootview.build_and_enter(sys.argv[1])
    try:
        with open("/proc/sys/kernel/ns_last_pid", "w", encoding="ascii") as counter:
            counter.write("70000")
    except OSError:
        pass
    _loopback_up()
    Holder(control).serve()


if __name__ == "__main__":
    main()
