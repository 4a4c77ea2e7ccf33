// MCP clients of three SDK generations, through the agent, to servers made with the same SDKs: with interoperability
// on and off. Usage: node interop_test.mjs AGENT        (after npm ci in this folder)

import assert from 'node:assert/strict';
import { mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, before, describe, test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';

import * as client2 from '@modelcontextprotocol/client';
import { StdioClientTransport as Stdio2 } from '@modelcontextprotocol/client/stdio';
import { Client as ClientNewest1 } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport as StdioNewest1 } from '@modelcontextprotocol/sdk/client/stdio.js';
import { StreamableHTTPClientTransport as TransportNewest1 } from '@modelcontextprotocol/sdk/client/streamableHttp.js';
import { Client as Client1_18 } from 'sdk-1-18/client/index.js';
import { StdioClientTransport as Stdio1_18 } from 'sdk-1-18/client/stdio.js';
import { StreamableHTTPClientTransport as Transport1_18 } from 'sdk-1-18/client/streamableHttp.js';

import { agentProgram, closeAll, closers, startAgent } from './agent.mjs';
import { serverSdks, startEverything, startSdk2Handler, startSdkServer } from './servers.mjs';

const clientSdks = {
    '1.18.2': { Client: Client1_18, Transport: Transport1_18, Stdio: Stdio1_18, connectsAlways: true },
    'newest 1.x': { Client: ClientNewest1, Transport: TransportNewest1, Stdio: StdioNewest1 },
    '2.x': { Client: client2.Client, Transport: client2.StreamableHTTPClientTransport, Stdio: Stdio2 },
    '2.x that probes': {
        Client: client2.Client,
        Transport: client2.StreamableHTTPClientTransport,
        Stdio: Stdio2,
        options: { versionNegotiation: { mode: 'auto' } },
    },
};

/// What each upstream server does, by service id.
const sdkServices = { '2.x handler': { stateful: false, json: false } };
for (const sdk of Object.keys(serverSdks))
    for (const state of ['stateful', 'stateless'])
        for (const form of ['json', 'events'])
            sdkServices[`${sdk} ${state} ${form}`] = { sdk, stateful: state === 'stateful', json: form === 'json' };

async function connected({ Client, Transport, options }, url, use) {
    const client = new Client({ name: 'test', version: '1' }, options);
    try {
        await client.connect(new Transport(new URL(url)));
        await use(client);
        await client.transport.terminateSession();
    } finally {
        await client.close();
    }
}

/// The agent as a command of the client's.
async function connectedByStdio({ Client, Stdio, options }, use) {
    const client = new Client({ name: 'test', version: '1' }, options);
    const transport = new Stdio({ command: agentProgram, args: stdioArguments, stderr: 'inherit' });
    try {
        await client.connect(transport);
        await use(client);
    } finally {
        const ended = new Promise(done => { client.onclose = done; });
        await client.close();
        await ended;
    }
}

/// One call of a bridge tool: "structuredContent" and "content" say the same.
async function call(client, name, args) {
    const result = await client.callTool({ name, arguments: args });
    assert.deepEqual(JSON.parse(result.content[0].text), result.structuredContent);
    return result.structuredContent;
}

/// Hands requests on to a service, with the session that its "initialize" has given.
function upstream(client, serviceId) {
    let more = {};
    return async (id, method, params) => {
        const request = { jsonrpc: '2.0', id, method, params };
        const answer = await call(client, 'bridge.rpc', { serviceId, request, ...more });
        if (method === 'initialize')
            more = { sessionId: answer.mcpSessionId, protocolVersion: answer.body.result.protocolVersion };
        assert.equal(answer.transportOk, true);
        if (id !== undefined)
            assert.deepEqual([answer.body?.jsonrpc, answer.body?.id], ['2.0', id], JSON.stringify(answer));
        return answer;
    };
}

async function begin(rpc, stateful) {
    const initialize = await rpc('7', 'initialize',
        { protocolVersion: '2025-06-18', capabilities: {}, clientInfo: { name: 'test', version: '1.10' } });
    assert.equal(initialize.body.result.protocolVersion, '2025-06-18');
    assert.equal(initialize.mcpSessionId !== '', stateful);
    assert.equal((await rpc(undefined, 'notifications/initialized')).statusCode, 202);
    const { body } = await rpc(7, 'tools/list');
    return body.result.tools.map(tool => tool.name);
}

const progressOf = answer => answer.notifications?.map(({ method, params }) =>
    method === 'notifications/progress' && [params.progressToken, params.progress]);

async function converseWithSdkServer(client, serviceId, { stateful, json }) {
    const rpc = upstream(client, serviceId);
    assert.deepEqual(await begin(rpc, stateful), ['values', 'fail', 'slow']);

    const nested = { a: ['1.10', 'true', 'ü€😀\n', 0.1, -0.5e-7, null], o: {}, l: [] };
    const values = { text: '123', number: 1e21, nested };
    const tool = (id, name, args, _meta) => rpc(id, 'tools/call', { name, arguments: args, _meta });
    assert.deepEqual((await tool('7', 'values', values)).body.result.structuredContent, values);

    const refused = (await tool(8, 'values', { ...values, text: 123 })).body; // an error or a result, by SDK
    assert.match(refused.error?.message ?? refused.result.content[0].text, /text/);
    assert.ok(refused.error ?? refused.result.isError);
    assert.equal((await tool(9, 'fail', {})).body.result.isError, true);
    assert.equal((await rpc(10, 'no/such')).body.error.code, -32601);

    const slow = await tool(11, 'slow', {}, { progressToken: '5' });
    assert.equal(slow.body.result.content[0].text, 'done');
    assert.deepEqual(progressOf(slow), json ? undefined : [['5', 1], ['5', 2], ['5', 3]]);
}

async function converseWithEverything(client) {
    const rpc = upstream(client, 'everything');
    const tools = await begin(rpc, true);
    const rows = [
        ['echo', { message: '1.10' }, /^Echo: 1\.10$/],
        ['get-sum', { a: 1.5, b: 2 }, /\b3\.5\b/],
        ['get-sum', { a: '1.5', b: 2 }, /expected number/],
        ['get-structured-content', { location: 'New York' }, /"temperature":\s*33/],
    ];
    for (const [name, args, text] of rows) {
        assert.ok(tools.includes(name));
        assert.match((await rpc(name, 'tools/call', { name, arguments: args })).body.result.content[0].text, text);
    }
    const slow = await rpc(1, 'tools/call', { name: 'trigger-long-running-operation',
        arguments: { duration: 0.1, steps: 2 }, _meta: { progressToken: 5 } });
    assert.deepEqual(progressOf(slow), [[5, 1], [5, 2]]);
}

async function useBridgeTools(client, dot = '.', more = []) {
    assert.equal(client.getServerVersion().name, 'brelt-mcp-bridge-agent');
    const { tools } = await client.listTools();
    assert.deepEqual(tools.map(tool => tool.name),
        ['list_services', 'get_service', 'rpc', ...more].map(name => `bridge${dot}${name}`));
    const { services } = await call(client, `bridge${dot}list_services`);
    assert.ok(services.some(service => service.id === 'everything'));
    assert.deepEqual(await call(client, 'bridge.get_service', { serviceId: 'everything' }),
        services.find(service => service.id === 'everything'));
}

/// The tools of a service as tools, and requests in the session that the agent keeps with it.
async function useServiceTools(client, serviceId, names) {
    const { tools } = await call(client, 'bridge_list_tools', { serviceId });
    assert.deepEqual(names.filter(name => !tools.some(tool => tool.name === name && tool.inputSchema)), []);
    const rpc = upstream(client, serviceId);
    assert.deepEqual((await rpc(3, 'tools/list')).body.result.tools.map(tool => tool.name), tools.map(tool => tool.name));
    return (name, args) => client.callTool({ name: 'bridge_call_tool', arguments: { serviceId, name, arguments: args } });
}

/// Progress comes while the call runs, by either tool, under the client's own token.
async function tellProgress(client, serviceId) {
    const request = { jsonrpc: '2.0', id: 1, method: 'tools/call', params: { name: 'slow', _meta: { progressToken: 'x' } } };
    const calls = { bridge_call_tool: { serviceId, name: 'slow' }, bridge_rpc: { serviceId, request } };
    for (const [name, args] of Object.entries(calls)) {
        const told = [];
        const result = await client.callTool({ name, arguments: args }, ...(client instanceof client2.Client ? [] : [undefined]),
            { onprogress: ({ progress }) => told.push(progress) });
        assert.match(JSON.stringify(result), /done/);
        // What comes in one piece with the answer is lost inside the client.
        assert.deepEqual(told, [1, 2, 3].slice(0, Math.max(told.length, 1)));
    }
}

async function useToolsOfServices(client) {
    for (const serviceId of Object.keys(sdkServices)) {
        const callTool = await useServiceTools(client, serviceId, ['values', 'fail', 'slow']);
        const values = { text: '123', number: 1e21, nested: { a: ['1.10', null], o: {} } };
        assert.deepEqual((await callTool('values', values)).structuredContent, values);
        assert.equal((await callTool('fail', {})).isError, true);
        assert.equal((await callTool('no such tool', {})).isError, true);
    }
    await tellProgress(client, '2.x stateful events');
    const callTool = await useServiceTools(client, 'everything', ['echo', 'get-tiny-image', 'get-resource-links']);
    const { content } = await callTool('get-tiny-image', {});
    assert.ok(content.some(part => part.type === 'image' && part.mimeType === 'image/png' && part.data.length > 1000));
    const links = await callTool('get-resource-links', { count: 2 });
    assert.equal(links.content.filter(part => part.type === 'resource_link').length, 2);
}

/// Without interoperability: the bridge's own tools work, and official servers refuse its form of a request.
async function refuseBaseForm(client) {
    await useBridgeTools(client);
    for (const serviceId of Object.keys(endpoints)) {
        const request = { jsonrpc: '2.0', id: '7', method: 'ping' };
        const { transportOk, statusCode } = await call(client, 'bridge.rpc', { serviceId, request });
        assert.deepEqual([transportOk, statusCode], [true, serviceId === '2.x handler' ? 400 : 406], serviceId);
    }
    assert.equal(received.at(-1).text, '{"id": 7,"jsonrpc": 2,"method": "ping"}');
    assert.equal(received.at(-1).headers.accept, 'application/json');
}

/// A service of revision 2026-07-28, spoken to by tools of the bridge alone; `got` is what has come to it.
async function converseWithModern(client, serviceId, got) {
    const use = (name, args) => client.callTool({ name: `bridge_${name}`, arguments: { serviceId, ...args } });
    const callTool = (name, more) => use('call_tool', { name, ...more });
    const rpc = async (method, params) =>
        (await use('rpc', { request: { jsonrpc: '2.0', id: 'x', method, params } })).structuredContent.body;

    // The tools have not been listed: refused, looked up, sent again.
    assert.equal((await callTool('region', { arguments: { region: ' ü' } })).content[0].text, ' ü');
    assert.equal(got.at(-1).headers['mcp-param-region'], '=?base64?IMO8?=');
    assert.deepEqual((await use('list_tools')).structuredContent.tools.map(tool => tool.name),
        ['values', 'fail', 'slow', 'region', 'wait', 'ask']);
    const { isError, structuredContent: { resultType, requestState } } = await callTool('wait');
    assert.deepEqual([isError, resultType], [undefined, 'input_required']);
    assert.equal((await callTool('wait', { requestState })).content[0].text, 'went on');

    assert.match((await callTool('ask')).structuredContent.error, /elicitation/i); // the agent promises nothing
    const _meta = { 'io.modelcontextprotocol/protocolVersion': '2026-07-28',
        'io.modelcontextprotocol/clientCapabilities': { elicitation: { form: {} } } };
    const asked = await rpc('tools/call', { name: 'ask', _meta });
    assert.deepEqual(Object.keys(asked.result.inputRequests), ['who']);
    const inputResponses = { who: { action: 'accept', content: { name: 'Bo' } } };
    assert.equal((await rpc('tools/call', { name: 'ask', inputResponses, _meta })).result.content[0].text, 'Bo');
    assert.equal((await rpc('no/such')).error.code, -32601);
    await tellProgress(client, serviceId);
    assert.ok(got.every(({ headers, text }) => !headers['mcp-session-id'] && !text.includes('"initialize"')));
}

const received = [];
const endpoints = {};
let url; // of the agent, with interoperability on and off
let stdioArguments;

/// The option that names their file.
function writeServices(services) {
    const directory = mkdtempSync(join(tmpdir(), 'interop-'));
    closers.push(() => rmSync(directory, { recursive: true }));
    writeFileSync(join(directory, 'services.json'), JSON.stringify({ services }));
    return `--services_file=${directory}/services.json`;
}

before(async () => {
    const start = async (id, starting) => {
        const server = await starting;
        closers.push(server.close);
        endpoints[id] = server.url;
    };
    for (const [id, form] of Object.entries(sdkServices))
        await start(id, form.sdk ? startSdkServer(serverSdks[form.sdk], form, received) : startSdk2Handler(received));
    await start('everything', startEverything());
    const options = [writeServices(
        Object.entries(endpoints).map(([id, endpoint]) => ({ id, endpoint, timeoutMs: 10000, session: 'auto' })))];
    stdioArguments = [...options, '--stdio', '--mcp_interop', '--mcp_tool_names=safe', '--mcp_call_tools', '--mcp_progress'];
    url = { all: await startAgent(stdioArguments.filter(option => option !== '--stdio')),
        on: await startAgent([...options, '--mcp_interop']), off: await startAgent(options) };
});
after(closeAll);

describe('services of revision 2026-07-28', () => {
    const got = { reject: [], stateless: [] }; // by what a server does with other revisions
    let agent;
    before(async () => {
        const services = [{ id: 'legacy', endpoint: endpoints['newest 1.x stateful events'], protocol: 'auto' }];
        for (const legacy of Object.keys(got)) {
            const { url: endpoint, close } = await startSdk2Handler(got[legacy], legacy);
            closers.push(close);
            services.push(...['2026-07-28', 'auto'].map(protocol => ({ id: `${legacy} ${protocol}`, endpoint, protocol })));
        }
        agent = await startAgent([writeServices(services), ...stdioArguments.slice(2)]);
    });
    for (const legacy of Object.keys(got))
        for (const protocol of ['2026-07-28', 'auto'])
            test(`${legacy} ${protocol}`, () => connected(clientSdks['2.x'], agent, async client => {
                got[legacy].length = 0;
                await converseWithModern(client, `${legacy} ${protocol}`, got[legacy]);
                const asked = got[legacy].filter(({ text }) => text.includes('server/discover'));
                assert.equal(asked.length, protocol === 'auto' ? 1 : 0);
            }));
    test('legacy', () => connected(clientSdks['2.x'], agent, async client => {
        const first = received.length;
        await tellProgress(client, 'legacy');
        const sent = received.slice(first).map(({ text }) => text.match(/"method": "([^"]*)"/)?.[1]);
        assert.deepEqual(sent.slice(0, 4), ['server/discover', 'initialize', 'notifications/initialized', 'tools/call']);
    }));
});

for (const [clientName, sdk] of Object.entries(clientSdks)) {
    describe(`client ${clientName}`, () => {
        test('bridge tools', () => connected(sdk, url.on, useBridgeTools));
        test('server-everything', () => connected(sdk, url.on, converseWithEverything));
        for (const [serviceId, form] of Object.entries(sdkServices))
            test(`server ${serviceId}`, () =>
                connected(sdk, url.on, client => converseWithSdkServer(client, serviceId, form)));
        test('standard input and output', async () => {
            const first = received.length;
            await connectedByStdio(sdk, async client => {
                await useBridgeTools(client, '_', ['list_tools', 'call_tool']);
                await useToolsOfServices(client);
            });
            const sent = received.slice(first);
            const stateful = Object.values(sdkServices).filter(form => form.stateful);
            const ended = () => received.slice(first).filter(({ method }) => method === 'DELETE').length;
            for (let i = 0; i < 100 && ended() < stateful.length; ++i)
                await sleep(10); // 1.18.2 does not wait for the end of the command
            assert.equal(ended(), stateful.length);
            assert.equal(sent.filter(({ text }) => text.includes('"method": "initialize"')).length,
                Object.keys(sdkServices).length);
        });
        test('progress', () => connected(sdk, url.all, async client => {
            for (const serviceId of Object.keys(sdkServices).filter(id => id.endsWith('events')))
                await tellProgress(client, serviceId);
        }));
        test('interoperability off', async () => {
            if (!sdk.connectsAlways)
                return assert.rejects(connected(sdk, url.off, () => {}), { code: -32602 });
            await connected(sdk, url.off, refuseBaseForm);
        });
    });
}
