#pragma once

#include "core/platform/ZnWaitHandle.h"

#include <cstddef>
#include <memory>

/// Standard input or output, as a stream that an event loop can watch: a pipe, a socket, a terminal or a file.
///
/// Nothing here blocks, but for regular files. The mode of descriptors that other processes share stays as it is.
/// Thread: the owner's.
class ZnStandardStream final : public ZnWaitHandle {
public:
    /// Null when the process was started without standard input.
    static std::shared_ptr<ZnStandardStream> input();
    /// Takes standard output over: what else the process writes there, a log line say, goes to standard error from now
    /// on. Null when the process was started without standard output.
    static std::shared_ptr<ZnStandardStream> takeOutput();

    /// Standard output as it is, to be watched beside other ways of writing there. Null as above.
    static std::shared_ptr<ZnStandardStream> output();

    struct Transfer {
        std::size_t byteCount = 0;
        bool wouldBlock = false;
        bool hasEnded = false; // the end of the input, or an output that nobody takes any more
    };
    Transfer read(char* buffer, std::size_t capacity);
    Transfer write(const char* bytes, std::size_t byteCount);

    /// Whether nobody takes an output any more: the reader of a pipe has gone.
    bool isAbandoned() const;
    /// Whether an event loop can watch it; else it is always ready.
    bool isWatchable() const;
    bool noteReady(std::uint32_t readiness) override;

private:
    enum class Way_ { NonBlocking, Socket, AskFirst, AlwaysReady };

    ZnStandardStream(ZnFileDescriptor descriptor, Way_ way) : ZnWaitHandle(std::move(descriptor)), way_(way) {}
    static std::shared_ptr<ZnStandardStream> open_(int standardDescriptor, int accessMode);
    bool isReady_(short event) const;
    static Transfer resultOf_(long long byteCount, bool isInput);

    const Way_ way_;
};
