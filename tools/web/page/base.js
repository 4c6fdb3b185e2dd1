// ---- Small helpers ------------------------------------------------------------------------------------------------

const byId = (id) => document.getElementById(id);
const has = (key) => Object.prototype.hasOwnProperty.call(TEXTS, key);
const t = (key, ...values) =>
  TEXTS[key][state.language].replace(/\{(\d)\}/g, (_, index) => String(values[Number(index)]));
// The text of a value that the chassis names; an unknown one is shown as it came.
const named = (prefix, value) => (has(prefix + value) ? t(prefix + value) : String(value));
const texts = (alarm) => (state.language ? alarm.zh : alarm.en) || {};

function put(node, attributes, children) {
  for (const [name, value] of Object.entries(attributes || {})) {
    if (value === null || value === undefined || value === false) continue;
    if (name.startsWith('on')) node.addEventListener(name.slice(2), value);
    else node.setAttribute(name, value === true ? '' : String(value));
  }
  for (const child of children.flat(9)) {
    if (child === null || child === undefined || child === false) continue;
    node.append(child instanceof Node ? child : document.createTextNode(String(child)));
  }
  return node;
}
const el = (tag, attributes, ...children) => put(document.createElement(tag), attributes, children);
const svg = (tag, attributes, ...children) =>
  put(document.createElementNS('http://www.w3.org/2000/svg', tag), attributes, children);
const picture = (width, height, label, ...children) =>
  svg('svg', { width, height, viewBox: `0 0 ${width} ${height}`, role: 'img', 'aria-label': label }, children);
const text = (x, y, classes, content) => svg('text', { x, y, class: classes }, content);
const straight = (x1, y1, x2, y2, classes) => svg('line', { x1, y1, x2, y2, class: classes });

const blank = (key) => el('p', { class: 'sheet none' }, t(key));
function sheet(title, ...children) {
  return el('section', { class: 'sheet' }, el('h2', {}, title), children);
}
function facts(rows) {
  return el('dl', { class: 'facts' }, rows.filter(Boolean).map(([term, value]) =>
    [el('dt', {}, term), el('dd', {}, value)]));
}
// columns: [heading, class]; rows: lists of cells, the first one is the row's heading.
function table(caption, columns, rows, unseenCaption) {
  const cell = (content, index) => (index === 0
    ? el('th', { scope: 'row', class: columns[0][1] }, content)
    : el('td', { class: columns[index][1] }, content));
  return el('div', { class: 'scroll', tabindex: 0, role: 'region', 'aria-label': caption },
    el('table', {},
      el('caption', { class: unseenCaption ? 'unseen' : null }, caption),
      el('thead', {}, el('tr', {}, columns.map(([heading, classes]) =>
        el('th', { scope: 'col', class: classes }, heading)))),
      el('tbody', {}, rows.map((row) => el('tr', {}, row.map(cell))))));
}

// ---- Numbers and times --------------------------------------------------------------------------------------------

const two = (number) => String(number).padStart(2, '0');
const grouped = (number) => Number(number).toLocaleString('en-US').replace(/,/g, '\u202f');
const hex = (pid) => '0x' + Number(pid).toString(16).toUpperCase().padStart(4, '0');
const percent = (part, whole) => (whole > 0 ? (100 * part / whole).toFixed(1) + ' %' : '–');
function bits(rate) {
  if (rate === null || rate === undefined) return t('unknown');
  if (rate >= 1e6) return (rate / 1e6).toFixed(3) + ' Mbit/s';
  if (rate >= 1e3) return (rate / 1e3).toFixed(1) + ' kbit/s';
  return rate.toFixed(0) + ' bit/s';
}
const megahertz = (khz) => (khz === null ? t('none') : (khz / 1000).toFixed(4) + ' MHz');
const level = (dbuv) => (dbuv === null ? t('none') : dbuv.toFixed(1) + ' dBµV');
function seconds(value) {
  if (value === null || value === undefined) return t('never');
  const whole = Math.floor(value);
  const days = Math.floor(whole / 86400);
  const clock = `${two(Math.floor(whole / 3600) % 24)}:${two(Math.floor(whole / 60) % 60)}:${two(whole % 60)}`;
  return days ? `${days} d ${clock}` : clock;
}
function span(milliseconds) {
  const value = Math.max(0, milliseconds) / 1000;
  if (value < 10) return value.toFixed(1) + ' s';
  if (value < 120) return value.toFixed(0) + ' s';
  if (value < 7200) return (value / 60).toFixed(0) + ' min';
  return (value / 3600).toFixed(0) + ' h';
}
const utcClock = (ms) => new Date(ms).toISOString().slice(11, 19);
const utcTime = (ms) => new Date(ms).toISOString().slice(0, 19).replace('T', ' ');
function localTime(ms) {
  const at = new Date(ms);
  return `${at.getFullYear()}-${two(at.getMonth() + 1)}-${two(at.getDate())} ` +
    `${two(at.getHours())}:${two(at.getMinutes())}:${two(at.getSeconds())}`;
}
function zone() {
  const minutes = -new Date().getTimezoneOffset();
  const size = Math.abs(minutes);
  return `UTC${minutes < 0 ? '−' : '+'}${two(Math.floor(size / 60))}:${two(size % 60)}`;
}

// ---- Symbols of states: a shape and a colour for each ------------------------------------------------------------

const SHAPES = {
  ok: ['M7 1a6 6 0 1 1 0 12a6 6 0 1 1 0-12z', 'M4.2 7.2l2 2l3.6-4.2'],
  warn: ['M7 1L13.5 13H.5z', 'M7 5v4M7 10.6v.6'],
  bad: ['M1 1h12v12H1z', 'M4.4 4.4l5.2 5.2M9.6 4.4l-5.2 5.2'],
  idle: ['M7 1L13 7L7 13L1 7z', 'M4.6 7h4.8'],
  empty: ['', 'M7 2a5 5 0 1 1 0 10a5 5 0 1 1 0-10z'],
};
function mark(kind) {
  const [body, sign] = SHAPES[kind];
  const hollow = !body;
  return svg('svg', { class: `mark ${hollow ? 'idle' : kind}`, viewBox: '0 0 14 14', 'aria-hidden': 'true' },
    body && svg('path', { d: body, fill: 'currentColor' }),
    svg('path', { d: sign, fill: 'none', stroke: hollow ? 'currentColor' : 'var(--sheet)', 'stroke-width': 1.7,
      'stroke-dasharray': hollow ? '2 2' : null, 'stroke-linecap': 'round' }));
}
const stated = (kind, words) => el('span', { class: 'state' }, mark(kind), words);
const cardKind = (card) => (card.state === 'running' ? (card.record_kept ? 'ok' : 'warn')
  : card.state === 'starting' ? 'idle' : 'bad');
const verdictKind = (rf) => ({ 'on air': 'ok', off: 'idle' }[rf.verdict] || 'bad');
const verdictWords = (rf) => (rf.verdict === 'on air' ? t('verdict_on') : named('verdict_', rf.verdict));
const severityKind = (severity) => ({ critical: 'bad', major: 'warn', minor: 'warn' }[severity] || 'idle');
const verdictOf = (rf) => stated(verdictKind(rf), verdictWords(rf));
const severityOf = (alarm) => stated(severityKind(alarm.severity), named('sev_', alarm.severity));
const placeOf = (alarm) => (alarm.channel === null ? `${alarm.slot}` : `${alarm.slot}.${alarm.channel}`);
