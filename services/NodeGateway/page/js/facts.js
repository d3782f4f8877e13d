// What the instrument's state means. Pure: no request, no page; the same documents always mean the same.

const ROLES = ['look', 'operate', 'administer'];
const LONGEST_RESTART_MS = 600000; // beyond it was switched off, not restarting
const WORK = ['Install', 'RemoteInstall', 'Transfer', 'Build']; // what is shown as it happens, the gravest first

const numbersOf = (version) => (version ?? '').split('.').map((piece) => parseInt(piece, 10) || 0).join('.').replace(/(\.0)+$/, '');
// What the instrument takes for one version: 1.2, 1.2.0 and 01.2 are.
export const isSameVersion = (one, other) => numbersOf(one) === numbersOf(other);

export const isOpen = (job) => job.state === 'Queued' || job.state === 'Running';
// Jobs as they were heard of; their times may be those of a clock that was wrong.
export const newestFirst = (jobs) => [...jobs].reverse();
export const may = (state, role) => ROLES.indexOf(state.status?.you?.role) >= ROLES.indexOf(role);

export function mayCancel(state, job) {
  return isOpen(job) && state.link === 'live' && (may(state, 'administer') || (may(state, 'operate') && job.asker === state.status.you.name));
}

export function work(state) {
  const open = newestFirst(state.jobs.values()).filter(isOpen);
  return WORK.map((kind) => open.find((job) => job.kind === kind)).find(Boolean) ?? null;
}

export const scans = (state) => [...state.jobs.values()].filter((job) => job.kind === 'Scan' && job.state === 'Running');

// An event may have told its end when nobody could be asked any more: the instrument restarts right behind it.
function lastInstall(state) {
  return newestFirst(state.jobs.values()).find((job) => job.kind === 'Install' && !isOpen(job)) ?? state.status?.lastInstall ?? null;
}

// What the last install on this instrument has come to:
//   none        there was none
//   running     it is under way
//   failed      it did not end well; `job.reason` says why
//   installed   the other slot holds it, and starts next; the instrument has not restarted yet
//   restarting  likewise, and the instrument does not answer any more
//   proven      the instrument has restarted since, and the new version runs
//   returned    the instrument has restarted since, and another version runs
export function outcome(state) {
  const { status, link } = state;
  const running = work(state);
  if (running?.kind === 'Install') {
    return { kind: link === 'lost' ? 'away' : 'running', job: running };
  }
  const job = lastInstall(state);
  if (!job) {
    return { kind: 'none' };
  }
  if (job.state !== 'Succeeded') {
    return { kind: 'failed', job };
  }
  if (job.bootId === status.bootId) {
    return { kind: link === 'lost' ? 'restarting' : 'installed', job };
  }
  return { kind: isSameVersion(status.installedVersion, job.version) ? 'proven' : 'returned', job };
}

// Whether switching off now could do harm: while a slot is written, and until the restart is over.
export function mustStayOn(state) {
  return ['running', 'away', 'restarting'].includes(outcome(state).kind) || work(state)?.kind === 'RemoteInstall';
}

// How long the last restart took, in ms: from the end of an install to the first job of the boot behind it. `jobs` as the
// journal tells them, the newest first; 0 when they do not tell.
export function lastRestart(jobs) {
  for (const [place, job] of jobs.entries()) {
    const next = job.kind === 'Install' && job.state === 'Succeeded'
      && jobs.slice(0, place).reverse().find((other) => other.createdAt > job.endedAt || other.bootId !== job.bootId);
    const took = next && next.bootId !== job.bootId ? next.createdAt - job.endedAt : 0;
    if (took > 0 && took < LONGEST_RESTART_MS) {
      return took;
    }
  }
  return 0;
}

export function lastInstallTook(jobs) {
  return jobs.find((one) => one.kind === 'Install' && one.state === 'Succeeded' && one.took)?.took ?? 0;
}

// One entry for each version, with the places where it lies.
export function offers(status) {
  const versions = new Map();
  for (const found of status?.updates ?? []) {
    const known = versions.get(found.version);
    if (known) {
      known.places.push(found);
    } else {
      versions.set(found.version, { ...found, places: [found] });
    }
  }
  return [...versions.values()];
}

export const baseName = (path) => (path ?? '').split('/').pop();
export const isUploaded = (found) => found.source === 'upload';

// Whether the software of a device beside this one goes with it; null when nobody can tell.
export function fits(state, peer) {
  if (peer.targetVersion) {
    return peer.compatible && !peer.requiresUpdate; // this one is the accessory, and asked
  }
  const own = state.status?.installedVersion;
  return own && peer.version ? isSameVersion(own, peer.version) : null;
}
