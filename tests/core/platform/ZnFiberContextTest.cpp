#include "core/platform/ZnFiberContext.h"

#include <cerrno>
#include <exception>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kStackBytes = 512 * 1024;

/// A few contexts that take turns with the test's own.
class Fibers {
public:
    explicit Fibers(std::size_t count) : stacks_(count, kStackBytes), fibers_(count) {}

    void add(std::function<void()> body) {
        Fiber& fiber = fibers_[count_];
        fiber.owner = this;
        fiber.body = std::move(body);
        void* stack = stacks_.prepare(count_++);
        ASSERT_NE(stack, nullptr);
        fiber.context = std::make_unique<ZnFiberContext>(stack, stacks_.stackBytes(), &enter, &fiber);
    }
    void resume(std::size_t index) {
        running_ = index;
        main_.switchTo(*fibers_[index].context);
    }
    /// From inside a fiber.
    void park() { fibers_[running_].context->switchTo(main_); }

private:
    struct Fiber { Fibers* owner = nullptr; std::function<void()> body; std::unique_ptr<ZnFiberContext> context; };

    static void enter(void* argument) {
        auto* fiber = static_cast<Fiber*>(argument);
        fiber->body();
        for (;;)
            fiber->owner->park();
    }

    ZnFiberStacks stacks_;
    ZnFiberContext main_;
    std::vector<Fiber> fibers_;
    std::size_t count_ = 0;
    std::size_t running_ = 0;
};

TEST(ZnFiberContext, ExceptionsBelongToTheFiberThatHandlesThem) {
    Fibers fibers(3);
    std::vector<std::string> caught(3);
    for (std::size_t i = 0; i < 3; ++i)
        fibers.add([&fibers, &caught, i] {
            try {
                try {
                    throw std::runtime_error("from " + std::to_string(i));
                } catch (...) {
                    fibers.park(); // the others throw, catch and rethrow meanwhile
                    try {
                        throw std::logic_error("inner");
                    } catch (const std::logic_error&) {
                        fibers.park();
                    }
                    throw;
                }
            } catch (const std::runtime_error& error) {
                caught[i] = error.what();
            }
        });
    for (const std::size_t index : {0U, 1U, 2U, 2U, 0U, 1U, 1U, 0U, 2U})
        fibers.resume(index);
    EXPECT_EQ(caught, (std::vector<std::string>{"from 0", "from 1", "from 2"}));
}

TEST(ZnFiberContext, ErrnoSurvivesASwitch) {
    Fibers fibers(1);
    int seen = 0;
    fibers.add([&] {
        errno = ENOENT;
        fibers.park();
        seen = errno;
    });
    errno = EPERM;
    fibers.resume(0);
    EXPECT_EQ(errno, EPERM);
    errno = EACCES;
    fibers.resume(0);
    EXPECT_EQ(seen, ENOENT);
}

/// Each frame has a kilobyte, which the barriers keep the compiler from leaving out.
__attribute__((noinline)) void burnStack(std::size_t frames) {
    char block[1024];
    asm volatile("" : : "r"(block) : "memory");
    if (frames > 0)
        burnStack(frames - 1);
    asm volatile("" : : "r"(block) : "memory");
}

TEST(ZnFiberContextDeathTest, OverflowHitsTheGuardPageAndNotTheNeighbour) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    Fibers fibers(2);
    fibers.add([] { burnStack(100); }); // deep but legal; the neighbour below
    fibers.resume(0);
    fibers.add([&] { burnStack(800); }); // would end in the neighbour
    EXPECT_DEATH(fibers.resume(1), "");
}

} // namespace
