#pragma once

#include "agent/McpBridgeServiceRecord.h"
#include "agent/McpForwardResult.h"
#include "agent/McpObserver.h"
#include "agent/McpToolHeaders.h"
#include "core/types/ZnJsonDocument.h"

#include <cstddef>
#include <memory>
#include <utility>

/// The JSON-RPC response to a "bridge.rpc", as text, made from what the service has answered.
///
/// Thread: a value; build() may run on another thread than the rest. Reading and writing a large answer takes long,
/// which is why it is apart from everything that belongs to the loop. Memory: the text is at most three times the bound
/// of an answer, and what it is made from at most as much again; an answer that grows beyond that becomes the failure
/// of one that is too large.
class McpRpcAnswer {
public:
    static constexpr std::size_t kLargeBytes = 262144; // from here on it is too much for the loop

    /// `idText`: of the client's request, as JSON. `maxBytes`: of a service's answer.
    McpRpcAnswer(ZnString idText, McpForwardResult result, const McpBridgeServiceRecord& service, std::size_t maxBytes)
        : idText_(std::move(idText)),
          result_(std::move(result)),
          isExact_(service.interop),
          endpoint_(service.endpoint),
          maxBytes_(maxBytes) {}

    /// Takes the tools that `service` may not show out of the answer.
    void filterTools(std::shared_ptr<const McpBridgeServiceRecord> service) { filter_ = std::move(service); }

    /// The answer is a list of tools in revision 2026-07-28 of the protocol; after build() it is known what they
    /// mirror.
    void learnTools() { learnsTools_ = true; }
    const McpToolHeaders::ByTool& toolHeaders() const noexcept { return toolHeaders_; }

    bool isLarge() const noexcept { return result_.rawBody.size() + idText_.size() >= kLargeBytes; }
    /// Once.
    void build();
    ZnByteArray takeText() { return std::move(text_); }
    const ZnString& idText() const noexcept { return idText_; }
    /// After build(): without what has gone into the text.
    const McpForwardResult& result() const noexcept { return result_; }
    void setTellsOutcome(bool isOn) { tellsOutcome_ = isOn; }
    const McpCallOutcome& outcome() const noexcept { return outcome_; }

private:
    void fail_();
    void learnTools_();
    void repairTexts_();
    void readBody_();
    ZnString payload_();
    void writeText_(const ZnString& payload);

    const ZnString idText_;
    McpForwardResult result_;
    const bool isExact_; // the service is one with interoperability
    const ZnString endpoint_;
    std::shared_ptr<const McpBridgeServiceRecord> filter_; // null: nothing is taken out
    const std::size_t maxBytes_;
    bool tellsOutcome_ = false;
    bool learnsTools_ = false;
    McpToolHeaders::ByTool toolHeaders_;
    McpCallOutcome outcome_; // empty when nobody wants it
    ZnByteArray text_;
};
