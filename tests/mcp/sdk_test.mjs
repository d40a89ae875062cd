// Drives build/tesk-mcp with the official MCP TypeScript SDK client over stdio and holds
// every answer against the command line's own output on a small demo home.
//
//   node sdk_test.mjs <tesk-mcp> <tesk> <tesk-demo-home>
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';

import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { McpError } from '@modelcontextprotocol/sdk/types.js';

const [mcpBin, teskBin, demoBin] = process.argv.slice(2);
if (!mcpBin || !teskBin || !demoBin) {
  console.error('usage: node sdk_test.mjs <tesk-mcp> <tesk> <tesk-demo-home>');
  process.exit(4);
}

const scratch = fs.mkdtempSync(path.join(os.tmpdir(), 'tesk-mcp-sdk-'));
const home = path.join(scratch, 'home');
const tmp = path.join(scratch, 'tmp');
fs.mkdirSync(tmp, { mode: 0o700 });
const made = spawnSync(demoBin, [home, '--scale', 'small'], { encoding: 'utf8' });
assert.equal(made.status, 0, `demo home: ${made.stderr}`);
// Both sides see the same surroundings; TMPDIR is private so leftovers show.
const env = { HOME: home, TMPDIR: tmp, TZ: 'UTC', PATH: process.env.PATH ?? '/usr/bin:/bin' };

function cli(args) {
  const r = spawnSync(teskBin, args, { env, encoding: 'utf8', maxBuffer: 64 << 20 });
  return { text: r.stdout, exit: r.status };
}

// Every file of the home with its size and modification time: nothing may change.
function census(dir) {
  const out = [];
  for (const e of fs.readdirSync(dir, { withFileTypes: true, recursive: true })) {
    const p = path.join(e.parentPath ?? e.path, e.name);
    const s = fs.lstatSync(p);
    out.push(`${p} ${s.size} ${s.mtimeMs}`);
  }
  return out.sort();
}

// The receipt's ms is the one field two runs may differ in; doctor's capture heartbeat
// line also counts seconds since the status file was written.
const steady = (text, tool) => {
  let t = text.replace(/"ms":\d+/g, '"ms":0');
  if (tool === 'doctor') t = t.replace(/\b\d+s\b/g, 'Ns');
  return t;
};
const receiptOf = (text) => {
  const first = text.split('\n')[0];
  return first.startsWith('#tesk ') ? JSON.parse(first.slice(6)) : null;
};

const apiText = cli(['api']).text.split('\n');
const api = JSON.parse(apiText.slice(1, -2).join('\n'));
const argumentName = (flag) => flag.replace(/^--/, '').replaceAll('-', '_');

// The command line a call stands for: selectors in the catalogue's order, text last.
function commandLine(tool, args) {
  const line = [tool];
  for (const s of api.selectors) {
    const v = args[argumentName(s.flag)];
    if (v === undefined || v === false) continue;
    if (v === true) line.push(s.flag);
    else if (Array.isArray(v)) for (const item of v) line.push(s.flag, item);
    else line.push(s.flag, String(v));
  }
  if (args.text !== undefined) line.push(args.text);
  return line;
}

let failures = 0;
async function check(name, body) {
  try {
    await body();
    console.log(`ok   ${name}`);
  } catch (e) {
    failures++;
    console.log(`FAIL ${name}\n${e.stack ?? e}`);
  }
}

const before = census(home);
const transport = new StdioClientTransport({ command: mcpBin, args: [], env, stderr: 'pipe' });
let stderr = '';
transport.stderr?.on('data', (d) => (stderr += d));
const client = new Client({ name: 'tesk-sdk-test', version: '1.0.0' });
await client.connect(transport);

await check('initialize: server info, tools capability', async () => {
  assert.equal(client.getServerVersion().name, 'tesk');
  assert.match(client.getServerVersion().version, /^\d+\.\d+\.\d+$/);
  assert.ok(client.getServerCapabilities().tools);
  await client.ping();
});

const listed = (await client.listTools()).tools;
const tools = Object.fromEntries(listed.map((t) => [t.name, t]));
const types = {
  limit: 'integer', budget: 'integer', assert: 'array',
  include_reactions: 'boolean', no_groups: 'boolean', include_filtered: 'boolean', unread: 'boolean',
};

await check('tools/list: one tool per verb of the catalogue, schemas from its tables', async () => {
  assert.deepEqual(listed.map((t) => t.name), api.verbs.map((v) => v.name));
  for (const verb of api.verbs) {
    const t = tools[verb.name];
    assert.ok(t.description.startsWith(verb.answers), verb.name);
    assert.match(t.description, /two identical receipts mean the answer is complete/);
    assert.deepEqual(t.annotations, { readOnlyHint: true, openWorldHint: false });
    assert.equal(t.inputSchema.type, 'object');
    const props = t.inputSchema.properties ?? {};
    if (!api.selectableVerbs.includes(verb.name)) {
      assert.deepEqual(Object.keys(props), [], verb.name);
      continue;
    }
    for (const s of api.selectors) {
      const p = props[argumentName(s.flag)];
      assert.ok(p, `${verb.name} ${s.flag}`);
      assert.equal(p.type, types[argumentName(s.flag)] ?? 'string', s.flag);
      if (s.flag === '--assert') assert.equal(p.items.type, 'string');
      if (s.values && s.flag !== '--src') assert.deepEqual(p.enum, s.values, s.flag);
    }
  }
  for (const v of ['search', 'thread', 'span', 'im', 'cal', 'mail', 'who', 'sql']) {
    assert.equal(tools[v].inputSchema.properties.text.type, 'string', v);
  }
  assert.deepEqual(tools.thread.inputSchema.required, ['who']);
  assert.deepEqual(tools.sql.inputSchema.required, ['text']);
});

// One call per tool; fixed windows and explicit formats keep both runs from depending on
// the second they ran in (a default window ends "now"; an aggregate names a fresh spill file).
const window = { since: '2020-01-01', until: '2031-01-01' };
const calls = {
  search: { text: 'dinner', format: 'tsv', limit: 5 },
  thread: { who: '5550123', format: 'tsv', limit: 5 },
  span: { ...window, src: 'im,mail,cal,reminder,web', format: 'json', limit: 8 },
  im: { ...window, text: 'the', format: 'tsv', limit: 4, include_reactions: true },
  cal: { ...window, text: 'sync', format: 'tsv', limit: 5, unread: true },
  mail: { ...window, format: 'tsv', limit: 3, assert: ['rows>=1', 'capped'] },
  who: { text: 'me' },
  sql: { text: 'SELECT count(*) AS n FROM tesk_message' },
  doctor: {}, link: {}, doors: {}, gotchas: {}, views: {}, api: {},
};

await check('every tool answers what the command line prints', async () => {
  assert.deepEqual(Object.keys(calls).sort(), Object.keys(tools).sort());
  for (const [tool, args] of Object.entries(calls)) {
    const r = await client.callTool({ name: tool, arguments: args });
    const line = cli(commandLine(tool, args));
    assert.equal(r.content.length, 1, tool);
    assert.equal(r.content[0].type, 'text', tool);
    const text = r.content[0].text;
    assert.equal(steady(text, tool), steady(line.text, tool), `${tool}: text`);
    assert.equal(r.structuredContent.exit, line.exit, `${tool}: exit`);
    assert.equal(r.isError, line.exit === 4 || line.exit === 5, `${tool}: isError`);
    const receipt = receiptOf(text);
    assert.ok(receipt, `${tool}: receipt`);
    assert.equal(text.trimEnd().split('\n').at(-1), text.split('\n')[0], `${tool}: two receipts`);
    assert.deepEqual({ ...r.structuredContent.receipt, ms: 0 }, { ...receipt, ms: 0 }, tool);
    if (tool === 'cal') assert.ok(receipt.notes.some((n) => n.startsWith('--unread: ')), 'cal: --unread note');
  }
});

async function protocolError(call) {
  try {
    await call();
  } catch (e) {
    assert.ok(e instanceof McpError, String(e));
    return e.code;
  }
  assert.fail('no error');
}

await check('error paths answer and the session survives them', async () => {
  const bad = await client.callTool({ name: 'span', arguments: { limit: -1 } });
  assert.equal(bad.isError, true);
  assert.equal(bad.structuredContent.exit, 4);
  assert.match(bad.content[0].text, /^tesk: --limit needs a number >= 0$/m);
  assert.deepEqual(bad.structuredContent.receipt, { v: 1, error: '--limit needs a number >= 0' });
  assert.equal(steady(bad.content[0].text), steady(cli(['span', '--limit', '-1']).text));

  assert.equal(await protocolError(() => client.callTool({ name: 'span', arguments: { limit: 'ten' } })), -32602);

  const orphan = await client.callTool({ name: 'thread', arguments: {} });
  assert.equal(orphan.isError, true);
  assert.equal(orphan.content[0].text, 'tesk: `thread` needs --who\n');
  assert.equal(orphan.structuredContent.receipt, null);

  assert.equal(await protocolError(() => client.callTool({ name: 'rm', arguments: {} })), -32602);
  assert.equal(await protocolError(() => client.callTool({ name: 'views', arguments: { text: 'x' } })), -32602);

  await client.ping();
  const after = await client.callTool({ name: 'who', arguments: { text: 'me' } });
  assert.equal(after.isError, false);
});

await check('twenty calls in one session', async () => {
  const names = ['span', 'search', 'who', 'sql', 'gotchas'];
  for (let i = 0; i < 20; i++) {
    const tool = names[i % names.length];
    const args = { ...calls[tool] };
    if ('limit' in args) args.limit = 1 + i;
    const r = await client.callTool({ name: tool, arguments: args });
    const lines = r.content[0].text.trimEnd().split('\n');
    assert.ok(lines[0].startsWith('#tesk {'), `${i} ${tool}`);
    assert.equal(lines.at(-1), lines[0], `${i} ${tool}`);
    assert.equal(r.isError, false, `${i} ${tool}`);
  }
});

await check('nothing written into the home, no snapshot left behind', async () => {
  assert.deepEqual(census(home), before);
  assert.deepEqual(fs.readdirSync(tmp).filter((f) => !f.startsWith('tesk')), []);
  const left = fs.readdirSync(tmp, { recursive: true }).filter((f) => /snapshot|\.db$|chat/.test(f));
  assert.deepEqual(left, []);
  assert.equal(stderr, '');
});

await check('each call is a fresh run: a message written between two calls is seen', async () => {
  const count = async () => {
    const r = await client.callTool({ name: 'sql', arguments: { text: 'SELECT count(*) AS n FROM tesk_message' } });
    return Number(r.content[0].text.split('\n')[2]);
  };
  const n = await count();
  // The test, not tesk, writes: one more message in the last message's chat.
  const db = path.join(home, 'Library/Messages/chat.db');
  const sql = `INSERT INTO message (guid, text, handle_id, date, is_from_me, service)
                 SELECT guid || '-new', 'fresh row', handle_id, date + 1, is_from_me, service
                 FROM message ORDER BY ROWID DESC LIMIT 1;
               INSERT INTO chat_message_join (chat_id, message_id)
                 SELECT chat_id, (SELECT max(ROWID) FROM message)
                 FROM chat_message_join ORDER BY message_id DESC LIMIT 1;`;
  const w = spawnSync('sqlite3', [db, sql], { encoding: 'utf8' });
  assert.equal(w.status, 0, `sqlite3 (tools/setup installs it): ${w.error ?? w.stderr}`);
  assert.equal(await count(), n + 1);
  const found = await client.callTool({ name: 'search', arguments: { text: 'fresh row', format: 'tsv' } });
  assert.match(found.content[0].text, /\tfresh row\n/);
});

await client.close();

await check('stdout carries protocol only: a non-JSON line is answered and the server goes on', async () => {
  const input = 'not json\n{"jsonrpc":"2.0","id":1,"method":"ping"}\n';
  const r = spawnSync(mcpBin, [], { env, input, encoding: 'utf8' });
  assert.equal(r.status, 0);
  const lines = r.stdout.trimEnd().split('\n').map((l) => JSON.parse(l));
  assert.equal(lines.length, 2);
  assert.equal(lines[0].error.code, -32700);
  assert.deepEqual(lines[1], { jsonrpc: '2.0', id: 1, result: {} });
});

fs.rmSync(scratch, { recursive: true, force: true });
if (failures) {
  console.log(`${failures} check(s) failed`);
  process.exit(1);
}
console.log('tesk-mcp: the SDK client agrees with the command line');
