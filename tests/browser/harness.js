// What every browser test needs: the real tessaline-cloud on a loopback port
// the OS picks, accounts made through its REST API, Debian's chromium driven
// by playwright-core, and the console host (a computer with Live Console on a
// pty pair). Every wait here is bounded; every process started is stopped by
// the matching stop().
'use strict';

const {spawn} = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const {chromium} = require('playwright-core');

const chromiumPath = process.env.TSL_CHROMIUM || '/usr/bin/chromium';
const cloudBinary = process.env.TSL_CLOUD_BINARY;
const consoleHostBinary = process.env.TSL_CONSOLE_HOST;
const steppedCloudBinary = process.env.TSL_STEPPED_CLOUD;
const waitMs = 15000;

if (!fs.existsSync(chromiumPath)) {
  throw new Error(`${chromiumPath} is missing: run scripts/setup.sh (Debian package chromium)`);
}
if (!cloudBinary || !fs.existsSync(cloudBinary)) {
  throw new Error('TSL_CLOUD_BINARY does not name the built tessaline-cloud: run these tests through ctest');
}

// Resolves when test() is true, checking every 20 ms; rejects after ms,
// saying what was seen instead when seen() is given.
async function waitFor(test, what, ms = waitMs, seen = null) {
  const deadline = Date.now() + ms;
  for (;;) {
    const value = await test();
    if (value) return value;
    if (Date.now() > deadline) {
      throw new Error(`timed out waiting for ${what}${seen ? `; saw ${await seen()}` : ''}`);
    }
    await new Promise((resolve) => setTimeout(resolve, 20));
  }
}

// Ends a child: asks it politely first when ask is given, then SIGTERM,
// then SIGKILL, each after 5 s without an exit.
async function ending(child, ask) {
  if (child.exitCode !== null || child.signalCode !== null) return;
  const gone = new Promise((resolve) => child.once('exit', resolve));
  const steps = [ask || (() => child.kill('SIGTERM')), () => child.kill('SIGTERM'), () => child.kill('SIGKILL')];
  for (const step of steps) {
    step();
    let timer;
    const ended = await Promise.race([gone.then(() => true),
      new Promise((resolve) => { timer = setTimeout(() => resolve(false), 5000); })]);
    clearTimeout(timer);
    if (ended) return;
  }
}

// The service with its own SQLite database in a temporary folder. With
// {steppedClock: true} it is the test build whose clock advance() moves
// (access tokens then last a week, so moving by hours signs nobody out).
class CloudService {
  constructor(steppedClock) {
    this.dir = fs.mkdtempSync(path.join(os.tmpdir(), 'tsl-browser-'));
    this.log = '';
    this.port = 0;
    this.child = null;
    this.steppedClock = steppedClock;
    this.answers = '';
  }

  static async start({steppedClock = false} = {}) {
    const service = new CloudService(steppedClock);
    await service.start();
    return service;
  }

  async start() {
    const args = ['--listen', '127.0.0.1:0', '--database', path.join(this.dir, 'cloud.sqlite'),
      '--argon2-memory', '256', '--argon2-passes', '1'];
    let binary = cloudBinary;
    if (this.steppedClock) {
      if (!steppedCloudBinary || !fs.existsSync(steppedCloudBinary)) {
        throw new Error('TSL_STEPPED_CLOUD does not name the built steppedcloud: run these tests through ctest');
      }
      binary = steppedCloudBinary;
      args.push('--access-ttl', String(7 * 24 * 3600));
    }
    this.child = spawn(binary, args, {stdio: [this.steppedClock ? 'pipe' : 'ignore', 'pipe', 'pipe']});
    this.child.stdout.setEncoding('utf8');
    this.child.stdout.on('data', (text) => { this.answers += text; });
    this.child.stderr.setEncoding('utf8');
    this.child.stderr.on('data', (text) => { this.log += text; });
    const match = await waitFor(() => {
      if (this.child.exitCode !== null) throw new Error(`tessaline-cloud ended at start:\n${this.log}`);
      return /listening on 127\.0\.0\.1:(\d+)/.exec(this.log);
    }, 'tessaline-cloud to listen');
    this.port = Number(match[1]);
  }

  get baseUrl() { return `http://127.0.0.1:${this.port}`; }

  // Moves the stepped service's clock on by ms and waits until it has.
  async advance(ms) {
    const moved = () => this.answers.split('\n').filter((l) => l.startsWith('advanced ')).length;
    const before = moved();
    this.child.stdin.write(`advance ${ms}\n`);
    await waitFor(() => moved() > before, 'the clock to move');
  }

  async stop() {
    if (this.child) await ending(this.child);
    fs.rmSync(this.dir, {recursive: true, force: true});
  }

  // One REST call: {status (HTTP), body (parsed JSON)}.
  async api(method, apiPath, body, token) {
    const headers = {'Content-Type': 'application/json'};
    if (token) headers.Authorization = `Bearer ${token}`;
    const response = await fetch(`${this.baseUrl}/api/v3/${apiPath}`, {
      method, headers, body: body === undefined ? undefined : JSON.stringify(body),
      signal: AbortSignal.timeout(waitMs)});
    return {status: response.status, body: await response.json()};
  }

  // The newest registration code the service logged for this address.
  async codeFor(email) {
    const line = new RegExp(`registration code for ${email.replace(/[.*+?^${}()|[\]\\]/g, '\\$&')}: (\\d+)`, 'g');
    return waitFor(() => {
      const all = [...this.log.matchAll(line)];
      return all.length ? all[all.length - 1][1] : null;
    }, `the registration code for ${email}`);
  }

  // Registers an account and returns its first sign-in ({access_token, ...}).
  async signUp(email, password = 'correct horse') {
    const asked = await this.api('POST', 'account/register/code', {email});
    if (!asked.body.status) throw new Error(`no registration code: ${JSON.stringify(asked.body)}`);
    const code = await this.codeFor(email);
    const made = await this.api('POST', 'account/register',
      {email, username: 'Ann', password, code, device_name: 'browser test', client_version: 'web'});
    if (!made.body.status) throw new Error(`registration refused: ${JSON.stringify(made.body)}`);
    return made.body;
  }
}

let accounts = 0;
// An address no other test in this process uses.
function freshEmail(prefix = 'page') {
  return `${prefix}${process.pid}-${++accounts}@example.org`;
}

// chromium, headless; --no-sandbox as root (CI runs in a container as root);
// no background traffic, which a closed network refuses noisily.
async function launchBrowser() {
  const args = ['--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
    '--disable-component-update', '--disable-sync'];
  if (process.getuid && process.getuid() === 0) args.push('--no-sandbox');
  return chromium.launch({executablePath: chromiumPath, headless: true, args, timeout: 30000});
}

// A page at the service's "/" in its own context. page.problems collects
// what a page must never show: script errors, console errors (a refused
// Content-Security-Policy among them) and requests to any other host.
// page.heard is every message the page's sockets received, parsed.
async function openPage(browser, service, {locale = 'en-US', viewport = {width: 1280, height: 800}} = {}) {
  const context = await browser.newContext({baseURL: service.baseUrl, locale, viewport});
  context.setDefaultTimeout(waitMs);
  const page = await context.newPage();
  page.problems = [];
  page.on('pageerror', (error) => page.problems.push(`script error: ${error.message}`));
  page.on('console', (message) => {
    if (message.type() === 'error') page.problems.push(`console: ${message.text()}`);
  });
  page.heard = [];
  page.on('websocket', (socket) => socket.on('framereceived', ({payload}) => {
    try { page.heard.push(JSON.parse(payload)); } catch { page.heard.push({unparsed: String(payload)}); }
  }));
  page.on('request', (request) => {
    const url = new URL(request.url());
    if (url.host !== new URL(service.baseUrl).host) page.problems.push(`request to another host: ${request.url()}`);
  });
  await page.goto('/');
  return page;
}

// Fills in the page's sign-in form and waits until the computer list shows.
async function signInOnPage(page, email, password = 'correct horse') {
  await page.fill('#email', email);
  await page.fill('#password', password);
  await page.click('#signin button[type=submit]');
  await page.waitForSelector('#computers:not([hidden])');
}

// The console host, signed in as the given account. host.far is every byte
// that reached the far end of its pty so far (a Buffer).
class ConsoleHost {
  static async start(service, email, password = 'correct horse') {
    if (!consoleHostBinary || !fs.existsSync(consoleHostBinary)) {
      throw new Error('TSL_CONSOLE_HOST does not name the built consolehost: run these tests through ctest');
    }
    const host = new ConsoleHost();
    host.child = spawn(consoleHostBinary, ['--service', service.baseUrl, '--email', email, '--password', password],
      {stdio: ['pipe', 'pipe', 'pipe']});
    host.far = Buffer.alloc(0);
    host.lines = [];
    host.watching = false;
    host.errors = '';
    let partial = '';
    host.child.stdout.setEncoding('utf8');
    host.child.stdout.on('data', (text) => {
      partial += text;
      let end;
      while ((end = partial.indexOf('\n')) >= 0) {
        host.heard(partial.slice(0, end));
        partial = partial.slice(end + 1);
      }
    });
    host.child.stderr.setEncoding('utf8');
    host.child.stderr.on('data', (text) => { host.errors += text; });
    const ready = await waitFor(() => {
      const failed = host.lines.find((l) => l.startsWith('error '));
      if (failed || host.child.exitCode !== null) {
        throw new Error(`consolehost did not start: ${failed || ''}\n${host.errors}`);
      }
      return host.lines.find((l) => l.startsWith('ready '));
    }, 'the console host to be ready');
    Object.assign(host, JSON.parse(ready.slice(6)));  // cid, port_key
    return host;
  }

  heard(line) {
    this.lines.push(line);
    if (line.startsWith('far ')) this.far = Buffer.concat([this.far, Buffer.from(line.slice(4), 'hex')]);
    if (line.startsWith('watching ')) this.watching = line.endsWith('1');
  }

  tell(line) { this.child.stdin.write(`${line}\n`); }

  // Bytes written at the far end, as a device would send them.
  write(bytes) { this.tell(`write ${Buffer.from(bytes).toString('hex')}`); }

  // Switch "Allow Remote Send" and "Allow Remote Port Control", and wait
  // until the host has done it.
  async allowSend(on) { await this.setting('allow-send', on); }
  async allowControl(on) { await this.setting('allow-control', on); }

  async setting(name, on) {
    const before = this.lines.filter((l) => l === 'ok').length;
    this.tell(`${name} ${on ? 1 : 0}`);
    await waitFor(() => this.lines.filter((l) => l === 'ok').length > before, `the host to switch ${name}`);
  }

  // Asked to quit first: a host killed outright would leave its socat behind.
  async stop() {
    await ending(this.child, () => this.tell('quit'));
  }
}

module.exports = {CloudService, ConsoleHost, freshEmail, launchBrowser, openPage, signInOnPage, waitFor};
