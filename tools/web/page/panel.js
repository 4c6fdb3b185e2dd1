// ---- Front panel --------------------------------------------------------------------------------------------------

function lcdCanvas(pixels, label) {
  const canvas = el('canvas', { width: 128, height: 64, class: label ? 'lcd' : null, role: label ? 'img' : null,
    'aria-label': label || null, 'aria-hidden': label ? null : 'true' });
  const context = canvas.getContext('2d');
  const image = context.createImageData(128, 64);
  const [ground, ink] = [[184, 207, 62], [24, 38, 20]];
  pixels.forEach((row, y) => {
    for (let x = 0; x < 128; x += 1) {
      const set = (parseInt(row[x >> 2], 16) >> (3 - (x & 3))) & 1;
      image.data.set([...(set ? ink : ground), 255], (y * 128 + x) * 4);
    }
  });
  context.putImageData(image, 0, 0);
  return canvas;
}
// Rows as text: '>' before a row that begins inverse, other inverse characters in brackets.
function lcdRows({ rows, inverse }) {
  return rows.map((row, index) => {
    const marked = new Set(inverse.filter((one) => one.row === index).map((one) => one.x));
    if (marked.has(0)) return `>${row}`;
    let x = 0;
    const shown = [...row].map((letter) => {
      const set = marked.has(x);
      x += letter.codePointAt(0) < 0x80 ? 8 : 16;
      return set ? `[${letter}]` : letter;
    });
    return ` ${shown.join('')}`;
  }).join('\n');
}
function drawLcd(lcd) {
  return lcd ? lcdCanvas(lcd.pixels, t('lcd')) : el('p', { class: 'none' }, t('lcdNone'));
}

// Keys wait here until those before them are taken.
const KEYS_AT_ONCE = 16;
const keyQueue = { waiting: [], sending: false };
async function pressKey(name) {
  const { waiting } = keyQueue;
  waiting.push({ id: state.route.headend, name });
  if (keyQueue.sending) return;
  keyQueue.sending = true;
  try {
    while (waiting.length) {
      const { id } = waiting[0];
      const others = waiting.findIndex((one) => one.id !== id);
      const run = waiting.splice(0, Math.min(KEYS_AT_ONCE, others < 0 ? waiting.length : others));
      await command(id, ['key', ...run.map((one) => one.name)]);
    }
  } catch (failure) {
    waiting.length = 0;
    say('bad', failure.message);
  }
  keyQueue.sending = false;
}
const KEY_OF = { ArrowUp: 'up', ArrowDown: 'down', ArrowLeft: 'left', ArrowRight: 'right', Enter: 'ok', Escape: 'cancel' };
// The keyboard presses keys while the LCD or a key has the focus. Enter on a key presses that one.
function keyboardKey(event) {
  const name = KEY_OF[event.key];
  if (!name || !mayWrite() || event.ctrlKey || event.altKey || event.metaKey || event.shiftKey) return;
  if (name === 'ok' && event.target.closest('button')) return;
  event.preventDefault();
  pressKey(name);
}
function drawKeys({ session }) {
  const key = (name) => el('button', { type: 'button', disabled: !mayWrite(), 'data-key': name, onclick: (event) => {
    pressKey(name);
    if (event.detail) byId('lcd').focus(); // a click: the keyboard goes on at the LCD
  } }, t(`key_${name}`));
  return [el('div', { class: 'keys', role: 'group', 'aria-label': t('keys') },
    key('cancel'), key('up'), key('ok'), key('left'), key('down'), key('right')),
  el('p', { class: 'soft' }, t(!session.writes ? 'keysOff' : session.in ? 'keysOn' : 'keysLogIn'))];
}
const panelView = {
  parts: [{ pick: () => status() && state.snapshot.lcd && { pixels: state.snapshot.lcd.pixels }, draw: drawLcd },
    { pick: () => ({ session: state.session }), draw: drawKeys },
    { pick: () => state.snapshot && state.snapshot.lcd && lcdRows(state.snapshot.lcd),
      draw: (rows) => rows && document.createTextNode(rows) }],
  // The row texts are a live region that stays in place, so that changes are read out.
  frame: ([lcd, keys, rows]) => {
    rows.setAttribute('aria-live', 'polite');
    rows.setAttribute('class', 'rows mono');
    const words = [el('h3', {}, t('lcdText')), rows];
    if (REPORT) return el('div', { class: 'front' }, lcd, el('section', { class: 'sheet' }, words));
    return el('div', { class: 'front', onkeydown: keyboardKey },
      el('div', { id: 'lcd', tabindex: 0, role: 'application', 'aria-label': t('lcdKeys') }, lcd),
      el('section', { class: 'sheet' }, el('h2', {}, t('keys')), keys, words));
  },
};
