// The daemon: the module processes on its socket, and the tunnel data that it hands out.
import { html, useState } from './vendor/preact.js';
import { Button, Empty, State, VirtualRows, useCommand, useNarrow, useStore } from './parts.js';
import { visible } from './format.js';

const NOTICES = [
  { notice: 'tunnel-data', label: 'tunnel data' },
  { notice: 'closed', label: 'tunnel closed' },
  { notice: 'third', label: 'third notice' },
];

function Modules({ models, running }) {
  const [run, outcome] = useCommand();
  const height = useNarrow(600) ? 118 : 46;
  if (!models.length) return html`<${Empty}>${running ? 'No module process has registered.' : 'No module process can register while the daemon is stopped.'}<//>`;
  return html`
    <div role="table" aria-label="Modules" aria-rowcount=${models.length + 1}>
      <div role="rowgroup"><div class="row module head" role="row" aria-rowindex="1">
        <span role="columnheader">Model</span><span role="columnheader">Link</span><span role="columnheader" class="m-send">Send</span>
      </div></div>
      <${VirtualRows} role="rowgroup" tabindex="0" aria-label="Modules" rows=${models} height=${height}
        render=${({ name, link }, index) => html`
          <div class="row module" role="row" key=${`${link} ${name}`} aria-rowindex=${index + 2} style=${{ height: `${height}px` }}>
            <span role="cell" title=${name}>${visible(name) || '(empty)'}</span><span role="cell">${link}</span>
            <span role="cell" class="buttons">${NOTICES.map(({ notice, label }) => html`
              <${Button} disabled=${!running} onClick=${() => run('notify', { model: name, notice }, `“${label}” is on its way to ${visible(name)}.`)}>
                ${label}<span class="unseen"> to ${visible(name)}</span><//>`)}
            </span>
          </div>`} />
    </div>${outcome}`;
}

const FIELDS = [
  { name: 'host', label: 'Host' },
  { name: 'port', label: 'Port', type: 'number', min: 0, max: 65535 },
  { name: 'path', label: 'Path' },
  { name: 'token', label: 'Token' },
  { name: 'cookie', label: 'Cookie' },
  { name: 'tunnelValue', label: 'Tunnel value', type: 'number', min: 0, max: 4294967295 },
];

function TunnelData({ data }) {
  const [edited, setEdited] = useState({});
  const [run, outcome] = useCommand();
  const save = async (event) => {
    event.preventDefault();
    if (await run('tunnel-data', { ...data, ...edited }, 'The tunnel data is changed: the next notification has it.')) setEdited({});
  };
  return html`
    <form onSubmit=${save} aria-label="Tunnel data">
      ${FIELDS.map(({ name, label, type, ...limits }) => html`
        <label key=${name}>${label} <input type=${type ?? 'text'} ...${limits} value=${edited[name] ?? data[name]} spellcheck=${false}
          onInput=${(event) => setEdited({ ...edited, [name]: type === 'number' ? Number(event.target.value) : event.target.value })} /></label>`)}
      <${Button} class="primary" disabled=${Object.keys(edited).length === 0}>Change<//>
      <${Button} type="button" disabled=${Object.keys(edited).length === 0} onClick=${() => setEdited({})}>Discard<//>
      ${outcome}
    </form>`;
}

export function Daemon() {
  const { daemon, models } = useStore(4);
  const [run, outcome] = useCommand();
  if (!daemon) return html`<${Empty}>There is no daemon: the simulator runs with --no-daemon.<//>`;
  const { running, path } = daemon;
  return html`
    <section class="card">
      <h2>Socket</h2>
      <p><${State} name=${running ? 'open' : 'ended'} label=${running ? 'running' : 'stopped'} /> ${running ? 'listening on' : 'not listening on'} <code>${path}</code></p>
      <div class="bar">
        <${Button} onClick=${() => run('daemon', { action: 'restart' }, 'The daemon has restarted.')} disabled=${!running}>Restart<//>
        <${Button} onClick=${() => run('daemon', { action: 'stop' }, 'The daemon has stopped.')} disabled=${!running}>Stop<//>
        <${Button} onClick=${() => run('daemon', { action: 'start' }, 'The daemon has started.')} disabled=${running}>Start<//>
        ${outcome}
      </div>
    </section>
    <section class="card"><h2>Modules</h2><${Modules} models=${models} running=${running} /></section>
    <section class="card"><h2>Tunnel data</h2><${TunnelData} data=${daemon.data} /></section>`;
}
