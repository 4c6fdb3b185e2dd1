// ---- Sending a file -------------------------------------------------------------------------------------------------

Object.assign(TEXTS, {
  uploadOf: ['Sending {0}', '正在发送 {0}'],
  uploadSent: ['{0} of {1} bytes, {2}', '{1} 字节中的 {0} 字节，{2}'],
  uploadReading: ['Sent. The headend reads the file…', '已发送，前端正在读取文件…'],
  uploadCancel: ['Cancel the upload', '取消上传'],
  uploadCancelled: ['The upload was cancelled. Nothing was changed.', '上传已取消，未作任何更改。'],
  uploadNoFile: ['Choose a file.', '请选择文件。'],
  uploadEmpty: ['The file is empty.', '文件为空。'],
  uploadLarge: ['The file has {0} bytes; at most {1} are taken.', '文件有 {0} 字节，最多接受 {1} 字节。'],
  planNot: ['The file is too large to be sent twice, so its plan is not shown.', '文件太大，不宜发送两次，因此不显示计划。'],
});
const LARGEST_FILE = 4 * 1024 ** 3;
const LARGEST_PLANNED = 64 * 1024 ** 2; // sent once more for the plan of the question

// Shows how much of a file has been sent. It stays in place while the page draws around it.
function uploadMeter() {
  const bar = el('progress', { max: 1, value: 0, 'aria-label': t('uploadOf', '').trim() });
  const sent = el('span', { class: 'num' });
  const stage = el('span', { role: 'status' });
  const cancel = el('button', { type: 'button' }, t('uploadCancel'));
  const node = el('div', { class: 'meter', hidden: true }, stage, bar, sent, cancel);
  return { node,
    begin: (file, abort) => {
      node.hidden = false;
      cancel.hidden = false;
      cancel.onclick = abort;
      stage.textContent = t('uploadOf', file.name);
    },
    show: (bytes, all) => {
      bar.value = bytes / all;
      sent.textContent = t('uploadSent', grouped(bytes), grouped(all), percent(bytes, all));
    },
    reading: () => {
      bar.removeAttribute('value');
      cancel.hidden = true; // from now on the change may be made
      stage.textContent = t('uploadReading');
    },
    end: () => { node.hidden = true; } };
}
function checkFile(file) {
  if (!file) throw new Error(t('uploadNoFile'));
  if (file.size === 0) throw new Error(t('uploadEmpty'));
  if (file.size > LARGEST_FILE) throw new Error(t('uploadLarge', grouped(file.size), grouped(LARGEST_FILE)));
}
// Carries out a command in which the word '@' is the file. Resolves to the server's answer.
function upload(id, words, file, meter) {
  return new Promise((resolve, reject) => {
    const request = new XMLHttpRequest();
    const finish = () => {
      try {
        resolve(settle(request.status, request.responseText));
      } catch (failure) {
        reject(failure);
      }
    };
    request.open('POST', apiOf(id, `upload?${words.map((word) => `word=${encodeURIComponent(word)}`).join('&')}`));
    request.setRequestHeader('Content-Type', 'application/octet-stream');
    request.upload.onprogress = (event) => meter.show(event.loaded, file.size);
    request.upload.onload = meter.reading;
    request.onload = finish;
    request.onerror = finish;
    request.onabort = () => reject(new Error(t('uploadCancelled')));
    const stay = (event) => event.preventDefault(); // a reload would end it: the browser asks first
    addEventListener('beforeunload', stay);
    request.onloadend = () => {
      removeEventListener('beforeunload', stay);
      meter.end();
    };
    meter.begin(file, () => request.abort());
    meter.show(0, file.size);
    request.send(file);
  });
}
const uploadPlan = (id, words, file, meter) => (file.size > LARGEST_PLANNED ? null
  : async () => planOf((await upload(id, [...words, '--dry-run'], file, meter)).output));
