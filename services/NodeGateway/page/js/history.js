// All that was done: filtered, in pages, and one job opened with its parts and its log lines.
import { Card, Choice, Facts, JobState, useAsked } from './parts.js';
import { baseName, isOpen } from './facts.js';
import { html, useEffect, useState } from './preact.js';
import { askJobs, state } from './store.js';
import { get } from './ask.js';
import { texts } from './texts.js';

const PAGE = 30;
const MARGIN_MS = 1000; // a line about an end comes a moment after it

const what = (job) => [job.version, job.device && `→ ${job.device}`, !job.version && (job.kind === 'Scan' ? job.file : baseName(job.file))].filter(Boolean).join(' ');

// The clock may have been set back meanwhile.
const earliest = (job) => (job.endedAt ? Math.min(job.createdAt, job.endedAt) : job.createdAt);

function Lines({ job }) {
  const told = useAsked(() => get(`log?lines=1000&level=2&since=${earliest(job)}`), [job.state]);
  const until = job.endedAt ? Math.max(job.createdAt, job.endedAt) + MARGIN_MS : Infinity;
  const lines = (told?.entries ?? []).filter((line) => line.time <= until);
  return html`<h3>${texts.lines}</h3>
    ${lines.length ? html`<pre class="log" tabindex="0" aria-label=${texts.lines}>${lines.map((line) => html`<span class=${`line level-${line.level}`} key=${line.number}>${line.text}${'\n'}</span>`)}</pre>`
      : html`<p class="empty">${told ? texts.noLines : ''}</p>`}`;
}

function Details({ job }) {
  const told = useAsked(() => askJobs({ limit: 300, since: earliest(job) }), [job.state]);
  const parts = (told?.operations ?? []).filter((one) => one.parent === job.id).reverse();
  return html`<div class="details">
    <${Facts} rows=${[
      [texts.askedBy, job.asker || texts.itself], [texts.node, job.node],
      [texts.began, texts.time(job.startedAt || job.createdAt)], [texts.ended, texts.time(job.endedAt)],
      [texts.boot, job.bootId.slice(0, 8)], [texts.id, job.id]]} />
    ${job.header && html`<p>${job.header}: ${job.message} (${job.percent} %)</p>`}
    ${parts.length > 0 && html`<h3>${texts.parts}</h3><ul class="rows">${parts.map((part) => html`<li class="row" key=${part.id}>
      <div class="grow"><p>${texts.kinds[part.kind]} ${what(part)} <${JobState} state=${part.state} /></p>
      ${part.reason && html`<p class="reason">${part.reason}</p>`}</div></li>`)}</ul>`}
    <${Lines} job=${job} />
  </div>`;
}

function Entry({ job }) {
  const [open, setOpen] = useState(false);
  const took = job.took && !isOpen(job) ? texts.took(texts.duration(job.took)) : '';
  return html`<li class="entry">
    <button type="button" class="entry-head" aria-expanded=${open} onClick=${() => setOpen(!open)}>
      <span class="grow"><span class="name">${texts.kinds[job.kind] ?? job.kind} ${what(job)}</span>
        <span class="small"><time>${texts.time(job.createdAt)}</time> · ${job.asker || texts.itself} ${took && `· ${took}`}</span>
        ${job.reason && html`<span class="reason">${job.reason}</span>`}</span>
      <${JobState} state=${job.state} />
    </button>
    ${open && html`<${Details} job=${job} />`}
  </li>`;
}

export function History() {
  const [kind, setKind] = useState('');
  const [end, setEnd] = useState('');
  const [pages, setPages] = useState({ jobs: [], next: '' });
  const heard = [...state.jobs.values()];
  const newest = `${heard.at(-1)?.id} ${heard.filter(isOpen).map((job) => job.id)}`; // another one when one has begun or ended
  const query = { limit: PAGE, ...(kind && { kind }), ...(end && { state: end }) };
  const load = (before) => askJobs({ ...query, ...(before && { before }) }).then((page) => {
    setPages((known) => ({ jobs: before ? [...known.jobs, ...page.operations] : page.operations, next: page.next, told: true }));
  }).catch((problem) => setPages({ jobs: [], next: '', told: true, problem }));
  useEffect(() => {
    load('');
  }, [kind, end, newest, state.link]);
  const jobs = pages.jobs.map((job) => state.jobs.get(job.id) ?? job).filter((job) => !end || end === 'Open' ? true : job.state === end || isOpen(job));
  return html`<${Card} title=${texts.history} id="history">
    <div class="filters">
      <${Choice} label=${texts.filterKind} value=${kind} onChoose=${setKind} options=${{ '': texts.all, ...texts.kinds }} />
      <${Choice} label=${texts.filterState} value=${end} onChoose=${setEnd} options=${{ '': texts.all, ...texts.states }} />
    </div>
    ${state.status.historyProblem && html`<p class="note bad">${texts.notWritten(state.status.historyProblem)}</p>`}
    ${pages.problem && html`<p class="note">${pages.problem.status === 503 ? texts.noJournal : pages.problem.message}</p>`}
    ${jobs.length > 0 ? html`<ul class="rows">${jobs.map((job) => html`<${Entry} key=${job.id} job=${job} />`)}</ul>`
      : html`<p class="empty">${pages.told ? texts.noHistory : ''}</p>`}
    ${pages.next && html`<button type="button" onClick=${() => load(pages.next)}>${texts.more}</button>`}
  <//>`;
}
