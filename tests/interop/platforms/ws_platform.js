// A platform on the Node.js library ws. Usage: ws_platform.js PORT [CERTIFICATE TLS-VERSION]
'use strict';
const fs = require('fs');
const http = require('http');
const https = require('https');
const readline = require('readline');
const { WebSocketServer } = require('ws');

let tunnel; // the newest

const report = (event, fields) => process.stdout.write(JSON.stringify({ event, ...fields }) + '\n');

const orders = {
  text: ({ text }) => tunnel.send(text),
  binary: ({ text }) => tunnel.send(Buffer.from(text)),
  fragments: ({ texts }) => texts.forEach((text, i) => tunnel.send(text, { fin: i === texts.length - 1 })),
  burst: ({ texts }) => { // corked, they leave in one piece: in one TLS record, if they fit
    tunnel._socket.cork();
    texts.forEach((text) => tunnel.send(text));
    tunnel._socket.uncork();
  },
  ping: ({ text }) => tunnel.ping(text),
  close: ({ code, reason }) => tunnel.close(code, reason),
};

function serve(opened, request) {
  tunnel = opened;
  report('open', { tls: request.socket.getProtocol ? request.socket.getProtocol() : 'none' });
  opened.on('message', (text) => report('message', { text: text.toString() }));
  opened.on('pong', (text) => report('pong', { text: text.toString() }));
  opened.on('error', () => {}); // the end that follows has its code
  opened.on('close', (code, reason) => report('ended', { code, reason: reason.toString() }));
}

const [port, certificate, version] = process.argv.slice(2);
const pem = certificate && fs.readFileSync(certificate);
const server = certificate
  ? https.createServer({ key: pem, cert: pem, minVersion: `TLSv${version}`, maxVersion: `TLSv${version}` })
  : http.createServer();
new WebSocketServer({ server }).on('connection', serve);
server.listen(Number(port), '127.0.0.1', () => report('listening'));
readline.createInterface({ input: process.stdin })
  .on('line', (line) => { const order = JSON.parse(line); orders[order.do](order); })
  .on('close', () => process.exit());
