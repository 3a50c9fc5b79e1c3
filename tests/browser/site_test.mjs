// Walks the example site in Debian's chromium, driven by playwright-core: every page reached
// from the start page is opened; a page fails on bracketed error text, on a link, picture,
// stylesheet or script that does not answer 200, and on errors in the browser's console. The
// guestbook, the upload and the chat are then used as a visitor would. A screenshot of every
// page goes to SHOTS.
//
//   node site_test.mjs BASE SHOTS CHROMIUM UPLOAD_PICTURE
import { chromium } from 'playwright-core';
import fs from 'node:fs';
import path from 'node:path';

const [base, shots, executable, picture] = process.argv.slice(2);
fs.mkdirSync(shots, { recursive: true });
let failed = 0;
const fail = (what) => { failed = 1; console.log(`FAIL: ${what}`); };
const ok = (what) => console.log(`ok: ${what}`);

// playwright starts chromium headless, with a fresh profile folder of its own.
const browser = await chromium.launch({
  executablePath: executable,
  args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
    '--disable-background-networking', '--disable-component-update', '--disable-sync'],
});
// MEMBER (name:password) answers the members' area's password prompt.
const [user, password] = (process.env.MEMBER || ':').split(':');
const context = await browser.newContext({
  viewport: { width: 1100, height: 800 },
  httpCredentials: { username: user, password },
});
const page = await context.newPage();
let consoleErrors = [];
page.on('console', (m) => { if (m.type() === 'error') consoleErrors.push(m.text()); });
page.on('pageerror', (e) => consoleErrors.push(String(e)));

const checked = new Map();  // URL -> status, so each link is asked for once
async function status(url) {
  if (!checked.has(url)) {
    const answer = await context.request.get(url, { maxRedirects: 0 });
    checked.set(url, answer.status());
  }
  return checked.get(url);
}

const shotName = (url) => {
  const u = new URL(url);
  return (u.pathname.replace(/^\/|\/$/g, '').replace(/[/.]/g, '_') || 'index') +
    (u.search ? '_' + u.search.slice(1).replace(/[^a-z0-9]+/gi, '_') : '');
};

// Opens a page (or takes the one on screen) and checks it; returns the links it holds.
async function check(url, name, goThere = true) {
  consoleErrors = [];
  if (goThere) {
    const answer = await page.goto(url, { waitUntil: 'load' });
    if (answer.status() !== 200) fail(`${name}: status ${answer.status()}`);
  }
  await page.waitForLoadState('load');
  await page.screenshot({ path: path.join(shots, `${name}.png`), fullPage: true });
  const text = await page.evaluate(() => document.body ? document.body.innerText : '');
  const title = await page.title();
  const errors = text.match(/\[[^\]\n]{1,200}\]/g);
  if (errors || title === 'Error!') fail(`${name}: error text ${JSON.stringify(errors || title)}`);
  const refs = await page.evaluate(() => [
    ...[...document.querySelectorAll('a[href]')].map((a) => ['link', a.href]),
    ...[...document.querySelectorAll('img')].map((i) => ['picture', i.src]),
    ...[...document.querySelectorAll('link[href]')].map((l) => ['head link', l.href]),
    ...[...document.querySelectorAll('script[src]')].map((s) => ['script', s.src]),
  ]);
  for (const [kind, ref] of refs) {
    if (!ref.startsWith(base)) continue;
    const code = await status(ref.replace(/#.*/, ''));
    if (code !== 200) fail(`${name}: ${kind} ${ref} answers ${code}`);
  }
  const broken = await page.evaluate(() =>
    [...document.querySelectorAll('img')].filter((i) => !i.complete || i.naturalWidth === 0)
      .map((i) => i.src));
  if (broken.length) fail(`${name}: pictures not shown: ${broken.join(' ')}`);
  if (consoleErrors.length) fail(`${name}: console errors: ${consoleErrors.join(' | ')}`);
  if (!failed) ok(`${name}`);
  return refs.filter(([kind, ref]) => kind === 'link' && ref.startsWith(base))
    .map(([, ref]) => ref.replace(/#.*/, ''));
}

// Every page: each path reached from the start page is opened once (a link with a query,
// such as the calendar's next month, is checked for its status only); downloads are not
// opened, their status is checked with the links.
const seen = new Set();
const queue = [base + '/'];
while (queue.length) {
  const url = queue.shift();
  const u = new URL(url);
  if (seen.has(u.pathname)) continue;
  seen.add(u.pathname);
  for (const link of await check(url, shotName(url))) {
    const l = new URL(link);
    if (!seen.has(l.pathname) && !l.search) queue.push(l.origin + l.pathname);
  }
}
console.log(`visited ${seen.size} pages: ${[...seen].join(' ')}`);
const want = (process.env.SITE_PAGES || '').split(' ').filter(Boolean);
for (const p of want) if (!seen.has(p)) fail(`the menu does not reach ${p}`);

// Submits the form on screen and waits for the next page.
async function submit(form) {
  await Promise.all([page.waitForNavigation({ waitUntil: 'load' }),
    page.click(`${form} [type=submit]`)]);
}
async function shows(what, name, text) {
  const body = await page.evaluate(() => document.body.innerText);
  if (body.includes(text)) ok(`${what}: the page shows "${text}"`);
  else fail(`${what}: the page does not show "${text}"`);
  await check(page.url(), name, false);
}

// The guestbook: sign it, and the entry is on the next page, escaped.
await page.goto(base + '/guestbook.html');
await page.fill('#who', 'Dora <b>');
await page.fill('#text', 'Tried the muesli; very good.');
await submit('form');
await shows('guestbook', 'guestbook_signed', 'Thank you for your entry, Dora <b>.');
await shows('guestbook', 'guestbook_signed', 'Dora <b> wrote: Tried the muesli; very good.');

// The order form: a wrong mail address is pointed out, then the order is taken.
await page.goto(base + '/form.html');
await page.fill('#name', 'Eve');
await page.fill('#email', 'eve-at-home');
await page.selectOption('#tea', 'Honey');
await submit('form.card');
await shows('order form', 'form_mistake', 'This does not look like a mail address.');
await page.fill('#email', 'eve@example.org');
await page.fill('#boxes', '3');
await page.check('input[value="gift wrap"]');
await submit('form.card');
await shows('order form', 'form_ordered', 'Thank you, Eve. 3 boxes of Honey with gift wrap will be on their way to you soon. We write to eve@example.org');

// The gallery: a picture sent through the upload form is shown with its size.
await page.goto(base + '/gallery.html');
const before = await page.locator('.gallery img').count();
await page.setInputFiles('#picture', picture);
await page.fill('#title', 'Our new teapot');
await Promise.all([page.waitForFunction(() => /in the gallery now/.test(document.body.innerText)),
  page.click('form.upload [type=submit]')]);
await page.waitForFunction((n) => document.querySelectorAll('.gallery img').length === n + 1 &&
  [...document.images].every((i) => i.complete), before);
await shows('upload', 'gallery_uploaded', 'Our new teapot');
await shows('upload', 'gallery_uploaded', '120 by 24 pixels');

// The chat, when the site has one: join with a nick, post, and the message is listed.
if (seen.has('/chat.html')) {
  await page.goto(base + '/chat.html');
  await page.fill('input[name=nick]', 'Dora');
  await submit('form');
  await page.fill('input[name=text]', 'Hello, is the <i>oolong</i> back?');
  await submit('form');
  await shows('chat', 'chat_posted', 'Hello, is the <i>oolong</i> back?');
}

await browser.close();
console.log(failed ? 'some checks failed' : 'all checks passed');
process.exit(failed);
