// The log: the newest lines from the instrument's memory, then live; by level, searched, saved.
import { Card, Choice } from './parts.js';
import { follow, get } from './ask.js';
import { html, useEffect, useRef, useState } from './preact.js';
import { state } from './store.js';
import { texts } from './texts.js';

const MOST = 1000;
const stamp = (ms) => new Date(ms).toISOString().replace('T', ' ').replace('Z', '');
const asText = (line) => `${stamp(line.time)} ${line.level} ${line.channel} ${line.text}`;

function save(lines) {
  const address = URL.createObjectURL(new Blob([lines.map((line) => asText(line) + '\n').join('')], { type: 'text/plain' }));
  const link = Object.assign(document.createElement('a'), { href: address, download: `log-${state.status?.device?.serialNumber ?? 'instrument'}.txt` });
  link.click();
  setTimeout(() => URL.revokeObjectURL(address), 60000);
}

// Live lines beside those that were asked for; each has a number, and is shown once.
function useLines(live) {
  const [lines, setLines] = useState([]);
  const add = (more) => setLines((known) => {
    const byNumber = new Map([...known, ...more].map((line) => [line.number, line]));
    return [...byNumber.values()].sort((a, b) => a.number - b.number).slice(-MOST);
  });
  useEffect(() => {
    const end = new AbortController();
    if (live && state.link === 'live') {
      const onOpen = () => get(`log?lines=${MOST}`).then((told) => add(told.entries), () => {});
      const onEvent = (name, line) => name === 'log' && add([line]);
      follow('events?log=1', { onOpen, onEvent, signal: end.signal }).catch(() => {});
    }
    return () => end.abort();
  }, [live, state.link]);
  return lines;
}

export function Log() {
  const [level, setLevel] = useState('2');
  const [text, setText] = useState('');
  const [live, setLive] = useState(true);
  const list = useRef();
  const atEnd = useRef(true);
  const all = useLines(live);
  const shown = all.filter((line) => line.level >= Number(level) && line.text.toLowerCase().includes(text.toLowerCase()));
  useEffect(() => {
    if (atEnd.current) {
      list.current.scrollTop = list.current.scrollHeight;
    }
  }, [shown.length, all.at(-1)?.number]);
  const onScroll = ({ target }) => {
    atEnd.current = target.scrollHeight - target.scrollTop - target.clientHeight < 40;
  };
  return html`<${Card} title=${texts.log} id="log">
    <div class="filters">
      <${Choice} label=${texts.level} value=${level} onChoose=${setLevel} options=${texts.levels} />
      <label class="field grow"><span>${texts.search}</span><input type="search" value=${text} onInput=${(event) => setText(event.target.value)} /></label>
      <button type="button" aria-pressed=${live} class=${live ? 'pressed' : ''} onClick=${() => setLive(!live)}>${texts.liveOn}</button>
      <button type="button" onClick=${() => save(shown)}>${texts.download}</button>
    </div>
    <pre class="log tall" ref=${list} onScroll=${onScroll} tabindex="0" role="log" aria-label=${texts.log}>${shown.map((line) => html`<span
      class=${`line level-${line.level}`} key=${line.number}><time>${stamp(line.time).slice(11)}</time> ${line.text}${'\n'}</span>`)}</pre>
    <p class="small">${texts.logCount(shown.length, all.length)}</p>
  <//>`;
}
