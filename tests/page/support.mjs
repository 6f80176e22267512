// What the tests of the page share: a simulator, a browser that shows its page, and modules.
import { spawn } from 'node:child_process';
import { mkdtempSync, rmSync } from 'node:fs';
import { connect as connectTcp } from 'node:net';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { connect as connectTls } from 'node:tls';
import { chromium } from 'playwright-core';

export const PATIENCE = 60_000;  // milliseconds; nothing in these tests takes as long, even on a busy machine

const SIM = process.env.CLOUDTUNNEL_SIM;
const MODULE = process.env.CLOUDTUNNEL_MODULE;
const CHROMIUM = process.env.CHROMIUM ?? '/usr/bin/chromium';

// A program of this project, ended with its test.
export class Program {
  constructor(path, options) {
    this.output = '';
    this.process = spawn(path, options, { stdio: ['pipe', 'pipe', 'pipe'] });
    this.process.stdin.on('error', () => {});
    for (const stream of [this.process.stdout, this.process.stderr]) stream.on('data', (data) => { this.output += data; });
    this.ended = new Promise((resolve) => this.process.on('exit', resolve));
  }

  async waitFor(pattern) {
    for (let waited = 0; waited < PATIENCE; waited += 20) {
      const found = this.output.match(pattern);
      if (found) return found;
      await pause(20);
    }
    throw new Error(`${pattern} did not appear in:\n${this.output.slice(-4000)}`);
  }

  type(step) { this.process.stdin.write(`${step}\n`); }

  async end() {
    this.process.kill('SIGKILL');
    await this.ended;
  }
}

export const pause = (time) => new Promise((resolve) => setTimeout(resolve, time));

export class Simulator extends Program {
  static async start(options = []) {
    const sim = new Simulator(SIM, ['--web', '0', '--seconds', '300', ...options]);
    sim.address = (await sim.waitFor(/(http:\/\/\S+)\n/))[1];
    sim.port = Number((await sim.status()).platform.listening.match(/:(\d+)$/)[1]);
    return sim;
  }

  // status is the simulator's state now.
  async status() {
    const before = this.output.length;
    this.type('status json');
    for (let waited = 0; waited < PATIENCE; waited += 20) {
      const line = this.output.slice(before).match(/^(\{.*\})\n/m);  // whole: a long one comes in pieces
      if (line) return JSON.parse(line[1]);
      await pause(20);
    }
    throw new Error('the simulator does not say its state');
  }

  // rate is how many messages of the modules it reads a second, counted by itself over so many milliseconds.
  async rate(time) {
    const count = ({ platform }) => platform.tunnels.reduce((sum, { received }) => sum + received.messages, 0);
    const first = await this.status();
    await pause(time);
    const last = await this.status();
    return (count(last) - count(first)) / (last.time - first.time);
  }
}

export const startModule = (...options) => new Program(MODULE, options);

// The simulator has a socket of its own where no real module takes part: the library knows one path only.
export function ownSocket() {
  const folder = mkdtempSync(join(tmpdir(), 'cloudtunnel-page-'));
  return { path: join(folder, 'daemon.sock'), remove: () => rmSync(folder, { recursive: true, force: true }) };
}

export const startBrowser = () => chromium.launch({ executablePath: CHROMIUM, args: ['--no-sandbox', '--disable-dev-shm-usage'] });

// openPage opens an address. Whatever the page logs as an error, throws, or asks of another host fails the test that
// looks at `page.problems`.
export async function openPage(browser, address, { width = 1280, height = 800, scheme = 'light' } = {}) {
  const page = await browser.newPage({ viewport: { width, height }, colorScheme: scheme, reducedMotion: 'reduce' });
  page.problems = [];
  page.on('pageerror', (error) => page.problems.push(`thrown: ${error}`));
  page.on('console', (message) => { if (message.type() === 'error') page.problems.push(`logged: ${message.text()}`); });
  page.on('dialog', (dialog) => { page.problems.push('a dialog'); dialog.dismiss(); });
  page.on('request', (request) => {
    const { protocol, host } = new URL(request.url());
    if (protocol !== 'blob:' && host !== new URL(address).host) page.problems.push(`asked ${request.url()}`);
  });
  page.setDefaultTimeout(PATIENCE);
  await page.goto(address);
  return page;
}

// view opens one of the page's views as a link in it would.
export async function view(page, hash) {
  await page.evaluate((to) => { location.hash = to; }, hash);
}

// frame is a frame as the library writes it.
function frame(text, opcode) {
  const payload = Buffer.from(text);
  const key = Buffer.from([0x11, 0x22, 0x33, 0x44]);
  const head = payload.length < 126
    ? Buffer.from([0x80 | opcode, 0x80 | payload.length])
    : Buffer.from([0x80 | opcode, 0xfe, payload.length >> 8, payload.length & 0xff]);
  return Buffer.concat([head, key, payload.map((byte, i) => byte ^ key[i % 4])]);
}

// Each tunnel sends `rate` messages a second. Those that are due go in one write: the test's own work for a write each
// would leave the simulator and the browser too little of a small machine.
export class Load {
  constructor(tunnels, rate) {
    const start = performance.now();
    let sent = 0;
    this.timer = setInterval(() => {
      const due = Math.floor((performance.now() - start) * rate / 1000);
      const bytes = Buffer.concat(Array.from({ length: due - sent }, (_, i) => frame(`message ${sent + i + 1} of the load`, 1)));
      sent = due;
      for (const tunnel of tunnels) tunnel.sendBytes(bytes);
    }, 100);
  }

  end() { clearInterval(this.timer); }
}

// A module that speaks as the test wants: over TLS, straight to the platform.
export class RawModule {
  static async open(port, model) {
    const module = new RawModule();
    module.socket = connectTls({ port, host: '127.0.0.1', rejectUnauthorized: false });
    module.received = Buffer.alloc(0);
    module.socket.on('error', () => {});
    module.socket.on('data', (data) => module.#read(data));
    await new Promise((resolve) => module.socket.once('secureConnect', resolve));
    module.socket.write('GET /tunnel HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: webSocket\r\nConnection: upgrade\r\n' +
      'Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-version: 13\r\n' +
      'Cookie: JSESSIONID=desk-token; desk-cookie=1\r\n\r\n');
    await module.#until(() => module.upgraded);
    const platform = model === 'base' ? { platform: 'wpt' } : {};
    module.send(JSON.stringify({ optType: 1, ...platform, lastDownReason: 0, errorCode: 0, socketErrno: 0, cloudModName: model,
      tokenID: 'desk-token', devSN: '-NA-', devModName: 'page test' }));
    await module.#until(() => module.messages > 0);
    return module;
  }

  messages = 0;

  send(text, opcode = 1) { this.socket.write(frame(text, opcode)); }

  // sendBytes leaves out what the simulator is too slow to read.
  sendBytes(bytes) { if (!this.socket.writableNeedDrain) this.socket.write(bytes); }

  close() { this.socket.destroy(); }

  #read(data) {
    this.received = Buffer.concat([this.received, data]);
    if (!this.upgraded) {
      const end = this.received.indexOf('\r\n\r\n');
      if (end < 0) return;
      this.upgraded = true;
      this.received = this.received.subarray(end + 4);
    }
    // The platform's frames in these tests are short.
    while (this.received.length >= 2 && this.received.length >= 2 + this.received[1]) {
      this.messages++;
      const PING = 9;
      const PONG = 10;
      if ((this.received[0] & 0x0f) === PING) this.send(this.received.subarray(2, 2 + this.received[1]), PONG);
      this.received = this.received.subarray(2 + this.received[1]);
    }
  }

  async #until(done) {
    for (let waited = 0; !done(); waited += 5) {
      if (waited > PATIENCE) throw new Error('the platform does not answer');
      await pause(5);
    }
  }
}

// registerWithDaemon connects to the daemon's socket as a module process and registers models; end() hangs up.
export function registerWithDaemon(path, models) {
  const socket = connectTcp({ path });
  socket.on('error', () => {});
  for (const model of models) {
    const record = Buffer.alloc(112);
    record.writeUInt32LE(1, 0);
    record.write(model, 16);
    record.write(model, 48);
    socket.write(record);
  }
  return { end: () => socket.destroy() };
}
