// ---- Overview -----------------------------------------------------------------------------------------------------

function cardNotes(card) {
  const notes = [];
  if (card.hung) {
    const { task, register, since_seconds: since } = card.hung;
    notes.push(['bad', t('hungAt', task, register, seconds(since))]);
  }
  if (!card.record_kept && card.state === 'running') notes.push(['warn', t('recordLost')]);
  const lcd = card.lcd.map((row) => row.trim()).filter(Boolean).join(' ');
  if (lcd) notes.push(['idle', lcd]);
  return notes;
}
function channelNotes(channel) {
  return [
    channel.map.input_lost && ['bad', t('inputLost')],
    channel.map.overflow && ['warn', t('overflow')],
    channel.locked_seconds !== undefined && ['idle', t('locked')],
    channel.map.locked_seconds !== undefined && ['idle', t('mapLocked')],
  ].filter(Boolean);
}
const noteLines = (notes) => notes.map(([kind, words]) => el('div', { class: 'note' }, stated(kind, words)));

function usageBar(channel, width, height) {
  const whole = channel.bit_rate;
  const share = (rate) => (whole > 0 ? Math.min(width, width * rate / whole) : 0);
  const psi = share(channel.rates.psi);
  const routed = Math.min(width - psi, share(channel.rates.routed));
  const label = t('usedOf', bits(usedRate(channel)), bits(whole), percent(usedRate(channel), whole));
  return svg('svg', { width: '100%', height, viewBox: `0 0 ${width} ${height}`, preserveAspectRatio: 'none',
    role: 'img', 'aria-label': label },
  svg('rect', { x: 0, y: 0, width, height, class: 'null' }),
  svg('rect', { x: 0, y: 0, width: psi, height, class: 'psi' }),
  svg('rect', { x: psi, y: 0, width: routed, height, class: 'routed' }));
}

function portLines(card, channel, number) {
  const { rf } = channel;
  const id = `${card.slot}.${number}`;
  return el('div', { class: 'port' },
    el('div', { class: 'line' }, sends(card, channel) ? el('a', { href: address(`streams/${id}`) }, id) : id,
      verdictOf(rf)),
    rf.on_air ? [
      el('div', { class: 'line' }, el('span', {}, megahertz(rf.frequency_khz)),
        el('span', { class: 'soft' }, rf.constellation)),
      el('div', { class: 'line soft' }, el('span', {}, level(rf.level_dbuv)),
        el('span', {}, percent(usedRate(channel), channel.bit_rate))),
      usageBar(channel, 100, 4)] : el('div', { class: 'line soft' }, rf.why),
    noteLines(channelNotes(channel)));
}
function cardSlot(card) {
  const kind = cardKind(card);
  return el('li', { class: `slot ${kind}` },
    el('div', { class: 'title' }, el('span', {}, t('slot', card.slot)), el('span', { class: 'soft' }, t('card'))),
    stated(kind, named('state_', card.state)),
    noteLines(cardNotes(card)),
    card.channels.map((channel, index) => portLines(card, channel, index + 1)));
}
function sourceSlot(source) {
  const lost = source.inputs.filter((one) => one.bit_rate === 0).length;
  const kind = lost === 0 ? 'ok' : lost < source.inputs.length ? 'warn' : 'bad';
  return el('li', { class: `slot ${kind}` },
    el('div', { class: 'title' }, el('span', {}, t('slot', source.slot)), el('span', { class: 'soft' }, t('source'))),
    source.inputs.map((one) => el('div', { class: 'port' },
      el('div', { class: 'line' }, el('a', { href: address('streams') }, `${source.slot}.${one.input}`),
        one.bit_rate > 0 ? stated('ok', t('inputDelivers')) : stated('bad', t('inputSilent'))),
      el('div', { class: 'line soft' }, el('span', {}, baseName(one.name))),
      el('div', { class: 'line soft' }, bits(one.bit_rate)))));
}
function emptySlot(slot) {
  return el('li', { class: 'slot empty' }, el('div', { class: 'title' }, t('slot', slot)),
    stated('empty', t('empty')));
}
const baseName = (name) => (name.includes('://') ? name : name.slice(name.lastIndexOf('/') + 1));

function drawSlots(data) {
  if (!data) return blank('waiting');
  const slots = SLOTS.map((slot) => {
    const card = data.cards.find((one) => one.slot === slot);
    const source = data.sources.find((one) => one.slot === slot);
    return card ? cardSlot(card) : source ? sourceSlot(source) : emptySlot(slot);
  });
  return el('section', { class: 'chassis', 'aria-label': t('chassis') },
    el('div', { class: 'plate' },
      el('h2', {}, data.name),
      el('dl', { class: 'facts' },
        el('dt', {}, t('virtualTime')), el('dd', {}, data.time),
        !REPORT && [el('dt', {}, t('pace')), el('dd', {}, data.pace)]),
      data.pixels && el('a', { class: 'lcdlink', href: address('panel'), 'aria-label': t('panel') },
        lcdCanvas(data.pixels, ''))),
    el('ul', { class: 'slots' }, slots));
}
function pickSlots() {
  const now = status();
  if (!now) return null;
  const { pace, lcd } = state.snapshot;
  return {
    name: (headend() || {}).name || '',
    time: seconds(now.virtual_seconds),
    pace: pace === null || pace === undefined ? t('unknown') : `${pace.toFixed(2)} ×`,
    pixels: lcd && lcd.pixels,
    cards: now.cards.map(({ slot, state: word, record_kept, lcd: rows, hung, channels }) => ({
      slot, state: word, record_kept, lcd: rows, hung,
      channels: channels.map(({ rf, rates, bit_rate, map, locked_seconds }) =>
        ({ rf, rates, bit_rate, map, locked_seconds })),
    })),
    sources: now.sources.map(({ slot, inputs }) => ({
      slot, inputs: inputs.map(({ input, name, bit_rate }) => ({ input, name, bit_rate })),
    })),
  };
}

function standingTable(alarms) {
  if (!alarms.length) return el('p', { class: 'none' }, stated('ok', t('noAlarms')));
  return table(t('standing'),
    [[t('severity')], [t('slot', '').trim()], [t('alarm'), 'wide'], [t('happened'), 'num'], [t('local'), 'num']],
    alarms.map((alarm) => [severityOf(alarm), placeOf(alarm), `${texts(alarm).title}: ${texts(alarm).text}`,
      utcTime(alarm.happened * 1000), localTime(alarm.happened * 1000)]), true);
}
function drawHeadend(data) {
  if (!data) return null;
  return el('div', { class: 'columns two' },
    sheet(t('standing'), standingTable(data.standing)),
    sheet(t('headend'), facts([
      [t('name'), data.name],
      data.server && [t('server'), data.server],
      [t('version'), data.version],
      [t('alarmLog'), t(data.kept ? 'logKept' : 'logNotKept', data.events)],
      [t('heap'), `${grouped(Math.round(data.heap.used / 1024))} KiB`],
      data.heap.failures > 0 && [t('heapFailures'), stated('bad', grouped(data.heap.failures))],
      [t('auxClock'), `${grouped(data.aux_hz)} Hz`],
      [t('sysClock'), `${grouped(data.tick_hz)} Hz`],
    ])));
}
function pickHeadend() {
  const now = status();
  const one = headend() || {};
  return now && { name: one.name, server: one.server, version: state.version, standing: now.alarms.standing,
    events: now.alarms.events, kept: now.alarms.kept, heap: now.heap, aux_hz: now.aux_hz, tick_hz: now.tick_hz };
}

// Lists that are shown only if they have entries.
function drawTroubles(data) {
  if (!data) return null;
  const sheets = [
    data.faults.length && sheet(t('faults'), table(t('faults'),
      [[t('fault'), 'wide'], [t('present')], [t('from'), 'num'], [t('until'), 'num'], [t('period'), 'num']],
      data.faults.map((one) => [one.fault,
        one.present ? stated('bad', t('presentNow')) : stated('idle', t('planned')), seconds(one.from_seconds),
        one.until_seconds === null ? t('open') : seconds(one.until_seconds),
        one.period_seconds === null ? '–' : `${one.period_seconds} s`]), true)),
    Object.keys(data.violations).length && sheet(t('violations'), table(t('violations'),
      [[t('kind'), 'wide'], [t('number'), 'num']],
      Object.entries(data.violations).map(([kind, count]) => [stated('warn', kind), grouped(count)]), true)),
    data.failed.length && sheet(t('failedChecks'), table(t('failedChecks'),
      [[t('check'), 'wide'], [t('unit')], [t('line'), 'num'], [t('number'), 'num']],
      data.failed.map((one) => [stated('warn', one.text), one.unit, one.line, grouped(one.count)]), true)),
    data.late.length && sheet(t('lateRequests'), table(t('lateRequests'), [[t('arrived')], [t('load'), 'wide']],
      data.late.map((one) => [seconds(one.arrived_seconds),
        one.load.map(({ task, ms }) => `${task} ${ms.toFixed(0)} ms`).join(', ')]), true)),
    data.waits.length && sheet(t('semaphores'), el('ul', {}, data.waits.map((one) =>
      el('li', {}, stated('warn', t('waitText', one.task, one.semaphore, one.held_by)),
        ` (${t('since')} ${seconds(one.since_seconds)})`)))),
  ].filter(Boolean);
  return sheets.length ? el('div', { class: 'columns' }, sheets) : null;
}
function countEqual(failures) {
  const counted = new Map();
  for (const { unit, line, text: words } of failures) {
    const key = `${unit}:${line}`;
    counted.set(key, { unit, line, text: words, count: (counted.get(key) || { count: 0 }).count + 1 });
  }
  return [...counted.values()];
}
function pickTroubles() {
  const now = status();
  return now && { faults: now.faults, violations: now.protocol_violations, failed: countEqual(now.assertion_failures),
    late: now.late_requests.slice(-10), waits: now.semaphore_waits.slice(-10) };
}
