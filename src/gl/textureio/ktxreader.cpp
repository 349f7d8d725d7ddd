#include "gl/textureio/ktxreader.h"

#include "core/logging.h"
#include "core/memory.h"
#include "gl/glloader.h"
#include "gl/objects/internal/texturesetup.h"
#include "gl/objects/texture.h"
#include "gl/platform/glutilities.h"
#include "gl/textureio/ktx2parser.h"
#include "gl/textureio/ktxparser.h"
#include "gl/textureio/textureutilities.h"

namespace Tavren::Vyx {

namespace {

void upload(const KTXParser& parser, GLenum target, const KTXImage& image)
{
    const KTXHeader& h = parser.header();
    const GLenum format = h.glInternalFormat;
    const auto size = GLsizei(image.size);
    const auto level = GLint(image.level);
    const auto w = GLsizei(image.width), ht = GLsizei(image.height), d = GLsizei(image.depth);
    if (target == GL_TEXTURE_CUBE_MAP || target == GL_TEXTURE_2D) {
        // A cube map's images are its faces' 2D images.
        const GLenum imageTarget =
            target == GL_TEXTURE_CUBE_MAP ? GLenum(GL_TEXTURE_CUBE_MAP_POSITIVE_X + image.face) : target;
        if (parser.isCompressed())
            glCompressedTexImage2D(imageTarget, level, format, w, ht, 0, size, image.data);
        else
            glTexImage2D(imageTarget, level, GLint(format), w, ht, 0, h.glFormat, h.glType, image.data);
    } else if (target == GL_TEXTURE_1D) {
        if (parser.isCompressed())
            glCompressedTexImage1D(target, level, format, w, 0, size, image.data);
        else
            glTexImage1D(target, level, GLint(format), w, 0, h.glFormat, h.glType, image.data);
    } else if (target == GL_TEXTURE_3D) {
        if (parser.isCompressed())
            glCompressedTexImage3D(target, level, format, w, ht, d, 0, size, image.data);
        else
            glTexImage3D(target, level, GLint(format), w, ht, d, 0, h.glFormat, h.glType, image.data);
    }
}

bool startsAsKTX2(Memory* memory)
{
    unsigned char* head = memory ? memory->get(0, sizeof KTX2Parser::identifier) : nullptr;
    const bool match = KTX2Parser::hasIdentifier(head, sizeof KTX2Parser::identifier);
    if (head)
        memory->release(head);
    return match;
}

} // namespace

KTXReader::KTXReader(Memory* memory, const QString& name)
    : _memory(memory)
    , _name(name)
    , _parser(new KTXParser(memory, name))
{
}

KTXReader::~KTXReader() = default;

bool KTXReader::valid() const { return _parser->valid(); }
bool KTXReader::isCompressed() const { return _parser->isCompressed(); }
bool KTXReader::isArrayTexture() const { return _parser->isArrayTexture(); }
bool KTXReader::isCubeMapTexture() const { return _parser->isCubeMapTexture(); }
bool KTXReader::is1DTexture() const { return _parser->is1DTexture(); }
bool KTXReader::is2DTexture() const { return _parser->is2DTexture(); }
bool KTXReader::is3DTexture() const { return _parser->is3DTexture(); }
bool KTXReader::hasMipMaps() const { return _parser->hasMipMaps(); }
unsigned int KTXReader::width() const { return _parser->width(); }
unsigned int KTXReader::height() const { return _parser->height(); }
unsigned int KTXReader::depth() const { return _parser->depth(); }
unsigned int KTXReader::arraySize() const { return _parser->arraySize(); }
unsigned int KTXReader::cubeFaces() const { return _parser->cubeFaces(); }
unsigned int KTXReader::mipmapLevels() const { return _parser->mipmapLevels(); }
unsigned int KTXReader::numMetadataEntries() const { return _parser->numMetadataEntries(); }
const char* KTXReader::rawKey(unsigned int index) const { return _parser->rawKey(index); }
const char* KTXReader::rawValue(unsigned int index) const { return _parser->rawValue(index); }

QString KTXReader::key(unsigned int index)
{
    return metadataText(rawKey(index));
}

QString KTXReader::value(unsigned int index)
{
    return metadataText(rawValue(index));
}

Texture* KTXReader::load(const TextureFileInfo& info)
{
    // A KTX 2 file handed to this reader is not a damaged KTX 1 one.
    VYX_CHECK_RETURN(_parser->headerReadable() || !startsAsKTX2(_memory.get()), nullptr,
                     "'%s' is a KTX 2 file, which KTX2Reader reads, not KTXReader", printableName(_name).constData());
    VYX_CHECK_RETURN(_parser->headerReadable(), nullptr,
                     "KTX file '%s' has no readable header", printableName(_name).constData());
    if (isArrayTexture()) {
        if (isCubeMapTexture())
            VYX_WARNING("Cubemap arrays not supported yet, sorry!");
        else
            VYX_WARNING("Array textures not supported yet, sorry!");
        return nullptr;
    }
    // Every size and offset is checked against the file before GL sees a pointer.
    if (!_parser->parseImages())
        return nullptr;

    const GLenum target = _parser->target();
    SamplerSettings levels;
    if (mipmapLevels() != 0) {
        levels.baseLevel = 0;
        levels.maxLevel = GLint(mipmapLevels() - 1);
    }
    std::unique_ptr<Texture> owned = newTextureWithStorage(target, levels, [&] {
        VYX_CHECK_GL_ERROR(); // errors of earlier work are not this file's
        PixelStoreGuard alignment(GL_UNPACK_ALIGNMENT, 4);
        for (const KTXImage& image : _parser->images())
            upload(*_parser, target, image);
        GLenum error = glGetError();
        if (error == GL_NO_ERROR && hasMipMaps()) {
            // Files that carry every level still have them regenerated.
            glGenerateMipmap(target);
            error = glGetError();
        }
        if (error == GL_NO_ERROR)
            return true;
        VYX_WARNING("%s %s failed to load.", isCompressed() ? "Compressed texture" : "Texture",
                    printableName(_name).constData());
        return false;
    });
    if (!owned)
        return nullptr;
    Texture* texture = owned.release();
    // The passes render 2D pictures only; other targets keep the file's layout and colours. A 2D
    // file is taken as stored top row first unless its orientation key says the rows run up, and
    // arrives bottom row first (GL's order) unless the caller asks for the top row first.
    if (target == GL_TEXTURE_2D) {
        RemapColorRange(texture, info.lowValue, info.highValue);
        // Flipped when the file's row order is not the one the caller asked for.
        const bool fileTopRowFirst = _parser->orientation().t != 'u';
        if (fileTopRowFirst != info.topRowFirst)
            FlipY(texture);
    } else if (info.lowValue != 0.0f || info.highValue != 1.0f) {
        VYX_DEBUG("Colour range of %s left as it is: only 2D textures are remapped", printableName(_name).constData());
    }
    return texture;
}

TextureLoader* KTXRecogniser::recognise(Memory* memory, const QString& name) const
{
    unsigned char* head = memory ? memory->get(0, sizeof KTXParser::identifier) : nullptr;
    if (!head)
        return nullptr;
    const bool match = KTXParser::hasIdentifier(head, sizeof KTXParser::identifier);
    memory->release(head);
    return match ? new KTXReader(memory, name) : nullptr;
}

} // namespace Tavren::Vyx
