#include "Commands.h"

#include <algorithm>
#include <string>

namespace znstore {

namespace {

constexpr Parameter kDirectory = {"DIR", Parameter::Text, "directory of the store", true};
constexpr Parameter kKey = {"KEY", Parameter::Bytes, "key of the record", true};
constexpr Parameter kStart = {"--start", Parameter::Bytes, "first key, included"};
constexpr Parameter kEnd = {"--end", Parameter::Bytes, "end of the keys, excluded"};
constexpr Parameter kPrefix = {"--prefix", Parameter::Bytes, "what the keys begin with"};
constexpr Parameter kReverse = {"--reverse", Parameter::Switch, "from the greatest key down"};
constexpr Parameter kLimit = {"--limit", Parameter::Number, "so many records at most"};
constexpr Parameter kKeys = {"--keys", Parameter::Switch, "keys without values"};
constexpr Parameter kSync = {"--sync", Parameter::Switch, "end only when it is on stable storage"};
constexpr Parameter kNoCreate = {"--no-create", Parameter::Switch, "do not make a store where there is none"};

constexpr Parameter kStoreAlone[] = {kDirectory};
constexpr Parameter kGet[] = {
    kDirectory,
    kKey,
    {"--raw", Parameter::Switch, "the bytes of the value as they are, and nothing else"},
    {"--index-keys", Parameter::Switch, "the secondary keys instead of the value: NAME, tab, SECONDARYKEY"}};
constexpr Parameter kScan[] = {kDirectory, kStart, kEnd, kPrefix, kReverse, kLimit, kKeys};
constexpr Parameter kIndex[] = {kDirectory,
                                {"NAME", Parameter::Text, "name of the index", true},
                                {"SECONDARYKEY", Parameter::Bytes, "the records that have exactly this secondary key"},
                                kStart,
                                kEnd,
                                kPrefix,
                                kReverse,
                                kLimit,
                                kKeys};
constexpr Parameter kDump[] = {{"FILE", Parameter::Text, "any file of a store", true}};
constexpr Parameter kPut[] = {kDirectory,
                              kKey,
                              {"VALUE", Parameter::Text, "in the escape form; \"-\": standard input, as it is", true},
                              {"--index", Parameter::Text, "NAME=SECONDARYKEY, as often as needed"},
                              kSync,
                              kNoCreate};
constexpr Parameter kRemove[] = {kDirectory, kKey, kSync};
constexpr Parameter kLoad[] = {
    kDirectory, {"FILE", Parameter::Text, "lines to read; \"-\" or none: standard input"}, kSync, kNoCreate};
constexpr Parameter kWatch[] = {kDirectory,
                                {"--count", Parameter::Number, "ends after so many commits"},
                                {"--timeout", Parameter::Number, "ends after so many milliseconds"}};

constexpr Command kCommands[] = {
    {"info", "shows the manifest in force, tables, blob files and logs",
     "Reads files only, so it works on a store that does not open. Exit code 5 when a file that the manifest names\n"
     "is missing or a log is damaged.\n",
     kStoreAlone, runInfo},
    {"verify", "reads everything and checks it",
     "Writes one line for each problem, \"orphan: PATH\" for each file that nothing refers to, and a sum. Exit code 5\n"
     "when there is a problem. Orphans are none.\n",
     kStoreAlone, runVerify},
    {"get", "writes the value of a key", "Exit code 1 when there is no such key.\n", kGet, runGet},
    {"scan", "writes records in the order of their keys: KEY, tab, VALUE", "", kScan, runScan},
    {"index", "writes records of an index: SECONDARYKEY, tab, KEY, tab, VALUE",
     "In the order of secondary keys. Bounds are of secondary keys, and cannot stand beside a SECONDARYKEY.\n"
     "Exit code 1 when no record has the SECONDARYKEY that was given.\n",
     kIndex, runIndex},
    {"stats", "writes the store's counters and gauges: NAME, tab, NUMBER", "", kStoreAlone, runStats},
    {"dump", "writes a table, manifest, log or blob file, or CURRENT, in readable form",
     R"(Needs no store around the file; knows it by its name, else by its content. Fields stand between tabs. Those of
a record: sequence; put, remove, or blob for a value in a blob file; key; value; secondary keys. A damaged file
is written as far as it goes, with lines "damage at OFFSET: REASON", and exit code 5.
)",
     kDump, runDump},
    {"export", "writes all records as JSON lines",
     R"(One record a line: {"key":TEXT,"value":TEXT,"indexKeys":{"NAME":[TEXT,...],...}}. TEXT is a string where the
bytes are valid UTF-8, and {"hex":"00ff"} where they are not.
)",
     kStoreAlone, runExport},
    {"put", "writes a record",
     "Makes the store if there is none. Replaces a record of that key, with its secondary keys.\n", kPut, runPut},
    {"remove", "removes a record", "Exit code 0 also when there is no such key.\n", kRemove, runRemove},
    {"load", "writes the records of JSON lines, as export writes them",
     "Makes the store if there is none. At a line that is no record it stops, with its number and exit code 2; the\n"
     "records of all lines before it are in the store then. Blank lines are passed over.\n",
     kLoad, runLoad},
    {"compact", "merges the tables of each kind into one, and does what gc does",
     "What was replaced or removed goes. Until then it takes as much room again as the live data. Others may read\n"
     "meanwhile. Writes the numbers of before and after.\n",
     kStoreAlone, runCompact},
    {"gc", "writes the live records anew if 30 percent of a blob file are not used any more",
     "After that the old blob files go. Others may read meanwhile. Writes the numbers of before and after.\n",
     kStoreAlone, runGc},
    {"watch", "writes a line for each commit of tables by another process",
     R"(Begins with a line "watching" and what is there. Then one for each commit: number of the manifest; sequence of the
last write until then; number and bytes of tables, and bytes of blob files, as they are now. Of commits in quick
succession only the last has a line, and writes that are in the log alone have none. put, remove, load, compact and gc
tell of their commits, of which opening and closing a store are two; a program does if it opens the store with
notifyChanges. SIGINT and SIGTERM end it, with exit code 0.
)",
     kWatch, runWatch},
};

void writePadded(Output& output, std::string_view text, std::size_t width) {
    output.write(text);
    output.write(std::string(text.size() < width ? width - text.size() : 1, ' '));
}

std::string usageOf(const Command& command) {
    std::string usage = std::string("znstore ") + command.name;
    bool hasOptions = false;
    for (const Parameter& parameter : command.parameters) {
        hasOptions |= parameter.isOption();
        if (!parameter.isOption())
            usage +=
                parameter.isRequired ? std::string(" ") + parameter.name : std::string(" [") + parameter.name + "]";
    }
    return hasOptions ? usage + " [options]" : usage;
}

const char* valueNameOf(const Parameter& parameter) {
    switch (parameter.kind) {
    case Parameter::Switch: return "";
    case Parameter::Number: return " N";
    case Parameter::Bytes: return " KEY";
    case Parameter::Text: break;
    }
    return " TEXT";
}

constexpr const char* kHelpEnd =
    R"(
znstore COMMAND --help tells more of each.

Keys and values in arguments and in text output have one form: printable ASCII as itself, "\" as "\\", any other byte
as "\x" and two hex digits. So no key or value holds a tab or a line feed there. In arguments other bytes may stand as
themselves. "--" ends the options, for arguments that begin with "--".

put, remove, load, compact and gc open the store for writing, which one process at a time can. All others only read,
also beside a writer, and never make or change a file.

Exit codes: 0 done; 1 nothing found; 2 wrong arguments, or a wrong line given to load; 3 no store there, or another
process writes to it; 4 a file cannot be read or written; 5 damaged. The reason is on standard error.
)";

} // namespace

const Command* findCommand(std::string_view name) {
    const auto at = std::find_if(std::begin(kCommands), std::end(kCommands),
                                 [&](const Command& command) { return command.name == name; });
    return at == std::end(kCommands) ? nullptr : &*at;
}

void writeHelp(Output& output) {
    output.line("znstore COMMAND DIR [arguments] [--options]: looks into a key-value store, and writes to it\n");
    for (const Command& command : kCommands) {
        output.write("  ");
        writePadded(output, command.name, 10);
        output.line(command.summary);
    }
    output.write(kHelpEnd);
}

void writeHelp(const Command& command, Output& output) {
    output.line(ZnString(usageOf(command)), ": ", command.summary);
    output.write("\n");
    for (const Parameter& parameter : command.parameters) {
        output.write("  ");
        writePadded(output,
                    parameter.isOption() ? std::string(parameter.name) + valueNameOf(parameter) : parameter.name, 16);
        output.line(parameter.meaning);
    }
    if (*command.details != '\0')
        output.write("\n");
    output.write(command.details);
}

} // namespace znstore
