#include "core/memory.h"
#include "gl/textureio/ktxparser.h"

#include "quiet.h"

#include <cstdint>
#include <vector>

using namespace Tavren::Vyx;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    silenceMessages();
    // The parser patches the header in place, as it does on a private file mapping.
    std::vector<unsigned char> bytes(data, data + size);
    RawMemory memory(bytes.data(), bytes.size());
    KTXParser parser(&memory);
    for (unsigned int i = 0; i < parser.numMetadataEntries(); ++i) {
        parser.key(i);
        parser.valueBytes(i);
        parser.rawValue(i);
    }
    parser.orientation();
    if (!parser.headerReadable() || !parser.parseImages())
        return 0;
    // Touch both ends of every image so the sanitizer sees any range outside the file.
    unsigned int sum = 0;
    for (const KTXImage& image : parser.images())
        sum += image.data[0] + image.data[image.size - 1];
    return sum == 0xFFFFFFFFu;
}
