// The page behind an invite link: a guest without an account gives the
// passcode (when the share has one) and a name, then watches the one shared
// port over the watcher socket and, as the share's level allows, sends to it
// or opens and closes it. The guest credential lives in this tab's session
// storage only, so a reload does not ask again.
'use strict';

const texts = {
  zh: {
    title: 'Tessaline 实时共享', checking: '正在检查邀请……', passcode: '访问码', yourName: '你的名字', join: '加入',
    endedTitle: '共享已结束', open: '打开', close: '关闭', hexView: '十六进制视图', timestamps: '时间戳', clear: '清除',
    text: '文本', hex: '十六进制', none: '无', send: '发送',
    online: '在线', offline: '离线', isOpen: '已打开', isClosed: '已关闭', expiresAt: '到期时间：%1',
    levelView: '你可以查看此端口', levelSend: '你可以查看此端口并向其发送', levelControl: '你可以查看、发送并打开或关闭此端口',
    lost: '此页面跟不上，丢失了 %1 条数据。', dropped: '设备丢弃了 %1 条数据。', sent: '已发送 %1 字节。', done: '完成。',
    waiting: '等待设备……', connectionLost: '与服务的连接已断开，正在重新连接……',
    invalidCode: '此邀请无效：请检查链接。', sharedBy: '%1 上的 %2', needName: '请输入你的名字。',
    'expired': '共享已到期。', 'revoked': '所有者停止了共享。', 'stale': '所有者的计算机已重新启动。',
    'too_many_attempts': '访问码错误次数过多，共享已被撤销。', 'ended': '共享已结束。',
    'The passcode is not right.': '访问码不正确。', 'This share asks for a passcode.': '此共享需要访问码。',
    'Too many wrong passcodes from here; try again later.': '此处输入错误访问码的次数过多，请稍后再试。',
    'This share does not admit browsers; join it from Tessaline.': '此共享不允许浏览器加入，请在 Tessaline 中加入。',
    'the share does not allow sending from a browser': '此共享不允许从浏览器发送',
    'the share does not allow port control from a browser': '此共享不允许从浏览器控制端口',
    'remote send is disabled on the device': '设备上已禁止远程发送',
    'remote port control is disabled on the device': '设备上已禁止远程控制端口',
    'the port is not open': '端口未打开', 'empty payload': '内容为空',
    'the text is not hexadecimal bytes': '文本不是十六进制字节',
    'a file transfer is using this port': '文件传输正在使用此端口',
    'Wait for the commands already sent.': '请等待已发送的命令完成。',
  },
};
const english = {
  online: 'online', offline: 'offline', isOpen: 'open', isClosed: 'closed', expiresAt: 'Expires at %1',
  levelView: 'You may watch this port', levelSend: 'You may watch this port and send to it',
  levelControl: 'You may watch, send to, open and close this port',
  lost: 'This page fell behind and lost %1 events.', dropped: 'The device dropped %1 events.', sent: 'Sent %1 bytes.',
  done: 'Done.', waiting: 'Waiting for the device…',
  connectionLost: 'The connection to the service was lost; reconnecting…',
  invalidCode: 'This invitation is not valid: check the link.', sharedBy: '%2 on %1', needName: 'Give your name.',
  expired: 'The share expired.', revoked: 'The owner stopped sharing.', stale: "The owner's computer restarted.",
  too_many_attempts: 'Too many wrong passcodes; the share was revoked.', ended: 'The share ended.',
};
const t = translator(texts.zh, english);
const code = decodeURIComponent(location.pathname.split('/').pop() || '');
const tokenKey = 'tessaline-guest-' + code;
let share = null;      // what admission told: share_id, port_key, label, web, expires_at
let socket = null;
let port = null;       // the shared port's snapshot entry
let ended = false;
let nextRef = 1;
const pending = new Map();  // ref or command id -> the command, for its answer

async function api(method, path, body) {
  const response = await fetch('/api/v3/' + path, {
    method,
    headers: {'Content-Type': 'application/json'},
    body: body ? JSON.stringify(body) : undefined,
    cache: 'no-store',
  });
  return response.json().catch(() => ({status: false, description: response.statusText}));
}

function showExpiry(expiresAt) {
  if (expiresAt) $('expiry').textContent = t('expiresAt', new Date(expiresAt).toLocaleString());
}

function showEnd(reason) {
  ended = true;
  sessionStorage.removeItem(tokenKey);
  if (socket) socket.close();
  socket = null;
  $('invite').hidden = true;
  $('port').hidden = true;
  $('ended').hidden = false;
  $('endReason').textContent = t(reason || 'ended');
  $('expiry').textContent = '';
}

async function peek() {
  const reply = await api('GET', 'relay/join/' + encodeURIComponent(code));
  if (!reply.status) {
    if (reply.end_reason) { showEnd(reply.end_reason); return; }
    $('shareName').textContent = t('invalidCode');
    return;
  }
  $('shareName').textContent = reply.label || reply.port_name || code;
  $('shareWhere').textContent = t('sharedBy', reply.device_name, reply.port_name || '');
  $('passcodeRow').hidden = !reply.passcode_required;
  $('join').hidden = false;
  showExpiry(reply.expires_at);
  $(reply.passcode_required ? 'passcode' : 'guestName').focus();
}

async function join(event) {
  event.preventDefault();
  const name = $('guestName').value.trim();
  if (!name) { $('joinError').textContent = t('needName'); return; }
  $('joinButton').disabled = true;
  $('joinError').textContent = '';
  const reply = await api('POST', `relay/join/${encodeURIComponent(code)}/web`,
                          {passcode: $('passcode').value, guest_name: name});
  $('joinButton').disabled = false;
  if (!reply.status) {
    if (reply.end_reason) { showEnd(reply.end_reason); return; }
    $('joinError').textContent = t(reply.description || reply.code || '');
    $('passcode').value = '';
    return;
  }
  sessionStorage.setItem(tokenKey, reply.guest_token);
  watch();
}

function watch() {
  const token = sessionStorage.getItem(tokenKey);
  if (!token || ended) return;
  const scheme = location.protocol === 'https:' ? 'wss:' : 'ws:';
  const ws = new WebSocket(`${scheme}//${location.host}/ws/console/watch/v1`);
  socket = ws;
  ws.onopen = () => ws.send(JSON.stringify({type: 'guest_watch', guest_token: token}));
  ws.onmessage = (event) => heard(JSON.parse(event.data));
  ws.onclose = () => {
    if (socket !== ws || ended) return;
    note(t('connectionLost'), true);
    setTimeout(() => { if (socket === ws && !ended) watch(); }, 2000 + Math.random() * 3000);
  };
}

function admitted(message) {
  if (!message.status) {
    if (message.end_reason) { showEnd(message.end_reason); return; }
    // The credential is gone (the share was joined by many since): join again.
    sessionStorage.removeItem(tokenKey);
    socket = null;
    $('joinError').textContent = t(message.description || message.code || '');
    peek();
    return;
  }
  share = message;
  $('invite').hidden = true;
  $('port').hidden = false;
  setPresence(t, message.online);
  const level = {view: 'levelView', send: 'levelSend', control: 'levelControl'}[message.web] || 'levelView';
  $('access').textContent = t(level);
  $('send').hidden = message.web === 'view';
  showExpiry(message.expires_at);
  showPort();
}

function heard(message) {
  switch (message.type) {
  case 'watch': admitted(message); break;
  case 'presence': setPresence(t, message.online); break;
  case 'snapshot': port = (message.ports || [])[0] || port; showPort(); break;
  case 'events':
    if (message.dropped) appendTraffic('', t('dropped', message.dropped), Date.now(), 'failed');
    for (const e of message.events) {
      if (share && e.port_key === share.port_key) appendTraffic(e.event_type, e.payload_text, e.client_time);
    }
    break;
  case 'lost': appendTraffic('', t('lost', message.events), Date.now(), 'failed'); break;
  case 'command': commandAnswered(message); break;
  case 'result': showResult(message); break;
  case 'share_ended': showEnd(message.reason); break;
  }
}

function showPort() {
  const name = (port && (port.label || port.port_name)) || (share && (share.label || share.port_key)) || '';
  $('portName').textContent = port ? `${name} · ${t(port.open ? 'isOpen' : 'isClosed')}` : name;
}

function issue(command, payload) {
  if (!socket || socket.readyState !== WebSocket.OPEN) return;
  const ref = String(nextRef++);
  pending.set(ref, command);
  note(t('waiting'));
  socket.send(JSON.stringify({type: 'command', ref, command, payload}));
}

function commandAnswered(message) {
  const command = pending.get(message.ref);
  pending.delete(message.ref);
  if (!message.status) { note(t(message.description || message.code || ''), true); return; }
  if (command) pending.set(message.command_id, command);
}

function showResult(message) {
  if (!pending.delete(message.command_id)) return;
  const r = message.result || {};
  if (r.status === 'succeeded') note(r.bytes !== undefined ? t('sent', r.bytes) : t('done'));
  else note(t(r.message || r.error_code || ''), true);
}

function send(event) {
  event.preventDefault();
  const text = $('sendText').value;
  if (!text) return;
  issue($('sendMode').value, {text, line_ending: $('lineEnding').value});
}

document.addEventListener('DOMContentLoaded', () => {
  applyLanguage(t, texts.zh);
  $('join').addEventListener('submit', join);
  $('send').addEventListener('submit', send);
  $('openPort').addEventListener('click', () => issue('open_port', {}));
  $('closePort').addEventListener('click', () => issue('close_port', {}));
  $('clear').addEventListener('click', () => $('traffic').replaceChildren());
  if (sessionStorage.getItem(tokenKey)) {
    $('shareName').textContent = code;
    watch();
  } else {
    peek();
  }
});
