// The Live Console page: signs in with the account's REST API, lists the
// computers, watches one over its watcher socket and issues commands.
// The access token lives in this script's memory only.
'use strict';

const texts = {
  en: {},
  zh: {
    title: 'Tessaline 实时控制台', signIn: '登录', signOut: '退出登录', email: '电子邮箱', password: '密码',
    computers: '计算机', refresh: '刷新', noComputers: '还没有计算机开启实时控制台。',
    open: '打开', close: '关闭', hexView: '十六进制视图', timestamps: '时间戳', pause: '暂停', resume: '继续',
    clear: '清除', text: '文本', hex: '十六进制', none: '无', send: '发送',
    online: '在线', offline: '离线', watchers: '观看者：%1', isOpen: '已打开', isClosed: '已关闭',
    lost: '此页面跟不上，丢失了 %1 条数据。', dropped: '设备丢弃了 %1 条数据。', sent: '已发送 %1 字节。', done: '完成。',
    waiting: '等待设备……', signInFailed: '登录失败：%1', connectionLost: '与服务的连接已断开，正在重新连接……',
    'remote send is disabled on the device': '设备上已禁止远程发送',
    'remote port control is disabled on the device': '设备上已禁止远程控制端口',
    'the port is not open': '端口未打开', 'empty payload': '内容为空',
    'the text is not hexadecimal bytes': '文本不是十六进制字节',
    'a file transfer is using this port': '文件传输正在使用此端口',
    'cloud relay is disabled on the device': '设备上已禁止云中继',
    'the share does not allow sending from a browser': '此共享不允许从浏览器发送',
    'the share does not allow port control from a browser': '此共享不允许从浏览器控制端口',
    'this computer holds no such share': '此计算机上没有这个共享',
    'the text cannot be written in the port\'s encoding': '文本无法用端口的编码写出',
    'no serial parameters given': '没有给出串口参数',
    'only a serial port has parameters': '只有串口才有参数',
    'the device is not reading what was sent before': '设备还没有读取之前发送的数据',
    'the port did not take the data': '端口没有接收数据',
    // Refusals whose text carries a value: translated by their code.
    'code:invalid_payload': '内容无效', 'code:port_not_found': '没有这个端口',
    'code:internal_error': '设备上出错', 'code:unsupported_command': '设备不支持此命令',
    'code:permission_denied': '设备拒绝了此操作',
    'code:too_many_commands': '等待执行的命令太多，请稍后再试',
    'code:computer_not_found': '找不到这台计算机', 'code:too_many_watchers': '观看这台计算机的人太多',
  },
};
const english = {
  online: 'online', offline: 'offline', watchers: 'watchers: %1', isOpen: 'open', isClosed: 'closed', resume: 'Resume',
  lost: 'This page fell behind and lost %1 events.', dropped: 'The device dropped %1 events.', sent: 'Sent %1 bytes.',
  done: 'Done.', waiting: 'Waiting for the device…', signInFailed: 'Sign-in failed: %1',
  connectionLost: 'The connection to the service was lost; reconnecting…', pause: 'Pause',
};
const t = translator(texts.zh, english);
// A refusal in the reader's language: its own text when that is known,
// else the meaning of its code, else the text as the device or service said it.
function refusal(message, code) {
  if (lang === 'zh' && message && texts.zh[message]) return texts.zh[message];
  if (lang === 'zh' && code && texts.zh['code:' + code]) return texts.zh['code:' + code];
  return message || code || '';
}

let auth = null;        // {access, refresh}: never stored anywhere else
let computer = null;    // the watched computer's cid
let socket = null;
let ports = [];
let portKey = null;
let paused = false;
let pending = new Map();  // command id -> what it was, for its result
// Results that came over the socket before the reply to their own issue.
const early = new Map();
const maxEarly = 64;

async function api(method, path, body) {
  const response = await fetch('/api/v3/' + path, {
    method,
    headers: Object.assign({'Content-Type': 'application/json'}, auth ? {Authorization: 'Bearer ' + auth.access} : {}),
    body: body ? JSON.stringify(body) : undefined,
    cache: 'no-store',
  });
  const reply = await response.json().catch(() => ({status: false, description: response.statusText}));
  if (response.status === 401 && auth && auth.refresh && path !== 'account/token/refresh') {
    const renewed = await api('POST', 'account/token/refresh', {refresh_token: auth.refresh});
    if (renewed.status) {
      auth = {access: renewed.access_token, refresh: renewed.refresh_token};
      return api(method, path, body);
    }
    signedOut();
  }
  return reply;
}

async function signIn(event) {
  event.preventDefault();
  $('signinError').textContent = '';
  const reply = await api('POST', 'account/login', {
    email: $('email').value, password: $('password').value, device_name: 'browser', client_version: 'web'});
  if (!reply.status) {
    $('signinError').textContent = t('signInFailed', reply.description || reply.code || '');
    return;
  }
  auth = {access: reply.access_token, refresh: reply.refresh_token};
  $('password').value = '';
  $('signin').hidden = true;
  $('signout').hidden = false;
  $('computers').hidden = false;
  listComputers();
}

function signedOut() {
  auth = null;
  if (socket) socket.close();
  socket = null;
  computer = null;
  for (const id of ['computers', 'computer', 'port', 'signout']) $(id).hidden = true;
  $('signin').hidden = false;
}

async function signOut() {
  if (auth) await api('POST', 'account/logout', {refresh_token: auth.refresh});
  signedOut();
}

async function listComputers() {
  const reply = await api('GET', 'console/computers');
  const list = $('computerList');
  list.replaceChildren();
  const computers = reply.computers || [];
  $('noComputers').hidden = computers.length > 0;
  for (const c of computers) {
    const button = document.createElement('button');
    button.className = c.online ? 'online' : 'offline';
    button.textContent = `${c.hostname || c.cid} · ${c.version} · ${t(c.online ? 'online' : 'offline')}`;
    button.addEventListener('click', () => watch(c));
    const item = document.createElement('li');
    item.append(button);
    list.append(item);
  }
}

function watch(c) {
  if (socket) socket.close();
  computer = c.cid;
  ports = [];
  portKey = null;
  $('computer').hidden = false;
  $('port').hidden = true;
  $('computerName').textContent = c.hostname || c.cid;
  setPresence(t, c.online);
  connect();
}

function connect() {
  const scheme = location.protocol === 'https:' ? 'wss:' : 'ws:';
  const ws = new WebSocket(`${scheme}//${location.host}/ws/console/watch/v1`);
  socket = ws;
  ws.onopen = () => ws.send(JSON.stringify({type: 'watch', access_token: auth.access, cid: computer}));
  ws.onmessage = (event) => heard(JSON.parse(event.data));
  ws.onclose = () => {
    if (socket !== ws || !auth) return;
    note(t('connectionLost'), true);
    setTimeout(() => { if (socket === ws && auth) connect(); }, 2000 + Math.random() * 3000);
  };
}

function heard(message) {
  switch (message.type) {
  case 'watch':
    if (message.status) { setPresence(t, message.online); break; }
    note(refusal(message.description, message.code), true);
    // An expired token is renewed by any signed-in call before the next try;
    // any other refusal stands, and trying again would only repeat it.
    if (message.code === 'invalid_token') api('GET', 'console/computers');
    else socket = null;
    break;
  case 'presence': setPresence(t, message.online); break;
  case 'watchers': $('watchers').textContent = t('watchers', message.count); break;
  case 'snapshot': ports = message.ports || []; showPorts(); break;
  case 'events':
    if (message.dropped) line('', t('dropped', message.dropped), Date.now(), 'failed');
    for (const e of message.events) {
      if (e.port_key === portKey) line(e.event_type, e.payload_text, e.client_time);
    }
    break;
  case 'lost': line('', t('lost', message.events), Date.now(), 'failed'); break;
  case 'result': showResult(message); break;
  }
}

function showPorts() {
  const box = $('ports');
  box.replaceChildren();
  for (const p of ports) {
    const button = document.createElement('button');
    button.textContent = `${p.label || p.port_name || p.port_key} · ${t(p.open ? 'isOpen' : 'isClosed')}`
      + (p.baud_rate ? ` · ${p.baud_rate}` : '');
    button.addEventListener('click', () => choosePort(p.port_key));
    box.append(button);
  }
  const current = ports.find((p) => p.port_key === portKey);
  if (current) $('portName').textContent = `${current.label || current.port_name} · ${t(current.open ? 'isOpen' : 'isClosed')}`;
}

function choosePort(key) {
  portKey = key;
  $('traffic').replaceChildren();
  $('port').hidden = false;
  showPorts();
}

function line(kind, text, time, cls) {
  if (paused && !cls) return;
  appendTraffic(kind, text, time, cls);
}

async function issue(command, payload) {
  note(t('waiting'));
  const reply = await api('POST', `console/computers/${encodeURIComponent(computer)}/commands`, {command, payload});
  if (!reply.status) { note(refusal(reply.description, reply.code), true); return; }
  pending.set(reply.command_id, command);
  if (early.has(reply.command_id)) {
    showResult(early.get(reply.command_id));
    early.delete(reply.command_id);
  }
}

function showResult(message) {
  if (!pending.delete(message.command_id)) {
    // Perhaps this page's own command, whose issue has not been answered yet.
    early.set(message.command_id, message);
    if (early.size > maxEarly) early.delete(early.keys().next().value);
    return;
  }
  const r = message.result || {};
  if (r.port && r.port.port_key) {
    ports = ports.map((p) => (p.port_key === r.port.port_key ? r.port : p));
    showPorts();
  }
  if (r.status === 'succeeded') note(r.bytes !== undefined ? t('sent', r.bytes) : t('done'));
  else note(refusal(r.message, r.error_code), true);
}

function send(event) {
  event.preventDefault();
  const text = $('sendText').value;
  if (!text || !portKey) return;
  issue($('sendMode').value, {port_key: portKey, text, line_ending: $('lineEnding').value});
}

document.addEventListener('DOMContentLoaded', () => {
  applyLanguage(t, texts.zh);
  $('signin').addEventListener('submit', signIn);
  $('signout').addEventListener('click', signOut);
  $('refresh').addEventListener('click', listComputers);
  $('send').addEventListener('submit', send);
  $('openPort').addEventListener('click', () => issue('open_port', {port_key: portKey}));
  $('closePort').addEventListener('click', () => issue('close_port', {port_key: portKey}));
  $('clear').addEventListener('click', () => $('traffic').replaceChildren());
  $('pause').addEventListener('click', () => {
    paused = !paused;
    $('pause').textContent = t(paused ? 'resume' : 'pause');
  });
});
