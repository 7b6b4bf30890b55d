"""Independent WebSocket client for the bridge's server: connects to /Quellon/, expects an echo
of a short and a long text, pings, floods numbered messages while reading the echoes, closes."""
import asyncio
import sys

import websockets


async def main(port: int, count: int) -> int:
    async with websockets.connect(f"ws://127.0.0.1:{port}/Quellon/", close_timeout=2, compression=None,
                                  max_size=None) as ws:
        for text in ("hello from python", "é" * 40000):  # 80 000 bytes: a 64-bit length both ways
            await ws.send(text)
            reply = await asyncio.wait_for(ws.recv(), 10)
            assert reply == "echo:" + text, reply[:40]
        await asyncio.wait_for(await ws.ping(b"abc"), 10)

        async def replies() -> None:
            for _ in range(count):
                await ws.recv()

        reader = asyncio.create_task(replies())
        for i in range(count):
            await ws.send(f"n{i}")
        await asyncio.wait_for(reader, 60)
        try:
            await ws.close()
        except Exception:  # the server's close reply carries no status code of its own
            pass
    print("DONE", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(asyncio.run(main(int(sys.argv[1]), int(sys.argv[2]))))
