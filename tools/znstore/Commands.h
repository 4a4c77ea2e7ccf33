#pragma once

#include "Arguments.h"
#include "Output.h"

#include <span>
#include <string_view>

namespace znstore {

/// One command: how it is called, what it says of itself, and what it does.
struct Command {
    const char* name;
    const char* summary;
    const char* details; // lines for its help; may be empty
    std::span<const Parameter> parameters;
    int (*run)(const Arguments& arguments, Output& output); // gives the exit code
};

/// Null for no command's name.
const Command* findCommand(std::string_view name);
void writeHelp(Output& output);
void writeHelp(const Command& command, Output& output);

// What opens a store to read it.
int runInfo(const Arguments& arguments, Output& output);
int runVerify(const Arguments& arguments, Output& output);
int runGet(const Arguments& arguments, Output& output);
int runScan(const Arguments& arguments, Output& output);
int runIndex(const Arguments& arguments, Output& output);
int runExport(const Arguments& arguments, Output& output);
int runStats(const Arguments& arguments, Output& output);
int runWatch(const Arguments& arguments, Output& output);
// What opens a store to write to it.
int runPut(const Arguments& arguments, Output& output);
int runRemove(const Arguments& arguments, Output& output);
int runLoad(const Arguments& arguments, Output& output);
int runCompact(const Arguments& arguments, Output& output);
int runGc(const Arguments& arguments, Output& output);
// What reads one file.
int runDump(const Arguments& arguments, Output& output);

} // namespace znstore
