// Drives a browser for a test program: one JSON line in ({"code": ...}), one out ({"value": ...} or {"error": ...}).
// The code is the body of an async function; it knows the page, the browser's context and what is made below.
import { createInterface } from 'node:readline';
import { readFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { chromium } from 'playwright-core';

const LIMIT = 60000; // generous: nothing is timed here
const FLAGS = ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
  '--disable-component-update', '--disable-sync'];
const axe = readFileSync(createRequire(import.meta.url).resolve('axe-core/axe.min.js'), 'utf8');

const folder = mkdtempSync(join(tmpdir(), 'arbor-browser-'));
const context = await chromium.launchPersistentContext(folder, {
  executablePath: process.env.ARBOR_CHROMIUM ?? '/usr/bin/chromium', args: FLAGS, viewport: { width: 1280, height: 800 },
});
context.setDefaultTimeout(LIMIT);

// What no page may do: complain, throw, or ask somebody else.
const troubles = [];
const requests = [];
const answered = [];
const refused = []; // to explain a test that failed
function watch(page) {
  page.on('console', (message) => ['error', 'warning'].includes(message.type()) && !/Failed to load resource/.test(message.text()) && troubles.push(message.text()));
  page.on('pageerror', (error) => troubles.push(String(error)));
  page.on('request', (request) => requests.push(request.url()));
  page.on('requestfinished', (request) => answered.push(request.url()));
  page.on('requestfailed', (request) => refused.push(`${request.url()}: ${request.failure()?.errorText}`));
  page.on('response', (response) => response.ok() || refused.push(`${response.url()}: ${response.status()}`));
}
context.on('page', watch);
const page = context.pages()[0] ?? await context.newPage();
watch(page);

// The rules that the page breaks as it stands, each with the first place.
async function accessibility(on = page) {
  const found = await on.evaluate(`(() => { const module = undefined, define = undefined; ${axe}; return window.axe.run(); })()`);
  return found.violations.map((rule) => `${rule.id}: ${rule.nodes.length} x ${rule.nodes[0].html.slice(0, 120)} ${rule.nodes[0].failureSummary ?? ''}`);
}
// How far something is beyond the right edge, in pixels.
const overflow = (on = page) => on.evaluate(() => document.documentElement.scrollWidth - document.documentElement.clientWidth);

const AsyncFunction = (async () => {}).constructor;
const memory = {}; // what one step leaves for the next, such as a second tab
for await (const line of createInterface({ input: process.stdin })) {
  let answer;
  try {
    const run = new AsyncFunction('page', 'context', 'memory', 'accessibility', 'overflow', 'troubles', 'requests', 'answered', 'refused', JSON.parse(line).code);
    answer = { value: (await run(page, context, memory, accessibility, overflow, troubles, requests, answered, refused)) ?? null };
  } catch (error) {
    answer = { error: String(error.stack ?? error) };
  }
  process.stdout.write(`${JSON.stringify(answer)}\n`);
}
await context.close();
rmSync(folder, { recursive: true, force: true });
