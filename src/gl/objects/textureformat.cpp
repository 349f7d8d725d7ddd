#include "gl/objects/textureformat.h"

#include "gl/platform/generated/glenums.h"

namespace Tavren::Vyx {

namespace {

struct FormatTriple
{
    int internal;
    int external;
    int type;
};

constexpr FormatTriple formatTable[] = {
    {GL_RED, GL_RED, GL_UNSIGNED_BYTE},
    {GL_RG, GL_RG, GL_UNSIGNED_BYTE},
    {GL_RGB, GL_RGB, GL_UNSIGNED_BYTE},
    {GL_RGBA, GL_RGBA, GL_UNSIGNED_BYTE},
    {GL_R16F, GL_RED, GL_FLOAT},
    {GL_RG16F, GL_RG, GL_FLOAT},
    {GL_RGB16F, GL_RGB, GL_FLOAT},
    {GL_RGBA16F, GL_RGBA, GL_FLOAT},
    {GL_R32F, GL_RED, GL_FLOAT},
    {GL_RG32F, GL_RG, GL_FLOAT},
    {GL_RGB32F, GL_RGB, GL_FLOAT},
    {GL_RGBA32F, GL_RGBA, GL_FLOAT},
    {GL_R16I, GL_RED_INTEGER, GL_SHORT},
    {GL_RG16I, GL_RG_INTEGER, GL_SHORT},
    {GL_RGB16I, GL_RGB_INTEGER, GL_SHORT},
    {GL_RGBA16I, GL_RGBA_INTEGER, GL_SHORT},
    {GL_R32I, GL_RED_INTEGER, GL_INT},
    {GL_RG32I, GL_RG_INTEGER, GL_INT},
    {GL_RGB32I, GL_RGB_INTEGER, GL_INT},
    {GL_RGBA32I, GL_RGBA_INTEGER, GL_INT},
    {GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT, GL_FLOAT},
    {GL_DEPTH24_STENCIL8, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8},
    // Shares the 24_8 type with DEPTH24_STENCIL8 on purpose.
    {GL_DEPTH32F_STENCIL8, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8},
};

constexpr FormatTriple outOfRange = {GL_RGBA, GL_RGBA, GL_FLOAT};

const FormatTriple& lookup(TextureFormat format)
{
    const int index = static_cast<int>(format);
    if (index < 0 || index >= static_cast<int>(sizeof(formatTable) / sizeof(formatTable[0])))
        return outOfRange;
    return formatTable[index];
}

} // namespace

int internalFormat(TextureFormat format)
{
    return lookup(format).internal;
}

int externalFormat(TextureFormat format)
{
    return lookup(format).external;
}

int externalType(TextureFormat format)
{
    return lookup(format).type;
}

} // namespace Tavren::Vyx
