// ---- Parts of forms -------------------------------------------------------------------------------------------------
// What is typed is in input nodes that stay while the page draws around them. Errors, and what is under way, are kept by
// the id of the control that they belong to.

Object.assign(TEXTS, {
  setIt: ['Set', '设置'],
  setOf: ['Set: {0}', '设置：{0}'],
  underWay: ['In progress…', '进行中…'],
  formsOff: ['This page only reads: the service was started without --web-write.', '本页只读：服务启动时未使用 --web-write。'],
  formsLogIn: ['Log in to change something.', '登录后可以更改。'],
});
const form = { nodes: new Map(), errors: new Map(), busy: new Set(), turn: 0 }; // errors: { of, words }

// What was read, for a part that is drawn again only if that differs: what is typed or clicked at this moment stays.
function read(kind, what) {
  const entry = kept(kind, what);
  return entry && { data: entry.data, error: entry.error, reading: entry.reading && !entry.data };
}
// What the parts with forms compare besides their own data.
const formTurn = () => [form.turn, mayWrite()];
function redrawForms() {
  form.turn += 1;
  scheduleDraw();
}
function forgetForms() {
  form.nodes.clear();
  form.errors.clear();
}

// An input that stays; it follows `value` until something is typed in it.
function input(id, make, value) {
  if (!form.nodes.has(id)) {
    const made = put(make(), { id, 'aria-describedby': `${id}-hint ${id}-error` }, []);
    made.addEventListener('input', () => {
      made.dataset.typed = 'yes';
      if (form.errors.delete(id)) redrawForms();
    });
    form.nodes.set(id, made);
  }
  const node = form.nodes.get(id);
  if (value !== undefined && !node.dataset.typed && node.value !== String(value)) node.value = value;
  node.setAttribute('aria-invalid', form.errors.has(id));
  return node;
}
const textInput = (id, attributes, value) => input(id, () => el('input', { autocomplete: 'off', ...attributes }), value);
const selectInput = (id, options, value) => input(id, () => el('select', {},
  options.map(([each, words]) => el('option', { value: each }, words))), value);
const fileInput = (id, accept) => input(id, () => el('input', { type: 'file', accept }));
const inputOf = (id) => form.nodes.get(id);
const typed = (id) => inputOf(id).value.trim();
// What was typed is done with: the input follows the chassis again.
function settleInput(id) {
  delete inputOf(id).dataset.typed;
}

// The error of a control, or what is under way, beside it.
function noteOf(id) {
  if (form.busy.has(id)) return el('p', { class: 'note soft' }, t('underWay'));
  return form.errors.has(id) ? el('p', { class: 'note', id: `${id}-error`, role: 'alert' },
    stated('bad', form.errors.get(id).words)) : null;
}
function field(id, label, control, hint, ...more) {
  return el('div', { class: 'field' }, el('label', { for: id }, label), el('div', { class: 'entry' }, control, more),
    hint && el('p', { class: 'note soft', id: `${id}-hint` }, hint), noteOf(id));
}
const button = (id, label, act, attributes) =>
  el('button', { type: 'button', id, onclick: act, disabled: !mayWrite(), ...attributes }, label);
const group = (title, ...content) => el('fieldset', { disabled: !mayWrite() }, el('legend', {}, title), content);
// A form of its own, so that Enter in a field does what its button does.
const oneForm = (submit, ...content) => el('form', { novalidate: true, onsubmit: (event) => {
  event.preventDefault();
  submit();
} }, content);

const errorAt = (control, words) => Object.assign(new Error(words), { control });
// Carries out a change that belongs to a control; its error is shown there, and the focus comes back to it.
async function attempt(id, work) {
  if (form.busy.has(id)) return;
  form.busy.add(id);
  byId('said').replaceChildren();
  for (const [control, { of }] of form.errors) if (of === id) form.errors.delete(control);
  redrawForms();
  let next = id;
  try {
    await work(state.route.headend);
  } catch (failure) {
    next = failure.control || id;
    form.errors.set(next, { of: id, words: failure.message });
  }
  form.busy.delete(id);
  reloadSettings();
  redrawForms();
  requestAnimationFrame(() => {
    if ((next !== id || document.activeElement === document.body) && byId(next)) byId(next).focus();
  });
}
