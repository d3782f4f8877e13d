// Small parts that several views use.
import { html, useEffect, useRef, useState } from './preact.js';
import { texts } from './texts.js';

export const Badge = ({ kind, children }) => html`<span class=${`badge ${kind}`}>${children}</span>`;

export const Card = ({ title, id, children, extra }) => html`
  <section class="card" aria-labelledby=${id}>
    <div class="card-head"><h2 id=${id}>${title}</h2>${extra}</div>
    ${children}
  </section>`;

export const Facts = ({ rows }) => html`<dl class="facts">
  ${rows.filter(([, value]) => value).map(([name, value]) => html`<div key=${name}><dt>${name}</dt><dd>${value}</dd></div>`)}
</dl>`;

// Without a percentage it only shows that something goes on.
export const Bar = ({ percent, label }) => (percent > 0 ? html`<progress max="100" value=${percent} aria-label=${label}></progress>`
  : html`<progress aria-label=${label}></progress>`);

// How far something is that takes several steps: so many are done, and the next one is under way, or has failed.
export const Steps = ({ names, done, bad }) => html`<ol class="steps" aria-label=${texts.steps}>
  ${names.map((name, at) => {
    const kind = at < done ? 'done' : at > done || done < 0 ? 'todo' : bad ? 'bad' : 'now';
    return html`<li key=${name} class=${kind} aria-current=${kind === 'now' ? 'step' : null}>
      <span>${texts.stepNames[name]}</span><span class="sr">, ${texts.stepStates[kind]}</span></li>`;
  })}
</ol>`;

const STATE_BADGES = { Succeeded: 'good', Failed: 'bad', Lost: 'bad', Cancelled: 'plain', Running: 'accent', Queued: 'plain' };
export const JobState = ({ state }) => html`<${Badge} kind=${STATE_BADGES[state] ?? 'plain'}>${texts.states[state] ?? state}<//>`;

// A question before something is done, or a closer look. The browser keeps the keyboard inside, and Escape closes.
export function Dialog({ title, onClose, children, actions }) {
  const dialog = useRef();
  useEffect(() => {
    const before = document.activeElement;
    dialog.current.showModal();
    return () => before?.focus?.();
  }, []);
  return html`<dialog ref=${dialog} onClose=${onClose} aria-labelledby="dialog-title">
    <h2 id="dialog-title">${title}</h2>
    ${children}
    <div class="actions">${actions}<button type="button" onClick=${() => dialog.current.close()}>${actions ? texts.close : texts.ok}</button></div>
  </dialog>`;
}

// Seconds since a moment of this browser's clock, counted while it is shown.
export function useSeconds(since) {
  const [, tick] = useState(0);
  useEffect(() => {
    const timer = setInterval(() => tick((count) => count + 1), 1000);
    return () => clearInterval(timer);
  }, []);
  return Math.max(0, Math.round((Date.now() - since) / 1000));
}

// Runs once, and whenever one of `on` changes; gives undefined until the promise is there. A later one wins.
export function useAsked(ask, on) {
  const [answer, setAnswer] = useState();
  useEffect(() => {
    let wanted = true;
    ask().then((told) => wanted && setAnswer(told), (problem) => wanted && setAnswer({ problem }));
    return () => {
      wanted = false;
    };
  }, on);
  return answer;
}

export const Key = ({ text }) => html`<code class="key">${text.match(/.{1,4}/g)?.map((four, at) => html`<span key=${at}>${four}</span>`)}</code>`;

export const Choice = ({ label, value, onChoose, options }) => html`<label class="field"><span>${label}</span>
  <select value=${value} onChange=${(event) => onChoose(event.target.value)}>
    ${Object.entries(options).map(([key, name]) => html`<option key=${key} value=${key} selected=${key === value}>${name}</option>`)}
  </select></label>`;
