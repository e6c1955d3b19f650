// The design page: the device, its obstacles and sensors in 3-D, and around
// them a sphere of the directions a base station may look from, coloured by
// how well the pose can be solved from there. All geometry is in the
// device's frame, in millimetres. The page draws on demand only, so that an
// open page costs nothing while nobody touches it.

import {
  AmbientLight,
  BufferAttribute,
  BufferGeometry,
  CircleGeometry,
  Color,
  DirectionalLight,
  DoubleSide,
  Float32BufferAttribute,
  FrontSide,
  Group,
  Line,
  LineBasicMaterial,
  LineSegments,
  Mesh,
  MeshBasicMaterial,
  MeshLambertMaterial,
  PerspectiveCamera,
  Quaternion,
  Raycaster,
  Scene,
  ShaderMaterial,
  Vector2,
  Vector3,
  WebGLRenderer,
} from 'three';
import { OrbitControls } from 'three/examples/jsm/controls/OrbitControls.js';
import { DataError, directionAngles, directionVector, readDesign, rowAt, sensorsSeen } from './data.js';
import { cellStyle } from './scales.js';
import * as panel from './panel.js';

const SENSOR_COLOUR = 0xff9f1c;
const LIT_COLOUR = 0x3cff8f;
const SELECTED_COLOUR = 0xf0f3f6;
const OBSTACLE_COLOURS = [0x5fa8ff, 0xc38bff, 0x7fdbca, 0xffc66d];
const MAX_CELL_DEGREES = 2; // larger grid cells are drawn in pieces, so the sphere stays round
const CLICK_SLOP = 5; // pixels a press may move and still count as a click

function meshGeometry(positions) {
  const geometry = new BufferGeometry();
  geometry.setAttribute('position', new BufferAttribute(positions, 3));
  geometry.computeVertexNormals();
  return geometry;
}

function farthestPoint(positions) {
  let best = 0;
  for (let i = 0; i < positions.length; i += 3) {
    best = Math.max(best, positions[i] * positions[i] + positions[i + 1] * positions[i + 1] + positions[i + 2] * positions[i + 2]);
  }
  return Math.sqrt(best);
}

const SPHERE_VERTEX = `
attribute vec3 cellColor;
attribute float cellHatch;
varying vec3 vColor;
varying float vHatch;
void main() {
  vColor = cellColor;
  vHatch = cellHatch;
  gl_Position = projectionMatrix * modelViewMatrix * vec4(position, 1.0);
}`;

// Stripes in screen space: they read as hatching at any zoom.
const SPHERE_FRAGMENT = `
uniform float opacity;
uniform float hatchPeriod;
varying vec3 vColor;
varying float vHatch;
void main() {
  vec3 colour = vColor;
  if (vHatch > 0.5 && mod(gl_FragCoord.x + gl_FragCoord.y, hatchPeriod) < 0.4 * hatchPeriod) {
    // Dark stripes on light colours, light ones on dark colours.
    colour = dot(colour, vec3(0.3, 0.59, 0.11)) > 0.35 ? colour * 0.25 : mix(colour, vec3(0.85), 0.6);
  }
  gl_FragColor = vec4(colour, opacity);
}`;

// One patch of the sphere per grid direction, each with vertices of its own,
// so that a direction shows one flat colour and a colouring only rewrites the
// colour attribute.
function buildCoverageSphere(coverage, radius, opacity) {
  const lonEdges = coverage.longitudeEdges;
  const latEdges = coverage.latitudeEdges;
  const nLat = coverage.latitudes.length;
  // How many pieces each cell is cut into, along longitude and latitude.
  const pieces = (edges) => Array.from({ length: edges.length - 1 }, (_, i) => Math.max(1, Math.ceil(((edges[i + 1] - edges[i]) * 180) / Math.PI / MAX_CELL_DEGREES)));
  const lonPieces = pieces(lonEdges);
  const latPieces = pieces(latEdges);
  const sum = (list, extra) => list.reduce((total, x) => total + x + extra, 0);
  const vertices = sum(lonPieces, 1) * sum(latPieces, 1);
  const firstVertex = new Uint32Array(coverage.rows + 1);
  const position = new Float32Array(3 * vertices);
  const index = new Uint32Array(6 * sum(lonPieces, 0) * sum(latPieces, 0));
  let v = 0;
  let k = 0;
  for (let r = 0; r < coverage.rows; ++r) {
    const i = Math.floor(r / nLat);
    const j = r % nLat;
    const p = lonPieces[i];
    const q = latPieces[j];
    firstVertex[r] = v;
    for (let b = 0; b <= q; ++b) {
      const lat = latEdges[j] + ((latEdges[j + 1] - latEdges[j]) * b) / q;
      for (let a = 0; a <= p; ++a) {
        const lon = lonEdges[i] + ((lonEdges[i + 1] - lonEdges[i]) * a) / p;
        const d = directionVector(lon, lat);
        position[3 * v] = radius * d[0];
        position[3 * v + 1] = radius * d[1];
        position[3 * v + 2] = radius * d[2];
        ++v;
      }
    }
    for (let b = 0; b < q; ++b) {
      for (let a = 0; a < p; ++a) {
        const corner = firstVertex[r] + b * (p + 1) + a;
        const up = corner + p + 1;
        index.set([corner, corner + 1, up + 1, corner, up + 1, up], k);
        k += 6;
      }
    }
  }
  firstVertex[coverage.rows] = v;
  const geometry = new BufferGeometry();
  geometry.setAttribute('position', new BufferAttribute(position, 3));
  geometry.setAttribute('cellColor', new BufferAttribute(new Uint8Array(3 * vertices), 3, true));
  geometry.setAttribute('cellHatch', new BufferAttribute(new Uint8Array(vertices), 1));
  geometry.setIndex(new BufferAttribute(index, 1));
  const material = new ShaderMaterial({
    vertexShader: SPHERE_VERTEX,
    fragmentShader: SPHERE_FRAGMENT,
    uniforms: { opacity: { value: opacity }, hatchPeriod: { value: 8 } },
    transparent: true,
    depthWrite: false,
    side: FrontSide,
  });
  const mesh = new Mesh(geometry, material);
  mesh.renderOrder = 2;
  mesh.userData.firstVertex = firstVertex;
  return mesh;
}

// Circles of latitude and meridians every 30 degrees, for orientation.
function buildGraticule(radius) {
  const points = [];
  const step = Math.PI / 60;
  const push = (lon, lat) => points.push(...directionVector(lon, lat).map((c) => c * radius));
  for (let lat = -60; lat <= 60; lat += 30) {
    for (let lon = -Math.PI; lon < Math.PI - 1e-9; lon += step) {
      push(lon, (lat * Math.PI) / 180);
      push(lon + step, (lat * Math.PI) / 180);
    }
  }
  for (let lon = -180; lon < 180; lon += 30) {
    for (let lat = -Math.PI / 2; lat < Math.PI / 2 - 1e-9; lat += step) {
      push((lon * Math.PI) / 180, lat);
      push((lon * Math.PI) / 180, lat + step);
    }
  }
  const geometry = new BufferGeometry();
  geometry.setAttribute('position', new Float32BufferAttribute(points, 3));
  const lines = new LineSegments(geometry, new LineBasicMaterial({ color: 0xffffff, transparent: true, opacity: 0.18, depthWrite: false }));
  lines.renderOrder = 3;
  return lines;
}

class DesignView {
  constructor(design) {
    this.design = design;
    this.coverage = design.coverage;
    this.viewport = document.getElementById('viewport');
    this.labelLayer = document.getElementById('labels');
    this.colouring = 'count';
    this.pinnedRow = -1;
    this.hoverRow = -1;
    this.selectedSensor = -1;
    this.renderPending = false;

    this.renderer = new WebGLRenderer({ antialias: true });
    this.renderer.setPixelRatio(Math.min(window.devicePixelRatio || 1, 2));
    this.renderer.setClearColor(new Color(0x15181d));
    this.canvas = this.renderer.domElement;
    this.viewport.prepend(this.canvas);

    this.scene = new Scene();
    this.camera = new PerspectiveCamera(40, 1, 1, 1000);
    this.scene.add(new AmbientLight(0xffffff, 0.9));
    this.headLight = new DirectionalLight(0xffffff, 2.2);
    this.headLight.position.set(0.4, 0.6, 1);
    this.camera.add(this.headLight);
    this.scene.add(this.camera);

    this.buildDevice();
    this.buildSensors();
    this.sphereRadius = 1.15 * this.deviceRadius;
    if (this.coverage) this.buildSphere();
    this.buildAxisLabels();

    this.controls = new OrbitControls(this.camera, this.canvas);
    this.controls.minDistance = 0.2 * this.deviceRadius;
    this.controls.maxDistance = 20 * this.sphereRadius;
    this.controls.addEventListener('change', () => this.requestRender());
    this.camera.near = this.sphereRadius / 500;
    this.camera.far = this.sphereRadius * 60;
    this.resize();
    this.lookFrom((35 * Math.PI) / 180, (25 * Math.PI) / 180);

    new ResizeObserver(() => this.resize()).observe(this.viewport);
    this.listen();
  }

  buildDevice() {
    const { surface, obstacles } = this.design;
    this.device = new Mesh(
      meshGeometry(surface.positions),
      new MeshLambertMaterial({ color: 0xb9c2cf, side: DoubleSide, polygonOffset: true, polygonOffsetFactor: 1, polygonOffsetUnits: 1 }),
    );
    this.scene.add(this.device);
    let radius = farthestPoint(surface.positions);
    this.obstacles = obstacles.map((o, i) => {
      const mesh = new Mesh(
        meshGeometry(o.positions),
        new MeshLambertMaterial({ color: OBSTACLE_COLOURS[i % OBSTACLE_COLOURS.length], transparent: true, opacity: 0.28, depthWrite: false, side: DoubleSide }),
      );
      mesh.renderOrder = 1;
      this.scene.add(mesh);
      radius = Math.max(radius, farthestPoint(o.positions));
      return mesh;
    });
    for (const s of this.design.sensors) radius = Math.max(radius, Math.hypot(...s.position));
    this.deviceRadius = radius > 0 ? radius : 50;
  }

  buildSensors() {
    const sensors = this.design.sensors;
    const radius = this.design.sensorSizeMm / 2;
    this.needleLength = Math.max(4 * radius, 0.08 * this.deviceRadius);
    this.sensorGroup = new Group();
    this.scene.add(this.sensorGroup);
    const disc = new CircleGeometry(radius, 32);
    const zAxis = new Vector3(0, 0, 1);
    const needles = [];
    this.discs = sensors.map((s, k) => {
      const normal = new Vector3(...s.normal);
      const mesh = new Mesh(disc, new MeshBasicMaterial({ color: SENSOR_COLOUR, side: DoubleSide }));
      mesh.quaternion.copy(new Quaternion().setFromUnitVectors(zAxis, normal));
      // Lifted a little off the surface, so that the disc is not lost in it.
      mesh.position.set(...s.position).addScaledVector(normal, Math.max(0.2, 0.02 * radius));
      this.sensorGroup.add(mesh);
      needles.push(...s.position, ...s.position.map((c, i) => c + this.needleLength * s.normal[i]));
      return mesh;
    });
    if (needles.length) {
      const geometry = new BufferGeometry();
      geometry.setAttribute('position', new Float32BufferAttribute(needles, 3));
      this.sensorGroup.add(new LineSegments(geometry, new LineBasicMaterial({ color: 0xffe0b0 })));
    }
    this.labels = sensors.map((s, k) => {
      const label = panel.el('div', { className: 'sensor-label', 'data-index': String(k) }, String(s.channel));
      label.addEventListener('click', () => this.selectSensor(k));
      this.labelLayer.append(label);
      return label;
    });
  }

  buildSphere() {
    this.sphere = buildCoverageSphere(this.coverage, this.sphereRadius, Number(document.getElementById('sphere-opacity').value));
    this.scene.add(this.sphere);
    this.graticule = buildGraticule(this.sphereRadius * 1.001);
    this.scene.add(this.graticule);
    this.marker = new Line(new BufferGeometry(), new LineBasicMaterial({ color: 0xffffff, depthTest: false }));
    this.marker.renderOrder = 4;
    this.marker.visible = false;
    this.scene.add(this.marker);
    this.recolour();
  }

  buildAxisLabels() {
    const reach = (this.coverage ? this.sphereRadius : this.deviceRadius) * 1.08;
    this.axisLabels = [
      ['+X', [reach, 0, 0]],
      ['+Y', [0, reach, 0]],
      ['+Z', [0, 0, reach]],
    ].map(([text, at]) => {
      const label = panel.el('div', { className: 'axis-label' }, text);
      this.labelLayer.append(label);
      return { label, at: new Vector3(...at) };
    });
  }

  recolour() {
    if (!this.sphere) return;
    const geometry = this.sphere.geometry;
    const colours = geometry.getAttribute('cellColor');
    const hatches = geometry.getAttribute('cellHatch');
    const first = this.sphere.userData.firstVertex;
    for (let r = 0; r < this.coverage.rows; ++r) {
      const { rgb, hatched } = cellStyle(this.coverage, r, this.colouring);
      for (let v = first[r]; v < first[r + 1]; ++v) {
        colours.array[3 * v] = rgb[0];
        colours.array[3 * v + 1] = rgb[1];
        colours.array[3 * v + 2] = rgb[2];
        hatches.array[v] = hatched ? 1 : 0;
      }
    }
    colours.needsUpdate = true;
    hatches.needsUpdate = true;
    panel.fillLegend(this.colouring);
    document.body.dataset.colouring = this.colouring;
    this.requestRender();
  }

  resize() {
    const width = Math.max(1, this.viewport.clientWidth);
    const height = Math.max(1, this.viewport.clientHeight);
    this.renderer.setSize(width, height);
    this.camera.aspect = width / height;
    this.camera.updateProjectionMatrix();
    if (this.sphere) this.sphere.material.uniforms.hatchPeriod.value = 8 * this.renderer.getPixelRatio();
    this.render();
  }

  // Puts the camera on the side of the given direction, far enough back to
  // see the whole sphere.
  lookFrom(longitude, latitude) {
    const limit = (80 * Math.PI) / 180; // keeps the orbit's up axis well defined
    const d = directionVector(longitude, Math.max(-limit, Math.min(limit, latitude)));
    const halfFov = (this.camera.fov * Math.PI) / 360;
    const narrowest = Math.min(halfFov, Math.atan(Math.tan(halfFov) * this.camera.aspect));
    const distance = (1.15 * this.sphereRadius) / Math.sin(narrowest);
    this.camera.position.set(d[0] * distance, d[1] * distance, d[2] * distance);
    this.camera.up.set(0, 1, 0);
    this.controls.target.set(0, 0, 0);
    this.controls.update();
    this.render();
  }

  requestRender() {
    if (this.renderPending) return;
    this.renderPending = true;
    requestAnimationFrame(() => {
      this.renderPending = false;
      this.render();
    });
  }

  render() {
    if (!this.controls) return;
    this.camera.updateMatrixWorld();
    this.renderer.render(this.scene, this.camera);
    this.placeLabels();
  }

  toScreen(point) {
    const p = point.clone().project(this.camera);
    if (p.z < -1 || p.z > 1) return null;
    const rect = this.canvas.getBoundingClientRect();
    return { x: rect.left + ((p.x + 1) / 2) * rect.width, y: rect.top + ((1 - p.y) / 2) * rect.height };
  }

  placeLabels() {
    const rect = this.canvas.getBoundingClientRect();
    // Sensor labels hang up and to the right of their needle's tip, so that
    // they leave the disc free even when the needle points at the camera.
    const place = (label, point, anchor) => {
      const at = this.toScreen(point);
      label.hidden = at === null;
      if (at) label.style.transform = `translate(${at.x - rect.left}px, ${at.y - rect.top}px) ${anchor}`;
    };
    this.design.sensors.forEach((s, k) => {
      const tip = new Vector3(...s.position).addScaledVector(new Vector3(...s.normal), this.needleLength);
      place(this.labels[k], tip, 'translate(3px, -100%)');
      this.labels[k].classList.toggle('away', !this.facesCamera(k));
    });
    for (const { label, at } of this.axisLabels) place(label, at, 'translate(-50%, -50%)');
  }

  facesCamera(k) {
    const s = this.design.sensors[k];
    const toCamera = this.camera.position.clone().sub(new Vector3(...s.position));
    return toCamera.dot(new Vector3(...s.normal)) > 0;
  }

  rayAt(clientX, clientY) {
    const rect = this.canvas.getBoundingClientRect();
    const ndc = new Vector2(((clientX - rect.left) / rect.width) * 2 - 1, -((clientY - rect.top) / rect.height) * 2 + 1);
    const raycaster = new Raycaster();
    raycaster.setFromCamera(ndc, this.camera);
    return raycaster;
  }

  // The grid direction under the pointer: where the line of sight enters the
  // sphere. From inside the sphere it is not drawn, and nothing is picked.
  rowAtPointer(clientX, clientY) {
    if (!this.sphere || !this.sphere.visible) return -1;
    const { origin, direction } = this.rayAt(clientX, clientY).ray;
    const b = origin.dot(direction);
    const c = origin.lengthSq() - this.sphereRadius * this.sphereRadius;
    if (c <= 0 || b * b - c < 0) return -1;
    const t = -b - Math.sqrt(b * b - c);
    if (t < 0) return -1;
    const hit = origin.clone().addScaledVector(direction, t);
    const { longitude, latitude } = directionAngles(hit.x, hit.y, hit.z);
    return rowAt(this.coverage, longitude, latitude);
  }

  // The sensor whose disc is under the pointer, facing the camera and not
  // hidden by the device itself; -1 when none.
  sensorAtPointer(clientX, clientY) {
    const raycaster = this.rayAt(clientX, clientY);
    const rect = this.canvas.getBoundingClientRect();
    const pixelsPerMm = (distance) => rect.height / 2 / (Math.tan((this.camera.fov * Math.PI) / 360) * distance);
    let best = -1;
    let bestDistance = Infinity;
    this.design.sensors.forEach((s, k) => {
      if (!this.facesCamera(k)) return;
      const centre = this.discs[k].position;
      const at = this.toScreen(centre);
      if (!at) return;
      const distance = this.camera.position.distanceTo(centre);
      const reach = Math.max(5, (this.design.sensorSizeMm / 2) * pixelsPerMm(distance)) + 2;
      if (Math.hypot(at.x - clientX, at.y - clientY) > reach || distance >= bestDistance) return;
      raycaster.far = distance - 0.5;
      if (raycaster.intersectObject(this.device, false).length > 0) return;
      best = k;
      bestDistance = distance;
    });
    return best;
  }

  pickAt(clientX, clientY) {
    const sensor = this.sensorAtPointer(clientX, clientY);
    if (sensor >= 0) return { sensor, row: -1 };
    return { sensor: -1, row: this.rowAtPointer(clientX, clientY) };
  }

  listen() {
    let press = null;
    this.canvas.addEventListener('pointerdown', (e) => {
      press = e.button === 0 ? { x: e.clientX, y: e.clientY } : null;
    });
    this.canvas.addEventListener('pointerup', (e) => {
      if (!press || Math.hypot(e.clientX - press.x, e.clientY - press.y) > CLICK_SLOP) return;
      press = null;
      const { sensor, row } = this.pickAt(e.clientX, e.clientY);
      if (sensor >= 0) this.selectSensor(sensor);
      else this.pinDirection(row);
    });
    this.canvas.addEventListener('pointermove', (e) => {
      if (e.buttons !== 0) return;
      const row = this.rowAtPointer(e.clientX, e.clientY);
      if (row !== this.hoverRow) {
        this.hoverRow = row;
        if (this.pinnedRow < 0) this.showDirection();
      }
    });
    this.canvas.addEventListener('pointerleave', () => {
      this.hoverRow = -1;
      if (this.pinnedRow < 0) this.showDirection();
    });
    window.addEventListener('keydown', (e) => {
      if (e.key !== 'Escape') return;
      this.pinDirection(-1);
      this.selectSensor(-1);
    });

    const colouring = document.getElementById('colouring');
    colouring.value = this.colouring;
    colouring.disabled = !this.coverage;
    colouring.addEventListener('change', () => {
      this.colouring = colouring.value;
      this.recolour();
    });
    const showSphere = document.getElementById('show-sphere');
    showSphere.disabled = !this.coverage;
    showSphere.addEventListener('change', () => {
      if (!this.sphere) return;
      this.sphere.visible = this.graticule.visible = showSphere.checked;
      if (!showSphere.checked) this.pinDirection(-1);
      this.requestRender();
    });
    const opacity = document.getElementById('sphere-opacity');
    opacity.addEventListener('input', () => {
      if (!this.sphere) return;
      this.sphere.material.uniforms.opacity.value = Number(opacity.value);
      this.requestRender();
    });
    const showLabels = document.getElementById('show-labels');
    showLabels.addEventListener('change', () => this.labelLayer.classList.toggle('hidden-labels', !showLabels.checked));
    panel.fillObstacleToggles(this.design, (i, visible) => {
      this.obstacles[i].visible = visible;
      this.requestRender();
    });
    panel.fillSensorList(this.design, (k) => this.selectSensor(k));
  }

  pinDirection(row) {
    this.pinnedRow = row;
    this.showDirection();
  }

  showDirection() {
    const row = this.pinnedRow >= 0 ? this.pinnedRow : this.hoverRow;
    const seen = row >= 0 ? sensorsSeen(this.coverage, row, this.design.sensors.length) : [];
    panel.showDirection(this.design, row, seen, this.pinnedRow >= 0);
    this.lit = new Set(seen);
    this.markSensors();
    if (this.marker) {
      this.marker.visible = row >= 0;
      if (row >= 0) this.marker.geometry = this.cellOutline(row);
    }
    this.requestRender();
  }

  // The outline of a direction's cell and a line to it from the device's
  // origin, where the base station would stand.
  cellOutline(row) {
    const c = this.coverage;
    const n = c.latitudes.length;
    const i = Math.floor(row / n);
    const j = row % n;
    const [lon0, lon1, lat0, lat1] = [c.longitudeEdges[i], c.longitudeEdges[i + 1], c.latitudeEdges[j], c.latitudeEdges[j + 1]];
    const r = this.sphereRadius * 1.003;
    const points = [0, 0, 0];
    const corner = (lon, lat) => points.push(...directionVector(lon, lat).map((x) => x * r));
    corner(c.longitudes[i], c.latitudes[j]);
    for (const [lon, lat] of [[lon0, lat0], [lon1, lat0], [lon1, lat1], [lon0, lat1], [lon0, lat0]]) corner(lon, lat);
    const geometry = new BufferGeometry();
    geometry.setAttribute('position', new Float32BufferAttribute(points, 3));
    this.marker.geometry.dispose();
    return geometry;
  }

  selectSensor(k) {
    this.selectedSensor = k;
    panel.showSensor(this.design, k);
    this.markSensors();
    this.requestRender();
  }

  markSensors() {
    const lit = this.lit ?? new Set();
    this.discs.forEach((disc, k) => {
      const colour = k === this.selectedSensor ? SELECTED_COLOUR : lit.has(k) ? LIT_COLOUR : SENSOR_COLOUR;
      disc.material.color.setHex(colour);
      this.labels[k].classList.toggle('lit', lit.has(k));
      this.labels[k].classList.toggle('selected', k === this.selectedSensor);
    });
    panel.markSensorList(lit, this.selectedSensor);
  }

  // A point where a click selects the given grid direction: its own point on
  // the sphere if nothing else is in the way there, else another point of its
  // cell; null when the direction is on the far side or covered throughout.
  directionToScreen(longitude, latitude) {
    if (!this.sphere || !this.sphere.visible) return null;
    const row = rowAt(this.coverage, longitude, latitude);
    if (row < 0) return null;
    const c = this.coverage;
    const n = c.latitudes.length;
    const i = Math.floor(row / n);
    const j = row % n;
    const offsets = [[0, 0], [0.3, 0], [-0.3, 0], [0, 0.3], [0, -0.3], [0.3, 0.3], [-0.3, -0.3], [0.3, -0.3], [-0.3, 0.3]];
    for (const [u, w] of offsets) {
      const lon = c.longitudes[i] + u * (c.longitudeEdges[i + 1] - c.longitudeEdges[i]);
      const lat = c.latitudes[j] + w * (c.latitudeEdges[j + 1] - c.latitudeEdges[j]);
      const at = this.toScreen(new Vector3(...directionVector(lon, lat)).multiplyScalar(this.sphereRadius));
      if (!at || document.elementFromPoint(at.x, at.y) !== this.canvas) continue;
      const pick = this.pickAt(at.x, at.y);
      if (pick.sensor < 0 && pick.row === row) return at;
    }
    return null;
  }

  sensorToScreen(k) {
    if (k < 0 || k >= this.discs.length) return null;
    const at = this.toScreen(this.discs[k].position);
    if (!at || document.elementFromPoint(at.x, at.y) !== this.canvas) return null;
    return this.pickAt(at.x, at.y).sensor === k ? at : null;
  }
}

// Hooks for the browser test and for anyone scripting the page from the
// console; the view itself does not use them.
function exposeForTests(view) {
  window.sensorlayView = {
    sensorMarkerCount: () => view.discs.filter((d) => d.parent === view.sensorGroup).length,
    lookFrom: (longitude, latitude) => view.lookFrom(longitude, latitude),
    directionToScreen: (longitude, latitude) => view.directionToScreen(longitude, latitude),
    sensorToScreen: (k) => view.sensorToScreen(k),
    rowAt: (longitude, latitude) => (view.coverage ? rowAt(view.coverage, longitude, latitude) : -1),
  };
}

function start() {
  let design;
  try {
    let json;
    try {
      json = JSON.parse(document.getElementById('sensorlay-data').textContent);
    } catch (e) {
      throw new DataError(`the embedded data is not JSON (${e.message})`);
    }
    design = readDesign(json);
  } catch (e) {
    if (!(e instanceof DataError)) throw e;
    panel.showFatal(`This page's design data cannot be shown: ${e.message}`);
    return;
  }
  panel.fillHeader(design);
  panel.fillSummary(design);
  panel.fillSettings(design);
  panel.fillRunRecord(design);
  let view;
  try {
    view = new DesignView(design);
  } catch (e) {
    panel.showFatal(`This browser could not draw the design (${e.message}). The numbers in the panel still hold.`);
    throw e;
  }
  exposeForTests(view);
  if (!design.coverage) document.getElementById('legend').textContent = 'This page holds no coverage of directions.';
  document.body.dataset.viewState = 'ready';
}

start();
