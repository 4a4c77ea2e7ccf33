#pragma once

#include <utility>

/// Owns a file descriptor and closes it. Move-only.
class ZnFileDescriptor {
public:
    ZnFileDescriptor() noexcept = default;
    explicit ZnFileDescriptor(int descriptor) noexcept : descriptor_(descriptor) {}
    ZnFileDescriptor(ZnFileDescriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    ZnFileDescriptor& operator=(ZnFileDescriptor&& other) noexcept {
        if (this != &other) {
            reset();
            descriptor_ = std::exchange(other.descriptor_, -1);
        }
        return *this;
    }
    ~ZnFileDescriptor() { reset(); }

    int get() const noexcept { return descriptor_; }
    explicit operator bool() const noexcept { return descriptor_ >= 0; }
    void reset() noexcept;
    /// Leaves the descriptor to the caller, who closes it.
    int release() noexcept { return std::exchange(descriptor_, -1); }

private:
    int descriptor_ = -1;
};
