// Every event in its order.
import { html, useEffect, useMemo, useRef, useState } from './vendor/preact.js';
import { Empty, VirtualRows, useStore } from './parts.js';
import { count, moment, visible } from './format.js';
import { store } from './store.js';

const HEIGHT = 26;

export function Timeline() {
  const { events, eventsSkipped } = useStore(5);
  const [filter, setFilter] = useState('');
  const [source, setSource] = useState('');
  const [held, setHeld] = useState(null);  // the events as they were when the user paused
  useEffect(() => { store.follow(true); return () => store.follow(false); }, []);
  const all = held ?? events;
  const sources = useMemo(() => [...new Set(all.map(([, from]) => from.replace(/ .*/, '')))].sort(), [all]);
  const shown = useMemo(() => {
    const wanted = filter.toLowerCase();
    return all.filter(([, from, text]) => (!source || from.startsWith(source)) && (!wanted || `${from} ${text}`.toLowerCase().includes(wanted)));
  }, [all, filter, source]);
  return html`
    <div class="bar">
      <button aria-pressed=${held !== null} onClick=${() => setHeld(held ? null : events)}>${held ? 'Go on' : 'Pause'}</button>
      <label>Filter <input type="search" value=${filter} onInput=${(event) => setFilter(event.target.value)} /></label>
      <label>Source
        <select value=${source} onChange=${(event) => setSource(event.target.value)}>
          <option value="">all</option>${sources.map((name) => html`<option value=${name}>${name}</option>`)}
        </select>
      </label>
      <a href=${`/recording${location.search}`} download>Download the session as a recording</a>
      <span class="faint">${held ? 'paused; ' : ''}${count(shown.length, 'event')}${eventsSkipped > 0 ? `, ${eventsSkipped.toLocaleString('en')} left out` : ''}</span>
    </div>
    <p class="faint">These are the newest events. The recording has the whole session up to now, whatever is shown here: <code>cloudtunnel-sim --replay</code> plays it.</p>
    ${shown.length === 0
      ? html`<${Empty}>${all.length ? 'No event matches.' : 'Nothing has happened yet.'}<//>`
      : html`<${VirtualRows} role="log" aria-live="off" tabindex="0" aria-label="Events" className="events" rows=${shown} height=${HEIGHT} follow=${!held}
          render=${([time, from, text], index) => html`
            <div class="row event" key=${index} style=${{ height: `${HEIGHT}px` }} title=${visible(text)}>
              <span class="e-time">${moment(time)} s</span><span>${from}</span><span>${visible(text)}</span>
            </div>`} />`}`;
}
