// The daemon: the module processes on its socket, and the tunnel data that it hands out.
import { html, useState } from './vendor/preact.js';
import { Empty, State, useCommand, useStore } from './parts.js';

function Modules({ models, running }) {
  const [run, outcome] = useCommand();
  if (!models.length) return html`<${Empty}>No module process has registered.<//>`;
  const notify = (model, notice, done) => run('notify', { model, notice }, done);
  return html`
    <table class="plain">
      <thead><tr><th scope="col">Model</th><th scope="col">Link</th><th scope="col">Send it</th></tr></thead>
      <tbody>${models.map(({ name, link }) => html`
        <tr key=${`${link} ${name}`}><td>${name || '(empty)'}</td><td>${link}</td>
          <td class="bar">
            <button disabled=${!running} onClick=${() => notify(name, 'tunnel-data', `The tunnel data is queued for ${name}.`)}>tunnel data<span class="unseen"> to ${name}</span></button>
            <button disabled=${!running} onClick=${() => notify(name, 'closed', `The notice is queued for ${name}.`)}>tunnel closed<span class="unseen"> to ${name}</span></button>
            <button disabled=${!running} onClick=${() => notify(name, 'third', `The notice is queued for ${name}.`)}>third notice<span class="unseen"> to ${name}</span></button>
          </td></tr>`)}
      </tbody>
    </table>${outcome}`;
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
        <label key=${name}>${label} <input type=${type ?? 'text'} ...${limits} value=${edited[name] ?? data[name]} spellcheck="false"
          onInput=${(event) => setEdited({ ...edited, [name]: type === 'number' ? Number(event.target.value) : event.target.value })} /></label>`)}
      <button class="primary" disabled=${Object.keys(edited).length === 0}>Change</button>
      <button type="button" disabled=${Object.keys(edited).length === 0} onClick=${() => setEdited({})}>Discard</button>
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
      <p><${State} name=${running ? 'open' : 'ended'} /> ${running ? 'listening on' : 'not listening on'} <code>${path}</code></p>
      <div class="bar">
        <button onClick=${() => run('daemon', { action: 'restart' }, 'The daemon has restarted.')} disabled=${!running}>Restart</button>
        <button onClick=${() => run('daemon', { action: 'stop' }, 'The daemon has stopped.')} disabled=${!running}>Stop</button>
        <button onClick=${() => run('daemon', { action: 'start' }, 'The daemon has started.')} disabled=${running}>Start</button>
        ${outcome}
      </div>
    </section>
    <section class="card"><h2>Modules</h2><${Modules} models=${models} running=${running} /></section>
    <section class="card"><h2>Tunnel data</h2><${TunnelData} data=${daemon.data} /></section>`;
}
