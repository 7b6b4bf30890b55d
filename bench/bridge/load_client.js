// Opens N connections to ws://127.0.0.1:<port>/Quellon/, sends M text frames on each as fast
// as the socket takes them, and waits for the server's "done" (sent once it has counted every
// message). Prints "elapsed_ms <ms>".
const WebSocket = require('ws');
const [port, clients, frames, size] = process.argv.slice(2).map(Number);
const payload = 'm'.repeat(size || 64);
let open = 0;
let start = 0;
const sockets = [];
const timer = setTimeout(() => { console.error('timed out'); process.exit(2); }, 120000);
for (let i = 0; i < clients; i++) {
  const ws = new WebSocket(`ws://127.0.0.1:${port}/Quellon/`, { perMessageDeflate: false });
  sockets.push(ws);
  ws.on('error', (e) => { console.error(String(e)); process.exit(3); });
  ws.on('message', (data) => {
    if (String(data) !== 'done') return;
    console.log(`elapsed_ms ${Date.now() - start}`);
    clearTimeout(timer);
    sockets.forEach((s) => s.terminate());
    process.exit(0);
  });
  ws.on('open', () => {
    if (++open < clients) return;
    start = Date.now();
    for (const s of sockets) for (let f = 0; f < frames; f++) s.send(payload);
  });
}
