// The instrument itself: what it is, what runs, what could be installed, what was refused and why.
import { Badge, Card, Dialog, Facts, useAsked } from './parts.js';
import { askJobs, order, state } from './store.js';
import { baseName, isUploaded, lastInstallTook, lastRestart, may, offers, scans, work } from './facts.js';
import { html, useState } from './preact.js';
import { texts } from './texts.js';

// Where the version that runs stands, in an instrument that judges new ones.
const trialText = (trial) => trial && texts.trials[trial.state]?.(trial);

function ConfirmRevert({ trial, onClose }) {
  const go = () => {
    onClose();
    order('Trial', texts.revert, 'revert', {});
  };
  return html`<${Dialog} title=${texts.confirmRevert(trial.slots.find((slot) => !slot.running)?.version)} onClose=${onClose}
      actions=${html`<button type="button" class="main" onClick=${go}>${texts.revert}</button>`}>
    <ul class="plain">
      <li>${texts.willRestartNow}</li>
      <li>${texts.willTakeBack(trial.version)}</li>
    </ul>
  <//>`;
}

// What a person can say about a version: while it is on trial, and of those that were taken back.
export function Trial() {
  const [asked, setAsked] = useState(null); // of which trial, by its beginning: another one is another question
  const { trial } = state.status;
  const mayAct = may(state, 'operate') && state.link === 'live' && !(state.order && !state.order.problem);
  if (!trial || (trial.state !== 'trial' && !trial.problem && trial.takenBack.length === 0)) {
    return null;
  }
  return html`<${Card} title=${texts.trial} id="trial">
    ${trial.problem && html`<p class="note bad">${trial.problem}</p>`}
    ${trial.state === 'trial' && html`<div class="row"><p class="grow">${texts.trials.trial(trial)} ${texts.waitsFor(trial.waiting)}</p>
      ${may(state, 'operate') && html`<div class="buttons">
        <button type="button" disabled=${!mayAct} onClick=${() => setAsked(trial.since)}>${texts.revert}</button>
        <button type="button" class="main" disabled=${!mayAct} onClick=${() => order('Trial', texts.confirm, 'confirm', {})}>${texts.confirm}</button></div>`}</div>`}
    <ul class="rows">${trial.takenBack.map((one) => html`<li class="row" key=${one.version}>
      <div class="grow"><p class="name">${texts.takenBack(one.version)}</p>
        <p class="reason">${one.reason}</p><p class="small"><time>${texts.time(one.at)}</time></p></div>
      ${may(state, 'operate') && html`<button type="button" class="quiet" disabled=${!mayAct} aria-label=${texts.allowThis(one.version)}
        onClick=${() => order('Trial', texts.allowThis(one.version), 'allow', { version: one.version })}>${texts.allow}</button>`}</li>`)}</ul>
    ${trial.state === 'trial' && asked === trial.since && html`<${ConfirmRevert} trial=${trial} onClose=${() => setAsked(null)} />`}
  <//>`;
}

export function Instrument() {
  const { status } = state;
  const device = status.device ?? {};
  const next = status.nextVersion || status.nextSlot ? texts.inSlot(status.nextVersion ?? '', status.nextSlot) : '';
  return html`<${Card} title=${texts.instrument} id="instrument">
    <${Facts} rows=${[
      [texts.runs, texts.inSlot(status.installedVersion ?? texts.unknown, status.runningSlot)],
      [texts.startsNext, next],
      [texts.trial, trialText(status.trial)],
      [texts.model, device.model], [texts.serial, device.serialNumber], [texts.board, device.board]]} />
    ${status.trustProblem && html`<p class="note bad">${status.trustProblem}</p>`}
    ${status.trustedSigners === '' && html`<p class="note">${texts.policyOff}</p>`}
    ${status.developerMode && html`<p class="note">${texts.developerMode}</p>`}
    ${texts.roles[status.you?.role] && html`<p class="note">${texts.roles[status.you.role]}</p>`}
  <//>`;
}

function ConfirmInstall({ offer, onClose }) {
  const { status } = state;
  const told = useAsked(() => askJobs({ limit: 500 }), []);
  const jobs = told?.operations ?? [];
  const [took, restart] = [lastInstallTook(jobs), lastRestart(jobs)];
  const other = { A: 'B', B: 'A' }[status.runningSlot];
  const go = () => {
    onClose();
    order('Install', texts.installThis(offer.version), 'updatesystem', { version: offer.version, reboot: true });
  };
  return html`<${Dialog} title=${texts.confirmInstall(offer.version)} onClose=${onClose}
      actions=${html`<button type="button" class="main" onClick=${go}>${texts.installThis(offer.version)}</button>`}>
    <ul class="plain">
      <li>${texts.willWrite(other)}</li>
      <li>${texts.willRestart(restart && texts.duration(restart))}</li>
      <li>${took ? texts.willTake(texts.duration(took)) : texts.neverTook}</li>
      ${status.installedVersion && html`<li>${texts.willReturn(status.installedVersion)}</li>`}
    </ul>
  <//>`;
}

// "CN = Arbor release": a certificate's way to say a name.
const shortName = (signer) => signer.replace(/^CN = /, '');

function Offer({ offer, isBest, onInstall }) {
  const [first, ...others] = offer.places;
  const details = [texts.bytes(first.size), texts.from(first.source), first.signer ? texts.signedBy(shortName(first.signer)) : texts.notSigned,
    others.length && texts.alsoFrom(others.map((place) => texts.from(place.source)).join(', '))];
  const busy = work(state) !== null || (state.order && !state.order.problem);
  return html`<li class="row">
    <div class="grow">
      <p class="name">${offer.version} ${offer.relation && html`<${Badge} kind=${offer.relation === 'newer' ? 'good' : 'plain'}>${texts.relations[offer.relation]}<//>`}</p>
      <p class="small">${details.filter(Boolean).join(' · ')}</p>
    </div>
    ${may(state, 'operate') && html`<div class="buttons">
      ${offer.places.filter(isUploaded).map((place) => html`<button type="button" key=${place.file} class="quiet"
        aria-label=${texts.removeThis(baseName(place.file))}
        onClick=${() => order('Forget', texts.removeThis(baseName(place.file)), 'forget', { file: baseName(place.file) })}>${texts.remove}</button>`)}
      <button type="button" class=${isBest ? 'main' : ''} disabled=${busy || state.link !== 'live'}
        onClick=${() => onInstall(offer)} aria-label=${texts.installThis(offer.version)}>${texts.install}</button></div>`}
  </li>`;
}

export function Offers() {
  const [chosen, choose] = useState(null);
  const found = offers(state.status);
  const checking = html`<div class="checking" role="status">${scans(state).map((scan) => html`<p key=${scan.id}>
    ${texts.checking(baseName(scan.file), scan.message || texts.states.Running)}</p>`)}</div>`;
  return html`<${Card} title=${texts.offers} id="offers" extra=${checking}>
    ${found.length > 0 ? html`<ul class="rows">${found.map((offer, at) => html`<${Offer} key=${offer.version} offer=${offer} isBest=${at === 0 && offer.relation === 'newer'} onInstall=${choose} />`)}</ul>`
      : html`<p class="empty">${scans(state).length > 0 ? texts.stillChecking : texts.noOffers}</p>`}
    ${chosen && html`<${ConfirmInstall} offer=${chosen} onClose=${() => choose(null)} />`}
  <//>`;
}

export const Refused = () => state.status.refused?.length > 0 && html`<${Card} title=${texts.refused} id="refused">
  <ul class="rows">${state.status.refused.map((one) => html`<li class="row" key=${one.file}>
    <div class="grow">
      <p class="name">${baseName(one.file)} ${one.version && one.version !== 'unknown' && html`<${Badge} kind="bad">${one.version}<//>`}</p>
      <p class="reason">${one.reason}</p>
      <p class="small"><b>${texts.whatToDo}</b> ${texts.advice[one.errorCode] ?? texts.advice.other} · ${texts.from(one.source)} · <time>${texts.time(one.checkedAt)}</time></p>
    </div></li>`)}</ul>
<//>`;
