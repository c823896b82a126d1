"""What a program tells assistive technologies of its windows (AT-SPI): found, read and acted on."""

import gi

gi.require_version("Atspi", "2.0")
from gi.repository import Atspi, GLib  # noqa: E402

MOST_CHILDREN = 400


def application(process):
    """The root of what the program with this process id shows; none while it does not tell."""
    desktop = Atspi.get_desktop(0)
    for index in range(desktop.get_child_count()):
        try:
            child = desktop.get_child_at_index(index)
            if child is not None and child.get_process_id() == process:
                return child
        except GLib.Error:
            continue
    return None


def walk(node, pruned=()):
    """Every accessible below `node`, itself first; nothing below roles in `pruned`. What vanishes meanwhile is left out."""
    yield node
    try:
        if node.get_role_name() in pruned:
            return
        count = min(node.get_child_count(), MOST_CHILDREN)
    except GLib.Error:
        return
    for index in range(count):
        try:
            child = node.get_child_at_index(index)
        except GLib.Error:
            continue
        if child is not None:
            yield from walk(child, pruned)


def name(node):
    try:
        return node.get_name() or ""
    except GLib.Error:
        return ""


def role(node):
    try:
        return node.get_role_name()
    except GLib.Error:
        return ""


def has(node, state):
    """Whether it is in a state: "SHOWING", "SENSITIVE", "SELECTED", "FOCUSED"…"""
    try:
        return node.get_state_set().contains(getattr(Atspi.StateType, state))
    except GLib.Error:
        return False


def extents(node, on_screen=True):
    """(x, y, width, height) on the screen, or relative to its window."""
    try:
        kind = Atspi.CoordType.SCREEN if on_screen else Atspi.CoordType.WINDOW
        box = node.get_extents(kind)
    except GLib.Error:
        return None
    return (box.x, box.y, box.width, box.height)


def actions(node):
    try:
        return [node.get_action_name(index) for index in range(node.get_n_actions())]
    except GLib.Error:
        return []


def act(node, action=None):
    """Performs an action of the accessible: the one of this name, or the first."""
    index = actions(node).index(action) if action else 0
    return node.do_action(index)
