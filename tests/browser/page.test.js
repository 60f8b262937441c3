// The page itself: served with its policy, signs in and out, says why a
// sign-in failed.
'use strict';

const {test, before, after} = require('node:test');
const assert = require('node:assert/strict');
const {CloudService, freshEmail, launchBrowser, openPage, signInOnPage} = require('./harness');

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

test('an account signs in, sees that it has no computer yet, and signs out', async () => {
  const email = freshEmail();
  await service.signUp(email);
  const page = await openPage(browser, service);
  await signInOnPage(page, email);
  await page.waitForSelector('#noComputers:not([hidden])');
  assert.equal(await page.textContent('#noComputers'), 'No computer has Live Console switched on yet.');
  await page.click('#signout');
  await page.waitForSelector('#signin:not([hidden])');
  assert.equal(await page.isHidden('#computers'), true);
  assert.deepEqual(page.problems, []);
  await page.context().close();
});

test('a wrong password is refused with the reason, and nothing else changes', async () => {
  const email = freshEmail();
  await service.signUp(email);
  const page = await openPage(browser, service);
  await page.fill('#email', email);
  await page.fill('#password', 'not the password');
  await page.click('#signin button[type=submit]');
  await page.waitForFunction(() => document.getElementById('signinError').textContent !== '');
  assert.match(await page.textContent('#signinError'), /^Sign-in failed: /);
  assert.equal(await page.isHidden('#computers'), true);
  await page.context().close();
});
