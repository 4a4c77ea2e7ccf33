#include "core/types/ZnJsonDocument.h"

#include "support/LoopFixture.h"

#include <string>

namespace {

/// On a fiber with half of the usual stack, which ends at a guard page.
class ZnJsonStackTest : public LoopFixture {
protected:
    ZnJsonStackTest() { application_.setEventFiberStackSize(64 * 1024); }
};

/// `depth` containers, by turns an object with a neighbour and an array.
std::string nestedText(int depth) {
    std::string text = "1";
    for (int level = 0; level < depth; ++level)
        text = level % 2 == 0 ? "[0,\"x\"," + text + "]" : "{\"a\":{},\"k\":" + text + ",\"z\":2.5}";
    return text;
}

TEST_F(ZnJsonStackTest, ParsesToTheLimitAndNoFurther) {
    runOnFiber([] {
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

TEST_F(ZnJsonStackTest, HandlesTreesDeeperThanTheParserMakes) {
    runOnFiber([] {
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
