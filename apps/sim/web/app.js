// The page: a header, the connection's state, and the view that the address names behind '#'.
import { html, render, useEffect, useRef, useState } from './vendor/preact.js';
import { Daemon } from './daemon.js';
import { Empty, useStore } from './parts.js';
import { Faults } from './faults.js';
import { Overview } from './overview.js';
import { store } from './store.js';
import { Theme } from './theme.js';
import { Timeline } from './timeline.js';
import { Tunnel } from './tunnel.js';

const VIEWS = [
  { path: 'overview', title: 'Overview', view: Overview },
  { path: 'tunnel', title: 'Tunnel', view: Tunnel },
  { path: 'faults', title: 'Faults', view: Faults },
  { path: 'daemon', title: 'Daemon', view: Daemon },
  { path: 'timeline', title: 'Timeline', view: Timeline },
];

function useAddress() {
  const read = () => location.hash.slice(1).split('/');
  const [parts, setParts] = useState(read);
  useEffect(() => {
    const listen = () => setParts(read());
    addEventListener('hashchange', listen);
    return () => removeEventListener('hashchange', listen);
  }, []);
  return parts;
}

function Connection() {
  const { connection, problem, hello } = useStore(4);
  if (connection === 'open') return html`<p class="connection good" role="status">Connected</p>`;
  if (connection === 'connecting') return html`<p class="connection" role="status">Connecting…</p>`;
  return html`<p class="connection bad" role="status">
    ${hello ? 'Connection lost' : 'No connection'}${problem && `: ${problem}`}. Trying again…
  </p>`;
}

function App() {
  const [path, argument] = useAddress();
  const current = VIEWS.find((view) => view.path === path) ?? VIEWS[0];
  const { hello, connection } = useStore(4);
  const main = useRef(null);
  const shown = useRef(`${path}/${argument}`);
  useEffect(() => {
    document.title = `${current.title} – cloudtunnel-sim`;
    if (shown.current === `${path}/${argument}`) return;
    shown.current = `${path}/${argument}`;
    scrollTo(0, 0);
    if (document.activeElement === document.body) main.current.focus();  // the link that led here went with its view
  }, [path, argument]);
  return html`
    <a class="skip" href="#main" onClick=${(event) => { event.preventDefault(); main.current.focus(); }}>
      Skip to the content</a>
    <header>
      <p class="name">cloudtunnel-sim <span class="faint version">${hello?.version ?? ''}</span></p>
      <nav aria-label="Views">
        ${VIEWS.map(({ path, title }) => html`
          <a href=${`#${path}`} aria-current=${path === current.path ? 'page' : undefined}>${title}</a>`)}
      </nav>
      <${Connection} />
      <${Theme} />
    </header>
    <main id="main" tabindex="-1" ref=${main}>
      <h1>${current.title}</h1>
      ${hello && connection === 'lost' && html`
        <p class="notice">${store.refused
          ? 'A simulator answers, and this page\'s token is none of its: open the address that it printed at its start.'
          : 'The simulator does not answer.'} What is shown here is as it was when the connection was lost.</p>`}
      ${hello
        ? html`<${current.view} argument=${argument} />`
        : html`<${Empty}>${connection === 'lost'
            ? 'The simulator does not answer. Does it run, and is this the address that it printed at its start?'
            : 'Loading…'}<//>`}
    </main>`;
}

store.connect();
const root = document.getElementById('app');
root.textContent = '';
render(html`<${App} />`, root);
