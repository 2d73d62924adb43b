// The companion's MCP server against the official TypeScript SDK's stdio client, in a throwaway
// home: once on its own (no companion running), once handing its calls to a running headless
// companion paired with the dev service. The client lists the tools and calls each of them; it
// sees a refused escape through a link, a read-only refusal and a declined write; the kept
// versions and the companion's activity record the calls.
//
//   node mcp.test.mjs --devservice PATH --companion PATH
//
// Exit status: 0 passed, 1 failed.

import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { spawn } from 'node:child_process';
import { mkdir, mkdtemp, readFile, rm, symlink, writeFile } from 'node:fs/promises';
import { existsSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { parseArgs } from 'node:util';

const wholeTestLimitMs = 150_000;
const clientName = 'sdk-test';

const { values: options } = parseArgs({
  options: {
    devservice: { type: 'string' },
    companion: { type: 'string' },
  },
});
if (!options.devservice || !options.companion) {
  console.error('usage: mcp.test.mjs --devservice PATH --companion PATH');
  process.exit(2);
}

const children = [];
let scratch;
let env;

function log(message) {
  console.log(`[${(performance.now() / 1000).toFixed(1)}s] ${message}`);
}

function check(condition, message) {
  if (!condition) {
    throw new Error(message);
  }
  log(`ok: ${message}`);
}

function equal(actual, expected, message) {
  const a = JSON.stringify(actual);
  const e = JSON.stringify(expected);
  if (a !== e) {
    throw new Error(`${message}\n  actual:   ${a}\n  expected: ${e}`);
  }
  log(`ok: ${message}`);
}

// A child process whose output is kept for the failure report.
function start(name, command, args) {
  const child = spawn(command, args, { env, stdio: ['ignore', 'pipe', 'pipe'] });
  child.output = '';
  child.stdout.on('data', (chunk) => (child.output += chunk));
  child.stderr.on('data', (chunk) => (child.output += chunk));
  child.exited = new Promise((resolve) => child.on('exit', (code, signal) => resolve({ code, signal })));
  child.label = name;
  children.push(child);
  return child;
}

// One companion command; its output, or a failure when its exit status is not `status`.
async function companion(args, status = 0) {
  const child = start(`quillmar-companion ${args.join(' ')}`, options.companion, args);
  const timer = setTimeout(() => child.kill('SIGKILL'), 30_000);
  const { code } = await child.exited;
  clearTimeout(timer);
  if (code !== status) {
    throw new Error(`quillmar-companion ${args.join(' ')} exited with ${code}:\n${child.output}`);
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

// A client of `quillmar-companion mcp`, started without a controlling terminal (setsid), as a
// desktop agent starts it: nobody can be asked on a terminal.
async function connect() {
  const transport = new StdioClientTransport({
    command: 'setsid',
    args: ['-w', options.companion, 'mcp'],
    env,
    stderr: 'pipe',
  });
  const client = new Client({ name: clientName, version: '1.0.0' });
  client.stderrText = '';
  transport.stderr?.on('data', (chunk) => (client.stderrText += chunk));
  await client.connect(transport);
  return client;
}

// The text of a tool's answer, and whether it is an error.
async function call(client, name, args) {
  const result = await client.callTool({ name, arguments: args });
  check(Array.isArray(result.content) && result.content[0]?.type === 'text',
    `${name} answers with text content`);
  return { text: result.content[0].text, isError: result.isError === true, structured: result.structuredContent };
}

async function expectError(client, name, args, text, what) {
  const answer = await call(client, name, args);
  check(answer.isError, `${what}: an error result`);
  equal(answer.text, text, `${what}: the companion's own words`);
  check(answer.structured === undefined, `${what}: no structured content`);
}

// Lines of `history`: id, time, path, size.
async function history() {
  return (await companion(['history']))
    .split('\n')
    .filter((line) => line.includes('\t'))
    .map((line) => line.split('\t'));
}

async function everyTool(client, tree) {
  const tools = await client.listTools();
  equal(tools.tools.map((t) => t.name).sort(),
    ['local_list_files', 'local_read_file', 'local_search_files', 'local_write_file'],
    'the four tools are listed');
  for (const tool of tools.tools) {
    check(tool.inputSchema?.type === 'object' && typeof tool.inputSchema.properties === 'object',
      `${tool.name} has a JSON Schema for its arguments`);
    check(tool.description.length > 20 && !tool.description.includes('\n'),
      `${tool.name} has a one-line description`);
  }
  const write = tools.tools.find((t) => t.name === 'local_write_file');
  equal(write.inputSchema.required, ['path'], 'local_write_file requires a path');

  let answer = await call(client, 'local_list_files', {});
  check(!answer.isError, 'listing the shared folders works');
  equal(answer.structured.items.map((i) => i.name), ['Docs', 'Ref'], 'both folders are listed');
  equal(JSON.parse(answer.text), answer.structured, 'the text is the structured result as JSON');

  answer = await call(client, 'local_read_file', { path: 'Docs/notes.txt' });
  equal(answer.structured, { content: 'first line\n', path: 'Docs/notes.txt', truncated: false },
    'a file is read');

  answer = await call(client, 'local_search_files', { query: '*.md' });
  equal(answer.structured.matches, ['Docs/sub/q1.md'], 'a search finds by name');

  await expectError(client, 'local_read_file', { path: 'Docs/escape/secret.txt' },
    'Path leads outside the shared folders.', 'a link out of the folder');
  await expectError(client, 'local_write_file', { path: 'Ref/manual.txt', content: 'x' },
    "The folder 'Ref' is shared read-only.", 'a write into the read-only folder');
  equal(await readFile(join(tree, 'Ref/manual.txt'), 'utf8'), 'do not change',
    'the read-only file is untouched');
  await expectError(client, 'local_read_file', {}, "A 'path' is required.", 'a read without a path');

  let failed;
  try {
    await client.callTool({ name: 'local_delete_everything', arguments: {} });
  } catch (error) {
    failed = error;
  }
  check(failed?.code === -32602, 'an unknown tool is a protocol error (invalid params)');
}

async function alone(tree) {
  log('-- on its own, no companion running');
  await companion(['approval', 'off']);
  const client = await connect();
  const server = client.getServerVersion();
  equal(server.name, 'quillmar-companion', 'the server names itself');
  check(client.getServerCapabilities()?.tools !== undefined, 'the server offers tools');
  await everyTool(client, tree);

  // Approval off: the write goes through and keeps what it replaced.
  let answer = await call(client, 'local_write_file', { path: 'Docs/notes.txt', content: 'changed' });
  equal(answer.structured, { bytes: 7, path: 'Docs/notes.txt', success: true }, 'a write works');
  const kept = (await history())[0];
  equal([kept[2], kept[3]], ['Docs/notes.txt', '11 bytes'], 'the replaced version is kept');
  await companion(['restore', kept[0]]);
  equal(await readFile(join(tree, 'Docs/notes.txt'), 'utf8'), 'first line\n', 'and restored');

  // Approval on, and no terminal to ask on: refused, as --headless refuses.
  await companion(['approval', 'on']);
  await client.close();
  const asking = await connect();
  await expectError(asking, 'local_write_file', { path: 'Docs/declined.txt', content: 'x' },
    "Write was declined on the user's computer.", 'a write nobody can approve');
  check(!existsSync(join(tree, 'Docs/declined.txt')), 'the declined write made nothing');
  check(asking.stderrText.includes(`Local agent: ${clientName}  local_write_file  Docs/declined.txt  declined`),
    'its own calls are told on standard error');
  await asking.close();
}

async function handedOver(tree) {
  log('-- handing calls to a running companion');
  const service = start('quillmar-devservice', options.devservice, ['--port', '0']);
  const base = await waitFor('the service to listen', async () =>
    /^listening (http:\/\/127\.0\.0\.1:\d+)$/m.exec(service.output)?.[1]);
  const code = await waitFor('the pairing code', async () =>
    /^pairing-code (\S+)$/m.exec(service.output)?.[1]);
  env.QUILLMAR_API = base;
  await companion(['pair', code]);
  const running = start('quillmar-companion --headless', options.companion, ['--headless']);
  await waitFor('the companion to connect', async () => running.output.includes('Connected to Quillmar'));

  const client = await connect();
  await everyTool(client, tree);
  // Approval is on, and the headless companion has no terminal either: declined there.
  await expectError(client, 'local_write_file', { path: 'Docs/handed.txt', content: 'x' },
    "Write was declined on the user's computer.", 'a write the running companion declines');

  const activity = await companion(['activity']);
  const ours = activity.split('\n').filter((line) => line.includes(`Local agent: ${clientName}`));
  check(ours.length === 7, `the companion's activity lists the local agent's calls (${ours.length})`);
  check(ours[0].includes('local_write_file  Docs/handed.txt  declined'), 'newest first: the declined write');
  check(activity.includes(`Local agent: ${clientName}  local_write_file  Ref/manual.txt  The folder 'Ref' is shared read-only.`),
    'the read-only refusal is in the activity');
  check(activity.includes(`Local agent: ${clientName}  local_read_file  Docs/escape/secret.txt  Path leads outside the shared folders.`),
    'the refused escape is in the activity');
  check(running.output.includes(`Local agent: ${clientName}  local_read_file  Docs/notes.txt  done`),
    'the headless companion prints the calls it ran');
  check(!client.stderrText.includes('local_read_file'), 'the server ran none of them itself');

  // Approval off, told to the running companion: the write goes through there, and is kept.
  await companion(['approval', 'off']);
  const answer = await waitFor('the write to be allowed', async () => {
    const a = await call(client, 'local_write_file', { path: 'Docs/handed.txt', content: 'handed' });
    return a.isError ? undefined : a;
  });
  equal(answer.structured, { bytes: 6, path: 'Docs/handed.txt', success: true }, 'the handed-over write works');
  equal((await history())[0].slice(2), ['Docs/handed.txt', 'new file'], 'the new file is recorded');
  check((await companion(['activity'])).split('\n')[0].includes('Docs/handed.txt  done, wrote 6 bytes'),
    'the write is the newest activity');

  // Paused: nothing is run.
  await companion(['pause']);
  await waitFor('the pause to reach the companion', async () => running.output.includes('Paused'));
  await expectError(client, 'local_read_file', { path: 'Docs/notes.txt' },
    "Sharing is paused on the user's computer.", 'a call while sharing is paused');
  await companion(['resume']);
  await client.close();
  running.kill('SIGTERM');
  await running.exited;
  service.kill('SIGTERM');
  await service.exited;
}

async function main() {
  scratch = await mkdtemp(join(tmpdir(), 'quillmar-mcp-'));
  const home = join(scratch, 'home');
  const runtime = join(scratch, 'runtime');
  for (const dir of [home, join(home, '.config'), join(home, '.local/share'), join(home, '.cache')]) {
    await mkdir(dir, { recursive: true });
  }
  await mkdir(runtime, { mode: 0o700 });
  env = {
    PATH: process.env.PATH,
    HOME: home,
    XDG_CONFIG_HOME: join(home, '.config'),
    XDG_DATA_HOME: join(home, '.local/share'),
    XDG_CACHE_HOME: join(home, '.cache'),
    XDG_RUNTIME_DIR: runtime,
    QT_QPA_PLATFORM: 'offscreen',
    QUILLMAR_API: 'http://127.0.0.1:9',
  };

  const tree = join(scratch, 'tree');
  await mkdir(join(tree, 'Docs/sub'), { recursive: true });
  await mkdir(join(tree, 'Ref'));
  await mkdir(join(tree, 'outside'));
  await writeFile(join(tree, 'Docs/notes.txt'), 'first line\n');
  await writeFile(join(tree, 'Docs/sub/q1.md'), '# q1\n');
  await writeFile(join(tree, 'Ref/manual.txt'), 'do not change');
  await writeFile(join(tree, 'outside/secret.txt'), 'secret');
  await symlink('../outside', join(tree, 'Docs/escape'));
  await companion(['folders', 'add', join(tree, 'Docs')]);
  await companion(['folders', 'add', join(tree, 'Ref'), '--read-only']);

  await alone(tree);
  await handedOver(tree);
  check(!(await readFile(join(tree, 'outside/secret.txt'), 'utf8')).includes('x'), 'nothing outside changed');
}

const limit = setTimeout(() => {
  console.error(`FAIL: the test took longer than ${wholeTestLimitMs / 1000} s`);
  for (const child of children) child.kill('SIGKILL');
  process.exit(1);
}, wholeTestLimitMs);

let status = 0;
try {
  await main();
  log('PASS');
} catch (error) {
  status = 1;
  console.error(`FAIL: ${error.stack ?? error}`);
  for (const child of children) {
    console.error(`--- ${child.label}:\n${child.output}`);
  }
} finally {
  for (const child of children) {
    if (child.exitCode === null && child.signalCode === null) child.kill('SIGKILL');
  }
  clearTimeout(limit);
  if (scratch) await rm(scratch, { recursive: true, force: true });
}
process.exit(status);
