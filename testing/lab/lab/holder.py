"""Process 1 of a lab: owns its namespaces and starts everything that runs in them.

Started by enclosure.py under unshare(1), with a control socket on descriptor 3 (SOCK_SEQPACKET). Each request
is one JSON object, with descriptors passed beside it; each gets one answer, and ends of processes are reported as
they happen. When the other side of the socket goes away the holder ends, and the kernel kills whatever
is left in its pid namespace.

Requests:
  spawn    argv, env, netns, cwd, nofile, fixed_addresses; descriptors: standard input, output, error
  kill     pid, signal
  socket   family, type, protocol, netns, interface; answers with the descriptor
  tun      name, mode, netns; answers with the descriptor
  detach   go on without the other side
"""

import ctypes
import fcntl
import json
import os
import resource
import select
import signal
import socket
import struct
import sys

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

from lab import rootview  # noqa: E402  (the path above is needed first)

CLONE_NEWNET = 0x40000000
ADDR_NO_RANDOMIZE = 0x0040000
TUNSETIFF, IFF_TUN, IFF_TAP, IFF_NO_PI = 0x400454CA, 1, 2, 0x1000

_libc = ctypes.CDLL(None, use_errno=True)


def _enter_netns(name):
    """Moves the calling process into a named network namespace, or into the lab's own for None."""
    path = f"/run/netns/{name}" if name else "/proc/1/ns/net"
    descriptor = os.open(path, os.O_RDONLY | os.O_CLOEXEC)
    try:
        if _libc.setns(descriptor, CLONE_NEWNET) != 0:
            number = ctypes.get_errno()
            raise OSError(number, os.strerror(number), f"setns {name}")
    finally:
        os.close(descriptor)


class Holder:
    def __init__(self, control):
        self.control = control
        self.detached = False
        self.own_netns = os.open("/proc/self/ns/net", os.O_RDONLY | os.O_CLOEXEC)

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
        data, descriptors, _, _ = socket.recv_fds(self.control, 1 << 20, 8)
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

    def do_spawn(self, descriptors, argv, env, netns, cwd, nofile, fixed_addresses):
        failed_read, failed_write = os.pipe2(os.O_CLOEXEC)
        pid = os.fork()
        if pid == 0:
            try:
                self.become(descriptors, argv, env, netns, cwd, nofile, fixed_addresses)
            except BaseException as error:  # noqa: B902  (a child that must not return)
                os.write(failed_write, str(error).encode())
            os._exit(127)
        os.close(failed_write)
        failure = os.read(failed_read, 4096)
        os.close(failed_read)
        if failure:
            raise OSError(0, failure.decode())
        return pid, []

    @staticmethod
    def become(descriptors, argv, env, netns, cwd, nofile, fixed_addresses):
        if netns:
            _enter_netns(netns)
        os.chdir(cwd)
        if nofile:
            # As usual the soft limit is lower: a program that needs more raises it.
            resource.setrlimit(resource.RLIMIT_NOFILE, (min(nofile, 1024), nofile))
        if fixed_addresses:
            _libc.personality(ADDR_NO_RANDOMIZE)
        signal.set_wakeup_fd(-1)
        os.setsid()
        for number in range(3):
            os.dup2(descriptors[number], number)
        # A lab may be started by one who ignores SIGHUP, for example.
        for number in signal.valid_signals() - {signal.SIGKILL, signal.SIGSTOP}:
            signal.signal(number, signal.SIG_DFL)
        os.execvpe(argv[0], argv, env)

    def do_kill(self, _, pid, signal_number):
        os.kill(pid, signal_number)
        return True, []

    def in_netns(self, netns, action):
        if not netns:
            return action()
        _enter_netns(netns)
        try:
            return action()
        finally:
            _libc.setns(self.own_netns, CLONE_NEWNET)

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
    Holder(control).serve()


if __name__ == "__main__":
    main()
