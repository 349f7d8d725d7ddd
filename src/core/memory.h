#pragma once

#include "core/vyxexport.h"

#include <QString>

#include <cstdint>

namespace Tavren::Vyx {

// A block of bytes read through get/release pairs.
class VYXGL_EXPORT Memory
{
public:
    virtual ~Memory();
    virtual uint64_t size() const = 0;
    // Pointer to `length` readable bytes at `offset`, or null when that range lies outside the block.
    virtual unsigned char* get(uint64_t offset, uint64_t length) = 0;
    // Gives back a pointer obtained from get().
    virtual void release(unsigned char* pointer) = 0;

protected:
    // True when [offset, offset + length) lies inside a block of `total` bytes, without overflow.
    static bool rangeInside(uint64_t offset, uint64_t length, uint64_t total);
};

// Wraps a caller's bytes; neither copies nor owns them.
class VYXGL_EXPORT RawMemory : public Memory
{
public:
    RawMemory(unsigned char* data, uint64_t size);
    uint64_t size() const override;
    unsigned char* get(uint64_t offset, uint64_t length) override;
    void release(unsigned char* pointer) override;

protected:
    unsigned char* _data;
    uint64_t _size;
};

// A private copy-on-write mapping of a whole file: readers may patch bytes in place
// (a header's byte order, say) without touching the file.
class VYXGL_EXPORT MemoryMappedFile : public RawMemory
{
public:
    explicit MemoryMappedFile(const QString& path);
    ~MemoryMappedFile() override;
    MemoryMappedFile(const MemoryMappedFile&) = delete;
    MemoryMappedFile& operator=(const MemoryMappedFile&) = delete;

    bool isOpen() const { return _opened; }

private:
    bool _opened = false;
};

} // namespace Tavren::Vyx
