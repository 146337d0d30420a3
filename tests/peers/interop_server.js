// Interop peer on Node's ws (NODE_PATH=/usr/share/nodejs): interop_server.py's paths and
// output, served alike, but for text fragments that split one character's two bytes.
'use strict';
const fs = require('fs');
const https = require('https');
const { WebSocketServer } = require('ws');

let lastClose = 'none';
let others = 0; // connections not yet ended

function fragments(ws) {
  const text = Buffer.from('héllo wörld');
  ws.send(text.subarray(0, 2), { binary: false, fin: false });
  ws.ping('mid');
  const timer = setTimeout(() => ws.send('no pong'), 3000);
  ws.once('pong', (data) => {
    clearTimeout(timer);
    ws.send(text.subarray(2, 6), { binary: false, fin: false });
    ws.send(text.subarray(6), { binary: false, fin: true });
    ws.send(Buffer.from([0, 1]), { fin: false });
    ws.send(Buffer.alloc(0), { binary: true, fin: false });
    ws.send(Buffer.from([255]), { binary: true, fin: true });
    ws.send(data.toString() === 'mid' ? 'pong ok' : 'no pong');
  });
}

const paths = {
  '/echo': (ws, q) => {
    if (q.pause) { ws.pause(); setTimeout(() => ws.resume(), q.pause * 1000); }
    ws.on('message', (data, binary) => ws.send(data, { binary }));
  },
  '/burst': (ws, q) => {
    for (let i = 0; i < +q.n; i++) {
      const text = String(i).padEnd(+q.size || 0, '.');
      ws.send(i % 2 ? Buffer.from(text) : text);
    }
  },
  '/fragments': fragments,
  '/close': (ws, q) => ws.close(+q.code, q.reason || ''),
  '/last_close': (ws) => {
    const report = (tries) => (others && tries ? setTimeout(report, 10, tries - 1) : ws.send(lastClose));
    report(500);
  },
  '/headers': (ws, q, req) => ws.send(req.url + '\n'
    + req.rawHeaders.map((v, i) => (i % 2 ? `${v}\n` : `${v.toLowerCase()}: `)).join('')),
};

function behave(ws, req) {
  const url = new URL(req.url, 'http://host');
  ws.on('error', () => {}); // a client's fault ends its connection, not the peer
  if (url.pathname !== '/last_close') {
    others++;
    ws.on('close', (code, reason) => { lastClose = `${code} ${reason}`; others--; });
  }
  paths[url.pathname](ws, Object.fromEntries(url.searchParams), req);
}

const options = {
  maxPayload: 64 << 20,
  perMessageDeflate: false,
  handleProtocols: (offered) => ['mqtt', 'chat'].find((p) => offered.has(p)) || false,
};
const [cert, key] = process.argv.slice(2);
const secureServer = https.createServer({ cert: fs.readFileSync(cert), key: fs.readFileSync(key) });
const plain = new WebSocketServer({ host: '127.0.0.1', port: 0, ...options });
const secure = new WebSocketServer({ server: secureServer, ...options });
for (const server of [plain, secure]) server.on('connection', behave);
plain.on('listening', () => secureServer.listen(0, '127.0.0.1', () => {
  console.log(`${plain.address().port} ${secureServer.address().port}`);
}));
process.stdin.on('end', () => process.exit(0)).resume();
setTimeout(() => process.exit(0), 120000);
