// ---- Changing something: the session, the question before a change, its result, and the way back ------------------

Object.assign(TEXTS, {
  logIn: ['Log in', '登录'],
  logOut: ['Log out', '退出登录'],
  logInTitle: ['Log in to make changes', '登录后可更改设置'],
  token: ['Token', '令牌'],
  tokenHint: ['It was printed, or written to a file, when this service was started.', '令牌在本服务启动时显示，或已写入文件。'],
  tokenNone: ['Enter the token.', '请输入令牌。'],
  loggedIn: ['Logged in. Changes are possible now.', '已登录，可以更改。'],
  loggedOut: ['Logged out. This page only reads now.', '已退出，本页现在只读。'],
  sessionEnded: ['The session has ended: log in again.', '会话已结束，请重新登录。'],
  noAnswer: ['No answer from the server of this page. Whether the change was made is not known.',
    '本页服务器无响应，无法确定更改是否已执行。'],
  cancel: ['Cancel', '取消'],
  close: ['Close', '关闭'],
  closeMessage: ['Close the message', '关闭消息'],
  plan: ['Plan', '计划'],
  goesOff: ['This goes off the air, for a moment or until it is set again:', '以下内容将停播片刻，或停播至再次设置：'],
  mayGoOff: ['This may go off the air:', '以下内容可能停播：'],
  programmesOf: ['programmes {0}', '节目 {0}'],
  noProgrammesOf: ['no programme', '没有节目'],
  noWayBack: ['The present content cannot be read, so it cannot be put back later: {0}', '无法读取当前内容，之后不能还原：{0}'],
  comma: [', ', '，'],
  done: ['Done: {0}', '完成：{0}'],
  changes: ['Changes of this page', '本页所做的更改'],
  changesNote: ['The last ten, with the time in UTC, until the page is loaded again.', '最近十项，时间为 UTC，重新加载页面后清空。'],
  putBack: ['Put back', '还原'],
  putBackOf: ['Put back: {0}', '还原：{0}'],
  wasPutBack: ['put back', '已还原'],
  laterFirst: ['a later change first', '请先还原较晚的更改'],
  changedSince: ['Somebody else has changed it since. Nothing was put back.', '此后已被他人更改，未还原。'],
  changedShort: ['changed by somebody else', '已被他人更改'],
});
Object.assign(state, {
  session: { writes: false, in: false },
  changes: [], // newest first, see keepChange()
});
const CHANGES_KEPT = 10;
const mayWrite = () => state.session.writes && state.session.in;

// ---- Requests -------------------------------------------------------------------------------------------------------

// The answer's data, or an error with `status` and `changed` (somebody else has changed it since).
function settle(status, body) {
  let data = null;
  try {
    data = JSON.parse(body);
  } catch (failure) {
    // No JSON: a proxy's page, or nothing.
  }
  if (status >= 200 && status < 300) return data;
  if (status === 401 && state.session.in) {
    setSession({ ...state.session, in: false });
    say('bad', t('sessionEnded'));
  }
  const words = status ? (data && data.error ? String(data.error) : `${status}`) : t('noAnswer');
  throw Object.assign(new Error(words), { status, changed: Boolean(data && data.changed) });
}
async function send(method, path, body) {
  let answer;
  let words;
  try {
    answer = await fetch(path, { method, cache: 'no-store', credentials: 'same-origin',
      ...(body && { headers: { 'Content-Type': 'application/json' }, body: JSON.stringify(body) }) });
    words = await answer.text();
  } catch (failure) {
    return settle(0, '');
  }
  return settle(answer.status, words);
}
const apiOf = (id, rest) => `/api/${encodeURIComponent(id)}/${rest}`;
// Carries out a command. more: `file` for the word '@', `expect` as of a change that is put back.
const command = (id, words, more) => send('POST', apiOf(id, 'do'), { words, ...more });
const planOf = (output) => (output && output.plan ? output.plan : String(output || '').split('\n')).filter(Boolean);

// ---- The session ----------------------------------------------------------------------------------------------------

function setSession(session) {
  state.session = session;
  scheduleDraw();
}
function showSession() {
  byId('session').hidden = !state.session.writes;
  byId('session').textContent = t(state.session.in ? 'logOut' : 'logIn');
}
async function loadSession() {
  try {
    setSession(await getJson('/api/session'));
  } catch (failure) {
    setSession({ writes: false, in: false });
  }
}
async function logOut() {
  try {
    await send('DELETE', '/api/session');
    say('ok', t('loggedOut'));
  } catch (failure) {
    say('bad', failure.message);
  }
  loadSession();
}
function logIn() {
  const input = el('input', { type: 'password', id: 'token', autocomplete: 'off', spellcheck: 'false',
    'aria-describedby': 'token-hint token-error' });
  const error = el('p', { id: 'token-error', role: 'alert' });
  const submit = async (event) => {
    event.preventDefault();
    error.replaceChildren();
    try {
      if (!input.value) throw new Error(t('tokenNone'));
      await send('POST', '/api/session', { token: input.value });
      dialog.close();
      await loadSession();
      say('ok', t('loggedIn'));
    } catch (failure) {
      error.replaceChildren(stated('bad', failure.message));
      input.setAttribute('aria-invalid', 'true');
      input.select();
      input.focus();
    }
  };
  const dialog = showDialog(t('logInTitle'), el('form', { onsubmit: submit },
    el('label', { for: 'token' }, t('token')), input,
    el('p', { class: 'soft', id: 'token-hint' }, t('tokenHint')), error,
    el('div', { class: 'buttons' },
      el('button', { type: 'button', onclick: () => dialog.close() }, t('cancel')),
      el('button', { class: 'main' }, t('logIn')))));
  input.focus();
}

// ---- Dialogs and results --------------------------------------------------------------------------------------------

function showDialog(title, ...content) {
  const dialog = el('dialog', { 'aria-labelledby': 'dialog-title', onclose: () => dialog.remove() },
    el('h2', { id: 'dialog-title' }, title), content);
  document.body.append(dialog);
  dialog.showModal();
  return dialog;
}
// A question; Cancel has the focus. Resolves to whether the answer is yes.
function ask(title, action, ...content) {
  return new Promise((resolve) => {
    const cancel = el('button', { type: 'button', onclick: () => dialog.close('') }, t('cancel'));
    const dialog = showDialog(title, content, el('div', { class: 'buttons' }, cancel,
      el('button', { type: 'button', class: 'danger', onclick: () => dialog.close('yes') }, action)));
    dialog.addEventListener('close', () => resolve(dialog.returnValue === 'yes'));
    cancel.focus();
  });
}
// The result of the last change, read out by a screen reader; it stays until it is closed or the next one comes.
function say(kind, ...lines) {
  const place = byId('said');
  place.replaceChildren(el('div', {}, stated(kind, lines[0]), lines.slice(1).map((line) => el('p', {}, line))),
    el('button', { type: 'button', 'aria-label': t('closeMessage'), onclick: () => place.replaceChildren() }, '×'));
}

// ---- What goes off the air ------------------------------------------------------------------------------------------

// The channels that a change takes off the air, with what is known of them: a line each.
async function offAirLines(id, channels) {
  return Promise.all(channels.map(async (channel) => {
    const one = channelsOf(cards()).find((each) => each.id === channel);
    const rf = one && one.channel.rf;
    let names = null;
    try {
      names = (await getJson(apiOf(id, `programmes/${channel}`))).programmes.map((each) => each.name || each.number);
    } catch (failure) {
      // A card that does not run has no list.
    }
    return [t('channelOf', channel), rf && rf.on_air && megahertz(rf.frequency_khz), rf && verdictWords(rf), names && (
      names.length ? t('programmesOf', names.join(t('comma'))) : t('noProgrammesOf'))].filter(Boolean).join(t('comma'));
  }));
}
const channelsOfCard = (slot) => [`${slot}.1`, `${slot}.2`];
// Asks before a change of these channels. plan(): a promise of its plan, if the command has one; a plan that fails is
// the change's error. isPossible: they may also stay on the air. lines: what else is to be known.
async function askOffAir(id, { title, action, channels, plan, isPossible, lines = [] }) {
  const [affected, planned] = await Promise.all([offAirLines(id, channels), plan && plan()]);
  return ask(title, action, lines.map((line) => line && el('p', {}, line)),
    el('p', {}, t(isPossible ? 'mayGoOff' : 'goesOff')),
    el('ul', { class: 'bullets' }, affected.map((line) => el('li', {}, line))),
    planned && planned.length > 0 && [el('h3', {}, t('plan')),
      el('pre', { class: 'plan mono', tabindex: 0, 'aria-label': t('plan') }, planned.join('\n'))]);
}
const planFor = (id, words, more) => async () => planOf((await command(id, [...words, '--dry-run'], more)).output);

// ---- The way back ---------------------------------------------------------------------------------------------------

// Keeps a change: `headend`, `key` (what was changed), `path` (what was read), `value` (read after the change), the texts
// `what`, `from` and `to`, and `undo`: { words, file, off } with the channels that it takes off the air.
function keepChange(change) {
  state.changes = [{ ...change, at: Date.now(), done: '' }, ...state.changes].slice(0, CHANGES_KEPT);
}
// Of two changes of one thing the later one is put back first. What this page has changed since is not another's change.
const laterOf = (change) => state.changes.slice(0, state.changes.indexOf(change))
  .some((one) => !one.done && one.headend === change.headend && one.key === change.key);
function ownChange(id, path, before, after) {
  const was = JSON.stringify(before);
  for (const one of state.changes) {
    if (one.headend === id && one.path === path && JSON.stringify(one.value) === was) one.value = after;
  }
}
async function putBack(change) {
  const { headend: id, path, undo, what } = change;
  if (undo.off && !await askOffAir(id, { title: t('putBackOf', what), action: t('putBack'), channels: undo.off })) return;
  try {
    const { notes } = await command(id, undo.words,
      { file: undo.file, expect: path ? { path, value: change.value } : undefined });
    change.done = 'wasPutBack';
    if (path) ownChange(id, path, change.value, await getJson(apiOf(id, path)));
    say('ok', t('putBackOf', what), ...notes);
  } catch (failure) {
    if (failure.changed) change.done = 'changedShort';
    say('bad', failure.changed ? t('changedSince') : failure.message);
  }
  reloadSettings();
}
function drawChanges(data) {
  if (!data || !data.changes.length) return null;
  const way = (change) => (change.done ? t(change.done) : !change.undo ? '–' : laterOf(change) ? t('laterFirst')
    : el('button', { type: 'button', disabled: !data.may, 'aria-label': t('putBackOf', change.what),
      onclick: () => putBack(change) }, t('putBack')));
  return sheet(t('changes'), el('ul', { class: 'changes' }, data.changes.map((change) => el('li', {},
    el('span', { class: 'soft' }, utcClock(change.at)), el('span', {}, el('b', {}, change.what), ' ',
      el('span', {}, `${change.from} → ${change.to}`)), el('span', { class: 'way' }, way(change))))),
  el('p', { class: 'note soft' }, t('changesNote')));
}
const pickChanges = () => ({ may: mayWrite(), changes: state.changes.filter((one) => one.headend === state.route.headend),
  // For the comparison: what of it is drawn.
  toJSON: () => [mayWrite(), state.changes.map(({ at, done }) => [at, done])] });
