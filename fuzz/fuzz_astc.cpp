#include "gl/textureio/astcfile.h"

#include "quiet.h"

#include <cstdint>
#include <vector>

using Tavren::Vyx::ASTCFile;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    silenceMessages();
    ASTCFile file(data, size);
    if (!file.valid() || uint64_t(file.width()) * file.height() > (uint64_t(1) << 20))
        return 0;
    std::vector<unsigned char> rgba(size_t(file.width()) * file.height() * 4);
    file.decodeRGBA8(rgba.data(), size % 2 == 1);
    return 0;
}
