// Makes design pages for the browser test from the built page template, by
// the same placeholder replacement the lab program does, and beside each page
// the expectations the test checks it against.
//
//   node make_view_fixture.mjs TEMPLATE PLACEHOLDER OUTDIR
//
// design.html: an ellipsoid device with 8 sensors on non-consecutive
//   channels, a box obstacle, a 10-degree grid whose longitudes and latitudes
//   stop one step short of +180 and +90 (as the analysis grid's running sums
//   do), and a warning full of markup that must arrive as plain text.
// empty.html: no sensors, no score, no run record, nothing seen anywhere.

import fs from 'node:fs';
import path from 'node:path';

const [templatePath, placeholder, outDir] = process.argv.slice(2);
if (!outDir) {
  console.error('usage: node make_view_fixture.mjs TEMPLATE PLACEHOLDER OUTDIR');
  process.exit(2);
}

const RAD = Math.PI / 180;
const direction = (lon, lat) => [Math.sin(lon) * Math.cos(lat), Math.sin(lat), Math.cos(lon) * Math.cos(lat)];
const dot = (a, b) => a[0] * b[0] + a[1] * b[1] + a[2] * b[2];

function base64(typedArray) {
  return Buffer.from(typedArray.buffer, typedArray.byteOffset, typedArray.byteLength).toString('base64');
}

function float32LE(values) {
  const buffer = Buffer.alloc(4 * values.length);
  values.forEach((v, i) => buffer.writeFloatLE(v, 4 * i));
  return buffer.toString('base64');
}

function uint32LE(values) {
  const buffer = Buffer.alloc(4 * values.length);
  values.forEach((v, i) => buffer.writeUInt32LE(v, 4 * i));
  return buffer.toString('base64');
}

const AXES = [45, 30, 60]; // ellipsoid half-axes, mm

function ellipsoidPoint(lon, lat) {
  const d = direction(lon, lat);
  return d.map((c, i) => c * AXES[i]);
}

function ellipsoidNormal(p) {
  const n = p.map((c, i) => c / (AXES[i] * AXES[i]));
  const length = Math.hypot(...n);
  return n.map((c) => c / length);
}

function ellipsoidTriangles(lonSteps, latSteps) {
  const out = [];
  for (let i = 0; i < lonSteps; ++i) {
    for (let j = 0; j < latSteps; ++j) {
      const lon0 = -Math.PI + (2 * Math.PI * i) / lonSteps;
      const lon1 = -Math.PI + (2 * Math.PI * (i + 1)) / lonSteps;
      const lat0 = -Math.PI / 2 + (Math.PI * j) / latSteps;
      const lat1 = -Math.PI / 2 + (Math.PI * (j + 1)) / latSteps;
      const [a, b, c, d] = [ellipsoidPoint(lon0, lat0), ellipsoidPoint(lon1, lat0), ellipsoidPoint(lon1, lat1), ellipsoidPoint(lon0, lat1)];
      out.push(...a, ...b, ...c, ...a, ...c, ...d);
    }
  }
  return out;
}

function boxTriangles([x0, y0, z0], [x1, y1, z1]) {
  const v = (i) => [i & 1 ? x1 : x0, i & 2 ? y1 : y0, i & 4 ? z1 : z0];
  const faces = [[0, 1, 3, 2], [4, 6, 7, 5], [0, 4, 5, 1], [2, 3, 7, 6], [0, 2, 6, 4], [1, 5, 7, 3]];
  return faces.flatMap(([a, b, c, d]) => [...v(a), ...v(b), ...v(c), ...v(a), ...v(c), ...v(d)]);
}

// A stand-in for the analysis table: a sensor counts as seen when its normal
// is within 60 degrees of the direction; the grade and the uncertainties
// follow from the count, with a few grade-96 rows so that every grade occurs.
function coverageOf(sensors, stepDegrees) {
  const longitudes = [];
  for (let a = -180; a < 180; a += stepDegrees) longitudes.push(a * RAD);
  const latitudes = [];
  for (let e = -90; e < 90; e += stepDegrees) latitudes.push(e * RAD);
  const rows = [];
  longitudes.forEach((lon, i) => {
    latitudes.forEach((lat) => {
      const d = direction(lon, lat);
      let mask = 0;
      sensors.forEach((s, k) => {
        if (dot(s.normal, d) > Math.cos(60 * RAD)) mask |= 1 << k;
      });
      const count = sensors.filter((_, k) => mask & (1 << k)).length;
      let grade = count < 4 ? 0 : count === 4 ? 99 : 100;
      if (count >= 4 && i % 7 === 3) grade = 96;
      const fix = count >= 4;
      rows.push({ lon, lat, mask: mask >>> 0, count, grade, position: fix ? 0.004 / (count - 3) : 1, rotation: fix ? 0.03 / (count - 3) : 1 });
    });
  });
  const json = {
    stepDegrees: stepDegrees,
    distanceMeters: 2.0,
    longitudes,
    latitudes,
    visibleMask: uint32LE(rows.map((r) => r.mask)),
    visibleCount: base64(Uint8Array.from(rows.map((r) => r.count))),
    grade: base64(Uint8Array.from(rows.map((r) => r.grade))),
    positionSigma: float32LE(rows.map((r) => r.position)),
    rotationSigma: float32LE(rows.map((r) => r.rotation)),
  };
  return { json, rows };
}

// One row for each visible count that occurs away from the poles, so that a
// page which mixes up rows shows the wrong count somewhere.
function directionsToCheck(rows) {
  const byCount = new Map();
  for (const r of rows) {
    if (Math.abs(r.lat) <= 60 * RAD && !byCount.has(r.count)) byCount.set(r.count, r);
  }
  return [...byCount.values()].map((r) => ({
    longitude: r.lon,
    latitude: r.lat,
    visibleCount: r.count,
    grade: r.grade,
    positionSigma: r.position,
    rotationSigma: r.rotation,
  }));
}

function fillTemplate(data) {
  const template = fs.readFileSync(templatePath, 'utf8');
  const first = template.indexOf(placeholder);
  if (first < 0 || template.indexOf(placeholder, first + 1) >= 0) throw new Error(`${templatePath}: the placeholder must occur exactly once`);
  const json = JSON.stringify(data).replaceAll('<', '\\u003c');
  return template.slice(0, first) + json + template.slice(first + placeholder.length);
}

function write(name, data, expectations) {
  fs.writeFileSync(path.join(outDir, `${name}.html`), fillTemplate(data));
  fs.writeFileSync(path.join(outDir, `${name}.expect.json`), JSON.stringify(expectations, null, 2));
}

fs.mkdirSync(outDir, { recursive: true });

const placements = [[0, 0], [40, 10], [-40, 10], [0, 45], [0, -40], [90, 0], [-100, 20], [150, -10]];
const channels = [0, 2, 3, 5, 8, 9, 11, 14];
const sensors = placements.map(([lon, lat], k) => {
  const position = ellipsoidPoint(lon * RAD, lat * RAD);
  return { channel: channels[k], position, normal: ellipsoidNormal(position) };
});
const surface = ellipsoidTriangles(32, 16);
const obstacle = boxTriangles([-50, -95, -50], [50, -75, 50]);
const coverage = coverageOf(sensors, 10);
sensors.forEach((s, k) => {
  s.seenShare = coverage.rows.filter((r) => r.mask & (1 << k)).length / coverage.rows.length;
});
const warning = '1 of 8 sensors lies off the surface (worst 4.2 mm) </script><!--<script> & done';

write(
  'design',
  {
    format: 1,
    title: 'ellipsoid-design',
    generatedBy: 'view fixture',
    score: 321.5,
    settings: { orientations: 1250, maxIncidenceDegrees: 60, qualityRange: '0.002 0.02' },
    runRecord: { seed: 1234, trials: 11700, machine: { cores: 2, load: [0.5, 0.4] } },
    warnings: [warning],
    sensorSizeMm: 6,
    surface: { name: 'ellipsoid.stl', triangles: surface.length / 9, decimatedFrom: null, positions: float32LE(surface) },
    obstacles: [{ name: 'box.stl', triangles: obstacle.length / 9, decimatedFrom: null, positions: float32LE(obstacle) }],
    sensors,
    coverage: coverage.json,
  },
  {
    title: 'ellipsoid-design',
    score: 321.5,
    warnings: [warning],
    sensorCount: sensors.length,
    obstacleCount: 1,
    directions: directionsToCheck(coverage.rows),
    sensors: [1, 6].map((k) => ({ index: k, channel: channels[k], longitude: placements[k][0] * RAD, latitude: placements[k][1] * RAD })),
  },
);

const emptyCoverage = coverageOf([], 30);
write(
  'empty',
  {
    format: 1,
    title: 'no-sensors',
    generatedBy: 'view fixture',
    score: null,
    settings: {},
    runRecord: null,
    warnings: [],
    surface: { name: 'ellipsoid.stl', triangles: surface.length / 9, decimatedFrom: null, positions: float32LE(surface) },
    obstacles: [],
    sensors: [],
    coverage: emptyCoverage.json,
  },
  {
    title: 'no-sensors',
    score: null,
    warnings: [],
    sensorCount: 0,
    obstacleCount: 0,
    directions: directionsToCheck(emptyCoverage.rows),
    sensors: [],
  },
);
