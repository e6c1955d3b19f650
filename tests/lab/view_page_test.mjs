// Opens a design page from its file path in headless Chromium and checks it
// as a person would use it: real mouse clicks on the sphere and on sensors,
// the colouring switch, an obstacle switch, and screenshots.
//
//   node view_page_test.mjs PAGE.html EXPECTATIONS.json [SCREENSHOT_DIR]
//
// EXPECTATIONS: { title, score, warnings: [text], sensorCount, obstacleCount,
//   directions: [{ longitude, latitude (radians), visibleCount, and optionally
//                  grade, positionSigma (metres), rotationSigma (radians) }],
//   sensors: [{ index, channel, longitude, latitude (where to look from) }] }
// The browser is Debian's /usr/bin/chromium (or $SENSORLAY_CHROMIUM).

import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import zlib from 'node:zlib';
import { fileURLToPath, pathToFileURL } from 'node:url';

const [pagePath, expectPath, shotDir] = process.argv.slice(2);
if (!expectPath) {
  console.error('usage: node view_page_test.mjs PAGE.html EXPECTATIONS.json [SCREENSHOT_DIR]');
  process.exit(2);
}

const repo = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '../..');
const chromium = process.env.SENSORLAY_CHROMIUM || '/usr/bin/chromium';
if (!fs.existsSync(chromium)) {
  console.error(`FAIL: no browser at ${chromium}; scripts/install-deps.sh installs Debian's chromium`);
  process.exit(1);
}
let puppeteer;
try {
  puppeteer = (await import(pathToFileURL(path.join(repo, 'node_modules/puppeteer-core/lib/esm/puppeteer/puppeteer-core.js')).href)).default;
} catch (e) {
  console.error(`FAIL: puppeteer-core is not installed in ${repo}/node_modules (${e.message}); run scripts/install-deps.sh`);
  process.exit(1);
}

const expected = JSON.parse(fs.readFileSync(expectPath, 'utf8'));
const failures = [];
let passed = 0;
function check(condition, what) {
  if (condition) ++passed;
  else failures.push(what);
}

// Screenshots are PNG; the checks need their pixels.
function decodePng(buffer) {
  let offset = 8;
  let width = 0;
  let height = 0;
  let channels = 0;
  const data = [];
  while (offset < buffer.length) {
    const length = buffer.readUInt32BE(offset);
    const type = buffer.toString('latin1', offset + 4, offset + 8);
    const body = buffer.subarray(offset + 8, offset + 8 + length);
    if (type === 'IHDR') {
      width = body.readUInt32BE(0);
      height = body.readUInt32BE(4);
      if (body[8] !== 8 || body[12] !== 0) throw new Error('unexpected PNG layout');
      channels = { 2: 3, 6: 4 }[body[9]];
      if (!channels) throw new Error(`unexpected PNG colour type ${body[9]}`);
    } else if (type === 'IDAT') {
      data.push(body);
    }
    offset += 12 + length;
  }
  const raw = zlib.inflateSync(Buffer.concat(data));
  const stride = width * channels;
  const pixels = Buffer.alloc(height * stride);
  for (let y = 0; y < height; ++y) {
    const filter = raw[y * (stride + 1)];
    for (let x = 0; x < stride; ++x) {
      const value = raw[y * (stride + 1) + 1 + x];
      const left = x >= channels ? pixels[y * stride + x - channels] : 0;
      const up = y > 0 ? pixels[(y - 1) * stride + x] : 0;
      const upLeft = x >= channels && y > 0 ? pixels[(y - 1) * stride + x - channels] : 0;
      let predicted = 0;
      if (filter === 1) predicted = left;
      else if (filter === 2) predicted = up;
      else if (filter === 3) predicted = (left + up) >> 1;
      else if (filter === 4) {
        const p = left + up - upLeft;
        const [pa, pb, pc] = [Math.abs(p - left), Math.abs(p - up), Math.abs(p - upLeft)];
        predicted = pa <= pb && pa <= pc ? left : pb <= pc ? up : upLeft;
      }
      pixels[y * stride + x] = (value + predicted) & 0xff;
    }
  }
  return { width, height, channels, pixels };
}

function distinctColours(image) {
  const seen = new Set();
  for (let i = 0; i < image.pixels.length; i += image.channels) {
    seen.add((image.pixels[i] << 16) | (image.pixels[i + 1] << 8) | image.pixels[i + 2]);
  }
  return seen.size;
}

function changedShare(a, b) {
  let changed = 0;
  for (let i = 0; i < a.pixels.length; i += a.channels) {
    if (a.pixels[i] !== b.pixels[i] || a.pixels[i + 1] !== b.pixels[i + 1] || a.pixels[i + 2] !== b.pixels[i + 2]) ++changed;
  }
  return changed / (a.width * a.height);
}

const profile = fs.mkdtempSync(path.join(os.tmpdir(), 'sensorlay-view-'));
const browser = await puppeteer.launch({
  executablePath: chromium,
  headless: true,
  userDataDir: profile,
  args: [
    '--no-sandbox',
    '--disable-gpu',
    '--disable-quic',
    '--no-first-run',
    '--disable-background-networking',
    '--disable-component-update',
    '--disable-sync',
    // WebGL without a GPU: SwiftShader through ANGLE.
    '--use-angle=swiftshader',
    '--enable-unsafe-swiftshader',
  ],
});

try {
  const page = await browser.newPage();
  await page.setViewport({ width: 1280, height: 800 });
  const consoleErrors = [];
  const requests = [];
  page.on('console', (message) => {
    if (message.type() === 'error') consoleErrors.push(message.text());
  });
  page.on('pageerror', (error) => consoleErrors.push(String(error)));
  page.on('request', (request) => {
    if (!/^(file|data|blob):/.test(request.url())) requests.push(request.url());
  });

  await page.goto(pathToFileURL(path.resolve(pagePath)).href, { waitUntil: 'load' });
  await page.waitForFunction(() => document.body.dataset.viewState !== 'loading', { timeout: 30000 });
  const state = await page.evaluate(() => ({
    view: document.body.dataset.viewState,
    fatal: document.getElementById('fatal').hidden ? '' : document.getElementById('fatal').textContent,
  }));
  if (state.view !== 'ready') throw new Error(`the page did not get ready: ${state.view} ${state.fatal}`);

  const shown = await page.evaluate(() => ({
    title: document.getElementById('design-title').textContent,
    score: document.getElementById('score').dataset.score,
    warnings: [...document.querySelectorAll('#warnings li')].map((li) => li.textContent),
    markers: window.sensorlayView.sensorMarkerCount(),
    labels: document.querySelectorAll('.sensor-label').length,
    listed: document.querySelectorAll('#sensor-list tr[data-index]').length,
    obstacleSwitches: document.querySelectorAll('#obstacle-toggles input').length,
  }));
  check(shown.title === expected.title, `title: shows "${shown.title}", expected "${expected.title}"`);
  check(shown.score === (expected.score === null ? '' : String(expected.score)), `score: shows "${shown.score}", expected ${expected.score}`);
  check(JSON.stringify(shown.warnings) === JSON.stringify(expected.warnings), `warnings: shows ${JSON.stringify(shown.warnings)}`);
  check(shown.markers === expected.sensorCount, `sensor markers: ${shown.markers}, expected ${expected.sensorCount}`);
  check(shown.labels === expected.sensorCount && shown.listed === expected.sensorCount, `labels ${shown.labels} and list rows ${shown.listed}, expected ${expected.sensorCount}`);
  check(shown.obstacleSwitches === expected.obstacleCount, `obstacle switches: ${shown.obstacleSwitches}, expected ${expected.obstacleCount}`);

  check(expected.directions.length > 0, 'the expectations name no direction to click');
  for (const d of expected.directions) {
    const name = `direction (${((d.longitude * 180) / Math.PI).toFixed(1)}°, ${((d.latitude * 180) / Math.PI).toFixed(1)}°)`;
    await page.evaluate((lon, lat) => window.sensorlayView.lookFrom(lon, lat), d.longitude, d.latitude);
    const at = await page.evaluate((lon, lat) => window.sensorlayView.directionToScreen(lon, lat), d.longitude, d.latitude);
    if (!at) {
      check(false, `${name}: no point of it can be clicked after looking from it`);
      continue;
    }
    await page.mouse.click(at.x, at.y);
    const info = await page.evaluate(() => ({
      ...document.getElementById('direction-info').dataset,
      lit: document.querySelectorAll('.sensor-label.lit').length,
    }));
    check(info.pinned === 'true', `${name}: the click did not keep the direction`);
    check(info.visibleCount === String(d.visibleCount), `${name}: shows ${info.visibleCount} visible sensors, expected ${d.visibleCount}`);
    if (d.grade !== undefined) check(info.grade === String(d.grade), `${name}: shows grade ${info.grade}, expected ${d.grade}`);
    for (const key of ['positionSigma', 'rotationSigma']) {
      if (d[key] === undefined) continue;
      const close = Math.abs(Number(info[key]) - d[key]) <= 1e-6 * Math.max(1e-3, d[key]);
      check(close, `${name}: shows ${key} ${info[key]}, expected ${d[key]}`);
    }
    check(info.lit === d.visibleCount, `${name}: ${info.lit} sensors highlighted, expected ${d.visibleCount}`);
  }

  for (const s of expected.sensors) {
    await page.evaluate((lon, lat) => window.sensorlayView.lookFrom(lon, lat), s.longitude, s.latitude);
    const at = await page.evaluate((k) => window.sensorlayView.sensorToScreen(k), s.index);
    if (!at) {
      check(false, `sensor ${s.index}: cannot be clicked when looked at from its side`);
      continue;
    }
    await page.mouse.click(at.x, at.y);
    const channel = await page.evaluate(() => document.getElementById('sensor-info').dataset.channel);
    check(channel === String(s.channel), `sensor ${s.index}: the panel shows channel ${channel}, expected ${s.channel}`);
  }

  // Pictures: from a fixed side, with nothing kept, in two colourings.
  await page.keyboard.press('Escape');
  await page.mouse.move(5, 5); // off the picture, so that no direction is under the pointer
  await page.evaluate(() => window.sensorlayView.lookFrom(0.6, 0.4));
  const canvas = await page.$('#viewport canvas');
  const shoot = async (name) => {
    await page.evaluate(() => new Promise((resolve) => requestAnimationFrame(() => requestAnimationFrame(resolve))));
    const png = await canvas.screenshot({ type: 'png' });
    if (shotDir) {
      fs.mkdirSync(shotDir, { recursive: true });
      fs.writeFileSync(path.join(shotDir, `${path.basename(pagePath, '.html')}-${name}.png`), png);
    }
    return decodePng(png);
  };
  const byCount = await shoot('count');
  check(distinctColours(byCount) > 50, `the screenshot holds only ${distinctColours(byCount)} colours`);
  await page.select('#colouring', 'grade');
  const byGrade = await shoot('grade');
  const colouringChange = changedShare(byCount, byGrade);
  // With no sensors every direction is unseen, and the colourings agree.
  if (expected.sensorCount > 0) check(colouringChange > 0.01, `the grade colouring changed only ${(100 * colouringChange).toFixed(2)}% of the picture`);
  if (expected.obstacleCount > 0) {
    await page.click('#obstacle-0');
    const withoutObstacle = await shoot('no-obstacle');
    check(changedShare(byGrade, withoutObstacle) > 0.001, 'switching the obstacle off changed nothing');
    await page.click('#obstacle-0');
  }
  await page.select('#colouring', 'count');

  check(consoleErrors.length === 0, `console errors: ${consoleErrors.join(' | ')}`);
  check(requests.length === 0, `network requests: ${requests.join(' ')}`);
} catch (error) {
  failures.push(`the test broke off: ${error.stack || error}`);
} finally {
  await browser.close();
  fs.rmSync(profile, { recursive: true, force: true });
}

for (const failure of failures) console.error(`FAIL: ${failure}`);
console.log(`${passed} passed, ${failures.length} failed`);
process.exit(failures.length ? 1 : 0);
