// Upstream servers for the interoperability tests: made with each SDK, in this process; and server-everything in its
// own. All on loopback, on free ports.

import { fork } from 'node:child_process';
import { randomUUID } from 'node:crypto';
import { once } from 'node:events';
import http from 'node:http';
import { createRequire } from 'node:module';
import { setTimeout as sleep } from 'node:timers/promises';
import { fileURLToPath } from 'node:url';

import { NodeStreamableHTTPServerTransport, toNodeHandler } from '@modelcontextprotocol/node';
import { McpServer as McpServerNewest1 } from '@modelcontextprotocol/sdk/server/mcp.js';
import { StreamableHTTPServerTransport as TransportNewest1 } from '@modelcontextprotocol/sdk/server/streamableHttp.js';
import { acceptedContent, createMcpHandler, inputRequired, McpServer as McpServer2 } from '@modelcontextprotocol/server';
import { McpServer as McpServer1_18 } from 'sdk-1-18/server/mcp.js';
import { StreamableHTTPServerTransport as Transport1_18 } from 'sdk-1-18/server/streamableHttp.js';

/// Each package checks arguments with its own copy of zod.
const zodOf = name => createRequire(import.meta.resolve(name))('zod').z;
const zod3 = zodOf('sdk-1-18/server/mcp.js');
const zod4 = zodOf('@modelcontextprotocol/server');

export const serverSdks = {
    '1.18.2': { McpServer: McpServer1_18, Transport: Transport1_18, z: zod3, schema: shape => shape },
    'newest 1.x': { McpServer: McpServerNewest1, Transport: TransportNewest1, z: zod4, schema: shape => shape },
    '2.x': { McpServer: McpServer2, Transport: NodeStreamableHTTPServerTransport, z: zod4, schema: zod4.object },
};

function makeServer({ McpServer, z, schema }) {
    const server = new McpServer({ name: 'upstream', version: '1.0.0' });
    const inputSchema = schema({ text: z.string(), number: z.number(), nested: z.record(z.string(), z.any()) });
    server.registerTool('values', { inputSchema }, values => ({ content: [], structuredContent: values }));
    server.registerTool('fail', {}, () => { throw new Error('on purpose'); });
    server.registerTool('slow', {}, async context => {
        const { _meta, notify } = context.mcpReq ?? { _meta: context._meta, notify: context.sendNotification };
        for (let progress = 1; progress <= 3; ++progress) {
            await sleep(20);
            const params = { progressToken: _meta.progressToken, progress, total: 3 };
            await notify({ method: 'notifications/progress', params });
        }
        return { content: [{ type: 'text', text: 'done' }] };
    });
    return server;
}

/// `received` gets the head and the text of every request.
async function listen(received, handle) {
    const server = http.createServer(async (request, response) => {
        const pieces = await request.toArray();
        const text = Buffer.concat(pieces).toString();
        received.push({ method: request.method, headers: request.headers, text });
        await handle(request, response, text);
    });
    await once(server.listen(0, '127.0.0.1'), 'listening');
    const close = () => (server.closeAllConnections(), server.close());
    return { url: `http://127.0.0.1:${server.address().port}/mcp`, close };
}

/// A server made with an SDK.
export async function startSdkServer(sdk, { stateful, json }, received) {
    const transports = new Map();
    return listen(received, async (request, response, text) => {
        let transport = transports.get(request.headers['mcp-session-id']);
        if (!transport) {
            transport = new sdk.Transport({
                enableJsonResponse: json,
                sessionIdGenerator: stateful ? randomUUID : undefined,
                onsessioninitialized: id => void transports.set(id, transport),
            });
            await makeServer(sdk).connect(transport);
        }
        await transport.handleRequest(request, response, text ? JSON.parse(text) : undefined);
    });
}

/// What only revision 2026-07-28 has: an argument that is mirrored in a header, and results that ask for input.
function makeModernServer() {
    const server = makeServer(serverSdks['2.x']);
    const text = words => ({ content: [{ type: 'text', text: words }] });
    const region = zod4.string().meta({ 'x-mcp-header': 'Region' });
    server.registerTool('region', { inputSchema: zod4.object({ region }) }, values => text(values.region));
    server.registerTool('wait', {}, ({ mcpReq }) =>
        mcpReq.requestState() === 'so far' ? text('went on') : inputRequired({ requestState: 'so far' }));
    const question = { message: 'Name?', requestedSchema: zod4.object({ name: zod4.string() }) };
    server.registerTool('ask', {}, ({ mcpReq }) => mcpReq.inputResponses ? text(acceptedContent(mcpReq.inputResponses, 'who').name)
        : inputRequired({ inputRequests: { who: inputRequired.elicit(question) } }));
    return server;
}

/// The 2.x SDK's own way to serve both today's clients and those of the next protocol, or with `reject` the latter only.
export async function startSdk2Handler(received, legacy) {
    const handle = toNodeHandler(createMcpHandler(legacy ? makeModernServer : () => makeServer(serverSdks['2.x']), { legacy }));
    return listen(received, (request, response, text) => handle(request, response, text ? JSON.parse(text) : undefined));
}

/// server-everything chooses its own address, so loopback and a free port are put in its way.
const onLoopback = `
    import net from 'node:net';
    const listen = net.Server.prototype.listen;
    net.Server.prototype.listen = function (port, ready) {
        return listen.call(this, port, '127.0.0.1', () => { process.send(this.address().port); ready?.(); });
    };
    process.on('disconnect', () => process.exit());`;

export async function startEverything() {
    const program = fileURLToPath(import.meta.resolve('@modelcontextprotocol/server-everything/dist/index.js'));
    const execArgv = ['--import', `data:text/javascript,${encodeURIComponent(onLoopback)}`];
    const child = fork(program, ['streamableHttp'],
        { env: { ...process.env, PORT: '0' }, execArgv, stdio: ['ignore', 'ignore', 'inherit', 'ipc'] });
    const [port] = await Promise.race([once(child, 'message'), once(child, 'exit').then(() => [])]);
    return { url: `http://127.0.0.1:${port}/mcp`, close: () => child.kill('SIGKILL') };
}
