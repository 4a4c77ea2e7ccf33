#pragma once

#include "core/types/ZnString.h"

#include <memory>
#include <string_view>

/// The expression that the log's lines are filtered by. Internal to this folder.
///
/// Thread: immutable once made. Searching takes a time linear in the text and a bounded amount of stack.
class ZnLogFilter {
public:
    /// Null when the ECMAScript expression does not compile; back references do not.
    static std::unique_ptr<const ZnLogFilter> compile(const ZnString& pattern);
    ~ZnLogFilter();
    ZnLogFilter(const ZnLogFilter&) = delete;
    ZnLogFilter& operator=(const ZnLogFilter&) = delete;

    /// Whether the expression is found in `text`; also when the search fails for want of resources, since a
    /// filter that cannot decide must hide nothing.
    bool passes(std::string_view text) const noexcept;

private:
    struct Expression_;

    explicit ZnLogFilter(const ZnString& pattern);

    const std::unique_ptr<const Expression_> expression_;
};
