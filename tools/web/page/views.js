// ---- The views ----------------------------------------------------------------------------------------------------

const VIEW = {
  overview: { parts: [{ pick: pickSlots, draw: drawSlots }, { pick: pickHeadend, draw: drawHeadend },
    { pick: pickTroubles, draw: drawTroubles }] },
  rf: { parts: [{ pick: pickRf, draw: drawRf }] },
  streams: { before: beforeStreams,
    opened: (route) => { if (shownChannel(route)) loadChannel(shownChannel(route).id); },
    parts: [{ pick: pickTiles, draw: drawTiles, once: true }, { pick: pickRates, draw: drawRates },
      { pick: pickTables, draw: drawTables, every: 900 }, { pick: pickLanes, draw: drawLanes },
      { pick: pickReadAgain, draw: drawReadAgain }, { pick: pickContents, draw: drawContents },
      { pick: pickInputs, draw: drawInputs, every: 900, once: true }, { pick: pickPids, draw: drawPids, once: true }] },
  panel: panelView,
  settings: settingsView,
  alarms: { before: loadLog, parts: [{ pick: () => status() && status().alarms.standing, draw: drawStanding },
    { pick: pickLog, draw: drawLog }] },
  'start-up': { parts: [{ pick: pickStart, draw: drawStart }] },
};

// Another channel: what was opened or scrolled belongs to the old one. The part with the focus keeps it.
function emptyParts() {
  for (const mounted of state.mounted) {
    if (!mounted.host.contains(document.activeElement)) mounted.host.replaceChildren();
    Object.assign(mounted, { key: null, at: -Infinity });
  }
}

// Makes the frame of a view; its parts are drawn into it.
function mountView(moveFocus) {
  const view = VIEW[state.route.view];
  state.mounted = view.parts.map((part) => ({ part, host: el('div', { class: 'part' }), key: null, at: -Infinity }));
  const hosts = state.mounted.map((one) => one.host);
  const heading = el('h1', { class: 'unseen', tabindex: -1 }, t(state.route.view));
  byId('view').replaceChildren(heading, ...(view.frame ? [view.frame(hosts)] : hosts));
  if (moveFocus) {
    scrollTo(0, 0);
    byId('said').replaceChildren();
    heading.focus({ preventScroll: true });
  }
  if (view.opened) view.opened(state.route);
  state.bar = '';
  drawView();
  showTitle();
  showBanner();
}

function parseHash() {
  const [id, view, channel] = location.hash.replace(/^#\/?/, '').split('/').map(safeDecode);
  const first = state.headends.length ? state.headends[0].id : '1';
  return { headend: id || first, view: VIEWS.includes(view) ? view : 'overview', channel: channel || '' };
}
function safeDecode(part) {
  try {
    return decodeURIComponent(part);
  } catch (failure) {
    return part;
  }
}
function followHash() {
  const before = state.route;
  const route = parseHash();
  state.route = route;
  if (!headend()) {
    disconnect();
    state.snapshot = null;
  } else if (!before || before.headend !== route.headend || !state.source) {
    forget();
    state.snapshot = null;
    connect();
  }
  const same = before && before.headend === route.headend && before.view === route.view;
  if (same && before.channel !== route.channel && VIEW[route.view].opened) {
    VIEW[route.view].opened(route);
    emptyParts();
    scheduleDraw();
  } else {
    mountView(Boolean(before));
  }
}
