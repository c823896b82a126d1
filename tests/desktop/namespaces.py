"""A private view of the machine: the fixed port is free in it, and a file manager finds its plug-in installed. Nothing
outside changes. Works as root and, where the system allows user namespaces, for everybody."""

import ctypes
import fcntl
import os
import pathlib
import pwd
import shutil
import socket
import struct
import subprocess
import sys
import tempfile

MARK = "VORNET_IN_NAMESPACES"
CHECKOUT = pathlib.Path(__file__).resolve().parents[2]
MS_BIND, MS_REC = 0x1000, 0x4000
_libc = ctypes.CDLL(None, use_errno=True)


def _command(ordinary=False):
    user = ["--map-current-user", "--keep-caps"]
    if os.geteuid() == 0:
        nobody = pwd.getpwnam("nobody")  # the bus wants a user that the system knows
        user = [f"--map-user={nobody.pw_uid}", f"--map-group={nobody.pw_gid}", "--keep-caps"] if ordinary else []
    return ["unshare", *user, "--mount", "--net"]


def are_possible():
    """Tries all of it, in another process."""
    attempt = _command() + [sys.executable, "-B", __file__, "--try"]
    return subprocess.run(attempt, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0


def _try():
    bring_up_loopback()
    with tempfile.TemporaryDirectory() as layer:
        install("/", [], layer)


def enter(ordinary=False):
    """Restarts this program in its own namespaces, with its arguments, and goes on there. `ordinary`: root, too, is
    an ordinary user there."""
    if os.environ.get(MARK) == str(os.getpid()):
        return
    os.environ[MARK] = str(os.getpid())  # unshare keeps the process id
    os.execvp("unshare", _command(ordinary) + [sys.executable, "-B"] + sys.argv)


def bring_up_loopback():
    SIOCGIFFLAGS, SIOCSIFFLAGS, IFF_UP = 0x8913, 0x8914, 1
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as handle:
        name = b"lo".ljust(16, b"\0")
        flags = struct.unpack("16sh", fcntl.ioctl(handle, SIOCGIFFLAGS, name + bytes(16))[:18])[1]
        fcntl.ioctl(handle, SIOCSIFFLAGS, struct.pack("16sh14x", name, flags | IFF_UP))


def _mount(source, target, kind, options, flags=0):
    if _libc.mount(source, os.fsencode(target), kind, flags, os.fsencode(options)) != 0:
        raise OSError(ctypes.get_errno(), f"cannot mount on {target}: {os.strerror(ctypes.get_errno())}")


def empty(folder):
    """Lays an empty folder over an existing one."""
    _mount(b"tmpfs", folder, b"tmpfs", "mode=0755")


def install(build, files, layer, checkout=CHECKOUT):
    """Lays `files` (relative to the folder `build`, and to /usr) over /usr, by way of the empty folder `layer`. Nothing else in
    /usr can be written afterwards than the checkout, if it is there."""
    for file in files:
        copy = pathlib.Path(layer, file)
        copy.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(pathlib.Path(build, file), copy)
    pathlib.Path(layer).chmod(0o755)
    uncovered = os.open(checkout, os.O_PATH)
    try:
        _mount(b"overlay", "/usr", b"overlay", f"lowerdir={layer}:/usr")
        if pathlib.Path(checkout).is_relative_to("/usr"):
            _mount(os.fsencode(f"/proc/self/fd/{uncovered}"), checkout, None, "", MS_BIND | MS_REC)
    finally:
        os.close(uncovered)


if __name__ == "__main__":  # reports by its exit status whether the system allows them
    sys.exit(_try() if "--try" in sys.argv else 0 if are_possible() else 1)
