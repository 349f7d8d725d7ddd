#include "core/memory.h"
#include "gl/textureio/ktx2parser.h"

#include "quiet.h"

#include <cstdint>
#include <vector>

using namespace Tavren::Vyx;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    silenceMessages();
    std::vector<unsigned char> bytes(data, data + size);
    RawMemory memory(bytes.data(), bytes.size());
    KTX2Parser parser(&memory);
    for (unsigned int i = 0; i < parser.numMetadataEntries(); ++i) {
        parser.key(i);
        parser.valueBytes(i);
        parser.rawValue(i);
    }
    if (!parser.parseImages())
        return 0;
    // Touch both ends of every image, in the file or inflated, so the sanitizer sees any overrun.
    unsigned int sum = 0;
    for (const KTX2Image& image : parser.images())
        sum += image.data[0] + image.data[image.size - 1];
    return sum == 0xFFFFFFFFu;
}
