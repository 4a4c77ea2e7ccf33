#pragma once

#include "core/object/ZnPointer.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <type_traits>
#include <typeinfo>
#include <utility>

enum class ZnConnectionType : std::int32_t {
    AutoConnection = 0,           // direct within a thread, queued between threads
    DirectConnection = 1,         // at once, on the emitting thread
    QueuedConnection = 2,         // posted to the receiver's thread
    BlockingQueuedConnection = 3, // posted to the receiver's thread; the emitter waits for the slot's end
};

/// What a signal is known by: the type and the value of its pointer to member function.
struct SignalKey {
    template <typename Signal>
    static SignalKey of(Signal signal) {
        static_assert(std::is_member_function_pointer_v<Signal> && sizeof(Signal) == sizeof(bytes));
        SignalKey key;
        key.type = &typeid(Signal);
        std::memcpy(key.bytes, &signal, sizeof(signal));
        return key;
    }
    friend bool operator==(const SignalKey& left, const SignalKey& right) noexcept {
        return std::memcmp(left.bytes, right.bytes, sizeof(left.bytes)) == 0 &&
               (left.type == right.type || *left.type == *right.type);
    }

    const std::type_info* type = nullptr;
    unsigned char bytes[2 * sizeof(void*)] = {};
};

/// Abstract root of everything that a signal can call.
class ISlotBase {
public:
    explicit ISlotBase(zn::detail::ZnPointerControlRef receiverControl) : receiver_(std::move(receiverControl)) {}
    virtual ~ISlotBase() = default;
    ISlotBase(const ISlotBase&) = delete;
    ISlotBase& operator=(const ISlotBase&) = delete;

    bool hasReceiver() const noexcept { return receiver_ != nullptr; }
    /// The receiver while it lives, else null.
    ZnObject* receiverObject() const noexcept { return receiver_ ? receiver_->get() : nullptr; }
    /// The thread of the receiver, which may have ended; null without a receiver.
    zn::atomic::Thread* receiverThread() const noexcept { return receiver_ ? receiver_->thread : nullptr; }
    /// Who the receiver is, also when it was destroyed; null for a slot without one.
    const zn::detail::ZnPointerControlRef& receiverControl() const noexcept { return receiver_; }
    /// False once the connection has been dropped; deliveries already under way then do nothing.
    bool isConnected() const noexcept { return connected_.load(std::memory_order_acquire); }
    void markDisconnected() noexcept { connected_.store(false, std::memory_order_release); }

private:
    const zn::detail::ZnPointerControlRef receiver_; // null for a slot without a receiver
    std::atomic<bool> connected_{true};              // the release store of markDisconnected() pairs with isConnected()
};

/// A slot with an argument list. The list is part of the signal's key, so the types always agree.
template <typename... Args>
class ITypedSlot : public ISlotBase {
public:
    using ISlotBase::ISlotBase;
    /// Only after the receiver, if there is one, was found alive.
    virtual void invoke(const Args&... args) = 0;
};

/// Calls a function that has no receiver.
template <typename Function, typename... Args>
class SlotFunction final : public ITypedSlot<Args...> {
public:
    explicit SlotFunction(Function function) : ITypedSlot<Args...>(nullptr), function_(std::move(function)) {}
    void invoke(const Args&... args) override {
        if constexpr (std::is_invocable_v<Function&, const Args&...>)
            function_(args...);
        else
            function_(); // a slot may ignore what the signal carries
    }

private:
    Function function_;
};

/// Calls a function, or a member function, on behalf of a receiver.
template <typename Receiver, typename Function, typename... Args>
class SlotFunctionReceiver final : public ITypedSlot<Args...> {
public:
    SlotFunctionReceiver(zn::detail::ZnPointerControlRef control, Receiver* receiver, Function function)
        : ITypedSlot<Args...>(std::move(control)), receiver_(receiver), function_(std::move(function)) {}
    void invoke(const Args&... args) override {
        if constexpr (std::is_member_function_pointer_v<Function>) {
            if constexpr (std::is_invocable_v<Function, Receiver*, const Args&...>)
                std::invoke(function_, receiver_, args...);
            else
                std::invoke(function_, receiver_);
        } else if constexpr (std::is_invocable_v<Function&, const Args&...>) {
            function_(args...);
        } else {
            function_();
        }
    }

private:
    Receiver* receiver_;
    Function function_;
};
