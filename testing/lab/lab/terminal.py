"""A terminal in the lab: tmux with a socket of its own, and one program in it."""

from . import waiting


class Terminal:
    """`text()` is what the terminal shows. Close it, or give it to Lab.closing()."""

    def __init__(self, lab, argv, columns=100, lines=40, env=None):
        self.lab = lab
        self._socket = lab.path("tmux")
        # A shell stays when the program has ended, and tells with which status. Ctrl-C reaches it too.
        lab.write("terminal.sh", f"trap : INT\nstty -a > {lab.path('stty.before')}\n"
                  f"{' '.join(argv)} 2> {lab.path('terminal.err')}\n"
                  f"echo \"ended with $?\"\nstty -a > {lab.path('stty.after')}\nexec sleep 1000\n")
        # tmux's own server, started by its first command, outlives that: it is ended by close().
        self._tmux("-f", "/dev/null", "new-session", "-d", "-x", str(columns), "-y", str(lines),
                   "sh", lab.path("terminal.sh"), env=env)
        self._open = True

    def _tmux(self, *arguments, env=None):
        environment = ["env", f"TMUX_TMPDIR={self.lab.enclosure.top}", "SHELL=/bin/sh", "TERM=xterm-256color",
                       *[f"{name}={value}" for name, value in (env or {}).items()]]
        return self.lab.run([*environment, "tmux", "-S", self._socket, *arguments]).stdout

    def text(self):
        return self._tmux("capture-pane", "-p")

    def styled_text(self):
        """With the escape sequences of colours and marks."""
        return self._tmux("capture-pane", "-p", "-e")

    def keys(self, *names):
        """Presses keys, by tmux's names: "q", "Down", "C-c"."""
        self._tmux("send-keys", *names)

    def resize(self, columns, lines):
        self._tmux("resize-window", "-x", str(columns), "-y", str(lines))

    def wait(self, condition, timeout=waiting.PATIENCE):
        """Waits until the text fulfils the condition (a function, or a text that is in it); returns it."""
        is_met = condition if callable(condition) else lambda text: condition in text
        last = [""]

        def check():
            last[0] = self.text()
            return is_met(last[0])

        waiting.wait_until(check, lambda: f"{condition!r} on the terminal:\n{last[0]}\n{self.complaint()}",
                           timeout=timeout, interval=0.1)
        return last[0]

    def wait_end(self):
        """The program's exit status; the terminal has to be as the program found it."""
        text = self.wait("ended with ")
        waiting.wait_until(lambda: self.lab.exists("stty.after") and self.lab.read("stty.after"), "stty")
        assert self.lab.read("stty.after") == self.lab.read("stty.before")
        assert self._tmux("display-message", "-p", "#{alternate_on} #{cursor_flag}").strip() == "0 1"
        return int(text.split("ended with ")[1].split()[0])

    def complaint(self):
        return self.lab.read("terminal.err") if self.lab.exists("terminal.err") else ""

    def program_pid(self):
        """Of the program in the shell, inside the lab."""
        shell = self._tmux("display-message", "-p", "#{pane_pid}").strip()
        children = self.lab.run(["cat", f"/proc/{shell}/task/{shell}/children"]).stdout.split()
        return int(children[0])

    def close(self):
        if self._open:
            self._open = False
            self.lab.run([*"tmux -S".split(), self._socket, "kill-server"], check=False)


def terminal(lab, argv, **options):
    return lab.closing(Terminal(lab, argv, **options))
