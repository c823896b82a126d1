"""Faults of the sync application: the link's other end."""

import os
import time

import wire
from attacks import CHANGE, Impossible, attack, note_answers, note_losses, watched, watched_room
from helpers import HonestClient, SyncApplication, Times
from room import run_vornet_vi
from waiting import NotSeen, until

EXCHANGE = 3.3  # seconds: 3.1 of the exchange, and the bus on a loaded machine
AT_ONCE = 1.0  # seconds


def menu_time(room, name="honest/item.txt", timeout=30):
    """Asks for a menu; the seconds and how many of its entries are enabled."""
    begun = time.monotonic()
    reply = room.client.ask(wire.menu(wire.NAME, [room.url(name)]), timeout)
    if reply is None or reply.kind == wire.ERROR:
        raise NotSeen(f"the menu: {reply.error if reply else f'none in {timeout} s'}")
    return time.monotonic() - begun, sum(entry[2] for entry in reply.arguments()[0])


def menus_at_once(room, clients, timeout=30):
    """Has all of `clients` ask for a menu at once; their replies."""
    call = wire.menu(wire.NAME, [room.url("honest/item.txt")])
    serials = [client.send(call) for client in clients]
    return [client.reply(serial, timeout) for client, serial in zip(clients, serials)]


def enabled_in(reply):
    return sum(entry[2] for entry in reply.arguments()[0]) if reply and reply.kind == wire.RETURN else 0


def keep_connections(room, clients):
    """An extension that keeps connections has one for each of its threads now: all of these menus are in flight together."""
    room.sync.fault("slow")
    replies = menus_at_once(room, clients)
    room.sync.fault("")
    if not all(enabled_in(reply) == 5 for reply in replies):
        raise NotSeen("the menus of an application that behaves")


def slow_menus(row, room, faults, rounds):
    """Every menu ends in time, whichever of the faults it meets; after it the next one is right again."""
    seconds = []
    clients = [wire.Connection(room.address) for _ in range(4)]
    for _ in range(rounds):
        for fault in faults:
            keep_connections(room, clients)
            room.sync.fault(fault)
            took, enabled = menu_time(room)
            seconds.append(took)
            row.require(enabled == 0, f"{enabled} entries enabled by {fault}")
            row.require(took < EXCHANGE, f"{fault}: {took:.2f} s")
            row.notes.append(f"{fault}: {took:.2f} s")
    row.times(Times([1000 * one for one in seconds]))


@attack("application: silent 2.79 s, then closing", "menu within 3.3 s")
def silent(torture, row):
    with watched_room(torture, row) as room:
        slow_menus(row, room, ["silent_then_close"], torture.some(5, 1))


@attack("application: dripping headers, body", "menu within 3.3 s")
def dripping(torture, row):
    with watched_room(torture, row) as room:
        slow_menus(row, room, ["drip_headers", "drip_body"], torture.some(3, 1))


@attack("application: reply cut in headers", "badges stay; changes come later")
def cut(torture, row):
    with watched_room(torture, row) as room:
        room.observe("honest")
        statuses = {"/honest/item.txt": 1, "/honest/other": 1}
        room.sync.tell(items={"/honest/": statuses})
        room.wait_for_badge("honest/other", "PENDING")
        seconds = []
        changes = (("cut_200", "PENDING", "SKIPPED"), ("cut_404", "SKIPPED", "SYNCED"))
        for number, (fault, shown, badge) in enumerate(changes):
            before = room.sync.polls()
            room.sync.fault(fault)
            room.observe_new(f"new{number}")
            until("polls that are cut", lambda: room.sync.polls() >= before + 2)
            kept = room.badge("honest/other")
            row.require(kept == shown, f"the badge {kept!r} after {fault}, not {shown}")
            room.sync.tell(items={"/honest/": {key: (0, 2)[number] for key in statuses}})
            room.sync.fault("")
            try:
                seconds.append(room.wait_for_badge("honest/item.txt", badge, CHANGE))
                row.notes.append(f"{fault}: change after {seconds[-1]:.1f} s")
            except NotSeen:
                row.lost.append(f"the folder's changes after {fault}")
        row.require(not row.lost, "something was lost")


@attack("application: serves one connection at a time", "menus within 1 s, none greyed")
def one_at_a_time(torture, row):
    with watched_room(torture, row) as room:
        room.sync.tell(one_at_a_time=True)
        room.observe("honest")
        clients = [wire.Connection(room.address) for _ in range(4)]
        milliseconds, greyed = [], 0
        for number in range(torture.some(20, 5)):
            begun = time.monotonic()
            replies = menus_at_once(room, clients)
            milliseconds.append(1000 * (time.monotonic() - begun))  # of the last of them
            greyed += sum(enabled_in(reply) != 5 for reply in replies)
            if number % 3 == 0:
                room.observe_new(f"another{number}")
            if milliseconds[-1] > 10_000:
                break  # enough was seen
        row.times(Times(milliseconds))
        row.lost += [f"{greyed} of {len(clients) * len(milliseconds)} menus greyed"] if greyed else []
        row.require(not greyed, "menus greyed")
        row.require(max(milliseconds) < 1000 * AT_ONCE, f"longest {max(milliseconds) / 1000:.1f} s")


@attack("application: resets after an action", "each action received once")
def actions(torture, row):
    with watched_room(torture, row) as room:
        clients = [wire.Connection(room.address) for _ in range(4)]
        count = torture.some(40, 10)
        for number in range(count):
            (room.root / f"action{number}").touch()
        for number in range(count):
            keep_connections(room, clients)
            room.sync.fault(("close", "reset")[number % 2], "select_context_menu")
            room.client.ask(wire.perform(wire.NAME, "copyLink:", [room.url(f"action{number}")]), 30)
            room.sync.fault("", "select_context_menu")
        received = room.sync.received()["actions"]
        times = [received.count([f"/action{number}"]) for number in range(count)]
        twice, never = sum(one > 1 for one in times), times.count(0)
        row.lost += [f"{never} actions"] if never else []
        row.require(not never and not twice, f"{twice} received more than once, {never} never")
        row.notes.append(f"{count} performed, {len(received)} received")


def huge(row, room, fault, most, taken=None):
    """Statuses of which the first reply is huge and the next ones are small. `taken`: an item that a huge reply names, whose
    badge must be seen."""
    process = room.start_extension()
    room.observe("honest")
    room.force_pass()
    menu_time(room)  # what the first exchange needs is there
    with watched(row, process, most) as memory:
        client = room.keep(HonestClient(room, menu=False))
        client.go()
        before = room.sync.polls()
        room.sync.fault(fault)
        room.observe_new("huge")
        until("huge replies", lambda: memory.killed or room.sync.polls() > before)
        if taken and not memory.killed:
            room.wait_for_badge(taken, "SYNCED")
        time.sleep(3.2)  # the time of an exchange: it has come, or has been given up
        room.sync.fault("")
        answers = client.stop()
        if not memory.killed:
            room.force_pass()
            room.force_pass()
    require_memory_back(row, memory)
    note_losses(row, answers)


def require_memory_back(row, memory):
    row.require(memory.after is None or memory.after < 1.1 * memory.before + 1, f"{memory.after or 0:,.0f} MiB kept")


@attack("application: 250 MiB of non-statuses", "peak < 192 MiB; memory back")
def huge_mismatch(torture, row):
    with torture.room() as room:
        huge(row, room, "huge_mismatch", 192)


@attack("application: 60 MiB of statuses, then few", "peak < 205 MiB; memory back")
def huge_statuses(torture, row):
    with torture.room() as room:
        huge(row, room, "huge_statuses", 180 + 25, taken="honest/e000000000")


@attack("application: four menus of 250 MiB", "peak < 50 MiB; memory back; greyed")
def huge_menus(torture, row):
    with torture.room() as room:
        process = room.start_extension()
        menu_time(room)  # what the first exchange needs is there
        with watched(row, process, 50) as memory:
            room.sync.fault("huge_menu", "mac_populate_menu")
            clients = [wire.Connection(room.address) for _ in range(4)]
            replies = menus_at_once(room, clients, 60)
            row.require(all(replies), "not every menu was answered")
            enabled = sum(enabled_in(reply) > 0 for reply in replies)
            row.require(not enabled, f"{enabled} menus took the reply")
            room.sync.fault("", "mac_populate_menu")
            if not memory.killed:
                row.require(menu_time(room)[1] == 5, "the next menu is greyed")
        require_memory_back(row, memory)


@attack("application: flapping every 100 ms", "steady; change within 15 s")
def flapping(torture, row):
    with watched_room(torture, row) as room:
        room.observe("honest")
        room.sync.tell(items={"/honest/": {"/honest/item.txt": 2, "/honest/other": 1}})
        room.wait_for_badge("honest/other", "PENDING")
        client = room.keep(HonestClient(room, menu=False))
        client.go()
        room.sync.tell(flap=0.1)
        end, menus = time.monotonic() + torture.window, []
        while time.monotonic() < end:
            menus.append(menu_time(room))
        answers = client.stop()
        room.sync.tell(flap=0)
        room.sync.tell(items={"/honest/": {"/honest/item.txt": 0, "/honest/other": 1}})
        took = room.wait_for_badge("honest/item.txt", "SKIPPED", CHANGE)
        row.require(max(seconds for seconds, _ in menus) < EXCHANGE, "a menu took longer than an exchange may")
        given = sum(enabled == 5 for _, enabled in menus)
        row.notes.append(f"{len(menus)} menus, {given} of them while it listened; change after {took:.1f} s")
    note_answers(row, answers)


@attack("port 8806 of another user", "nothing sent; greyed; `vornet-vi status` says so")
def another_user(torture, row):
    if os.geteuid() != 0:
        raise Impossible("only root can start another user's process")
    with watched_room(torture, row, sync=False) as room:
        nobody = ["setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups", "--"]
        stranger = room.keep(SyncApplication(room, wrapper=nobody))
        stranger.tell(items={"/honest/": {"/honest/item.txt": 0}})
        room.observe("honest")
        took, enabled = menu_time(room)
        room.client.ask(wire.perform(wire.NAME, "copyLink:", [room.url("honest/item.txt")]), 30)
        until("a poll in the log", lambda: "ds not connected" in room.log_text() or stranger.received()["bytes"] > 0)
        report = stranger.received()
        row.lost += [f"{count} x {command}" for command, count in report["requests"].items()]
        status = run_vornet_vi(room, "status")
        sent = stranger.received()["bytes"] - report["bytes"]
        row.lost += [f"{sent} bytes of vornet-vi status"] if sent else []
        row.require(not row.lost, f"{report['bytes']} bytes sent to another user's process")
        row.require(not enabled, f"{enabled} entries enabled by another user")
        row.require(room.badge("honest/item.txt") == "SYNCED", "its badge was believed")
        row.require(took < AT_ONCE, f"menu after {took:.1f} s")
        row.require("another user" in status.lower(), "vornet-vi status does not say so")
