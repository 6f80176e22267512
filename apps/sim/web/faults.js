// The table of faults as controls, and what is switched on.
import { html, useEffect, useRef, useState } from './vendor/preact.js';
import { Button, Empty, useCommand, useStore } from './parts.js';

// The line that the simulator reads.
function faultLine(row, fields) {
  const words = [row.name];
  for (const { name } of row.parameters) if (fields[name]) words.push(name, fields[name]);
  for (const name of ['model', 'at', 'to', 'count', 'probability', 'seed']) if (fields[name]) words.push(`${name}=${fields[name]}`);
  return words.join(' ');
}

function Parameter({ parameter, value, set }) {
  const { name, range, optional, choices, help } = parameter;
  return html`
    <label>${name}${help ? `: ${help}` : ''}
      ${choices.length
        ? html`<select value=${value} required=${!optional} onChange=${(event) => set(event.target.value)}>
            <option value="">${optional ? 'as usual' : 'choose…'}</option>${choices.map((choice) => html`<option value=${choice}>${choice}</option>`)}</select>`
        : html`<input value=${value} required=${!optional} spellcheck=${false} onInput=${(event) => set(event.target.value)} />`}
      <small>${choices.length ? '' : range}${optional && !choices.length ? '; may be left out' : ''}</small>
    </label>`;
}

function Controls({ row, models, back }) {
  const [fields, setFields] = useState({});
  const [run, outcome] = useCommand();
  const set = (name) => (value) => setFields({ ...fields, [name]: value });
  const choose = (name, label, first, options) => html`
    <label>${label}
      <select value=${fields[name] ?? ''} onChange=${(event) => set(name)(event.target.value)}>
        <option value="">${first}</option>${options.map((option) => html`<option value=${option.value ?? option}>${option.label ?? option}</option>`)}
      </select>
    </label>`;
  const field = (name, label, attributes) => html`
    <label>${label} <input value=${fields[name] ?? ''} onInput=${(event) => set(name)(event.target.value)} ...${attributes} /></label>`;
  const line = faultLine(row, fields);
  return html`
    <form onSubmit=${(event) => { event.preventDefault(); run('fault', { line }, `${row.name} is switched on.`); }} aria-label=${`Fault ${row.name}`}>
      <p class="wide">${row.help}</p>
      ${row.parameters.map((parameter) => html`<${Parameter} key=${parameter.name} parameter=${parameter} value=${fields[parameter.name] ?? ''} set=${set(parameter.name)} />`)}
      ${choose('model', 'Model', 'all models', models)}
      ${row.stages.length > 0 && choose('at', 'Stage', 'every stage', row.stages)}
      ${row.directed && choose('to', 'Direction', 'both', [{ value: 'module', label: 'to the module' }, { value: 'platform', label: 'to the platform' }])}
      ${field('count', 'First connections only (all if empty)', { type: 'number', min: 1 })}
      ${field('probability', 'Probability (100% if empty)', { placeholder: '100%' })}
      ${field('seed', 'Seed (1 if empty)', { type: 'number', min: 0 })}
      <p class="wide">The same as the step <code>fault ${line}</code></p>
      <button class="primary">Switch on</button>
      <button type="button" onClick=${back}>Choose another</button>
      ${outcome}
    </form>`;
}

function Active({ active }) {
  const [run, outcome] = useCommand();
  const heading = useRef(null);
  // The button that was pressed goes with its row: the focus goes on at the top of the list.
  const off = async (name, done) => { if (await run('fault-off', { name }, done)) heading.current.focus(); };
  const all = (name) => (active.filter((other) => other.name === name && !other.held).length > 1 ? 'all ' : '');
  return html`
    <h2 tabindex="-1" ref=${heading}>Switched on</h2>
    ${active.length === 0 && html`<${Empty}>No fault is switched on.<//>`}
    ${active.length > 0 && html`
      <table class="plain">
        <thead><tr><th scope="col">Fault</th><th scope="col">Connections that met it</th><th scope="col">Switch off</th></tr></thead>
        <tbody>${active.map(({ line, name, applied, held }) => html`
          <tr key=${line}><td><code>${line}</code></td><td>${applied}</td>
            <td>${held
              ? 'by the option or the step that set it'
              : html`<button onClick=${() => off(name, `${name} is switched off.`)}>Switch ${all(name)}off<span class="unseen"> ${name}</span></button>`}</td></tr>`)}
        </tbody>
      </table>`}
    <div class="bar">
      ${active.some(({ held }) => !held) && html`<button onClick=${() => off('', 'Every fault is switched off.')}>Switch all off</button>`}
      ${outcome}
    </div>`;
}

export function Faults() {
  const { hello, activeFaults, models } = useStore(4);
  const [chosen, setChosen] = useState(null);
  const [filter, setFilter] = useState('');
  const table = hello.faults;
  const shown = table.filter(({ name, help, family }) => `${family} ${name} ${help}`.toLowerCase().includes(filter.toLowerCase()));
  const row = table.find(({ name }) => name === chosen);
  const heading = useRef(null);
  const find = useRef(null);
  const list = useRef(null);
  useEffect(() => { if (chosen) heading.current.focus(); }, [chosen]);
  const back = () => (list.current.querySelector('[aria-pressed=true]') ?? find.current).focus();
  const families = [...new Set(shown.map(({ family }) => family))];
  return html`
    <section class="card"><${Active} active=${activeFaults} /></section>
    <section class="card faults">
      <div ref=${list}>
        <h2>All faults</h2>
        <div class="bar"><label>Find <input type="search" ref=${find} value=${filter} onInput=${(event) => setFilter(event.target.value)} /></label></div>
        ${families.length === 0 && html`<${Empty}>No fault matches.<//>`}
        ${families.map((family) => html`
          <h3 class="faint" key=${family}>${family}</h3>
          <ul class="names">${shown.filter((fault) => fault.family === family).map(({ name, help }) => html`
            <li key=${name}><button aria-pressed=${name === chosen} onClick=${() => setChosen(name)} title=${help}>${name}</button></li>`)}</ul>`)}
      </div>
      <div class="chosen">
        <h2 tabindex="-1" ref=${heading}>${row ? row.name : 'Parameters'}</h2>
        ${row ? html`<${Controls} key=${row.name} row=${row} models=${models.map(({ name }) => name)} back=${back} />` : html`<${Empty}>Choose a fault.<//>`}
      </div>
    </section>`;
}
