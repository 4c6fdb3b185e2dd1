// ---- Settings: faults -----------------------------------------------------------------------------------------------

Object.assign(TEXTS, {
  faultsNone: ['No fault is present or planned.', '没有现有或计划的故障。'],
  faultAdd: ['Add a fault', '添加故障'],
  faultName: ['Fault', '故障'],
  faultWhere: ['Where', '位置'],
  faultAll: ['all cards', '所有板卡'],
  faultSeconds: ['Seconds', '秒数'],
  faultSecondsHint: ['0: no end', '0：无结束'],
  faultAsk: ['Add the fault {0}?', '添加故障 {0}？'],
  faultNoEnd: ['It cannot be cleared: the card comes back when the headend is started again.', '该故障无法清除：重新启动前端后板卡才会恢复。'],
  faultWarn: ['It acts on the hardware as if it were broken.', '硬件将表现得如同损坏。'],
  faultAdded: ['Fault {0}', '故障 {0}'],
  faultClear: ['Clear', '清除'],
  faultClearOf: ['Clear: {0}', '清除：{0}'],
  faultClearAll: ['Clear all', '全部清除'],
  faultCleared: ['Fault cleared: {0}', '已清除故障：{0}'],
});

const faultChoice = () => general.faults.find((one) => inputOf('fault-name') && one.name === typed('fault-name'))
  || general.faults[0];
// The channels that may go off the air: of a card, or those with packets of the input.
async function channelsOfFault(id, { of }, where) {
  if (of !== 'input') return cards().filter((card) => !where || String(card.slot) === where).flatMap(({ slot }) =>
    channelsOfCard(slot));
  const all = channelsOf(cards()).map((one) => one.id);
  const maps = await Promise.all(all.map((channel) => getJson(apiOf(id, `pidmap/${channel}`)).catch(() => ({ record: [] }))));
  return all.filter((_, index) => maps[index].record.some((one) => `${one.src_slot}.${one.src_port}` === where));
}
async function addFault(id) {
  const chosen = faultChoice();
  const where = typed(`fault-where-${chosen.of}`);
  const fault = where ? `${where}.${chosen.name}` : chosen.name;
  const duration = chosen.ends ? typed('fault-seconds') : '';
  if (!await askOffAir(id, { title: t('faultAsk', fault), action: t('faultAdd'), isPossible: true,
    channels: await channelsOfFault(id, chosen, where), lines: [chosen.text, t('faultWarn'), !chosen.ends && t('faultNoEnd')] })) return;
  const { notes } = await command(id, ['fault', 'add', fault, ...(Number(duration) === 0 ? [] : ['--seconds', duration])]);
  keepChange({ headend: id, key: `fault/${fault}`, what: t('faultAdded', fault), from: '–',
    to: Number(duration) ? `${duration} s` : t('open'), undo: chosen.ends ? { words: ['fault', 'clear', fault] } : null });
  say('ok', t('faultAdded', fault), ...notes);
}
async function clearFault(headendId, fault) {
  const { notes } = await command(headendId, ['fault', 'clear', ...(fault ? [fault] : [])]);
  keepChange({ headend: headendId, key: `fault/${fault}`, what: t('faultCleared', fault || t('faultAll')), from: fault || '–',
    to: '–', undo: null });
  say('ok', t('faultCleared', fault || t('faultClearAll')), ...notes);
}
function drawFaults(data) {
  if (!data) return null;
  const { faults, names } = data;
  const clearButton = (fault, index) => button(`fault-clear-${index}`, t('faultClear'),
    () => attempt('fault-clear', (id) => clearFault(id, fault)), { 'aria-label': t('faultClearOf', fault) });
  return sheet(t('faults'),
    faults.length ? table(t('faults'), [[t('fault'), 'wide'], [t('present')], [t('until'), 'num'], ['']],
      faults.map((one, index) => [one.fault, one.present ? stated('bad', t('presentNow')) : stated('idle', t('planned')),
        one.until === null ? t('open') : seconds(one.until), clearButton(one.fault, index)]), true)
      : el('p', { class: 'none' }, t('faultsNone')),
    faults.length > 0 && el('p', { class: 'buttons' }, button('fault-clear', t('faultClearAll'),
      () => attempt('fault-clear', (id) => clearFault(id, '')))), noteOf('fault-clear'),
    names && names.length > 0 && oneForm(() => attempt('fault-name', addFault), faultFields(data)));
}
function faultFields({ names, places }) {
  const name = selectInput('fault-name', names.map((one) => [one.name, one.name]));
  name.onchange = redrawForms; // what it means, and where it can be
  const chosen = faultChoice();
  const where = `fault-where-${chosen.of}`;
  return group(t('faultAdd'), el('div', { class: 'fields' },
    field('fault-name', t('faultName'), name, chosen.text),
    field(where, t('faultWhere'), selectInput(where, places[chosen.of])),
    chosen.ends && field('fault-seconds', t('faultSeconds'),
      textInput('fault-seconds', { type: 'number', min: 0, step: 1 }, 0), t('faultSecondsHint'))),
  el('p', { class: 'buttons' }, el('button', { class: 'danger' }, t('faultAdd'))));
}
const pickFaults = () => status() && { names: general.faults, turn: formTurn(),
  places: { card: [['', t('faultAll')], ...cards().map((card) => [card.slot, t('cardOf', card.slot)])],
    input: sourceInputs() },
  faults: status().faults.map(({ fault, present, until_seconds: until }) => ({ fault, present, until })) };

