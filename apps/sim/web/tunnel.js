// One tunnel: how it was set up, its frames, and what can be sent on it.
import { html, useEffect, useMemo, useState } from './vendor/preact.js';
import { Button, Empty, Spark, State, VirtualRows, useClock, useCommand, useNarrow, useSelection, useStore } from './parts.js';
import { bytes, count, duration, hexDump, milliseconds, modelName, moment, prettyCutJson, prettyJson, text, visible } from './format.js';
import { store } from './store.js';

const OPCODES = { 0: 'continuation', 1: 'text', 2: 'binary', 8: 'close', 9: 'ping', 10: 'pong' };
const opcodeName = (opcode) => OPCODES[opcode] ?? `opcode ${opcode}`;

function Chooser({ current }) {
  const { tunnels } = useStore(1);
  const sorted = [...tunnels.values()].sort((a, b) => b.id - a.id);
  return html`
    <label>Tunnel
      <select value=${current ?? ''} onChange=${(event) => { location.hash = `tunnel/${event.target.value}`; }}>
        ${!current && html`<option value="">choose…</option>`}
        ${sorted.map((tunnel) => html`<option value=${tunnel.id}>#${tunnel.id} ${modelName(tunnel)}, ${tunnel.state}</option>`)}
      </select>
    </label>`;
}

function Waterfall({ steps }) {
  if (!steps.length) return html`<${Empty}>Nothing has happened on this tunnel yet.<//>`;
  const start = steps[0].start;
  const total = Math.max(...steps.map(({ end }) => end)) - start || 1;
  const percent = (time) => `${((time / total) * 100).toFixed(2)}%`;
  // A step without a length has a mark of 3 pixels, which also fits at the end.
  const place = ({ start: begun, end }) => ({ left: `min(${percent(begun - start)}, 100% - 3px)`, width: percent(end - begun) });
  return html`
    <ol class="waterfall">
      ${steps.map((step) => html`
        <li key=${step.name}>
          <span class="step-name">${step.name}</span>
          <span class="track" aria-hidden="true"><span class="span" style=${place(step)}></span></span>
          <span class="step-time">${step.end > step.start
            ? html`${milliseconds(step.end - step.start)}<span class="unseen">, begun after ${milliseconds(step.start - start)}</span>`
            : html`<span class="faint">at ${milliseconds(step.start - start)}</span>`}</span>
          ${step.text && html`<details><summary>what was exchanged<span class="unseen"> in ${step.name}</span></summary><pre tabindex="0">${visible(step.text.replaceAll('\r\n', '\n').trimEnd())}</pre></details>`}
        </li>`)}
    </ol>
    <p class="faint">From the first step to the last: ${milliseconds(total)}.</p>`;
}

const isCut = (frame) => frame.size > frame.bytes.length;
const textOf = (frame) => text(frame.bytes, isCut(frame) || !frame.fin);

function preview(frame) {
  const string = textOf(frame);
  if (string !== null) return visible(string.slice(0, 300)).replace(/\s+/g, ' ');
  return Array.from(frame.bytes.subarray(0, 64), (byte) => byte.toString(16).padStart(2, '0')).join(' ');
}

function closeText(data) {
  if (data.length < 2) return 'no status';
  return `status ${data[0] * 256 + data[1]}, reason: ${visible(text(data.subarray(2)) ?? hexDump(data.subarray(2)))}`;
}

function Payload({ frame }) {
  const [asHex, setHex] = useState(false);
  const string = textOf(frame);
  const cut = isCut(frame);
  const json = string === null ? null : cut ? prettyCutJson(string) : prettyJson(string);
  const hex = asHex || string === null;
  const shown = frame.opcode === 8 && !asHex ? closeText(frame.bytes) : hex ? hexDump(frame.bytes) : visible(json ?? string);
  return html`
    <section class="payload" aria-label=${`Frame ${frame.number}`}>
      <p>
        Frame ${frame.number}, ${frame.sent ? 'sent' : 'received'} at ${moment(frame.time)} s: ${opcodeName(frame.opcode)}${frame.fin ? '' : ', not the last fragment'},
        ${' '}${bytes(frame.size)}${cut ? `, of which the first ${bytes(frame.bytes.length)} are shown` : ''}${json && !hex ? ', laid out as JSON' : ''}
        ${' '}${string !== null && html`<label class="inline"><input type="checkbox" checked=${asHex} onChange=${(event) => setHex(event.target.checked)} /> as hex</label>`}
      </p>
      <pre tabindex="0">${shown || '(empty)'}</pre>
    </section>`;
}

function Frames({ watched }) {
  const [search, setSearch] = useState('');
  const [direction, setDirection] = useState('both');
  const [kind, setKind] = useState('all');
  const frames = useMemo(() => {
    const wanted = search.toLowerCase();
    return watched.frames.filter((frame) =>
      (direction === 'both' || frame.sent === (direction === 'sent')) &&
      (kind === 'all' || opcodeName(frame.opcode) === kind) &&
      (!wanted || preview(frame).toLowerCase().includes(wanted) || (textOf(frame) ?? '').toLowerCase().includes(wanted)));
  }, [watched.frames, search, direction, kind]);
  const height = useNarrow(600) ? 48 : 28;
  const { at, select, onKeyDown } = useSelection(frames);
  return html`
    <div class="bar">
      <label>Search <input type="search" value=${search} onInput=${(event) => setSearch(event.target.value)} /></label>
      <label>Direction
        <select value=${direction} onChange=${(event) => setDirection(event.target.value)}>
          <option value="both">both</option><option value="sent">sent to the module</option><option value="received">received</option>
        </select>
      </label>
      <label>Opcode
        <select value=${kind} onChange=${(event) => setKind(event.target.value)}>
          <option value="all">all</option>${Object.values(OPCODES).map((name) => html`<option value=${name}>${name}</option>`)}
        </select>
      </label>
      <span class="faint">${count(frames.length, 'frame')}${watched.skipped > 0 ? `, ${watched.skipped.toLocaleString('en')} left out` : ''}</span>
    </div>
    ${frames.length === 0
      ? html`<${Empty}>${!watched.loaded ? 'Loading…' : watched.frames.length ? 'No frame matches.' : 'No frame has passed yet.'}<//>`
      : html`<${VirtualRows} role="listbox" tabindex="0" aria-label="Frames" className="frames" rows=${frames} height=${height}
          follow=${at < 0} show=${at} onKeyDown=${onKeyDown} aria-activedescendant=${at < 0 ? undefined : `frame-${frames[at].number}`}
          render=${(frame, index) => html`
            <div key=${frame.number} id=${`frame-${frame.number}`} role="option" class="row frame" aria-selected=${index === at}
              aria-setsize=${frames.length} aria-posinset=${index + 1} onClick=${() => select(frame)} style=${{ height: `${height}px` }}>
              <span class="f-time">${moment(frame.time)} s</span>
              <span class=${`f-way ${frame.sent ? 'out' : 'in'}`}>${frame.sent ? '→' : '←'} ${frame.sent ? 'sent' : 'received'}</span>
              <span class="f-kind">${opcodeName(frame.opcode)}${frame.fin ? '' : ' …'}</span>
              <span class="f-size">${bytes(frame.size)}</span>
              <span class="f-text">${frame.opcode === 8 ? closeText(frame.bytes) : preview(frame)}</span>
            </div>`} />`}
    ${at >= 0 && html`<${Payload} frame=${frames[at]} key=${frames[at].number} />`}`;
}

function Compose({ tunnel }) {
  const [kind, setKind] = useState('text');
  const [bodies, setBodies] = useState({});  // what was typed for each opcode
  const body = bodies[kind] ?? '';
  const [status, setStatus] = useState('1000');
  const [run, outcome] = useCommand();
  const open = tunnel.state === 'open';
  const send = async (event) => {
    event.preventDefault();
    const fields = { tunnel: tunnel.id };
    if (kind === 'close') run('close', { ...fields, status: Number(status), reason: body }, 'The close is sent.');
    else if (kind === 'ping') run('ping', { ...fields, text: body }, 'The ping is sent.');
    else if (kind === 'binary') run('send-hex', { ...fields, hex: body }, 'The frame is sent.');
    else run('send', { ...fields, text: body }, 'The frame is sent.');
  };
  const label = { text: 'Text', binary: 'Bytes, as pairs of hexadecimal digits', ping: 'Body of the ping, up to 125 bytes', close: 'Reason, up to 123 bytes' }[kind];
  return html`
    <form class="compose" onSubmit=${send} aria-label="Compose a frame">
      <label>Opcode
        <select value=${kind} onChange=${(event) => setKind(event.target.value)}>
          <option value="text">text</option><option value="binary">binary</option><option value="ping">ping</option><option value="close">close</option>
        </select>
      </label>
      ${kind === 'close' && html`<label>Status <input type="number" min="0" max="65535" required value=${status} onInput=${(event) => setStatus(event.target.value)} /></label>`}
      <label class="wide">${label}
        <textarea rows=${kind === 'text' || kind === 'binary' ? 3 : 1} spellcheck=${false} value=${body} onInput=${(event) => setBodies({ ...bodies, [kind]: event.target.value })}
          onKeyDown=${(event) => { if (event.key === 'Enter' && event.ctrlKey) send(event); }}></textarea>
      </label>
      <${Button} class="primary" disabled=${!open}>Send<//>
      <span class="faint">${open ? 'Ctrl+Enter sends too' : 'Only an open tunnel takes frames.'}</span>
      ${outcome}
    </form>`;
}

const PINGS = 10;
const PING_PAUSE = 200;

function RoundTrips({ tunnel }) {
  const [run, outcome] = useCommand();
  const [busy, setBusy] = useState(false);
  const measure = async () => {
    setBusy(true);
    for (let i = 1; i <= PINGS; i++) {
      if (!await run('ping', { tunnel: tunnel.id, text: `round trip ${i} of ${PINGS}` }, `Ping ${i} of ${PINGS} is sent.`)) break;
      await new Promise((resolve) => setTimeout(resolve, PING_PAUSE));
    }
    setBusy(false);
  };
  const { trips } = tunnel;
  const sorted = [...trips].sort((a, b) => a - b);
  return html`
    <div class="trips">
      <${Spark} values=${trips} width=${240} height=${56} label="Round trips in their order" />
      ${trips.length > 0 && html`
        <dl class="facts">
          <div><dt>last</dt><dd>${milliseconds(trips.at(-1))}</dd></div>
          <div><dt>shortest</dt><dd>${milliseconds(sorted[0])}</dd></div>
          <div><dt>median</dt><dd>${milliseconds(sorted[Math.floor(sorted.length / 2)])}</dd></div>
          <div><dt>longest</dt><dd>${milliseconds(sorted.at(-1))}</dd></div>
        </dl>`}
      <${Button} onClick=${measure} disabled=${busy || tunnel.state !== 'open'}>Measure ${PINGS} round trips<//>
      ${outcome}
    </div>`;
}

function Details({ id }) {
  const { tunnels, watched } = useStore(8);
  useClock();
  const [run, outcome] = useCommand();
  useEffect(() => { store.watch(id); return () => store.watch(0); }, [id]);
  const tunnel = tunnels.get(id);
  if (!tunnel) return html`<${Empty}>There is no tunnel #${id}, or it ended long ago.<//>`;
  if (watched?.id !== id) return html`<${Empty}>Loading…<//>`;
  const newer = tunnel.state === 'ended' && tunnel.model && [...tunnels.values()].filter((other) => other.model === tunnel.model && other.id > id).at(-1);
  return html`
    <dl class="tiles">
      <div><dt>Model</dt><dd>${modelName(tunnel)}</dd></div>
      <div><dt>State</dt><dd><${State} name=${tunnel.state} /> <small>for ${duration(Math.max(0, store.now() - tunnel.since))}</small></dd></div>
      <div><dt>Sent to the module</dt><dd>${count(tunnel.sent[0], 'message')} <small>${bytes(tunnel.sent[1])}</small></dd></div>
      <div><dt>Received</dt><dd>${count(tunnel.received[0], 'message')} <small>${bytes(tunnel.received[1])}</small></dd></div>
      ${tunnel.cause && html`<div class="wide"><dt>Cause of the end</dt><dd class="cause">${tunnel.cause}</dd></div>`}
      ${newer && html`<div class="wide"><dt>Newest tunnel of this model</dt><dd><a href=${`#tunnel/${newer.id}`}>#${newer.id}</a> <${State} name=${newer.state} /></dd></div>`}
    </dl>
    <section class="card"><h2>Set-up</h2><${Waterfall} steps=${watched.steps} /></section>
    <div class="pair">
      <section class="card"><h2>Compose</h2><${Compose} tunnel=${tunnel} /></section>
      <section class="card"><h2>Round trip</h2><${RoundTrips} tunnel=${tunnel} />
        <h2>End</h2>
        <div class="bar">
          <${Button} class="danger" disabled=${tunnel.state === 'ended'} onClick=${() => run('drop', { tunnel: id }, 'The connection is reset.')}>Reset the connection<//>
          ${outcome}
        </div>
      </section>
    </div>
    <section class="card"><h2>Frames</h2><${Frames} watched=${watched} /></section>`;
}

export function Tunnel({ argument }) {
  const { tunnels } = useStore(1);
  const id = Number(argument) || 0;
  return html`
    ${tunnels.size > 0 && html`<div class="bar"><${Chooser} current=${id || null} /></div>`}
    ${id
      ? html`<${Details} key=${id} id=${id} />`
      : html`<${Empty}>${tunnels.size ? 'Choose a tunnel above, or in the overview.' : 'No tunnel yet. One comes up when a module process starts.'}<//>`}`;
}
