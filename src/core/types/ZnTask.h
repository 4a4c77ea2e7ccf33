#pragma once

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

/// A move-only `void()` callable. Captures of up to 64 bytes are stored inside, without an allocation.
///
/// Thread: a value; hand it over by move. Calling an empty task is a programmer mistake.
class ZnTask {
public:
    ZnTask() noexcept = default;
    ZnTask(std::nullptr_t) noexcept {}

    template <typename Function, typename = std::enable_if_t<!std::is_same_v<std::decay_t<Function>, ZnTask> &&
                                                             std::is_invocable_v<std::decay_t<Function>&>>>
    ZnTask(Function&& function) {
        using Stored = std::decay_t<Function>;
        if constexpr (std::is_constructible_v<bool, const Stored&> && !std::is_pointer_v<Stored>) {
            if (!static_cast<bool>(function))
                return; // an empty std::function stays an empty task
        }
        if constexpr (fitsInside_<Stored>()) {
            ::new (static_cast<void*>(storage_)) Stored(std::forward<Function>(function));
            operations_ = &kInsideOperations_<Stored>;
        } else {
            ::new (static_cast<void*>(storage_)) Stored*(new Stored(std::forward<Function>(function)));
            operations_ = &kHeapOperations_<Stored>;
        }
    }

    ZnTask(ZnTask&& other) noexcept { takeFrom_(other); }
    ZnTask& operator=(ZnTask&& other) noexcept {
        if (this != &other) {
            reset();
            takeFrom_(other);
        }
        return *this;
    }
    ZnTask(const ZnTask&) = delete;
    ZnTask& operator=(const ZnTask&) = delete;
    ~ZnTask() { reset(); }

    explicit operator bool() const noexcept { return operations_ != nullptr; }
    void operator()() { operations_->call(storage_); }

    /// Destroys the callable and its captures; the task is empty afterwards.
    void reset() noexcept {
        if (operations_ != nullptr)
            std::exchange(operations_, nullptr)->destroy(storage_);
    }

private:
    static constexpr std::size_t kInsideBytes_ = 64;

    struct Operations_ {
        void (*call)(void*);
        void (*move)(void* from, void* to) noexcept; // leaves `from` without an object
        void (*destroy)(void*) noexcept;
    };

    template <typename Stored>
    static constexpr bool fitsInside_() {
        return sizeof(Stored) <= kInsideBytes_ && alignof(Stored) <= alignof(std::max_align_t) &&
               std::is_nothrow_move_constructible_v<Stored>;
    }
    template <typename Stored>
    static constexpr Operations_ kInsideOperations_ = {[](void* at) { (*static_cast<Stored*>(at))(); },
                                                       [](void* from, void* to) noexcept {
                                                           ::new (to) Stored(std::move(*static_cast<Stored*>(from)));
                                                           static_cast<Stored*>(from)->~Stored();
                                                       },
                                                       [](void* at) noexcept { static_cast<Stored*>(at)->~Stored(); }};
    template <typename Stored>
    static constexpr Operations_ kHeapOperations_ = {
        [](void* at) { (**static_cast<Stored**>(at))(); },
        [](void* from, void* to) noexcept { ::new (to) Stored*(*static_cast<Stored**>(from)); },
        [](void* at) noexcept { delete *static_cast<Stored**>(at); }};

    void takeFrom_(ZnTask& other) noexcept {
        operations_ = std::exchange(other.operations_, nullptr);
        if (operations_ != nullptr)
            operations_->move(other.storage_, storage_);
    }

    const Operations_* operations_ = nullptr;
    alignas(std::max_align_t) unsigned char storage_[kInsideBytes_];
};
