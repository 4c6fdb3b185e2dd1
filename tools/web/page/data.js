// ---- What does not change, and what the page holds ------------------------------------------------------------------

const VIEWS = ['overview', 'rf', 'streams', 'panel', 'settings', 'alarms', 'start-up'];
const SLOTS = [1, 2, 3, 4, 5, 6];
const TABLES = ['PAT', 'PMT', 'SDT_C', 'SDT_O', 'NIT_C', 'NIT_O', 'BAT', 'CAT'];
const HISTORY_SECONDS = 600;
const OLD_AFTER_MS = 5000;
const RETRY_MS = 3000;
const ROLL_OFF = 0.15;
const RASTER_MHZ = 8;

const state = {
  language: 0, // column of TEXTS
  theme: 'auto',
  headends: [],
  version: '',
  route: null, // { headend, view, channel }
  link: 'connecting', // or 'open', 'lost'
  source: null, // EventSource
  retry: 0, // timer of the next attempt
  snapshot: null, // last event
  clockOffset: null, // this machine's clock minus the server's, ms
  history: {}, // by channel: { psi, routed, null }, bit/s, one entry a virtual second, oldest first
  historySecond: null,
  historyAsked: 0,
  usedOnly: false, // the rates are drawn without null packets
  isPaper: false, // the views are drawn for a printer
  log: { events: null, error: '', asked: null, shown: 100 },
  loaded: {}, // by 'kind/channel': { data, error, reading, at }
  mounted: [], // parts of the open view: { part, host, key, at }
  drawPending: false,
  banner: '',
  bar: '', // what the top bar shows, to leave it alone while nothing changes
};

// ---- What is known of the headend --------------------------------------------------------------------------------

const status = () => (state.snapshot && state.snapshot.status) || null;
const cards = () => (status() ? status().cards : []);
const headend = () => state.headends.find((one) => one.id === state.route.headend) || null;
const channelsOf = (list) => list.flatMap((card) =>
  card.channels.map((channel, index) => ({ id: `${card.slot}.${index + 1}`, card, channel })));
// A hung card may still send.
const sends = (card, channel) => card.state === 'running' || (card.state === 'hung' && channel.bit_rate > 0);
const running = () => channelsOf(cards()).filter(({ card, channel }) => sends(card, channel));
const shownChannel = (route) => running().find((one) => one.id === route.channel) || running()[0] || null;
const address = (rest) => `#/${state.route.headend}/${rest}`;
const usedRate = (channel) => channel.rates.psi + channel.rates.routed;

// Age of the shown state in ms. Differing clocks of server and browser are allowed for.
function age() {
  if (!state.snapshot || !state.snapshot.read_unix_ms) return null;
  const offset = state.clockOffset === null || (state.clockOffset >= 0 && state.clockOffset < 2000)
    ? 0 : state.clockOffset;
  return Math.max(0, Date.now() - state.snapshot.read_unix_ms - offset);
}

async function getJson(path) {
  if (REPORT) return reported(path);
  const answer = await fetch(path, { cache: 'no-store', credentials: 'same-origin' });
  let data = null;
  try {
    data = await answer.json();
  } catch (failure) {
    throw new Error(`${answer.status} ${answer.statusText}`);
  }
  if (!answer.ok) throw new Error(data && data.error ? String(data.error) : `${answer.status}`);
  return data;
}
const api = (rest) => `/api/${encodeURIComponent(state.route.headend)}/${rest}`;

async function loadHeadends() {
  try {
    const answer = await getJson('/api/headends');
    state.headends = answer.headends;
    state.version = answer.version;
    followHash();
  } catch (failure) {
    state.link = 'lost';
    showBanner();
    setTimeout(loadHeadends, RETRY_MS);
  }
}

async function loadHistory() {
  if (Date.now() - state.historyAsked < RETRY_MS) return;
  state.historyAsked = Date.now();
  const id = state.route.headend;
  try {
    const answer = await getJson(api('history'));
    if (id !== state.route.headend) return;
    state.history = answer.channels || {};
    scheduleDraw();
  } catch (failure) {
    // The banner already has what is wrong; the next second of data tries again.
    state.historySecond = null;
  }
}

// Appends one virtual second. After a gap, or when the headend began anew, the server's history is read.
function appendHistory(now) {
  const second = Math.floor(now.virtual_seconds);
  if (second === state.historySecond) return;
  const follows = state.historySecond !== null && second === state.historySecond + 1;
  state.historySecond = second;
  if (!follows) {
    loadHistory();
    return;
  }
  for (const { id, channel } of channelsOf(now.cards)) {
    const lists = state.history[id] || (state.history[id] = { psi: [], routed: [], null: [] });
    for (const name of ['psi', 'routed', 'null']) {
      lists[name].push(channel.rates[name]);
      if (lists[name].length > HISTORY_SECONDS) lists[name].splice(0, lists[name].length - HISTORY_SECONDS);
    }
  }
}

async function loadLog() {
  if (!status() || state.log.asked === status().alarms.events) return;
  state.log.asked = status().alarms.events;
  const id = state.route.headend;
  try {
    const answer = await getJson(api('alarms'));
    if (id !== state.route.headend) return;
    state.log.events = answer.events;
    state.log.leftOut = answer.left_out || 0;
    state.log.error = '';
  } catch (failure) {
    if (id !== state.route.headend) return;
    state.log.error = failure.message;
    setTimeout(() => { state.log.asked = null; scheduleDraw(); }, RETRY_MS);
  }
  scheduleDraw();
}

// Reads programmes, PID map and PSI of a channel: when its view opens and on request.
const kept = (kind, channel) => state.loaded[`${kind}/${channel}`] || null;
function newEntry() {
  const entry = { data: null, error: '', reading: false, at: 0 };
  // Parts compare their data as JSON: the time of reading is enough for that, the data can be large.
  entry.toJSON = () => [entry.at, entry.error, entry.reading];
  return entry;
}
async function load(kind, channel) {
  const key = `${kind}/${channel}`;
  const entry = state.loaded[key] || (state.loaded[key] = newEntry());
  if (entry.reading) return;
  entry.reading = true;
  scheduleDraw();
  try {
    entry.data = await getJson(api(key));
    entry.error = '';
    entry.at = Date.now();
  } catch (failure) {
    entry.error = failure.message;
  }
  entry.reading = false;
  scheduleDraw();
}
function loadChannel(channel) {
  for (const kind of ['programmes', 'pidmap', 'psi']) load(kind, channel);
}

// ---- Live states --------------------------------------------------------------------------------------------------

function disconnect() {
  clearTimeout(state.retry);
  if (state.source) state.source.close();
  state.source = null;
}
function connect() {
  disconnect();
  if (REPORT) {
    openReport();
    return;
  }
  state.link = 'connecting';
  state.clockOffset = null;
  const source = new EventSource(api('events'));
  state.source = source;
  source.onopen = () => {
    state.link = 'open';
    showBanner();
    loadSession();
  };
  source.onmessage = (message) => accept(JSON.parse(message.data));
  source.onerror = () => {
    state.link = 'lost';
    showBanner();
    const ended = source.readyState === EventSource.CLOSED && source === state.source;
    if (ended) state.retry = setTimeout(connect, RETRY_MS);
  };
}

function accept(message) {
  const before = status();
  state.link = 'open';
  state.snapshot = message;
  if (!message.error) {
    const offset = Date.now() - message.read_unix_ms;
    state.clockOffset = state.clockOffset === null ? offset : Math.min(state.clockOffset, offset);
  }
  const now = status();
  if (now && !message.error) {
    if (before && now.virtual_seconds < before.virtual_seconds) forget();
    appendHistory(now);
  }
  showTitle();
  scheduleDraw();
}
// Another headend, or the same one after a new start.
function forget() {
  Object.assign(state, { history: {}, historySecond: null, historyAsked: 0, loaded: {} });
  state.log = { events: null, error: '', asked: null, shown: 100 };
}
