// The page's reading of its data, outside the browser: which grid row a point
// of the sphere belongs to, and the refusal of inconsistent data.

import assert from 'node:assert/strict';
import test from 'node:test';
import { DataError, readDesign, rowAt } from '../../lab/view/data.js';

const RAD = Math.PI / 180;

function grid(stepDegrees, lonEnd, latEnd) {
  const longitudes = [];
  for (let a = -180; a <= lonEnd; a += stepDegrees) longitudes.push(a * RAD);
  const latitudes = [];
  for (let e = -90; e <= latEnd; e += stepDegrees) latitudes.push(e * RAD);
  return { longitudes, latitudes };
}

function encode(Type, values) {
  return Buffer.from(Type.from(values).buffer).toString('base64');
}

function design({ longitudes, latitudes }, changes = {}) {
  const rows = longitudes.length * latitudes.length;
  const zeros = new Array(rows).fill(0);
  return {
    format: 1,
    surface: { positions: encode(Float32Array, [0, 0, 0, 1, 0, 0, 0, 1, 0]) },
    sensors: [{ channel: 4, position: [0, 0, 1], normal: [0, 0, 2] }],
    ...changes,
    coverage: {
      longitudes,
      latitudes,
      visibleMask: encode(Uint32Array, zeros),
      visibleCount: encode(Uint8Array, zeros),
      grade: encode(Uint8Array, zeros),
      positionSigma: encode(Float32Array, zeros),
      rotationSigma: encode(Float32Array, zeros),
      ...changes.coverage,
    },
  };
}

// The nearest grid value, with longitude taken around the circle.
function nearest(values, x, circular) {
  let best = 0;
  let bestGap = Infinity;
  values.forEach((v, i) => {
    let gap = Math.abs(v - x);
    if (circular) gap = Math.min(gap, 2 * Math.PI - gap);
    if (gap < bestGap - 1e-12) [best, bestGap] = [i, gap];
  });
  return best;
}

test('a point of the sphere belongs to the row of the nearest grid direction, over the seam and up to the poles', () => {
  // Grids that stop short of +180 and +90, as running sums do, and full ones.
  for (const g of [grid(10, 170, 80), grid(10, 180, 90), grid(45, 135, 45)]) {
    const coverage = readDesign(design(g)).coverage;
    const n = g.latitudes.length;
    for (let lonDeg = -180; lonDeg <= 180; lonDeg += 0.7) {
      for (let latDeg = -90; latDeg <= 90; latDeg += 0.7) {
        const lon = lonDeg * RAD;
        const lat = latDeg * RAD;
        const row = rowAt(coverage, lon, lat);
        const i = Math.floor(row / n);
        const j = row % n;
        const expectedI = nearest(g.longitudes, lon, true);
        const lonGap = (v) => Math.min(Math.abs(v - lon), 2 * Math.PI - Math.abs(v - lon));
        // Points halfway between two grid longitudes may go either way.
        if (Math.abs(lonGap(g.longitudes[i]) - lonGap(g.longitudes[expectedI])) > 1e-9) {
          assert.fail(`(${lonDeg}°, ${latDeg}°) took longitude ${g.longitudes[i] / RAD}°, nearest is ${g.longitudes[expectedI] / RAD}°`);
        }
        const latGap = (v) => Math.abs(v - lat);
        if (Math.abs(latGap(g.latitudes[j]) - latGap(g.latitudes[nearest(g.latitudes, lat, false)])) > 1e-9) {
          assert.fail(`(${lonDeg}°, ${latDeg}°) took latitude ${g.latitudes[j] / RAD}°`);
        }
      }
    }
  }
});

test('inconsistent data is refused with the field named', () => {
  const g = grid(30, 150, 60);
  const rows = g.longitudes.length * g.latitudes.length;
  const cases = [
    [{ format: 2 }, /format 2/],
    [{ surface: { triangles: 2, positions: encode(Float32Array, new Array(9).fill(0)) } }, /surface: says 2 triangles but holds 1/],
    [{ surface: { positions: encode(Float32Array, [0, 0, 0, 1, 0, 0, 0, 1]) } }, /surface.positions: 8 numbers/],
    [{ sensors: [{ channel: 1, position: [0, 0], normal: [0, 0, 1] }] }, /sensors\[0\].position/],
    [{ sensors: [{ channel: 1, position: [0, 0, 0], normal: [0, 0, 0] }] }, /sensors\[0\].normal: zero length/],
    [{ coverage: { grade: encode(Uint8Array, new Array(rows - 1).fill(0)) } }, new RegExp(`coverage.grade: ${rows - 1} entries`)],
    [{ coverage: { visibleMask: encode(Uint32Array, [2, ...new Array(rows - 1).fill(0)]) } }, /visibleMask: direction 0 names a sensor beyond the 1 given/],
    [{ coverage: { latitudes: [0.5, 0.2] } }, /coverage.latitudes: not in ascending order/],
    [{ coverage: { positionSigma: 'not base64!' } }, /coverage.positionSigma: not valid base64/],
  ];
  for (const [changes, message] of cases) {
    assert.throws(() => readDesign(design(g, changes)), (e) => e instanceof DataError && message.test(e.message), String(message));
  }
});

test('seen shares missing from the data are counted from the masks', () => {
  const g = grid(90, 90, 0); // 4 longitudes × 2 latitudes
  const masks = [1, 1, 0, 1, 0, 0, 0, 0];
  const d = readDesign(design(g, { coverage: { visibleMask: encode(Uint32Array, masks) } }));
  assert.equal(d.sensors[0].seenShare, 3 / 8);
  assert.deepEqual(d.sensors[0].normal, [0, 0, 1]);
});
