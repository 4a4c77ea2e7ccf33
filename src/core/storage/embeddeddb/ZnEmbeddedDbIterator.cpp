#include "core/storage/embeddeddb/ZnEmbeddedDbIterator.h"

#include "core/storage/embeddeddb/IteratorCore_.h"
#include "core/types/ZnAssert.h"

#include <utility>

ZnEmbeddedDbIterator::ZnEmbeddedDbIterator(std::unique_ptr<znEmbeddedDbDetail::IteratorCore_> core)
    : core_(std::move(core)) {
    ZN_ASSERT(core_ != nullptr);
}

ZnEmbeddedDbIterator::ZnEmbeddedDbIterator(ZnEmbeddedDbStatus status) : status_(std::move(status)) {}

ZnEmbeddedDbIterator::~ZnEmbeddedDbIterator() = default;
ZnEmbeddedDbIterator::ZnEmbeddedDbIterator(ZnEmbeddedDbIterator&& other) noexcept = default;
ZnEmbeddedDbIterator& ZnEmbeddedDbIterator::operator=(ZnEmbeddedDbIterator&& other) noexcept = default;

bool ZnEmbeddedDbIterator::valid() const noexcept {
    return core_ != nullptr && core_->isValid();
}

void ZnEmbeddedDbIterator::next() {
    ZN_ASSERT(valid());
    core_->next();
}

std::string_view ZnEmbeddedDbIterator::key() const noexcept {
    ZN_ASSERT(valid());
    return core_->key();
}

std::string_view ZnEmbeddedDbIterator::value() const noexcept {
    ZN_ASSERT(valid());
    return core_->value();
}

std::uint64_t ZnEmbeddedDbIterator::sequence() const noexcept {
    ZN_ASSERT(valid());
    return core_->sequence();
}

ZnEmbeddedDbIndexKeys ZnEmbeddedDbIterator::indexKeys() const {
    ZN_ASSERT(valid());
    return core_->indexKeys();
}

std::string_view ZnEmbeddedDbIterator::secondaryKey() const noexcept {
    ZN_ASSERT(valid());
    return core_->secondaryKey();
}

const ZnEmbeddedDbStatus& ZnEmbeddedDbIterator::status() const noexcept {
    return core_ != nullptr ? core_->status() : status_;
}
