// ---- Parts: drawn again only if their data changed ----------------------------------------------------------------
// At most once in an animation frame the parts of the open view are compared with what they showed, and those that
// changed are drawn again. A part is { pick, draw, every }: pick(route) returns the data that it shows, draw(data, width,
// route) returns DOM nodes. A part of counters that never stand still is drawn no more often than each `every` ms.
// A part that is `once` is for all channels: on paper it is printed once.
// Whatever the chassis reports is inserted as text, never as markup.

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
  if (width <= 0) return; // the window has no size yet
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
  const focusable = () => [...host.querySelectorAll('a, button, summary, input, select, [tabindex]')];
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
