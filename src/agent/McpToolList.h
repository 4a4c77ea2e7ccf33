#pragma once

#include "agent/McpForwardCall.h"
#include "agent/McpForwardResult.h"
#include "agent/McpObserver.h"
#include "agent/McpToolHeaders.h"
#include "core/types/ZnByteArray.h"
#include "core/types/ZnJsonArray.h"
#include "core/types/ZnString.h"

#include <cstddef>
#include <memory>
#include <utility>

/// The tools of a service, which come page by page.
///
/// Thread: a value.
class McpToolList {
public:
    static constexpr int kMaxPages = 200;
    static constexpr std::size_t kMaxTools = 10000;

    /// `maxBytes`: of all pages together. `isModern`: it is asked for in revision 2026-07-28 of the protocol.
    explicit McpToolList(std::size_t maxBytes, bool isModern) : maxBytes_(maxBytes), isModern_(isModern) {}

    /// Asks for the next page.
    McpForwardRequest nextRequest() const;
    /// Takes a page that had `byteCount` bytes. False when it is none, or the list is too long.
    bool take(ZnJsonValue answer, std::size_t byteCount);
    const char* problem() const noexcept { return problem_; }
    bool isWhole() const noexcept { return cursor_.isEmpty(); }
    bool isModern() const noexcept { return isModern_; }
    std::size_t byteCount() const noexcept { return byteCount_; }
    ZnJsonArray takeTools() { return std::move(tools_); }

private:
    ZnString cursor_; // of the next page
    ZnJsonArray tools_;
    std::size_t maxBytes_;
    bool isModern_;
    std::size_t byteCount_ = 0;
    int pageCount_ = 0;
    const char* problem_ = "";
};

/// The response to a request for the list, as text; see McpRpcAnswer.
class McpToolListAnswer {
public:
    McpToolListAnswer(ZnString idText, McpToolList list, std::shared_ptr<const McpBridgeServiceRecord> service)
        : idText_(std::move(idText)), list_(std::move(list)), service_(std::move(service)) {}

    bool isLarge() const noexcept;
    void build();
    ZnByteArray takeText() { return std::move(text_); }
    /// After build(): what the tools mirror; nothing for a list in another version.
    const McpToolHeaders::ByTool& toolHeaders() const noexcept { return toolHeaders_; }
    const McpForwardResult& result() const noexcept { return result_; }
    const McpCallOutcome& outcome() const noexcept { return outcome_; }

private:
    const ZnString idText_;
    McpToolList list_;
    const std::shared_ptr<const McpBridgeServiceRecord> service_; // those that it may not show are left out
    const McpForwardResult result_;                               // there is nothing to report
    McpCallOutcome outcome_;
    McpToolHeaders::ByTool toolHeaders_;
    ZnByteArray text_;
};
