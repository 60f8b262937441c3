// A computer's port, live in the page: the console host's pane on a pty
// pair with Live Console on, the page in chromium watching and driving it
// through the real service.
'use strict';

const {test, before, after} = require('node:test');
const assert = require('node:assert/strict');
const {CloudService, ConsoleHost, freshEmail, launchBrowser, openPage, signInOnPage, waitFor} = require('./harness');

let service;
let browser;
before(async () => {
  service = await CloudService.start();
  browser = await launchBrowser();
});
after(async () => {
  if (browser) await browser.close();
  if (service) await service.stop();
});

// An account with a console host signed in, and a page signed in to it
// that watches the host's port. The caller stops the host and closes the page.
async function watchingPage(pageOptions = {}) {
  const email = freshEmail('console');
  await service.signUp(email);
  const host = await ConsoleHost.start(service, email);
  let page;
  try {
    page = await openPage(browser, service, pageOptions);
    await signInOnPage(page, email);
    const computer = page.locator('#computerList button');
    await computer.first().waitFor();
    assert.equal(await computer.count(), 1);
    await computer.click();
    await page.waitForSelector('#presence.online');
    await page.locator('#ports button').first().waitFor();
    await page.locator('#ports button').first().click();
    await page.waitForSelector('#port:not([hidden])');
    await waitFor(() => host.watching, 'the host to be watched');
    return {host, page};
  } catch (error) {
    if (page) await page.context().close();
    await host.stop();
    throw error;
  }
}

function trafficText(page) {
  return page.evaluate(() => Array.from(document.querySelectorAll('#traffic > div:not(.failed)'),
    (row) => row.lastChild.textContent).join(''));
}

const farEnds = [
  {name: 'remote send on', allowed: true, outcome: 'Sent 7 bytes.'},
  {name: 'remote send off', allowed: false, outcome: 'remote send is disabled on the device'},
];
for (const {name, allowed, outcome} of farEnds) {
  test(`the page sees the far end and sends to it (${name})`, async () => {
    const {host, page} = await watchingPage();
    try {
      await host.allowSend(allowed);
      assert.match(await page.textContent('#computerList button'), /online/);
      assert.equal(await page.textContent('#watchers'), 'watchers: 1');

      host.write('boot ok\r\n');
      await waitFor(async () => (await trafficText(page)) === 'boot ok\r\n', 'the far end\'s bytes in the page');

      await page.fill('#sendText', 'hello');
      assert.equal(await page.inputValue('#lineEnding'), 'crlf');
      await page.click('#send button[type=submit]');
      await page.waitForFunction((text) => document.getElementById('outcome').textContent === text, outcome);
      if (allowed) {
        await waitFor(() => host.far.length >= 7, 'the far end to receive');
        assert.equal(host.far.toString('latin1'), 'hello\r\n');
        assert.equal(await page.getAttribute('#outcome', 'class'), '');
      } else {
        assert.equal(await page.getAttribute('#outcome', 'class'), 'failed');
        assert.equal(host.far.length, 0);
      }
      assert.deepEqual(page.problems, []);
    } finally {
      await page.context().close();
      await host.stop();
    }
  });
}

test('traffic shows in hex, stops while paused, clears, and a closed port says so', async () => {
  const {host, page} = await watchingPage();
  try {
    await host.allowSend(true);
    await page.check('#hexView');
    host.write('AB\n');
    await waitFor(async () => (await trafficText(page)) === '41 42 0a ', 'the bytes in hex');

    await page.click('#pause');
    assert.equal(await page.textContent('#pause'), 'Resume');
    host.write('hidden\n');
    await waitFor(() => page.heard.some((m) => m.type === 'events' && m.events.some((e) => e.payload_text === 'hidden\n')),
      'the paused traffic to reach the page');
    await page.click('#clear');
    assert.equal(await trafficText(page), '');
    await page.uncheck('#hexView');
    await page.click('#pause');
    host.write('shown\n');
    await waitFor(async () => (await trafficText(page)) === 'shown\n', 'the traffic after the pause');

    // Closing the port from the page: refused while the device does not
    // allow it; then reported closed, and a send to it is refused with the
    // device's words.
    await page.click('#closePort');
    await page.waitForFunction(
      () => document.getElementById('outcome').textContent === 'remote port control is disabled on the device');
    await host.allowControl(true);
    await page.click('#closePort');
    await page.waitForFunction(() => / · closed$/.test(document.getElementById('portName').textContent));
    await page.fill('#sendText', 'x');
    await page.click('#send button[type=submit]');
    await page.waitForFunction(() => document.getElementById('outcome').textContent === 'the port is not open');
    await page.click('#openPort');
    await page.waitForFunction(() => / · open$/.test(document.getElementById('portName').textContent));
    assert.deepEqual(page.problems, []);
  } finally {
    await page.context().close();
    await host.stop();
  }
});

test('at a phone\'s width nothing overflows and every control can be reached', async () => {
  const {host, page} = await watchingPage({viewport: {width: 390, height: 844}});
  try {
    host.write('a long line without any break in it at all, longer than a phone is wide, '.repeat(4) + '\n');
    await waitFor(async () => (await trafficText(page)).length > 0, 'the traffic');
    const layout = await page.evaluate(() => {
      const width = document.documentElement.clientWidth;
      const outside = [];
      for (const node of document.querySelectorAll('button, input, select, label, h1, h2, #traffic')) {
        const box = node.getBoundingClientRect();
        if (box.width === 0 && box.height === 0) continue;  // hidden
        if (box.left < 0 || box.right > width + 0.5) outside.push(`${node.id || node.tagName} ${box.left}-${box.right}`);
        if (node.matches('button, select, label, input:not([type=checkbox])') && box.height < 24) outside.push(`${node.id || node.tagName} too small`);
      }
      return {width, scrollWidth: document.documentElement.scrollWidth, outside};
    });
    assert.equal(layout.width, 390);
    assert.ok(layout.scrollWidth <= layout.width, `the page is ${layout.scrollWidth} px wide`);
    assert.deepEqual(layout.outside, []);
    // The send box still works there.
    await host.allowSend(true);
    await page.fill('#sendText', 'hi');
    await page.click('#send button[type=submit]');
    await waitFor(() => host.far.toString('latin1') === 'hi\r\n', 'the far end to receive');
  } finally {
    await page.context().close();
    await host.stop();
  }
});

test('in Simplified Chinese the page speaks Chinese, the device\'s refusal too', async () => {
  const {host, page} = await watchingPage({locale: 'zh-CN'});
  try {
    assert.equal(await page.getAttribute('html', 'lang'), 'zh-CN');
    assert.equal(await page.title(), 'Tessaline 实时控制台');
    // Every labelled text on show is Chinese.
    const english = await page.evaluate(() => Array.from(document.querySelectorAll('[data-t]'))
      .filter((node) => !/[\u4e00-\u9fff]/.test(node.textContent))
      .map((node) => `${node.dataset.t}: ${node.textContent}`));
    assert.deepEqual(english, []);
    assert.equal(await page.textContent('#presence'), '在线');
    assert.equal(await page.textContent('#watchers'), '观看者：1');
    assert.match(await page.textContent('#portName'), /已打开$/);

    await host.allowSend(false);
    await page.fill('#sendText', 'hello');
    await page.click('#send button[type=submit]');
    await page.waitForFunction(() => document.getElementById('outcome').textContent === '设备上已禁止远程发送');
    assert.deepEqual(page.problems, []);
  } finally {
    await page.context().close();
    await host.stop();
  }
});
