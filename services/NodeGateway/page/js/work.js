// What happens now: an order that was just given, an install with its steps, a restart and its proof, the last outcome.
import { Badge, Bar, Card, Steps, useSeconds } from './parts.js';
import { change, order, state } from './store.js';
import { html } from './preact.js';
import { isSameVersion, mayCancel, mustStayOn, outcome, work } from './facts.js';
import { texts } from './texts.js';

const STEPS = ['order', 'write', 'restart', 'proof'];
export const REMOTE_STEPS = ['order', 'carry', 'restart', 'proof'];
// How many steps are done, and which is under way or has failed.
const STEP_OF = { running: 1, away: 1, installed: 2, restarting: 2, proven: 4, returned: 3, failed: 1 };

const StayOn = () => html`<p class="stay-on" role="note">${texts.stayOn}</p>`;

const Cancel = ({ job }) => mayCancel(state, job) && html`<button type="button"
    disabled=${state.order?.kind === 'Cancel' && !state.order.problem}
    onClick=${() => order('Cancel', job.id, 'cancel', { id: job.id })}>
    ${state.order?.kind === 'Cancel' && !state.order.problem ? texts.cancelling : texts.cancel}</button>`;

export const Running = ({ job, extra }) => html`
  <p class="lead">${texts.kinds[job.kind]}${job.version && ` ${job.version}`}${job.device && ` → ${job.device}`}</p>
  <p class="told"><span>${job.message || texts.states[job.state]}</span><span class="percent">${job.percent > 0 && `${job.percent} %`}</span></p>
  <${Bar} percent=${job.percent} label=${`${texts.progress}: ${texts.kinds[job.kind]}`} />
  ${extra}
  <div class="foot">${mustStayOn(state) ? html`<${StayOn} />` : html`<span></span>`}<${Cancel} job=${job} /></div>`;

const shortBoot = (id) => (id ?? '').slice(0, 8);

function Waiting({ job }) {
  const usual = state.usualRestart;
  return html`<p class="lead">${texts.restarting(job.version)}</p>
    <p class="told">${texts.waiting(usual && texts.duration(usual), useSeconds(state.lostAt))}</p>
    <progress aria-label=${texts.progress}></progress>
    <${Steps} names=${STEPS} done=${2} />
    <div class="foot"><${StayOn} /></div>`;
}

// Why the version is not the one that runs, where the instrument judges new ones.
function cameBack({ version }) {
  const { trial } = state.status;
  return trial && isSameVersion(trial.lastVersion, version) && trial.lastOutcome === 'reverted' ? texts.cameBack(trial.lastReason) : '';
}

// What has ended, in two sentences.
function ended({ kind, job }) {
  const { installedVersion, bootId } = state.status;
  if (kind === 'proven') {
    return [texts.proven(job.version), texts.proof(shortBoot(job.bootId), shortBoot(bootId))];
  }
  if (kind === 'returned') {
    return [texts.returned(job.version, installedVersion ?? texts.unknown), cameBack(job) || texts.returnedWhy];
  }
  if (kind === 'installed') {
    return [texts.installed(job.version), texts.installedMore];
  }
  const text = job.state === 'Cancelled' ? texts.cancelled : texts.failed;
  return [text(job.version), [job.reason, installedVersion && texts.stays(installedVersion)].filter(Boolean).join(' — ')];
}

const MARKS = { proven: 'good', installed: 'accent', failed: 'bad', returned: 'bad' };

function Outcome({ found }) {
  const [lead, more] = ended(found);
  const bad = ['failed', 'returned'].includes(found.kind);
  return html`<p class="lead"><${Badge} kind=${MARKS[found.kind]}>${texts.lastOutcome}<//> ${lead}</p>
    <p class="told wrap">${more}</p>
    <${Steps} names=${STEPS} done=${STEP_OF[found.kind]} bad=${bad} />
    <p class="foot small"><time>${texts.time(found.job.endedAt)}</time><span>${found.job.asker}</span></p>`;
}

const Idle = () => html`<p class="lead">${texts.idle}</p><p class="told wrap">${texts.never}</p>
  <${Steps} names=${STEPS} done=${-1} />`;

function Content() {
  const found = outcome(state);
  const running = work(state);
  const given = state.order;
  if (given && !given.problem && given.kind !== 'Cancel') {
    return html`<p class="lead">${texts.starting(given.subject)}</p><progress aria-label=${texts.progress}></progress>`;
  }
  if (running) {
    const names = { Install: STEPS, RemoteInstall: REMOTE_STEPS }[running.kind];
    const steps = names && html`<${Steps} names=${names} done=${1} />`;
    return html`<${Running} job=${running} extra=${found.kind === 'away' ? html`<p class="note">${texts.away}</p>` : steps} />`;
  }
  if (found.kind === 'restarting') {
    return html`<${Waiting} job=${found.job} />`;
  }
  return found.kind === 'none' ? html`<${Idle} />` : html`<${Outcome} found=${found} />`;
}

export const Work = () => html`<${Card} title=${texts.now} id="now">
  <div class="happening" aria-live="polite" data-outcome=${outcome(state).kind}>${state.status && html`<${Content} />`}</div>
  ${state.order?.problem && html`<p class="problem" role="alert">${state.order.subject}: ${state.order.problem}
    <button type="button" class="quiet" onClick=${() => change({ order: null })}>${texts.ok}</button></p>`}
<//>`;
