// Writes the page of a real model with sensorlay-lab view and holds it to
// sensorlay's own analysis table in headless Chromium: the expectations for
// view_page_test.mjs come from the table's rows (the sensors seen and the
// grade of one direction for each count that occurs), the model file (its
// sensors) and `sensorlay-lab score` (the score under the same settings).
//
//   node design_page_check.mjs LAB SENSORLAY OUTDIR MODEL.json -- VIEW_OPTIONS...
//
// VIEW_OPTIONS are those of `view` but --out: the meshes, settings and
// --step-degrees. OUTDIR receives page.html, expect.json, table.txt and the
// screenshots in shots/.

import fs from 'node:fs';
import path from 'node:path';
import { spawnSync } from 'node:child_process';
import { fileURLToPath } from 'node:url';

const args = process.argv.slice(2);
const dash = args.indexOf('--');
const [lab, sensorlay, outDir, modelPath] = dash < 0 ? args : args.slice(0, dash);
if (dash !== 4) {
  console.error('usage: node design_page_check.mjs LAB SENSORLAY OUTDIR MODEL.json -- VIEW_OPTIONS...');
  process.exit(2);
}
const viewOptions = args.slice(dash + 1);
const here = path.dirname(fileURLToPath(import.meta.url));

function run(program, programArgs) {
  const r = spawnSync(program, programArgs, { encoding: 'utf8', maxBuffer: 1 << 28 });
  if (r.status !== 0) {
    console.error(`FAIL: ${program} ${programArgs.join(' ')} ended with ${r.status}\n${r.stderr}`);
    process.exit(1);
  }
  return r.stdout;
}

// The values of a repeatable option, and the options without the view's own.
const valuesOf = (name) => viewOptions.flatMap((a, i) => (a === name ? [viewOptions[i + 1]] : []));
const scoreOptions = viewOptions.filter((a, i) => !['--step-degrees', '--title'].includes(a) && !['--step-degrees', '--title'].includes(viewOptions[i - 1]));
const step = valuesOf('--step-degrees').pop() ?? '2';

fs.mkdirSync(outDir, { recursive: true });
const pagePath = path.join(outDir, 'page.html');
run(lab, ['view', modelPath, ...viewOptions, '--out', pagePath]);
const score = JSON.parse(run(lab, ['score', modelPath, ...scoreOptions, '--json'])).score;

const meshes = ['/sensors', valuesOf('--sensors')[0], ...valuesOf('--obstacles').flatMap((o) => ['/obstacles', o])];
const table = run(sensorlay, ['/model', modelPath, ...meshes, '/angleresolutiondegrees', step]);
fs.writeFileSync(path.join(outDir, 'table.txt'), table);

// One direction for each count seen, away from the poles and the seam of the
// grid, where a click is least ambiguous.
const byCount = new Map();
for (const line of table.split('\n')) {
  const c = line.trim().split(/\s+/);
  if (c.length < 12) continue;
  const [longitude, latitude, visibleCount, grade] = [Number(c[0]), Number(c[1]), Number(c[4]), Number(c[8])];
  if (Math.abs(latitude) > 1.0 || Math.abs(longitude) > 3.0 || byCount.has(visibleCount)) continue;
  byCount.set(visibleCount, { longitude, latitude, visibleCount, grade });
}

// The model's sensors as the page lists them: those on a channel of 0 or more.
const model = JSON.parse(fs.readFileSync(modelPath, 'utf8').replace(/^\/\/.*$/gm, ''));
const section = model.beaconet_config ?? model;
const sensors = section.channelMap
  .map((channel, k) => ({ channel, normal: section.modelNormals[k] }))
  .filter((s) => s.channel >= 0)
  .map((s, index) => ({ ...s, index }));
// Two sensors, looked at from along their normals: those that face the
// viewer most squarely from the default side are the least hidden.
const clicked = sensors
  .map((s) => {
    const [x, y, z] = s.normal;
    const length = Math.hypot(x, y, z);
    return { index: s.index, channel: s.channel, longitude: Math.atan2(x, z), latitude: Math.asin(y / length) };
  })
  .sort((a, b) => Math.abs(a.latitude) - Math.abs(b.latitude))
  .slice(0, 2);

const expectPath = path.join(outDir, 'expect.json');
fs.writeFileSync(
  expectPath,
  JSON.stringify(
    {
      title: valuesOf('--title').pop() ?? path.basename(modelPath, '.json'),
      score,
      warnings: [],
      sensorCount: sensors.length,
      obstacleCount: valuesOf('--obstacles').length,
      directions: [...byCount.values()],
      sensors: clicked,
    },
    null,
    2,
  ),
);
console.log(`${byCount.size} directions (counts ${[...byCount.keys()].sort((a, b) => a - b).join(', ')}) and ${clicked.length} sensors to click`);
const test = spawnSync(process.execPath, [path.join(here, 'view_page_test.mjs'), pagePath, expectPath, path.join(outDir, 'shots')], { stdio: 'inherit' });
process.exit(test.status ?? 1);
