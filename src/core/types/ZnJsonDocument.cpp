#include "core/types/ZnJsonDocument.h"

#include "core/types/ZnJsonParser.h"
#include "core/types/ZnLogger.h"

ZnJsonDocument ZnJsonDocument::fromJson(std::string_view text, ZnString* error, const ZnString& key) {
    return parse_(ZnJsonParser_(text, key, JsonReading::Dialect), error);
}

ZnJsonDocument ZnJsonDocument::fromJson(std::string_view text, ZnString* error, JsonReading reading,
                                        std::size_t maxValues) {
    return parse_(ZnJsonParser_(text, ZnString(), reading, maxValues), error);
}

ZnJsonDocument ZnJsonDocument::parse_(ZnJsonParser_&& parser, ZnString* error) {
    ZnJsonDocument document;
    ZnString reason;
    parser.parseJsonText_(document.root_, reason);
    if (error != nullptr)
        *error = std::move(reason);
    return document;
}

ZnJsonObject ZnJsonDocument::object() const {
    if (!root_.isObject())
        ZN_LOG_ERROR("zn.core.types.znjsondocument", "ZnJsonDocument::object") << "Root is not a JSON object.";
    return root_.toObject();
}

ZnString ZnJsonDocument::toJson(JsonFormat format, const ZnString& key) const {
    return root_.toJson(format, key);
}
