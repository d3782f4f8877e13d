// The one state of the page, and how it follows the instrument: one GET tells all, events tell what changes, and whatever
// was missed is told by the next GET. Nothing that has to last is kept here: a reload finds it at the instrument again.
import { Problem, follow, get, send, takeTokenFromAddress } from './ask.js';
import { isOpen, lastRestart, work } from './facts.js';
import { texts } from './texts.js';

const RETRY_MS = 1000;
const MOST_JOBS = 300; // the newest; older ones are asked for when somebody looks

export const state = {
  link: 'connecting', // 'live', 'lost' (nobody answers), 'locked' (who asks is not let in)
  lostAt: 0, // when, by this browser's clock
  problem: '', // why, when somebody has said so
  status: null, // GET /v1/status
  jobs: new Map(), // by id, as far as they were told
  peers: null, // the answer to "peers"; null: not told
  order: null, // what was clicked and has no job yet: {kind, subject, problem}
  usualRestart: null, // how long the last restart took, in ms; asked for while there is an install, since nobody tells it later
  upload: null, // {name, size, sent, problem, check}
  route: '',
};

let draw = () => {};
let held = false; // nothing moves under a finger
let waiting = false;

export function change(patch) {
  Object.assign(state, patch);
  if (held) {
    waiting = true;
  } else {
    draw();
  }
}

export function start(drawing) {
  draw = drawing;
  for (const [name, holds] of [['pointerdown', true], ['pointerup', false], ['pointercancel', false]]) {
    addEventListener(name, () => hold(holds), true);
  }
  addEventListener('hashchange', () => {
    takeTokenFromAddress();
    change({ route: location.hash });
  });
  change({ route: location.hash });
  live();
}

// A click is what its pointer went down on: the page is drawn anew once it has been taken.
function hold(holds) {
  held = holds;
  if (!holds && waiting) {
    waiting = false;
    setTimeout(() => change({}));
  }
}

let awake = () => {};

// At once, in place of after a while: a token was given.
export const tryNow = () => awake();

async function live() {
  for (;;) {
    try {
      await refresh();
      await follow('events', { onOpen: () => refreshSoon(), onEvent });
    } catch (problem) {
      if (!(problem instanceof Problem)) {
        console.error(problem);
      }
      const lostAt = state.link === 'lost' ? state.lostAt : Date.now();
      change({ link: problem.isRefusal ? 'locked' : 'lost', lostAt, problem: problem.status ? problem.message : '' });
    }
    await new Promise((resolve) => {
      awake = resolve;
      setTimeout(resolve, RETRY_MS);
    });
  }
}

async function refresh() {
  const asked = performance.now();
  const status = await get('status');
  for (const job of [status.lastInstall, ...[...(status.operations ?? [])].reverse()]) {
    keep(job);
  }
  dropUntold(status, asked);
  learnRestart();
  change({ status, link: 'live' });
}

async function learnRestart() {
  if (state.usualRestart === null && work(state)?.kind === 'Install') {
    state.usualRestart = 0;
    const told = await askJobs({ limit: 500 }).catch(() => ({ operations: [] }));
    change({ usualRestart: lastRestart(told.operations) });
  }
}

// A job that was open and is told no more has ended while nobody listened.
function dropUntold(status, asked) {
  const told = new Set((status.operations ?? []).map((job) => job.id));
  for (const job of state.jobs.values()) {
    if (status.operations && isOpen(job) && !told.has(job.id) && job.heardAt < asked - 2000) {
      get(`operations/${job.id}`).then(keep, () => state.jobs.delete(job.id)).then(() => change({}));
    }
  }
}

// `heardAt`: by the page's own clock, of what an event told and the journal may not know yet.
function keep(job, heardAt = -Infinity) {
  if (!job) {
    return;
  }
  const known = state.jobs.get(job.id);
  if (known && !isOpen(known) && isOpen(job)) {
    return; // was asked before it ended
  }
  state.jobs.set(job.id, { ...job, heardAt: known?.heardAt ?? heardAt });
  if (state.jobs.size > MOST_JOBS) {
    const oldest = [...state.jobs.values()].find((other) => !isOpen(other) && other.id !== state.status?.lastInstall?.id);
    state.jobs.delete(oldest?.id);
  }
}

let asked = 0;
let again = false;

// Once for however much happens in between.
async function refreshSoon() {
  again = true;
  if (asked++) {
    return;
  }
  while (again) {
    again = false;
    await Promise.all([refresh(), state.peers && askPeers()]).catch(() => {}); // the stream tells when nobody is there
    await new Promise((resolve) => setTimeout(resolve, 200));
  }
  asked = 0;
}

function onEvent(name, document) {
  if (name === 'operation') {
    keep(document, performance.now());
    if (state.order?.id === document.id) {
      state.order = null;
    }
    change({});
    learnRestart();
    if (!isOpen(document)) {
      refreshSoon();
    }
  } else if (name !== 'progress') {
    refreshSoon();
  }
}

export async function askPeers() {
  change({ peers: await send('peers').catch((problem) => ({ problem, peers: [] })) });
}

export async function askJobs(query) {
  const page = await get(`operations?${new URLSearchParams(query)}`);
  return page;
}

// An order of a person: shown at once, then followed as its job.
export async function order(kind, subject, keyword, message) {
  change({ order: { kind, subject } });
  try {
    const answer = await send(keyword, message);
    const id = answer.operationId;
    change({ order: id && !state.jobs.has(id) ? { kind, subject, id } : null });
    if (id && !state.jobs.has(id)) {
      keep(await get(`operations/${id}`).catch(() => null));
    }
    change({ order: null });
    return answer;
  } catch (problem) {
    change({ order: { kind, subject, problem: problem.message ?? texts.noAnswer } });
    return null;
  } finally {
    refreshSoon();
  }
}
