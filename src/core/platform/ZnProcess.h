#pragma once

#include "core/types/ZnString.h"

#include <cstdint>

/// What the system tells of processes. Thread: any; nothing here blocks.
namespace ZnProcess {

std::uint32_t currentId();
/// The user whose rights the process has.
std::uint32_t userId();
/// When the calling process began, in the system's ticks since its boot; with the id it names a process for good.
/// Empty when the system does not tell.
ZnString startTime();

/// 1: it has ended, or is dead and not yet collected; 0: alive; 2: the system does not tell.
int isGone(std::uint32_t processId);

/// Raised in the child of every fork: what belongs to one process keeps it, to find out for the price of a read that
/// it is looked at from another one. Counts forks from the first call on.
unsigned forkCount();

/// Whether what the process writes to standard error goes to a terminal.
bool hasTerminalForErrors();

} // namespace ZnProcess
