#include "gl/textureio/hdrdecoder.h"

#include "quiet.h"

#include <cstdint>
#include <vector>

using Tavren::Vyx::HDRDecoder;

// An RLE run past the scanline aborts by design; here it only fails the decode.
static void keepGoing() {}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    silenceMessages();
    HDRDecoder::setOverrunHandler(&keepGoing);
    HDRDecoder decoder(data, size);
    if (!decoder.valid() || uint64_t(decoder.width()) * decoder.height() > (uint64_t(1) << 16))
        return 0;
    const size_t pixels = size_t(decoder.width()) * decoder.height();
    std::vector<float> rgb(pixels * 3);
    decoder.decodeFloat(rgb.data());
    std::vector<unsigned char> rgbe(pixels * 4);
    decoder.decodeRGBE(rgbe.data(), HDRDecoder::RowOrder::File);
    return 0;
}
