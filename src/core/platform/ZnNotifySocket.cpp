#include "core/platform/ZnNotifySocket.h"

#include "core/platform/ZnProcess.h"
#include "core/types/ZnString.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int kMaxBatches = 16; // per take

struct Address {
    sockaddr_un name;
    socklen_t byteCount;
};

/// In the namespace of sockets without files, whose names begin with a zero byte.
Address addressOf(std::uint32_t processId) {
    const ZnString text =
        ZnString("zn_ipc_notify_") + ZnString::number(ZnProcess::userId()) + "_" + ZnString::number(processId);
    Address address = {};
    address.name.sun_family = AF_UNIX;
    std::memcpy(address.name.sun_path + 1, text.data(), text.size());
    address.byteCount = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + text.size());
    return address;
}

ZnFileDescriptor makeSocket() {
    return ZnFileDescriptor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

/// How many datagrams a queue holds; 1 when the system does not tell, which only makes strangers count for more.
int askQueueLimit() {
    char text[16] = {};
    const ZnFileDescriptor file(::open("/proc/sys/net/unix/max_dgram_qlen", O_RDONLY | O_CLOEXEC));
    if (!file || ::read(file.get(), text, sizeof(text) - 1) <= 0)
        return 1;
    return ZnString(text).trimmed().toInt();
}

/// Whether a process of this user has sent the datagram.
bool isFromUser(msghdr& message) {
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    if (header == nullptr || header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_CREDENTIALS)
        return false;
    ucred sender = {};
    std::memcpy(&sender, CMSG_DATA(header), sizeof(sender));
    return sender.uid == ::getuid();
}

/// What a number of datagrams need to be received at once.
struct Batch {
    static constexpr unsigned kSize = 16;

    struct Slot {
        char byte;
        iovec part;
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
    };

    /// Number of datagrams that have come; fewer than kSize when there are no more.
    int receive(int descriptor) {
        for (unsigned index = 0; index < kSize; ++index) {
            Slot& slot = slots[index];
            slot.part = {&slot.byte, 1};
            messages[index] = {};
            messages[index].msg_hdr.msg_iov = &slot.part;
            messages[index].msg_hdr.msg_iovlen = 1;
            messages[index].msg_hdr.msg_control = slot.control;
            messages[index].msg_hdr.msg_controllen = sizeof(slot.control);
        }
        int received = -1;
        do {
            received = ::recvmmsg(descriptor, messages, kSize, MSG_DONTWAIT | MSG_CMSG_CLOEXEC, nullptr);
        } while (received < 0 && errno == EINTR);
        return received < 0 ? 0 : received;
    }

    Slot slots[kSize];
    mmsghdr messages[kSize];
};

} // namespace

std::shared_ptr<ZnNotifySocket> ZnNotifySocket::open() {
    ZnFileDescriptor descriptor = makeSocket();
    const int on = 1;
    const Address address = addressOf(ZnProcess::currentId());
    if (!descriptor || ::setsockopt(descriptor.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0 ||
        ::bind(descriptor.get(), reinterpret_cast<const sockaddr*>(&address.name), address.byteCount) != 0)
        return nullptr;
    return std::shared_ptr<ZnNotifySocket>(new ZnNotifySocket(std::move(descriptor), askQueueLimit()));
}

void ZnNotifySocket::signal(std::uint32_t processId) {
    static const ZnFileDescriptor shared = makeSocket();
    const ZnFileDescriptor own = shared ? ZnFileDescriptor() : makeSocket(); // there was no descriptor to be had then
    const Address address = addressOf(processId);
    const char byte = 1;
    // Fails for a process that has ended, and when the queue is full, which is as good.
    (void)::sendto(shared ? shared.get() : own.get(), &byte, 1, MSG_NOSIGNAL,
                   reinterpret_cast<const sockaddr*>(&address.name), address.byteCount);
}

bool ZnNotifySocket::take(bool* hasMore) {
    bool isSet = false;
    *hasMore = true;
    for (int round = 0; *hasMore && round < kMaxBatches; ++round) {
        Batch batch;
        const int count = batch.receive(descriptor());
        for (int index = 0; index < count; ++index) {
            if (isFromUser(batch.messages[index].msg_hdr))
                isSet = true;
            else
                strangerCount_.fetch_add(1, std::memory_order_relaxed);
        }
        *hasMore = count == static_cast<int>(Batch::kSize);
    }
    if (strangerCount_.load(std::memory_order_relaxed) >= queueLimit_)
        isSet = true;
    if (isSet)
        strangerCount_.store(0, std::memory_order_relaxed);
    return isSet;
}
