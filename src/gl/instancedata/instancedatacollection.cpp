#include "gl/instancedata/instancedatacollection.h"

#include "core/logging.h"
#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/instancedata/internal/instancedatalayout.h"
#include "gl/objects/bufferobject.h"
#include "gl/objects/texture.h"
#include "gl/objects/uniformbufferobject.h"
#include "gl/platform/glcontexttracker.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/internal/glcapabilities.h"
#include "gl/shaders/shaderprogram.h"
#include "gl/textures/texturemanager.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace Tavren::Vyx {

using InstanceDataLayout::checkedMember;
using InstanceDataLayout::checkedMemberOffset;
using InstanceDataLayout::kSlotBytes;

namespace {

// Past this share of changed records one whole copy is cheaper than many small ranges.
constexpr size_t kPartialUploadDivisor = 8;

bool isUsablePlan(const InstanceDataPlan* plan)
{
    return VYX_CHECK(plan && plan->isFinalised() && plan->totalDataSize() > 0,
                     "InstanceDataCollection needs a registered plan with members (%s)",
                     plan ? qPrintable(plan->name()) : "no plan");
}

// A QByteArray holds at most INT_MAX bytes.
bool fitsInOneArray(size_t bytes)
{
    return VYX_CHECK(bytes <= size_t(std::numeric_limits<int>::max()), "%zu bytes of instance data are too many",
                     bytes);
}

} // namespace

InstanceDataCollection::InstanceDataCollection(InstanceDataPlan* plan, size_t count, QObject* parent)
    : QObject(parent)
    , _usage(GL_DYNAMIC_DRAW)
{
    if (!isUsablePlan(plan))
        return;
    _plan = plan;
    VYX_CHECK_AS(count <= _plan->arraySize(), "numItems <= _plan->arraySize()", "List is too big for plan '%s'",
                 qPrintable(_plan->name()));
    const size_t limit = size_t(std::numeric_limits<int>::max());
    const size_t bytes = count <= limit ? count * _plan->totalDataSize() : std::numeric_limits<size_t>::max();
    if (fitsInOneArray(bytes))
        _data.fill('\0', int(bytes));
    markAllDirty();
}

InstanceDataCollection::InstanceDataCollection(InstanceDataPlan* plan, const char* bytes, size_t numBytes,
                                               QObject* parent)
    : QObject(parent)
    , _usage(GL_DYNAMIC_DRAW)
{
    if (!isUsablePlan(plan))
        return;
    _plan = plan;
    const size_t records = bytes && fitsInOneArray(numBytes) ? numBytes / _plan->totalDataSize() : 0;
    VYX_CHECK_CONTINUE(records * _plan->totalDataSize() == numBytes,
                       "%zu bytes are no whole number of '%s' records; %zu kept", numBytes,
                       qPrintable(_plan->name()), records);
    VYX_CHECK_AS(records <= _plan->arraySize(), "(numBytes / _plan->totalDataSize()) <= _plan->arraySize()",
                 "List is too big for plan '%s'", qPrintable(_plan->name()));
    replace(bytes, records * _plan->totalDataSize());
}

InstanceDataCollection::InstanceDataCollection(const QString& planName, const QList<InstanceData>& list,
                                               QObject* parent)
    : QObject(parent)
    , _usage(GL_DYNAMIC_DRAW)
{
    InstanceDataPlan* plan = InstanceDataRegistry::Instance().getPlan(planName);
    if (!isUsablePlan(plan))
        return;
    _plan = plan;
    update(list);
}

InstanceDataCollection::~InstanceDataCollection() = default;

int InstanceDataCollection::size() const
{
    return _plan ? int(size_t(_data.size()) / _plan->totalDataSize()) : 0;
}

void InstanceDataCollection::checkFits(size_t records) const
{
    VYX_CHECK_AS(records <= _plan->arraySize(), "size_t(instanceDataDataList.size()) <= _plan->arraySize()",
                 "List %d too big, max %d plan '%s'", int(records), int(_plan->arraySize()), qPrintable(_plan->name()));
}

void InstanceDataCollection::replace(const char* bytes, size_t numBytes)
{
    _data = QByteArray(bytes, int(numBytes));
    collectTokens();
    markAllDirty();
}

bool InstanceDataCollection::update(const QList<InstanceData>& list)
{
    VYX_CHECK_RETURN(_plan, false, "InstanceDataCollection::update() without a plan");
    for (const InstanceData& record : list) {
        const bool samePlan = record.plan() == _plan;
        if (!samePlan)
            return VYX_CHECK(samePlan, "InstanceDataCollection::update() : a record of plan '%s' in a '%s' list",
                             qPrintable(record.name()), qPrintable(_plan->name()));
    }
    checkFits(size_t(list.size()));
    const int recordBytes = int(_plan->totalDataSize());
    _data.resize(list.size() * recordBytes);
    _textureTokens.clear();
    for (int i = 0; i < list.size(); ++i) {
        std::memcpy(_data.data() + i * recordBytes, list[i].dataArray().constData(), size_t(recordBytes));
        _textureTokens.unite(list[i].textureTokens());
    }
    markAllDirty();
    return true;
}

bool InstanceDataCollection::update(const char* bytes, size_t numBytes)
{
    VYX_CHECK_RETURN(_plan, false, "InstanceDataCollection::update() without a plan");
    VYX_CHECK_RETURN(numBytes % _plan->totalDataSize() == 0 && (bytes || numBytes == 0), false,
                     "%zu bytes are no whole number of '%s' records", numBytes, qPrintable(_plan->name()));
    if (!fitsInOneArray(numBytes))
        return false;
    checkFits(numBytes / _plan->totalDataSize());
    replace(bytes, numBytes);
    return true;
}

void InstanceDataCollection::collectTokens()
{
    _textureTokens.clear();
    const int recordBytes = int(_plan->totalDataSize());
    for (int record = 0; record + recordBytes <= _data.size(); record += recordBytes) {
        for (int offset : _plan->textureTokenOffsets())
            noteToken(_data.constData() + record + offset);
    }
}

void InstanceDataCollection::noteToken(const void* bytes)
{
    TextureToken token;
    std::memcpy(&token.token, bytes, sizeof(token.token));
    if (!token.isNull())
        _textureTokens.insert(token);
}

bool InstanceDataCollection::set(int index, const QString& member, const void* data, size_t size)
{
    const bool recordExists = index >= 0 && index < this->size();
    if (!recordExists)
        return VYX_CHECK(recordExists, "InstanceDataCollection::set( %d, '%s') : %d records", index,
                         qPrintable(member), this->size());
    const InstanceDataPlan::MemberLayout* layout = checkedMember(_plan, member, size, "InstanceDataCollection::set");
    if (!layout)
        return false;
    char* target = _data.data() + size_t(index) * _plan->totalDataSize() + size_t(layout->offset);
    if (std::memcmp(target, data, size) == 0)
        return true;
    std::memcpy(target, data, size);
    if (layout->type == InstanceDataPlan::eTexture && size == sizeof(quint64))
        noteToken(data);
    markDirty(index);
    return true;
}

bool InstanceDataCollection::get(int index, const QString& member, void* data) const
{
    VYX_CHECK_RETURN(index >= 0 && index < size(), false, "InstanceDataCollection::get( %d, '%s') : %d records", index,
                     qPrintable(member), size());
    const size_t bytes = _plan->dataSize(member);
    const int offset = checkedMemberOffset(_plan, member, bytes, "InstanceDataCollection::get");
    if (offset < 0)
        return false;
    std::memcpy(data, _data.constData() + size_t(index) * _plan->totalDataSize() + size_t(offset), bytes);
    return true;
}

void InstanceDataCollection::markDirty(int record)
{
    _dirty = true;
    if (_allDirty || _dirtyMarks[size_t(record)])
        return;
    _dirtyMarks[size_t(record)] = true;
    _dirtyRecords.push_back(record);
    if (_dirtyRecords.size() > _dirtyMarks.size() / kPartialUploadDivisor)
        markAllDirty();
}

void InstanceDataCollection::markAllDirty()
{
    _dirty = true;
    _allDirty = true;
    _dirtyRecords.clear();
    _dirtyMarks.assign(size_t(size()), false);
}

void InstanceDataCollection::clearDirtyStatus()
{
    for (int record : _dirtyRecords)
        _dirtyMarks[size_t(record)] = false;
    _dirtyRecords.clear();
    _dirty = false;
    _allDirty = false;
}

size_t InstanceDataCollection::gpuBytes() const
{
    size_t bytes = size_t(_data.size());
    if (_plan->mechanism() == InstanceDataPlan::eUniformBlock)
        bytes = qMax(bytes, _plan->arraySize() * _plan->totalDataSize());
    // GL refuses to bind an empty buffer.
    return qMax(bytes, size_t(kSlotBytes));
}

const QSharedPointer<UniformBufferObject>& InstanceDataCollection::getUniformBufferObject()
{
    if (_uniformBufferObject.isNull() && _plan)
        makeBuffer();
    return _uniformBufferObject;
}

bool InstanceDataCollection::makeBuffer()
{
    const QSharedPointer<OpenGLDeviceContext> device = OpenGLDeviceContext::current();
    if (device.isNull() || !GLContextTracker::currentContext())
        return false;
    const bool textureBuffer = _plan->mechanism() == InstanceDataPlan::eTextureBuffer;
    QSharedPointer<BufferObject> buffer = device->newBuffer();
    buffer->setTarget(textureBuffer ? GL_TEXTURE_BUFFER : GL_UNIFORM_BUFFER);
    _uploadedSize = -1;
    _immutable = false;
    // Drivers without immutable storage know neither the call nor the query.
    if (_storageFlags != 0 && hasGLCapability(GLCapability::BufferStorage)) {
        _allocatedBytes = gpuBytes();
        buffer->useStorageBuffer(int(_allocatedBytes), _storageFlags | GL_MAP_WRITE_BIT | GL_DYNAMIC_STORAGE_BIT);
        AutoBinder bound(buffer.data());
        GLint immutable = GL_FALSE;
        glGetBufferParameteriv(buffer->target(), GL_BUFFER_IMMUTABLE_STORAGE, &immutable);
        _immutable = immutable == GL_TRUE;
        // Immutable storage is allocated already: the first upload maps it like any rewrite.
        if (_immutable) {
            _uploadedSize = _data.size();
            _allDirty = true;
        }
    }
    _uniformBufferObject = device->newUniformBuffer(QStringLiteral("u_") + _plan->name() + QStringLiteral("Uniform"),
                                                    buffer);
    if (!textureBuffer)
        return true;
    // A generated name becomes a buffer object only at its first bind; glTexBuffer wants the object.
    AutoBinder created(buffer.data());
    auto view = [&buffer](GLenum format) {
        auto texture = std::make_unique<Texture>();
        texture->setTarget(GL_TEXTURE_BUFFER);
        AutoBinder bound(texture.get());
        glTexBuffer(GL_TEXTURE_BUFFER, format, buffer->getBO());
        return texture;
    };
    _intTexture = view(GL_RGBA32I);
    _floatTexture = view(GL_RGBA32F);
    return true;
}

bool InstanceDataCollection::upload()
{
    if (_immutable && _data.size() != _uploadedSize) {
        // Immutable storage cannot grow or shrink: start over with a buffer of the new size.
        _uniformBufferObject.reset();
        _floatTexture.reset();
        _intTexture.reset();
        if (!makeBuffer())
            return false;
    }
    const bool uploaded = _data.size() == _uploadedSize ? (_allDirty ? rewriteAll() : rewriteChanged()) : reallocate();
    if (uploaded)
        clearDirtyStatus();
    return uploaded;
}

bool InstanceDataCollection::reallocate()
{
    BufferObject* buffer = _uniformBufferObject->bufferObject().data();
    const size_t bytes = gpuBytes();
    QByteArray padded = _data;
    padded.append(QByteArray(int(bytes) - _data.size(), '\0'));
    AutoBinder bound(buffer);
    if (!buffer->uploadArbitraryData(padded.constData(), int(bytes / kSlotBytes), unsigned(_usage), kSlotBytes))
        return false;
    _uploadedSize = _data.size();
    _allocatedBytes = bytes;
    _uploadedBytes += bytes;
    return true;
}

bool InstanceDataCollection::rewriteAll()
{
    if (_data.isEmpty())
        return true;
    BufferObject* buffer = _uniformBufferObject->bufferObject().data();
    AutoBinder bound(buffer);
    void* mapped = buffer->map(GL_WRITE_ONLY);
    VYX_CHECK_RETURN(mapped, false, "Could not map the buffer of plan '%s'", qPrintable(_plan->name()));
    std::memcpy(mapped, _data.constData(), size_t(_data.size()));
    buffer->unmap();
    _uploadedBytes += quint64(_data.size());
    return true;
}

bool InstanceDataCollection::rewriteChanged()
{
    if (_dirtyRecords.empty())
        return true;
    std::sort(_dirtyRecords.begin(), _dirtyRecords.end());
    const GLintptr recordBytes = GLintptr(_plan->totalDataSize());
    // Neighbouring records go out as one range.
    const auto forEachRun = [&](auto&& write) {
        for (size_t i = 0; i < _dirtyRecords.size();) {
            size_t last = i;
            while (last + 1 < _dirtyRecords.size() && _dirtyRecords[last + 1] == _dirtyRecords[last] + 1)
                ++last;
            write(_dirtyRecords[i] * recordBytes, GLsizeiptr(last - i + 1) * recordBytes);
            i = last + 1;
        }
    };
    size_t runs = 0;
    forEachRun([&runs](GLintptr, GLsizeiptr) { ++runs; });
    BufferObject* buffer = _uniformBufferObject->bufferObject().data();
    AutoBinder bound(buffer);
    const GLenum target = buffer->target();
    // A few ranges are cheapest as plain writes, which also spare the driver a wait for draws
    // still reading the buffer; many are written through one mapping of their span.
    constexpr size_t kMostSubDataRuns = 4;
    if (runs <= kMostSubDataRuns) {
        forEachRun([&](GLintptr offset, GLsizeiptr length) {
            glBufferSubData(target, offset, length, _data.constData() + offset);
            _uploadedBytes += quint64(length);
        });
        return true;
    }
    const GLintptr first = _dirtyRecords.front() * recordBytes;
    const GLintptr end = (_dirtyRecords.back() + 1) * recordBytes;
    auto* mapped = static_cast<char*>(
        glMapBufferRange(target, first, end - first, GL_MAP_WRITE_BIT | GL_MAP_FLUSH_EXPLICIT_BIT));
    VYX_CHECK_RETURN(mapped, false, "Could not map the buffer of plan '%s'", qPrintable(_plan->name()));
    forEachRun([&](GLintptr offset, GLsizeiptr length) {
        std::memcpy(mapped + (offset - first), _data.constData() + offset, size_t(length));
        glFlushMappedBufferRange(target, offset - first, length);
        _uploadedBytes += quint64(length);
    });
    glUnmapBuffer(target);
    return true;
}

bool InstanceDataCollection::bind(ShaderProgram* program, TextureManager* manager)
{
    VYX_CHECK_RETURN(_plan, false, "InstanceDataCollection::bind() without a plan");
    if (getUniformBufferObject().isNull())
        return false;
    if (_dirty && !upload())
        return false;
    program = program ? program : ShaderProgram::currentShaderProgram();
    if (_plan->mechanism() == InstanceDataPlan::eUniformBlock) {
        if (!(program ? _uniformBufferObject->bind(program) : _uniformBufferObject->bind()))
            return false;
    } else {
        if (!_floatTexture->bind())
            return false;
        if (!_intTexture->bind()) {
            _floatTexture->unbind();
            return false;
        }
        if (program) {
            program->setUniform(program->getUniformLocation(_plan->samplerFName()), _floatTexture->unit());
            program->setUniform(program->getUniformLocation(_plan->samplerIName()), _intTexture->unit());
        }
    }
    handTokens(manager);
    return true;
}

bool InstanceDataCollection::unbind(ShaderProgram* program, TextureManager* manager)
{
    VYX_CHECK_RETURN(_plan && !_uniformBufferObject.isNull(), false, "InstanceDataCollection::unbind() before a bind");
    bool unbound = true;
    if (_plan->mechanism() == InstanceDataPlan::eUniformBlock) {
        unbound = _uniformBufferObject->unbind(program);
    } else {
        unbound = _intTexture->unbind();
        unbound = _floatTexture->unbind() && unbound;
    }
    takeTokensBack(manager);
    return unbound;
}

bool InstanceDataCollection::rebind(InstanceDataCollection* bound, ShaderProgram* program, TextureManager* manager)
{
    const bool sameBlock = bound && bound != this && _plan && bound->_plan == _plan &&
                           _plan->mechanism() == InstanceDataPlan::eUniformBlock && !bound->_uniformBufferObject.isNull();
    if (!sameBlock) {
        const bool unbound = !bound || bound->unbind(program, manager);
        return bind(program, manager) && unbound;
    }
    bound->takeTokensBack(manager);
    if (getUniformBufferObject().isNull() || (_dirty && !upload())) {
        bound->_uniformBufferObject->unbind(program);
        return false;
    }
    if (!_uniformBufferObject->rebind(bound->_uniformBufferObject.data(),
                                      program ? program : ShaderProgram::currentShaderProgram()))
        return false;
    handTokens(manager);
    return true;
}

void InstanceDataCollection::handTokens(TextureManager* manager) const
{
    if (!_textureTokens.isEmpty() && (manager = manager ? manager : TextureManager::Instance()))
        manager->bind(_textureTokens);
}

void InstanceDataCollection::takeTokensBack(TextureManager* manager) const
{
    if (!_textureTokens.isEmpty() && (manager = manager ? manager : TextureManager::Instance()))
        manager->unbind(_textureTokens);
}

bool InstanceDataCollection::bind(TextureManager* manager)
{
    return bind(nullptr, manager);
}

bool InstanceDataCollection::bind()
{
    return bind(nullptr, nullptr);
}

bool InstanceDataCollection::unbind()
{
    return unbind(nullptr, nullptr);
}

size_t InstanceDataCollection::memoryEstimateCPU() const
{
    size_t bytes = sizeof(*this) + size_t(_data.size()) + size_t(_textureTokens.size()) * sizeof(TextureToken) +
                   _dirtyMarks.size() / 8 + _dirtyRecords.capacity() * sizeof(int);
    if (!_uniformBufferObject.isNull())
        bytes += _uniformBufferObject->memoryEstimateCPU();
    return bytes;
}

size_t InstanceDataCollection::memoryEstimateGPU() const
{
    return _uniformBufferObject.isNull() ? 0 : _allocatedBytes;
}

} // namespace Tavren::Vyx
