// The agent under test: the program that the command line names.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import net from 'node:net';

export const agentProgram = process.argv[2];
export const deadlineMs = 120000; // of everything, the test's own process included
setTimeout(() => { console.error('not done in time'); process.exit(1); }, deadlineMs).unref();
export const closers = [];
export const closeAll = () => closers.splice(0).forEach(close => close());
process.on('exit', closeAll);

async function freePort() {
    const server = net.createServer().listen(0, '127.0.0.1');
    await once(server, 'listening');
    const { port } = server.address();
    await new Promise(done => server.close(done));
    return port;
}

/// Gives the URL of the endpoint.
export async function startAgent(options, attemptsLeft = 3) {
    const port = await freePort();
    const agent = spawn(agentProgram, [`--port=${port}`, `--duration_ms=${deadlineMs}`, ...options],
        { stdio: ['ignore', 'pipe', 'inherit'] });
    closers.push(() => agent.kill('SIGKILL'));
    await Promise.race([once(agent.stdout, 'data'), once(agent, 'exit')]); // a line as soon as it listens
    if (agent.exitCode === null)
        return `http://127.0.0.1:${port}/mcp`;
    assert.ok(attemptsLeft > 0, 'the agent starts');
    return startAgent(options, attemptsLeft - 1); // another program has taken the port
}
