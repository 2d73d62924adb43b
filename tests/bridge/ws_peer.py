#!/usr/bin/python3
"""An independent WebSocket peer for the companion's client tests: Debian's python3-websockets.

Serves on 127.0.0.1, on a port of the system's choosing, and reports that port once listening.
What a connection does is named by its address: the last path segment (ws://host/NAME?k=v), or,
for the bridge's own address (.../bridge?token=...), the token "NAME~k=v~k=v". Every
connection reports on standard output, one JSON object a line. Stops when standard input
closes, or after --lifetime seconds (default 240), whichever comes first.
"""

import argparse
import asyncio
import hashlib
import json
import random
import sys
import threading
import urllib.parse

import websockets
from websockets.frames import OP_CONT, OP_PING, OP_TEXT

# The companion takes up to 64 MiB; this peer takes more, so the companion's largest answers
# are never refused here.
MAX_SIZE = 2**27

# Fragment sizes used in turn: small odd ones that land inside characters, and large ones.
AWKWARD = [1, 2, 3, 5, 7, 13, 4093, 65537, 1048573, 3000017, 1, 9999991]

ALPHABET = ["a", "z", " ", "\u00e9", "\u07ff", "\u0800", "\u20ac", "\ufffd", "\U0001f600",
            "\U00010000", "\U0010ffff"]

connections = {}


def report(**fields):
    sys.stdout.write(json.dumps(fields, ensure_ascii=True) + "\n")
    sys.stdout.flush()


def text_of_size(size, seed):
    """UTF-8 text of exactly `size` bytes, characters of every encoded length."""
    rng = random.Random(seed)
    block = "".join(rng.choice(ALPHABET) for _ in range(20000)).encode()
    data = (block * (size // len(block) + 1))[:size]
    # A character cut by the size is dropped, and ASCII makes up the difference.
    start = len(data) - 1
    while start > 0 and (data[start] & 0xC0) == 0x80:
        start -= 1
    if start >= 0:
        lead = data[start]
        length = 1 if lead < 0x80 else 2 if lead < 0xE0 else 3 if lead < 0xF0 else 4
        if start + length > len(data):
            data = data[:start]
    data += b"x" * (size - len(data))
    data.decode("utf-8")  # strict: it must be valid
    return data


def fragments(data, start):
    """Cuts `data` at the awkward sizes, beginning at index `start` of the list."""
    pieces = []
    at = 0
    turn = start
    while at < len(data):
        size = AWKWARD[turn % len(AWKWARD)]
        pieces.append(data[at:at + size])
        at += size
        turn += 1
    return pieces or [b""]


def scenario_of(path):
    parsed = urllib.parse.urlsplit(path)
    query = urllib.parse.parse_qs(parsed.query)
    name = parsed.path.rsplit("/", 1)[-1]
    params = {k: v[-1] for k, v in query.items()}
    if name == "bridge" and "token" in params:
        name, *rest = params.pop("token").split("~")
        params.update(item.split("=", 1) for item in rest if "=" in item)
    return name, params


async def send_fragmented(ws, data, start=0, ping_every=3):
    """One text message in raw frames cut inside characters, pings between some of them."""
    pieces = fragments(data, start)
    inside = 0
    for index, piece in enumerate(pieces):
        last = index == len(pieces) - 1
        if index > 0 and piece and (piece[0] & 0xC0) == 0x80:
            inside += 1
        await ws.write_frame(last, OP_TEXT if index == 0 else OP_CONT, piece)
        if not last and ping_every and index % ping_every == ping_every - 1:
            await ws.write_frame(True, OP_PING, b"between %d" % index)
    return len(pieces), inside


async def closed(ws, number):
    await ws.wait_closed()
    report(event="closed", connection=number, code=ws.close_code, reason=ws.close_reason)


async def hello(ws):
    await ws.send(json.dumps({"type": "hello"}))


async def fragments_scenario(ws, number, params):
    seed = int(params.get("seed", "1"))
    for turn, size in enumerate(int(s) for s in params["sizes"].split(",")):
        data = text_of_size(size, seed + turn)
        count, inside = await send_fragmented(ws, data, start=turn)
        report(event="sent", connection=number, bytes=len(data),
               sha256=hashlib.sha256(data).hexdigest(), fragments=count, inside=inside)
    await closed(ws, number)


async def echo_call_scenario(ws, number, params):
    """A call whose JSON is cut inside characters; the answer must carry the text back."""
    await hello(ws)
    text = text_of_size(int(params.get("size", "100000")), 5).decode()
    call = json.dumps({"type": "call", "req_id": "echo-1", "method": "echo",
                       "params": {"text": text}}, ensure_ascii=False).encode()
    count, inside = await send_fragmented(ws, call)
    report(event="sent", connection=number, bytes=len(call), fragments=count, inside=inside,
           sha256=hashlib.sha256(text.encode()).hexdigest())
    while True:
        frame = json.loads(await ws.recv())
        if frame.get("type") == "result":
            break
    echoed = frame.get("result", {}).get("echo", "")
    report(event="result", connection=number, req_id=frame.get("req_id"), ok=frame.get("ok"),
           match=echoed == text, sha256=hashlib.sha256(echoed.encode()).hexdigest())
    await closed(ws, number)


async def big_result_scenario(ws, number, params):
    """Asks for a large answer and says what arrived, after strict UTF-8 decoding."""
    await hello(ws)
    await ws.send(json.dumps({"type": "call", "req_id": "big-1", "method": "big",
                              "params": {}}))
    while True:
        message = await ws.recv()
        frame = json.loads(message)
        if frame.get("type") == "result":
            break
    text = frame.get("result", {}).get("text", "")
    encoded = text.encode()
    report(event="result", connection=number, req_id=frame.get("req_id"), ok=frame.get("ok"),
           message_bytes=len(message.encode()), text_bytes=len(encoded),
           sha256=hashlib.sha256(encoded).hexdigest())
    await closed(ws, number)


async def broken_frame_during_answer_scenario(ws, number, params):
    """Asks for a large answer, then at once breaks the protocol (a reserved bit) while the
    answer is still on its way: the answer must still arrive whole, then the client's close."""
    await hello(ws)
    await ws.send(json.dumps({"type": "call", "req_id": "big-1", "method": "big",
                              "params": {}}))
    ws.transport.write(b"\xc1\x00")  # a final text frame with RSV1 set, no extension agreed
    sizes = []
    try:
        async for message in ws:
            sizes.append(len(message.encode() if isinstance(message, str) else message))
    except websockets.ConnectionClosed:
        pass
    report(event="closed", connection=number, code=ws.close_code, reason=ws.close_reason,
           messages=sizes)


async def too_big_scenario(ws, number, params):
    """Once per test: a message one byte over `limit`, in one frame or in 1 MiB frames."""
    await hello(ws)
    key = ("too_big", params.get("run", ""))
    connections[key] = connections.get(key, 0) + 1
    if connections[key] == 1:
        limit = int(params["limit"])
        try:
            if params.get("mode") == "fragments":
                step = 1024 * 1024
                sent = 0
                first = True
                while sent < limit:
                    size = min(step, limit - sent)
                    await ws.write_frame(False, OP_TEXT if first else OP_CONT, b"y" * size)
                    first = False
                    sent += size
                await ws.write_frame(True, OP_CONT, b"y")
            else:
                await ws.write_frame(True, OP_TEXT, b"y" * (limit + 1))
        except websockets.ConnectionClosed:
            pass
        report(event="sent", connection=number, bytes=limit + 1)
    await closed(ws, number)


async def ping_scenario(ws, number, params):
    """Pings of several sizes; each pong must carry its ping's payload back."""
    await hello(ws)
    for payload in [b"", b"x", b"\x00\xff" * 10, bytes(range(125))]:
        waiter = await ws.ping(payload)
        try:
            await asyncio.wait_for(waiter, 10)
            report(event="pong", connection=number, bytes=len(payload))
        except asyncio.TimeoutError:
            report(event="no_pong", connection=number, bytes=len(payload))
    await closed(ws, number)


async def wait_close_scenario(ws, number, params):
    await hello(ws)
    await closed(ws, number)


async def server_close_scenario(ws, number, params):
    """Closes with the code and reason asked for, then reports the answer the client gave."""
    await hello(ws)
    await asyncio.sleep(float(params.get("delay", "0.2")))
    await ws.close(int(params["code"]), params.get("reason", ""))
    report(event="closed", connection=number, code=ws.close_code, reason=ws.close_reason,
           echoed=ws.close_rcvd.code if ws.close_rcvd else None)


SCENARIOS = {
    "fragments": fragments_scenario,
    "echo_call": echo_call_scenario,
    "big_result": big_result_scenario,
    "too_big": too_big_scenario,
    "broken_frame_during_answer": broken_frame_during_answer_scenario,
    "ping": ping_scenario,
    "wait_close": wait_close_scenario,
    "server_close": server_close_scenario,
}

counter = 0


async def handler(ws):
    global counter
    counter += 1
    number = counter
    name, params = scenario_of(ws.path)
    report(event="open", connection=number, scenario=name)
    scenario = SCENARIOS.get(name)
    if scenario is None:
        await ws.close(4404, "no such scenario")
        return
    try:
        await scenario(ws, number, params)
    except websockets.ConnectionClosed:
        report(event="closed", connection=number, code=ws.close_code, reason=ws.close_reason)
    except Exception as error:  # anything else is the test's to see
        report(event="error", connection=number, message=repr(error))
        raise


async def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--lifetime", type=float, default=240)
    args = parser.parse_args()

    loop = asyncio.get_running_loop()
    stop = asyncio.Event()

    def watch_stdin():
        # Returns when the test closes its end, or when the test is gone.
        sys.stdin.buffer.read()
        loop.call_soon_threadsafe(stop.set)

    threading.Thread(target=watch_stdin, daemon=True).start()
    async with websockets.serve(handler, "127.0.0.1", 0, max_size=MAX_SIZE, compression=None,
                                ping_interval=None, close_timeout=5) as server:
        port = server.sockets[0].getsockname()[1]
        report(event="listening", port=port)
        try:
            await asyncio.wait_for(stop.wait(), args.lifetime)
        except asyncio.TimeoutError:
            report(event="lifetime_over")


if __name__ == "__main__":
    asyncio.run(main())
