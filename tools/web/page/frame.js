// ---- The bar, the banner, the title -------------------------------------------------------------------------------

function drawHeadends() {
  const shown = headend();
  if (state.headends.length < 2) return [el('b', {}, shown ? shown.name : t('headend'))];
  return [el('span', { role: 'navigation', 'aria-label': t('headends') }, state.headends.map((one) =>
    (one === shown ? el('b', { 'aria-current': 'true' }, one.name)
      : el('a', { href: `#/${encodeURIComponent(one.id)}/${state.route.view}` }, one.name))))];
}
function showBar() {
  if (!state.route) return;
  const standing = status() ? status().alarms.standing.length : 0;
  const key = JSON.stringify([state.route, standing, state.headends, state.language, state.theme, state.session]);
  if (key === state.bar) return;
  state.bar = key;
  const restore = rememberUse(byId('views'));
  byId('views').replaceChildren(...VIEWS.map((view) => el('a', { href: address(view),
    'aria-current': view === state.route.view ? 'page' : null }, t(view),
  view === 'alarms' && standing > 0 && el('span', { class: 'count' }, standing))));
  restore();
  byId('headends').replaceChildren(...drawHeadends());
  byId('server').textContent = headend() ? headend().server : '';
  byId('skip').textContent = t('skip');
  byId('views').setAttribute('aria-label', t('navViews'));
  const theme = t({ auto: 'themeAuto', light: 'themeLight', dark: 'themeDark' }[state.theme]);
  byId('theme').textContent = theme;
  byId('theme').setAttribute('aria-label', t('themeLabel', theme));
  showSession();
  byId('language').textContent = t('toolLanguage');
  byId('language').setAttribute('lang', state.language ? 'en' : 'zh');
  byId('language').setAttribute('aria-label', t('toolLanguageLabel'));
}

function bannerText() {
  if (state.headends.length && !headend()) return t('bannerUnknown', state.route.headend);
  if (REPORT) return '';
  const old = age();
  const since = old !== null && status() ? ' ' + t('bannerSince', utcTime(state.snapshot.read_unix_ms)) : '';
  if (state.link === 'lost') return t('bannerLink') + since;
  if (state.snapshot && state.snapshot.error) return t('bannerError', state.snapshot.error) + since;
  if (old !== null && old > OLD_AFTER_MS) return t('bannerOld') + since;
  return '';
}
function showBanner() {
  const words = bannerText();
  byId('view').classList.toggle('old', words !== '');
  byId('pilot').classList.toggle('old', words !== '');
  if (words === state.banner) return;
  state.banner = words;
  byId('banner').textContent = words;
  byId('banner').hidden = words === '';
}
function showTitle() {
  const standing = status() ? status().alarms.standing.length : 0;
  const one = headend();
  const title = `${standing ? `(${standing}) ` : ''}${one ? one.name : ''} - headend`;
  if (document.title !== title) document.title = title;
}
function showTimes() {
  if (REPORT) {
    showMade();
    return;
  }
  const old = age();
  byId('age').textContent = old === null ? t('noData') : t('ago', span(old));
  const now = Date.now();
  byId('clock').textContent = `${utcClock(now)} UTC · ${localTime(now).slice(11)} (${zone()})`;
  showBanner();
}

// ---- Language and colours -----------------------------------------------------------------------------------------

function stored(name) {
  try {
    return localStorage.getItem(name);
  } catch (failure) {
    return null;
  }
}
function store(name, value) {
  try {
    localStorage.setItem(name, value);
  } catch (failure) {
    // Without storage the choice lasts as long as the page.
  }
}
function setLanguage(column) {
  state.language = column;
  document.documentElement.lang = column ? 'zh-CN' : 'en';
}
function setTheme(theme) {
  state.theme = theme;
  if (theme === 'auto') delete document.documentElement.dataset.theme;
  else document.documentElement.dataset.theme = theme;
}

function start() {
  const language = stored('language') || (navigator.language || 'en').slice(0, 2);
  setLanguage(language === 'zh' ? 1 : 0);
  setTheme(['light', 'dark'].includes(stored('theme')) ? stored('theme') : 'auto');
  byId('language').addEventListener('click', () => {
    setLanguage(1 - state.language);
    store('language', state.language ? 'zh' : 'en');
    if (state.route) mountView(false);
    showTimes();
  });
  byId('session').addEventListener('click', () => (state.session.in ? logOut() : logIn()));
  byId('theme').addEventListener('click', () => {
    setTheme({ auto: 'light', light: 'dark', dark: 'auto' }[state.theme]);
    store('theme', state.theme);
    showBar();
  });
  byId('skip').addEventListener('click', (event) => {
    event.preventDefault();
    byId('view').focus();
  });
  addEventListener('hashchange', () => { if (state.headends.length) followHash(); });
  addEventListener('resize', scheduleDraw);
  setInterval(showTimes, matchMedia('(prefers-reduced-motion: reduce)').matches ? 1000 : 200);
  showTimes();
  loadHeadends();
}
