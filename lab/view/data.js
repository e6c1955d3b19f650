// Reads the design data embedded in the page. Arrays arrive as base64 of
// little-endian binary; everything is checked against everything else here,
// so that a page with inconsistent data says what is wrong instead of drawing
// something misleading.

export class DataError extends Error {}

const HALF_PI = Math.PI / 2;
const TWO_PI = 2 * Math.PI;

function fail(message) {
  throw new DataError(message);
}

export function decodeBase64(text, what) {
  if (typeof text !== 'string') fail(`${what}: expected a base64 text`);
  let binary;
  try {
    binary = atob(text);
  } catch {
    fail(`${what}: not valid base64`);
  }
  const bytes = new Uint8Array(binary.length);
  for (let i = 0; i < binary.length; ++i) bytes[i] = binary.charCodeAt(i);
  return bytes;
}

// Four-byte values are read through a DataView so that the page does not
// depend on the viewing machine's byte order.
function fourByteArray(text, what, Type, getter) {
  const bytes = decodeBase64(text, what);
  if (bytes.length % 4 !== 0) fail(`${what}: ${bytes.length} bytes is not a whole number of 4-byte values`);
  const view = new DataView(bytes.buffer, bytes.byteOffset, bytes.byteLength);
  const out = new Type(bytes.length / 4);
  for (let i = 0; i < out.length; ++i) out[i] = view[getter](4 * i, true);
  return out;
}

export const decodeFloat32 = (text, what) => fourByteArray(text, what, Float32Array, 'getFloat32');
export const decodeUint32 = (text, what) => fourByteArray(text, what, Uint32Array, 'getUint32');

function isFiniteNumber(x) {
  return typeof x === 'number' && Number.isFinite(x);
}

function vector3(value, what) {
  if (!Array.isArray(value) || value.length !== 3 || !value.every(isFiniteNumber)) {
    fail(`${what}: expected three numbers`);
  }
  return value.slice();
}

function readMesh(entry, what) {
  if (entry === null || typeof entry !== 'object') fail(`${what}: missing`);
  const positions = decodeFloat32(entry.positions, `${what}.positions`);
  if (positions.length % 9 !== 0) fail(`${what}.positions: ${positions.length} numbers do not make whole triangles`);
  const triangles = positions.length / 9;
  if (entry.triangles !== undefined && entry.triangles !== triangles) {
    fail(`${what}: says ${entry.triangles} triangles but holds ${triangles}`);
  }
  for (let i = 0; i < positions.length; ++i) {
    if (!Number.isFinite(positions[i])) fail(`${what}.positions: value ${i} is not a finite number`);
  }
  return {
    name: typeof entry.name === 'string' ? entry.name : '',
    triangles,
    decimatedFrom: isFiniteNumber(entry.decimatedFrom) ? entry.decimatedFrom : null,
    positions,
  };
}

function readSensor(entry, index) {
  const what = `sensors[${index}]`;
  if (entry === null || typeof entry !== 'object') fail(`${what}: expected an object`);
  if (!Number.isInteger(entry.channel)) fail(`${what}.channel: expected a whole number`);
  const position = vector3(entry.position, `${what}.position`);
  const normal = vector3(entry.normal, `${what}.normal`);
  const length = Math.hypot(normal[0], normal[1], normal[2]);
  if (!(length > 0)) fail(`${what}.normal: zero length`);
  const seenShare = entry.seenShare;
  if (seenShare != null && !(isFiniteNumber(seenShare) && seenShare >= 0 && seenShare <= 1)) {
    fail(`${what}.seenShare: expected a number from 0 to 1`);
  }
  return {
    channel: entry.channel,
    position,
    normal: normal.map((c) => c / length),
    seenShare: seenShare ?? null,
  };
}

function ascendingAngles(value, what, limit) {
  if (!Array.isArray(value) || value.length === 0) fail(`${what}: expected a non-empty list`);
  for (let i = 0; i < value.length; ++i) {
    const x = value[i];
    if (!isFiniteNumber(x) || Math.abs(x) > limit + 1e-6) fail(`${what}[${i}]: not an angle within ±${limit.toFixed(4)} rad`);
    if (i > 0 && !(x > value[i - 1])) fail(`${what}: not in ascending order at ${i}`);
  }
  return Float64Array.from(value);
}

// Each grid direction owns the directions nearer to it than to its
// neighbours. Where the grid stops short of a pole or of the full turn of
// longitude, its end cells reach over the gap, so that the cells cover the
// whole sphere without holes.
function cellEdges(values, low, high, wraps) {
  const n = values.length;
  const edges = new Float64Array(n + 1);
  for (let i = 1; i < n; ++i) edges[i] = 0.5 * (values[i - 1] + values[i]);
  const spacing = n > 1 ? (values[n - 1] - values[0]) / (n - 1) : high - low;
  if (wraps) {
    const seam = 0.5 * (values[n - 1] + values[0] + TWO_PI);
    edges[n] = seam;
    edges[0] = seam - TWO_PI;
  } else {
    edges[0] = values[0] - low < 1.5 * spacing ? low : values[0] - 0.5 * spacing;
    edges[n] = high - values[n - 1] < 1.5 * spacing ? high : values[n - 1] + 0.5 * spacing;
  }
  return edges;
}

function findCell(edges, x) {
  if (x < edges[0] || x > edges[edges.length - 1]) return -1;
  let lo = 0;
  let hi = edges.length - 1;
  while (hi - lo > 1) {
    const mid = (lo + hi) >> 1;
    if (edges[mid] <= x) lo = mid;
    else hi = mid;
  }
  return lo;
}

function readCoverage(entry, sensorCount) {
  if (entry == null) return null;
  if (typeof entry !== 'object') fail('coverage: expected an object');
  const longitudes = ascendingAngles(entry.longitudes, 'coverage.longitudes', Math.PI);
  const latitudes = ascendingAngles(entry.latitudes, 'coverage.latitudes', HALF_PI);
  const rows = longitudes.length * latitudes.length;
  const arrays = {
    visibleMask: decodeUint32(entry.visibleMask, 'coverage.visibleMask'),
    visibleCount: decodeBase64(entry.visibleCount, 'coverage.visibleCount'),
    grade: decodeBase64(entry.grade, 'coverage.grade'),
    positionSigma: decodeFloat32(entry.positionSigma, 'coverage.positionSigma'),
    rotationSigma: decodeFloat32(entry.rotationSigma, 'coverage.rotationSigma'),
  };
  for (const [name, array] of Object.entries(arrays)) {
    if (array.length !== rows) {
      fail(`coverage.${name}: ${array.length} entries for ${longitudes.length} × ${latitudes.length} = ${rows} directions`);
    }
  }
  const beyond = sensorCount >= 32 ? 0 : ~0 << sensorCount;
  for (let r = 0; r < rows; ++r) {
    if (arrays.visibleMask[r] & beyond) fail(`coverage.visibleMask: direction ${r} names a sensor beyond the ${sensorCount} given`);
  }
  const span = longitudes[longitudes.length - 1] - longitudes[0];
  const spacing = longitudes.length > 1 ? span / (longitudes.length - 1) : 0;
  const wraps = longitudes.length > 1 && TWO_PI - span < 1.5 * spacing;
  return {
    stepDegrees: isFiniteNumber(entry.stepDegrees) ? entry.stepDegrees : null,
    distanceMeters: isFiniteNumber(entry.distanceMeters) ? entry.distanceMeters : null,
    longitudes,
    latitudes,
    rows,
    ...arrays,
    wraps,
    longitudeEdges: cellEdges(longitudes, -Math.PI, Math.PI, wraps),
    latitudeEdges: cellEdges(latitudes, -HALF_PI, HALF_PI, false),
  };
}

// The row of the grid direction whose cell holds (longitude, latitude), in
// radians; -1 when the grid does not reach there.
export function rowAt(coverage, longitude, latitude) {
  const edges = coverage.longitudeEdges;
  let lon = longitude;
  if (coverage.wraps) {
    while (lon < edges[0]) lon += TWO_PI;
    while (lon >= edges[0] + TWO_PI) lon -= TWO_PI;
  }
  const i = findCell(edges, lon);
  const j = findCell(coverage.latitudeEdges, latitude);
  if (i < 0 || j < 0) return -1;
  return i * coverage.latitudes.length + j;
}

export function rowDirection(coverage, row) {
  const n = coverage.latitudes.length;
  return { longitude: coverage.longitudes[Math.floor(row / n)], latitude: coverage.latitudes[row % n] };
}

// From the device towards the base station: +Z at longitude 0 and latitude 0,
// +Y at latitude +90°.
export function directionVector(longitude, latitude) {
  const c = Math.cos(latitude);
  return [Math.sin(longitude) * c, Math.sin(latitude), Math.cos(longitude) * c];
}

export function directionAngles(x, y, z) {
  const length = Math.hypot(x, y, z);
  return { longitude: Math.atan2(x, z), latitude: Math.asin(Math.max(-1, Math.min(1, y / length))) };
}

export function sensorsSeen(coverage, row, sensorCount) {
  const mask = coverage.visibleMask[row];
  const seen = [];
  for (let k = 0; k < sensorCount && k < 32; ++k) if (mask & (1 << k)) seen.push(k);
  return seen;
}

export function shareSeen(coverage, sensorIndex) {
  const bit = 1 << sensorIndex;
  let seen = 0;
  for (let r = 0; r < coverage.rows; ++r) if (coverage.visibleMask[r] & bit) ++seen;
  return seen / coverage.rows;
}

function plainRecord(value, what) {
  if (value == null) return {};
  if (typeof value !== 'object' || Array.isArray(value)) fail(`${what}: expected an object`);
  return value;
}

export function readDesign(json) {
  if (json === null || typeof json !== 'object') fail('the data is not a JSON object');
  if (json.format !== 1) fail(`format ${JSON.stringify(json.format)} is not one this page reads (1)`);
  const sensorsIn = json.sensors ?? [];
  if (!Array.isArray(sensorsIn)) fail('sensors: expected a list');
  if (sensorsIn.length > 32) fail(`sensors: ${sensorsIn.length} sensors, at most 32 fit the coverage masks`);
  const sensors = sensorsIn.map(readSensor);
  const obstaclesIn = json.obstacles ?? [];
  if (!Array.isArray(obstaclesIn)) fail('obstacles: expected a list');
  const warnings = json.warnings ?? [];
  if (!Array.isArray(warnings) || !warnings.every((w) => typeof w === 'string')) fail('warnings: expected a list of texts');
  if (json.score != null && !isFiniteNumber(json.score)) fail('score: expected a number or null');
  const coverage = readCoverage(json.coverage, sensors.length);
  if (coverage) {
    sensors.forEach((sensor, k) => {
      if (sensor.seenShare === null) sensor.seenShare = shareSeen(coverage, k);
    });
  }
  return {
    title: typeof json.title === 'string' && json.title ? json.title : 'design',
    generatedBy: typeof json.generatedBy === 'string' ? json.generatedBy : '',
    score: json.score ?? null,
    settings: plainRecord(json.settings, 'settings'),
    runRecord: json.runRecord ?? null,
    warnings,
    sensorSizeMm: isFiniteNumber(json.sensorSizeMm) && json.sensorSizeMm > 0 ? json.sensorSizeMm : 6,
    surface: readMesh(json.surface, 'surface'),
    obstacles: obstaclesIn.map((o, i) => readMesh(o, `obstacles[${i}]`)),
    sensors,
    coverage,
  };
}
