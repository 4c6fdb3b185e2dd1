// ---- RF -----------------------------------------------------------------------------------------------------------

// Power of a raised cosine relative to its middle, in dB; -Infinity outside.
function raisedCosine(offsetMhz, symbolMhz) {
  const flat = symbolMhz * (1 - ROLL_OFF) / 2;
  const end = symbolMhz * (1 + ROLL_OFF) / 2;
  const distance = Math.abs(offsetMhz);
  if (distance <= flat) return 0;
  if (distance >= end) return -Infinity;
  return 10 * Math.log10(0.5 * (1 + Math.cos(Math.PI * (distance - flat) / (end - flat))));
}

function spectrumScale(channels, width, height) {
  const box = { left: 44, top: 12, right: width - 10, bottom: height - 34 };
  const known = channels.map((one) => one.rf.frequency_khz).filter((khz) => khz !== null).map((khz) => khz / 1000);
  const from = known.length ? Math.min(...known) - RASTER_MHZ * (known.length > 1 ? 0.75 : 1.25) : 0;
  const to = known.length ? Math.max(...known) + RASTER_MHZ * (known.length > 1 ? 0.75 : 1.25) : 0;
  const levels = channels.filter((one) => one.rf.on_air).map((one) => one.rf.level_dbuv);
  const low = Math.min(40, ...levels.map((one) => Math.floor((one - 20) / 10) * 10));
  const high = Math.max(120, ...levels.map((one) => Math.ceil((one + 5) / 10) * 10));
  return { box, from, to, low, high, known,
    x: (mhz) => box.left + (mhz - from) / (to - from) * (box.right - box.left),
    y: (dbuv) => box.bottom - (Math.max(low, dbuv) - low) / (high - low) * (box.bottom - box.top) };
}
function spectrumGrid({ box, from, to, low, high, known, x, y }) {
  const nodes = [svg('rect', { x: box.left, y: box.top, width: box.right - box.left, height: box.bottom - box.top,
    class: 'glass' })];
  for (let dbuv = low; dbuv <= high; dbuv += 10) {
    nodes.push(straight(box.left, y(dbuv), box.right, y(dbuv), 'grid'));
    if (dbuv % 20 === 0) nodes.push(text(box.left - 6, y(dbuv) + 4, 'label end', dbuv));
  }
  nodes.push(text(box.left + 6, box.top + 14, 'label', 'dBµV'));
  if (!known.length) return nodes;
  for (let mhz = Math.ceil(from / 2) * 2; mhz <= to; mhz += 2) {
    nodes.push(straight(x(mhz), box.top, x(mhz), box.bottom, 'grid'));
    if (mhz % 4 === 0 && x(mhz) < box.right - 40) nodes.push(text(x(mhz), box.bottom + 14, 'label middle', mhz));
  }
  nodes.push(text(box.right, box.bottom + 14, 'label end', 'MHz'));
  const edges = new Set(known.flatMap((mhz) => [mhz - RASTER_MHZ / 2, mhz + RASTER_MHZ / 2]));
  for (const mhz of edges) nodes.push(straight(x(mhz), box.top, x(mhz), box.bottom, 'raster'));
  return nodes;
}
function spectrumChannel(scale, { id, rf }, index) {
  const { box, low, x, y } = scale;
  if (rf.frequency_khz === null) return null;
  const middle = rf.frequency_khz / 1000;
  const foot = text(x(middle), box.bottom + 29, 'name middle', `${id}  ${megahertz(rf.frequency_khz)}`);
  if (!rf.on_air) {
    return [foot, text(x(middle), box.bottom - 8, 'name middle', `${id}: ${verdictWords(rf)}`)];
  }
  const rate = rf.symbol_rate_kbd / 1000;
  const half = rate * (1 + ROLL_OFF) / 2;
  const points = [];
  for (let step = -160; step <= 160; step += 1) {
    const offset = half * step / 160;
    const dbuv = Math.max(low, rf.level_dbuv + raisedCosine(offset, rate));
    points.push(`${x(middle + offset).toFixed(1)} ${y(dbuv).toFixed(1)}`);
  }
  const shape = 'M' + points.join('L');
  return [
    svg('path', { d: shape + 'Z', class: index ? 'filltwo' : 'fillone' }),
    svg('path', { d: shape, class: index ? 'trace second' : 'trace' }),
    text(x(middle), y(rf.level_dbuv) - 6, 'name middle strong', level(rf.level_dbuv)),
    text(x(middle), y(rf.level_dbuv) + 18, 'label middle',
      x(rate) - x(0) > 115 ? `${rf.constellation || ''} ${rf.symbol_rate_kbd} kBd` : rf.constellation || ''),
    foot];
}
const rfSummary = (channels) => channels.map(({ id, rf }) => (rf.on_air
  ? t('channelSummary', id, verdictWords(rf), megahertz(rf.frequency_khz), level(rf.level_dbuv))
  : t('channelReason', id, verdictWords(rf), rf.why || ''))).join(' ');

function spectrum(slot, channels, width, height) {
  const scale = spectrumScale(channels, width, height);
  const { box } = scale;
  const silent = !channels.some((one) => one.rf.on_air);
  return picture(width, height, t('spectrumSummary', slot, rfSummary(channels)),
    spectrumGrid(scale),
    straight(box.left, box.bottom, box.right, box.bottom, 'floor'),
    channels.map((one, index) => spectrumChannel(scale, one, index)),
    silent && text((box.left + box.right) / 2, (box.top + box.bottom) / 2, 'name middle strong', t('nothingOnAir')));
}

// Points of a constellation, a step of 2 between neighbours. 128-QAM is a 12 by 12 square without its corners.
function idealPoints(constellation) {
  const size = { '64-QAM': 8, '128-QAM': 12, '256-QAM': 16 }[constellation];
  if (!size) return null;
  const points = [];
  for (let i = 1 - size; i < size; i += 2) {
    for (let q = 1 - size; q < size; q += 2) {
      if (size !== 12 || Math.abs(i) < 8 || Math.abs(q) < 8) points.push([i, q]);
    }
  }
  return { size, points };
}
function constellationPicture(id, rf, index, side) {
  const ideal = rf.on_air ? idealPoints(rf.constellation) : null;
  const label = ideal ? t('idealOf', id, rf.constellation) : `${id}: ${verdictWords(rf)}`;
  const middle = side / 2;
  const at = (value) => (middle + value * (middle - 16) / ideal.size).toFixed(1);
  return el('figure', {},
    picture(side, side, label,
      svg('rect', { x: 0.5, y: 0.5, width: side - 1, height: side - 1, class: 'glass' }),
      straight(middle, 4, middle, side - 4, 'grid'), straight(4, middle, side - 4, middle, 'grid'),
      text(side - 8, middle - 4, 'label', 'I'), text(middle + 4, 13, 'label', 'Q'),
      ideal && svg('path', { d: ideal.points.map(([i, q]) => `M${at(i)} ${at(q)}h0`).join(''),
        class: index ? 'points second' : 'points', 'stroke-width': ideal.size > 12 ? 3 : 4 })),
    el('figcaption', {}, ideal ? [`${id}  ${rf.constellation}`, el('br'), t('idealPoints')] : label));
}

function rfTable(slot, channels) {
  const row = (key, of) => [t(key), ...channels.map(({ rf }) => of(rf))];
  return table(t('cardOf', slot), [[t('property')], ...channels.map(({ id }) => [id])], [
    row('verdict', verdictOf),
    channels.some(({ rf }) => rf.why) && row('why', (rf) => rf.why || '–'),
    row('carrier', (rf) => megahertz(rf.frequency_khz)),
    row('level', (rf) => level(rf.level_dbuv)),
    row('constellation', (rf) => rf.constellation || t('unknown')),
    row('symbolRate', (rf) => `${rf.symbol_rate_kbd} kBd`),
    row('clock', (rf) => (rf.clock_kbd === null ? t('none') : `${rf.clock_kbd.toFixed(3)} kBd`)),
    row('bitRate', (rf) => bits(rf.bit_rate)),
  ].filter(Boolean), true);
}
function drawRf(data, width) {
  if (!data) return blank('waiting');
  if (!data.length) return blank('noCards');
  const inner = width - (windowWidth() <= 480 ? 22 : 30);
  const chart = windowWidth() > 1180 ? inner - 400 - 312 - 44 : inner;
  return el('div', { class: 'stack' }, data.map(({ slot, state: word, kind, channels }) =>
    el('section', { class: 'sheet' },
      el('div', { class: 'head' }, el('h2', {}, t('cardOf', slot)), stated(kind, named('state_', word)),
        el('span', { class: 'soft push' }, t('spectrum'))),
      el('div', { class: 'rfcard' },
        spectrum(slot, channels, Math.max(260, chart), 250),
        el('div', { class: 'stars' }, channels.map(({ id, rf }, index) =>
          constellationPicture(id, rf, index, 150))),
        rfTable(slot, channels)))));
}
const pickRf = () => status() && cards().map((card) => ({ slot: card.slot, state: card.state, kind: cardKind(card),
  channels: card.channels.map(({ rf }, index) => ({ id: `${card.slot}.${index + 1}`, rf })) }));
