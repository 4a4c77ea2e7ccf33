#include "core/object/ZnLiveObjects.h"

#include <cstdint>
#include <functional>

namespace {
constexpr std::size_t kFirstPlaces = 256;
} // namespace

ZnLiveObjects& ZnLiveObjects::instance() {
    static ZnLiveObjects* const set = new ZnLiveObjects; // objects may outlive static destruction
    return *set;
}

ZnLiveObjects::ZnLiveObjects() : places_(kFirstPlaces, nullptr) {}

std::size_t ZnLiveObjects::homeOf_(const ZnObject* object) const {
    // Multiplicative hashing: the low bits of addresses are all alike.
    const auto bits = reinterpret_cast<std::uintptr_t>(object) * 0x9E3779B97F4A7C15ULL;
    return static_cast<std::size_t>(bits >> 32) & (places_.size() - 1);
}

std::size_t ZnLiveObjects::find_(const ZnObject* object) const {
    std::size_t place = homeOf_(object);
    while (places_[place] != nullptr && places_[place] != object)
        place = (place + 1) & (places_.size() - 1);
    return place;
}

void ZnLiveObjects::place_(const ZnObject* object) {
    places_[find_(object)] = object;
}

void ZnLiveObjects::grow_() {
    std::vector<const ZnObject*> old(places_.size() * 2, nullptr);
    old.swap(places_);
    for (const ZnObject* object : old) {
        if (object != nullptr)
            place_(object);
    }
}

void ZnLiveObjects::insert(const ZnObject* object) {
    ZnMutexLocker locker(lock_);
    if (++count_ * 2 > places_.size())
        grow_();
    place_(object);
}

void ZnLiveObjects::remove(const ZnObject* object) {
    ZnMutexLocker locker(lock_);
    std::size_t gap = find_(object);
    if (places_[gap] == nullptr)
        return;
    --count_;
    places_[gap] = nullptr;
    // Whatever stands behind the gap and could not have its home there any more moves up into it.
    const std::size_t mask = places_.size() - 1;
    for (std::size_t place = (gap + 1) & mask; places_[place] != nullptr; place = (place + 1) & mask) {
        const std::size_t home = homeOf_(places_[place]);
        if (((place - home) & mask) >= ((place - gap) & mask)) {
            places_[gap] = places_[place];
            places_[place] = nullptr;
            gap = place;
        }
    }
}

bool ZnLiveObjects::contains(const ZnObject* object) {
    if (object == nullptr)
        return false;
    ZnMutexLocker locker(lock_);
    return places_[find_(object)] != nullptr;
}

zn::detail::ZnPointerControlRef ZnLiveObjects::controlOf(const ZnObject* object) {
    if (object == nullptr)
        return nullptr;
    ZnMutexLocker locker(lock_);
    return places_[find_(object)] == nullptr ? nullptr : zn::detail::controlOf(object);
}

std::vector<const ZnObject*> ZnLiveObjects::objectsWithin_(const void* begin, const void* end) {
    std::vector<const ZnObject*> found;
    const std::less<const void*> isBelow;
    ZnMutexLocker locker(lock_);
    for (const ZnObject* object : places_) {
        if (object != nullptr && !isBelow(object, begin) && isBelow(object, end))
            found.push_back(object);
    }
    return found;
}

void ZnLiveObjects::forgetWithin(const void* begin, const void* end) {
    for (const ZnObject* object : objectsWithin_(begin, end)) {
        zn::detail::controlOf(object)->object.store(nullptr, std::memory_order_release);
        remove(object);
    }
}
