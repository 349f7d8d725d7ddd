#include "gl/textureio/ktx2reader.h"

#include "core/logging.h"
#include "core/memory.h"
#include "gl/glloader.h"
#include "gl/objects/internal/texturesetup.h"
#include "gl/objects/texture.h"
#include "gl/platform/glutilities.h"
#include "gl/textureio/ktx2parser.h"
#include "gl/textureio/textureutilities.h"

namespace Tavren::Vyx {

namespace {

// Array layers go where GL keeps them: the height of a 1D array, the depth of a 2D one.
void upload(GLenum target, const KTX2Format& f, const KTX2Image& image)
{
    const auto level = GLint(image.level);
    const auto size = GLsizei(image.size);
    const auto internal = GLenum(f.internalFormat);
    const auto w = GLsizei(image.width);
    auto ht = GLsizei(image.height), d = GLsizei(image.depth);
    if (target == GL_TEXTURE_1D_ARRAY)
        ht = GLsizei(image.layers);
    if (target == GL_TEXTURE_2D_ARRAY)
        d = GLsizei(image.layers);
    if (target == GL_TEXTURE_1D) {
        if (f.compressed())
            glCompressedTexImage1D(target, level, internal, w, 0, size, image.data);
        else
            glTexImage1D(target, level, GLint(internal), w, 0, f.format, f.type, image.data);
    } else if (target == GL_TEXTURE_3D || target == GL_TEXTURE_2D_ARRAY) {
        if (f.compressed())
            glCompressedTexImage3D(target, level, internal, w, ht, d, 0, size, image.data);
        else
            glTexImage3D(target, level, GLint(internal), w, ht, d, 0, f.format, f.type, image.data);
    } else {
        const GLenum imageTarget =
            target == GL_TEXTURE_CUBE_MAP ? GLenum(GL_TEXTURE_CUBE_MAP_POSITIVE_X + image.face) : target;
        if (f.compressed())
            glCompressedTexImage2D(imageTarget, level, internal, w, ht, 0, size, image.data);
        else
            glTexImage2D(imageTarget, level, GLint(internal), w, ht, 0, f.format, f.type, image.data);
    }
}

} // namespace

KTX2Reader::KTX2Reader(Memory* memory, const QString& name)
    : _memory(memory)
    , _name(name)
    , _parser(new KTX2Parser(memory, name))
{
}

KTX2Reader::~KTX2Reader() = default;

bool KTX2Reader::valid() const { return _parser->valid(); }
bool KTX2Reader::isCompressed() const { return _parser->isCompressed(); }
bool KTX2Reader::isArrayTexture() const { return _parser->isArrayTexture(); }
bool KTX2Reader::isCubeMapTexture() const { return _parser->isCubeMapTexture(); }
bool KTX2Reader::is1DTexture() const { return _parser->is1DTexture(); }
bool KTX2Reader::is2DTexture() const { return _parser->is2DTexture(); }
bool KTX2Reader::is3DTexture() const { return _parser->is3DTexture(); }
bool KTX2Reader::hasMipMaps() const { return _parser->hasMipMaps(); }
unsigned int KTX2Reader::width() const { return _parser->header().pixelWidth; }
unsigned int KTX2Reader::height() const { return _parser->header().pixelHeight; }
unsigned int KTX2Reader::depth() const { return _parser->header().pixelDepth; }
unsigned int KTX2Reader::arraySize() const { return _parser->header().layerCount; }
unsigned int KTX2Reader::cubeFaces() const { return _parser->header().faceCount; }
unsigned int KTX2Reader::mipmapLevels() const { return _parser->header().levelCount; }
unsigned int KTX2Reader::numMetadataEntries() const { return _parser->numMetadataEntries(); }
const char* KTX2Reader::rawKey(unsigned int index) const { return _parser->rawKey(index); }
const char* KTX2Reader::rawValue(unsigned int index) const { return _parser->rawValue(index); }

QString KTX2Reader::key(unsigned int index)
{
    return metadataText(rawKey(index));
}

QString KTX2Reader::value(unsigned int index)
{
    return metadataText(rawValue(index));
}

Texture* KTX2Reader::load(const TextureFileInfo& info)
{
    const QByteArray name = printableName(_name);
    if (isCubeMapTexture() && isArrayTexture()) {
        VYX_WARNING("KTX 2 file '%s' is a cube-map array, which is not supported", name.constData());
        return nullptr;
    }
    // Every size and offset is checked, and supercompression undone, before GL sees a pointer.
    if (!_parser->parseImages())
        return nullptr;
    const KTX2Format& format = *KTX2Parser::format(_parser->header().vkFormat);
    const GLenum target = _parser->target();
    // levelCount 0 asks for the levels to be made; block formats cannot be, so they keep one.
    const bool generate = mipmapLevels() == 0 && !format.compressed();
    SamplerSettings levels;
    if (!generate) {
        levels.baseLevel = 0;
        levels.maxLevel = GLint(_parser->levels().size() - 1);
    }
    std::unique_ptr<Texture> owned = newTextureWithStorage(target, levels, [&] {
        VYX_CHECK_GL_ERROR(); // errors of earlier work are not this file's
        PixelStoreGuard alignment(GL_UNPACK_ALIGNMENT, 1); // KTX 2 rows are tightly packed
        for (const KTX2Image& image : _parser->images())
            upload(target, format, image);
        GLenum error = glGetError();
        if (error == GL_NO_ERROR && generate) {
            glGenerateMipmap(target);
            error = glGetError();
        }
        if (error == GL_NO_ERROR)
            return true;
        VYX_WARNING("KTX 2 file '%s' failed to load: GL refused its %s data (error 0x%X)", name.constData(),
                    KTX2Parser::formatName(format.vkFormat).constData(), error);
        return false;
    });
    if (!owned)
        return nullptr;
    Texture* texture = owned.release();
    // As for KTX 1: 2D pictures are taken as stored top row first unless their orientation key
    // ("ru", say) says the rows run up, and are flipped when the caller wants the other order.
    if (target == GL_TEXTURE_2D) {
        RemapColorRange(texture, info.lowValue, info.highValue);
        bool fileTopRowFirst = true;
        for (unsigned int i = 0; i < _parser->numMetadataEntries(); ++i)
            if (_parser->key(i) == QLatin1String("KTXorientation")) {
                const QByteArray value = _parser->valueBytes(i);
                fileTopRowFirst = value.size() < 2 || value[1] != 'u';
            }
        if (fileTopRowFirst != info.topRowFirst)
            FlipY(texture);
    } else if (info.lowValue != 0.0f || info.highValue != 1.0f) {
        VYX_DEBUG("Colour range of %s left as it is: only 2D textures are remapped", name.constData());
    }
    return texture;
}

TextureLoader* KTX2Recogniser::recognise(Memory* memory, const QString& name) const
{
    unsigned char* head = memory ? memory->get(0, sizeof KTX2Parser::identifier) : nullptr;
    if (!head)
        return nullptr;
    const bool match = KTX2Parser::hasIdentifier(head, sizeof KTX2Parser::identifier);
    memory->release(head);
    return match ? new KTX2Reader(memory, name) : nullptr;
}

} // namespace Tavren::Vyx
