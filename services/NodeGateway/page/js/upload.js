// A package file from this computer: dropped or chosen, carried over in pieces, then checked by the instrument.
import { Bar, Card } from './parts.js';
import { change, state } from './store.js';
import { html, useRef } from './preact.js';
import { isOpen, may, newestFirst, baseName } from './facts.js';
import { send } from './ask.js';
import { texts } from './texts.js';

const PIECE_BYTES = 776700; // a multiple of 3, so that only the last piece is padded
const MODE = 0o755;

const base64 = (blob) => new Promise((resolve, reject) => {
  const reader = new FileReader();
  reader.onload = () => resolve(reader.result.split(',')[1] ?? '');
  reader.onerror = () => reject(reader.error);
  reader.readAsDataURL(blob);
});

export async function carry(file) {
  const tell = (className, more) => send('upload', { className, filePath: file.name, ...more });
  change({ upload: { name: file.name, size: file.size, sent: 0, known: new Set(state.jobs.keys()) } });
  try {
    if (file.size === 0) {
      throw new Error(texts.uploadEmpty);
    }
    await tell('ZFileOpenMsg', { mode: MODE, size: file.size });
    for (let position = 0; position < file.size; position += PIECE_BYTES) {
      const data = await base64(file.slice(position, position + PIECE_BYTES));
      await tell('ZFileWriteMsg', { data, position });
      change({ upload: { ...state.upload, sent: Math.min(file.size, position + PIECE_BYTES) } });
    }
    await tell('ZFileCloseMsg', {});
    change({ upload: { ...state.upload, closed: true } });
  } catch (problem) {
    change({ upload: { ...state.upload, problem: problem.message } });
  }
}

// The newest check of that file that was not known when its carrying began.
function checkOf(upload) {
  return newestFirst(state.jobs.values()).find((job) => job.kind === 'Check' && baseName(job.file) === upload.name && !upload.known.has(job.id));
}

function Told({ upload }) {
  const { name } = upload;
  if (upload.problem) {
    return html`<p class="problem" role="alert">${texts.uploadFailed(name, upload.problem)}</p>`;
  }
  const percent = Math.floor((upload.sent * 100) / upload.size);
  if (!upload.closed) {
    return html`<p>${texts.uploading(name, percent)}</p><${Bar} percent=${percent} label=${texts.progress} />`;
  }
  const check = checkOf(upload);
  if (!check || isOpen(check)) {
    return html`<p>${texts.uploaded(name)}</p><progress aria-label=${texts.progress}></progress>`;
  }
  return check.state === 'Succeeded' ? html`<p>${texts.uploadGood(name, check.version)}</p>`
    : html`<p class="problem">${texts.uploadBad(name, check.reason)}</p>`;
}

export function Upload() {
  const input = useRef();
  if (!may(state, 'operate')) {
    return null;
  }
  const busy = state.upload && !state.upload.closed && !state.upload.problem;
  return html`<${Card} title=${texts.upload} id="upload">
    <div class="drop"><p>${texts.uploadHint}</p>
      <button type="button" disabled=${busy} onClick=${() => input.current.click()}>${texts.choose}</button>
      <input ref=${input} type="file" accept=".pkg" hidden aria-label=${texts.choose} onChange=${(event) => {
        const [file] = event.target.files;
        event.target.value = '';
        if (file) {
          carry(file);
        }
      }} /></div>
    <div class="told-upload" aria-live="polite">${state.upload && html`<${Told} upload=${state.upload} />`}</div>
  <//>`;
}

// Wherever on the page it is dropped: a file that is missed by an inch must not replace the page.
export function takeDrops() {
  addEventListener('dragover', (event) => event.preventDefault());
  addEventListener('drop', (event) => {
    event.preventDefault();
    const [file] = event.dataTransfer.files;
    const busy = state.upload && !state.upload.closed && !state.upload.problem;
    if (file && !busy && may(state, 'operate')) {
      location.hash = '#/';
      carry(file);
    }
  });
}
