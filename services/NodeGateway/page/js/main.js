// The page as a whole: its head, its parts, and what is shown when the instrument can't be reached.
import { Instrument, Offers, Refused, Trial } from './system.js';
import { Upload, takeDrops } from './upload.js';
import { html, render, useState } from './preact.js';
import { start, state, tryNow } from './store.js';
import { takeTokenFromAddress, useToken } from './ask.js';
import { Accessory } from './accessory.js';
import { Card, useSeconds } from './parts.js';
import { History } from './history.js';
import { Log } from './log.js';
import { Work } from './work.js';
import { outcome } from './facts.js';
import { texts } from './texts.js';

const Update = () => html`<div class="columns"><div><${Work} /><${Trial} /><${Offers} /><${Refused} /><${Upload} /></div><div class="side"><${Instrument} /></div></div>`;
const VIEWS = { '#/': Update, '#/accessory': () => html`<${Work} /><${Accessory} />`, '#/history': History, '#/log': Log };
const routeOf = (hash) => (hash in VIEWS ? hash : '#/');

function Head() {
  const device = state.status?.device;
  return html`<header>
    <div class="title"><h1>${device?.model ?? texts.title}</h1><span class="serial">${device?.serialNumber}</span></div>
    <nav aria-label=${texts.navigation}>${Object.entries(texts.tabs).map(([route, name]) => html`<a key=${route} href=${route}
      aria-current=${routeOf(state.route) === route ? 'page' : null}>${name}</a>`)}</nav>
    <span class=${`link ${state.link}`} role="status">${texts.links[state.link]}</span>
  </header>`;
}

const Lost = () => html`<p class="banner" role="alert">${texts.lost(useSeconds(state.lostAt))} ${state.problem}</p>`;

function Locked() {
  const [text, setText] = useState('');
  const onSubmit = (event) => {
    event.preventDefault();
    useToken(text.trim());
    tryNow();
  };
  return html`<${Card} title=${texts.locked} id="locked"><p>${texts.lockedWhy}</p>
    ${state.problem && html`<p class="problem" role="alert">${state.problem}</p>`}
    <form onSubmit=${onSubmit}><label class="field"><span>${texts.token}</span>
      <input type="password" autocomplete="current-password" value=${text} onInput=${(event) => setText(event.target.value)} /></label>
      <button class="main">${texts.unlock}</button></form><//>`;
}

function Page() {
  const View = VIEWS[routeOf(state.route)];
  return html`<${Head} />
    <main>
      ${state.link === 'lost' && outcome(state).kind !== 'restarting' && html`<${Lost} />`}
      ${state.link === 'locked' ? html`<${Locked} />` : state.status && html`<${View} />`}
    </main>`;
}

takeTokenFromAddress();
takeDrops();
start(() => {
  document.title = `${state.status?.device?.serialNumber ?? texts.title} — ${texts.tabs[routeOf(state.route)]}`;
  render(html`<${Page} />`, document.getElementById('page'));
});
