// ---- Settings: the forms of a card ----------------------------------------------------------------------------------

Object.assign(TEXTS, {
  settingsOf: ['Settings of card {0}', '调制卡 {0} 的设置'],
  set_rfreq: ['Carrier', '载波'],
  set_rflevel: ['Output level', '输出电平'],
  set_symbolrate: ['Symbol rate', '符号率'],
  set_qammode: ['Constellation', '星座'],
  set_rfswitch: ['Modulation', '调制'],
  set_power: ['Output stage', '输出级'],
  val_on: ['on', '开'],
  val_off: ['off', '关'],
  hint_rfreq: ['channel 1; channel 2 is 8 MHz above', '通道 1；通道 2 高 8 MHz'],
  bounds: ['{0} to {1}', '{0} 至 {1}'],
  boundsStep: ['{0} to {1}, in steps of {2}', '{0} 至 {1}，步长 {2}'],
  cardHas: ['now {0}', '当前 {0}'],
  notAsTyped: ['The card took {1} instead of {0}.', '板卡采用了 {1}，而不是 {0}。'],
  settingDone: ['{0} of card {1}: read back {2}', '调制卡 {1} 的{0}：读回 {2}'],
  switchOff: ['Switch off: {0} of card {1}?', '关闭调制卡 {1} 的{0}？'],
  switchOffAction: ['Switch off', '关闭'],
  calibration: ['Calibration of the DAC, card {0}', '调制卡 {0} 的 DAC 校准'],
  cal_common: ['Common, registers 0x00 to 0x04', '公共，寄存器 0x00 至 0x04'],
  cal_i: ['I, registers 0x05 to 0x08', 'I 路，寄存器 0x05 至 0x08'],
  cal_q: ['Q, registers 0x09 to 0x0C', 'Q 路，寄存器 0x09 至 0x0C'],
  calHex: ['{0} bytes in hex; read from the DAC: {1}', '{0} 个十六进制字节；读自 DAC：{1}'],
  calWrong: ['{0} bytes of two hexadecimal digits each are needed.', '需要 {0} 个字节，每个为两位十六进制数。'],
  calWrite: ['Write the calibration', '写入校准'],
  calAsk: ['Write the calibration of card {0}?', '写入调制卡 {0} 的校准？'],
  calNothing: ['The bytes are those that the DAC has.', '与 DAC 中的字节相同。'],
  calFields: ['Meaning of the registers', '寄存器含义'],
  calDone: ['Calibration of card {0}: the DAC has {1}', '调制卡 {0} 的校准：DAC 为 {1}'],
  calChange: ['Calibration of card {0}', '调制卡 {0} 的校准'],
});

const settingName = (name) => named('set_', name);
const valueText = (variable, { value, text: words }) => {
  const option = variable && (variable.values || []).find((one) => one.value === value);
  return option ? named('val_', option.name) : words;
};
const boundsText = ({ least, most, step }) =>
  (step > 1 ? t('boundsStep', least, most, step) : t('bounds', least, most));
const unitText = (unit) => (/^[0-9]/.test(unit || '') ? `× ${unit}` : unit || '').replace('uV', 'µV');
const readSettings = (id, slot) => getJson(apiOf(id, `settings/${slot}`));

async function setVariable(headendId, slot, variable, control) {
  const { name } = variable;
  const path = `settings/${slot}`;
  const value = typed(control);
  const of = (list) => list.find((one) => one.name === name);
  const before = await readSettings(headendId, slot);
  const off = (each) => (variable.values || []).some((one) => String(one.value) === String(each) && one.name === 'off')
    ? channelsOfCard(slot) : null;
  if (off(value) && !off(of(before).value) && !await askOffAir(headendId, { channels: off(value),
    title: t('switchOff', settingName(name), slot), action: t('switchOffAction') })) return;
  const { notes } = await command(headendId, ['var', 'set', String(slot), name, value]);
  const after = await readSettings(headendId, slot);
  settleInput(control);
  ownChange(headendId, path, before, after);
  const [from, to] = [valueText(variable, of(before)), valueText(variable, of(after))];
  if (from !== to) keepChange({ headend: headendId, key: `${path}/${name}`, path, value: after, from, to,
    what: `${t('cardOf', slot)}: ${settingName(name)}`,
    undo: { words: ['var', 'set', String(slot), name, String(of(before).value)],
      off: off(of(before).value) } });
  const same = String(of(after).value) === value;
  say(same && !notes.length ? 'ok' : 'warn', t('settingDone', settingName(name), slot, to),
    ...(same ? [] : [t('notAsTyped', value, to)]), ...notes);
}
function settingRow(slot, variable, now) {
  const id = `set-${slot}-${variable.name}`;
  const control = variable.values
    ? selectInput(id, variable.values.map((one) => [one.value, named('val_', one.name)]), now.value)
    : textInput(id, { type: 'number', min: variable.least, max: variable.most, step: variable.step }, now.value);
  const hint = [!variable.values && boundsText(variable),
    has(`hint_${variable.name}`) && t(`hint_${variable.name}`)].filter(Boolean).join(' · ');
  return oneForm(() => attempt(id, (headendId) => setVariable(headendId, slot, variable, id)),
    field(id, [settingName(variable.name), ' ', el('span', { class: 'soft mono' }, variable.name)], control,
      [el('output', { for: id }, t('cardHas', valueText(variable, now).replace('uV', 'µV'))), hint && ` · ${hint}`],
      variable.unit && el('span', { class: 'unit' }, unitText(variable.unit)),
      el('button', { 'aria-label': t('setOf', settingName(variable.name)) }, t('setIt'))));
}
function drawSettings(data) {
  if (!data) return null;
  const { slot, entry, variables } = data;
  const rows = entry && entry.data && variables && entry.data.map((now) =>
    [variables.find((one) => one.name === now.name), now]).filter(([variable]) => variable);
  return sheet(t('settingsOf', slot), loadNote(entry),
    rows && el('fieldset', { class: 'plain', disabled: !mayWrite() }, el('legend', { class: 'unseen' }, t('settingsOf', slot)),
      el('div', { class: 'fields' }, rows.map(([variable, now]) => settingRow(slot, variable, now)))));
}
function pickSettings(route) {
  const card = shownCard(route);
  return card && { slot: card.slot, entry: read('settings', card.slot), variables: general.variables, turn: formTurn() };
}

// ---- Calibration ----------------------------------------------------------------------------------------------------

const CAL_GROUPS = [['common', 5], ['i', 4], ['q', 4]];
const bytesText = (bytes) => bytes.map((one) => one.replace(/^0x/, '')).join(' ');
const readCalibration = (id, slot) => getJson(apiOf(id, `calibration/${slot}`));
const calWords = (slot, groups) => ['cal', 'write', String(slot),
  ...groups.flatMap(([name, bytes]) => [`--${name}`, ...bytes])];
const calText = (data) => CAL_GROUPS.map(([name]) => bytesText(data[name])).join(' | ');

async function writeCalibration(headendId, slot) {
  const path = `calibration/${slot}`;
  const before = await readCalibration(headendId, slot);
  const groups = CAL_GROUPS.map(([name, count]) => {
    const control = `cal-${slot}-${name}`;
    const bytes = typed(control).toLowerCase().split(/\s+/);
    if (bytes.length !== count || bytes.some((one) => !/^[0-9a-f]{2}$/.test(one))) throw errorAt(control, t('calWrong', count));
    return [name, bytes];
  }).filter(([name, bytes]) => bytes.join(' ') !== bytesText(before[name]));
  if (!groups.length) throw new Error(t('calNothing'));
  const lines = groups.map(([name, bytes]) => `${t(`cal_${name}`)}: ${bytesText(before[name])} → ${bytes.join(' ')}`);
  if (!await askOffAir(headendId, { title: t('calAsk', slot), action: t('calWrite'), channels: channelsOfCard(slot),
    isPossible: true, lines })) return;
  const { notes } = await command(headendId, calWords(slot, groups));
  const after = await readCalibration(headendId, slot);
  CAL_GROUPS.forEach(([name]) => settleInput(`cal-${slot}-${name}`));
  ownChange(headendId, path, before, after);
  keepChange({ headend: headendId, key: path, path, value: after, what: t('calChange', slot), from: calText(before),
    to: calText(after), undo: { words: calWords(slot, CAL_GROUPS.map(([name]) => [name,
      before[name].map((one) => one.replace(/^0x/, ''))])), off: channelsOfCard(slot) } });
  say(notes.length ? 'warn' : 'ok', t('calDone', slot, calText(after)), ...notes);
}
function drawCalibration(data) {
  if (!data) return null;
  const { slot, entry } = data;
  const now = entry && entry.data;
  const id = `cal-${slot}-write`;
  return sheet(t('calibration', slot), loadNote(entry), now && [
    oneForm(() => attempt(id, (headendId) => writeCalibration(headendId, slot)),
      el('fieldset', { class: 'plain', disabled: !mayWrite() }, el('legend', { class: 'unseen' }, t('calibration', slot)),
        el('div', { class: 'fields' }, CAL_GROUPS.map(([name, count]) => {
          const each = `cal-${slot}-${name}`;
          return field(each, t(`cal_${name}`), textInput(each, { class: 'mono', size: 3 * count, maxlength: 40,
            spellcheck: 'false' }, bytesText(now[name])), t('calHex', count, bytesText(now[name])));
        })),
        el('p', { class: 'buttons' }, el('button', { id, class: 'danger' }, t('calWrite')), noteOf(id)))),
    el('details', {}, el('summary', {}, t('calFields')), facts(Object.entries(now.fields || {}).map(([name, value]) =>
      [name.replace(/_/g, ' '), value])))]);
}
function pickCalibration(route) {
  const card = shownCard(route);
  return card && { slot: card.slot, entry: read('calibration', card.slot), turn: formTurn() };
}

