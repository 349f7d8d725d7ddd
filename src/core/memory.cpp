#include "core/memory.h"

#include <QFile>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Tavren::Vyx {

Memory::~Memory() = default;

bool Memory::rangeInside(uint64_t offset, uint64_t length, uint64_t total)
{
    return offset <= total && length <= total - offset;
}

RawMemory::RawMemory(unsigned char* data, uint64_t size)
    : _data(data)
    , _size(data ? size : 0)
{
}

uint64_t RawMemory::size() const
{
    return _size;
}

unsigned char* RawMemory::get(uint64_t offset, uint64_t length)
{
    if (!_data || !rangeInside(offset, length, _size))
        return nullptr;
    return _data + offset;
}

void RawMemory::release(unsigned char*)
{
}

MemoryMappedFile::MemoryMappedFile(const QString& path)
    : RawMemory(nullptr, 0)
{
    const QByteArray native = QFile::encodeName(path);
    const int fd = ::open(native.constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    struct stat info {};
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
        _size = static_cast<uint64_t>(info.st_size);
        if (_size == 0) {
            _opened = true;
        } else {
            void* mapping = ::mmap(nullptr, _size, PROT_READ | PROT_WRITE, MAP_PRIVATE, fd, 0);
            if (mapping != MAP_FAILED) {
                _data = static_cast<unsigned char*>(mapping);
                _opened = true;
            } else {
                _size = 0;
            }
        }
    }
    ::close(fd);
}

MemoryMappedFile::~MemoryMappedFile()
{
    if (_data)
        ::munmap(_data, _size);
}

} // namespace Tavren::Vyx
