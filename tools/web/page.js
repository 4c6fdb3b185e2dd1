// The page of a virtual headend. The server's states arrive as events; at most once in an animation frame the parts
// of the open view are compared with what they showed, and those that changed are drawn again.
// A part is { pick, draw, every }: pick(route) returns the data that it shows, draw(data, width, route) returns DOM
// nodes. A part of counters that never stand still is drawn no more often than each `every` ms.
// Whatever the chassis reports is inserted as text, never as markup.
'use strict';

(() => {
  // ---- Texts: English, Chinese. {0}, {1} are replaced by arguments. ------------------------------------------------

  const TEXTS = {
    overview: ['Overview', '概览'],
    rf: ['RF', '射频'],
    streams: ['Streams', '码流'],
    panel: ['Front panel', '前面板'],
    alarms: ['Alarms', '告警'],
    'start-up': ['Start-up', '启动'],
    skip: ['Skip to the content', '跳到正文'],
    navViews: ['Views', '视图'],
    toolLanguage: ['中文', 'English'],
    toolLanguageLabel: ['以中文显示', 'Show in English'],
    themeAuto: ['Auto', '自动'],
    themeLight: ['Light', '浅色'],
    themeDark: ['Dark', '深色'],
    themeLabel: ['Colours: {0}. Change', '颜色：{0}。切换'],
    ago: ['{0} ago', '{0} 前'],
    noData: ['no data yet', '尚无数据'],
    waiting: ['Waiting for the first state of the headend.', '正在等待前端的第一个状态。'],
    bannerError: ['The headend cannot be read: {0}', '无法读取前端：{0}'],
    bannerLink: ['No connection to the server of this page. It is tried again.', '与本页服务器的连接已断开，正在重试。'],
    bannerOld: ['The shown data is old: no new state arrives.', '所示数据已过时：没有收到新状态。'],
    bannerSince: ['Shown is the state of {0} UTC.', '所示为 {0} UTC 的状态。'],
    bannerUnknown: ['There is no headend {0}.', '没有前端 {0}。'],
    unknown: ['unknown', '未知'],
    never: ['never', '从未'],
    none: ['none', '无'],
    slot: ['Slot {0}', '插槽 {0}'],
    card: ['QAM card', '调制卡'],
    cardOf: ['Card {0}', '调制卡 {0}'],
    source: ['Source card', '信源卡'],
    empty: ['empty', '空'],
    channelOf: ['Channel {0}', '通道 {0}'],
    chassis: ['Chassis', '机箱'],
    state_starting: ['starting', '正在启动'],
    state_running: ['running', '运行'],
    state_config_error: ['config error', '配置错误'],
    state_no_bitstream: ['no bitstream', '没有逻辑文件'],
    state_no_record: ['no record', '没有参数'],
    state_hung: ['hung', '无响应'],
    state_not_registered: ['not registered', '未注册'],
    verdict_on: ['on air', '正常播出'],
    verdict_off: ['off', '关闭'],
    verdict_faulty: ['faulty', '故障'],
    hungAt: ['Task {0} waits at register {1} since {2}', '任务 {0} 自 {2} 起停在寄存器 {1}'],
    recordLost: ['Record not kept', '参数未保存'],
    inputLost: ['Input lost', '输入丢失'],
    overflow: ['Output overflows', '输出溢出'],
    locked: ['Locked by an upload', '上传锁定中'],
    mapLocked: ['PID map is locked', 'PID 表已锁定'],
    inputDelivers: ['delivers', '正常'],
    inputSilent: ['silent', '无信号'],
    input: ['Input', '输入'],
    used: ['used', '已用'],
    free: ['free', '空闲'],
    usedOf: ['{0} of {1} used, {2}', '{1} 中已用 {0}，{2}'],
    virtualTime: ['Virtual time', '虚拟时间'],
    pace: ['Pace', '速度'],
    server: ['Server', '服务器'],
    version: ['Version', '版本'],
    name: ['Name', '名称'],
    standing: ['Standing alarms', '当前告警'],
    noAlarms: ['No alarm is standing.', '当前没有告警。'],
    headend: ['Headend', '前端'],
    headends: ['Headends', '前端'],
    heap: ['Heap in use', '已用堆内存'],
    heapFailures: ['Refused memory requests', '被拒绝的内存请求'],
    auxClock: ['Auxiliary clock', '辅助时钟'],
    sysClock: ['System clock', '系统时钟'],
    alarmLog: ['Alarm log', '告警日志'],
    logKept: ['{0} events, file complete', '{0} 个事件，文件完整'],
    logNotKept: ['{0} events, file is not complete', '{0} 个事件，文件不完整'],
    faults: ['Faults', '故障注入'],
    fault: ['Fault', '故障'],
    from: ['From', '开始'],
    until: ['Until', '结束'],
    period: ['Period', '周期'],
    present: ['Present', '存在'],
    planned: ['not now', '目前没有'],
    presentNow: ['present', '存在'],
    open: ['no end', '无结束'],
    violations: ['Protocol violations', '协议违例'],
    serial: ['Number', '序号'],
    kind: ['Kind', '类型'],
    number: ['Number', '数量'],
    failedChecks: ['Failed checks', '失败的检查'],
    check: ['Check', '检查'],
    unit: ['Unit', '单元'],
    line: ['Line', '行'],
    lateRequests: ['Late requests', '延迟的请求'],
    arrived: ['Arrived', '到达'],
    load: ['Load', '负载'],
    semaphores: ['Long waits for semaphores', '信号量长等待'],
    waitText: ['{0} waits for {1}, held by {2}', '{0} 等待 {1}，持有者 {2}'],
    since: ['Since', '自'],
    spectrum: ['Spectrum at the RF connector, from the lines of the card', '射频接口频谱（由板卡线路解码）'],
    idealPoints: ['ideal points', '理想星座点'],
    idealOf: ['{0}, {1}: ideal points', '{0}，{1}：理想星座点'],
    carrier: ['Carrier', '载波'],
    level: ['Level', '电平'],
    constellation: ['Constellation', '星座'],
    symbolRate: ['Symbol rate', '符号率'],
    clock: ['Clock', '时钟'],
    bitRate: ['Bit rate', '比特率'],
    verdict: ['Verdict', '结论'],
    why: ['Reason', '原因'],
    nothingOnAir: ['Nothing is on air', '没有信号输出'],
    property: ['Property', '项目'],
    spectrumSummary: ['Spectrum of card {0}. {1}', '调制卡 {0} 的频谱。{1}'],
    channelSummary: ['Channel {0}: {1}, {2}, {3}.', '通道 {0}：{1}，{2}，{3}。'],
    channelReason: ['Channel {0}: {1}. {2}.', '通道 {0}：{1}。{2}。'],
    noCards: ['The chassis has no QAM card.', '机箱中没有调制卡。'],
    noRunning: ['No card is running.', '没有运行的板卡。'],
    channels: ['Channels', '通道'],
    psi: ['PSI', 'PSI'],
    routed: ['Routed', '路由'],
    null: ['Null', '空包'],
    ratesOf: ['Bit rate of channel {0}, last ten minutes', '通道 {0} 的比特率，最近十分钟'],
    withNull: ['Show the whole output', '显示全部输出'],
    withoutNull: ['Show without null packets', '不显示空包'],
    ratesSummary: ['Channel {0} now: PSI {1}, routed {2}, null {3}.', '通道 {0} 当前：PSI {1}，路由 {2}，空包 {3}。'],
    now: ['now', '现在'],
    minutes: ['{0} min', '{0} 分'],
    packets: ['Packets', '包'],
    dropped: ['Dropped', '丢弃'],
    filtered: ['Filtered', '已过滤'],
    total: ['Total', '总计'],
    inputRate: ['From the router now', '路由器当前输入'],
    tables: ['PSI tables', 'PSI 表'],
    tablesCaption: ['Intervals from group to group in ticks of the auxiliary clock ({0} Hz) and in ms',
      '组间隔，以辅助时钟（{0} Hz）的节拍和毫秒计'],
    table: ['Table', '表'],
    set: ['Set', '设定'],
    min: ['Min', '最小'],
    mean: ['Mean', '平均'],
    max: ['Max', '最大'],
    stored: ['Stored', '已存'],
    posted: ['Posted', '已发'],
    repetition: ['Repetition', '重复'],
    late: ['late by {0}', '晚 {0}'],
    onTime: ['on time', '准时'],
    stopped: ['stopped', '已停'],
    notStored: ['no packets', '无包'],
    notYet: ['not measured', '未测量'],
    rangeLabel: ['{0} to {1} ticks, set {2}', '{0} 至 {1} 节拍，设定 {2}'],
    sections: ['Sections', '段'],
    pid: ['PID', 'PID'],
    extension: ['Id', '标识'],
    section: ['Section', '段'],
    content: ['Content', '内容'],
    programmes: ['Programmes', '节目'],
    noProgrammes: ['The channel carries no programme.', '该通道没有节目。'],
    programme: ['Programme', '节目'],
    unnamed: ['without a name', '无名称'],
    noPmt: ['no PMT stored', '未存 PMT'],
    pmtPid: ['PMT PID', 'PMT PID'],
    pcrPid: ['PCR PID', 'PCR PID'],
    use: ['Use', '用途'],
    stream: ['stream', '码流'],
    pcr: ['PCR', 'PCR'],
    ca: ['CA', 'CA'],
    what: ['Content', '内容'],
    language: ['Language', '语言'],
    sourcePid: ['Source', '来源'],
    notMapped: ['not in the PID map', '不在 PID 表中'],
    pidmap: ['PID map', 'PID 表'],
    noMap: ['The PID map is empty.', 'PID 表为空。'],
    mapSummary: ['{0} PIDs from inputs to channel {1}. The table below has the same.',
      '从输入到通道 {1} 的 {0} 个 PID，下表内容相同。'],
    mapMore: ['The picture has the first {0} of {1} entries.', '图中为 {1} 项中的前 {0} 项。'],
    mapDiffers: ['The router holds another map than the record.', '路由器中的表与参数不同。'],
    mapShadowed: ['{0} entries are without effect: an earlier one has the same source.', '{0} 项无效：前面已有相同来源。'],
    mapTable: ['PID map as a table', 'PID 表（表格）'],
    output: ['Output', '输出'],
    type: ['Type', '类型'],
    position: ['Position', '位置'],
    readAgain: ['Read again', '重新读取'],
    reading: ['Reading…', '正在读取…'],
    readAt: ['Read at {0} UTC', '读取于 {0} UTC'],
    readFailed: ['Cannot be read: {0}', '无法读取：{0}'],
    inputs: ['Inputs of the source cards', '信源卡输入'],
    rate: ['Rate', '速率'],
    damaged: ['Damaged', '损坏'],
    lastPacket: ['Last packet', '最后一个包'],
    disturbances: ['Disturbances', '干扰'],
    file: ['Source', '来源'],
    noSources: ['The chassis has no source card.', '机箱中没有信源卡。'],
    lcd: ['LCD, 128 × 64 pixels', 'LCD，128 × 64 像素'],
    lcdText: ['Text of the LCD', 'LCD 文字'],
    lcdNone: ['The LCD has not been read.', '尚未读取 LCD。'],
    keys: ['Keys', '按键'],
    keysOff: ['This page only reads: the keys are off.', '本页只读：按键不可用。'],
    key_up: ['Up', '上'],
    key_down: ['Down', '下'],
    key_left: ['Left', '左'],
    key_right: ['Right', '右'],
    key_ok: ['OK', '确定'],
    key_cancel: ['Cancel', '取消'],
    severity: ['Severity', '级别'],
    sev_critical: ['critical', '严重'],
    sev_major: ['major', '主要'],
    sev_minor: ['minor', '次要'],
    sev_warning: ['warning', '警告'],
    sev_indeterminate: ['indeterminate', '不确定'],
    alarm: ['Alarm', '告警'],
    happened: ['Happened (UTC)', '发生时间（UTC）'],
    time: ['Time (UTC)', '时间（UTC）'],
    local: ['Local time', '本地时间'],
    event: ['Event', '事件'],
    ev_raised: ['raised', '产生'],
    ev_recovered: ['recovered', '恢复'],
    ev_recovered_without_alarm: ['recovered without alarm', '无告警的恢复'],
    ev_slot_absent: ['slot absent', '插槽无卡'],
    ev_ended_while_off: ['ended while off', '断电期间结束'],
    log: ['Log', '日志'],
    logEmpty: ['The log has no event.', '日志中没有事件。'],
    logShown: ['The latest {0} of {1} events', '{1} 个事件中的最近 {0} 个'],
    showMore: ['Show more', '显示更多'],
    startOf: ['Card {0}: started in {1}', '调制卡 {0}：启动用时 {1}'],
    startNot: ['Card {0}: {1}', '调制卡 {0}：{1}'],
    startSummary: ['Phases of the start-up of card {0}, {1} in all; the longest is {2}.',
      '调制卡 {0} 的启动阶段共 {1} 个，最长为 {2}。'],
    startAxis: ['Milliseconds since power-up. Cards start at the same time and share the processor.',
      '上电后的毫秒数。各卡同时启动，共用处理器。'],
    phase: ['Phase', '阶段'],
    fromMs: ['From ms', '开始（ms）'],
    ms: ['ms', 'ms'],
    share: ['Share', '占比'],
    accesses: ['Bus accesses', '总线访问'],
    attempts: ['FPGA attempts', 'FPGA 配置次数'],
    saves: ['Saves', '保存次数'],
    phaseTable: ['Phases as a table', '阶段（表格）'],
    noPhases: ['No phase has begun.', '尚无阶段开始。'],
    ph_registration: ['registration', '注册'],
    'ph_bitstream file': ['bitstream file', '逻辑文件'],
    'ph_FPGA configuration': ['FPGA configuration', 'FPGA 配置'],
    ph_settling: ['settling', '稳定'],
    'ph_modulator reset': ['modulator reset', '调制器复位'],
    'ph_clock generator': ['clock generator', '时钟发生器'],
    'ph_DAC calibration': ['DAC calibration', 'DAC 校准'],
    'ph_temperature sensor 1': ['temperature sensor 1', '温度传感器 1'],
    'ph_temperature sensor 2': ['temperature sensor 2', '温度传感器 2'],
    ph_settings: ['settings', '设置'],
    'ph_PSI queue and lists': ['PSI queue and lists', 'PSI 队列和列表'],
  };

  const VIEWS = ['overview', 'rf', 'streams', 'panel', 'alarms', 'start-up'];
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
    log: { events: null, error: '', asked: null, shown: 100 },
    loaded: {}, // by 'kind/channel': { data, error, reading, at }
    mounted: [], // parts of the open view: { part, host, key, at }
    drawPending: false,
    banner: '',
    bar: '', // what the top bar shows, to leave it alone while nothing changes
  };

  // ---- Small helpers ------------------------------------------------------------------------------------------------

  const byId = (id) => document.getElementById(id);
  const has = (key) => Object.prototype.hasOwnProperty.call(TEXTS, key);
  const t = (key, ...values) =>
    TEXTS[key][state.language].replace(/\{(\d)\}/g, (_, index) => String(values[Number(index)]));
  // The text of a value that the chassis names; an unknown one is shown as it came.
  const named = (prefix, value) => (has(prefix + value) ? t(prefix + value) : String(value));
  const texts = (alarm) => (state.language ? alarm.zh : alarm.en) || {};

  function put(node, attributes, children) {
    for (const [name, value] of Object.entries(attributes || {})) {
      if (value === null || value === undefined || value === false) continue;
      if (name.startsWith('on')) node.addEventListener(name.slice(2), value);
      else node.setAttribute(name, value === true ? '' : String(value));
    }
    for (const child of children.flat(9)) {
      if (child === null || child === undefined || child === false) continue;
      node.append(child instanceof Node ? child : document.createTextNode(String(child)));
    }
    return node;
  }
  const el = (tag, attributes, ...children) => put(document.createElement(tag), attributes, children);
  const svg = (tag, attributes, ...children) =>
    put(document.createElementNS('http://www.w3.org/2000/svg', tag), attributes, children);
  const picture = (width, height, label, ...children) =>
    svg('svg', { width, height, viewBox: `0 0 ${width} ${height}`, role: 'img', 'aria-label': label }, children);
  const text = (x, y, classes, content) => svg('text', { x, y, class: classes }, content);
  const straight = (x1, y1, x2, y2, classes) => svg('line', { x1, y1, x2, y2, class: classes });

  const blank = (key) => el('p', { class: 'sheet none' }, t(key));
  function sheet(title, ...children) {
    return el('section', { class: 'sheet' }, el('h2', {}, title), children);
  }
  function facts(rows) {
    return el('dl', { class: 'facts' }, rows.filter(Boolean).map(([term, value]) =>
      [el('dt', {}, term), el('dd', {}, value)]));
  }
  // columns: [heading, class]; rows: lists of cells, the first one is the row's heading.
  function table(caption, columns, rows, unseenCaption) {
    const cell = (content, index) => (index === 0
      ? el('th', { scope: 'row', class: columns[0][1] }, content)
      : el('td', { class: columns[index][1] }, content));
    return el('div', { class: 'scroll', tabindex: 0, role: 'region', 'aria-label': caption },
      el('table', {},
        el('caption', { class: unseenCaption ? 'unseen' : null }, caption),
        el('thead', {}, el('tr', {}, columns.map(([heading, classes]) =>
          el('th', { scope: 'col', class: classes }, heading)))),
        el('tbody', {}, rows.map((row) => el('tr', {}, row.map(cell))))));
  }

  // ---- Numbers and times --------------------------------------------------------------------------------------------

  const two = (number) => String(number).padStart(2, '0');
  const grouped = (number) => Number(number).toLocaleString('en-US').replace(/,/g, '\u202f');
  const hex = (pid) => '0x' + Number(pid).toString(16).toUpperCase().padStart(4, '0');
  const percent = (part, whole) => (whole > 0 ? (100 * part / whole).toFixed(1) + ' %' : '–');
  function bits(rate) {
    if (rate === null || rate === undefined) return t('unknown');
    if (rate >= 1e6) return (rate / 1e6).toFixed(3) + ' Mbit/s';
    if (rate >= 1e3) return (rate / 1e3).toFixed(1) + ' kbit/s';
    return rate.toFixed(0) + ' bit/s';
  }
  const megahertz = (khz) => (khz === null ? t('none') : (khz / 1000).toFixed(4) + ' MHz');
  const level = (dbuv) => (dbuv === null ? t('none') : dbuv.toFixed(1) + ' dBµV');
  function seconds(value) {
    if (value === null || value === undefined) return t('never');
    const whole = Math.floor(value);
    const days = Math.floor(whole / 86400);
    const clock = `${two(Math.floor(whole / 3600) % 24)}:${two(Math.floor(whole / 60) % 60)}:${two(whole % 60)}`;
    return days ? `${days} d ${clock}` : clock;
  }
  function span(milliseconds) {
    const value = Math.max(0, milliseconds) / 1000;
    if (value < 10) return value.toFixed(1) + ' s';
    if (value < 120) return value.toFixed(0) + ' s';
    if (value < 7200) return (value / 60).toFixed(0) + ' min';
    return (value / 3600).toFixed(0) + ' h';
  }
  const utcClock = (ms) => new Date(ms).toISOString().slice(11, 19);
  const utcTime = (ms) => new Date(ms).toISOString().slice(0, 19).replace('T', ' ');
  function localTime(ms) {
    const at = new Date(ms);
    return `${at.getFullYear()}-${two(at.getMonth() + 1)}-${two(at.getDate())} ` +
      `${two(at.getHours())}:${two(at.getMinutes())}:${two(at.getSeconds())}`;
  }
  function zone() {
    const minutes = -new Date().getTimezoneOffset();
    const size = Math.abs(minutes);
    return `UTC${minutes < 0 ? '−' : '+'}${two(Math.floor(size / 60))}:${two(size % 60)}`;
  }

  // ---- Symbols of states: a shape and a colour for each ------------------------------------------------------------

  const SHAPES = {
    ok: ['M7 1a6 6 0 1 1 0 12a6 6 0 1 1 0-12z', 'M4.2 7.2l2 2l3.6-4.2'],
    warn: ['M7 1L13.5 13H.5z', 'M7 5v4M7 10.6v.6'],
    bad: ['M1 1h12v12H1z', 'M4.4 4.4l5.2 5.2M9.6 4.4l-5.2 5.2'],
    idle: ['M7 1L13 7L7 13L1 7z', 'M4.6 7h4.8'],
    empty: ['', 'M7 2a5 5 0 1 1 0 10a5 5 0 1 1 0-10z'],
  };
  function mark(kind) {
    const [body, sign] = SHAPES[kind];
    const hollow = !body;
    return svg('svg', { class: `mark ${hollow ? 'idle' : kind}`, viewBox: '0 0 14 14', 'aria-hidden': 'true' },
      body && svg('path', { d: body, fill: 'currentColor' }),
      svg('path', { d: sign, fill: 'none', stroke: hollow ? 'currentColor' : 'var(--sheet)', 'stroke-width': 1.7,
        'stroke-dasharray': hollow ? '2 2' : null, 'stroke-linecap': 'round' }));
  }
  const stated = (kind, words) => el('span', { class: 'state' }, mark(kind), words);
  const cardKind = (card) => (card.state === 'running' ? (card.record_kept ? 'ok' : 'warn')
    : card.state === 'starting' ? 'idle' : 'bad');
  const verdictKind = (rf) => ({ 'on air': 'ok', off: 'idle' }[rf.verdict] || 'bad');
  const verdictWords = (rf) => (rf.verdict === 'on air' ? t('verdict_on') : named('verdict_', rf.verdict));
  const severityKind = (severity) => ({ critical: 'bad', major: 'warn', minor: 'warn' }[severity] || 'idle');
  const verdictOf = (rf) => stated(verdictKind(rf), verdictWords(rf));
  const severityOf = (alarm) => stated(severityKind(alarm.severity), named('sev_', alarm.severity));
  const placeOf = (alarm) => (alarm.channel === null ? `${alarm.slot}` : `${alarm.slot}.${alarm.channel}`);

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
    state.link = 'connecting';
    state.clockOffset = null;
    const source = new EventSource(api('events'));
    state.source = source;
    source.onopen = () => {
      state.link = 'open';
      showBanner();
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

  // ---- Parts: drawn again only if their data changed ----------------------------------------------------------------

  function scheduleDraw() {
    if (state.drawPending) return;
    state.drawPending = true;
    requestAnimationFrame(() => {
      state.drawPending = false;
      drawView();
    });
  }
  function drawView() {
    showBar();
    if (!state.route) return;
    const view = VIEW[state.route.view];
    if (view.before) view.before(state.route);
    for (const mounted of state.mounted) drawPart(mounted);
  }
  function drawPart(mounted) {
    const { part, host } = mounted;
    const data = part.pick(state.route);
    const width = byId('view').clientWidth - 2 * (innerWidth <= 900 ? 10 : 16);
    const key = JSON.stringify([data, width]);
    if (key === mounted.key) return;
    if (part.every && performance.now() - mounted.at < part.every) return;
    mounted.key = key;
    mounted.at = performance.now();
    const restore = rememberUse(host);
    host.replaceChildren(...[part.draw(data, width, state.route)].flat(9).filter(Boolean));
    restore();
  }
  // Focus, opened details and scroll positions survive a new drawing.
  function rememberUse(host) {
    const focusable = () => [...host.querySelectorAll('a, button, summary, [tabindex]')];
    const focused = focusable().indexOf(document.activeElement);
    const opened = [...host.querySelectorAll('details')].map((one) => one.open);
    const scrollers = () => [...host.querySelectorAll('.scroll, .list')];
    const scrolled = scrollers().map((one) => [one.scrollLeft, one.scrollTop]);
    return () => {
      host.querySelectorAll('details').forEach((one, index) => {
        if (index < opened.length) one.open = opened[index];
      });
      scrollers().forEach((one, index) => {
        if (index < scrolled.length) [one.scrollLeft, one.scrollTop] = scrolled[index];
      });
      if (focused >= 0 && focusable()[focused]) focusable()[focused].focus({ preventScroll: true });
    };
  }

  // ---- Overview -----------------------------------------------------------------------------------------------------

  function cardNotes(card) {
    const notes = [];
    if (card.hung) {
      const { task, register, since_seconds: since } = card.hung;
      notes.push(['bad', t('hungAt', task, register, seconds(since))]);
    }
    if (!card.record_kept && card.state === 'running') notes.push(['warn', t('recordLost')]);
    const lcd = card.lcd.map((row) => row.trim()).filter(Boolean).join(' ');
    if (lcd) notes.push(['idle', lcd]);
    return notes;
  }
  function channelNotes(channel) {
    return [
      channel.map.input_lost && ['bad', t('inputLost')],
      channel.map.overflow && ['warn', t('overflow')],
      channel.locked_seconds !== undefined && ['idle', t('locked')],
      channel.map.locked_seconds !== undefined && ['idle', t('mapLocked')],
    ].filter(Boolean);
  }
  const noteLines = (notes) => notes.map(([kind, words]) => el('div', { class: 'note' }, stated(kind, words)));

  function usageBar(channel, width, height) {
    const whole = channel.bit_rate;
    const share = (rate) => (whole > 0 ? Math.min(width, width * rate / whole) : 0);
    const psi = share(channel.rates.psi);
    const routed = Math.min(width - psi, share(channel.rates.routed));
    const label = t('usedOf', bits(usedRate(channel)), bits(whole), percent(usedRate(channel), whole));
    return svg('svg', { width: '100%', height, viewBox: `0 0 ${width} ${height}`, preserveAspectRatio: 'none',
      role: 'img', 'aria-label': label },
    svg('rect', { x: 0, y: 0, width, height, class: 'null' }),
    svg('rect', { x: 0, y: 0, width: psi, height, class: 'psi' }),
    svg('rect', { x: psi, y: 0, width: routed, height, class: 'routed' }));
  }

  function portLines(card, channel, number) {
    const { rf } = channel;
    const id = `${card.slot}.${number}`;
    return el('div', { class: 'port' },
      el('div', { class: 'line' }, sends(card, channel) ? el('a', { href: address(`streams/${id}`) }, id) : id,
        verdictOf(rf)),
      rf.on_air ? [
        el('div', { class: 'line' }, el('span', {}, megahertz(rf.frequency_khz)),
          el('span', { class: 'soft' }, rf.constellation)),
        el('div', { class: 'line soft' }, el('span', {}, level(rf.level_dbuv)),
          el('span', {}, percent(usedRate(channel), channel.bit_rate))),
        usageBar(channel, 100, 4)] : el('div', { class: 'line soft' }, rf.why),
      noteLines(channelNotes(channel)));
  }
  function cardSlot(card) {
    const kind = cardKind(card);
    return el('li', { class: `slot ${kind}` },
      el('div', { class: 'title' }, el('span', {}, t('slot', card.slot)), el('span', { class: 'soft' }, t('card'))),
      stated(kind, named('state_', card.state)),
      noteLines(cardNotes(card)),
      card.channels.map((channel, index) => portLines(card, channel, index + 1)));
  }
  function sourceSlot(source) {
    const lost = source.inputs.filter((one) => one.bit_rate === 0).length;
    const kind = lost === 0 ? 'ok' : lost < source.inputs.length ? 'warn' : 'bad';
    return el('li', { class: `slot ${kind}` },
      el('div', { class: 'title' }, el('span', {}, t('slot', source.slot)), el('span', { class: 'soft' }, t('source'))),
      source.inputs.map((one) => el('div', { class: 'port' },
        el('div', { class: 'line' }, el('a', { href: address('streams') }, `${source.slot}.${one.input}`),
          one.bit_rate > 0 ? stated('ok', t('inputDelivers')) : stated('bad', t('inputSilent'))),
        el('div', { class: 'line soft' }, el('span', {}, baseName(one.name))),
        el('div', { class: 'line soft' }, bits(one.bit_rate)))));
  }
  function emptySlot(slot) {
    return el('li', { class: 'slot empty' }, el('div', { class: 'title' }, t('slot', slot)),
      stated('empty', t('empty')));
  }
  const baseName = (name) => (name.includes('://') ? name : name.slice(name.lastIndexOf('/') + 1));

  function drawSlots(data) {
    if (!data) return blank('waiting');
    const slots = SLOTS.map((slot) => {
      const card = data.cards.find((one) => one.slot === slot);
      const source = data.sources.find((one) => one.slot === slot);
      return card ? cardSlot(card) : source ? sourceSlot(source) : emptySlot(slot);
    });
    return el('section', { class: 'chassis', 'aria-label': t('chassis') },
      el('div', { class: 'plate' },
        el('h2', {}, data.name),
        el('dl', { class: 'facts' },
          el('dt', {}, t('virtualTime')), el('dd', {}, data.time),
          el('dt', {}, t('pace')), el('dd', {}, data.pace)),
        data.pixels && el('a', { class: 'lcdlink', href: address('panel'), 'aria-label': t('panel') },
          lcdCanvas(data.pixels, ''))),
      el('ul', { class: 'slots' }, slots));
  }
  function pickSlots() {
    const now = status();
    if (!now) return null;
    const { pace, lcd } = state.snapshot;
    return {
      name: (headend() || {}).name || '',
      time: seconds(now.virtual_seconds),
      pace: pace === null || pace === undefined ? t('unknown') : `${pace.toFixed(2)} ×`,
      pixels: lcd && lcd.pixels,
      cards: now.cards.map(({ slot, state: word, record_kept, lcd: rows, hung, channels }) => ({
        slot, state: word, record_kept, lcd: rows, hung,
        channels: channels.map(({ rf, rates, bit_rate, map, locked_seconds }) =>
          ({ rf, rates, bit_rate, map, locked_seconds })),
      })),
      sources: now.sources.map(({ slot, inputs }) => ({
        slot, inputs: inputs.map(({ input, name, bit_rate }) => ({ input, name, bit_rate })),
      })),
    };
  }

  function standingTable(alarms) {
    if (!alarms.length) return el('p', { class: 'none' }, stated('ok', t('noAlarms')));
    return table(t('standing'),
      [[t('severity')], [t('slot', '').trim()], [t('alarm'), 'wide'], [t('happened'), 'num'], [t('local'), 'num']],
      alarms.map((alarm) => [severityOf(alarm), placeOf(alarm), `${texts(alarm).title}: ${texts(alarm).text}`,
        utcTime(alarm.happened * 1000), localTime(alarm.happened * 1000)]), true);
  }
  function drawHeadend(data) {
    if (!data) return null;
    return el('div', { class: 'columns two' },
      sheet(t('standing'), standingTable(data.standing)),
      sheet(t('headend'), facts([
        [t('name'), data.name],
        [t('server'), data.server],
        [t('version'), data.version],
        [t('alarmLog'), t(data.kept ? 'logKept' : 'logNotKept', data.events)],
        [t('heap'), `${grouped(Math.round(data.heap.used / 1024))} KiB`],
        data.heap.failures > 0 && [t('heapFailures'), stated('bad', grouped(data.heap.failures))],
        [t('auxClock'), `${grouped(data.aux_hz)} Hz`],
        [t('sysClock'), `${grouped(data.tick_hz)} Hz`],
      ])));
  }
  function pickHeadend() {
    const now = status();
    const one = headend() || {};
    return now && { name: one.name, server: one.server, version: state.version, standing: now.alarms.standing,
      events: now.alarms.events, kept: now.alarms.kept, heap: now.heap, aux_hz: now.aux_hz, tick_hz: now.tick_hz };
  }

  // Lists that are shown only if they have entries.
  function drawTroubles(data) {
    if (!data) return null;
    const sheets = [
      data.faults.length && sheet(t('faults'), table(t('faults'),
        [[t('fault'), 'wide'], [t('present')], [t('from'), 'num'], [t('until'), 'num'], [t('period'), 'num']],
        data.faults.map((one) => [one.fault,
          one.present ? stated('bad', t('presentNow')) : stated('idle', t('planned')), seconds(one.from_seconds),
          one.until_seconds === null ? t('open') : seconds(one.until_seconds),
          one.period_seconds === null ? '–' : `${one.period_seconds} s`]), true)),
      Object.keys(data.violations).length && sheet(t('violations'), table(t('violations'),
        [[t('kind'), 'wide'], [t('number'), 'num']],
        Object.entries(data.violations).map(([kind, count]) => [stated('warn', kind), grouped(count)]), true)),
      data.failed.length && sheet(t('failedChecks'), table(t('failedChecks'),
        [[t('check'), 'wide'], [t('unit')], [t('line'), 'num'], [t('number'), 'num']],
        data.failed.map((one) => [stated('warn', one.text), one.unit, one.line, grouped(one.count)]), true)),
      data.late.length && sheet(t('lateRequests'), table(t('lateRequests'), [[t('arrived')], [t('load'), 'wide']],
        data.late.map((one) => [seconds(one.arrived_seconds),
          one.load.map(({ task, ms }) => `${task} ${ms.toFixed(0)} ms`).join(', ')]), true)),
      data.waits.length && sheet(t('semaphores'), el('ul', {}, data.waits.map((one) =>
        el('li', {}, stated('warn', t('waitText', one.task, one.semaphore, one.held_by)),
          ` (${t('since')} ${seconds(one.since_seconds)})`)))),
    ].filter(Boolean);
    return sheets.length ? el('div', { class: 'columns' }, sheets) : null;
  }
  function countEqual(failures) {
    const counted = new Map();
    for (const { unit, line, text: words } of failures) {
      const key = `${unit}:${line}`;
      counted.set(key, { unit, line, text: words, count: (counted.get(key) || { count: 0 }).count + 1 });
    }
    return [...counted.values()];
  }
  function pickTroubles() {
    const now = status();
    return now && { faults: now.faults, violations: now.protocol_violations, failed: countEqual(now.assertion_failures),
      late: now.late_requests.slice(-10), waits: now.semaphore_waits.slice(-10) };
  }

  // ---- RF -----------------------------------------------------------------------------------------------------------

  // Power of a raised cosine relative to its middle, in dB; -Infinity outside.
  function raisedCosine(offsetMhz, symbolMhz) {
    const flat = symbolMhz * (1 - ROLL_OFF) / 2;
    const end = symbolMhz * (1 + ROLL_OFF) / 2;
    const distance = Math.abs(offsetMhz);
    if (distance <= flat) return 0;
    if (distance >= end) return -Infinity;
    return 10 * Math.log10(0.5 * (1 + Math.cos(Math.PI * (distance - flat) / (end - flat))));
  }

  function spectrumScale(channels, width, height) {
    const box = { left: 44, top: 12, right: width - 10, bottom: height - 34 };
    const known = channels.map((one) => one.rf.frequency_khz).filter((khz) => khz !== null).map((khz) => khz / 1000);
    const from = known.length ? Math.min(...known) - RASTER_MHZ * (known.length > 1 ? 0.75 : 1.25) : 0;
    const to = known.length ? Math.max(...known) + RASTER_MHZ * (known.length > 1 ? 0.75 : 1.25) : 0;
    const levels = channels.filter((one) => one.rf.on_air).map((one) => one.rf.level_dbuv);
    const low = Math.min(40, ...levels.map((one) => Math.floor((one - 20) / 10) * 10));
    const high = Math.max(120, ...levels.map((one) => Math.ceil((one + 5) / 10) * 10));
    return { box, from, to, low, high, known,
      x: (mhz) => box.left + (mhz - from) / (to - from) * (box.right - box.left),
      y: (dbuv) => box.bottom - (Math.max(low, dbuv) - low) / (high - low) * (box.bottom - box.top) };
  }
  function spectrumGrid({ box, from, to, low, high, known, x, y }) {
    const nodes = [svg('rect', { x: box.left, y: box.top, width: box.right - box.left, height: box.bottom - box.top,
      class: 'glass' })];
    for (let dbuv = low; dbuv <= high; dbuv += 10) {
      nodes.push(straight(box.left, y(dbuv), box.right, y(dbuv), 'grid'));
      if (dbuv % 20 === 0) nodes.push(text(box.left - 6, y(dbuv) + 4, 'label end', dbuv));
    }
    nodes.push(text(box.left + 6, box.top + 14, 'label', 'dBµV'));
    if (!known.length) return nodes;
    for (let mhz = Math.ceil(from / 2) * 2; mhz <= to; mhz += 2) {
      nodes.push(straight(x(mhz), box.top, x(mhz), box.bottom, 'grid'));
      if (mhz % 4 === 0 && x(mhz) < box.right - 40) nodes.push(text(x(mhz), box.bottom + 14, 'label middle', mhz));
    }
    nodes.push(text(box.right, box.bottom + 14, 'label end', 'MHz'));
    const edges = new Set(known.flatMap((mhz) => [mhz - RASTER_MHZ / 2, mhz + RASTER_MHZ / 2]));
    for (const mhz of edges) nodes.push(straight(x(mhz), box.top, x(mhz), box.bottom, 'raster'));
    return nodes;
  }
  function spectrumChannel(scale, { id, rf }, index) {
    const { box, low, x, y } = scale;
    if (rf.frequency_khz === null) return null;
    const middle = rf.frequency_khz / 1000;
    const foot = text(x(middle), box.bottom + 29, 'name middle', `${id}  ${megahertz(rf.frequency_khz)}`);
    if (!rf.on_air) {
      return [foot, text(x(middle), box.bottom - 8, 'name middle', `${id}: ${verdictWords(rf)}`)];
    }
    const rate = rf.symbol_rate_kbd / 1000;
    const half = rate * (1 + ROLL_OFF) / 2;
    const points = [];
    for (let step = -160; step <= 160; step += 1) {
      const offset = half * step / 160;
      const dbuv = Math.max(low, rf.level_dbuv + raisedCosine(offset, rate));
      points.push(`${x(middle + offset).toFixed(1)} ${y(dbuv).toFixed(1)}`);
    }
    const shape = 'M' + points.join('L');
    return [
      svg('path', { d: shape + 'Z', class: index ? 'filltwo' : 'fillone' }),
      svg('path', { d: shape, class: index ? 'trace second' : 'trace' }),
      text(x(middle), y(rf.level_dbuv) - 6, 'name middle strong', level(rf.level_dbuv)),
      text(x(middle), y(rf.level_dbuv) + 18, 'label middle',
        x(rate) - x(0) > 115 ? `${rf.constellation || ''} ${rf.symbol_rate_kbd} kBd` : rf.constellation || ''),
      foot];
  }
  const rfSummary = (channels) => channels.map(({ id, rf }) => (rf.on_air
    ? t('channelSummary', id, verdictWords(rf), megahertz(rf.frequency_khz), level(rf.level_dbuv))
    : t('channelReason', id, verdictWords(rf), rf.why || ''))).join(' ');

  function spectrum(slot, channels, width, height) {
    const scale = spectrumScale(channels, width, height);
    const { box } = scale;
    const silent = !channels.some((one) => one.rf.on_air);
    return picture(width, height, t('spectrumSummary', slot, rfSummary(channels)),
      spectrumGrid(scale),
      straight(box.left, box.bottom, box.right, box.bottom, 'floor'),
      channels.map((one, index) => spectrumChannel(scale, one, index)),
      silent && text((box.left + box.right) / 2, (box.top + box.bottom) / 2, 'name middle strong', t('nothingOnAir')));
  }

  // Points of a constellation, a step of 2 between neighbours. 128-QAM is a 12 by 12 square without its corners.
  function idealPoints(constellation) {
    const size = { '64-QAM': 8, '128-QAM': 12, '256-QAM': 16 }[constellation];
    if (!size) return null;
    const points = [];
    for (let i = 1 - size; i < size; i += 2) {
      for (let q = 1 - size; q < size; q += 2) {
        if (size !== 12 || Math.abs(i) < 8 || Math.abs(q) < 8) points.push([i, q]);
      }
    }
    return { size, points };
  }
  function constellationPicture(id, rf, index, side) {
    const ideal = rf.on_air ? idealPoints(rf.constellation) : null;
    const label = ideal ? t('idealOf', id, rf.constellation) : `${id}: ${verdictWords(rf)}`;
    const middle = side / 2;
    const at = (value) => (middle + value * (middle - 16) / ideal.size).toFixed(1);
    return el('figure', {},
      picture(side, side, label,
        svg('rect', { x: 0.5, y: 0.5, width: side - 1, height: side - 1, class: 'glass' }),
        straight(middle, 4, middle, side - 4, 'grid'), straight(4, middle, side - 4, middle, 'grid'),
        text(side - 8, middle - 4, 'label', 'I'), text(middle + 4, 13, 'label', 'Q'),
        ideal && svg('path', { d: ideal.points.map(([i, q]) => `M${at(i)} ${at(q)}h0`).join(''),
          class: index ? 'points second' : 'points', 'stroke-width': ideal.size > 12 ? 3 : 4 })),
      el('figcaption', {}, ideal ? [`${id}  ${rf.constellation}`, el('br'), t('idealPoints')] : label));
  }

  function rfTable(slot, channels) {
    const row = (key, of) => [t(key), ...channels.map(({ rf }) => of(rf))];
    return table(t('cardOf', slot), [[t('property')], ...channels.map(({ id }) => [id])], [
      row('verdict', verdictOf),
      channels.some(({ rf }) => rf.why) && row('why', (rf) => rf.why || '–'),
      row('carrier', (rf) => megahertz(rf.frequency_khz)),
      row('level', (rf) => level(rf.level_dbuv)),
      row('constellation', (rf) => rf.constellation || t('unknown')),
      row('symbolRate', (rf) => `${rf.symbol_rate_kbd} kBd`),
      row('clock', (rf) => (rf.clock_kbd === null ? t('none') : `${rf.clock_kbd.toFixed(3)} kBd`)),
      row('bitRate', (rf) => bits(rf.bit_rate)),
    ].filter(Boolean), true);
  }
  function drawRf(data, width) {
    if (!data) return blank('waiting');
    if (!data.length) return blank('noCards');
    const inner = width - (innerWidth <= 480 ? 22 : 30);
    const chart = innerWidth > 1180 ? inner - 400 - 312 - 44 : inner;
    return el('div', { class: 'stack' }, data.map(({ slot, state: word, kind, channels }) =>
      el('section', { class: 'sheet' },
        el('div', { class: 'head' }, el('h2', {}, t('cardOf', slot)), stated(kind, named('state_', word)),
          el('span', { class: 'soft push' }, t('spectrum'))),
        el('div', { class: 'rfcard' },
          spectrum(slot, channels, Math.max(260, chart), 250),
          el('div', { class: 'stars' }, channels.map(({ id, rf }, index) =>
            constellationPicture(id, rf, index, 150))),
          rfTable(slot, channels)))));
  }
  const pickRf = () => status() && cards().map((card) => ({ slot: card.slot, state: card.state, kind: cardKind(card),
    channels: card.channels.map(({ rf }, index) => ({ id: `${card.slot}.${index + 1}`, rf })) }));

  // ---- Streams ------------------------------------------------------------------------------------------------------

  const emptySeries = { psi: [], routed: [], null: [] };
  // Paths of the stacked areas. A second without data leaves a gap.
  function stackedPaths(series, x, y, step) {
    const count = series.psi.length;
    const names = ['psi', 'routed', 'null'];
    const paths = { psi: '', routed: '', null: '' };
    let run = [];
    const close = () => {
      if (run.length > 1) {
        names.forEach((name, layer) => {
          const sum = (index, layers) => names.slice(0, layers).reduce((all, one) => all + series[one][index], 0);
          const upper = run.map((index) => `${x(count - 1 - index).toFixed(1)} ${y(sum(index, layer + 1)).toFixed(1)}`);
          const lower = run.map((index) => `${x(count - 1 - index).toFixed(1)} ${y(sum(index, layer)).toFixed(1)}`);
          paths[name] += `M${upper.join('L')}L${lower.reverse().join('L')}Z`;
        });
      }
      run = [];
    };
    for (let index = 0; index < count; index += 1) {
      const known = names.every((name) => typeof series[name][index] === 'number');
      if (!known) close();
      else if ((count - 1 - index) % step === 0 || index === 0) run.push(index);
    }
    close();
    return paths;
  }
  function areas(series, x, y, step) {
    const paths = stackedPaths(series, x, y, step);
    return ['null', 'routed', 'psi'].map((name) => paths[name] && svg('path', { d: paths[name], class: name }));
  }
  function highest(series) {
    return series.psi.reduce((top, psi, index) =>
      Math.max(top, (psi || 0) + (series.routed[index] || 0) + (series.null[index] || 0)), 1);
  }
  function sparkline(series, whole, width, height) {
    const top = Math.max(whole, highest(series));
    return svg('svg', { width: '100%', height, viewBox: `0 0 ${width} ${height}`, preserveAspectRatio: 'none',
      'aria-hidden': 'true' },
    svg('rect', { x: 0, y: 0, width, height, class: 'glass' }),
    areas(series, (ago) => width * (1 - ago / HISTORY_SECONDS), (rate) => height * (1 - rate / top), 4));
  }
  const withoutNull = (series) => ({ ...series, null: series.psi.map((psi) => (typeof psi === 'number' ? 0 : null)) });
  // The smallest of 1, 2, 5, 10, ... that gives at most six lines.
  function gridStep(top) {
    const decade = 10 ** Math.floor(Math.log10(top / 6));
    return decade * [1, 2, 5, 10].find((one) => top / (decade * one) <= 6);
  }
  function rateChart(id, series, whole, rates, width, height) {
    const box = { left: 46, top: 10, right: width - 8, bottom: height - 22 };
    const top = Math.max(whole, highest(series), 1000) * 1.06;
    const scale = top >= 1e6 ? 1e6 : 1e3;
    const x = (ago) => box.right - ago / HISTORY_SECONDS * (box.right - box.left);
    const y = (rate) => box.bottom - rate / top * (box.bottom - box.top);
    const step = gridStep(top);
    const grid = [];
    for (let rate = 0; rate <= top; rate += step) {
      grid.push(straight(box.left, y(rate), box.right, y(rate), 'grid'),
        text(box.left - 6, y(rate) + 4, 'label end', Number((rate / scale).toPrecision(6))));
    }
    for (let minute = 0; minute <= 10; minute += 2) {
      grid.push(straight(x(minute * 60), box.top, x(minute * 60), box.bottom, 'grid'),
        text(x(minute * 60), box.bottom + 15, minute ? 'label middle' : 'label end',
          minute ? t('minutes', `−${minute}`) : t('now')));
    }
    const { psi, routed, null: rest } = rates;
    return picture(width, height, t('ratesSummary', id, bits(psi), bits(routed), bits(rest)),
      svg('rect', { x: box.left, y: box.top, width: box.right - box.left, height: box.bottom - box.top,
        class: 'glass' }),
      areas(series, x, y, 1), grid, text(box.left + 6, box.top + 14, 'name', scale === 1e6 ? 'Mbit/s' : 'kbit/s'));
  }

  function drawTiles(data) {
    if (!data) return blank('waiting');
    if (!data.tiles.length) return blank('noRunning');
    return el('nav', { 'aria-label': t('channels') }, el('ul', { class: 'tiles' }, data.tiles.map((one) =>
      el('li', {}, el('a', { class: 'tile', href: address(`streams/${one.id}`),
        'aria-current': one.id === data.shown ? 'true' : null },
      el('span', { class: 'line' }, el('b', {}, one.id),
        el('span', {}, `${percent(usedRate(one.channel), one.channel.bit_rate)} ${t('used')}`)),
      sparkline(one.series, one.channel.bit_rate, 150, 34),
      noteLines(channelNotes(one.channel)))))));
  }
  function pickTiles(route) {
    if (!status()) return null;
    const tiles = running().map(({ id, channel: { bit_rate, rates, map, locked_seconds } }) =>
      ({ id, series: state.history[id] || emptySeries, channel: { bit_rate, rates, map, locked_seconds } }));
    return { shown: (shownChannel(route) || {}).id, second: state.historySecond, tiles };
  }

  function swatch(name, rate) {
    return el('span', {}, svg('svg', { class: 'swatch', width: 10, height: 10, 'aria-hidden': 'true' },
      svg('rect', { width: 10, height: 10, class: name })), `${t(name)} ${bits(rate)}`);
  }
  function drawRates(data, width) {
    if (!data) return null;
    const { id, channel, series } = data;
    const { rates, packets } = channel;
    const inner = width - (innerWidth <= 480 ? 22 : 30);
    return el('section', { class: 'sheet' },
      el('div', { class: 'head' }, el('h2', {}, t('ratesOf', id)),
        el('button', { type: 'button', class: 'push', onclick: () => {
          state.usedOnly = !state.usedOnly;
          scheduleDraw();
        } }, t(data.usedOnly ? 'withNull' : 'withoutNull'))),
      rateChart(id, data.usedOnly ? withoutNull(series) : series, data.usedOnly ? 0 : channel.bit_rate, channel.rates,
        inner, 190),
      el('div', { class: 'legend' }, ['psi', 'routed', 'null'].map((name) => swatch(name, rates[name])),
        el('span', {}, `${t('total')} ${bits(rates.total)}`),
        el('span', {}, `${t('inputRate')} ${bits(rates.input)}`),
        el('span', {}, packets.dropped
          ? stated('warn', `${t('dropped')} ${grouped(packets.dropped)}`) : `${t('dropped')} 0`),
        el('span', {}, `${t('filtered')} ${grouped(packets.filtered)}`)),
      el('div', { class: 'usage' }, usageBar(channel, 400, 12),
        el('div', { class: 'legend' },
          el('span', {}, `${t('used')} ${bits(usedRate(channel))} (${percent(usedRate(channel), channel.bit_rate)})`),
          el('span', {}, `${t('free')} ${bits(Math.max(0, channel.bit_rate - usedRate(channel)))}`),
          el('span', { class: 'soft' }, `${t('bitRate')} ${bits(channel.bit_rate)}`))));
  }
  function pickRates(route) {
    const one = shownChannel(route);
    if (!one) return null;
    const { rates, packets, bit_rate } = one.channel;
    return { id: one.id, usedOnly: state.usedOnly, second: state.historySecond,
      series: state.history[one.id] || emptySeries,
      channel: { rates, bit_rate, packets: { dropped: packets.dropped, filtered: packets.filtered } } };
  }

  // A group of PMT takes as many ticks as it has packets, if that is longer than the interval.
  function lateness(name, one) {
    if (!one.interval_ticks || one.set_ticks === 0) return 0;
    const due = name === 'PMT' ? Math.max(one.set_ticks, one.stored) : one.set_ticks;
    return Math.max(0, one.interval_ticks.max - due);
  }
  function repetitionBar(one, late) {
    const [width, height] = [130, 14];
    const { min, max } = one.interval_ticks;
    const end = 1.25 * Math.max(max, one.set_ticks, 1);
    const x = (ticks) => width * ticks / end;
    return picture(width, height, t('rangeLabel', min, max, one.set_ticks),
      straight(0, 7, width, 7, 'grid'),
      svg('rect', { x: Math.max(0, x(min) - 2), y: 3, width: Math.max(4, x(max) - x(min) + 4), height: 8,
        class: late ? 'range over' : 'range' }),
      straight(x(one.set_ticks), 0, x(one.set_ticks), height, 'setmark'));
  }
  function tableRow(name, one, hertz) {
    const both = (ticks) => {
      const ms = ticks * 1000 / hertz;
      return [`${Number.isInteger(ticks) ? ticks : ticks.toFixed(1)} `,
        el('span', { class: 'soft' }, `${ms.toFixed(ms < 100 && ms % 1 ? 1 : 0)} ms`)];
    };
    const measured = one.interval_ticks;
    const late = lateness(name, one);
    const judged = one.set_ticks === 0 ? stated('idle', t('stopped'))
      : !one.stored ? el('span', { class: 'soft' }, t('notStored'))
        : !measured ? stated('idle', t('notYet'))
          : late ? stated('warn', [t('late', `${late} `), `(${(late * 1000 / hertz).toFixed(0)} ms)`])
            : stated('ok', t('onTime'));
    return [name.replace('_', ' '), grouped(one.stored), grouped(one.posted), both(one.set_ticks),
      ...['min', 'mean', 'max'].map((which) => (measured ? both(measured[which]) : '–')),
      measured ? repetitionBar(one, late) : '', judged];
  }
  function drawTables(data) {
    if (!data) return null;
    return sheet(`${t('tables')} ${data.id}`, table(t('tablesCaption', data.aux_hz),
      [[t('table')], [t('stored'), 'num'], [t('posted'), 'num'], [t('set'), 'num'], [t('min'), 'num'],
        [t('mean'), 'num'], [t('max'), 'num'], [t('repetition')], [t('verdict')]],
      TABLES.filter((name) => data.tables[name]).map((name) => tableRow(name, data.tables[name], data.aux_hz))),
    data.psi && data.psi.data && sectionsTable(data.psi.data));
  }
  function sectionContent(content) {
    if (!content) return '–';
    if (content.programmes) return content.programmes.map((one) => `${one.number} → ${hex(one.pid)}`).join(', ');
    if (content.streams) {
      return content.streams.map((one) =>
        [hex(one.pid), one.kind || `type ${one.type}`, one.language].filter(Boolean).join(' ')).join(', ');
    }
    if (content.services) {
      return content.services.map((one) => `${one.service_id} “${one.name}”` +
        (one.provider ? ` (${one.provider})` : '')).join(', ');
    }
    if (content.transport_streams) {
      return `${content.name ? `“${content.name}” ` : ''}` +
        content.transport_streams.map((one) => `TS ${one.transport_stream_id}`).join(', ');
    }
    if (content.ca_systems) {
      return content.ca_systems.map((one) => `${hex(one.system_id)} → ${hex(one.pid)}`).join(', ') || t('none');
    }
    return '–';
  }
  function sectionsTable(psi) {
    const rows = psi.tables.flatMap((one) => one.sections.map((section) => [
      one.table.replace('_', ' '), hex(section.pid), section.extension, section.version,
      `${section.section}/${section.last_section}`, section.packets,
      sectionContent(section.content)]));
    return el('details', {}, el('summary', {}, `${t('sections')} (${rows.length})`),
      table(t('sections'), [[t('table')], [t('pid'), 'mono'], [t('extension'), 'num'], [t('version'), 'num'],
        [t('section'), 'num'], [t('packets'), 'num'], [t('content'), 'wide']], rows, true));
  }
  function pickTables(route) {
    const one = shownChannel(route);
    return one && { id: one.id, aux_hz: status().aux_hz, tables: one.channel.tables, psi: kept('psi', one.id) };
  }

  // What was loaded, or why not.
  function loadNote(entry) {
    if (!entry || (entry.reading && !entry.data)) return el('p', { class: 'none' }, t('reading'));
    if (entry.error) return el('p', {}, stated('bad', t('readFailed', entry.error)));
    return null;
  }
  function drawReadAgain(data) {
    if (!data) return null;
    const at = data.at ? t('readAt', utcClock(data.at)) : '';
    return el('div', { class: 'head' },
      el('h2', {}, `${t('programmes')}, ${t('pidmap')}: ${data.id}`),
      el('span', { class: 'soft push' }, data.reading ? t('reading') : at),
      el('button', { type: 'button', onclick: () => loadChannel(data.id) }, t('readAgain')));
  }
  function pickReadAgain(route) {
    const one = shownChannel(route);
    if (!one) return null;
    const entries = ['programmes', 'pidmap', 'psi'].map((kind) => kept(kind, one.id)).filter(Boolean);
    return { id: one.id, reading: entries.some((entry) => entry.reading),
      at: entries.length ? Math.min(...entries.map((entry) => entry.at)) : 0 };
  }

  function programmeTable(programme, open) {
    const title = `${programme.number}  ${programme.name || t('unnamed')}`;
    return el('details', { open }, el('summary', {}, el('b', {}, title),
      el('span', { class: 'soft' }, `  ${t('pmtPid')} ${hex(programme.pmt_pid)}` +
        (programme.pcr_pid === null ? '' : `, ${t('pcrPid')} ${hex(programme.pcr_pid)}`), ' '),
      !programme.has_pmt && stated('warn', t('noPmt'))),
    programme.pids.length > 0 && table(title,
      [[t('pid'), 'mono'], [t('use')], [t('what'), 'wide'], [t('language')], [t('sourcePid')]],
      programme.pids.map((one) => [hex(one.pid), has(one.use) ? t(one.use) : one.use,
        one.kind || (one.stream_type !== undefined ? `type ${one.stream_type}`
          : one.ca_system !== undefined ? hex(one.ca_system) : ''), one.language || '',
        one.source ? `${one.source.slot}.${one.source.input} ${hex(one.source.pid)}`
          : el('span', { class: 'soft' }, t('notMapped'))]), true));
  }
  function drawProgrammes(entry) {
    const list = entry && entry.data && entry.data.programmes;
    return sheet(list ? `${t('programmes')} (${list.length})` : t('programmes'), loadNote(entry),
      list && (list.length ? el('div', { class: 'list' }, list.map((one) => programmeTable(one, list.length <= 4)))
        : el('p', { class: 'none' }, t('noProgrammes'))));
  }

  const PICTURE_ENTRIES = 64;
  function mapPicture(channel, entries, names, width) {
    const shown = entries.slice(0, PICTURE_ENTRIES);
    const inputOf = (one) => `${one.src_slot}.${one.src_port}`;
    const left = [...new Set(shown.map((one) => `${inputOf(one)} ${String(one.src_pid).padStart(5, '0')}`))].sort();
    const right = [...new Set(shown.map((one) => one.dst_pid))].sort((a, b) => a - b);
    const programmes = [...new Set(shown.map((one) => one.dst_programme))];
    const [gap, top, side] = [19, 26, 112];
    const height = top + gap * Math.max(left.length, right.length) + 4;
    const nameWidth = names.size ? 90 : 0;
    const end = width - side - nameWidth;
    const y = (row) => top + gap * row + gap / 2;
    const wires = shown.map((one) => {
      const from = y(left.indexOf(`${inputOf(one)} ${String(one.src_pid).padStart(5, '0')}`));
      const to = y(right.indexOf(one.dst_pid));
      const middle = (side + end) / 2;
      return svg('path', { d: `M${side} ${from}C${middle} ${from} ${middle} ${to} ${end} ${to}`,
        class: `wire c${programmes.indexOf(one.dst_programme) % 6}` });
    });
    const nodes = [
      ...left.map((key, row) => {
        const [input, pid] = key.split(' ');
        const first = row === 0 || left[row - 1].split(' ')[0] !== input;
        return [first && text(4, y(row) + 4, 'name strong', input), text(side - 8, y(row) + 4, 'name end', hex(pid)),
          svg('circle', { cx: side, cy: y(row), r: 3, class: 'dot' })];
      }),
      ...right.map((pid, row) => {
        const programme = shown.find((one) => one.dst_pid === pid).dst_programme;
        const name = names.get(programme);
        return [svg('circle', { cx: end, cy: y(row), r: 3, class: 'dot' }), text(end + 8, y(row) + 4, 'name', hex(pid)),
          name && text(end + 58, y(row) + 4, 'label', name.length > 18 ? name.slice(0, 17) + '…' : name)];
      })];
    return picture(width, height, t('mapSummary', entries.length, channel),
      text(4, 12, 'label', t('input')), text(end + 8, 12, 'label', t('channelOf', channel)), wires, nodes);
  }
  function mapTable(entries, names) {
    return el('details', {}, el('summary', {}, t('mapTable')), table(t('mapTable'),
      [[t('position'), 'num'], [t('input')], [`${t('input')} PID`, 'mono'], [`${t('output')} PID`, 'mono'],
        [t('programme'), 'wide'], [t('type'), 'num']],
      entries.map((one, index) => [index + 1, `${one.src_slot}.${one.src_port}`, hex(one.src_pid), hex(one.dst_pid),
        `${one.src_programme} → ${one.dst_programme} ${names.get(one.dst_programme) || ''}`, one.type]), true));
  }
  function drawMap({ id, entry, programmes, shadowed }, width) {
    const entries = entry && entry.data ? entry.data.record : null;
    const names = new Map(((programmes && programmes.data && programmes.data.programmes) || [])
      .map((one) => [one.number, one.name]));
    return sheet(t('pidmap'), loadNote(entry),
      entry && entry.data && entry.data.router_holds_record === false && el('p', {}, stated('warn', t('mapDiffers'))),
      shadowed > 0 && el('p', {}, stated('warn', t('mapShadowed', shadowed))),
      entries && (entries.length ? [
        el('div', { class: 'scroll', tabindex: 0, role: 'region', 'aria-label': t('pidmap') },
          mapPicture(id, entries, names, Math.max(330, Math.min(640, width)))),
        entries.length > PICTURE_ENTRIES && el('p', { class: 'soft' }, t('mapMore', PICTURE_ENTRIES, entries.length)),
        mapTable(entries, names)] : el('p', { class: 'none' }, t('noMap'))));
  }
  function drawContents(data, width) {
    if (!data) return null;
    const column = innerWidth > 800 ? (width - 12) / 2 : width;
    return el('div', { class: 'columns' }, drawProgrammes(data.programmes),
      drawMap({ id: data.id, entry: data.pidmap, programmes: data.programmes, shadowed: data.shadowed },
        Math.floor(column) - (innerWidth <= 480 ? 22 : 30)));
  }
  function pickContents(route) {
    const one = shownChannel(route);
    return one && { id: one.id, programmes: kept('programmes', one.id), pidmap: kept('pidmap', one.id),
      shadowed: one.channel.map.shadowed };
  }

  function drawInputs(data) {
    if (!data) return null;
    if (!data.inputs.length) return sheet(t('inputs'), el('p', { class: 'none' }, t('noSources')));
    const disturbed = (list) => Object.entries(list || {}).filter(([, count]) => count)
      .map(([name, count]) => `${name.replace(/_/g, ' ')} ${count}`).join(', ') || '–';
    return sheet(t('inputs'), table(t('inputs'),
      [[t('input')], [t('rate'), 'num'], [t('packets'), 'num'], [t('damaged'), 'num'], [t('lastPacket'), 'num'],
        [t('disturbances'), 'wide'], [t('file'), 'wide']],
      data.inputs.map((one) => [stated(one.bit_rate > 0 ? 'ok' : 'bad', one.id), bits(one.bit_rate),
        grouped(one.packets), one.damaged ? stated('warn', grouped(one.damaged)) : '0',
        one.last === null ? t('never') : t('ago', span(one.last * 1000)), disturbed(one.disturbances),
        one.name]), true));
  }
  function pickInputs() {
    const now = status();
    return now && { inputs: now.sources.flatMap((source) => source.inputs.map((one) => ({
      id: `${source.slot}.${one.input}`, name: one.name, bit_rate: one.bit_rate, packets: one.packets,
      damaged: one.damaged, disturbances: one.disturbances,
      last: one.last_seconds === null ? null : Math.round(10 * (now.virtual_seconds - one.last_seconds)) / 10,
    }))) };
  }

  // Programmes, map and tables of a channel are read when it is first shown.
  function beforeStreams(route) {
    const one = shownChannel(route);
    if (one && !kept('programmes', one.id)) loadChannel(one.id);
  }

  // ---- Front panel --------------------------------------------------------------------------------------------------

  function lcdCanvas(pixels, label) {
    const canvas = el('canvas', { width: 128, height: 64, class: label ? 'lcd' : null, role: label ? 'img' : null,
      'aria-label': label || null, 'aria-hidden': label ? null : 'true' });
    const context = canvas.getContext('2d');
    const image = context.createImageData(128, 64);
    const [ground, ink] = [[184, 207, 62], [24, 38, 20]];
    pixels.forEach((row, y) => {
      for (let x = 0; x < 128; x += 1) {
        const set = (parseInt(row[x >> 2], 16) >> (3 - (x & 3))) & 1;
        image.data.set([...(set ? ink : ground), 255], (y * 128 + x) * 4);
      }
    });
    context.putImageData(image, 0, 0);
    return canvas;
  }
  // Rows as text: '>' before a row that begins inverse, other inverse characters in brackets.
  function lcdRows({ rows, inverse }) {
    return rows.map((row, index) => {
      const marked = new Set(inverse.filter((one) => one.row === index).map((one) => one.x));
      if (marked.has(0)) return `>${row}`;
      let x = 0;
      const shown = [...row].map((letter) => {
        const set = marked.has(x);
        x += letter.codePointAt(0) < 0x80 ? 8 : 16;
        return set ? `[${letter}]` : letter;
      });
      return ` ${shown.join('')}`;
    }).join('\n');
  }
  function drawLcd(lcd) {
    return lcd ? lcdCanvas(lcd.pixels, t('lcd')) : el('p', { class: 'none' }, t('lcdNone'));
  }
  function keyPad() {
    const key = (name) => el('button', { type: 'button', disabled: true, 'data-key': name }, t(`key_${name}`));
    return el('div', { class: 'keys', role: 'group', 'aria-label': t('keys') },
      key('cancel'), key('up'), key('ok'), key('left'), key('down'), key('right'));
  }
  const panelView = {
    parts: [{ pick: () => status() && state.snapshot.lcd && { pixels: state.snapshot.lcd.pixels }, draw: drawLcd },
      { pick: () => state.snapshot && state.snapshot.lcd && lcdRows(state.snapshot.lcd),
        draw: (rows) => rows && document.createTextNode(rows) }],
    // The row texts are a live region that stays in place, so that changes are read out.
    frame: ([lcd, rows]) => {
      rows.setAttribute('aria-live', 'polite');
      rows.setAttribute('class', 'rows mono');
      return el('div', { class: 'front' }, lcd, el('section', { class: 'sheet' },
        el('h2', {}, t('keys')), keyPad(), el('p', { class: 'soft' }, t('keysOff')),
        el('h3', {}, t('lcdText')), rows));
    },
  };

  // ---- Alarms -------------------------------------------------------------------------------------------------------

  const drawStanding = (alarms) => alarms && sheet(t('standing'), standingTable(alarms));
  function eventKind({ event, severity }) {
    return event === 'raised' ? severityKind(severity) : event === 'recovered' ? 'ok' : 'idle';
  }
  function eventText(one) {
    const { title, text: words, trap } = texts(one);
    return `${title}: ${words}${trap && trap !== words ? ` (${trap})` : ''}`;
  }
  function drawLog(data) {
    if (!data) return blank('waiting');
    const failed = data.error && el('p', {}, stated('bad', t('readFailed', data.error)));
    if (!data.events) return sheet(t('log'), failed || el('p', { class: 'none' }, t('reading')));
    if (!data.count) return sheet(t('log'), failed, el('p', { class: 'none' }, t('logEmpty')));
    return sheet(t('log'), failed, table(t('logShown', data.events.length, data.count),
      [[t('serial'), 'num'], [t('event')], [t('slot', '').trim()], [t('severity')], [t('alarm'), 'wide'],
        [t('time'), 'num'], [t('local'), 'num']],
      data.events.map((one) => [one.number, stated(eventKind(one), named('ev_', one.event)), placeOf(one),
        named('sev_', one.severity), eventText(one), utcTime(Date.parse(one.at)), localTime(Date.parse(one.at))])),
    data.events.length < data.count && el('p', {}, el('button', { type: 'button', onclick: () => {
      state.log.shown += 500;
      scheduleDraw();
    } }, t('showMore'))));
  }
  function pickLog() {
    if (!status()) return null;
    const all = state.log.events;
    return { error: state.log.error, count: all ? all.length : 0,
      events: all && [...all].sort((a, b) => b.number - a.number).slice(0, state.log.shown) };
  }

  // ---- Start-up -----------------------------------------------------------------------------------------------------

  function ganttPicture(card, end, width) {
    const names = innerWidth <= 480 ? 132 : 160;
    const right = width - 74;
    const [gap, top] = [innerWidth > 1000 ? 25 : 18, 20];
    const height = top + gap * card.startup.length + 6;
    const x = (ms) => names + ms / end * (right - names);
    const steps = [1, 2, 5, 10, 20, 50, 100, 200, 500, 1000, 2000, 5000, 10000];
    const step = steps.find((one) => end / one <= (width > 600 ? 10 : 4)) || 60000;
    const grid = [];
    for (let ms = 0; ms <= end; ms += step) {
      grid.push(straight(x(ms), top - 4, x(ms), height - 4, 'grid'), text(x(ms), 11, 'label middle', ms));
    }
    const longest = card.startup.reduce((best, one) => (one.ms > best.ms ? one : best), card.startup[0]);
    const failed = card.startup_ms === null && card.state !== 'starting';
    const bars = card.startup.map((one, row) => {
      const wide = Math.max(2, x(one.from_ms + one.ms) - x(one.from_ms));
      const last = failed && row === card.startup.length - 1;
      const y = top + gap * row;
      return [text(names - 8, y + gap / 2 + 3, 'name end', named('ph_', one.phase)),
        svg('rect', { x: x(one.from_ms), y: y + gap / 2 - 6, width: wide, height: 12, rx: 1.5,
          class: last ? 'phase last' : 'phase' }),
        text(x(one.from_ms) + wide + 6, y + gap / 2 + 3, 'label', `${one.ms.toFixed(one.ms < 10 ? 2 : 1)} ms`)];
    });
    return picture(width, height, t('startSummary', card.slot, card.startup.length, named('ph_', longest.phase)),
      grid, bars);
  }
  function startTable(card) {
    const total = card.startup.reduce((sum, one) => sum + one.ms, 0);
    return el('details', { open: innerWidth > 480 }, el('summary', {}, t('phaseTable')), table(t('cardOf', card.slot),
      [[t('phase'), 'wide'], [t('fromMs'), 'num'], [t('ms'), 'num'], [t('share'), 'num'], [t('accesses'), 'num']],
      card.startup.map((one) => [named('ph_', one.phase), one.from_ms.toFixed(3), one.ms.toFixed(3),
        percent(one.ms, total), grouped(one.bus_accesses)]), true));
  }
  function drawStart(data, width) {
    if (!data) return blank('waiting');
    if (!data.length) return blank('noCards');
    const end = Math.max(1, ...data.flatMap((card) => card.startup.map((one) => one.from_ms + one.ms)));
    const inner = width - (innerWidth <= 480 ? 22 : 30);
    const chart = innerWidth > 1000 ? inner - 490 : inner;
    return el('div', { class: 'stack' }, data.map((card) =>
      el('section', { class: 'sheet' },
        el('div', { class: 'head' },
          el('h2', {}, card.startup_ms === null ? t('startNot', card.slot, named('state_', card.state))
            : t('startOf', card.slot, `${card.startup_ms.toFixed(1)} ms`)),
          stated(card.kind, named('state_', card.state)),
          el('span', { class: 'soft push' },
            `${t('attempts')} ${card.fpga_attempts}, ${t('saves')} ${card.saves}`)),
        noteLines(card.notes),
        card.startup.length ? el('div', { class: 'phases' }, ganttPicture(card, end, chart), startTable(card))
          : el('p', { class: 'none' }, t('noPhases')))),
    el('p', { class: 'soft' }, t('startAxis')));
  }
  const pickStart = () => status() && cards().map((card) => ({ slot: card.slot, state: card.state, kind: cardKind(card),
    notes: cardNotes(card), startup: card.startup, startup_ms: card.startup_ms, fpga_attempts: card.fpga_attempts,
    saves: card.saves }));

  // ---- The views ----------------------------------------------------------------------------------------------------

  const VIEW = {
    overview: { parts: [{ pick: pickSlots, draw: drawSlots }, { pick: pickHeadend, draw: drawHeadend },
      { pick: pickTroubles, draw: drawTroubles }] },
    rf: { parts: [{ pick: pickRf, draw: drawRf }] },
    streams: { before: beforeStreams,
      opened: (route) => { if (shownChannel(route)) loadChannel(shownChannel(route).id); },
      parts: [{ pick: pickTiles, draw: drawTiles }, { pick: pickRates, draw: drawRates },
        { pick: pickTables, draw: drawTables, every: 900 }, { pick: pickReadAgain, draw: drawReadAgain },
        { pick: pickContents, draw: drawContents }, { pick: pickInputs, draw: drawInputs, every: 900 }] },
    panel: panelView,
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
    const key = JSON.stringify([state.route, standing, state.headends, state.language, state.theme]);
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
    byId('language').textContent = t('toolLanguage');
    byId('language').setAttribute('lang', state.language ? 'en' : 'zh');
    byId('language').setAttribute('aria-label', t('toolLanguageLabel'));
  }

  function bannerText() {
    if (state.headends.length && !headend()) return t('bannerUnknown', state.route.headend);
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

  start();
})();
