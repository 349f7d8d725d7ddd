#include "gl/textures/array2dtexturemanager.h"

#include "core/logging.h"
#include "gl/glloader.h"
#include "gl/objects/internal/texturesetup.h"
#include "gl/objects/texture.h"
#include "gl/platform/bindable.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/internal/glcapabilities.h"
#include "gl/platform/internal/glutilities.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "gl/textures/bindlesstexturemanager.h"
#include "gl/textures/internal/managedtextureshared.h"

#include <algorithm>

namespace Tavren::Vyx {

namespace {

constexpr int kTableRow = 1024;
constexpr int kFirstCapacity = 4;

int levelSize(int size, int level)
{
    return std::max(1, size >> level);
}

GLint levelParameter(GLint level, GLenum parameter)
{
    GLint value = 0;
    glGetTexLevelParameteriv(GL_TEXTURE_2D, level, parameter, &value);
    return value;
}

GLint textureParameter(GLenum parameter)
{
    GLint value = 0;
    glGetTexParameteriv(GL_TEXTURE_2D, parameter, &value);
    return value;
}

// Transfer format and type for the CPU copy: exact for every format the tables know.
GLenum transferFormat(GLenum internalFormat)
{
    const GLenum format = allocationFormatFromInternalFormat(internalFormat);
    return format ? format : GL_RGBA;
}

GLenum transferType(GLenum internalFormat)
{
    const GLenum type = allocationTypeFromInternalFormat(internalFormat);
    return type ? type : GL_FLOAT;
}

using CopyImageSubData = void (*)(GLuint, GLenum, GLint, GLint, GLint, GLint, GLuint, GLenum, GLint, GLint, GLint,
                                  GLint, GLsizei, GLsizei, GLsizei);

// Core in 4.3 and ARB_copy_image, which the generated loader leaves out; null where the context
// lacks it.
CopyImageSubData copyImageSubData()
{
    return glCapabilityFunction<CopyImageSubData>(GLCapability::CopyImageSubData);
}

} // namespace

// What a layer must share with its array to sample like its source.
struct Array2DTextureManager::ArrayKey
{
    GLint internalFormat = 0;
    int width = 0, height = 0, levels = 0;
    bool compressed = false;
    GLint minFilter = 0, magFilter = 0, wrapS = 0, wrapT = 0;
    // Compressed bytes of one layer at each level.
    QVector<GLint> compressedSizes;

    bool operator==(const ArrayKey& o) const
    {
        return internalFormat == o.internalFormat && width == o.width && height == o.height && levels == o.levels &&
               minFilter == o.minFilter && magFilter == o.magFilter && wrapS == o.wrapS && wrapT == o.wrapT;
    }

    // The source must be bound on GL_TEXTURE_2D.
    static ArrayKey of2DTexture()
    {
        ArrayKey key;
        key.internalFormat = levelParameter(0, GL_TEXTURE_INTERNAL_FORMAT);
        key.width = levelParameter(0, GL_TEXTURE_WIDTH);
        key.height = levelParameter(0, GL_TEXTURE_HEIGHT);
        key.compressed = levelParameter(0, GL_TEXTURE_COMPRESSED) != 0;
        const int maxLevel = std::min(textureParameter(GL_TEXTURE_MAX_LEVEL), 31);
        while (key.levels <= maxLevel && key.width > 0 &&
               levelParameter(key.levels, GL_TEXTURE_WIDTH) == levelSize(key.width, key.levels) &&
               levelParameter(key.levels, GL_TEXTURE_HEIGHT) == levelSize(key.height, key.levels)) {
            if (key.compressed)
                key.compressedSizes.append(levelParameter(key.levels, GL_TEXTURE_COMPRESSED_IMAGE_SIZE));
            ++key.levels;
        }
        key.minFilter = textureParameter(GL_TEXTURE_MIN_FILTER);
        key.magFilter = textureParameter(GL_TEXTURE_MAG_FILTER);
        key.wrapS = textureParameter(GL_TEXTURE_WRAP_S);
        key.wrapT = textureParameter(GL_TEXTURE_WRAP_T);
        return key;
    }
};

// One GL_TEXTURE_2D_ARRAY and the source texture of each of its layers (null = free).
struct Array2DTextureManager::LayerArray
{
    ArrayKey key;
    std::unique_ptr<Texture> texture;
    QVector<Texture*> sources;
    int used = 0;
    // The bindless handle, made resident, once bind(program) has asked for it.
    uint64_t handle = 0;

    LayerArray() = default;
    LayerArray(const LayerArray&) = delete;
    LayerArray& operator=(const LayerArray&) = delete;
    ~LayerArray() { releaseHandle(); }

    uint64_t residentHandle()
    {
        const BindlessTextureManager::EntryPoints& calls = BindlessTextureManager::entryPoints();
        if (!handle && calls.getTextureHandle && calls.makeTextureHandleResident) {
            handle = calls.getTextureHandle(texture->textureID());
            if (handle)
                calls.makeTextureHandleResident(handle);
        }
        return handle;
    }

    void releaseHandle()
    {
        if (handle && BindlessTextureManager::entryPoints().makeTextureHandleNonResident)
            BindlessTextureManager::entryPoints().makeTextureHandleNonResident(handle);
        handle = 0;
    }

    // Storage for `capacity` layers at every level, sampling as the key says; null on failure.
    static std::unique_ptr<Texture> allocate(const ArrayKey& key, int capacity)
    {
        VYX_CHECK_GL_ERROR(); // earlier errors are not this allocation's
        auto texture = std::make_unique<Texture>();
        texture->setTarget(GL_TEXTURE_2D_ARRAY);
        AutoBinder binder(texture.get());
        if (!binder.isBound())
            return nullptr;
        const GLenum target = GL_TEXTURE_2D_ARRAY;
        glTexParameteri(target, GL_TEXTURE_MIN_FILTER, key.minFilter);
        glTexParameteri(target, GL_TEXTURE_MAG_FILTER, key.magFilter);
        glTexParameteri(target, GL_TEXTURE_WRAP_S, key.wrapS);
        glTexParameteri(target, GL_TEXTURE_WRAP_T, key.wrapT);
        glTexParameteri(target, GL_TEXTURE_BASE_LEVEL, 0);
        glTexParameteri(target, GL_TEXTURE_MAX_LEVEL, key.levels - 1);
        for (int level = 0; level < key.levels; ++level) {
            const int w = levelSize(key.width, level), h = levelSize(key.height, level);
            if (key.compressed)
                glCompressedTexImage3D(target, level, GLenum(key.internalFormat), w, h, capacity, 0,
                                       key.compressedSizes[level] * capacity, nullptr);
            else
                glTexImage3D(target, level, key.internalFormat, w, h, capacity, 0, transferFormat(key.internalFormat),
                             transferType(key.internalFormat), nullptr);
        }
        if (hasGLError(__FILE__, __LINE__))
            return nullptr;
        return texture;
    }

    // Copies `layers` layers at every level from source (a 2D texture, or an array of this key)
    // into this array from layer `first` on.
    static bool copyLevels(const ArrayKey& key, Texture* source, Texture* destination, int first, int layers)
    {
        VYX_CHECK_GL_ERROR(); // earlier errors are not this copy's
        const GLenum sourceTarget = source->target();
        if (const auto copyImage = copyImageSubData()) {
            for (int level = 0; level < key.levels; ++level)
                copyImage(source->textureID(), sourceTarget, level, 0, 0, 0, destination->textureID(),
                          GL_TEXTURE_2D_ARRAY, level, 0, 0, first, levelSize(key.width, level),
                          levelSize(key.height, level), layers);
            return !hasGLError(__FILE__, __LINE__);
        }
        // Through the CPU: read every level of the source, then write it into the layers.
        QVector<QByteArray> levels(key.levels);
        {
            AutoBinder binder(source);
            if (!binder.isBound())
                return false;
            PixelStoreGuard alignment(GL_PACK_ALIGNMENT, 1);
            for (int level = 0; level < key.levels; ++level) {
                const int w = levelSize(key.width, level), h = levelSize(key.height, level);
                if (key.compressed) {
                    levels[level].resize(key.compressedSizes[level] * layers);
                    glGetCompressedTexImage(sourceTarget, level, levels[level].data());
                } else {
                    levels[level].resize(w * h * layers * 16); // room for the widest transfer texel
                    glGetTexImage(sourceTarget, level, transferFormat(key.internalFormat),
                                  transferType(key.internalFormat), levels[level].data());
                }
            }
        }
        AutoBinder binder(destination);
        if (!binder.isBound())
            return false;
        PixelStoreGuard alignment(GL_UNPACK_ALIGNMENT, 1);
        for (int level = 0; level < key.levels; ++level) {
            const int w = levelSize(key.width, level), h = levelSize(key.height, level);
            if (key.compressed)
                glCompressedTexSubImage3D(GL_TEXTURE_2D_ARRAY, level, 0, 0, first, w, h, layers,
                                          GLenum(key.internalFormat), GLsizei(levels[level].size()),
                                          levels[level].constData());
            else
                glTexSubImage3D(GL_TEXTURE_2D_ARRAY, level, 0, 0, first, w, h, layers,
                                transferFormat(key.internalFormat), transferType(key.internalFormat),
                                levels[level].constData());
        }
        return !hasGLError(__FILE__, __LINE__);
    }

    // Doubles the layers, up to the driver's limit; false when already there or out of memory.
    bool grow(int maxLayers)
    {
        const int capacity = int(sources.size());
        const int grown = std::min(capacity * 2, maxLayers);
        if (grown <= capacity)
            return false;
        std::unique_ptr<Texture> larger = allocate(key, grown);
        if (!larger || !copyLevels(key, texture.get(), larger.get(), 0, capacity))
            return false;
        releaseHandle();
        texture = std::move(larger);
        sources.resize(grown);
        return true;
    }
};

Array2DTextureManager::Array2DTextureManager()
{
    TextureManager::tokenForColor(QColor(Qt::white));
}

Array2DTextureManager::~Array2DTextureManager()
{
    delete _tableTexture;
    delete _fallbackArray;
}

void Array2DTextureManager::setup(GLSLMacroProcessor* mp)
{
    TextureManager::setup(mp);
    if (!mp)
        return;
    mp->addDefine(QStringLiteral("TEXTURE_MANAGER_ARRAY2D"), QStringLiteral("1"));
    mp->addDefine(QStringLiteral("TEXTURE_MANAGER_ARRAY2D_COUNT"), QString::number(_maxArrays));
    if (_bindless)
        mp->addDefine(QStringLiteral("TEXTURE_MANAGER_ARRAY2D_BINDLESS"), QStringLiteral("1"));
    if (hasGLCapability(GLCapability::TextureQueryLod))
        mp->addDefine(QStringLiteral("TEXTURE_MANAGER_ARRAY2D_SUPPORTS_TEXTURE_QUERY_LOD"), QStringLiteral("1"));
}

QString Array2DTextureManager::getShaderFile() const
{
    return _bindless ? QStringLiteral("Array2DTextureManagerBindless.glslc")
                     : QStringLiteral("Array2DTextureManager.glslc");
}

Texture* Array2DTextureManager::arrayTexture(int index) const
{
    return index >= 0 && index < int(_arrays.size()) ? _arrays[size_t(index)]->texture.get() : nullptr;
}

QPair<int, int> Array2DTextureManager::placement(const TextureToken& token) const
{
    if (token.token >= quint64(_placed.size()))
        return {-1, -1};
    const int index = int(token.token) * 2;
    return {_tokenTable[index], _tokenTable[index + 1]};
}

void Array2DTextureManager::textureTokenIssued(const TextureToken&)
{
    // The range may have shrunk since the last token was issued; entries past it are reset then.
    const int tokens = int(maxToken().token);
    const int kept = std::min(tokens, int(_placed.size()));
    _tokenTable.resize(tokens * 2);
    std::fill(_tokenTable.begin() + kept * 2, _tokenTable.end(), -1);
    _placed.resize(size_t(tokens), 0);
    _dirty = true;
}

void Array2DTextureManager::setEntry(quint64 token, const Placement& placement)
{
    qint32* entry = _tokenTable.data() + token * 2;
    if (entry[0] == placement.array && entry[1] == placement.layer)
        return;
    entry[0] = placement.array;
    entry[1] = placement.layer;
    _dirty = true;
}

void Array2DTextureManager::textureTokenRevoked(const TextureToken& token)
{
    if (token.token >= quint64(_placed.size()))
        return;
    Texture* texture = loadedTexture(token);
    if (_placed[size_t(token.token)] && textureTokenMap().value(texture) == token)
        unplaceTexture(texture);
    _unplaceable.remove(texture);
    _placed[size_t(token.token)] = 0;
    setEntry(token.token, Placement());
}

void Array2DTextureManager::unplaceTexture(Texture* texture)
{
    const auto found = _placements.find(texture);
    if (found == _placements.end())
        return;
    LayerArray& array = *_arrays[size_t(found->array)];
    array.sources[found->layer] = nullptr;
    --array.used;
    _placements.erase(found);
    const TextureToken owner = textureTokenMap().value(texture);
    if (owner.token < quint64(_placed.size())) {
        _placed[size_t(owner.token)] = 0;
        setEntry(owner.token, Placement());
    }
}

void Array2DTextureManager::dirty(Texture* texture)
{
    unplaceTexture(texture);
    _unplaceable.remove(texture);
}

int Array2DTextureManager::arrayWithFreeLayer(const ArrayKey& key)
{
    GLint maxLayers = 256;
    glGetIntegerv(GL_MAX_ARRAY_TEXTURE_LAYERS, &maxLayers);
    for (size_t index = 0; index < _arrays.size(); ++index) {
        LayerArray& array = *_arrays[index];
        if (!(array.key == key))
            continue;
        if (array.used < array.sources.size() || array.grow(maxLayers))
            return int(index);
    }
    auto array = std::make_unique<LayerArray>();
    array->key = key;
    array->texture = LayerArray::allocate(key, std::min(kFirstCapacity, int(maxLayers)));
    if (!array->texture)
        return -1;
    array->sources.resize(std::min(kFirstCapacity, int(maxLayers)));
    _arrays.push_back(std::move(array));
    return int(_arrays.size()) - 1;
}

Array2DTextureManager::Placement Array2DTextureManager::placeTexture(Texture* texture)
{
    const auto found = _placements.constFind(texture);
    if (found != _placements.cend())
        return *found;
    if (_unplaceable.contains(texture))
        return {};
    ArrayKey key;
    if (texture->target() == GL_TEXTURE_2D) {
        AutoBinder binder(texture);
        if (binder.isBound())
            key = ArrayKey::of2DTexture();
    }
    const int index = key.levels > 0 ? arrayWithFreeLayer(key) : -1;
    if (index < 0) {
        VYX_WARNING("Texture %u (target 0x%X) cannot be placed in a 2D array texture; its token reads as invalid",
                    texture->textureID(), texture->target());
        _unplaceable.insert(texture);
        return {};
    }
    LayerArray& array = *_arrays[size_t(index)];
    const int layer = int(array.sources.indexOf(nullptr));
    if (!LayerArray::copyLevels(array.key, texture, array.texture.get(), layer, 1)) {
        VYX_WARNING("Copying texture %u into a 2D array texture failed; its token reads as invalid",
                    texture->textureID());
        _unplaceable.insert(texture);
        return {};
    }
    array.sources[layer] = texture;
    ++array.used;
    const Placement placement{index, layer};
    _placements.insert(texture, placement);
    return placement;
}

void Array2DTextureManager::placeToken(const TextureToken& token)
{
    Texture* texture = textureForToken(token);
    if (!texture)
        return;
    setEntry(token.token, placeTexture(texture));
    // A stand-in (the white texture of an image that failed to load) is looked at again next time.
    if (textureTokenMap().value(texture) == token && _placements.contains(texture))
        _placed[size_t(token.token)] = 1;
}

bool Array2DTextureManager::bind(const QSet<TextureToken>& tokens)
{
    const quint64 count = _placed.size();
    for (const TextureToken& token : tokens) {
        if (token.token < count && !_placed[size_t(token.token)])
            placeToken(token);
    }
    return true;
}

bool Array2DTextureManager::unbind(const QSet<TextureToken>&)
{
    return true;
}

bool Array2DTextureManager::bind(ShaderProgram* program)
{
    if (!_tableTexture)
        _tableTexture = nearestTexture(GL_TEXTURE_2D, true);
    if (!_tableTexture->bind())
        return false;
    const GLint tableUnit = _tableTexture->unit();
    const int tokens = int(_placed.size());
    if (_dirty) {
        // Whole rows of kTableRow tokens; the tail of the last row reads as "not placed".
        const int rows = std::max(1, (tokens + kTableRow - 1) / kTableRow);
        const int width = tokens < kTableRow ? std::max(tokens, 1) : kTableRow;
        QVector<qint32> table(_tokenTable);
        table.resize(width * rows * 2);
        std::fill(table.begin() + _tokenTable.size(), table.end(), -1);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_RG32I, width, rows, 0, GL_RG_INTEGER, GL_INT, table.constData());
        _dirty = false;
    }
    const int arrays = int(_arrays.size());
    if (arrays > _maxArrays)
        VYX_WARNING("Requesting %d texture arrays but only %d available. Rendering will be incorrect!", arrays,
                    _maxArrays);
    static const QString tableName = QStringLiteral("u_Array2DTokenTable");
    static const QString countName = QStringLiteral("u_Array2DTokenCount");
    // Absent uniforms (-1) are skipped: with no program current, even those calls are errors.
    if (const int location = managedUniformLocation(program, tableName); location >= 0)
        glUniform1i(location, tableUnit);
    if (const int location = managedUniformLocation(program, countName); location >= 0)
        glUniform1ui(location, GLuint(tokens));
    if (_bindless)
        uploadArrayHandles(program);
    else
        bindArrays(program);
    return true;
}

void Array2DTextureManager::uploadArrayHandles(ShaderProgram* program)
{
    // Two words (low, high) per declared array; 0 marks one with no layers.
    QVector<GLuint> words(std::max(_maxArrays, 1) * 2, 0u);
    for (int index = 0; index < std::min(int(_arrays.size()), _maxArrays); ++index) {
        const uint64_t handle = _arrays[size_t(index)]->residentHandle();
        words[index * 2] = GLuint(handle);
        words[index * 2 + 1] = GLuint(handle >> 32);
    }
    static const QString handlesName = QStringLiteral("u_Array2DTextureHandles[0]");
    if (const int location = managedUniformLocation(program, handlesName); location >= 0)
        glUniform2uiv(location, GLsizei(_maxArrays), words.constData());
}

void Array2DTextureManager::bindArrays(ShaderProgram* program)
{
    const int arrays = int(_arrays.size());
    // unit() costs as much as bind(): each unit is asked once.
    QVector<GLint> units(std::max(_maxArrays, 1), -1);
    GLint spareUnit = -1;
    for (int index = 0; index < std::min(arrays, _maxArrays); ++index) {
        Texture* array = _arrays[size_t(index)]->texture.get();
        if (array->bind()) {
            _boundArrays.append(array);
            units[index] = array->unit();
            spareUnit = spareUnit < 0 ? units[index] : spareUnit;
        }
    }
    // Declared arrays with no layers of their own point at a bound array (an empty one when there
    // is none), never at the integer table's unit: two sampler types on one unit fail the draw.
    if (_boundArrays.isEmpty()) {
        if (!_fallbackArray)
            _fallbackArray = nearestTexture(GL_TEXTURE_2D_ARRAY, false);
        if (_fallbackArray->bind()) {
            _boundArrays.append(_fallbackArray);
            spareUnit = _fallbackArray->unit();
        }
    }
    std::replace(units.begin(), units.end(), -1, std::max(spareUnit, 0));
    static const QString arraysName = QStringLiteral("u_Array2DTextures[0]");
    if (const int location = managedUniformLocation(program, arraysName); location >= 0)
        glUniform1iv(location, GLsizei(_maxArrays), units.constData());
}

bool Array2DTextureManager::unbind(ShaderProgram*)
{
    for (Texture* array : qAsConst(_boundArrays))
        array->unbind();
    _boundArrays.clear();
    return _tableTexture && _tableTexture->unbind();
}

void Array2DTextureManager::clear()
{
    _arrays.clear();
    _placements.clear();
    _unplaceable.clear();
    _tokenTable.clear();
    _placed.clear();
    _boundArrays.clear();
    TextureManager::clear();
    tokenForColor(QColor(Qt::white));
}

} // namespace Tavren::Vyx
