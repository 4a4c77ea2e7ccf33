#pragma once

#include <string>

/// The bytes of one POST to the agent's endpoint; without the session header when `sessionId` is empty.
std::string post(const std::string& body, const std::string& sessionId);
/// Begins a session with the agent and gives its id. Exits the benchmark when that fails.
std::string initialize(unsigned short port, bool overTls = false);
