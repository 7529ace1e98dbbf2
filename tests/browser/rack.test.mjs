// The rack's page in Debian's chromium, headless, with vlmgpiod.out running on the rack's board:
// a GPI switch reaches the daemon and comes back as an event and a Sony command, a GPO request
// lights its lamp, the transport runs, the JSON API agrees with the library, and the page fetches
// nothing from anywhere but the rack. Run inside a network namespace of its own (fixed ports):
//   node rack.test.mjs BUILD NODE_FOLDER SCREENSHOT
import { execFileSync, spawn, spawnSync } from 'node:child_process';
import dgram from 'node:dgram';
import { existsSync, mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import os from 'node:os';
import path from 'node:path';

const [build, modules, screenshot] = process.argv.slice(2);
const puppeteer = createRequire(path.resolve(modules, 'package.json'))('puppeteer-core');
const kWaitMs = 10000; // generous: other builds share the machine
const work = mkdtempSync(path.join(os.tmpdir(), 'vlm-browser-'));
const children = [];
const began = Date.now();

function start(program, args, env = {}) {
  const child = spawn(program, args, { env: { ...process.env, ...env } });
  child.output = '';
  for (const stream of [child.stdout, child.stderr]) stream.on('data', (d) => (child.output += d));
  children.push(child);
  return child;
}

async function until(what, test) {
  for (const deadline = Date.now() + kWaitMs; Date.now() < deadline; ) {
    const value = await test();
    if (value) return value;
    await new Promise((resolve) => setTimeout(resolve, 50));
  }
  throw new Error(`${what}: not within ${kWaitMs} ms`);
}

const zqctl = (...words) =>
  JSON.parse(execFileSync(`${build}/tools/zqctl/zqctl`, ['-u', '127.0.0.1:32896', '-j', ...words]));

writeFileSync(`${work}/scenario`, 'clip NEWS 00:00:10:00 00:00:04:00\nclip PROMO1 00:00:14:00 00:01:00:00\n');
const rack = start(`${build}/tools/rack/rack`, ['udp', '127.0.0.1', '32896', '--scenario',
  `${work}/scenario`, '-s', `${work}/board.sock`, '--http', '127.0.0.1:0']);
const origin = await until('the page address', () => rack.output.match(/page on (http:\S+)\//)?.[1]);
const post = (what, fields, headers = {}) =>
  fetch(`${origin}/api/${what}`, { method: 'POST', headers, body: new URLSearchParams(fields) });
const api = async (what, fields) => (await (fields ? post(what, fields) : fetch(`${origin}/api/${what}`))).json();
const logged = async (source, pattern) =>
  (await api('log')).entries.some((e) => e.source.startsWith(source) && pattern.test(`${e.hex} ${e.text}`));

const daemon = start(`${build}/apps/vlmgpiod/vlmgpiod.out`, ['-v'], { TLAPI_SIM_SOCKET: `${work}/board.sock` });
const probe = dgram.createSocket('udp4');
await until('the daemon relaying a network event', async () => {
  probe.send(Buffer.from([0, 0, 0x7e, 0x57, 0, 0, 0, 0]), 42002, '127.0.0.1');
  return logged('gpi', /line 32343 status 0/);
});
probe.close();

const browser = await puppeteer.launch({
  executablePath: '/usr/bin/chromium',
  ignoreDefaultArgs: true,
  args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
    '--disable-background-networking', '--disable-component-update', '--disable-sync',
    `--user-data-dir=${work}/profile`],
  defaultViewport: { width: 1100, height: 680 },
});
const page = await browser.newPage();
const requested = [];
page.on('request', (request) => requested.push(request.url()));
const errors = [];
page.on('pageerror', (error) => errors.push(error.message));
const text = (selector) => page.$eval(selector, (e) => e.textContent);
const pageLogged = (source, pattern) =>
  until(`${source} ${pattern} in the page's log`, () =>
    page.$$eval('#log li', (rows, s, p) => rows.some((r) => r.dataset.source.startsWith(s) &&
      new RegExp(p).test(r.textContent)), source, pattern.source));

const checks = [
  ['the page loads and its event stream is live', async () => {
    await page.goto(`${origin}/`);
    await page.waitForSelector('#live.lit', { timeout: kWaitMs });
  }],
  ['clicking GPI switch 3: the daemon sends event (3, 1) to 42000 and 43 BF F0 08 08 02 to the server, named', async () => {
    await page.click('.switch[data-line="3"]');
    await pageLogged('gpi :42000', /GPI event line 3 status 1/);
    await pageLogged('udp :32896', /43 BF F0 08 08 02\s+GPI ACTIVITY transitions 08 levels 08/);
    await until('the daemon saying so', () => daemon.output.includes('Raise GPI (#3, 1)'));
  }],
  ['shift-clicking GPI switch 5 pulses it: event (5, 2), the switch stays off', async () => {
    await page.keyboard.down('Shift');
    await page.click('.switch[data-line="5"]');
    await page.keyboard.up('Shift');
    await pageLogged('gpi :42000', /GPI event line 5 status 2/);
    if ((await page.$eval('.switch[data-line="5"]', (e) => e.getAttribute('aria-pressed'))) !== 'false')
      throw new Error('switch 5 stayed on');
  }],
  ['a GPO request for line 2 lights lamp 2 and no other', async () => {
    execFileSync(`${build}/tools/gpioctl/gpioctl`, ['set', '2=1']);
    await page.waitForSelector('.gpo[data-line="2"].lit', { timeout: kWaitMs });
    const lit = await page.$$eval('.gpo.lit', (lamps) => lamps.map((l) => l.dataset.line).join());
    if (lit !== '2') throw new Error(`lamps lit: ${lit}`);
  }],
  ['loading NEWS from the clip list, then zqctl play: PLAY lit, the timecode runs', async () => {
    await page.click('#clips tbody tr:first-child button');
    await until('NEWS loaded', async () => (await text('#loaded')) === 'NEWS');
    zqctl('raw', '40', '10'); // IN entry, for the screenshot
    const before = await text('#timecode');
    zqctl('play');
    await page.waitForSelector('[data-lamp="playing"].lit', { timeout: kWaitMs });
    const first = await until('the timecode moving', async () => (await text('#timecode')) !== before && text('#timecode'));
    await until('the timecode moving on', async () => (await text('#timecode')) > first);
    await page.screenshot({ path: screenshot });
  }],
  ['the NAK button arms a NAK that the next command gets', async () => {
    await page.click('[data-fault="nak"]');
    await until('the fault shown', async () => (await text('#faults')).includes('NAK 01'));
    try {
      zqctl('stop');
      throw new Error('stop was not refused');
    } catch (error) {
      if (!String(error.stderr).includes('NAK 01')) throw error;
    }
    await until('the fault used', async () => (await text('#faults')) === '');
  }],
  ['the Corrupt button: the next answer is wrongly summed, and the log shows it beside its frame', async () => {
    await page.click('[data-fault="corrupt"]');
    await until('the fault shown', async () => (await text('#faults')).includes('corrupt checksum'));
    if (!/checksum is wrong/.test(spawnSync(`${build}/tools/zqctl/zqctl`, ['-u', '127.0.0.1:32896', 'stop']).stderr))
      throw new Error('the corrupt answer was taken');
    await pageLogged('udp :32896', /20 00 20\s+STOP/);
    await pageLogged('udp :32896', /\u2190\s*10 01 12\s+ACK \(bad checksum\)/);
  }],
  ['the JSON API and the page show what the library reads over the wire, IN and OUT too', async () => {
    zqctl('stop');
    // An edit point's data sense answers 74 1x and the point's BCD timecode, frames first.
    const point = (cmd2) => zqctl('raw', '60', cmd2).answer.split(' ').slice(2, 6).reverse().join(':');
    const steps = [
      async () => { await api('load', { clip: 'PROMO1' }); zqctl('raw', '40', '10'); }, // IN entry
      async () => { zqctl('cue', '00:00:20:00'); zqctl('raw', '40', '11'); await api('local', { local: 'on' }); },
    ];
    for (const step of steps) {
      await step();
      const state = await api('state');
      const { status, flags } = zqctl('status');
      const wire = { status, local: flags.includes('local'), cued: flags.includes('cue-complete'),
        timecode: zqctl('timecode').timecode, clips: zqctl('clip', 'list').clips, in: point('10'), out: point('11') };
      const { server } = state;
      const shown = { status: server.status.slice(0, status.length), local: server.local, cued: server.cued,
        timecode: server.timecode, clips: state.clips.map((c) => c.id), in: server.in,
        out: server.out ?? '00:00:00:00' }; // a point not set reads as zero on the wire
      if (JSON.stringify(shown) !== JSON.stringify(wire))
        throw new Error(`API ${JSON.stringify(shown)}, library ${JSON.stringify(wire)}`);
      for (const clip of state.clips)
        if (zqctl('clip', 'length', clip.id).length !== clip.length) throw new Error(`${clip.id}'s length`);
      await until('the page showing IN and OUT', async () =>
        `${await text('#in')} ${await text('#out')}` === `${server.in} ${server.out ?? '--:--:--:--'}`);
    }
  }],
  ['the API refuses bad values, a missing clip and another site, and changes nothing', async () => {
    // A row without fields is a GET of that path. Every refusal says why, as JSON.
    const rows = [['gpi', { line: '8', action: 'on' }, 400], ['gpi', { line: '1', action: 'flip' }, 400],
      ['gpi', { levels: '0x100' }, 400], ['local', { local: 'yes' }, 400], ['load', { clip: 'NOPE' }, 404],
      ['fault', { kind: 'nak', bits: '256' }, 400], ['fault', { kind: 'late', ms: '0' }, 400],
      ['fault', { kind: 'restart', ms: '60001' }, 400], ['fault', { kind: 'refuse', byte: '0x100' }, 400],
      ['gpi', { line: '1', action: 'on' }, 403, { Origin: 'http://example.com' }],
      ['gpi?line=9&action=on', {}, 400], ['gpi', { levels: '5', line: '1' }, 400],
      ['../rack.js%00.html'], ['../index.html/'], ['../rackXjs'], ['nothing']];
    for (const [what, fields, status = 404, headers] of rows) {
      const answer = await (fields ? post(what, fields, headers) : fetch(`${origin}/api/${what}`));
      const { error } = await answer.json();
      if (answer.status !== status || typeof error !== 'string') throw new Error(`${what} ${JSON.stringify(fields)}: ${answer.status} ${error}`);
    }
    const state = await api('state');
    if (state.board.switches !== 8 || state.faults.length) throw new Error(`switches ${state.board.switches}, faults ${state.faults}`);
  }],
  ['the page fetched nothing from elsewhere, uses no web fonts and raised no error', async () => {
    const foreign = requested.filter((url) => !url.startsWith(`${origin}/`) && !url.startsWith('data:'));
    const fonts = await page.evaluate(() => document.fonts.size +
      [...document.styleSheets].flatMap((s) => [...s.cssRules]).filter((r) => r instanceof CSSFontFaceRule || r instanceof CSSImportRule).length);
    if (foreign.length || fonts || requested.length < 3 || errors.length)
      throw new Error(`requests ${requested.join(' ')}; ${fonts} fonts; errors ${errors.join('; ')}`);
  }],
  ['SIGTERM stops the rack with status 0 and removes its socket', async () => {
    await browser.close();
    const status = new Promise((resolve) => rack.on('exit', (code, signal) => resolve(code ?? signal)));
    rack.kill();
    if ((await status) !== 0 || existsSync(`${work}/board.sock`)) throw new Error(`status ${await status}`);
  }],
];

let failed = 0;
for (const [name, check] of checks) {
  const from = Date.now();
  try {
    await check();
    console.log(`ok    ${name} (${Date.now() - from} ms)`);
  } catch (error) {
    failed += 1;
    console.log(`FAIL  ${name}: ${error.message}`);
  }
}
await browser.close();
for (const child of children) if (child.exitCode === null) child.kill();
if (failed) console.log(`rack:\n${rack.output}\ndaemon:\n${daemon.output}`);
rmSync(work, { recursive: true, force: true });
const seconds = ((Date.now() - began) / 1000).toFixed(1);
console.log(failed ? `browser: ${failed} of ${checks.length} checks FAILED in ${seconds} s`
  : `browser: ${checks.length} checks passed in ${seconds} s (screenshot ${screenshot})`);
process.exit(failed ? 1 : 0);
