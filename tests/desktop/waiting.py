"""Waiting for conditions. Nothing else in these tests waits for time to pass."""

import time

SOON = 30.0  # seconds for what is to happen at all; the machine may be busy


class NotSeen(AssertionError):
    """The awaited condition has not come true."""


def until(what, condition, timeout=SOON):
    """Waits until `condition()` is true and returns its value; raises NotSeen, naming `what` and the last value."""
    end = time.monotonic() + timeout
    pause = 0.005
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise NotSeen(f"{what}: not within {timeout:g} s" + ("" if value in (None, False) else f" (last: {value!r})"))
        time.sleep(pause)
        pause = min(pause * 1.5, 0.1)


def until_equal(what, expected, observe, timeout=SOON):
    """Waits until `observe()` equals `expected`; raises NotSeen with what was observed last."""
    seen = []

    def matches():
        seen[:] = [observe()]
        return seen[0] == expected

    try:
        until(what, matches, timeout)
    except NotSeen as error:
        raise NotSeen(f"{what}: {seen!r} instead of {expected!r}") from error
