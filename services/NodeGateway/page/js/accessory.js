// Devices beside this one: what they are and run, bringing one to this device's version, and who is let in at all.
import { Badge, Card, Dialog, Facts, Key, Steps } from './parts.js';
import { REMOTE_STEPS } from './work.js';
import { askPeers, change, order, state } from './store.js';
import { fits, isSameVersion, may, newestFirst, work } from './facts.js';
import { html, useEffect, useState } from './preact.js';
import { texts } from './texts.js';

const TURNED_AWAY_MS = 3000; // who is turned away is no event: a stranger must not cause any

const nameOf = (peer) => peer.name || peer.serialNumber || peer.publicKey.slice(0, 8);

function FitText({ peer }) {
  const told = fits(state, peer);
  if (told === null) {
    return html`<span>${texts.fitsUnknown}</span>`;
  }
  return told ? html`<${Badge} kind="good">${texts.fits}<//>`
    : html`<${Badge} kind="bad">${texts.fitsNot(peer.targetVersion || state.status.installedVersion)}<//>`;
}

// What the last remote install on this accessory has come to.
function Proof({ peer }) {
  const job = newestFirst(state.jobs.values()).find((one) => one.kind === 'RemoteInstall' && one.device === peer.serialNumber);
  if (job?.state !== 'Succeeded') {
    return job?.reason ? html`<p class="problem">${job.reason}</p><${Steps} names=${REMOTE_STEPS} done=${1} bad />` : null;
  }
  const proven = peer.connected && isSameVersion(peer.version, job.version);
  return html`<p class="note" data-proven=${proven}>${proven ? texts.proofRemote(nameOf(peer), peer.version) : texts.waitRemote(nameOf(peer))}</p>
    <${Steps} names=${REMOTE_STEPS} done=${proven ? REMOTE_STEPS.length : 2} />`;
}

function Actions({ peer, onInstall }) {
  const own = state.status.installedVersion;
  const to = { serialNumber: peer.serialNumber, deviceModel: peer.deviceModel };
  const busy = work(state) !== null || !peer.connected || (state.order && !state.order.problem);
  const build = () => order('Build', texts.buildWhat(own, peer.board), 'checkCompatibility', { version: peer.version, board: peer.board, model: peer.deviceModel });
  const transfer = () => order('Transfer', `${texts.transfer} ${own}`, 'transfer', { version: own, ...to });
  return html`<div class="buttons wide">
    <button type="button" disabled=${busy} onClick=${build}>${texts.build}</button>
    <button type="button" disabled=${busy} onClick=${transfer}>${texts.transfer}</button>
    <button type="button" class="main" disabled=${busy} onClick=${() => onInstall(peer)}>${texts.remoteInstall}</button>
  </div>`;
}

function Peer({ peer, onInstall, onRemove }) {
  const isAccessory = peer.deviceType === 'DEVICE_PALM';
  const own = state.status.installedVersion;
  const isBuilt = (state.status.archive ?? []).some((one) => isSameVersion(one.version, own) && one.board === peer.board);
  return html`<li class="peer">
    <div class="card-head"><h3>${nameOf(peer)} <${Badge} kind=${peer.connected ? 'good' : 'plain'}>${peer.connected ? texts.connected : texts.notConnected}<//></h3>
      ${may(state, 'administer') && html`<button type="button" class="quiet" aria-label=${texts.removeThis(nameOf(peer))} onClick=${() => onRemove(peer)}>${texts.remove}</button>`}</div>
    <${Facts} rows=${[[texts.version, peer.version], [texts.model, peer.serialNumber && peer.deviceModel], [texts.serial, peer.serialNumber], [texts.board, peer.board]]} />
    <p><${FitText} peer=${peer} /></p>
    ${isAccessory && peer.board && html`<p class="small">${isBuilt ? texts.built(own) : texts.notBuilt}</p>`}
    <${Proof} peer=${peer} />
    ${isAccessory && peer.serialNumber && may(state, 'operate') && html`<${Actions} peer=${peer} onInstall=${onInstall} />`}
  </li>`;
}

function ConfirmInstall({ peer, onClose }) {
  const version = state.status.installedVersion;
  const go = () => {
    onClose();
    order('RemoteInstall', `${texts.remoteInstall}: ${nameOf(peer)}`, 'remoteinstall', { version, serialNumber: peer.serialNumber, deviceModel: peer.deviceModel });
  };
  return html`<${Dialog} title=${texts.confirmRemote(nameOf(peer), version)} onClose=${onClose}
    actions=${html`<button type="button" class="main" onClick=${go}>${texts.remoteInstall}</button>`}><p>${texts.willRemote}</p><//>`;
}

async function pair(what, message) {
  if (await order('Pair', what, 'pair', message)) {
    askPeers();
  }
}

function ConfirmPair({ peer, onClose }) {
  const [name, setName] = useState('');
  const go = () => {
    onClose();
    pair(texts.letIn, { publicKey: peer.publicKey, name });
  };
  return html`<${Dialog} title=${texts.confirmPair} onClose=${onClose} actions=${html`<button type="button" class="main" onClick=${go}>${texts.pin}</button>`}>
    <p>${texts.compare}</p>
    <p class="small">${texts.ownKey}</p><${Key} text=${state.peers.publicKey} />
    <p class="small">${texts.otherKey}</p><${Key} text=${peer.publicKey} />
    <label class="field"><span>${texts.name}</span><input value=${name} maxlength="64" onInput=${(event) => setName(event.target.value)} /></label>
  <//>`;
}

function ConfirmRemove({ peer, onClose }) {
  const go = () => {
    onClose();
    pair(texts.removeThis(nameOf(peer)), { publicKey: peer.publicKey, remove: true });
  };
  return html`<${Dialog} title=${texts.confirmUnpair(nameOf(peer))} onClose=${onClose} actions=${html`<button type="button" class="main" onClick=${go}>${texts.remove}</button>`}>
    <p>${texts.willUnpair}</p><${Key} text=${peer.publicKey} /><//>`;
}

const Pairing = ({ peers, onPair }) => html`<${Card} title=${texts.pairing} id="pairing">
  ${state.peers.publicKey && html`<p class="small">${texts.ownKey}</p><${Key} text=${state.peers.publicKey} />`}
  ${peers.length === 0 ? html`<p class="empty">${texts.noneTurnedAway}</p>` : html`<p>${texts.turnedAway}</p><ul class="rows">${peers.map((peer) => html`<li class="row" key=${peer.publicKey}>
    <div class="grow"><${Key} text=${peer.publicKey} />${peer.address && html`<p class="small">${peer.address}</p>`}</div>
    ${may(state, 'administer') && html`<button type="button" onClick=${() => onPair(peer)}>${texts.letIn}</button>`}</li>`)}</ul>`}
<//>`;

const DIALOGS = { install: ConfirmInstall, pair: ConfirmPair, remove: ConfirmRemove };

export function Accessory() {
  const [asked, setAsked] = useState(null);
  useEffect(() => {
    askPeers();
    const timer = setInterval(askPeers, TURNED_AWAY_MS);
    return () => {
      clearInterval(timer);
      change({ peers: null });
    };
  }, [state.link]);
  const told = state.peers;
  if (!told) {
    return null;
  }
  if (told.problem) {
    return html`<${Card} title=${texts.accessory} id="peers"><p class="empty">${told.problem.status === 503 ? texts.noLink : told.problem.message}</p><//>`;
  }
  const pinned = told.peers.filter((peer) => peer.pinned);
  const ask = (kind) => (peer) => setAsked({ kind, peer });
  return html`<${Card} title=${texts.accessory} id="peers">
      ${pinned.length === 0 ? html`<p class="empty">${texts.noPeers}</p>`
        : html`<ul class="rows">${pinned.map((peer) => html`<${Peer} key=${peer.publicKey} peer=${peer} onInstall=${ask('install')} onRemove=${ask('remove')} />`)}</ul>`}
    <//>
    <${Pairing} peers=${told.peers.filter((peer) => !peer.pinned)} onPair=${ask('pair')} />
    ${asked && html`<${DIALOGS[asked.kind]} peer=${asked.peer} onClose=${() => setAsked(null)} />`}`;
}
