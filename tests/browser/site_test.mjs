// Walks the example site in a real browser, Debian's chromium or firefox-esr, driven by
// puppeteer-core (over the DevTools protocol for chromium, WebDriver BiDi for firefox): every
// page reached from the start page is opened; a page fails on bracketed error text, on a link,
// picture, stylesheet or script that does not answer 200, and on errors in the browser's
// console. The site's forms are then sent as a visitor sends them, by the browser itself: the
// guestbook, the order form, the contact form, the gallery's upload (a multipart form) and the
// chat. A screenshot of every page goes to SHOTS.
//
//   node site_test.mjs chromium|firefox EXECUTABLE BASE SHOTS UPLOAD_PICTURE
import puppeteer from 'puppeteer-core';
import fs from 'node:fs';
import path from 'node:path';

const [kind, executable, base, shots, picture] = process.argv.slice(2);
const firefox = kind === 'firefox';
fs.mkdirSync(shots, { recursive: true });
let failed = 0;
const fail = (what) => { failed = 1; console.log(`FAIL: ${kind}: ${what}`); };
const ok = (what) => console.log(`ok: ${kind}: ${what}`);

// Headless, with a fresh profile folder of its own.
const browser = await puppeteer.launch({
  browser: firefox ? 'firefox' : 'chrome',
  executablePath: executable,
  headless: true,
  args: firefox ? [] : ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
    '--disable-background-networking', '--disable-component-update', '--disable-sync'],
});
const page = await browser.newPage();
await page.setViewport({ width: 1100, height: 800 });
// MEMBER (name:password) answers the members' area's password prompt.
const [user, password] = (process.env.MEMBER || ':').split(':');
await page.authenticate({ username: user, password });
let consoleErrors = [];
page.on('console', (m) => { if (m.type() === 'error') consoleErrors.push(m.text()); });
page.on('pageerror', (e) => consoleErrors.push(String(e)));
// The content type of each form the browser posts, to show the boundary it chose.
const posted = [];
page.on('request', (r) => {
  if (r.method() === 'POST') posted.push(r.headers()['content-type'] || '');
});

// URL -> status, so each link is asked for once; asked outside the browser, not followed.
const checked = new Map();
const authorization = 'Basic ' + Buffer.from(`${user}:${password}`).toString('base64');
async function status(url) {
  if (!checked.has(url)) {
    const answer = await fetch(url, { redirect: 'manual', headers: { authorization } });
    await answer.arrayBuffer();
    checked.set(url, answer.status);
  }
  return checked.get(url);
}

const shotName = (url) => {
  const u = new URL(url);
  return (u.pathname.replace(/^\/|\/$/g, '').replace(/[/.]/g, '_') || 'index') +
    (u.search ? '_' + u.search.slice(1).replace(/[^a-z0-9]+/gi, '_') : '');
};
const bodyText = () => page.evaluate(() => (document.body ? document.body.innerText : ''));

// Opens a page (or takes the one on screen) and checks it; returns the links it holds.
async function check(url, name, goThere = true) {
  consoleErrors = [];
  if (goThere) {
    const answer = await page.goto(url, { waitUntil: 'load' });
    if (answer.status() !== 200) fail(`${name}: status ${answer.status()}`);
  }
  await page.screenshot({ path: path.join(shots, `${name}.png`), fullPage: true });
  const text = await bodyText();
  const title = await page.title();
  const errors = text.match(/\[[^\]\n]{1,200}\]/g);
  if (errors || title === 'Error!') fail(`${name}: error text ${JSON.stringify(errors || title)}`);
  const refs = await page.evaluate(() => [
    ...[...document.querySelectorAll('a[href]')].map((a) => ['link', a.href]),
    ...[...document.querySelectorAll('img')].map((i) => ['picture', i.src]),
    ...[...document.querySelectorAll('link[href]')].map((l) => ['head link', l.href]),
    ...[...document.querySelectorAll('script[src]')].map((s) => ['script', s.src]),
  ]);
  for (const [what, ref] of refs) {
    if (!ref.startsWith(base)) continue;
    const code = await status(ref.replace(/#.*/, ''));
    if (code !== 200) fail(`${name}: ${what} ${ref} answers ${code}`);
  }
  const broken = await page.evaluate(() =>
    [...document.querySelectorAll('img')].filter((i) => !i.complete || i.naturalWidth === 0)
      .map((i) => i.src));
  if (broken.length) fail(`${name}: pictures not shown: ${broken.join(' ')}`);
  if (consoleErrors.length) fail(`${name}: console errors: ${consoleErrors.join(' | ')}`);
  if (!failed) ok(`${name}`);
  return refs.filter(([what, ref]) => what === 'link' && ref.startsWith(base))
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
console.log(`${kind}: visited ${seen.size} pages: ${[...seen].join(' ')}`);
const want = (process.env.SITE_PAGES || '').split(' ').filter(Boolean);
for (const p of want) if (!seen.has(p)) fail(`the menu does not reach ${p}`);

// Types text into a field as a visitor does, over what it held.
async function fill(selector, text) {
  await page.$eval(selector, (e) => { e.value = ''; });
  await page.type(selector, text);
}
// Submits the form on screen with its submit button and waits for the answer.
async function submit(form) {
  await Promise.all([page.waitForNavigation({ waitUntil: 'load' }),
    page.click(`${form} [type=submit]`)]);
}
async function shows(what, name, text) {
  if ((await bodyText()).includes(text)) ok(`${what}: the page shows "${text}"`);
  else fail(`${what}: the page does not show "${text}"`);
  await check(page.url(), name, false);
}
async function holds(what, selector, text) {
  const value = await page.$eval(selector, (e) => e.value);
  if (value.replace(/\r\n/g, '\n') === text) ok(`${what}: ${selector} holds ${JSON.stringify(text)}`);
  else fail(`${what}: ${selector} holds ${JSON.stringify(value)}, not ${JSON.stringify(text)}`);
}
// Each browser signs and posts under a name of its own: both runs share one site.
const visitor = firefox ? 'Fern' : 'Dora';

// The guestbook: sign it, and the entry is on the next page, escaped.
await page.goto(base + '/guestbook.html');
await fill('#who', `${visitor} <b>`);
await fill('#text', 'Tried the muesli; very good.');
await submit('form');
await shows('guestbook', 'guestbook_signed', `Thank you for your entry, ${visitor} <b>.`);
await shows('guestbook', 'guestbook_signed', `${visitor} <b> wrote: Tried the muesli; very good.`);

// The order form: a wrong mail address is pointed out, then the order is taken.
await page.goto(base + '/form.html');
await fill('#name', visitor);
await fill('#email', 'eve-at-home');
await page.select('#tea', 'Honey');
await submit('form.card');
await shows('order form', 'form_mistake', 'This does not look like a mail address.');
await fill('#email', 'eve@example.org');
await fill('#boxes', '3');
await page.click('input[value="gift wrap"]');
await submit('form.card');
await shows('order form', 'form_ordered', `Thank you, ${visitor}. 3 boxes of Honey with gift wrap will be on their way to you soon. We write to eve@example.org`);

// The contact form: with an address that cannot be answered nothing is mailed, and the
// fields come back as the visitor typed them, line breaks included.
await page.goto(base + '/contact.html');
await fill('#from', 'eve-at-home');
await fill('#subject', 'Oolong & <more>');
await fill('#message', 'Is the oolong back?\nTwo boxes, please.');
await submit('form.card');
await shows('contact form', 'contact_mistake', 'Please give a mail address we can answer');
await holds('contact form', '#from', 'eve-at-home');
await holds('contact form', '#subject', 'Oolong & <more>');
await holds('contact form', '#message', 'Is the oolong back?\nTwo boxes, please.');

// The gallery: a picture sent through the plain upload form (multipart, with the boundary
// the browser chooses) is shown with its size.
await page.goto(base + '/gallery.html');
const before = await page.$$eval('.gallery img', (l) => l.length);
const file = await page.$('#picture');
await file.uploadFile(picture);
await fill('#title', `Our new teapot (${visitor})`);
posted.length = 0;
await submit('form.upload');
console.log(`${kind}: the upload was sent as ${JSON.stringify(posted[0])}`);
await shows('upload', 'gallery_uploaded', 'is in the gallery now');
const after = await page.$$eval('.gallery img', (l) => l.length);
if (after !== before + 1) fail(`upload: ${before} pictures before, ${after} after`);
await shows('upload', 'gallery_uploaded', `Our new teapot (${visitor})`);
await shows('upload', 'gallery_uploaded', '120 by 24 pixels');

// The chat, when the site has one: join with a nick, post, and the message is listed.
if (seen.has('/chat.html')) {
  await page.goto(base + '/chat.html');
  await fill('input[name=nick]', visitor);
  await submit('form');
  await fill('input[name=text]', `Hello from ${visitor}, is the <i>oolong</i> back?`);
  await submit('form');
  await shows('chat', 'chat_posted', `Hello from ${visitor}, is the <i>oolong</i> back?`);
}

await browser.close();
console.log(`${kind}: ${failed ? 'some checks failed' : 'all checks passed'}`);
process.exit(failed);
