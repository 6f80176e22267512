// What the page knows of the simulator, kept up to date over one WebSocket. Views subscribe to changes; several changes
// in one frame of the browser are one call.

const FRAMES_MAX = 2000;  // of the tunnel in view
const EVENTS_MAX = 5000;
const RETRY_MS = [250, 500, 1000, 2000, 5000];

class Store {
  connection = 'connecting';  // 'connecting', 'open', 'lost'
  problem = '';               // why it was lost
  refused = false;            // a simulator answers that has another token
  hello = null;               // what does not change: version, fault table
  tunnels = new Map();        // by number
  ended = 0;                  // tunnels that the simulator no longer keeps
  models = [];
  daemon = null;
  activeFaults = [];
  counts = { setups: 0, failures: 0, history: [] };
  watched = null;             // { id, steps, frames, skipped }
  events = [];
  eventsSkipped = 0;
  version = 0;

  #socket = null;
  #listeners = new Set();
  #scheduled = false;
  #waiting = new Map();  // replies, by command number
  #lastCommand = 0;
  #retries = 0;
  #watching = 0;
  #timeline = false;
  #skew = 0;  // the simulator's clock less this page's
  #lostAt = null;  // by this page's clock

  // now is the simulator's time in milliseconds since its start; without a connection, that of its loss.
  now() { return (this.#lostAt ?? performance.now()) + this.#skew; }

  subscribe(listener) {
    this.#listeners.add(listener);
    return () => this.#listeners.delete(listener);
  }

  connect() {
    const socket = new WebSocket(`ws://${location.host}/events${location.search}`);
    this.#socket = socket;
    socket.onmessage = (message) => this.#update(JSON.parse(message.data));
    socket.onclose = (event) => {
      this.connection = 'lost';
      this.problem = event.reason;
      this.#lostAt ??= performance.now();
      this.#askForToken();
      for (const { reject } of this.#waiting.values()) reject(new Error('The connection to the simulator was lost.'));
      this.#waiting.clear();
      const pause = RETRY_MS[Math.min(this.#retries++, RETRY_MS.length - 1)];
      setTimeout(() => this.connect(), pause);
      this.#changed();
    };
  }

  // A WebSocket that fails does not say why; a page that is asked for does.
  async #askForToken() {
    const FORBIDDEN = 403;
    const refused = await fetch(`/${location.search}`, { method: 'HEAD' }).then(({ status }) => status === FORBIDDEN, () => false);
    if (this.connection === 'open' || this.refused === refused) return;
    this.refused = refused;
    this.#changed();
  }

  // command asks the simulator for something. The promise fails with the simulator's reason.
  command(name, fields = {}) {
    if (this.connection !== 'open') return Promise.reject(new Error('There is no connection to the simulator.'));
    const id = ++this.#lastCommand;
    this.#socket.send(JSON.stringify({ id, do: name, ...fields }));
    return new Promise((resolve, reject) => this.#waiting.set(id, { resolve, reject }));
  }

  // watch has the frames and the set-up of one tunnel sent; 0 is none.
  watch(id) {
    this.#watching = id;
    this.watched = id ? { id, steps: [], frames: [], skipped: 0, loaded: false } : null;
    if (this.connection === 'open') this.command('watch', { tunnel: id }).catch(() => {});
    this.#changed();
  }

  // follow has the timeline sent.
  follow(on) {
    this.#timeline = on;
    if (this.connection === 'open') this.command('timeline', { on }).catch(() => {});
  }

  #update(update) {
    if (update.hello) this.#begin(update.hello);
    this.#skew = update.now - performance.now();
    for (const tunnel of update.tunnels ?? []) this.tunnels.set(tunnel.id, tunnel);
    for (const id of update.gone ?? []) this.tunnels.delete(id);
    if (update.models) this.models = update.models;
    if (update.daemon) this.daemon = update.daemon;
    if (update.faults) this.activeFaults = update.faults;
    if (update.counts) this.counts = update.counts;
    if (update.watched && this.watched?.id === update.watched.id) this.#addFrames(update.watched);
    if (update.events) this.#addEvents(update.events);
    for (const reply of update.replies ?? []) this.#resolve(reply);
    this.#changed();
  }

  // A new connection begins with everything: what an earlier one sent is dropped.
  #begin(hello) {
    this.hello = hello;
    this.connection = 'open';
    this.problem = '';
    this.refused = false;
    this.#lostAt = null;
    this.#retries = 0;
    this.tunnels = new Map();
    this.events = [];
    this.eventsSkipped = 0;
    if (this.#watching) this.watch(this.#watching);
    if (this.#timeline) this.follow(true);
  }

  #addFrames({ steps, frames, skipped }) {
    const watched = this.watched;
    watched.loaded = true;
    if (steps) watched.steps = steps;
    watched.skipped += skipped;
    if (!frames.length) return;
    // A new list, so that whoever keeps the old one sees that it changed.
    watched.frames = watched.frames.concat(frames.map(readFrame)).slice(-FRAMES_MAX);
  }

  #addEvents({ skipped, lines }) {
    this.eventsSkipped += skipped;
    this.events = this.events.concat(lines).slice(-EVENTS_MAX);
  }

  #resolve({ id, error }) {
    const waiting = this.#waiting.get(id);
    this.#waiting.delete(id);
    if (error === undefined) waiting?.resolve();
    else waiting?.reject(new Error(error));
  }

  #changed() {
    this.version++;
    if (this.#scheduled) return;
    this.#scheduled = true;
    requestAnimationFrame(() => {
      this.#scheduled = false;
      for (const listener of this.#listeners) listener();
    });
  }
}

function readFrame([number, time, sent, opcode, fin, size, base64]) {
  return { number, time, sent, opcode, fin, size, bytes: Uint8Array.from(atob(base64), (c) => c.charCodeAt(0)) };
}

export const store = new Store();
