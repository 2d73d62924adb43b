// The dev service's web console in a real browser (Debian's chromium, driven by playwright-core):
// a code generated on the page pairs a headless companion, the device shows up online, and a
// tool call sent from the form comes back with the companion's answer and its time.
//
//   node console.test.mjs --devservice PATH --companion PATH [--out DIR] [--chromium PATH]
//
// Exit status: 0 passed, 1 failed, 77 skipped (no playwright-core or no chromium).

import { spawn } from 'node:child_process';
import { existsSync } from 'node:fs';
import { mkdir, mkdtemp, rm, writeFile } from 'node:fs/promises';
import { tmpdir } from 'node:os';
import { basename, join } from 'node:path';
import { parseArgs } from 'node:util';

const skipped = 77;
const wholeTestLimitMs = 150_000;

const { values: options } = parseArgs({
  options: {
    devservice: { type: 'string', default: process.env.QUILLMAR_DEVSERVICE_BIN },
    companion: { type: 'string', default: process.env.QUILLMAR_COMPANION_BIN },
    chromium: { type: 'string', default: process.env.QUILLMAR_CHROMIUM ?? '/usr/bin/chromium' },
    out: { type: 'string', default: process.env.QUILLMAR_CONSOLE_OUT ?? process.cwd() },
  },
});

function skip(reason) {
  console.log(`SKIP: ${reason}`);
  process.exit(skipped);
}

if (!options.devservice || !options.companion) {
  console.error('usage: console.test.mjs --devservice PATH --companion PATH [--out DIR]');
  process.exit(2);
}
let chromium;
try {
  ({ chromium } = await import('playwright-core'));
} catch {
  skip('playwright-core is not installed (run tests/console/setup.sh)');
}
if (!existsSync(options.chromium)) {
  skip(`no chromium at ${options.chromium} (run tests/console/setup.sh)`);
}

const children = [];
let scratch;
let context;

function log(message) {
  console.log(`[${(performance.now() / 1000).toFixed(1)}s] ${message}`);
}

function check(condition, message) {
  if (!condition) {
    throw new Error(message);
  }
  log(`ok: ${message}`);
}

// A child process whose output is kept for the failure report.
function start(name, command, args, env) {
  const child = spawn(command, args, { env, stdio: ['ignore', 'pipe', 'pipe'] });
  child.output = '';
  child.stdout.on('data', (chunk) => (child.output += chunk));
  child.stderr.on('data', (chunk) => (child.output += chunk));
  child.exited = new Promise((resolve) => child.on('exit', (code, signal) => resolve({ code, signal })));
  child.label = name;
  children.push(child);
  return child;
}

async function run(name, command, args, env) {
  const child = start(name, command, args, env);
  const timer = setTimeout(() => child.kill('SIGKILL'), 30_000);
  const { code } = await child.exited;
  clearTimeout(timer);
  if (code !== 0) {
    throw new Error(`${name} exited with ${code}:\n${child.output}`);
  }
  return child.output;
}

async function waitFor(what, probe, timeoutMs = 20_000) {
  const deadline = Date.now() + timeoutMs;
  for (;;) {
    const value = await probe();
    if (value) {
      return value;
    }
    if (Date.now() > deadline) {
      throw new Error(`timed out waiting for ${what}`);
    }
    await new Promise((resolve) => setTimeout(resolve, 100));
  }
}

async function api(base, path, body) {
  const response = await fetch(base + path, {
    method: body === undefined ? 'GET' : 'POST',
    headers: { 'Content-Type': 'application/json' },
    body: body === undefined ? undefined : JSON.stringify(body),
    signal: AbortSignal.timeout(10_000),
  });
  return { status: response.status, json: await response.json() };
}

async function main() {
  scratch = await mkdtemp(join(tmpdir(), 'quillmar-console-'));
  const home = join(scratch, 'home');
  const runtime = join(scratch, 'runtime');
  for (const dir of [home, join(home, '.config'), join(home, '.local/share'), join(home, '.cache')]) {
    await mkdir(dir, { recursive: true });
  }
  await mkdir(runtime, { mode: 0o700 });

  // The shared folder: a space in its name, a plain file and one whose name is markup.
  const shared = join(scratch, 'Field Notes');
  await mkdir(shared);
  const fileName = 'harvest-report-2024.txt';
  const markupName = '<img src=x onerror="window.__injected=1">.txt';
  await writeFile(join(shared, fileName), 'Barley 41 t, oats 17 t.\n');
  await writeFile(join(shared, markupName), 'not markup\n');

  // The service.
  const service = start('quillmar-devservice', options.devservice, ['--port', '0'], process.env);
  const base = await waitFor('the service to listen', async () => {
    const match = /^listening (http:\/\/127\.0\.0\.1:\d+)$/m.exec(service.output);
    return match?.[1];
  });
  log(`service at ${base}`);

  // The page and its files come from the service, with a policy that allows nothing else.
  const index = await fetch(`${base}/`, { signal: AbortSignal.timeout(10_000) });
  check(index.status === 200 && index.headers.get('content-type').startsWith('text/html'),
    'the service serves the page at /');
  check(/script-src 'self'/.test(index.headers.get('content-security-policy') ?? ''),
    'the page comes with a content security policy');
  const stray = await fetch(`${base}/console/missing.js`, { signal: AbortSignal.timeout(10_000) });
  check(stray.status === 404, 'an unknown console file answers 404');

  // A device that never connects, named with markup: shown offline, as text.
  const evilName = '<b onmouseover="window.__injected=2">Evil</b> & "co" <script>window.__injected=3</script>';
  const spare = await api(base, '/api/v1/agent/pairing-codes', {});
  const claimed = await api(base, '/api/v1/devices/pair/claim', {
    code: spare.json.code,
    device_name: evilName,
    platform: 'linux',
  });
  check(claimed.status === 200, 'a device named with markup is paired through the API');

  // The browser.
  const profile = join(scratch, 'chromium-profile');
  context = await chromium.launchPersistentContext(profile, {
    executablePath: options.chromium,
    headless: true,
    viewport: { width: 1360, height: 940 },
    deviceScaleFactor: 1,
    colorScheme: 'light',
    args: [
      '--headless',
      '--no-sandbox',
      '--disable-gpu',
      '--disable-quic',
      '--no-first-run',
      '--disable-background-networking',
      '--disable-component-update',
      '--disable-sync',
    ],
  });
  const page = context.pages()[0] ?? (await context.newPage());
  const pageProblems = [];
  page.on('pageerror', (error) => pageProblems.push(`page error: ${error.message}`));
  page.on('console', (message) => {
    // Chromium logs every HTTP error status; the service's refusals are expected here.
    const refusal = /^Failed to load resource: the server responded with a status of/;
    if (message.type() === 'error' && !refusal.test(message.text())) {
      pageProblems.push(`console error: ${message.text()}`);
    }
  });
  page.on('dialog', (dialog) => {
    pageProblems.push(`unexpected dialog: ${dialog.message()}`);
    dialog.dismiss();
  });
  // Nothing but the service itself may be reached.
  await page.route('**/*', (route) => {
    const url = route.request().url();
    if (url.startsWith(`${base}/`)) {
      return route.continue();
    }
    pageProblems.push(`request outside the service: ${url}`);
    return route.abort();
  });

  await page.goto(`${base}/`);
  check((await page.title()) === 'Quillmar dev service', 'the console loads');
  await page.locator('#service-state[data-state="up"]').waitFor();
  await page.locator('#devices-updated', { hasText: 'Updated' }).waitFor();
  await page.screenshot({ path: join(options.out, 'console-start.png'), fullPage: true });

  // A code generated on the page, with its countdown.
  await page.getByRole('button', { name: /generate a code/i }).click();
  const codeBox = page.locator('#pairing-code');
  await page.waitForFunction(() =>
    /^[A-Z0-9]{8}$/.test(document.getElementById('pairing-code').textContent.trim()),
  );
  const code = (await codeBox.textContent()).trim();
  check(/^[A-Z0-9]{8}$/.test(code), `the page shows a pairing code (${code})`);
  const expiry = await page.locator('#code-expiry').textContent();
  check(/Expires in (9:5\d|10:00)/.test(expiry), `the code counts down ("${expiry}")`);
  check(
    (await page.locator('#pair-command').textContent()).includes(`pair ${code}`),
    'the pairing command names the code',
  );

  // A headless companion paired with that code, sharing the folder.
  const companionEnv = {
    PATH: process.env.PATH,
    HOME: home,
    XDG_CONFIG_HOME: join(home, '.config'),
    XDG_DATA_HOME: join(home, '.local/share'),
    XDG_CACHE_HOME: join(home, '.cache'),
    XDG_RUNTIME_DIR: runtime,
    QUILLMAR_API: base,
    QT_QPA_PLATFORM: 'offscreen',
  };
  for (const name of ['ASAN_OPTIONS', 'UBSAN_OPTIONS', 'LANG', 'LC_ALL']) {
    if (process.env[name] !== undefined) {
      companionEnv[name] = process.env[name];
    }
  }
  await run('quillmar-companion pair', options.companion, ['pair', code], companionEnv);
  const folderName = (
    await run('quillmar-companion folders add', options.companion, ['folders', 'add', shared], companionEnv)
  ).trim();
  check(folderName === basename(shared), `the folder is shared as "${folderName}"`);
  const companion = start('quillmar-companion --headless', options.companion, ['--headless'], companionEnv);

  const devices = (await api(base, '/api/v1/agent/devices')).json.devices;
  const mine = devices.find((device) => device.device_name !== evilName);
  check(mine !== undefined, `the companion is paired as "${mine?.device_name}"`);
  const row = page.locator(`.device[data-device-id="${mine.device_id}"]`);
  await row.locator('.state-pill', { hasText: 'Online' }).waitFor({ timeout: 20_000 });
  check((await row.getAttribute('data-online')) === 'true', 'the page shows the companion online');

  // The markup-named device: offline, its name as plain text, nothing injected.
  const evilRow = page.locator(`.device[data-device-id="${claimed.json.device_id}"]`);
  check((await evilRow.getAttribute('data-online')) === 'false', 'the other device shows offline');
  check(
    (await evilRow.locator('.device-name').textContent()) === evilName,
    'a device name with markup is shown as text',
  );
  check((await page.locator('#device-list b, #device-list script').count()) === 0,
    'a device name adds no elements');

  // A call from the form, sent with the keyboard.
  await page.locator('#call-device').selectOption(mine.device_id);
  await page.getByRole('radio', { name: /local_list_files/ }).check();
  const params = page.locator('#call-params');
  await params.fill(JSON.stringify({ path: folderName }));
  await params.press('Control+Enter');
  const resultBody = page.locator('#result-body');
  await resultBody.getByText(fileName).waitFor({ timeout: 20_000 });
  check(true, `the result shows the companion's file "${fileName}"`);
  check((await page.locator('#result-status').textContent()) === 'ok', 'the result is marked ok');
  const took = await page.locator('#result-time').textContent();
  check(/^\d+ ms$|^\d+\.\d+ s$/.test(took), `the call's time is shown ("${took}")`);
  const frame = JSON.parse(await resultBody.textContent());
  check(frame.type === 'result' && frame.ok === true && frame.result.count === 2,
    'the result frame is pretty-printed JSON of the whole frame');
  check((await resultBody.textContent()).includes(JSON.stringify(markupName)),
    'a file name with markup is shown as text');
  check((await page.locator('#result-body img').count()) === 0, 'a file name adds no elements');
  await page.screenshot({ path: join(options.out, 'console.png'), fullPage: true });
  log(`screenshot: ${join(options.out, 'console.png')}`);

  // A tool error is shown plainly.
  await page.getByRole('radio', { name: /local_read_file/ }).check();
  await params.fill(JSON.stringify({ path: `${folderName}/missing.txt` }));
  await page.getByRole('button', { name: 'Send call' }).click();
  const alert = page.locator('#result-error');
  await alert.getByText(`File not found: ${folderName}/missing.txt`).waitFor();
  check((await page.locator('#result-status').textContent()) === 'tool error',
    'a tool error is shown as such');

  // So is the service's refusal for an offline device.
  await page.locator('#call-device').selectOption(claimed.json.device_id);
  await page.getByRole('button', { name: 'Send call' }).click();
  await alert.getByText(`Device ${claimed.json.device_id} is offline.`).waitFor();
  check((await page.locator('#result-http').textContent()).startsWith('HTTP 409'),
    'a call to an offline device shows the service\'s 409');

  // Parameters that are not JSON never leave the page.
  await params.fill('{"path": ');
  check((await params.getAttribute('aria-invalid')) === 'true', 'bad JSON is flagged');
  await page.screenshot({ path: join(options.out, 'console-errors.png'), fullPage: true });

  check(await page.evaluate(() => window.__injected === undefined), 'nothing injected ran');
  check(pageProblems.length === 0, `no page problems${pageProblems.length ? `:\n${pageProblems.join('\n')}` : ''}`);

  // The dark scheme, for a look.
  await page.emulateMedia({ colorScheme: 'dark' });
  await page.locator('#call-device').selectOption(mine.device_id);
  await page.getByRole('radio', { name: /local_list_files/ }).check();
  await params.fill(JSON.stringify({ path: folderName }));
  await params.press('Control+Enter');
  await page.locator('#result-status', { hasText: /^ok$/ }).waitFor();
  await page.screenshot({ path: join(options.out, 'console-dark.png'), fullPage: true });

  companion.kill('SIGTERM');
}

async function cleanUp() {
  await context?.close().catch(() => {});
  for (const child of children) {
    if (child.exitCode === null && child.signalCode === null) {
      child.kill('SIGTERM');
      const stopped = await Promise.race([
        child.exited.then(() => true),
        new Promise((resolve) => setTimeout(() => resolve(false), 5000)),
      ]);
      if (!stopped) {
        child.kill('SIGKILL');
      }
    }
  }
  if (scratch) {
    await rm(scratch, { recursive: true, force: true });
  }
}

const watchdog = setTimeout(() => {
  console.error(`FAIL: the test took longer than ${wholeTestLimitMs / 1000} s`);
  for (const child of children) {
    child.kill('SIGKILL');
  }
  process.exit(1);
}, wholeTestLimitMs);

let failed = false;
try {
  await main();
} catch (error) {
  failed = true;
  console.error(`FAIL: ${error.stack ?? error}`);
  for (const child of children) {
    console.error(`--- ${child.label} output ---\n${child.output}`);
  }
}
await cleanUp();
clearTimeout(watchdog);
console.log(failed ? '0 passed, 1 failed' : '1 passed, 0 failed');
process.exit(failed ? 1 : 0);
