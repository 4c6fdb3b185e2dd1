// ---- Streams ------------------------------------------------------------------------------------------------------

const emptySeries = { psi: [], routed: [], null: [] };
// Paths of the stacked areas. A second without data leaves a gap.
function stackedPaths(series, x, y, step) {
  const count = series.psi.length;
  const names = ['psi', 'routed', 'null'];
  const paths = { psi: '', routed: '', null: '' };
  let run = [];
  const close = () => {
    if (run.length > 1) {
      names.forEach((name, layer) => {
        const sum = (index, layers) => names.slice(0, layers).reduce((all, one) => all + series[one][index], 0);
        const upper = run.map((index) => `${x(count - 1 - index).toFixed(1)} ${y(sum(index, layer + 1)).toFixed(1)}`);
        const lower = run.map((index) => `${x(count - 1 - index).toFixed(1)} ${y(sum(index, layer)).toFixed(1)}`);
        paths[name] += `M${upper.join('L')}L${lower.reverse().join('L')}Z`;
      });
    }
    run = [];
  };
  for (let index = 0; index < count; index += 1) {
    const known = names.every((name) => typeof series[name][index] === 'number');
    if (!known) close();
    else if ((count - 1 - index) % step === 0 || index === 0) run.push(index);
  }
  close();
  return paths;
}
function areas(series, x, y, step) {
  const paths = stackedPaths(series, x, y, step);
  return ['null', 'routed', 'psi'].map((name) => paths[name] && svg('path', { d: paths[name], class: name }));
}
function highest(series) {
  return series.psi.reduce((top, psi, index) =>
    Math.max(top, (psi || 0) + (series.routed[index] || 0) + (series.null[index] || 0)), 1);
}
function sparkline(series, whole, width, height) {
  const top = Math.max(whole, highest(series));
  return svg('svg', { width: '100%', height, viewBox: `0 0 ${width} ${height}`, preserveAspectRatio: 'none',
    'aria-hidden': 'true' },
  svg('rect', { x: 0, y: 0, width, height, class: 'glass' }),
  areas(series, (ago) => width * (1 - ago / HISTORY_SECONDS), (rate) => height * (1 - rate / top), 4));
}
const withoutNull = (series) => ({ ...series, null: series.psi.map((psi) => (typeof psi === 'number' ? 0 : null)) });
// The smallest of 1, 2, 5, 10, ... that gives at most six lines.
function gridStep(top) {
  const decade = 10 ** Math.floor(Math.log10(top / 6));
  return decade * [1, 2, 5, 10].find((one) => top / (decade * one) <= 6);
}
function rateChart(id, series, whole, rates, width, height) {
  const box = { left: 46, top: 10, right: width - 8, bottom: height - 22 };
  const top = Math.max(whole, highest(series), 1000) * 1.06;
  const scale = top >= 1e6 ? 1e6 : 1e3;
  const x = (ago) => box.right - ago / HISTORY_SECONDS * (box.right - box.left);
  const y = (rate) => box.bottom - rate / top * (box.bottom - box.top);
  const step = gridStep(top);
  const grid = [];
  for (let rate = 0; rate <= top; rate += step) {
    grid.push(straight(box.left, y(rate), box.right, y(rate), 'grid'),
      text(box.left - 6, y(rate) + 4, 'label end', Number((rate / scale).toPrecision(6))));
  }
  for (let minute = 0; minute <= 10; minute += 2) {
    grid.push(straight(x(minute * 60), box.top, x(minute * 60), box.bottom, 'grid'),
      text(x(minute * 60), box.bottom + 15, minute ? 'label middle' : 'label end',
        minute ? t('minutes', `−${minute}`) : t('now')));
  }
  const { psi, routed, null: rest } = rates;
  return picture(width, height, t('ratesSummary', id, bits(psi), bits(routed), bits(rest)),
    svg('rect', { x: box.left, y: box.top, width: box.right - box.left, height: box.bottom - box.top,
      class: 'glass' }),
    areas(series, x, y, 1), grid, text(box.left + 6, box.top + 14, 'name', scale === 1e6 ? 'Mbit/s' : 'kbit/s'));
}

function drawTiles(data) {
  if (!data) return blank('waiting');
  if (!data.tiles.length) return blank('noRunning');
  return el('nav', { 'aria-label': t('channels') }, el('ul', { class: 'tiles' }, data.tiles.map((one) =>
    el('li', {}, el('a', { class: 'tile', href: address(`streams/${one.id}`),
      'aria-current': one.id === data.shown ? 'true' : null },
    el('span', { class: 'line' }, el('b', {}, one.id),
      el('span', {}, `${percent(usedRate(one.channel), one.channel.bit_rate)} ${t('used')}`)),
    sparkline(one.series, one.channel.bit_rate, 150, 34),
    noteLines(channelNotes(one.channel)))))));
}
function pickTiles(route) {
  if (!status()) return null;
  const tiles = running().map(({ id, channel: { bit_rate, rates, map, locked_seconds } }) =>
    ({ id, series: state.history[id] || emptySeries, channel: { bit_rate, rates, map, locked_seconds } }));
  return { shown: (shownChannel(route) || {}).id, second: state.historySecond, tiles };
}

function swatch(name, rate) {
  return el('span', {}, svg('svg', { class: 'swatch', width: 10, height: 10, 'aria-hidden': 'true' },
    svg('rect', { width: 10, height: 10, class: name })), `${t(name)} ${bits(rate)}`);
}
function drawRates(data, width) {
  if (!data) return null;
  const { id, channel, series } = data;
  const { rates, packets } = channel;
  const inner = width - (windowWidth() <= 480 ? 22 : 30);
  return el('section', { class: 'sheet' },
    el('div', { class: 'head' }, el('h2', {}, t('ratesOf', id)),
      el('button', { type: 'button', class: 'push', onclick: () => {
        state.usedOnly = !state.usedOnly;
        scheduleDraw();
      } }, t(data.usedOnly ? 'withNull' : 'withoutNull'))),
    rateChart(id, data.usedOnly ? withoutNull(series) : series, data.usedOnly ? 0 : channel.bit_rate, channel.rates,
      inner, 190),
    el('div', { class: 'legend' }, ['psi', 'routed', 'null'].map((name) => swatch(name, rates[name])),
      el('span', {}, `${t('total')} ${bits(rates.total)}`),
      el('span', {}, `${t('inputRate')} ${bits(rates.input)}`),
      el('span', {}, packets.dropped
        ? stated('warn', `${t('dropped')} ${grouped(packets.dropped)}`) : `${t('dropped')} 0`),
      el('span', {}, `${t('filtered')} ${grouped(packets.filtered)}`)),
    el('div', { class: 'usage' }, usageBar(channel, 400, 12),
      el('div', { class: 'legend' },
        el('span', {}, `${t('used')} ${bits(usedRate(channel))} (${percent(usedRate(channel), channel.bit_rate)})`),
        el('span', {}, `${t('free')} ${bits(Math.max(0, channel.bit_rate - usedRate(channel)))}`),
        el('span', { class: 'soft' }, `${t('bitRate')} ${bits(channel.bit_rate)}`))));
}
function pickRates(route) {
  const one = shownChannel(route);
  if (!one) return null;
  const { rates, packets, bit_rate } = one.channel;
  return { id: one.id, usedOnly: state.usedOnly, second: state.historySecond,
    series: state.history[one.id] || emptySeries,
    channel: { rates, bit_rate, packets: { dropped: packets.dropped, filtered: packets.filtered } } };
}

// A group of PMT takes as many ticks as it has packets, if that is longer than the interval.
function lateness(name, one) {
  if (!one.interval_ticks || one.set_ticks === 0) return 0;
  const due = name === 'PMT' ? Math.max(one.set_ticks, one.stored) : one.set_ticks;
  return Math.max(0, one.interval_ticks.max - due);
}
// Ticks for which the other tables of its PID may keep it waiting.
function patience(name, tables) {
  const shared = [['SDT_C', 'SDT_O', 'BAT'], ['NIT_C', 'NIT_O']].find((names) => names.includes(name)) || [];
  return shared.filter((other) => other !== name && tables[other])
    .reduce((sum, other) => sum + tables[other].stored, 0);
}
function repetitionBar(one, late) {
  const [width, height] = [130, 14];
  const { min, max } = one.interval_ticks;
  const end = 1.25 * Math.max(max, one.set_ticks, 1);
  const x = (ticks) => width * ticks / end;
  return picture(width, height, t('rangeLabel', min, max, one.set_ticks),
    straight(0, 7, width, 7, 'grid'),
    svg('rect', { x: Math.max(0, x(min) - 2), y: 3, width: Math.max(4, x(max) - x(min) + 4), height: 8,
      class: late ? 'range over' : 'range' }),
    straight(x(one.set_ticks), 0, x(one.set_ticks), height, 'setmark'));
}
function tableRow(name, tables, hertz) {
  const one = tables[name];
  const both = (ticks) => {
    const ms = ticks * 1000 / hertz;
    return [`${Number.isInteger(ticks) ? ticks : ticks.toFixed(1)} `,
      el('span', { class: 'soft' }, `${ms.toFixed(ms < 100 && ms % 1 ? 1 : 0)} ms`)];
  };
  const measured = one.interval_ticks;
  const behind = lateness(name, one);
  const late = behind > patience(name, tables) ? behind : 0;
  const judged = one.set_ticks === 0 ? stated('idle', t('stopped'))
    : !one.stored ? el('span', { class: 'soft' }, t('notStored'))
      : !measured ? stated('idle', t('notYet'))
        : late ? stated('warn', [t('late', `${late} `), `(${(late * 1000 / hertz).toFixed(0)} ms)`])
          : stated('ok', behind ? t('waited', `${behind} `) : t('onTime'));
  return [name.replace('_', ' '), grouped(one.stored), grouped(one.posted), both(one.set_ticks),
    ...['min', 'mean', 'max'].map((which) => (measured ? both(measured[which]) : '–')),
    measured ? repetitionBar(one, late) : '', judged];
}
function drawTables(data) {
  if (!data) return null;
  return sheet(`${t('tables')} ${data.id}`, table(t('tablesCaption', data.aux_hz),
    [[t('table')], [t('stored'), 'num'], [t('posted'), 'num'], [t('set'), 'num'], [t('min'), 'num'],
      [t('mean'), 'num'], [t('max'), 'num'], [t('repetition')], [t('verdict')]],
    TABLES.filter((name) => data.tables[name]).map((name) => tableRow(name, data.tables, data.aux_hz))),
  data.psi && data.psi.data && sectionsTable(data.psi.data));
}
function sectionContent(content) {
  if (!content) return '–';
  if (content.programmes) return content.programmes.map((one) => `${one.number} → ${hex(one.pid)}`).join(', ');
  if (content.streams) {
    return content.streams.map((one) =>
      [hex(one.pid), one.kind || `type ${one.type}`, one.language].filter(Boolean).join(' ')).join(', ');
  }
  if (content.services) {
    return content.services.map((one) => `${one.service_id} “${one.name}”` +
      (one.provider ? ` (${one.provider})` : '')).join(', ');
  }
  if (content.transport_streams) {
    return `${content.name ? `“${content.name}” ` : ''}` +
      content.transport_streams.map((one) => `TS ${one.transport_stream_id}`).join(', ');
  }
  if (content.ca_systems) {
    return content.ca_systems.map((one) => `${hex(one.system_id)} → ${hex(one.pid)}`).join(', ') || t('none');
  }
  return '–';
}
function sectionsTable(psi) {
  const rows = psi.tables.flatMap((one) => one.sections.map((section) => [
    one.table.replace('_', ' '), hex(section.pid), section.extension, section.version,
    `${section.section}/${section.last_section}`, section.packets,
    sectionContent(section.content)]));
  return el('details', {}, el('summary', {}, `${t('sections')} (${rows.length})`),
    table(t('sections'), [[t('table')], [t('pid'), 'mono'], [t('extension'), 'num'], [t('version'), 'num'],
      [t('section'), 'num'], [t('packets'), 'num'], [t('content'), 'wide']], rows, true));
}
function pickTables(route) {
  const one = shownChannel(route);
  return one && { id: one.id, aux_hz: status().aux_hz, tables: one.channel.tables, psi: kept('psi', one.id) };
}

// What was loaded, or why not.
function loadNote(entry) {
  if (!entry || (entry.reading && !entry.data)) return el('p', { class: 'none' }, t('reading'));
  if (entry.error) return el('p', {}, stated('bad', t('readFailed', entry.error)));
  return null;
}
function drawReadAgain(data) {
  if (!data) return null;
  const at = data.at ? t('readAt', utcClock(data.at)) : '';
  return el('div', { class: 'head' },
    el('h2', {}, `${t('programmes')}, ${t('pidmap')}: ${data.id}`),
    el('span', { class: 'soft push' }, data.reading ? t('reading') : at),
    el('button', { type: 'button', onclick: () => loadChannel(data.id) }, t('readAgain')));
}
function pickReadAgain(route) {
  const one = shownChannel(route);
  if (!one || REPORT) return null;
  const entries = ['programmes', 'pidmap', 'psi'].map((kind) => kept(kind, one.id)).filter(Boolean);
  return { id: one.id, reading: entries.some((entry) => entry.reading),
    at: entries.length ? Math.min(...entries.map((entry) => entry.at)) : 0 };
}

function programmeTable(programme, open) {
  const title = `${programme.number}  ${programme.name || t('unnamed')}`;
  return el('details', { open }, el('summary', {}, el('b', {}, title),
    el('span', { class: 'soft' }, `  ${t('pmtPid')} ${hex(programme.pmt_pid)}` +
      (programme.pcr_pid === null ? '' : `, ${t('pcrPid')} ${hex(programme.pcr_pid)}`), ' '),
    !programme.has_pmt && stated('warn', t('noPmt'))),
  programme.pids.length > 0 && table(title,
    [[t('pid'), 'mono'], [t('use')], [t('what'), 'wide'], [t('language')], [t('sourcePid')]],
    programme.pids.map((one) => [hex(one.pid), has(one.use) ? t(one.use) : one.use,
      one.kind || (one.stream_type !== undefined ? `type ${one.stream_type}`
        : one.ca_system !== undefined ? hex(one.ca_system) : ''), one.language || '',
      one.source ? `${one.source.slot}.${one.source.input} ${hex(one.source.pid)}`
        : el('span', { class: 'soft' }, t('notMapped'))]), true));
}
function drawProgrammes(entry) {
  const list = entry && entry.data && entry.data.programmes;
  return sheet(list ? `${t('programmes')} (${list.length})` : t('programmes'), loadNote(entry),
    list && (list.length ? el('div', { class: 'list' }, list.map((one) => programmeTable(one, list.length <= 4)))
      : el('p', { class: 'none' }, t('noProgrammes'))));
}

const PICTURE_ENTRIES = 64;
function mapPicture(channel, entries, names, width) {
  const shown = entries.slice(0, PICTURE_ENTRIES);
  const inputOf = (one) => `${one.src_slot}.${one.src_port}`;
  const left = [...new Set(shown.map((one) => `${inputOf(one)} ${String(one.src_pid).padStart(5, '0')}`))].sort();
  const right = [...new Set(shown.map((one) => one.dst_pid))].sort((a, b) => a - b);
  const programmes = [...new Set(shown.map((one) => one.dst_programme))];
  const [gap, top, side] = [19, 26, 112];
  const height = top + gap * Math.max(left.length, right.length) + 4;
  const nameWidth = names.size ? 90 : 0;
  const end = width - side - nameWidth;
  const y = (row) => top + gap * row + gap / 2;
  const wires = shown.map((one) => {
    const from = y(left.indexOf(`${inputOf(one)} ${String(one.src_pid).padStart(5, '0')}`));
    const to = y(right.indexOf(one.dst_pid));
    const middle = (side + end) / 2;
    return svg('path', { d: `M${side} ${from}C${middle} ${from} ${middle} ${to} ${end} ${to}`,
      class: `wire c${programmes.indexOf(one.dst_programme) % 6}` });
  });
  const nodes = [
    ...left.map((key, row) => {
      const [input, pid] = key.split(' ');
      const first = row === 0 || left[row - 1].split(' ')[0] !== input;
      return [first && text(4, y(row) + 4, 'name strong', input), text(side - 8, y(row) + 4, 'name end', hex(pid)),
        svg('circle', { cx: side, cy: y(row), r: 3, class: 'dot' })];
    }),
    ...right.map((pid, row) => {
      const programme = shown.find((one) => one.dst_pid === pid).dst_programme;
      const name = names.get(programme);
      return [svg('circle', { cx: end, cy: y(row), r: 3, class: 'dot' }), text(end + 8, y(row) + 4, 'name', hex(pid)),
        name && text(end + 58, y(row) + 4, 'label', name.length > 18 ? name.slice(0, 17) + '…' : name)];
    })];
  return picture(width, height, t('mapSummary', entries.length, channel),
    text(4, 12, 'label', t('input')), text(end + 8, 12, 'label', t('channelOf', channel)), wires, nodes);
}
function mapTable(entries, names) {
  return el('details', {}, el('summary', {}, t('mapTable')), table(t('mapTable'),
    [[t('position'), 'num'], [t('input')], [`${t('input')} PID`, 'mono'], [`${t('output')} PID`, 'mono'],
      [t('programme'), 'wide'], [t('type'), 'num']],
    entries.map((one, index) => [index + 1, `${one.src_slot}.${one.src_port}`, hex(one.src_pid), hex(one.dst_pid),
      `${one.src_programme} → ${one.dst_programme} ${names.get(one.dst_programme) || ''}`, one.type]), true));
}
function drawMap({ id, entry, programmes, shadowed }, width) {
  const entries = entry && entry.data ? entry.data.record : null;
  const names = new Map(((programmes && programmes.data && programmes.data.programmes) || [])
    .map((one) => [one.number, one.name]));
  return sheet(t('pidmap'), loadNote(entry),
    entry && entry.data && entry.data.router_holds_record === false && el('p', {}, stated('warn', t('mapDiffers'))),
    shadowed > 0 && el('p', {}, stated('warn', t('mapShadowed', shadowed))),
    entries && (entries.length ? [
      el('div', { class: 'scroll', tabindex: 0, role: 'region', 'aria-label': t('pidmap') },
        mapPicture(id, entries, names, Math.max(330, Math.min(640, width)))),
      entries.length > PICTURE_ENTRIES && el('p', { class: 'soft' }, t('mapMore', PICTURE_ENTRIES, entries.length)),
      mapTable(entries, names)] : el('p', { class: 'none' }, t('noMap'))));
}
function drawContents(data, width) {
  if (!data) return null;
  const column = windowWidth() > 800 ? (width - 12) / 2 : width;
  return el('div', { class: 'columns' }, drawProgrammes(data.programmes),
    drawMap({ id: data.id, entry: data.pidmap, programmes: data.programmes, shadowed: data.shadowed },
      Math.floor(column) - (windowWidth() <= 480 ? 22 : 30)));
}
function pickContents(route) {
  const one = shownChannel(route);
  return one && { id: one.id, programmes: kept('programmes', one.id), pidmap: kept('pidmap', one.id),
    shadowed: one.channel.map.shadowed };
}

function drawInputs(data) {
  if (!data) return null;
  if (!data.inputs.length) return sheet(t('inputs'), el('p', { class: 'none' }, t('noSources')));
  const disturbed = (list) => Object.entries(list || {}).filter(([, count]) => count)
    .map(([name, count]) => `${name.replace(/_/g, ' ')} ${count}`).join(', ') || '–';
  return sheet(t('inputs'), table(t('inputs'),
    [[t('input')], [t('rate'), 'num'], [t('packets'), 'num'], [t('damaged'), 'num'], [t('lastPacket'), 'num'],
      [t('disturbances'), 'wide'], [t('file'), 'wide']],
    data.inputs.map((one) => [stated(one.bit_rate > 0 ? 'ok' : 'bad', one.id), bits(one.bit_rate),
      grouped(one.packets), one.damaged ? stated('warn', grouped(one.damaged)) : '0',
      one.last === null ? t('never') : t('ago', span(one.last * 1000)), disturbed(one.disturbances),
      one.name]), true));
}
function pickInputs() {
  const now = status();
  return now && { inputs: now.sources.flatMap((source) => source.inputs.map((one) => ({
    id: `${source.slot}.${one.input}`, name: one.name, bit_rate: one.bit_rate, packets: one.packets,
    damaged: one.damaged, disturbances: one.disturbances,
    last: one.last_seconds === null ? null : Math.round(10 * (now.virtual_seconds - one.last_seconds)) / 10,
  }))) };
}

// Programmes, map and tables of a channel are read when it is first shown.
function beforeStreams(route) {
  const one = shownChannel(route);
  if (one && !kept('programmes', one.id)) loadChannel(one.id);
  keepStreamsFresh(route);
}
