// ---- PIDs of the shown channel and of the inputs ------------------------------------------------------------------

Object.assign(TEXTS, {
  pidsOfChannel: ['PIDs of channel {0}', '通道 {0} 的 PID'],
  pidsOfInput: ['PIDs of input {0}', '输入 {0} 的 PID'],
  pidsCounted: ['{0} PIDs, counted for {1}', '{0} 个 PID，已统计 {1}'],
  pidsWhile: ['Packets are counted while this table is open, and ten seconds longer.', '仅在此表打开期间及之后十秒内统计。'],
  rateNow: ['Rate now', '当前速率'],
  lowest: ['Lowest', '最低'],
  highest: ['Highest', '最高'],
  ccErrors: ['Continuity errors', '连续计数错误'],
  marks: ['Marks', '标记'],
  scrambled: ['scrambled', '加扰'],
  usedBy: ['Used by', '使用者'],
  usesUnknown: ['unknown', '未知'],
  sortBy: ['Sort by', '排序'],
  resetCounters: ['Reset the counters', '清零计数'],
  resetFailed: ['Not reset: {0}', '未清零：{0}'],
});
Object.assign(state, {
  pidSort: 'pid',
  pidClosed: new Set(), // places whose table the viewer has closed: channels are open at first
  pidOpened: new Set(), // and opened: inputs are closed
  pidNote: {}, // what a reset said, by place
});

const PID_SORTS = { pid: (a, b) => a.pid - b.pid, bit_rate: (a, b) => b.bit_rate - a.bit_rate,
  continuity_errors: (a, b) => b.continuity_errors - a.continuity_errors };
const PID_READ_MS = 2000;
const isPidOpen = (place, kind) => (kind === 'channel' ? !state.pidClosed.has(place) : state.pidOpened.has(place));

async function resetPids(place) {
  try {
    await command(state.route.headend, ['pids', place, '--reset']);
    state.pidNote[place] = '';
  } catch (failure) {
    state.pidNote[place] = t('resetFailed', failure.message);
  }
  load('pids', place);
}

function useWords(use) {
  const what = use.use === 'stream' ? [use.kind, use.language].filter(Boolean).join(' ') : use.use;
  return use.service === undefined ? what : `${use.service}${use.name ? ` “${use.name}”` : ''} ${what}`;
}
function pidRow(one) {
  const rate = (value) => (value === null ? '–' : bits(value));
  return [hex(one.pid), grouped(one.packets), rate(one.bit_rate), rate(one.lowest), rate(one.highest),
    one.continuity_errors ? stated('warn', grouped(one.continuity_errors)) : '0',
    [one.pcr && 'PCR', one.scrambled && t('scrambled')].filter(Boolean).join(', '),
    one.uses ? one.uses.map(useWords).join(', ') : el('span', { class: 'soft' }, t('usesUnknown'))];
}
function pidTable(place, kind, report) {
  const title = t(kind === 'channel' ? 'pidsOfChannel' : 'pidsOfInput', place);
  const rows = [...report.pids].sort((a, b) => PID_SORTS[state.pidSort](a, b) || a.pid - b.pid);
  const sort = (key, words) => el('button', { type: 'button', class: 'sort',
    'aria-pressed': String(key === state.pidSort), 'aria-label': `${t('sortBy')} ${words}`,
    onclick: () => { state.pidSort = key; scheduleDraw(); } }, words, key === state.pidSort ? ' ▾' : '');
  return [el('div', { class: 'legend' },
    el('span', { class: 'soft' }, t('pidsCounted', rows.length, span(report.counted_ms))),
    mayWrite() && el('button', { type: 'button', class: 'push', onclick: () => resetPids(place) },
      t('resetCounters')),
    state.pidNote[place] && stated('bad', state.pidNote[place])),
  table(title, [[sort('pid', t('pid')), 'mono'], [t('packets'), 'num'], [sort('bit_rate', t('rateNow')), 'num'],
    [t('lowest'), 'num'], [t('highest'), 'num'], [sort('continuity_errors', t('ccErrors')), 'num'], [t('marks')],
    [t('usedBy'), 'wide']], rows.map(pidRow), true)];
}
function pidDetails({ place, kind, entry }) {
  const toggled = (event) => {
    const { open } = event.target;
    const [set, isMember] = kind === 'channel' ? [state.pidClosed, !open] : [state.pidOpened, open];
    if (set.has(place) === isMember) return;
    if (isMember) set.add(place);
    else set.delete(place);
    scheduleDraw();
  };
  const open = isPidOpen(place, kind);
  return el('details', { open, ontoggle: toggled },
    el('summary', {}, t(kind === 'channel' ? 'pidsOfChannel' : 'pidsOfInput', place)),
    open && [loadNote(entry), entry && entry.data && pidTable(place, kind, entry.data)]);
}
function drawPids(data) {
  if (!data) return null;
  return el('section', { class: 'sheet pids' }, el('h2', {}, 'PID'), el('p', { class: 'soft' }, t('pidsWhile')),
    data.places.map(pidDetails));
}
function pidPlaces(route) {
  const one = shownChannel(route);
  const inputs = (status() ? status().sources : []).flatMap((source) =>
    source.inputs.map((input) => ({ place: `${source.slot}.${input.input}`, kind: 'input' })));
  return [...(one ? [{ place: one.id, kind: 'channel' }] : []), ...inputs];
}
function pickPids(route) {
  return !REPORT && status() && { sort: state.pidSort, session: mayWrite(), notes: state.pidNote,
    places: pidPlaces(route).map((one) => freshPart({ ...one, open: isPidOpen(one.place, one.kind) },
      kept('pids', one.place))) };
}

// While the view is open.
function keepStreamsFresh(route) {
  if (REPORT || document.hidden || state.link !== 'open') return;
  const one = shownChannel(route);
  if (one) keepFresh('ticks', one.id, 1000);
  for (const { place, kind } of pidPlaces(route)) {
    if (isPidOpen(place, kind)) keepFresh('pids', place, PID_READ_MS);
  }
}
