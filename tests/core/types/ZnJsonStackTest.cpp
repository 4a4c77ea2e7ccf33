#include "core/types/ZnJsonDocument.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include <pthread.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZN_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZN_TEST_SANITIZED 1
#endif
#endif

namespace {

#if defined(ZN_TEST_SANITIZED)
constexpr std::size_t kStackBytes = 256 * 1024; // frames are several times as large
#else
constexpr std::size_t kStackBytes = 64 * 1024; // half of what a fiber has
#endif

/// Runs `work` on a thread whose stack ends at a guard page.
void onSmallStack(std::function<void()> work) {
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, kStackBytes), 0);
    pthread_t thread;
    const auto run = [](void* argument) -> void* {
        (*static_cast<std::function<void()>*>(argument))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, run, &work), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    pthread_attr_destroy(&attributes);
}

/// `depth` containers, by turns an object with a neighbour and an array.
std::string nestedText(int depth) {
    std::string text = "1";
    for (int level = 0; level < depth; ++level)
        text = level % 2 == 0 ? "[0,\"x\"," + text + "]" : "{\"a\":{},\"k\":" + text + ",\"z\":2.5}";
    return text;
}

TEST(ZnJsonStack, ParsesToTheLimitAndNoFurther) {
    onSmallStack([] {
        ZnString error;
        ZnJsonDocument document = ZnJsonDocument::fromJson(nestedText(ZnJsonDocument::kMaxDepth), &error);
        EXPECT_EQ(error, "");
        const ZnString indented = document.toJson(JsonFormat::Indented);
        EXPECT_TRUE(ZnJsonDocument::fromJson(indented.view(), &error).root() == document.root());
        const ZnString keyed = document.toJson(JsonFormat::Compact, "key");
        EXPECT_EQ(ZnJsonDocument::fromJson(keyed.view(), &error, "key").toJson(), document.toJson());
        for (const std::string& text : {nestedText(ZnJsonDocument::kMaxDepth + 1), std::string(1000000, '[')}) {
            EXPECT_TRUE(ZnJsonDocument::fromJson(text, &error).root().isNull());
            EXPECT_TRUE(error.startsWith("JSON nesting too deep (index ")) << error;
        }
    });
}

TEST(ZnJsonStack, HandlesTreesDeeperThanTheParserMakes) {
    onSmallStack([] {
        ZnJsonValue tree(1);
        for (int level = 0; level < 100000; ++level) {
            ZnJsonArray array;
            array.append(std::move(tree));
            ZnJsonObject object;
            object["k"] = ZnJsonValue(std::move(array));
            object["s"] = ZnJsonValue("neighbour");
            tree = ZnJsonValue(std::move(object));
        }
        EXPECT_TRUE(tree.toObject() == *tree.object());
        const ZnJsonValue copy = tree;
        EXPECT_TRUE(copy == tree);
        EXPECT_FALSE(tree.toJson().isEmpty());
        tree = ZnJsonValue();
        EXPECT_FALSE(copy == tree);
    });
}

} // namespace
