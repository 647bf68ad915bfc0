// Drives the viewer in headless Chromium through the steps browser_test.cpp lists, printing
// what it saw as JSON lines and "restart" when the server is to come back asking for a ticket;
// exits non-zero with the reason on the first failed check.
'use strict';

const path = require('path');
const fs = require('fs');
const os = require('os');

const [url, bodiesText, screenshot, modules, chromium = '/usr/bin/chromium'] = process.argv.slice(2);
if (!url || !bodiesText || !screenshot || !modules) {
  console.error('usage: node viewer_check.cjs URL BODIES SCREENSHOT NODE_MODULES [CHROMIUM]');
  process.exit(2);
}
const expectedBodies = Number(bodiesText);
const puppeteer = require(path.join(modules, 'puppeteer-core'));

const problems = [];  // what the page reported going wrong

async function waitFor(page, what, predicate, arg, timeout = 20000) {
  try {
    await page.waitForFunction(predicate, { timeout, polling: 50 }, arg);
  } catch (e) {
    const state = await page.evaluate(() => JSON.stringify(window.viewer || null));
    throw new Error(`${what}: not seen within ${timeout} ms; page state ${state}; ` +
                    `page problems: ${problems.join('; ') || 'none'}`);
  }
}

async function main() {
  const profile = fs.mkdtempSync(path.join(os.tmpdir(), 'qor-viewer-chromium-'));
  const browser = await puppeteer.launch({
    executablePath: chromium,
    headless: true,
    userDataDir: profile,
    args: ['--headless=new', '--no-sandbox', '--enable-unsafe-swiftshader',
           '--use-angle=swiftshader', '--disable-background-networking',
           '--disable-component-update', '--disable-sync', '--no-first-run',
           '--window-size=1024,640'],
  });
  try {
    const page = await browser.newPage();
    await page.setViewport({ width: 1024, height: 640 });
    page.on('pageerror', (e) => problems.push('page error: ' + e.message));
    page.on('console', (m) => { if (m.type() === 'error') problems.push('console: ' + m.text()); });
    page.on('requestfailed', (r) => problems.push('request failed: ' + r.url()));

    await page.goto(url, { waitUntil: 'load', timeout: 20000 });
    await waitFor(page, 'connected and drawing ' + expectedBodies + ' bodies',
                  (n) => window.viewer && window.viewer.ready && window.viewer.bodies === n,
                  expectedBodies);
    const initial = await page.evaluate(() => window.viewer.poses);

    // The scene waits stopped; the page's Start runs it. Then two published steps, as the
    // page holds them.
    await page.click('#start');
    await waitFor(page, 'the running state and a published step',
                  () => window.viewer.state === 'running' && window.viewer.updates > 0);
    const first = await page.evaluate(() => ({ step: window.viewer.step, poses: window.viewer.poses }));
    await waitFor(page, 'a later step', (s) => window.viewer.step >= s + 2, first.step);
    const second = await page.evaluate(() => ({ step: window.viewer.step, poses: window.viewer.poses }));
    const moved = Object.keys(first.poses).filter((id) => {
      const a = first.poses[id], b = second.poses[id];
      return b && Math.hypot(a[0] - b[0], a[1] - b[1], a[2] - b[2]) > 1e-6;
    });
    if (moved.length === 0) throw new Error(`no body moved from step ${first.step} to ${second.step}`);

    // Reset stops and puts the scene back as the page first read it; Start runs it again.
    await page.click('#reset');
    await waitFor(page, 'the scene as it began', (p0) => window.viewer.state === 'stopped' &&
                  Object.keys(p0).every((id) => window.viewer.poses[id] &&
                    window.viewer.poses[id].every((v, i) => Math.abs(v - p0[id][i]) < 1e-9)),
                  initial);
    const updatesBefore = await page.evaluate(() => window.viewer.updates);
    await page.click('#start');
    await waitFor(page, 'running again', (n) => window.viewer.state === 'running' &&
                  window.viewer.updates > n, updatesBefore);

    await page.click('#pause');
    await waitFor(page, 'the paused state', () => window.viewer.state === 'paused');

    // A single step while paused comes back through the page and is drawn, with the step
    // period just set. States published before the pause may still arrive; let them land.
    await page.evaluate(() => { document.getElementById('period').value = '10'; });
    await page.click('#period-form button');
    await waitFor(page, 'the new step period',
                  () => window.viewer.calls.some(([name]) => name === 'SET_SERVER_PERIOD_MS'));
    await new Promise((r) => setTimeout(r, 500));
    const before = await page.evaluate(() => ({ step: window.viewer.step, time: window.viewer.time }));
    await page.click('#step-once');
    await waitFor(page, 'the single step', (s) => window.viewer.step > s, before.step);
    await page.evaluate(() => new Promise((r) => requestAnimationFrame(() => r())));
    const after = await page.evaluate(() => ({ step: window.viewer.step, time: window.viewer.time }));
    const pausedAt = after.step;
    // The page's time was last published and may lag the server's by a few steps of the old
    // period (1/60 s); on top of those comes exactly one step of 10 ms.
    const dt = after.time - before.time;
    const oldSteps = (dt - 0.010) * 60;
    if (!(Math.round(oldSteps) >= 0 && Math.round(oldSteps) <= 3 &&
          Math.abs(oldSteps - Math.round(oldSteps)) < 0.01))
      throw new Error(`a step of 10 ms moved the time by ${dt} s`);

    fs.mkdirSync(path.dirname(screenshot), { recursive: true });
    const png = await page.screenshot({ path: screenshot, type: 'png' });
    const colours = await page.evaluate(async (b64) => {
      const img = new Image();
      img.src = 'data:image/png;base64,' + b64;
      await img.decode();
      const c = document.createElement('canvas');
      c.width = img.width; c.height = img.height;
      const g = c.getContext('2d');
      g.drawImage(img, 0, 0);
      const d = g.getImageData(0, 0, c.width, c.height).data;
      const seen = new Set();
      for (let i = 0; i < d.length; i += 4 * 7) seen.add((d[i] << 16) | (d[i + 1] << 8) | d[i + 2]);
      return seen.size;
    }, Buffer.from(png).toString('base64'));
    if (colours < 32) throw new Error(`the screenshot looks blank: ${colours} colours`);
    if (problems.length) throw new Error(problems.join('; '));

    console.log(JSON.stringify({
      checked: true, bodies: expectedBodies, moved: moved.length, steps: [first.step, second.step],
      paused_at: pausedAt, colours,
    }));

    // The server goes away and comes back on the same port, now asking for a ticket: the page
    // notices, asks for it, and joins again by itself.
    console.log('restart');
    problems.length = 0;
    await waitFor(page, 'the lost connection', () => !window.viewer.ready);
    await waitFor(page, 'the ticket request', () => window.viewer.connection === 'needs a ticket',
                  undefined, 30000);
    await page.type('#ticket', 'viewer-secret');
    await page.click('#ticket-form button');
    await waitFor(page, 'the new session', () => window.viewer.ready && window.viewer.bodies === 0);
    // While the server is away the browser reports each refused connection attempt, and
    // autobahn a send on the socket the server closed.
    const unexpected = problems.filter(
      (p) => !/WebSocket connection to|ERR_CONNECTION_REFUSED|WebSocket is already in CLOSING/.test(p));
    if (unexpected.length) throw new Error(unexpected.join('; '));
    console.log(JSON.stringify({ ok: true }));
  } finally {
    await browser.close();
    fs.rmSync(profile, { recursive: true, force: true });
  }
}

main().catch((e) => {
  console.error('viewer check failed: ' + (e && e.message ? e.message : e));
  process.exit(1);
});
