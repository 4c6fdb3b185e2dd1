// ---- Start-up -----------------------------------------------------------------------------------------------------

function ganttPicture(card, end, width) {
  const names = windowWidth() <= 480 ? 132 : 160;
  const right = width - 74;
  const [gap, top] = [windowWidth() > 1000 ? 25 : 18, 20];
  const height = top + gap * card.startup.length + 6;
  const x = (ms) => names + ms / end * (right - names);
  const steps = [1, 2, 5, 10, 20, 50, 100, 200, 500, 1000, 2000, 5000, 10000];
  const step = steps.find((one) => end / one <= (width > 600 ? 10 : 4)) || 60000;
  const grid = [];
  for (let ms = 0; ms <= end; ms += step) {
    grid.push(straight(x(ms), top - 4, x(ms), height - 4, 'grid'), text(x(ms), 11, 'label middle', ms));
  }
  const longest = card.startup.reduce((best, one) => (one.ms > best.ms ? one : best), card.startup[0]);
  const failed = card.startup_ms === null && card.state !== 'starting';
  const bars = card.startup.map((one, row) => {
    const wide = Math.max(2, x(one.from_ms + one.ms) - x(one.from_ms));
    const last = failed && row === card.startup.length - 1;
    const y = top + gap * row;
    return [text(names - 8, y + gap / 2 + 3, 'name end', named('ph_', one.phase)),
      svg('rect', { x: x(one.from_ms), y: y + gap / 2 - 6, width: wide, height: 12, rx: 1.5,
        class: last ? 'phase last' : 'phase' }),
      text(x(one.from_ms) + wide + 6, y + gap / 2 + 3, 'label', `${one.ms.toFixed(one.ms < 10 ? 2 : 1)} ms`)];
  });
  return picture(width, height, t('startSummary', card.slot, card.startup.length, named('ph_', longest.phase)),
    grid, bars);
}
function startTable(card) {
  const total = card.startup.reduce((sum, one) => sum + one.ms, 0);
  return el('details', { open: windowWidth() > 480 }, el('summary', {}, t('phaseTable')), table(t('cardOf', card.slot),
    [[t('phase'), 'wide'], [t('fromMs'), 'num'], [t('ms'), 'num'], [t('share'), 'num'], [t('accesses'), 'num']],
    card.startup.map((one) => [named('ph_', one.phase), one.from_ms.toFixed(3), one.ms.toFixed(3),
      percent(one.ms, total), grouped(one.bus_accesses)]), true));
}
function drawStart(data, width) {
  if (!data) return blank('waiting');
  if (!data.length) return blank('noCards');
  const end = Math.max(1, ...data.flatMap((card) => card.startup.map((one) => one.from_ms + one.ms)));
  const inner = width - (windowWidth() <= 480 ? 22 : 30);
  const chart = windowWidth() > 1000 ? inner - 490 : inner;
  return el('div', { class: 'stack' }, data.map((card) =>
    el('section', { class: 'sheet' },
      el('div', { class: 'head' },
        el('h2', {}, card.startup_ms === null ? t('startNot', card.slot, named('state_', card.state))
          : t('startOf', card.slot, `${card.startup_ms.toFixed(1)} ms`)),
        stated(card.kind, named('state_', card.state)),
        el('span', { class: 'soft push' },
          `${t('attempts')} ${card.fpga_attempts}, ${t('saves')} ${card.saves}`)),
      noteLines(card.notes),
      card.startup.length ? el('div', { class: 'phases' }, ganttPicture(card, end, chart), startTable(card))
        : el('p', { class: 'none' }, t('noPhases')))),
  el('p', { class: 'soft' }, t('startAxis')));
}
const pickStart = () => status() && cards().map((card) => ({ slot: card.slot, state: card.state, kind: cardKind(card),
  notes: cardNotes(card), startup: card.startup, startup_ms: card.startup_ms, fpga_attempts: card.fpga_attempts,
  saves: card.saves }));
