#include "agent/McpTrailCommand.h"

#include "agent/McpStateDir.h"
#include "agent/McpText.h"
#include "agent/McpTime.h"
#include "agent/McpTrailRecord.h"
#include "core/ipc/Subscription.h"
#include "core/platform/ZnFileIdentity.h"
#include "core/platform/ZnStandardStream.h"
#include "core/runtime/ZnCoreApplication.h"
#include "core/storage/embeddeddb/ZnEmbeddedDb.h"
#include "core/types/ZnJsonDocument.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iostream>
#include <optional>
#include <utility>

namespace {

constexpr std::size_t kNameBytes = 256;
enum ExitCode : int { kFine = 0, kNothingReadable = 1, kUsage = 2 };

constexpr const char* kHelp =
    "Usage: brelt-mcp-bridge-agent trail DIR [--service S] [--since T] [--outcome O] [--follow] [--json]\n"
    "\n"
    "Prints the calls that an agent with --state_dir=DIR keeps, the oldest first: time, service, method, tool, "
    "outcome,\n"
    "milliseconds, and the HTTP status with a JSON-RPC error's code, or what went wrong with the connection. The "
    "agent\n"
    "may run meanwhile.\n"
    "\n"
    "  --service S   calls to this service alone\n"
    "  --since T     calls that ended at T or later: 2026-11-24T08:00:00Z, 2026-11-24, or so long ago: 30m, 2h, 3d, "
    "1w\n"
    "  --outcome O   ok, tool_error, rpc_error, http_error, transport_error, cancelled or refused\n"
    "  --follow      goes on with the calls that come, until SIGINT or SIGTERM, or nobody reads the output\n"
    "  --json        one JSON object a line\n"
    "\n"
    "Exit codes: 0 fine, 1 nothing readable there, 2 wrong usage.\n";

int fail(ExitCode code, const ZnString& text) {
    std::cerr << "brelt-mcp-bridge-agent trail: " << text << std::endl;
    return code;
}

// --- what is asked for

struct Query {
    ZnString directory;
    std::optional<ZnString> service;
    std::optional<ZnString> outcome;
    long long sinceUs = 0;
    bool follows = false;
    bool asJson = false;
    bool wantsHelp = false;
};

bool isOutcome(const ZnString& name) {
    for (int i = 0; i <= static_cast<int>(McpCallRecord::Outcome::Refused); ++i)
        if (name == McpCallRecord::nameOf(static_cast<McpCallRecord::Outcome>(i)))
            return true;
    return false;
}

/// False, with the reason.
bool setValue(std::string_view name, const std::string& value, Query* query, ZnString* problem) {
    if (name == "--service") {
        query->service = mcp::trailServiceName(value);
    } else if (name == "--outcome") {
        query->outcome = value;
        if (!isOutcome(value))
            *problem = "there is no outcome \"" + mcp::printable(value) + "\"";
    } else if (const std::optional<long long> since = mcp::readTime(value, mcp::wallNowUs())) {
        query->sinceUs = *since;
    } else {
        *problem =
            "\"" + mcp::printable(value) + "\" is no time such as 2026-11-24T08:00:00Z, 2026-11-24, 30m, 2h or 3d";
    }
    return problem->isEmpty();
}

/// False, with the reason.
bool parse(const std::vector<std::string>& arguments, Query* query, ZnString* problem) {
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        const std::size_t equals = argument.find('=');
        const std::string name = argument.substr(0, equals);
        if (argument == "--help" || argument == "-h") {
            query->wantsHelp = true;
        } else if (argument == "--follow") {
            query->follows = true;
        } else if (argument == "--json") {
            query->asJson = true;
        } else if (name == "--service" || name == "--outcome" || name == "--since") {
            if (equals == std::string::npos && ++i == arguments.size()) {
                *problem = ZnString(name) + " wants a value";
                return false;
            }
            if (!setValue(name, equals == std::string::npos ? arguments[i] : argument.substr(equals + 1), query,
                          problem))
                return false;
        } else if (argument.starts_with("-") || !query->directory.isEmpty()) {
            *problem = "\"" + mcp::printable(argument) + "\" means nothing here";
            return false;
        } else {
            query->directory = argument;
        }
    }
    if (query->directory.isEmpty())
        *problem = "no directory is given";
    return query->wantsHelp || problem->isEmpty();
}

// --- lines

/// Text that fills a column of its table, or is longer.
ZnString column(const ZnString& text, std::size_t width) {
    ZnString out = text.isEmpty() ? ZnString("-") : text;
    while (out.size() < width)
        out += ' ';
    return out + "  ";
}

ZnString codeText(const ZnJsonObject& call) {
    if (call.contains("transportCode"))
        return "transport " + ZnString::number(call.value("transportCode").toLongLong());
    const long long status = call.value("status").toLongLong();
    const ZnString text = status == 0 ? ZnString("-") : ZnString::number(status);
    return call.contains("rpcCode") ? text + " / " + ZnString::number(call.value("rpcCode").toLongLong()) : text;
}

ZnString lineOf(const ZnJsonObject& call) {
    std::array<char, 32> ms{};
    std::snprintf(ms.data(), ms.size(), "%9.1f ms", call.value("ms").toDouble(0.0));
    const auto text = [&call](const char* name, std::size_t width) {
        return column(mcp::printable(call.value(name).string(), kNameBytes), width);
    };
    return text("time", 24) + text("service", 12) + text("method", 10) + text("tool", 16) + text("outcome", 15) +
           ms.data() + "  " + codeText(call);
}

/// Prints what is asked for, from where it has stopped.
///
/// Thread: one. It borrows the store and the query.
class Printer {
public:
    Printer(const ZnEmbeddedDb& store, const Query& query) : store_(store), query_(query) {}

    /// False when nobody takes the output.
    bool printNew();
    const ZnEmbeddedDbStatus& status() const noexcept { return status_; }

private:
    void printScanned_(const ZnEmbeddedDbRange& range);
    void printIndexed_();
    void print_(std::string_view value);
    bool isAskedFor_(const ZnJsonObject& call) const;

    const ZnEmbeddedDb& store_;
    const Query& query_;
    std::string lastKey_; // of the last call that was there; empty at first
    ZnEmbeddedDbStatus status_;
};

ZnEmbeddedDbRange callsFrom(std::string_view key) {
    ZnEmbeddedDbRange range;
    range.prefix = ZnByteArray(mcp::kTrailPrefix);
    range.start = ZnByteArray(key);
    return range;
}

bool Printer::printNew() {
    status_ = {};
    const bool isFirst = lastKey_.empty();
    if (isFirst && (query_.service || query_.outcome))
        printIndexed_();
    else // a key never is before the time of its call
        printScanned_(callsFrom(isFirst ? mcp::trailKey(std::max(query_.sinceUs, 0LL)) : lastKey_ + '\0'));
    ZnEmbeddedDbRange last = callsFrom({});
    last.reverse = true;
    last.keysOnly = true;
    if (const ZnEmbeddedDbIterator record = store_.scan(last); record.valid())
        lastKey_ = std::max(lastKey_, std::string(record.key()));
    return std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
}

void Printer::printScanned_(const ZnEmbeddedDbRange& range) {
    auto record = store_.scan(range);
    for (; record.valid(); record.next())
        print_(record.value());
    status_ = record.status();
}

/// From the newest back to the time that is asked for; then in the other direction.
void Printer::printIndexed_() {
    const ZnString& wanted = query_.service ? *query_.service : *query_.outcome;
    ZnEmbeddedDbRange range;
    range.start = ZnByteArray(wanted.view());
    range.end = ZnByteArray(wanted.view());
    range.end.append(std::string_view("\0", 1));
    range.reverse = true;
    range.keysOnly = true;
    auto record = store_.indexScan(query_.service ? mcp::kTrailServiceIndex : mcp::kTrailOutcomeIndex, range);
    std::vector<long long> numbers;
    for (; record.valid(); record.next()) {
        numbers.push_back(mcp::trailNumber(record.key()).value_or(0));
        if (numbers.back() < query_.sinceUs)
            break;
    }
    status_ = record.status();
    for (; status_.isOk() && !numbers.empty(); numbers.pop_back()) {
        ZnByteArray value;
        status_ = store_.get(mcp::trailKey(numbers.back()), &value);
        print_(value.view());
    }
}

void Printer::print_(std::string_view value) {
    ZnString error;
    const ZnJsonDocument document = ZnJsonDocument::fromJson(value, &error, JsonReading::Exact);
    const ZnJsonObject* call = document.root().object();
    if (call == nullptr || !isAskedFor_(*call))
        return;
    const ZnString line = query_.asJson ? ZnString(value) : lineOf(*call);
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
}

bool Printer::isAskedFor_(const ZnJsonObject& call) const {
    const std::optional<long long> timeUs = mcp::readTime(call.value("time").string(), 0);
    return (!query_.service || call.value("service").string() == query_.service->view()) &&
           (!query_.outcome || call.value("outcome").string() == query_.outcome->view()) &&
           timeUs.value_or(0) >= query_.sinceUs / 1000 * 1000;
}

ZnEmbeddedDbStatus openToRead(ZnEmbeddedDb& store, const ZnString& directory) {
    ZnEmbeddedDbOptions options;
    options.readOnly = true;
    return store.open(directory, options);
}

// --- following

/// Ends the loop when nobody reads the output any more.
class OutputWatch {
public:
    explicit OutputWatch(ZnCoreApplication& application)
        : application_(application), output_(ZnStandardStream::output()) {
        if (output_ && output_->isWatchable())
            id_ = application_.ioDispatcher().watchHandle(output_, [this](unsigned) {
                if (output_->isAbandoned())
                    application_.quit();
            });
    }
    ~OutputWatch() { application_.ioDispatcher().unwatch(id_); }
    OutputWatch(const OutputWatch&) = delete;
    OutputWatch& operator=(const OutputWatch&) = delete;

private:
    ZnCoreApplication& application_;
    const std::shared_ptr<ZnStandardStream> output_;
    unsigned long long id_ = 0;
};

/// Shows what is there now: that may be another directory in the place of the first.
ZnEmbeddedDbStatus renew(ZnEmbeddedDb& store, const ZnString& directory, unsigned long long* inode) {
    const unsigned long long inodeNow = ZnFileIdentity::of(directory).inode;
    if (std::exchange(*inode, inodeNow) == inodeNow && store.isOpen())
        return store.refresh();
    store.close();
    return openToRead(store, directory);
}

int follow(ZnEmbeddedDb& store, const Query& query) {
    ZnCoreApplication application;
    const OutputWatch watch(application);
    Printer printer(store, query);
    unsigned long long inode = ZnFileIdentity::of(query.directory).inode;
    ZnEmbeddedDbStatus status;
    const auto printNew = [&] {
        const bool wasOk = status.isOk();
        status = renew(store, query.directory, &inode);
        if (status.isOk() && !application.isQuitRequested() && !printer.printNew())
            application.quit();
        if (status.isOk())
            status = printer.status();
        if (!status.isOk() && wasOk) // told once: with the next call it may be well again
            fail(kNothingReadable, status.message());
    };
    const McpStateDir::Signal names = McpStateDir::signalOf(query.directory);
    ZnString problem;
    const auto calls = zn::ipc::Subscription::subscribe(
        names.domain, names.object, names.signal, "trail", [&](const zn::ipc::SignalValue&) { printNew(); }, &problem);
    if (!calls)
        return fail(kNothingReadable, problem);
    printNew(); // what has come before
    if (!status.isOk())
        return kNothingReadable;
    const int exitCode = application.exec();
    return status.isOk() ? exitCode : kNothingReadable;
}

} // namespace

int runTrailCommand(const std::vector<std::string>& arguments) {
    Query query;
    ZnString problem;
    if (!parse(arguments, &query, &problem))
        return fail(kUsage, problem + "; see --help");
    if (query.wantsHelp) {
        std::cout << kHelp << std::flush;
        return kFine;
    }
    ZnEmbeddedDb store;
    if (const ZnEmbeddedDbStatus status = openToRead(store, query.directory); !status.isOk())
        return fail(kNothingReadable, status.message());
    if (query.follows)
        return follow(store, query);
    Printer printer(store, query);
    printer.printNew();
    return printer.status().isOk() ? kFine : fail(kNothingReadable, printer.status().message());
}
