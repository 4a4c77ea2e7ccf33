#pragma once

#include <string>

/// What this process uses, as the system counts it. Thread: any.
struct ResidentMemory {
    double totalMib = 0.0;
    double anonymousMib = 0.0; // without pages of mapped files, which the system takes back when it needs them
};
ResidentMemory residentMemory();
/// What this process gave to be written to disk so far.
double writtenMib();
/// What the files of a directory take on disk.
double directoryMib(const std::string& path);
/// Waits until the threads in the background have nothing to do, a minute at most. False after that.
bool waitUntilIdle();
