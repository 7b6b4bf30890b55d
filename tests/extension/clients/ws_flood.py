"""Floods the bridge's server with numbered text messages on one connection while reading
whatever the server sends back, then closes once it has had one reply per message."""
import asyncio
import sys

import websockets


async def main(port: int, count: int) -> int:
    uri = f"ws://127.0.0.1:{port}/Quellon/"
    async with websockets.connect(uri, close_timeout=2, compression=None, max_size=None) as ws:
        async def replies() -> int:
            seen = 0
            while seen < count:
                await ws.recv()
                seen += 1
            return seen

        reader = asyncio.create_task(replies())
        for i in range(count):
            await ws.send(f"n{i}")
        print("SENT", flush=True)
        await asyncio.wait_for(reader, 60)
        print("REPLIED", flush=True)
        try:
            await ws.close()
        except Exception:  # the server's close reply carries no status code of its own
            pass
    return 0


if __name__ == "__main__":
    sys.exit(asyncio.run(main(int(sys.argv[1]), int(sys.argv[2]))))
