// The colourings of the coverage sphere. Every scale is fixed, the same for
// every design, so that two pages can be compared by eye: brighter is better
// in all of them. Directions that no sensor sees have a colour of their own
// that no scale uses, and directions without a fix are hatched.

// A perceptually even ramp from dark violet (worst) to yellow (best).
const RAMP = [
  [0x44, 0x01, 0x54], [0x48, 0x28, 0x78], [0x3e, 0x49, 0x89], [0x31, 0x68, 0x8e], [0x26, 0x82, 0x8e],
  [0x1f, 0x9e, 0x89], [0x35, 0xb7, 0x79], [0x6e, 0xce, 0x58], [0xb5, 0xde, 0x2b], [0xfd, 0xe7, 0x25],
];

export const UNSEEN_RGB = [0xe8, 0x17, 0x5d];
export const NO_FIX = 1.0; // the tables' value for an uncertainty that could not be computed

export function ramp(t) {
  const x = Math.min(1, Math.max(0, t)) * (RAMP.length - 1);
  const i = Math.min(RAMP.length - 2, Math.floor(x));
  const f = x - i;
  return RAMP[i].map((c, k) => Math.round(c + f * (RAMP[i + 1][k] - c)));
}

export function rgbCss(rgb) {
  return `rgb(${rgb[0]}, ${rgb[1]}, ${rgb[2]})`;
}

const COUNT_FULL = 10;
const GRADE_STEPS = { 0: 0, 96: 1 / 3, 99: 2 / 3, 100: 1 };
export const GRADE_MEANING = {
  100: 'five or more sensors spread in 3-D',
  99: 'exactly four sensors',
  96: 'four or more, but flat or in a narrow triangle',
  0: 'no usable fix',
};

// Uncertainties on a logarithmic scale over two decades; `toUnit` turns the
// table's value (metres, radians) into the unit shown.
function logScale(low, high, toUnit) {
  const span = Math.log10(high / low);
  const tOfUnit = (shown) => 1 - Math.log10(Math.max(low, Math.min(high, shown)) / low) / span;
  return { low, high, tOfUnit, t: (value) => tOfUnit(toUnit(value)) };
}

export const POSITION_SCALE = logScale(0.3, 30, (metres) => metres * 1000);
export const ROTATION_SCALE = logScale(0.1, 10, (radians) => (radians * 180) / Math.PI);

export function hasFix(coverage, row) {
  return (
    coverage.visibleCount[row] > 0 &&
    coverage.grade[row] !== 0 &&
    coverage.positionSigma[row] < NO_FIX &&
    coverage.rotationSigma[row] < NO_FIX
  );
}

export const COLOURINGS = {
  count: {
    label: 'Visible sensors',
    colour: (c, r) => ramp((Math.min(c.visibleCount[r], COUNT_FULL) - 1) / (COUNT_FULL - 1)),
    legend: () => ({
      kind: 'steps',
      across: true,
      items: Array.from({ length: COUNT_FULL }, (_, i) => ({
        rgb: ramp(i / (COUNT_FULL - 1)),
        text: i + 1 === COUNT_FULL ? `${COUNT_FULL}+` : String(i + 1),
      })),
    }),
  },
  grade: {
    label: 'Grade',
    colour: (c, r) => ramp(GRADE_STEPS[c.grade[r]] ?? 0),
    legend: () => ({
      kind: 'steps',
      items: [100, 99, 96, 0].map((g) => ({ rgb: ramp(GRADE_STEPS[g]), text: `${g}: ${GRADE_MEANING[g]}` })),
    }),
  },
  position: {
    label: 'Position uncertainty',
    colour: (c, r) => ramp(POSITION_SCALE.t(c.positionSigma[r])),
    legend: () => ({ kind: 'log', scale: POSITION_SCALE, unit: 'mm', ticks: [0.3, 1, 3, 10, 30] }),
  },
  rotation: {
    label: 'Rotation uncertainty',
    colour: (c, r) => ramp(ROTATION_SCALE.t(c.rotationSigma[r])),
    legend: () => ({ kind: 'log', scale: ROTATION_SCALE, unit: '°', ticks: [0.1, 0.3, 1, 3, 10] }),
  },
};

// Colour and hatch flag of one direction in one colouring.
export function cellStyle(coverage, row, colouring) {
  if (coverage.visibleCount[row] === 0) return { rgb: UNSEEN_RGB, hatched: false };
  return { rgb: COLOURINGS[colouring].colour(coverage, row), hatched: !hasFix(coverage, row) };
}
