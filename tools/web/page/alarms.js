// ---- Alarms -------------------------------------------------------------------------------------------------------

const drawStanding = (alarms) => alarms && sheet(t('standing'), standingTable(alarms));
function eventKind({ event, severity }) {
  return event === 'raised' ? severityKind(severity) : event === 'recovered' ? 'ok' : 'idle';
}
function eventText(one) {
  const { title, text: words, trap } = texts(one);
  return `${title}: ${words}${trap && trap !== words ? ` (${trap})` : ''}`;
}
function drawLog(data) {
  if (!data) return blank('waiting');
  const failed = data.error && el('p', {}, stated('bad', t('readFailed', data.error)));
  if (!data.events) return sheet(t('log'), failed || el('p', { class: 'none' }, t('reading')));
  if (!data.count) return sheet(t('log'), failed, el('p', { class: 'none' }, t('logEmpty')));
  return sheet(t('log'), failed, el('div', { class: 'buttons' }, exportButtons('alarms', t('log'),
    ['number', 'at', 'event', 'slot', 'channel', 'severity', 'title', 'text', 'trap', 'happened'], async () =>
      state.log.events.map((one) => ({ ...one, ...texts(one) })))), table(t('logShown', data.events.length, data.count),
    [[t('serial'), 'num'], [t('event')], [t('slot', '').trim()], [t('severity')], [t('alarm'), 'wide'],
      [t('time'), 'num'], [t('local'), 'num']],
    data.events.map((one) => [one.number, stated(eventKind(one), named('ev_', one.event)), placeOf(one),
      named('sev_', one.severity), eventText(one), utcTime(Date.parse(one.at)), localTime(Date.parse(one.at))])),
  data.leftOut > 0 && el('p', { class: 'soft' }, t('logCut', data.leftOut)),
  data.events.length < data.count && el('p', {}, el('button', { type: 'button', onclick: () => {
    state.log.shown += 500;
    scheduleDraw();
  } }, t('showMore'))));
}
function pickLog() {
  if (!status()) return null;
  const all = state.log.events;
  return { error: state.log.error, leftOut: state.log.leftOut, count: all ? all.length : 0,
    events: all && [...all].sort((a, b) => b.number - a.number).slice(0, state.log.shown) };
}
