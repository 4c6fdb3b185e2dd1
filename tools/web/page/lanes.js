// ---- PSI groups of a channel: a lane for each table, a tick for each group -----------------------------------------

Object.assign(TEXTS, {
  lanes: ['Groups of each table, channel {0}, last {1} s', '各表的组，通道 {0}，最近 {1} 秒'],
  lanesSummary: ['Groups of the tables of channel {0} in the last {1} s. {2}', '通道 {0} 最近 {1} 秒内各表的组。{2}'],
  laneOf: ['{0}: {1} groups, {2}.', '{0}：{1} 组，{2}。'],
  waited: ['waited {0}for its PID', '等待 PID {0}'],
  laneGroup: ['group', '组'],
  laneHeld: ['waited for another table of its PID', '等待同一 PID 的其他表'],
  laneLate: ['late', '迟到'],
  laneLost: ['older groups are not stored', '更早的组未保存'],
  laneLateBy: ['late by up to {0} ms', '最多晚 {0} ms'],
  laneOverdue: ['overdue by {0} ms', '已超时 {0} ms'],
  laneNothing: ['nothing in this time', '此时间内没有'],
});

const LANE_SECONDS = 10; // as the server's row
const LANE_STORED = 64; // groups of a table that the chassis keeps

// Reads what changes all the time again, no more often than each `ms`.
function keepFresh(kind, place, ms) {
  const key = `${kind}/${place}`;
  const entry = state.loaded[key];
  if (entry && Date.now() - (entry.asked || 0) < ms) return;
  load(kind, place);
  state.loaded[key].asked = Date.now();
}
// Of a part that is drawn again when its entry was read again, but not when the reading begins.
function freshPart(rest, entry) {
  const data = { ...rest, at: entry ? entry.at : 0, error: entry ? entry.error : '' };
  Object.defineProperty(data, 'entry', { value: entry });
  return data;
}

function laneVerdict(one, hertz) {
  const ms = (ticks) => (ticks * 1000 / hertz).toFixed(0);
  const late = one.groups.reduce((most, group) => Math.max(most, group.late_ticks), 0);
  if (one.overdue_ticks) return ['bad', t('laneOverdue', ms(one.overdue_ticks))];
  if (late) return ['warn', t('laneLateBy', ms(late))];
  if (one.set_ticks === 0) return ['idle', t('stopped')];
  if (!one.groups.length) return ['idle', t('laneNothing')];
  return ['ok', t('onTime')];
}
// A late group has a triangle on a thick tick, a held one a ring.
function groupTick(x, top, bottom, group) {
  if (group.late_ticks) {
    return [straight(x, top, x, bottom, 'beat late'),
      svg('path', { d: `M${x - 5} ${top - 3}h10l-5 8z`, class: 'latemark' })];
  }
  return [straight(x, top + 3, x, bottom, 'beat'),
    group.held_ticks > 0 && svg('circle', { cx: x, cy: top + 3, r: 3, class: 'heldmark' })];
}
function lanesPicture(ticks, width) {
  const names = 48;
  const right = width - (width > 600 ? 150 : 8);
  const [gap, top] = [24, 8];
  const reach = LANE_SECONDS * ticks.aux_hz;
  const x = (tick) => right - (ticks.now_tick - tick) / reach * (right - names);
  const height = top + gap * TABLES.length + 20;
  const lanes = ticks.tables.map((one, row) => {
    const y = top + gap * row;
    const oldest = one.groups.length >= LANE_STORED ? x(one.groups[0].tick) : names;
    const [, words] = laneVerdict(one, ticks.aux_hz);
    return [text(names - 8, y + 15, 'name end', one.table.replace('_', ' ')),
      straight(names, y + 20, right, y + 20, 'grid'),
      oldest > names && svg('rect', { x: names, y: y + 4, width: oldest - names, height: 16, class: 'notstored' }),
      one.groups.map((group) => groupTick(x(group.tick), y + 4, y + 20, group)),
      width > 600 ? text(right + 8, y + 15, 'label', words)
        : !one.groups.length && text(names + 8, y + 15, 'label', words)];
  });
  const axis = [0, 2, 4, 6, 8, 10].map((ago) => [
    straight(x(ticks.now_tick - ago * ticks.aux_hz), top, x(ticks.now_tick - ago * ticks.aux_hz), height - 18, 'grid'),
    text(x(ticks.now_tick - ago * ticks.aux_hz), height - 4, 'label middle', ago ? `−${ago} s` : t('now'))]);
  const summary = ticks.tables.map((one) =>
    t('laneOf', one.table, one.groups.length, laneVerdict(one, ticks.aux_hz)[1])).join(' ');
  return picture(width, height, t('lanesSummary', ticks.channel, LANE_SECONDS, summary), axis, lanes);
}
function laneKey(words, ...shapes) {
  return el('span', {}, svg('svg', { class: 'swatch', width: 12, height: 16, 'aria-hidden': 'true' }, shapes), words);
}
function drawLanes(data, width) {
  if (!data) return null;
  const { entry } = data;
  const ticks = entry && entry.data;
  const tick = (group) => groupTick(6, 3, 16, { late_ticks: 0, held_ticks: 0, ...group });
  return sheet(t('lanes', data.id, LANE_SECONDS), loadNote(entry), ticks && [
    lanesPicture(ticks, width - (windowWidth() <= 480 ? 22 : 30)),
    el('div', { class: 'legend' }, laneKey(t('laneGroup'), tick({})), laneKey(t('laneHeld'), tick({ held_ticks: 1 })),
      laneKey(t('laneLate'), tick({ late_ticks: 1 })),
      laneKey(t('laneLost'), svg('rect', { x: 0, y: 2, width: 12, height: 12, class: 'notstored' })),
      ticks.tables.filter((one) => ['warn', 'bad'].includes(laneVerdict(one, ticks.aux_hz)[0])).map((one) => {
        const [kind, words] = laneVerdict(one, ticks.aux_hz);
        return stated(kind, `${one.table.replace('_', ' ')} ${words}`);
      }))]);
}
function pickLanes(route) {
  const one = !REPORT && shownChannel(route);
  return one && freshPart({ id: one.id }, kept('ticks', one.id));
}
