// Every tunnel, and every model that has none.
import { html, useState } from './vendor/preact.js';
import { Empty, Spark, State, VirtualRows, useClock, useNarrow, useStore } from './parts.js';
import { bytes, count, duration, milliseconds, modelName, visible } from './format.js';

const byName = new Intl.Collator('en', { numeric: true });

// One row for each tunnel that lives, and one for each model without: its last tunnel, or none yet. Tunnels that ended
// before they named a model share a row.
function rowsOf({ tunnels, models }) {
  const rows = [];
  const alive = new Set();
  const last = new Map();
  for (const tunnel of tunnels.values()) {
    if (tunnel.state === 'ended') {
      last.set(tunnel.model, tunnel);
    } else {
      alive.add(tunnel.model);
      rows.push({ key: `t${tunnel.id}`, model: tunnel.model, tunnel, previous: null });
    }
  }
  for (const row of rows) row.previous = last.get(row.model);
  for (const model of new Set([...models.map(({ name }) => name), ...last.keys()])) {
    if (!alive.has(model)) rows.push({ key: `m${model}`, model, tunnel: last.get(model) ?? null });
  }
  return rows.sort((a, b) => byName.compare(a.model, b.model) || (a.tunnel?.id ?? 0) - (b.tunnel?.id ?? 0));
}

function roundTrips(values) {
  if (!values.length) return 'Round trip: none measured yet';
  return `Round trip: last ${milliseconds(values.at(-1))}, longest ${milliseconds(Math.max(...values))} of ${values.length}`;
}

function Row({ row, index, height, now }) {
  const { tunnel, model } = row;
  const name = tunnel ? modelName(tunnel) : visible(model) || '(empty)';
  const cause = tunnel?.cause || row.previous?.cause || '';
  return html`
    <div class="row tunnel-row" role="row" aria-rowindex=${index + 2} style=${{ height: `${height}px` }}>
      <span role="cell" class="c-model">
        ${tunnel
          ? html`<a href=${`#tunnel/${tunnel.id}`} title=${name}><span class="c-name">${name}</span> <span class="faint">#${tunnel.id}</span></a>`
          : html`<span class="c-name" title=${name}>${name}</span>`}
      </span>
      <span role="cell" class="c-state"><${State} name=${tunnel?.state ?? 'no tunnel'} /></span>
      <span role="cell" class="c-since">${tunnel ? html`<span class="narrow-only">for </span>${duration(Math.max(0, now - tunnel.since))}` : ''}</span>
      <span role="cell" class="c-out">${tunnel ? html`<span class="narrow-only" aria-hidden="true">→ </span>${count(tunnel.sent[0], 'msg', 'msg')} <span class="faint">${bytes(tunnel.sent[1])}</span>` : ''}</span>
      <span role="cell" class="c-in">${tunnel ? html`<span class="narrow-only" aria-hidden="true">← </span>${count(tunnel.received[0], 'msg', 'msg')} <span class="faint">${bytes(tunnel.received[1])}</span>` : ''}</span>
      <span role="cell" class="c-rtt">${tunnel?.trips.length
        ? html`<${Spark} values=${tunnel.trips} label=${roundTrips(tunnel.trips)} width=${72} /> ${milliseconds(tunnel.trips.at(-1))}`
        : ''}</span>
      <span role="cell" class="c-cause" title=${cause}>${cause}</span>
    </div>`;
}

const SPANS = 60;  // of time, at most: as many as the simulator keeps

// Set-ups and failures, a pair of bars for each span of time.
function History({ history, span }) {
  if (!history.length) return null;
  const most = Math.max(1, ...history.flat());
  const [setups, failures] = history.reduce(([a, b], [x, y]) => [a + x, b + y], [0, 0]);
  const WIDTH = 8;
  const HEIGHT = 56;
  const bar = (value, at, kind) => value > 0 && html`
    <rect class=${kind} x=${at} width="3" y=${HEIGHT - (value / most) * (HEIGHT - 4)} height=${(value / most) * (HEIGHT - 4)} />`;
  const width = SPANS * WIDTH;
  const first = width - history.length * WIDTH;  // the newest is at the right end, wherever the history began
  return html`
    <figure class="history">
      <svg role="img" viewBox=${`0 0 ${width} ${HEIGHT}`} width=${width} height=${HEIGHT}
        aria-label=${`Over the last ${duration(history.length * span)}: ${count(setups, 'set-up')} done, ${failures.toLocaleString('en')} failed`}>
        <line x1="0" x2=${width} y1=${HEIGHT - 0.5} y2=${HEIGHT - 0.5} />
        ${history.map(([made, failed], i) => html`${bar(made, first + i * WIDTH, 'made')}${bar(failed, first + i * WIDTH + 4, 'failed')}`)}
      </svg>
      <figcaption>
        <span class="key made"></span>set-ups done and <span class="key failed"></span>failed, every ${duration(span)} of the last ${duration(SPANS * span)}; ${setups + failures ? `the highest bar is ${most}` : 'there was none'}
      </figcaption>
    </figure>`;
}

export function Overview() {
  const store = useStore(4);
  useClock();
  const [filter, setFilter] = useState('');
  const narrow = useNarrow(900);
  const all = rowsOf(store);
  const wanted = filter.toLowerCase();
  const rows = wanted
    ? all.filter(({ model, tunnel }) => `${model} #${tunnel?.id ?? ''} ${tunnel?.state ?? 'no tunnel'}`.toLowerCase().includes(wanted))
    : all;
  const open = [...store.tunnels.values()].filter(({ state }) => state === 'open').length;
  const { counts } = store;
  const height = narrow ? 118 : 40;
  const now = store.now();
  return html`
    <dl class="tiles">
      <div><dt>Open tunnels</dt><dd>${open}</dd></div>
      <div><dt>Models known to the daemon</dt><dd>${store.models.length}</dd></div>
      <div><dt>Set-ups done</dt><dd>${counts.setups}</dd></div>
      <div><dt>Set-ups failed</dt><dd class=${counts.failures ? 'bad' : ''}>${counts.failures}</dd></div>
      <div><dt>Faults switched on</dt><dd><a href="#faults">${store.activeFaults.length}<span class="unseen"> faults, to the faults</span></a></dd></div>
    </dl>
    <${History} history=${counts.history} span=${counts.span} />
    <div class="bar">
      <label>Find a model or state <input type="search" value=${filter} onInput=${(event) => setFilter(event.target.value)} /></label>
      <span class="faint">${count(rows.length, 'row')}</span>
    </div>
    ${all.length === 0
      ? html`<${Empty}>No module has registered yet. Start one, for example <code>cloudtunnel-module --model base</code>.<//>`
      : rows.length === 0
        ? html`<${Empty}>Nothing matches “${filter}”.<//>`
        : html`
          <div class="table" role="table" aria-label="Tunnels" aria-rowcount=${rows.length + 1}>
            <div role="rowgroup"><div class="row tunnel-row head" role="row" aria-rowindex="1">
              <span role="columnheader" class="c-model">Model</span>
              <span role="columnheader" class="c-state">State</span>
              <span role="columnheader" class="c-since">For</span>
              <span role="columnheader" class="c-out">Sent to the module</span>
              <span role="columnheader" class="c-in">Received</span>
              <span role="columnheader" class="c-rtt">Round trip</span>
              <span role="columnheader" class="c-cause">Cause of the last end</span>
            </div></div>
            <${VirtualRows} role="rowgroup" tabindex="0" aria-label="Tunnels" rows=${rows} height=${height} className="tall"
              render=${(row, index) => html`<${Row} key=${row.key} row=${row} index=${index} height=${height} now=${now} />`} />
          </div>`}`;
}
