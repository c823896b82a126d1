"""The processes that a test starts, directly or by way of others: all of them end with the test, each by its own id."""

import ctypes
import os
import signal
import subprocess

from waiting import until

PR_SET_PDEATHSIG = 1
PR_SET_CHILD_SUBREAPER = 36
PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL = 47, 4

_libc = ctypes.CDLL(None, use_errno=True)


def adopt_orphans():
    """From now on this process is the parent of whatever its children leave behind."""
    _libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)


def _in_child():
    _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)
    # Rights within a user namespace are for the preparations; programs run without them, as they would for the user.
    _libc.prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0)


def start(command, environment, output, **options):
    """Starts `command`, its standard output and errors appended to the file `output`. It dies with this process."""
    with open(output, "ab") as file:
        return subprocess.Popen(
            [str(part) for part in command],
            env=environment,
            stdin=options.pop("stdin", subprocess.DEVNULL),
            stdout=options.pop("stdout", file),
            stderr=file,
            preexec_fn=_in_child,
            start_new_session=True,
            **options,
        )


def run(command, environment, timeout=20):
    """Runs a short command and returns its standard output; raises when it fails."""
    done = subprocess.run(
        [str(part) for part in command], env=environment, capture_output=True, timeout=timeout, check=True, preexec_fn=_in_child
    )
    return done.stdout.decode("utf-8", "surrogateescape")


def end(process, number=signal.SIGTERM, timeout=10):
    """Ends a process of `start`, if need be by force."""
    if process.poll() is not None:
        return
    process.send_signal(number)
    try:
        process.wait(timeout)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def _stat(process):
    try:
        with open(f"/proc/{process}/stat", encoding="utf-8", errors="replace") as file:
            return file.read().rpartition(")")[2].split()
    except OSError:
        return None


def state(process):
    """The letter of proc(5) for what a process does; "X" for none."""
    fields = _stat(process)
    return fields[0] if fields else "X"


def is_running(process):
    """Whether there is a process of this id that has not ended; one that was not yet waited for has ended."""
    return state(process) not in "ZX"


def wait_gone(process):
    until(f"the end of process {process}", lambda: not is_running(process))


def resident_kib(process):
    """The private memory of a process: resident, without pages shared with files."""
    with open(f"/proc/{process}/status", encoding="utf-8") as file:
        fields = dict(line.split(":", 1) for line in file)
    return int(fields["RssAnon"].split()[0])


def _descendants():
    parents = {}
    for name in os.listdir("/proc"):
        fields = _stat(name) if name.isdigit() else None
        if fields:
            parents.setdefault(int(fields[1]), []).append(int(name))
    found, queue = [], [os.getpid()]
    while queue:
        children = parents.get(queue.pop(), [])
        found += children
        queue += children
    return found


def end_all():
    """Ends everything that came of this process and is still there."""
    while True:
        left = [process for process in _descendants() if is_running(process)]
        if not left:
            return
        for process in left:
            try:
                os.kill(process, signal.SIGKILL)
            except ProcessLookupError:
                pass
        for process in left:
            wait_gone(process)
