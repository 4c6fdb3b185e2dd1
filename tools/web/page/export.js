// ---- Files that the browser saves -----------------------------------------------------------------------------------

Object.assign(TEXTS, {
  exportCsv: ['As CSV', '导出 CSV'],
  exportJson: ['As JSON', '导出 JSON'],
  exportOf: ['{0}: {1}', '{0}：{1}'],
});

function saveFile(name, type, content) {
  const link = el('a', { href: URL.createObjectURL(new Blob([content], { type })), download: name });
  document.body.append(link);
  link.click();
  link.remove();
  setTimeout(() => URL.revokeObjectURL(link.href), 60000);
}
// rows: lists of cells. A spreadsheet takes a cell that begins with = + - @ for a formula: the quote makes it a text.
function csv(rows) {
  const cell = (value) => {
    const words = value === null || value === undefined ? '' : String(value);
    const safe = /^[=+\-@\t\r]/.test(words) ? `'${words}` : words;
    return /[",\r\n]/.test(safe) ? `"${safe.replace(/"/g, '""')}"` : safe;
  };
  return '\ufeff' + rows.map((row) => row.map(cell).join(',') + '\r\n').join('');
}
// A name with the headend and the time, for the file in a folder of many.
function fileName(what, ending) {
  const stamp = new Date().toISOString().slice(0, 19).replace(/[-:]/g, '');
  const name = ((headend() || {}).name || 'headend').replace(/[^A-Za-z0-9.]+/g, '-');
  return `${name}-${what}-${stamp}Z.${ending}`;
}
// Buttons that export a list of objects; columns: names of their fields; rows(): a promise of the list.
function exportButtons(what, title, columns, rows) {
  const save = (label, ending, type, make) => el('button', { type: 'button', 'aria-label': t('exportOf', title, t(label)),
    onclick: async () => {
      try {
        saveFile(fileName(what, ending), type, make(await rows()));
      } catch (failure) {
        say('bad', failure.message);
      }
    } }, t(label));
  return el('span', { class: 'buttons' },
    save('exportCsv', 'csv', 'text/csv', (list) => csv([columns, ...list.map((one) => columns.map((name) => one[name]))])),
    save('exportJson', 'json', 'application/json', (list) => JSON.stringify(list, null, 2) + '\n'));
}
