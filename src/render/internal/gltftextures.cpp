#include "render/internal/gltftextures.h"

#include "core/memory.h"
#include "gl/glloader.h"
#include "gl/objects/internal/texturesetup.h"
#include "gl/objects/texture.h"
#include "gl/textureio/textureio.h"
#include "gl/textures/texturemanager.h"

#include <QBuffer>
#include <QFile>
#include <QImageReader>
#include <QThread>

#include <memory>
#include <system_error>

namespace Tavren::Vyx {

namespace {

// Pictures Qt reads (PNG, JPEG, ...), which the library's recognisers leave to Qt. Unlike
// LoadTextureFromQImageFile it keeps the top row first, as glTF's texture coordinates want.
class PictureLoader : public TextureLoader2DHelper
{
public:
    explicit PictureLoader(std::unique_ptr<Memory> memory, QSize size) : _memory(std::move(memory)), _size(size) {}
    bool valid() const override { return _size.isValid(); }
    unsigned int width() const override { return unsigned(_size.width()); }
    unsigned int height() const override { return unsigned(_size.height()); }
    Texture* load(const TextureFileInfo& info) override
    {
        QImage image;
        const uint64_t size = _memory->size();
        if (unsigned char* bytes = size < uint64_t(INT_MAX) ? _memory->get(0, size) : nullptr) {
            image.loadFromData(bytes, int(size));
            _memory->release(bytes);
        }
        return image.isNull() ? nullptr : QImageToTexture(image.convertToFormat(QImage::Format_ARGB32), false, info);
    }

private:
    std::unique_ptr<Memory> _memory;
    QSize _size;
};

class PictureRecogniser : public TextureRecogniser
{
public:
    TextureLoader* recognise(Memory* memory, const QString&) const override
    {
        const uint64_t size = memory->size();
        unsigned char* bytes = size > 0 && size < uint64_t(INT_MAX) ? memory->get(0, size) : nullptr;
        if (!bytes)
            return nullptr;
        QByteArray view = QByteArray::fromRawData(reinterpret_cast<const char*>(bytes), int(size));
        QBuffer buffer(&view);
        buffer.open(QIODevice::ReadOnly);
        QImageReader reader(&buffer);
        const QSize pictureSize = reader.canRead() ? reader.size() : QSize();
        memory->release(bytes);
        if (!pictureSize.isValid())
            return nullptr;
        return new PictureLoader(std::unique_ptr<Memory>(memory), pictureSize);
    }
};

// The library's recognisers (KTX, HDR, ASTC and what the host added), then Qt's pictures, which
// predecode() may have decoded already, with their mipmaps when made for this colour space.
Texture* decode(QByteArray bytes, const QString& name, bool srgb, const QImage& picture, const QList<QImage>& levels)
{
    TextureFileInfo info;
    info.srgb = srgb;
    info.topRowFirst = true; // glTF's texture coordinates start at the picture's top row
    auto* data = reinterpret_cast<unsigned char*>(bytes.data()); // recognisers may patch headers in place
    std::unique_ptr<TextureLoader> loader(IdentifyTextureFromMemory(data, uint64_t(bytes.size()), name));
    if (!loader && !picture.isNull())
        return QImageToTexture(picture, levels, info);
    if (!loader) {
        static const PictureRecogniser pictures;
        auto memory = std::make_unique<RawMemory>(data, uint64_t(bytes.size()));
        loader.reset(pictures.recognise(memory.get(), name));
        if (loader)
            memory.release();
    }
    return loader && loader->valid() ? loader->load(info) : nullptr;
}

bool isMipmapFilter(int filter)
{
    return filter >= GL_NEAREST_MIPMAP_NEAREST && filter <= GL_LINEAR_MIPMAP_LINEAR;
}

int pick(int value, std::initializer_list<int> allowed, int fallback)
{
    return std::find(allowed.begin(), allowed.end(), value) != allowed.end() ? value : fallback;
}

// Filters the file leaves open stay trilinear, as textures were before samplers were read.
void applySampler(Texture& texture, const SceneData::Sampler& sampler)
{
    SamplerSettings settings;
    settings.minFilter = pick(sampler.minFilter,
                              {GL_NEAREST, GL_LINEAR, GL_NEAREST_MIPMAP_NEAREST, GL_LINEAR_MIPMAP_NEAREST,
                               GL_NEAREST_MIPMAP_LINEAR, GL_LINEAR_MIPMAP_LINEAR},
                              GL_LINEAR_MIPMAP_LINEAR);
    settings.magFilter = pick(sampler.magFilter, {GL_NEAREST, GL_LINEAR}, GL_LINEAR);
    settings.wrapS = pick(sampler.wrapS, {GL_REPEAT, GL_CLAMP_TO_EDGE, GL_MIRRORED_REPEAT}, GL_REPEAT);
    settings.wrapT = pick(sampler.wrapT, {GL_REPEAT, GL_CLAMP_TO_EDGE, GL_MIRRORED_REPEAT}, GL_REPEAT);
    if (!texture.bind())
        return;
    // A single-level texture gets its mipmaps when the filter samples them; a compressed one
    // cannot be given any, so it samples its one level.
    GLint maxLevel = 0, width = 0, height = 0, nextWidth = 0, compressed = GL_FALSE;
    glGetTexParameteriv(GL_TEXTURE_2D, GL_TEXTURE_MAX_LEVEL, &maxLevel);
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_WIDTH, &width);
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_HEIGHT, &height);
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 1, GL_TEXTURE_WIDTH, &nextWidth);
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_COMPRESSED, &compressed);
    if (isMipmapFilter(settings.minFilter) && maxLevel > 0 && nextWidth == 0 && (width > 1 || height > 1)) {
        if (compressed)
            settings.maxLevel = 0;
        else
            glGenerateMipmap(GL_TEXTURE_2D);
    }
    settings.apply(GL_TEXTURE_2D);
    texture.unbind();
}

} // namespace

bool GLTFTextures::token(const SceneData::TextureRef& ref, bool srgb, TextureToken& token)
{
    if (ref.texture < 0 || ref.texture >= int(_scene.textures.size())) {
        token = _manager.tokenForColor(Qt::white);
        return true;
    }
    const SceneData::Texture& texture = _scene.textures[size_t(ref.texture)];
    const int source = texture.source;
    if (source < 0 || source >= int(_scene.images.size())) {
        error = QStringLiteral("Texture %1 uses image %2, which does not exist").arg(ref.texture).arg(source);
        return false;
    }
    const auto key = std::make_tuple(source, texture.sampler, srgb);
    const auto cached = _tokens.find(key);
    if (cached != _tokens.end()) {
        token = cached->second;
        return true;
    }
    const SceneData::Image& image = _scene.images[size_t(source)];
    const Job* job = finished(source);
    const Prepared* ready = job ? &job->prepared : nullptr;
    QByteArray bytes = ready ? ready->bytes : image.bytes;
    if (!ready && bytes.isEmpty() && !image.path.isEmpty()) {
        QFile file(image.path);
        if (file.open(QIODevice::ReadOnly))
            bytes = file.readAll();
    }
    const QImage picture = ready ? ready->picture : QImage();
    // GL makes the mipmaps of a picture read in another colour space than they were made for.
    const QList<QImage> levels = ready && job->srgb == srgb ? ready->levels : QList<QImage>();
    Texture* made =
        bytes.isEmpty() ? nullptr : decode(bytes, image.uri.isEmpty() ? image.name : image.uri, srgb, picture, levels);
    if (made && made->target() != GL_TEXTURE_2D) {
        delete made;
        made = nullptr;
    }
    if (made) {
        const bool hasSampler = texture.sampler >= 0 && texture.sampler < int(_scene.samplers.size());
        applySampler(*made, hasSampler ? _scene.samplers[size_t(texture.sampler)] : SceneData::Sampler());
        token = _manager.tokenForTexture(made);
    } else {
        // A file that was missing altogether was reported by the reader already.
        const bool missingFile = image.bytes.isEmpty() && image.path.isEmpty() && !image.uri.isEmpty();
        if (!missingFile && !_reported.contains(source))
            _warnings << QStringLiteral("Image %1 ('%2') could not be loaded; it renders white").arg(source).arg(image.uri);
        _reported.insert(source);
        token = _manager.tokenForColor(Qt::white);
    }
    _tokens.emplace(key, token);
    return true;
}

GLTFTextures::~GLTFTextures()
{
    _stop = true;
    for (std::thread& worker : _workers)
        worker.join();
}

bool GLTFTextures::holdsColour(const SceneData::Material& m, const SceneData::TextureRef& map)
{
    return &map == &m.baseColorTexture || &map == &m.emissiveTexture || &map == &m.specular.colorTexture ||
           &map == &m.sheen.colorTexture || &map == &m.specularGlossiness.texture;
}

void GLTFTextures::predecode()
{
    if (!_jobs.empty())
        return;
    for (const SceneData::Material& m : _scene.materials) {
        for (const SceneData::TextureRef* ref : m.textureRefs()) {
            const int image = ref->texture >= 0 && ref->texture < int(_scene.textures.size())
                                  ? _scene.textures[size_t(ref->texture)].source
                                  : -1;
            if (image >= 0 && image < int(_scene.images.size()) && _jobOf.emplace(image, _jobs.size()).second)
                _jobs.push_back({image, holdsColour(m, *ref), {}, false});
        }
    }
    const size_t threads = std::min(_jobs.size(), size_t(std::max(1, QThread::idealThreadCount())));
    try {
        while (_workers.size() < threads)
            _workers.emplace_back([this] {
                while (runNextJob()) {
                }
            });
    } catch (const std::system_error&) {
        // Fewer workers, or none: token() decodes what they leave.
    }
}

// Only Qt's reentrant file and image reading here, on the job's own entry: no GL.
bool GLTFTextures::runNextJob()
{
    const size_t index = _nextJob++;
    if (index >= _jobs.size() || _stop)
        return false;
    const Job& job = _jobs[index];
    const SceneData::Image& image = _scene.images[size_t(job.image)];
    Prepared result;
    result.bytes = image.bytes;
    if (result.bytes.isEmpty() && !image.path.isEmpty()) {
        QFile file(image.path);
        if (file.open(QIODevice::ReadOnly))
            result.bytes = file.readAll();
    }
    QImage decoded;
    if (!result.bytes.isEmpty() && decoded.loadFromData(result.bytes)) {
        // RGBA order, which a software rasteriser uploads without reordering the bytes.
        result.picture = std::move(decoded).convertToFormat(QImage::Format_RGBA8888);
        // Here rather than by GL on the GL thread, where it would wait for the next pictures.
        result.levels = MipmapLevels(result.picture, job.srgb);
    }
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        _jobs[index].prepared = std::move(result);
        _jobs[index].done = true;
    }
    _ready.notify_all();
    return true;
}

const GLTFTextures::Job* GLTFTextures::finished(int image)
{
    const auto found = _jobOf.find(image);
    if (found == _jobOf.end())
        return nullptr;
    Job& job = _jobs[found->second];
    // With workers the GL thread only waits: a picture of its own would hold up the uploads of
    // those finished meanwhile, and the workers keep the cores busy.
    while (_workers.empty() && !job.done && runNextJob()) {
    }
    std::unique_lock<std::mutex> lock(_mutex);
    _ready.wait(lock, [&job] { return job.done; });
    return &job;
}

} // namespace Tavren::Vyx
