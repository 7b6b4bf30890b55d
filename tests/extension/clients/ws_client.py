"""Independent WebSocket client for the bridge's server: connects to /Quellon/, sends text,
expects the server's echo, pings, and closes. Prints one line per step reached."""
import asyncio
import sys

import websockets


async def main(port: int) -> int:
    uri = f"ws://127.0.0.1:{port}/Quellon/"
    async with websockets.connect(uri, close_timeout=2, compression=None, max_size=None) as ws:
        print("OPEN", flush=True)
        await ws.send("hello from python")
        reply = await asyncio.wait_for(ws.recv(), 10)
        assert reply == "echo:hello from python", reply
        print("ECHO_OK", flush=True)
        big = "é" * 40000  # 80 000 bytes: a 64-bit length on both sides
        await ws.send(big)
        reply = await asyncio.wait_for(ws.recv(), 10)
        assert reply == "echo:" + big, len(reply)
        print("BIG_OK", flush=True)
        pong = await ws.ping(b"abc")
        await asyncio.wait_for(pong, 10)
        print("PING_OK", flush=True)
        try:
            await ws.close()
        except Exception as error:  # the server's close reply carries no status code of its own
            print("CLOSE_NOTE", type(error).__name__, flush=True)
    print("CLOSED", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(asyncio.run(main(int(sys.argv[1]))))
