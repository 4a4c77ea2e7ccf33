#pragma once

#include <string>
#include <vector>

/// `brelt-mcp-bridge-agent trail`: prints the calls that a state directory holds, beside the agent that writes it.
/// `arguments`: those after "trail". Gives the exit code.
int runTrailCommand(const std::vector<std::string>& arguments);
