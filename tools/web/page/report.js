// ---- A report: the page with its data in one file, without a server ------------------------------------------------

Object.assign(TEXTS, {
  made: ['Report of {0} at {1} of virtual time, made {2} UTC by version {3}', '{0} 的报告：虚拟时间 {1}，由版本 {3} 于 {2} UTC 生成'],
  notInReport: ['it is not in this report', '本报告中没有'],
  logCut: ['{0} older events of the log are not in this report.', '日志中较早的 {0} 个事件不在本报告中。'],
});

// The data holds the answers to the page's questions by path, with long lists packed; null in a page of a server.
const REPORT = byId('data') && JSON.parse(byId('data').textContent);

// Each number is the difference to the one before.
function sums(differences) {
  let sum = 0;
  return differences.map((one) => { sum += one; return sum; });
}
const mapValues = (object, change) =>
  Object.fromEntries(Object.entries(object).map(([key, value]) => [key, change(value)]));
function unpacked(answer) {
  if (answer.step_seconds) {
    return { ...answer, channels: mapValues(answer.channels, (rates) => mapValues(rates, sums)) };
  }
  if (!answer.rows) return answer;
  const cell = (value) => (Array.isArray(value) ? answer.texts[value[0]] : value);
  return { left_out: answer.left_out, events: answer.rows.map((row) =>
    Object.fromEntries(answer.columns.map((column, index) => [column, cell(row[index])]))) };
}
function reported(path) {
  const answer = REPORT.answers[path];
  if (!answer || answer.error) throw new Error(answer ? answer.error : t('notInReport'));
  return unpacked(answer);
}

// All that the views show is taken at once, for the paper has no time to wait.
function openReport() {
  state.source = { close() {} };
  accept(reported(api('state')));
  loadLog();
  for (const { id } of running()) loadChannel(id);
}
function showMade() {
  if (!byId('made')) byId('banner').after(el('p', { class: 'made', id: 'made' }));
  if (!status()) return;
  byId('made').textContent = t('made', headend().name, seconds(status().virtual_seconds),
    utcTime(state.snapshot.read_unix_ms), state.version);
}

// ---- On paper all views follow one another, the streams once for each channel ---------------------------------------

const PAPER_PIXELS = 700;
const windowWidth = () => (state.isPaper ? PAPER_PIXELS : innerWidth);

function drawnView(view, heading, channel, isFirst) {
  const route = { headend: state.route.headend, view, channel };
  const { parts, frame } = VIEW[view];
  const hosts = parts.map((part) => {
    const drawn = part.once && !isFirst ? null : part.draw(part.pick(route), PAPER_PIXELS, route);
    return el('div', { class: 'part' }, drawn);
  });
  return el('section', { class: 'leaf' }, el('h1', {}, heading), frame ? frame(hosts) : hosts);
}
function layOut() {
  state.isPaper = true;
  const streams = running().map(({ id }, index) => drawnView('streams', `${t('streams')} ${id}`, id, index === 0));
  const leaves = VIEWS.flatMap((view) => (view === 'streams' && streams.length ? streams
    : [drawnView(view, t(view), '', true)]));
  state.isPaper = false;
  const paper = el('div', { id: 'paper' }, leaves);
  paper.querySelectorAll('details').forEach((one) => { one.open = true; });
  putAway();
  byId('view').after(paper);
}
function putAway() {
  if (byId('paper')) byId('paper').remove();
}
if (REPORT) {
  VIEWS.splice(VIEWS.indexOf('settings'), 1); // nothing can be set
  addEventListener('beforeprint', layOut);
  addEventListener('afterprint', putAway);
}
