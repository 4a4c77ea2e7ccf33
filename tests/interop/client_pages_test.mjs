// The entries that examples/clients tells users to copy: an official client connects with each of them, over HTTP to a
// running agent or by starting one. Usage: node client_pages_test.mjs AGENT        (after npm ci in this folder)

import assert from 'node:assert/strict';
import { readdirSync, readFileSync } from 'node:fs';
import { after, before, test } from 'node:test';

import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { StreamableHTTPClientTransport } from '@modelcontextprotocol/sdk/client/streamableHttp.js';

import { agentProgram, closeAll, startAgent } from './agent.mjs';

const examples = new URL('../../examples/', import.meta.url);
const token = 'replace-me';
const url = {}; // of an agent with a token and of one without

/// The tables and values of TOML that the pages use.
function parseToml(text) {
    const entry = Object.fromEntries([...text.matchAll(/^(\w+) = (.*)$/gm)].map(([, name, value]) => [name, JSON.parse(value)]));
    const token_env = entry.bearer_token_env_var;
    return { [text.match(/^\[mcp_servers\.(\w+)\]/)[1]]:
        { ...entry, ...(token_env && { headers: { Authorization: `Bearer ${token}` } }) } };
}

function entriesOf(page) {
    const text = readFileSync(new URL(`clients/${page}`, examples), 'utf8').replaceAll('${input:brelt-token}', token);
    const blocks = page.endsWith('.json') ? [['', 'json', text]] : [...text.matchAll(/^```(json|toml)\n(.*?)^```/gms)];
    return blocks.flatMap(([, form, block]) => {
        const parsed = form === 'json' ? JSON.parse(block) : parseToml(block);
        return Object.values(parsed.mcpServers ?? parsed.servers ?? parsed);
    });
}

function transportOf(entry) {
    const documented = entry.url ?? entry.httpUrl ?? entry.serverUrl;
    if (documented) {
        assert.match(documented, /^https?:\/\/(127\.0\.0\.1|localhost):9010\/mcp$/);
        return new StreamableHTTPClientTransport(new URL(entry.headers ? url.closed : url.open), { requestInit: { headers: entry.headers } });
    }
    assert.equal(entry.command, 'brelt-mcp-bridge-agent');
    const services = new URL('mcp-bridge-services.json', examples).pathname;
    return new StdioClientTransport({ command: agentProgram, stderr: 'inherit',
        args: entry.args.map(argument => argument.replace('/path/to/mcp-bridge-services.json', services)) });
}

before(async () => {
    const options = ['--mcp_interop', '--mcp_tool_names=safe', '--services_file='];
    url.open = await startAgent(options);
    url.closed = await startAgent([...options, `--mcp_token=${token}`]);
});
after(closeAll);

for (const page of readdirSync(new URL('clients', examples)).filter(name => name !== 'README.md' && name !== 'inspector.md')) {
    test(page, async () => {
        const entries = entriesOf(page);
        assert.ok(entries.length > 0);
        for (const entry of entries) {
            const client = new Client({ name: 'test', version: '1' });
            await client.connect(transportOf(entry));
            const names = (await client.listTools()).tools.map(tool => tool.name);
            assert.deepEqual(names.slice(0, 3), ['bridge_list_services', 'bridge_get_service', 'bridge_rpc']);
            await client.close();
        }
    });
}
