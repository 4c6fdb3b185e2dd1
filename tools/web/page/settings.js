// ---- Settings: what can be changed, for one card ------------------------------------------------------------------

Object.assign(TEXTS, {
  settings: ['Settings', '设置'],
  exportSettings: ['Settings of all cards', '所有板卡的设置'],
  exportWithout: ['The file does not have what cannot be read: {0}', '文件不含无法读取的：{0}'],
  perCard: ['Cards', '板卡'],
});

const shownCard = (route) => cards().find((card) => String(card.slot) === route.channel) || cards()[0] || null;
const general = { of: null, variables: null, faults: null }; // what the headend `of` can set, and its faults
const seen = new Map(); // what the chassis had when an entry of state.loaded was read

// ---- Reading --------------------------------------------------------------------------------------------------------

async function loadGeneral() {
  const { headend: id } = state.route;
  if (general.of === id) return;
  general.of = id;
  try {
    const [variables, faults] = await Promise.all(['variables', 'faults'].map((name) => getJson(apiOf(id, name))));
    if (general.of === id) Object.assign(general, { variables, faults });
    redrawForms();
  } catch (failure) {
    setTimeout(() => { general.of = null; scheduleDraw(); }, RETRY_MS);
  }
}
// Reads something again when what the live state shows of it has changed.
function follow(kind, what, shown) {
  const key = `${kind}/${what}`;
  const entry = kept(kind, what);
  const words = JSON.stringify(shown);
  if (entry && (entry.reading || seen.get(key) === words)) return;
  seen.set(key, words);
  load(kind, what);
}
function beforeSettings(route) {
  loadGeneral();
  const card = shownCard(route);
  if (!card) return;
  follow('settings', card.slot, [card.state, card.channels.map((one) => one.rf)]);
  follow('calibration', card.slot, card.calibration);
  card.channels.forEach((one, index) => follow('programmes', `${card.slot}.${index + 1}`,
    [card.state, one.map.entries, Object.values(one.tables).map((each) => each.stored)]));
}
function reloadSettings() {
  seen.clear();
  scheduleDraw();
}

// ---- The top of the view --------------------------------------------------------------------------------------------

function drawCards(data) {
  if (!data) return blank('waiting');
  if (!data.slots.length) return blank('noCards');
  return [el('nav', { 'aria-label': t('perCard'), class: 'tabs' }, data.slots.map(([slot, kind]) =>
    el('a', { href: address(`settings/${slot}`), 'aria-current': slot === data.shown ? 'true' : null },
      stated(kind, t('cardOf', slot)))),
  el('span', { class: 'soft push' }, t('exportSettings')),
  exportButtons('settings', t('exportSettings'), ['slot', 'id', 'name', 'value', 'unit', 'text'], allSettings)),
  !data.may && el('p', { class: 'sheet' }, stated('idle', t(data.writes ? 'formsLogIn' : 'formsOff')))];
}
const pickCards = (route) => status() && { shown: (shownCard(route) || {}).slot,
  slots: cards().map((card) => [card.slot, cardKind(card)]), may: mayWrite(), writes: state.session.writes };
// Of the cards that can be read; the others are named.
async function allSettings() {
  const missing = [];
  const lists = await Promise.all(cards().map((card) => getJson(api(`settings/${card.slot}`)).catch(() => {
    missing.push(t('cardOf', card.slot));
    return [];
  })));
  if (missing.length) say('warn', t('exportWithout', missing.join(t('comma'))));
  return lists.flat();
}

const settingsView = {
  before: beforeSettings,
  opened: () => {
    forgetForms();
    reloadSettings();
  },
  parts: [{ pick: pickCards, draw: drawCards }, { pick: pickChanges, draw: drawChanges },
    { pick: pickSettings, draw: drawSettings }, { pick: pickChannels, draw: drawChannels },
    { pick: pickCalibration, draw: drawCalibration }, { pick: pickFaults, draw: drawFaults }],
};
