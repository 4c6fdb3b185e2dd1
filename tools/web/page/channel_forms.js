// ---- Settings: the forms of a channel -------------------------------------------------------------------------------

Object.assign(TEXTS, {
  contentOf: ['Content of channel {0}', '通道 {0} 的内容'],
  intervals: ['Intervals of the tables', '各表间隔'],
  intervalsNote: ['In ticks of the auxiliary clock ({0} Hz), 0 to 65535; 0 stops the table.',
    '以辅助时钟（{0} Hz）的节拍计，0 至 65535；0 表示停发。'],
  intervalsSet: ['Set the intervals', '设置间隔'],
  intervalsSame: ['The intervals are those of the channel.', '与通道现有间隔相同。'],
  programmeRemove: ['Remove', '移除'],
  programmeRemoveOf: ['Remove: {0}', '移除：{0}'],
  programmeRemoveAsk: ['Remove programme {0} from channel {1}?', '从通道 {1} 移除节目 {0}？'],
  programmeAdd: ['Add a programme', '添加节目'],
  programmeFrom: ['From input', '来自输入'],
  programmeService: ['Number or name of the service', '业务编号或名称'],
  programmeNone: ['The channel carries no programme.', '该通道没有节目。'],
  programmeNoName: ['Enter the number or the name of the service.', '请输入业务编号或名称。'],
  captureFile: ['Capture (transport stream)', '码流文件（TS）'],
  captureIntervals: ['Intervals, as PAT=100 SDT_C=500', '间隔，例如 PAT=100 SDT_C=500'],
  captureIntervalsHint: ['Empty: they stay.', '留空：不变。'],
  captureForce: ['Also discard what another client has locked', '同时丢弃其他客户端锁定的内容'],
  captureLoad: ['Load the tables', '装载表'],
  captureAsk: ['Load the tables of {0} on channel {1}?', '将 {0} 的表装载到通道 {1}？'],
  mapFile: ['PID map (CSV)', 'PID 表（CSV）'],
  mapLoad: ['Load the PID map', '装载 PID 表'],
  mapAsk: ['Load the PID map {0} on channel {1}?', '将 PID 表 {0} 装载到通道 {1}？'],
  tablesClear: ['Clear the tables', '清除表'],
  tablesClearAsk: ['Clear all tables of channel {0}?', '清除通道 {0} 的所有表？'],
  mapClear: ['Clear the PID map', '清除 PID 表'],
  mapClearAsk: ['Clear the PID map of channel {0}?', '清除通道 {0} 的 PID 表？'],
  backupSave: ['Save a backup', '保存备份'],
  backupFile: ['Backup (JSON)', '备份（JSON）'],
  restoreOf: ['Restore a backup', '恢复备份'],
  restore: ['Restore', '恢复'],
  restoreAsk: ['Restore channel {1} from {0}?', '用 {0} 恢复通道 {1}？'],
  contentText: ['{0} packets, {1} PIDs, programmes {2}', '{0} 个包，{1} 个 PID，节目 {2}'],
});

// ---- Changes --------------------------------------------------------------------------------------------------------

// What a channel has, short, for the list of changes.
async function contentText(id, channel, { value }) {
  if (!value) return t('unknown');
  const names = await getJson(apiOf(id, `programmes/${channel}`)).then(({ programmes }) =>
    programmes.map((one) => one.name || one.number).join(t('comma')), () => '');
  return t('contentText', value.packets.reduce((sum, one) => sum + one.data.length, 0), value.map.length, names || '–');
}
const readBackup = (id, channel) => getJson(apiOf(id, `backup/${channel}`)).then(
  (value) => ({ value }), (error) => ({ error }));

// Changes what a channel sends, with its content before and after. run() carries it out and returns its notes;
// shown: [from, to] and words: the way back, if it is not the whole content.
async function changeChannel(id, channel, { what, title, action, plan, note, run, shown, words }) {
  const path = `backup/${channel}`;
  const before = await readBackup(id, channel);
  if (title && !await askOffAir(id, { title, action, channels: [channel], plan,
    lines: [before.error && t('noWayBack', before.error.message), note] })) return null;
  const from = shown ? shown[0] : await contentText(id, channel, before);
  const { notes } = await run();
  const after = await readBackup(id, channel);
  if (before.value && after.value) ownChange(id, path, before.value, after.value);
  const known = before.value && after.value;
  keepChange({ headend: id, key: path, path, value: after.value, what: `${t('channelOf', channel)}: ${what}`, from,
    to: shown ? shown[1] : await contentText(id, channel, after),
    undo: !known ? null : words ? { words } : { words: ['restore', channel, '@'], file: before.value, off: [channel] } });
  say(notes.length ? 'warn' : 'ok', t('done', `${what} (${channel})`), ...notes);
  return after.value || null;
}
// A change by one command, asked before with its plan.
const changeByCommand = (id, channel, what, title, words) => changeChannel(id, channel,
  { what, title, action: what, plan: planFor(id, words), run: () => command(id, words) });

async function changeByFile(id, channel, control, what, title, wordsOf) {
  const [file] = inputOf(control).files;
  checkFile(file);
  const meter = meterOf(channel);
  const plan = uploadPlan(id, wordsOf, file, meter);
  const done = await changeChannel(id, channel, { what, title: t(title, file.name, channel), action: what, plan,
    note: !plan && t('planNot'), run: () => upload(id, wordsOf, file, meter) });
  if (done) inputOf(control).value = '';
}

async function setIntervals(id, channel, now) {
  const changed = TABLES.filter((name) => typed(`interval-${channel}-${name}`) !== String(now[name]));
  if (!changed.length) throw new Error(t('intervalsSame'));
  const wish = changed.map((name) => `${name}=${typed(`interval-${channel}-${name}`)}`);
  const old = changed.map((name) => `${name}=${now[name]}`);
  try {
    const done = await changeChannel(id, channel, { what: t('intervals'), shown: [old.join(' '), wish.join(' ')],
      words: ['psi', 'interval', channel, ...old], run: () => command(id, ['psi', 'interval', channel, ...wish]) });
    if (done) TABLES.forEach((name) => settleInput(`interval-${channel}-${name}`));
  } catch (failure) {
    const at = changed.length === 1 ? changed[0] : changed.find((name) => failure.message.includes(name));
    throw Object.assign(failure, { control: at && `interval-${channel}-${at}` });
  }
}

// ---- Forms ----------------------------------------------------------------------------------------------------------

const meters = new Map(); // by channel: a meter stays while its file is being sent
function meterOf(channel) {
  const key = `${channel} ${state.language}`;
  if (!meters.has(key)) meters.set(key, uploadMeter());
  return meters.get(key);
}

function intervalForm({ id, intervals, aux_hz: hertz }) {
  const control = `intervals-${id}`;
  return oneForm(() => attempt(control, (headendId) => setIntervals(headendId, id, intervals)),
    group(t('intervals'), el('p', { class: 'note soft' }, t('intervalsNote', grouped(hertz))),
      el('div', { class: 'fields narrow' }, TABLES.map((name) => {
        const each = `interval-${id}-${name}`;
        return field(each, name.replace('_', ' '),
          textInput(each, { type: 'number', min: 0, max: 65535, step: 1 }, intervals[name]),
          intervals[name] ? `${intervals[name]} = ${(1000 * intervals[name] / hertz).toFixed(0)} ms` : t('stopped'));
      })),
      el('p', { class: 'buttons' }, el('button', { id: control }, t('intervalsSet')), noteOf(control))));
}
function programmeForms({ id, programmes, inputs }) {
  const list = programmes && programmes.data && programmes.data.programmes;
  const add = `programme-${id}`;
  const addProgramme = async (headendId) => {
    if (!typed(add)) throw new Error(t('programmeNoName'));
    const done = await changeChannel(headendId, id, { what: t('programmeAdd'),
      run: () => command(headendId, ['programme', 'add', id, '--from', typed(`${add}-from`), '--service', typed(add)]) });
    if (done) inputOf(add).value = '';
  };
  const remove = (one) => {
    const name = `${one.number} ${one.name}`.trim();
    return el('li', {}, el('span', {}, name), button(`${add}-${one.number}`, t('programmeRemove'),
      () => attempt(`${add}-remove`, (headendId) => changeByCommand(headendId, id, t('programmeRemoveOf', name),
        t('programmeRemoveAsk', name, id), ['programme', 'remove', id, String(one.number)])),
      { class: 'danger', 'aria-label': t('programmeRemoveOf', name) }));
  };
  return [group(t('programmes'), loadNote(programmes),
    list && (list.length ? el('ul', { class: 'removable' }, list.map(remove))
      : el('p', { class: 'none' }, t('programmeNone'))), noteOf(`${add}-remove`)),
  inputs.length > 0 && oneForm(() => attempt(add, addProgramme), group(t('programmeAdd'),
    field(`${add}-from`, t('programmeFrom'), selectInput(`${add}-from`, inputs)),
    field(add, t('programmeService'), textInput(add, {}), null, el('button', {}, t('programmeAdd')))))];
}
const clearButton = (channel, name, label, title, word) => [button(`${name}-${channel}`, t(label),
  () => attempt(`${name}-${channel}`, (id) => changeByCommand(id, channel, t(label), t(title, channel),
    [word, 'clear', channel])), { class: 'danger' }), noteOf(`${name}-${channel}`)];
// A file and the button that loads it; words(): the command.
const fileForm = (channel, control, accept, labels, words, ...more) => oneForm(() => attempt(control, (id) =>
  changeByFile(id, channel, control, t(labels.action), labels.ask, words())),
el('div', { class: 'stack' }, more,
  field(control, t(labels.file), fileInput(control, accept), null, el('button', { class: 'danger' }, t(labels.action))),
  form.busy.has(control) && meterOf(channel).node));

function captureForm({ id }) {
  const control = `capture-${id}`;
  const words = () => {
    const wish = typed(`${control}-intervals`).split(/\s+/).filter(Boolean).flatMap((one) => ['--interval', one]);
    return ['psi', 'load', id, '@', ...wish, ...(inputOf(`${control}-force`).checked ? ['--force'] : [])];
  };
  return group(t('tables'), fileForm(id, control, null,
    { file: 'captureFile', action: 'captureLoad', ask: 'captureAsk' }, words,
    field(`${control}-intervals`, t('captureIntervals'), textInput(`${control}-intervals`, { spellcheck: 'false' }),
      t('captureIntervalsHint')),
    el('div', { class: 'field check' }, input(`${control}-force`, () => el('input', { type: 'checkbox' })),
      el('label', { for: `${control}-force` }, t('captureForce')))),
  el('p', { class: 'buttons' }, clearButton(id, 'tables', 'tablesClear', 'tablesClearAsk', 'psi')));
}
const mapForm = ({ id }) => group(t('pidmap'), fileForm(id, `map-file-${id}`, '.csv,text/csv',
  { file: 'mapFile', action: 'mapLoad', ask: 'mapAsk' }, () => ['pidmap', 'load', id, '@']),
el('p', { class: 'buttons' }, clearButton(id, 'map', 'mapClear', 'mapClearAsk', 'pidmap')));
async function saveBackup(channel) {
  try {
    const value = await getJson(api(`backup/${channel}`));
    saveFile(fileName(`backup-${channel}`, 'json'), 'application/json', JSON.stringify(value, null, 2) + '\n');
  } catch (failure) {
    say('bad', failure.message);
  }
}
const backupForm = ({ id }) => group(t('restoreOf'), fileForm(id, `restore-${id}`, '.json,application/json',
  { file: 'backupFile', action: 'restore', ask: 'restoreAsk' }, () => ['restore', id, '@']));

function drawChannels(data) {
  if (!data) return null;
  return el('div', { class: 'columns' }, data.channels.map((one) => el('section', { class: 'sheet stack' },
    el('div', { class: 'head' }, el('h2', {}, t('contentOf', one.id)),
      button(`backup-${one.id}`, t('backupSave'), () => saveBackup(one.id), { disabled: false, class: 'push' })),
    programmeForms(one), intervalForm(one), captureForm(one), mapForm(one), backupForm(one))));
}
const sourceInputs = () => status().sources.flatMap((source) => source.inputs.map((one) =>
  [`${source.slot}.${one.input}`, `${source.slot}.${one.input} ${baseName(one.name)}`]));
function pickChannels(route) {
  const card = shownCard(route);
  if (!card) return null;
  const inputs = sourceInputs();
  return { turn: formTurn(), channels: card.channels.map((channel, index) => {
    const id = `${card.slot}.${index + 1}`;
    return { id, inputs, aux_hz: status().aux_hz, programmes: read('programmes', id),
      intervals: Object.fromEntries(TABLES.map((name) => [name, channel.tables[name].set_ticks])) };
  }) };
}
