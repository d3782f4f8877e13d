// The one way to ask the instrument: requests, and the stream of what happens. Every call ends: with an answer, or with
// a Problem whose text is for people.
import { texts } from './texts.js';

const KEPT = 'arbor-token';
const REQUEST_MS = 40000; // a little more than the instrument itself waits for an answer
const SILENCE_MS = 40000; // an open stream says something every 15 s

export class Problem extends Error {
  constructor(status, text) {
    super(text);
    this.status = status; // 0: nobody answered
  }

  // The door is closed to whoever asks like this; another token may help.
  get isRefusal() {
    return [401, 403, 421, 429].includes(this.status);
  }
}

// A token comes with the address ("#token=..."), which arborctl ui opens, or from the person. It does not stay in the
// address, where it would be seen, copied and remembered.
let token = sessionStorage.getItem(KEPT) ?? '';

export function takeTokenFromAddress() {
  const given = /^#token=([\w-]+)$/.exec(location.hash);
  if (given) {
    useToken(given[1]);
    history.replaceState(null, '', location.pathname);
  }
}

export function useToken(text) {
  token = text;
  sessionStorage.setItem(KEPT, text);
}

async function call(path, options) {
  const headers = { ...options.headers, ...(token && { Authorization: `Bearer ${token}` }) };
  let answer;
  try {
    answer = await fetch(path, { ...options, headers, cache: 'no-store' });
  } catch {
    throw new Problem(0, texts.noAnswer);
  }
  if (!answer.ok) {
    const told = await answer.json().catch(() => ({}));
    throw new Problem(answer.status, told.detail ?? told.title ?? `${texts.noAnswer} (${answer.status})`);
  }
  return answer;
}

async function document_(path, options) {
  const answer = await call(path, { ...options, signal: AbortSignal.timeout(REQUEST_MS) });
  const text = await answer.text().catch(() => {
    throw new Problem(0, texts.noAnswer);
  });
  return text ? JSON.parse(text) : {};
}

export const get = (path) => document_(`/v1/${path}`, {});

// A message on a keyword. An answer that says no is a Problem, too.
export async function send(keyword, message = {}) {
  const headers = { 'Content-Type': 'application/json' };
  const answer = await document_(`/v1/${keyword}`, { method: 'POST', headers, body: JSON.stringify(message) });
  const refused = [answer, ...(answer.messages ?? [])].find((part) => part.bSuccess === false);
  if (refused) {
    throw new Problem(200, refused.text || texts.errorCodes[refused.ErrCode] || refused.ErrCode);
  }
  return answer;
}

// Hands each event to `onEvent(name, document)` until the stream ends, which it tells by a Problem, or `signal` ends it.
export async function follow(path, { onOpen = () => {}, onEvent, signal }) {
  const patience = new AbortController();
  let timer;
  const heard = () => {
    clearTimeout(timer);
    timer = setTimeout(() => patience.abort(), SILENCE_MS);
  };
  heard();
  try {
    const answer = await call(`/v1/${path}`, { signal: AbortSignal.any([patience.signal, ...(signal ? [signal] : [])]) });
    onOpen();
    const reader = answer.body.pipeThrough(new TextDecoderStream()).getReader();
    let rest = '';
    for (;;) {
      const { value, done } = await reader.read();
      if (done) {
        throw new Problem(0, texts.noAnswer);
      }
      heard();
      const blocks = (rest + value).split('\n\n');
      rest = blocks.pop();
      blocks.forEach((block) => readEvent(block, onEvent));
    }
  } catch (problem) {
    throw problem instanceof Problem ? problem : new Problem(0, texts.noAnswer);
  } finally {
    clearTimeout(timer);
    patience.abort();
  }
}

function readEvent(block, onEvent) {
  const fields = Object.fromEntries(block.split('\n').map((line) => line.split(/: ?(.*)/s, 2)));
  if (fields.data) {
    onEvent(fields.event, JSON.parse(fields.data));
  }
}
