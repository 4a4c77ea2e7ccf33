#include "core/io/ZnIODevice.h"

#include <algorithm>
#include <cstring>

ZnString ZnIODevice::read(long long /*maxBytes*/) {
    return {};
}

std::size_t ZnIODevice::readInto(char* buffer, std::size_t capacity) {
    const ZnString bytes = read(static_cast<long long>(capacity));
    const std::size_t byteCount = std::min(bytes.size(), capacity);
    std::memcpy(buffer, bytes.data(), byteCount);
    return byteCount;
}

bool ZnIODevice::write(ZnByteArray bytes) {
    return write(bytes.toZnString());
}

bool ZnIODevice::write(ZnString /*bytes*/) {
    return false;
}

bool ZnIODevice::writeGathered(ZnString head, ZnByteArray body) {
    const ZnPointer<ZnIODevice> self(this);
    return write(std::move(head)) && self && (body.isEmpty() || write(std::move(body)));
}

void ZnIODevice::readyRead() {
    emitSignal(&ZnIODevice::readyRead);
}
