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
function keyPad() {
  const key = (name) => el('button', { type: 'button', disabled: true, 'data-key': name }, t(`key_${name}`));
  return el('div', { class: 'keys', role: 'group', 'aria-label': t('keys') },
    key('cancel'), key('up'), key('ok'), key('left'), key('down'), key('right'));
}
const panelView = {
  parts: [{ pick: () => status() && state.snapshot.lcd && { pixels: state.snapshot.lcd.pixels }, draw: drawLcd },
    { pick: () => state.snapshot && state.snapshot.lcd && lcdRows(state.snapshot.lcd),
      draw: (rows) => rows && document.createTextNode(rows) }],
  // The row texts are a live region that stays in place, so that changes are read out.
  frame: ([lcd, rows]) => {
    rows.setAttribute('aria-live', 'polite');
    rows.setAttribute('class', 'rows mono');
    return el('div', { class: 'front' }, lcd, el('section', { class: 'sheet' },
      !REPORT && [el('h2', {}, t('keys')), keyPad(), el('p', { class: 'soft' }, t('keysOff'))],
      el('h3', {}, t('lcdText')), rows));
  },
};
