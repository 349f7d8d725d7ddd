#pragma once

#include "core/vyxexport.h"

#include <QString>

#include <cstdint>

namespace Tavren::Vyx {

class Memory;

// Reads the header of a Radiance RGBE picture and decodes its scanlines (flat, old-style
// and new-style run-length) into RGBE bytes or RGB floats. Needs no GL context.
class VYXGL_EXPORT HDRDecoder
{
public:
    // Texture: the first row written is the picture's bottom row for "-Y" files (GL's order);
    // File: rows come out in the order they are stored.
    enum class RowOrder { Texture, File };
    using OverrunHandler = void (*)();

    // Borrows the bytes; they must outlive the decoder.
    HDRDecoder(const unsigned char* data, uint64_t size, const QString& name = QString());
    // Takes the whole memory as one block and gives it back on destruction; does not own it.
    HDRDecoder(Memory* memory, const QString& name = QString());
    ~HDRDecoder();
    HDRDecoder(const HDRDecoder&) = delete;
    HDRDecoder& operator=(const HDRDecoder&) = delete;

    static bool hasMagic(const unsigned char* data, uint64_t size);

    bool valid() const { return _valid; }
    uint32_t width() const { return _width; }
    uint32_t height() const { return _height; }
    // 1 for RGBE, 2 for XYZE, 0 when the header has no FORMAT line.
    int format() const { return _format; }
    // Product of every EXPOSURE line; kept for the caller, never applied.
    float exposure() const { return _exposure; }
    char firstSign() const { return _firstSign; }
    char firstAxis() const { return _firstAxis; }
    char secondSign() const { return _secondSign; }
    char secondAxis() const { return _secondAxis; }
    // Offset of the first scanline from the start of the data.
    uint64_t dataOffset() const { return _dataOffset; }
    const QString& name() const { return _name; }

    // `rgb` holds width x height x 3 floats, `rgbe` width x height x 4 bytes. False, with a
    // message, when the data is truncated or a scanline is malformed.
    bool decodeFloat(float* rgb, RowOrder order = RowOrder::Texture) const;
    bool decodeRGBE(unsigned char* rgbe, RowOrder order = RowOrder::Texture) const;

    // 2^(e - 136) for every exponent byte e, 0 for e == 0.
    static const float* exponentTable();
    static void rgbeToFloat(const unsigned char* rgbe, float* rgb, uint64_t pixelCount);

    // Called after the "RLE run ... ends at ..." warning; aborts the process by default. A
    // handler that returns makes the decode fail instead (fuzzing needs that).
    static OverrunHandler setOverrunHandler(OverrunHandler handler);

    // Largest picture accepted: 16384 x 16384 pixels.
    static constexpr uint64_t maxPixels = uint64_t(16384) * 16384;

private:
    void parseHeader();
    template <class Sink>
    bool decode(Sink& sink, RowOrder order) const;

    Memory* _memory = nullptr;
    unsigned char* _block = nullptr;
    const unsigned char* _begin = nullptr;
    uint64_t _size = 0;
    QString _name;
    bool _valid = true;
    int _format = 0;
    float _exposure = 1.0f;
    char _firstSign = '-';
    char _firstAxis = 'Y';
    char _secondSign = '+';
    char _secondAxis = 'X';
    uint32_t _height = 0;
    uint32_t _width = 0;
    uint64_t _dataOffset = 0;
};

} // namespace Tavren::Vyx
