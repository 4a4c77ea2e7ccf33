#pragma once

#include "agent/McpBridgeServiceRecord.h"
#include "agent/McpJsonPlaces.h"
#include "core/types/ZnJsonObject.h"
#include "core/types/ZnMap.h"
#include "core/types/ZnString.h"

#include <memory>
#include <string_view>
#include <vector>

/// What the text of an allowlist says: its services, and remarks for people about what is most likely meant otherwise.
///
/// Nothing of the text is ever shown but the ids of services: it holds secrets, also in wrong places.
/// Thread: a value.
struct McpServiceFile {
    using ServiceMap = ZnMap<ZnString, std::shared_ptr<const McpBridgeServiceRecord>>;

    /// `isExact`: texts are taken as they are written, else in the agent's JSON dialect; also the default of a
    /// service's interoperability. False, with `*errorText` telling where, when it is no JSON object.
    bool read(std::string_view text, bool isExact, ZnString* errorText);

    ServiceMap services;
    std::vector<ZnString> skipped; // one line for each entry that cannot be used
    std::vector<ZnString> remarks; // one line each, with line number and service id
    bool hasSecrets = false;
    std::vector<ZnString> secretFiles; // that it names

    /// One entry in both readings: `values` for numbers and booleans, `texts` for the rest, `written` to judge it by.
    struct Entry_ {
        const ZnJsonObject* values;
        const ZnJsonObject* texts;
        const ZnJsonObject* written;
    };

private:
    void takeEntry_(const Entry_& entry, const mcp::EntryPlace& place, bool interopDefault);
};
