// One agent that serves clients with and without sessions: the newest official client in each of its modes, and the
// same calls over HTTP and standard input. Usage: node modern_test.mjs AGENT        (after npm ci in this folder)

import assert from 'node:assert/strict';
import { mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, before, test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';

import { Client, StreamableHTTPClientTransport } from '@modelcontextprotocol/client';
import { StdioClientTransport } from '@modelcontextprotocol/client/stdio';

import { agentProgram, closeAll, closers, startAgent } from './agent.mjs';
import { serverSdks, startSdkServer } from './servers.mjs';

const modes = [['pinned', { pin: '2026-07-28' }, '2026-07-28'], ['auto', 'auto', '2026-07-28'], ['legacy', 'legacy', '2025-11-25']];
const received = [];
let options;
let url;

before(async () => {
    const services = [];
    for (const [id, stateful, json] of [['stateful', true, false], ['stateless', false, true]]) {
        const server = await startSdkServer(serverSdks['2.x'], { stateful, json }, received);
        closers.push(server.close);
        services.push({ id, endpoint: server.url, timeoutMs: 10000, session: 'auto' });
    }
    const directory = mkdtempSync(join(tmpdir(), 'modern-'));
    closers.push(() => rmSync(directory, { recursive: true }));
    writeFileSync(join(directory, 'services.json'), JSON.stringify({ services }));
    options = [`--services_file=${directory}/services.json`, '--mcp_interop', '--mcp_modern', '--mcp_call_tools', '--mcp_progress'];
    url = await startAgent(options);
});
after(closeAll);

async function converse(client) {
    assert.equal((await client.listTools()).tools.length, 5);
    const call = (name, args, more) => client.callTool({ name, arguments: args }, more);
    await assert.rejects(async () => assert.equal((await call('no_such_tool')).isError, undefined));
    for (const serviceId of ['stateful', 'stateless']) {
        assert.equal((await call('bridge_list_tools', { serviceId })).structuredContent.tools.length, 3);
        const tool = (name, args, more) => call('bridge_call_tool', { serviceId, name, arguments: args }, more);
        const values = { text: '123', number: 1e21, nested: { a: ['ü', null], o: {} } };
        assert.deepEqual((await tool('values', values)).structuredContent, values);
        assert.equal((await tool('fail')).isError, true);
        const told = [];
        assert.equal((await tool('slow', {}, { onprogress: ({ progress }) => told.push(progress) })).content[0].text, 'done');
        assert.equal(told.length > 0, serviceId === 'stateful');
        const request = { jsonrpc: '2.0', id: '7', method: 'ping' };
        assert.deepEqual((await call('bridge.rpc', { serviceId, request })).structuredContent.body, { jsonrpc: '2.0', id: '7', result: {} });
    }
    const cancelled = () => received.filter(({ text }) => text.includes('notifications/cancelled')).length;
    const earlier = cancelled();
    const cancelling = new AbortController();
    await assert.rejects(call('bridge_call_tool', { serviceId: 'stateful', name: 'slow' },
        { signal: cancelling.signal, onprogress: () => cancelling.abort() }));
    for (let i = 0; i < 200 && cancelled() === earlier; ++i)
        await sleep(10);
    assert.equal(cancelled(), earlier + 1);
}

const byHttp = () => new StreamableHTTPClientTransport(new URL(url));
const byStdio = () => new StdioClientTransport({ command: agentProgram, args: [...options, '--stdio'], stderr: 'inherit' });
for (const [name, mode, version] of modes)
    for (const transport of [byHttp, byStdio])
        test(`${name}, ${transport.name}`, async () => {
            const client = new Client({ name: 'test', version: '1' }, { versionNegotiation: { mode } });
            await client.connect(transport());
            assert.equal(client.getNegotiatedProtocolVersion(), version);
            await converse(client);
            await client.close();
        });
