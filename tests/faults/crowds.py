"""Many of something: plugs, installs, connections. Others are served meanwhile, and at the end the host is as it was."""

import os
import random
import resource
import socket
import threading

from device import FRESH_DESCRIPTORS, arborctl, at_rest, calm, expect, expect_as_before, fresh, install, plug, taken
from simulation import gateway, paths, slots, sticks, whole
from simulation.whole import until

CONNECTIONS = 1000
MANY = 100  # so many times show a leak
CROWD_KIB = 4096  # how many answers are made at once is chance, and the allocator keeps what the most of them took


def memory(times: int) -> int:
    """KiB that the host may have more: after few times the allocator is not yet at rest."""
    return 1024 if times >= MANY else 4096


def plugs(chance: random.Random, times: int) -> str:
    """A stick goes in and out, at a moment by chance: before, while or after its packages are checked."""
    fresh()
    for _ in range(10):  # until the allocator has what it keeps
        plug("3.045", "3.046")
    sticks.detach()
    until(lambda: not gateway.updates(), "nothing is offered")
    before = at_rest()
    for _ in range(times):
        sticks.attach([whole.package("3.046")])
        if chance.random() < 0.5:
            until(lambda: gateway.updates() == ["3.046"], "the package is offered")
        else:
            threading.Event().wait(chance.uniform(0, 0.2))
        sticks.detach()
        if chance.random() < 0.5:
            until(lambda: not gateway.updates(), "nothing is offered")
    until(lambda: not gateway.updates(), "nothing is offered")
    calm()
    expect_as_before(before, memory(times))
    plug("3.046")
    install("3.046")
    return f"{times} plugs; before: {before}; after: {taken()}"


def swaps(chance: random.Random, times: int) -> str:
    """A stick is pulled and another one is there at once, at the same place: what is offered is what the second one holds."""
    fresh()
    plug("3.045")
    sticks.detach()
    for number in range(times):
        first, second = chance.sample(whole.VERSIONS, 2)
        sticks.attach([whole.package(first)])
        threading.Event().wait(chance.choice((0, 0.05, 0.15, 0.3)))
        sticks.detach()
        sticks.attach([whole.package(second)])
        until(lambda: gateway.updates() == [second], f"{second} alone is offered after swap {number + 1}")
        calm()
        expect(gateway.updates() == [second], f"the stick holds {second}, and {gateway.updates()} is offered")
        if number % 4 == 0:
            install(second)
        sticks.detach()
        until(lambda: not gateway.updates(), "nothing is offered")
    return f"{times} swaps"


def installs(_: random.Random, times: int) -> str:
    """One after the other, without a restart."""
    fresh()
    plug("3.045", "3.046")
    for _ in range(4):
        install("3.045")
    before = at_rest()
    for number in range(times):
        install(whole.VERSIONS[number % 2])
    calm()
    expect_as_before(before, memory(times))
    return f"{times} installs; before: {before}; after: {taken()}"


def _hour(number: int, chance: random.Random) -> None:
    """What people do with the instrument in an hour of a busy day, one thing after the other."""
    plug("3.045", "3.046")
    install(whole.VERSIONS[number % 2])
    sticks.detach()
    expect(arborctl("upload", str(whole.package("3.046"))).status == 0, "it can be sent")
    for _ in range(30):  # somebody has the page open, somebody a script
        question = chance.choice((("status", "--json"), ("history",), ("log", "-n", "100"), ("slots",), ("updates",), ("orders",)))
        expect(arborctl(*question).status == 0, f"{question} is answered")
    arborctl("scan", "/media/nothing")
    arborctl("forget", "arbor-3.046.pkg")
    until(lambda: not gateway.updates(), "nothing is offered")


def day(chance: random.Random, times: int) -> str:
    """Hours of use, without a pause and without a restart."""
    fresh()
    for number in range(8):  # until the allocator has what it keeps
        _hour(number, chance)
    before = at_rest()
    for number in range(times):
        _hour(number, chance)
    calm()
    expect_as_before(before, 1024 if times >= 24 else 4096)
    return f"{times} hours; before: {before}; after: {taken()}"


def _connected(count: int) -> list[socket.socket]:
    """So many connections of one user, as far as the host takes them."""
    found = []
    for _ in range(count):
        client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        client.settimeout(whole.LIMIT)
        client.connect(str(paths.GATEWAY))
        found.append(client)
    return found


def connections(chance: random.Random, times: int) -> str:
    """One user has 1,000 connections: silent ones, half requests, answers that nobody reads, event streams that nobody
    reads. Another user's arborctl is answered, and so is the first one once those are gone."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, max(soft, 4096)), hard))
    fresh()
    paths.GATEWAY.chmod(0o666)
    heads = (b"", b"GET /v1/status HTTP/1.1\r\nHost: l", b"GET /v1/openapi.json HTTP/1.1\r\nHost: localhost\r\n\r\n" * 20,
             b"GET /v1/events?log=1 HTTP/1.1\r\nHost: localhost\r\n\r\n",
             b"POST /v1/upload HTTP/1.1\r\nHost: localhost\r\nContent-Length: 100000\r\n\r\n{")
    answered = 0
    warm = min(times, 8)  # after so many crowds the allocator has what it keeps
    for number in range(warm + times):
        clients = _as_somebody(lambda: _connected(CONNECTIONS))
        for client in clients:
            client.setblocking(False)
            try:
                client.send(chance.choice(heads))
            except OSError:
                pass  # turned away
        for _ in range(10):
            shown = arborctl("status", "--json")
            expect(shown.status == 0, f"while somebody has {CONNECTIONS} connections: {shown.told}")
            answered += 1
        for client in clients:
            client.close()
        until(lambda: arborctl("status").status == 0, "the state is told")
        calm()
        if number + 1 == warm:
            before = at_rest()
    until(lambda: at_rest().descriptors <= before.descriptors + FRESH_DESCRIPTORS, "the connections are gone")
    expect_as_before(before, CROWD_KIB)
    plug("3.046")
    install("3.046")
    expect(slots.versions()[slots.active()] == "3.046", "it is installed")
    return f"{times} times {CONNECTIONS} connections, {answered} answers to another user; before: {before}; after: {taken()}"


def _as_somebody(does):
    """The result of `does`, done by another user than root: the kernel tells who has connected."""

    os.seteuid(65534)
    try:
        return does()
    finally:
        os.seteuid(0)
