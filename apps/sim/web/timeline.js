// Every event in its order.
import { html, useEffect, useMemo, useState } from './vendor/preact.js';
import { Empty, VirtualRows, useNarrow, useSelection, useStore } from './parts.js';
import { count, moment, visible } from './format.js';
import { store } from './store.js';

// An event in full: its row may be too short for it.
function Detail({ event: [time, from, text] }) {
  return html`
    <section class="payload" aria-label="Selected event">
      <p>${from} at ${moment(time)} s <span class="faint">Escape in the list selects none</span></p>
      <pre tabindex="0">${visible(text)}</pre>
    </section>`;
}

export function Timeline() {
  const { events, eventsSkipped } = useStore(5);
  const [filter, setFilter] = useState('');
  const [source, setSource] = useState('');
  const [held, setHeld] = useState(null);  // the events as they were when the user paused
  useEffect(() => { store.follow(true); return () => store.follow(false); }, []);
  const height = useNarrow(600) ? 46 : 26;
  const all = held ?? events;
  const sources = useMemo(() => [...new Set(all.map(([, from]) => from.replace(/ .*/, '')))].sort(), [all]);
  const shown = useMemo(() => {
    const wanted = filter.toLowerCase();
    return all.filter(([, from, text]) => (!source || from.startsWith(source)) && (!wanted || `${from} ${text}`.toLowerCase().includes(wanted)));
  }, [all, filter, source]);
  const { at, select, onKeyDown } = useSelection(shown);
  return html`
    <div class="bar">
      <button onClick=${() => setHeld(held ? null : events)}>${held ? 'Go on' : 'Pause'}</button>
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
      : html`<${VirtualRows} role="listbox" tabindex="0" aria-label="Events" className="events" rows=${shown} height=${height} follow=${!held && at < 0}
          show=${at} onKeyDown=${onKeyDown} aria-activedescendant=${at < 0 ? undefined : `event-${at}`}
          render=${([time, from, text], index) => html`
            <div class="row event" key=${index} id=${`event-${index}`} role="option" aria-selected=${index === at} aria-setsize=${shown.length} aria-posinset=${index + 1}
              onClick=${() => select(shown[index])} style=${{ height: `${height}px` }}>
              <span class="e-time">${moment(time)} s</span><span>${from}</span><span class="e-text">${visible(text)}</span>
            </div>`} />
        ${at >= 0 && html`<${Detail} event=${shown[at]} />`}`}`;
}
