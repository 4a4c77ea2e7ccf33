// Looks into a store from the command line, and writes to it. One command per run.

#include "Arguments.h"
#include "Commands.h"
#include "Exit.h"
#include "Output.h"

#include <algorithm>
#include <span>
#include <string_view>

namespace {

using namespace znstore;

bool isHelp(std::string_view word) {
    return word == "--help" || word == "-h";
}

bool asksForHelp(std::span<char* const> words) {
    const auto end = std::find(words.begin(), words.end(), std::string_view("--"));
    return std::any_of(words.begin(), end, isHelp);
}

int run(std::span<char* const> words, Output& output) {
    if (words.empty())
        return fail(kExitUsage, "a command is missing; see znstore --help");
    if (isHelp(words.front())) {
        writeHelp(output);
        return kExitOk;
    }
    const Command* command = findCommand(words.front());
    if (command == nullptr)
        return fail(kExitUsage, "no such command: " + ZnString(words.front()) + "; see znstore --help");
    if (asksForHelp(words.subspan(1))) {
        writeHelp(*command, output);
        return kExitOk;
    }
    Arguments arguments;
    ZnString errorText;
    if (!arguments.parse(words.subspan(1), command->parameters, &errorText))
        return fail(kExitUsage, errorText + "; see znstore " + command->name + " --help");
    return command->run(arguments, output);
}

} // namespace

int main(int argumentCount, char** arguments) {
    Output output;
    const std::span<char* const> words(arguments, static_cast<std::size_t>(argumentCount));
    const int exitCode = run(words.subspan(words.empty() ? 0 : 1), output);
    return output.finish(exitCode);
}
