// The guest's page behind an invite link: a computer (the console host)
// shares its pane, chromium opens the link, joins with the passcode, watches
// the pty's far end, sends within the share's level and hears when the
// owner stops sharing or the share runs out on the service's clock.
'use strict';

const {test, before, after} = require('node:test');
const assert = require('node:assert/strict');
const {CloudService, ConsoleHost, freshEmail, launchBrowser, openPage, waitFor} = require('./harness');

let service;
let browser;
before(async () => {
  service = await CloudService.start({steppedClock: true});
  browser = await launchBrowser();
});
after(async () => {
  if (browser) await browser.close();
  if (service) await service.stop();
});

// Asks the host to share its pane; resolves to {share_id, code, link}.
async function share(host, web, passcode) {
  const from = host.lines.length;
  host.tell(`share ${web} ${passcode || '-'}`);
  const line = await waitFor(() => host.lines.slice(from).find((l) => /^share(-failed)? /.test(l)), 'the share');
  if (line.startsWith('share-failed ')) throw new Error(line);
  return JSON.parse(line.slice(6));
}

const textOf = (page, id) => page.evaluate((which) => document.getElementById(which).textContent, id);

test('a guest joins by the link, sees the port, sends within its level and is told when sharing stops', async () => {
  const email = freshEmail('guest');
  await service.signUp(email);
  const host = await ConsoleHost.start(service, email);
  try {
    const shared = await share(host, 'send', '4711');
    assert.match(shared.link, /\/join\/[2-9A-HJKMNP-Z]{4}-[2-9A-HJKMNP-Z]{4}-[2-9A-HJKMNP-Z]{4}$/);
    const page = await openPage(browser, service);
    const missing = [];
    page.on('response', (response) => {
      if (response.status() === 404) missing.push(new URL(response.url()).pathname);
    });
    await page.goto(new URL(shared.link).pathname);
    await page.waitForSelector('#join:not([hidden])');
    assert.equal(await page.isVisible('#passcodeRow'), true);
    assert.equal(await textOf(page, 'shareName'), 'bench board');

    await page.fill('#passcode', '0000');
    await page.fill('#guestName', 'Grace');
    await page.click('#joinButton');
    await waitFor(async () => (await textOf(page, 'joinError')) !== '', 'the refusal');
    assert.equal(await textOf(page, 'joinError'), 'The passcode is not right.');
    assert.equal(await page.isHidden('#port'), true);

    await page.fill('#passcode', '4711');
    await page.click('#joinButton');
    await page.waitForSelector('#port:not([hidden])');
    await waitFor(() => host.watching, 'the computer to be watched');
    host.write('boot ok\r\n');
    await waitFor(async () => (await textOf(page, 'traffic')).includes('boot ok'), 'the far end on the page');

    await page.fill('#sendText', 'hello');
    await page.click('#send button[type=submit]');
    await waitFor(() => host.far.toString() === 'hello\r\n', 'the text at the far end');
    await waitFor(async () => (await textOf(page, 'outcome')) === 'Sent 7 bytes.', 'the result', undefined,
      async () => JSON.stringify({outcome: await textOf(page, 'outcome'),
        heard: page.heard.filter((m) => m.type !== 'events')}));

    await page.click('#closePort');
    await waitFor(async () => (await textOf(page, 'outcome')).includes('port control'), 'the refusal');
    assert.equal(await textOf(page, 'outcome'), 'the share does not allow port control from a browser');

    host.tell(`unshare ${shared.share_id}`);
    await page.waitForSelector('#ended:not([hidden])');
    assert.equal(await textOf(page, 'endReason'), 'The owner stopped sharing.');
    assert.equal(await page.isHidden('#port'), true);
    await waitFor(() => !host.watching, 'the computer to stop streaming');
    // The link, opened again, says the same.
    await page.reload();
    await page.waitForSelector('#ended:not([hidden])');
    assert.equal(await textOf(page, 'endReason'), 'The owner stopped sharing.');

    // Refused joins answer 401, and the ended share's code 404, which
    // chromium logs (as it does the browser's own icon request); nothing
    // else may show.
    const ended = `/api/v3/relay/join/${shared.code}`;
    assert.deepEqual(missing.filter((p) => p !== '/favicon.ico' && p !== ended), []);
    assert.deepEqual(page.problems.filter((p) => !/status of 40[14]/.test(p)), []);
    await page.context().close();
  } finally {
    await host.stop();
  }
});

test('the page says so when the share runs out on the service\'s clock', async () => {
  const email = freshEmail('expiry');
  await service.signUp(email);
  const host = await ConsoleHost.start(service, email);
  try {
    const shared = await share(host, 'view');
    const page = await openPage(browser, service);
    await page.goto(new URL(shared.link).pathname);
    await page.waitForSelector('#join:not([hidden])');
    assert.equal(await page.isVisible('#passcodeRow'), false);
    await page.fill('#guestName', 'Grace');
    await page.click('#joinButton');
    await page.waitForSelector('#port:not([hidden])');
    await waitFor(() => host.watching, 'the computer to be watched');
    host.write('tick\r\n');
    await waitFor(async () => (await textOf(page, 'traffic')).includes('tick'), 'the far end on the page');

    // A minute short of the hour the share still runs; past it, it ends.
    await service.advance(59 * 60 * 1000);
    host.write('tock\r\n');
    await waitFor(async () => (await textOf(page, 'traffic')).includes('tock'), 'traffic just before the end');
    assert.equal(await page.isHidden('#ended'), true);
    await service.advance(60 * 1000);
    await page.waitForSelector('#ended:not([hidden])');
    assert.equal(await textOf(page, 'endReason'), 'The share expired.');
    assert.equal(await page.isHidden('#port'), true);
    await waitFor(() => !host.watching, 'the computer to stop streaming');
    assert.deepEqual(page.problems.filter((p) => !/status of 40[14]/.test(p)), []);
    await page.context().close();
  } finally {
    await host.stop();
  }
});
