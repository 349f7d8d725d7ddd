#pragma once

#include <QByteArray>

#include <cstddef>
#include <cstdint>

namespace Tavren::Vyx {

// Lays out a KTX 1 file of uncompressed 2D or cube-map images handed over as GL reads them back
// with a pack alignment of 4 (rows padded to four bytes, bottom row first), stored as they come
// with the "KTXorientation" key that says so. Needs no GL context.
class KTXEncoder
{
public:
    // Levels run from the base, each half the size of the one before (at least 1).
    KTXEncoder(uint32_t internalFormat, uint32_t width, uint32_t height, bool cubeMap, uint32_t levels);

    // False, after a message, for a format that is not written or sizes no file can hold.
    bool valid() const { return _valid; }
    uint32_t format() const { return _format; }
    uint32_t type() const { return _type; }
    uint32_t faces() const { return _faces; }
    uint32_t levels() const { return _levels; }
    uint32_t levelWidth(uint32_t level) const;
    uint32_t levelHeight(uint32_t level) const;
    // Bytes of one image (one face) of the level.
    size_t imageSize(uint32_t level) const;

    // The next image: level by level, faces in order within a level.
    void addImage(const char* pixels);
    // The whole file once every image was added; empty before that or when not valid.
    QByteArray bytes() const;

private:
    bool _valid = false;
    uint32_t _format = 0;
    uint32_t _type = 0;
    uint32_t _bytesPerPixel = 0;
    uint32_t _width = 0;
    uint32_t _height = 0;
    uint32_t _faces = 1;
    uint32_t _levels = 0;
    uint32_t _added = 0;
    QByteArray _out;
};

} // namespace Tavren::Vyx
