#pragma once

#include "core/object/ZnObject.h"
#include "core/types/ZnByteArray.h"

/// Base of everything that reads and writes bytes.
///
/// Thread: the owning thread.
class ZnIODevice : public ZnObject {
public:
    ZN_OBJECT(ZnIODevice, ZnObject)

    explicit ZnIODevice(ZnObject* parent = nullptr) : ZnObject(parent) {}

    virtual bool isSequential() const { return false; }
    virtual void close() {}
    /// Up to `maxBytes` bytes; empty when there is nothing now. The device may give less.
    virtual ZnString read(long long maxBytes);
    /// As read, into the caller's memory and without its own limit: up to `capacity` bytes. Returns their number.
    virtual std::size_t readInto(char* buffer, std::size_t capacity);
    virtual bool write(ZnByteArray bytes);
    virtual bool write(ZnString bytes);
    /// Writes `head` and then `body`, so that a device with packets can send both at once. Takes both over.
    virtual bool writeGathered(ZnString head, ZnByteArray body);
    virtual bool isOpen() const { return open_; }

    void readyRead(); // signal

protected:
    ZnString path_; // empty for sockets
    bool open_ = false;
};
