// Light or dark: as the system has it, or as the user has chosen. The browser keeps the choice.
import { html, useState } from './vendor/preact.js';

const KEY = 'cloudtunnel-sim theme';
const THEMES = ['system', 'light', 'dark'];

// Storage can be switched off in a browser: then the choice lasts as long as the page.
function kept() {
  try {
    const theme = localStorage.getItem(KEY);
    return THEMES.includes(theme) ? theme : 'system';
  } catch {
    return 'system';
  }
}

let chosen = kept();

// The style sheet has both colours of everything, and takes those of the colour scheme.
function show() { document.documentElement.style.colorScheme = chosen === 'system' ? '' : chosen; }

show();

export function Theme() {
  const [theme, setTheme] = useState(chosen);
  const choose = (name) => {
    chosen = name;
    setTheme(name);
    show();
    try {
      localStorage.setItem(KEY, name);
    } catch {
      // It is not kept.
    }
  };
  return html`
    <label class="theme"><span class="theme-word">Colours</span>
      <select value=${theme} onChange=${(event) => choose(event.target.value)}>
        ${THEMES.map((name) => html`<option value=${name}>${name}</option>`)}
      </select>
    </label>`;
}
