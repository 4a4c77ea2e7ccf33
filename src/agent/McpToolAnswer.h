#pragma once

#include "agent/McpForwardResult.h"
#include "agent/McpObserver.h"
#include "core/types/ZnByteArray.h"
#include "core/types/ZnJsonObject.h"
#include "core/types/ZnString.h"

/// The response to the call of a service's tool, as text: the result as the service gave it, or why there is none.
///
/// Thread: a value; build() may run on another thread than the rest, since a large answer takes long.
class McpToolAnswer {
public:
    /// `idText`: of the client's request, as JSON.
    McpToolAnswer(ZnString idText, McpForwardResult result) : idText_(std::move(idText)), result_(std::move(result)) {}

    /// The call was made in revision 2026-07-28 of the protocol: its result may ask for input.
    void setModern() { isModern_ = true; }

    bool isLarge() const noexcept;
    /// Once.
    void build();
    ZnByteArray takeText() { return std::move(text_); }
    const McpForwardResult& result() const noexcept { return result_; }
    const McpCallOutcome& outcome() const noexcept { return outcome_; }

private:
    ZnJsonValue readAnswer_();
    ZnString inputText_(const ZnJsonValue& result) const;
    ZnJsonObject failure_(const ZnJsonObject* error) const;

    const ZnString idText_;
    McpForwardResult result_;
    bool isModern_ = false;
    McpCallOutcome outcome_;
    ZnByteArray text_;
};
