// Reference server: Node's ws, counting text messages and answering "done" to every client
// once <expected> have arrived. Prints "listening <port>".
const { WebSocketServer } = require('ws');
const expected = Number(process.argv[2]);
const wss = new WebSocketServer({ host: '127.0.0.1', port: 0, path: '/Quellon/', perMessageDeflate: false });
let count = 0;
wss.on('connection', (ws) => {
  ws.on('message', () => {
    if (++count === expected) wss.clients.forEach((c) => c.send('done'));
  });
});
wss.on('listening', () => console.log(`listening ${wss.address().port}`));
