// Numbers with their units, and bytes as people read them.

const decoder = new TextDecoder('utf-8', { fatal: true });

export function bytes(count) {
  if (count < 1024) return `${count} B`;
  for (const unit of ['KiB', 'MiB', 'GiB']) {
    count /= 1024;
    if (count < 1024 || unit === 'GiB') return `${count.toFixed(count < 10 ? 1 : 0)} ${unit}`;
  }
}

export function milliseconds(time) {
  if (time < 1) return `${(time * 1000).toFixed(0)} µs`;
  if (time < 1000) return `${time.toFixed(time < 10 ? 2 : 0)} ms`;
  return duration(time);
}

export function duration(time) {
  const seconds = time / 1000;
  if (seconds < 10) return `${seconds.toFixed(1)} s`;
  if (seconds < 60) return `${seconds.toFixed(0)} s`;
  if (seconds < 3600) return `${Math.floor(seconds / 60)} min${seconds % 60 < 1 ? '' : ` ${Math.floor(seconds % 60)} s`}`;
  return `${Math.floor(seconds / 3600)} h ${Math.floor((seconds % 3600) / 60)} min`;
}

// A moment, as the timeline prints it: seconds since the simulator's start.
export function moment(time) {
  return (time / 1000).toFixed(3);
}

export function count(number, one, many = `${one}s`) {
  return `${number.toLocaleString('en')} ${number === 1 ? one : many}`;
}

// text is the bytes as UTF-8, or null where they are none. Those of which more follows may end inside a character.
export function text(data, moreFollows = false) {
  const cutMost = moreFollows ? Math.min(3, data.length - 1) : 0;
  for (let cut = 0; cut <= cutMost; cut++) {
    try {
      return decoder.decode(data.subarray(0, data.length - cut));
    } catch {
      // try without the last byte
    }
  }
  return null;
}

// visible shows control characters and those that turn or hide text by their numbers, so that no payload can disguise
// what it is.
export function visible(string) {
  return string.replace(/[\u0000-\u0008\u000b-\u001f\u007f-\u009f\u00ad\u200b-\u200f\u2028-\u202e\u2060-\u2069\ufeff]/g,
    (c) => `\\u${c.charCodeAt(0).toString(16).padStart(4, '0')}`);
}

// A tunnel has a model from its registration on.
export function modelName({ model, state }) {
  return visible(model) || (state === 'ended' ? '(no model named)' : '(no model yet)');
}

export function hexDump(data) {
  const lines = [];
  for (let at = 0; at < data.length; at += 16) {
    const row = data.subarray(at, at + 16);
    const hex = Array.from(row, (byte) => byte.toString(16).padStart(2, '0')).join(' ');
    const letters = Array.from(row, (byte) => (byte >= 32 && byte < 127 ? String.fromCharCode(byte) : '.')).join('');
    lines.push(`${at.toString(16).padStart(6, '0')}  ${hex.padEnd(47)}  ${letters}`);
  }
  return lines.join('\n');
}

export function prettyJson(string) {
  try {
    const value = JSON.parse(string);
    return typeof value === 'object' && value !== null ? JSON.stringify(value, null, 2) : null;
  } catch {
    return null;
  }
}

// prettyCutJson lays out the beginning of a JSON text, or is null where the text begins as none. It adds blanks only.
export function prettyCutJson(string) {
  if (!/^\s*(\{\s*"|\[\s*["[{\d-])/.test(string)) return null;
  let depth = 0;
  const line = () => `\n${'  '.repeat(Math.max(0, depth))}`;
  return string.trimStart().replace(/("(?:[^"\\]|\\[^])*(?:"|$))|\s+|[{[]|[}\]]|,|:/g, (token, quoted) => {
    if (quoted) return quoted;
    if (token === '{' || token === '[') return depth++, token + line();
    if (token === '}' || token === ']') return depth--, line() + token;
    if (token === ',') return token + line();
    return token === ':' ? ': ' : '';
  });
}
