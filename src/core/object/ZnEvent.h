#pragma once

#include <cstdint>

class ZnObject;

/// A small event value that an event loop delivers to an object.
class ZnEvent {
public:
    static constexpr std::int32_t kDeferredDelete = 2;
    static constexpr std::int32_t kChildAdded = 3;
    static constexpr std::int32_t kChildRemoved = 4;

    explicit ZnEvent(std::int32_t eventType) : type(eventType) {}
    virtual ~ZnEvent() = default;
    /// A heap copy of the same dynamic type; the caller owns it.
    virtual ZnEvent* clone() const { return new ZnEvent(*this); }

    std::int32_t type;
    bool accepted = false;
    bool inDelivery = false;

protected:
    ZnEvent(const ZnEvent&) = default;
    ZnEvent& operator=(const ZnEvent&) = default;
};

/// Tells a parent about a child; type kChildAdded or kChildRemoved.
class ZnChildEvent : public ZnEvent {
public:
    ZnChildEvent(std::int32_t eventType, ZnObject* childObject) : ZnEvent(eventType), child(childObject) {}
    ZnEvent* clone() const override { return new ZnChildEvent(*this); }

    ZnObject* child;
};

/// Asks an object to delete itself.
class ZnDeferredDeleteEvent : public ZnEvent {
public:
    ZnDeferredDeleteEvent() : ZnEvent(kDeferredDelete) {}
    ZnEvent* clone() const override { return new ZnDeferredDeleteEvent(*this); }
};
