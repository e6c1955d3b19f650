// The side panel: what the design is, how its coverage is coloured, and the
// numbers of the direction and the sensor in hand. Values the browser test
// reads are also kept as data attributes, unformatted.

import { COLOURINGS, GRADE_MEANING, NO_FIX, UNSEEN_RGB, ramp, rgbCss } from './scales.js';

export function el(tag, attributes = {}, ...children) {
  const node = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (name === 'className') node.className = value;
    else if (name.startsWith('on')) node.addEventListener(name.slice(2), value);
    else node.setAttribute(name, value);
  }
  for (const child of children) {
    if (child != null) node.append(child);
  }
  return node;
}

const byId = (id) => document.getElementById(id);
const DEG = 180 / Math.PI;
const count = (n) => n.toLocaleString('en-US');

export const formatAngle = (radians) => `${(radians * DEG).toFixed(1)}°`;
export const formatPosition = (metres) => (metres >= NO_FIX ? 'no fix' : `${(metres * 1000).toFixed(2)} mm`);
export const formatRotation = (radians) => (radians >= NO_FIX ? 'no fix' : `${(radians * DEG).toFixed(2)}°`);
const formatMm = (v) => `(${v.map((c) => c.toFixed(1)).join(', ')}) mm`;
const formatUnit = (v) => `(${v.map((c) => c.toFixed(3)).join(', ')})`;

function definitions(pairs) {
  const list = el('dl');
  for (const [term, value, id] of pairs) {
    list.append(el('dt', {}, term), el('dd', id ? { id } : {}, value));
  }
  return list;
}

export function showFatal(message) {
  const box = byId('fatal');
  box.textContent = message;
  box.hidden = false;
  document.body.dataset.viewState = 'error';
}

export function fillHeader(design) {
  document.title = `${design.title} · sensorlay design`;
  byId('design-title').textContent = design.title;
  byId('generated-by').textContent = design.generatedBy;
  const warnings = byId('warnings');
  warnings.replaceChildren(...design.warnings.map((w) => el('li', {}, w)));
  warnings.hidden = design.warnings.length === 0;
}

function meshLine(mesh) {
  const decimated = mesh.decimatedFrom ? `, shown decimated from ${count(mesh.decimatedFrom)}` : '';
  return `${mesh.name || 'unnamed'}: ${count(mesh.triangles)} triangles${decimated}`;
}

export function fillSummary(design) {
  const score =
    design.score === null
      ? el('span', { id: 'score', className: 'score muted', 'data-score': '' }, 'no score')
      : el('span', { id: 'score', className: 'score', 'data-score': String(design.score) }, design.score.toFixed(1));
  const rows = [
    ['Score', el('span', {}, score, design.score === null ? null : ' / 1000, lower is better')],
    ['Sensors', String(design.sensors.length), 'sensor-count'],
    ['Surface', meshLine(design.surface)],
  ];
  design.obstacles.forEach((o, i) => rows.push([i === 0 ? 'Obstacles' : '', meshLine(o)]));
  const c = design.coverage;
  if (c) {
    const step = c.stepDegrees === null ? '' : `${c.stepDegrees}° grid, `;
    rows.push(['Coverage', `${step}${count(c.rows)} directions${c.distanceMeters ? ` at ${c.distanceMeters} m` : ''}`]);
  } else {
    rows.push(['Coverage', 'not computed for this page']);
  }
  const summary = byId('summary');
  summary.replaceChildren(definitions(rows));
  summary.classList.add('info');
  if (design.sensors.length === 0) summary.append(el('p', { className: 'muted' }, 'This design has no sensors.'));
}

export function fillObstacleToggles(design, onToggle) {
  const box = byId('obstacle-toggles');
  design.obstacles.forEach((o, i) => {
    const input = el('input', { type: 'checkbox', id: `obstacle-${i}`, checked: '' });
    input.addEventListener('change', () => onToggle(i, input.checked));
    box.append(el('label', { className: 'row' }, input, ` ${o.name || `obstacle ${i + 1}`} (translucent)`));
  });
}

export function fillLegend(colouring) {
  const scheme = COLOURINGS[colouring];
  const legend = scheme.legend();
  const parts = [el('h2', {}, scheme.label)];
  if (legend.kind === 'steps') {
    const swatch = (item) => el('span', { className: 'swatch', style: `background:${rgbCss(item.rgb)}` });
    if (legend.across) {
      parts.push(el('div', { className: 'across' }, ...legend.items.map((item) => el('div', {}, swatch(item), el('div', {}, item.text)))));
    } else {
      parts.push(el('div', { className: 'steps' }, ...legend.items.flatMap((item) => [swatch(item), el('span', {}, item.text)])));
    }
  } else {
    const { scale, unit, ticks } = legend;
    const stops = [];
    for (let i = 0; i <= 10; ++i) {
      const value = scale.low * Math.pow(scale.high / scale.low, i / 10);
      stops.push(rgbCss(ramp(scale.tOfUnit(value))));
    }
    const span = Math.log10(scale.high / scale.low);
    parts.push(
      el('div', { className: 'bar', style: `background:linear-gradient(to right, ${stops.join(', ')})` }),
      el('div', { className: 'ticks' }, ...ticks.map((t) => el('span', { style: `left:${(100 * Math.log10(t / scale.low)) / span}%` }, `${t}${unit === '°' ? '' : ' '}${unit}`))),
      el('div', { className: 'legend-note muted' }, `Logarithmic; values beyond the ends take the end colours.`),
    );
  }
  parts.push(
    el(
      'div',
      { className: 'legend-extra' },
      el('span', { className: 'swatch', style: `background:${rgbCss(UNSEEN_RGB)}` }),
      el('span', {}, 'seen by no sensor'),
      el('span', { className: 'swatch hatched', style: 'background-color:#6e7681' }),
      el('span', {}, 'hatched: no fix (grade 0 or an uncertainty that could not be computed)'),
    ),
    el('div', { className: 'legend-note muted' }, 'The same scales on every design page; brighter is better.'),
  );
  byId('legend').replaceChildren(...parts);
}

export function fillSensorList(design, onSelect) {
  const table = byId('sensor-list');
  if (design.sensors.length === 0) {
    table.replaceChildren(el('tr', {}, el('td', { className: 'muted' }, 'none')));
    return;
  }
  const head = el('tr', {}, el('th', {}, 'channel'), el('th', { className: 'num' }, 'seen from'), el('th', { className: 'num' }, 'position (mm)'));
  const rows = design.sensors.map((s, k) =>
    el(
      'tr',
      { 'data-index': String(k), onclick: () => onSelect(k) },
      el('td', {}, String(s.channel)),
      el('td', { className: 'num' }, s.seenShare === null ? '–' : `${(100 * s.seenShare).toFixed(1)}%`),
      el('td', { className: 'num' }, s.position.map((c) => c.toFixed(1)).join(', ')),
    ),
  );
  table.replaceChildren(head, ...rows);
}

export function markSensorList(lit, selected) {
  for (const row of document.querySelectorAll('#sensor-list tr[data-index]')) {
    const k = Number(row.dataset.index);
    row.classList.toggle('lit', lit.has(k));
    row.classList.toggle('selected', k === selected);
  }
}

function settingValue(value) {
  return typeof value === 'object' && value !== null ? JSON.stringify(value) : String(value);
}

export function fillSettings(design) {
  const entries = Object.entries(design.settings);
  const table = byId('settings');
  if (entries.length === 0) table.replaceChildren(el('tr', {}, el('td', { className: 'muted' }, 'none given')));
  else table.replaceChildren(...entries.map(([k, v]) => el('tr', {}, el('th', {}, k), el('td', {}, settingValue(v)))));
  byId('settings-section').open = entries.length > 0 && entries.length <= 12;
}

function treeItem(key, value, depth) {
  if (value !== null && typeof value === 'object') {
    const children = Object.entries(value).map(([k, v]) => treeItem(k, v, depth + 1));
    const details = el('details', {}, el('summary', { className: 'key' }, `${key} ${Array.isArray(value) ? `[${value.length}]` : `{${children.length}}`}`), el('ul', {}, ...children));
    details.open = depth < 1;
    return el('li', {}, details);
  }
  return el('li', {}, el('span', { className: 'key' }, `${key}: `), el('span', {}, JSON.stringify(value)));
}

export function fillRunRecord(design) {
  const box = byId('run-record');
  const record = design.runRecord;
  if (record === null || typeof record !== 'object') {
    box.replaceChildren(el('p', { className: 'muted' }, record === null ? 'No run record lies beside this design.' : JSON.stringify(record)));
    return;
  }
  box.replaceChildren(el('ul', {}, ...Object.entries(record).map(([k, v]) => treeItem(k, v, 0))));
  byId('run-record-section').open = true;
}

export function showDirection(design, row, seen, pinned) {
  const info = byId('direction-info');
  const body = byId('direction-body');
  const c = design.coverage;
  if (row < 0) {
    info.dataset.row = '-1';
    info.dataset.pinned = 'false';
    body.className = 'muted';
    body.textContent = 'Point at the sphere to read a direction; click to keep it.';
    return;
  }
  const n = c.latitudes.length;
  const longitude = c.longitudes[Math.floor(row / n)];
  const latitude = c.latitudes[row % n];
  const grade = c.grade[row];
  const channels = seen.map((k) => design.sensors[k].channel);
  Object.assign(info.dataset, {
    row: String(row),
    pinned: String(pinned),
    longitude: String(longitude),
    latitude: String(latitude),
    visibleCount: String(c.visibleCount[row]),
    grade: String(grade),
    positionSigma: String(c.positionSigma[row]),
    rotationSigma: String(c.rotationSigma[row]),
  });
  body.className = '';
  body.replaceChildren(
    definitions([
      ['Longitude', formatAngle(longitude), 'direction-longitude'],
      ['Latitude', formatAngle(latitude), 'direction-latitude'],
      ['Visible', String(c.visibleCount[row]), 'direction-visible-count'],
      ['Channels', channels.length ? channels.join(', ') : 'none'],
      ['Grade', `${grade}: ${GRADE_MEANING[grade] ?? 'unknown grade'}`, 'direction-grade'],
      ['Position σ', formatPosition(c.positionSigma[row]), 'direction-position-sigma'],
      ['Rotation σ', formatRotation(c.rotationSigma[row]), 'direction-rotation-sigma'],
    ]),
    el('div', { className: 'muted' }, pinned ? 'Kept; Esc or a click beside the sphere lets it go.' : 'Click to keep this direction.'),
  );
}

export function showSensor(design, index) {
  const info = byId('sensor-info');
  const body = byId('sensor-body');
  if (index < 0) {
    info.dataset.index = '-1';
    delete info.dataset.channel;
    body.className = 'muted';
    body.textContent = 'Click a sensor, its label or a row of the list.';
    return;
  }
  const s = design.sensors[index];
  info.dataset.index = String(index);
  info.dataset.channel = String(s.channel);
  body.className = '';
  body.replaceChildren(
    definitions([
      ['Channel', String(s.channel), 'sensor-channel'],
      ['Position', formatMm(s.position)],
      ['Normal', formatUnit(s.normal)],
      ['Seen from', s.seenShare === null ? 'unknown' : `${(100 * s.seenShare).toFixed(1)}% of directions`, 'sensor-seen-share'],
    ]),
  );
}
