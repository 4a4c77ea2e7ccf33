// Signals between processes of one user. In one terminal
//     ipc-signal listen DOMAIN OBJECT SIGNAL
// and in another one
//     ipc-signal publish DOMAIN OBJECT SIGNAL FIRST SECOND
//     ipc-signal list DOMAIN

#include "core/ipc/Channel.h"
#include "core/ipc/SubscribersRegistryTable.h"
#include "core/ipc/Subscription.h"
#include "core/platform/ZnProcess.h"
#include "core/runtime/ZnCoreApplication.h"

#include <cstdlib>
#include <iostream>

namespace {

constexpr int kFailed = 2;
constexpr int kPatienceMs = 10000; // for another process that stands still

int fail(const ZnString& reason) {
    std::cerr << "ipc-signal: " << reason << std::endl;
    return kFailed;
}

bool readNumber(const ZnString& text, std::uint64_t* number) {
    bool ok = false;
    const long long value = text.toLongLong(&ok);
    *number = static_cast<std::uint64_t>(value);
    return ok && value >= 0;
}

int publish(ZnCoreApplication& application, char** arguments) {
    std::uint64_t first = 0;
    std::uint64_t second = 0;
    if (!readNumber(arguments[3], &first) || !readNumber(arguments[4], &second))
        return fail("the two values are numbers from 0 on");
    ZnString error;
    const auto channel = zn::ipc::Channel::open(arguments[0], arguments[1], arguments[2], &error);
    if (!channel)
        return fail(error);
    channel->publish(first, second);
    if (!application.processUntil([&] { return !channel->hasUnsaid(); }, kPatienceMs))
        return fail("another process stands still and holds what publishing needs");
    return 0;
}

int listen(ZnCoreApplication& application, char** arguments) {
    ZnString error;
    const auto subscription = zn::ipc::Subscription::subscribe(
        arguments[0], arguments[1], arguments[2], "ipc-signal",
        [](const zn::ipc::SignalValue& value) {
            std::cout << "signal " << value.sequence << ": " << value.first << " " << value.second << std::endl;
        },
        &error);
    if (!subscription)
        return fail(error);
    std::cout << "listening as process " << ZnProcess::currentId() << std::endl;
    return application.exec(); // SIGINT and SIGTERM end it
}

int list(const ZnString& domain) {
    std::vector<zn::ipc::detail::SubscriberInfo> subscribers;
    if (zn::ipc::detail::listSubscribers(domain, subscribers) != zn::ipc::detail::RegistryOutcome::Done)
        return fail("the registry of the domain cannot be read now");
    for (const auto& subscriber : subscribers)
        std::cout << "pid " << subscriber.pid << ", last seen " << subscriber.ageMs << " ms ago, "
                  << subscriber.refCount << " of " << subscriber.object << " " << subscriber.signal << std::endl;
    return 0;
}

} // namespace

int main(int argumentCount, char** arguments) {
    const ZnString command = argumentCount > 1 ? arguments[1] : "";
    ZnCoreApplication application(argumentCount, arguments);
    if (command == "publish" && argumentCount == 7)
        return publish(application, arguments + 2);
    if (command == "listen" && argumentCount == 5)
        return listen(application, arguments + 2);
    if (command == "list" && argumentCount == 3)
        return list(arguments[2]);
    return fail("publish DOMAIN OBJECT SIGNAL FIRST SECOND | listen DOMAIN OBJECT SIGNAL | list DOMAIN");
}
