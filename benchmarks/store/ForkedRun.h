#pragma once

#include "Measurement.h"

#include <functional>
#include <vector>

/// Runs `work` in a child process of its own, which ends with it without any clean-up, and gives what it measured.
/// False when the child failed, was killed, or was not done after `timeoutSeconds`. A signal
/// that the caller handles, and that interrupts system calls, ends the child. The calling process has one thread.
bool runForked(const std::function<std::vector<Measurement>()>& work, unsigned timeoutSeconds,
               std::vector<Measurement>* measurements);
