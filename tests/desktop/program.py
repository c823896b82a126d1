"""Shared by the programs that drive real file managers: their arguments, and the place where they work."""

import argparse
import contextlib
import pathlib
import shutil
import signal
import sys
import tempfile

import managers
import namespaces
import processes


def path(text):
    return pathlib.Path(text).resolve()


def parser(description, manager=True):
    """Of the options --manager and --build; `description`: a docstring, whose first line counts."""
    made = argparse.ArgumentParser(description=description.splitlines()[0])
    made.add_argument("--build", required=True, type=path)
    if manager:
        made.add_argument("--manager", required=True, choices=managers.ALL)
    return made


def install_plugin(kind, build, folder):
    """Lays the plug-in of a kind of file manager over /usr."""
    if kind.plugins:
        namespaces.install(build, managers.plugin_files(kind, build), folder / "layer")


@contextlib.contextmanager
def workplace():
    """An empty folder. At the end it goes, and whatever this program has started ends."""
    processes.adopt_orphans()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    folder = pathlib.Path(tempfile.mkdtemp(prefix="vornet-"))
    try:
        yield folder
    finally:
        processes.end_all()
        shutil.rmtree(folder, ignore_errors=True)


@contextlib.contextmanager
def own_machine(ordinary=False):
    """A workplace in private namespaces, where the program restarts. `ordinary`: root, too, is an ordinary user."""
    namespaces.enter(ordinary)
    namespaces.bring_up_loopback()
    with workplace() as folder:
        yield folder
