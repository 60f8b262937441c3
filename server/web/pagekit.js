// What the owner's page and the guest's page share: element lookup, the
// reader's language, the traffic view and the outcome line. Loaded before
// either page's own script.
'use strict';

const $ = (id) => document.getElementById(id);
const lang = (navigator.languages || [navigator.language]).some((l) => /^zh/i.test(l)) ? 'zh' : 'en';
const maxLines = 2000;  // scroll-back of the traffic view

// A page's `t(key, ...args)`: its Chinese text when the reader reads Chinese,
// else its English one, else the key; "%1", "%2"... filled from the args.
function translator(zh, english) {
  return (key, ...args) => {
    let text = (lang === 'zh' && zh[key]) || english[key] || key;
    args.forEach((arg, i) => { text = text.replace('%' + (i + 1), arg); });
    return text;
  };
}

// Puts the page's labelled elements (data-t) and its title in the reader's language.
function applyLanguage(t, zh) {
  document.documentElement.lang = lang === 'zh' ? 'zh-CN' : 'en';
  for (const node of document.querySelectorAll('[data-t]')) {
    if (lang === 'zh' && zh[node.dataset.t]) node.textContent = zh[node.dataset.t];
  }
  document.title = t('title') === 'title' ? document.title : t('title');
}

function setPresence(t, online) {
  $('presence').textContent = t(online ? 'online' : 'offline');
  $('presence').className = online ? 'online' : 'offline';
}

function hexOf(text) {
  return Array.from(new TextEncoder().encode(text), (b) => b.toString(16).padStart(2, '0')).join(' ') + ' ';
}

// One line of traffic ("tx" for what was sent) or, with `cls`, a notice of
// that class; keeps the view at the bottom when the reader was there.
function appendTraffic(kind, text, time, cls) {
  const view = $('traffic');
  const row = document.createElement('div');
  if (kind === 'tx') row.className = 'tx';
  if (cls) row.className = cls;
  if ($('stamps').checked) {
    const stamp = document.createElement('span');
    stamp.className = 'stamp';
    stamp.textContent = new Date(time).toISOString().substring(11, 23) + ' ';
    row.append(stamp);
  }
  row.append(document.createTextNode($('hexView').checked && !cls ? hexOf(text) : text));
  const atBottom = view.scrollTop + view.clientHeight >= view.scrollHeight - 4;
  view.append(row);
  while (view.childElementCount > maxLines) view.firstElementChild.remove();
  if (atBottom) view.scrollTop = view.scrollHeight;
}

function note(text, failed) {
  $('outcome').textContent = text;
  $('outcome').className = failed ? 'failed' : '';
}
