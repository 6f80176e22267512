// The parts that several views share.
import { html, useEffect, useLayoutEffect, useReducer, useRef, useState } from './vendor/preact.js';
import { store } from './store.js';

// useStore has a view drawn again when the store changes, `perSecond` times a second at most.
export function useStore(perSecond = 10) {
  const [, redraw] = useReducer((n) => n + 1, 0);
  useEffect(() => {
    let timer = 0;
    const unsubscribe = store.subscribe(() => {
      if (timer) return;
      timer = setTimeout(() => { timer = 0; redraw(); }, 1000 / perSecond);
    });
    redraw();
    return () => { unsubscribe(); clearTimeout(timer); };
  }, []);
  return store;
}

// useClock has a view that shows how long something has lasted drawn again each second.
export function useClock() {
  const [, redraw] = useReducer((n) => n + 1, 0);
  useEffect(() => {
    const timer = setInterval(redraw, 1000);
    return () => clearInterval(timer);
  }, []);
}

export function useNarrow(width) {
  const query = `(max-width: ${width}px)`;
  const [narrow, setNarrow] = useState(() => matchMedia(query).matches);
  useEffect(() => {
    const list = matchMedia(query);
    const listen = () => setNarrow(list.matches);
    list.addEventListener('change', listen);
    return () => list.removeEventListener('change', listen);
  }, [query]);
  return narrow;
}

// useSelection has one of the rows selected by a click or by keys; Escape selects none.
export function useSelection(rows) {
  const [selected, select] = useState(null);
  const at = rows.indexOf(selected);
  const onKeyDown = (event) => {
    const last = rows.length - 1;
    const steps = { ArrowDown: 1, ArrowUp: -1, PageDown: 10, PageUp: -10, Home: -last, End: last };
    if (event.key === 'Escape') select(null);
    if (!(event.key in steps) || last < 0) return;
    event.preventDefault();
    const next = at < 0 && event.key !== 'Home' ? last : at + steps[event.key];
    select(rows[Math.max(0, Math.min(last, next))]);
  };
  return { at, select, onKeyDown };
}

// Rows of one height, of which only those in view exist. `follow` keeps the end in view while the user stays there.
export function VirtualRows({ rows, height, render, follow = false, show, className = '', ...attributes }) {
  const box = useRef(null);
  const atEnd = useRef(true);
  const following = useRef(follow);
  following.current = follow;
  const [view, setView] = useState({ top: 0, height: 600 });
  const look = () => {
    const { scrollTop, clientHeight, scrollHeight } = box.current;
    atEnd.current = scrollTop + clientHeight >= scrollHeight - 2;
    setView({ top: scrollTop, height: clientHeight });
  };
  useEffect(() => {
    const observer = new ResizeObserver(() => {  // a list that was at its end stays there
      if (following.current && atEnd.current) box.current.scrollTop = box.current.scrollHeight;
      look();
    });
    observer.observe(box.current);
    return () => observer.disconnect();
  }, []);
  useLayoutEffect(() => {
    if (follow && atEnd.current) box.current.scrollTop = box.current.scrollHeight;
  }, [rows, follow]);
  useLayoutEffect(() => {  // brings the row number `show` into view
    if (show === undefined || show < 0) return;
    const top = show * height;
    if (top < box.current.scrollTop) box.current.scrollTop = top;
    else if (top + height > box.current.scrollTop + box.current.clientHeight) {
      box.current.scrollTop = top + height - box.current.clientHeight;
    }
  }, [show]);

  const EXTRA = 5;
  const first = Math.max(0, Math.min(Math.floor(view.top / height) - EXTRA, rows.length));
  const last = Math.min(rows.length, Math.ceil((view.top + view.height) / height) + EXTRA);
  return html`
    <div class=${`rows ${className}`} ref=${box} onScroll=${look} ...${attributes}>
      <div class="spacer" role="presentation" style=${{ height: `${first * height}px` }}></div>
      ${rows.slice(first, last).map((row, i) => render(row, first + i))}
      <div class="spacer" role="presentation" style=${{ height: `${(rows.length - last) * height}px` }}></div>
    </div>`;
}

// A small plot of numbers in their order, without axes: the label says what it shows.
export function Spark({ values, label, width = 96, height = 24 }) {
  if (!values.length) return html`<span class="faint">none measured yet</span>`;
  const most = Math.max(...values, 1e-6);
  const step = values.length > 1 ? (width - 2) / (values.length - 1) : 0;
  const points = values.map((value, i) => `${(1 + i * step).toFixed(1)},${(height - 2 - (value / most) * (height - 4)).toFixed(1)}`);
  return html`
    <svg class="spark" role="img" aria-label=${label} width=${width} height=${height} viewBox=${`0 0 ${width} ${height}`}>
      ${values.length > 1
        ? html`<polyline points=${points.join(' ')} />`
        : html`<circle cx="3" cy=${points[0].split(',')[1]} r="2" />`}
    </svg>`;
}

// A button that keeps the focus when it has no effect any more, often because it was pressed.
export function Button({ disabled = false, onClick, children, ...attributes }) {
  const press = (event) => {
    if (disabled) event.preventDefault();
    else onClick?.(event);
  };
  return html`<button aria-disabled=${disabled ? 'true' : undefined} onClick=${press} ...${attributes}>${children}</button>`;
}

// A button or form that asks the simulator for something, and says what became of it.
export function useCommand() {
  const [outcome, setOutcome] = useState(null);
  const run = async (name, fields, done) => {
    setOutcome({ busy: true, text: 'Waiting for the simulator…' });
    try {
      await store.command(name, fields);
      setOutcome({ text: done });
      return true;
    } catch (error) {
      setOutcome({ failed: true, text: error.message });
      return false;
    }
  };
  const said = html`<p class=${`outcome ${outcome?.failed ? 'bad' : ''}`} role="status">${outcome?.text ?? ''}</p>`;
  return [run, said];
}

export function State({ name, label = name }) {
  return html`<span class=${`state ${name.replace(' ', '-')}`}>${label}</span>`;
}

export function Empty({ children }) {
  return html`<p class="empty">${children}</p>`;
}
