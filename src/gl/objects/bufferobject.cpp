#include "gl/objects/bufferobject.h"

#include "core/logging.h"
#include "gl/glloader.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/internal/glcapabilities.h"

#include <QSet>

namespace Tavren::Vyx {

namespace {

int aliveBuffers = 0;
int aliveManagedBuffers = 0;

// Entry points the driver may lack (null then), from the current context's table.
PFNVYXGLBUFFERSTORAGEPROC bufferStorage()
{
    return glCapabilityFunction<PFNVYXGLBUFFERSTORAGEPROC>(GLCapability::BufferStorage);
}
PFNVYXGLNAMEDBUFFERDATAPROC namedBufferData()
{
    return glCapabilityFunction<PFNVYXGLNAMEDBUFFERDATAPROC>(GLCapability::NamedBufferData);
}
PFNVYXGLNAMEDBUFFERSTORAGEPROC namedBufferStorage()
{
    return glCapabilityFunction<PFNVYXGLNAMEDBUFFERSTORAGEPROC>(GLCapability::NamedBufferStorage);
}
PFNVYXGLNAMEDBUFFERSUBDATAPROC namedBufferSubData()
{
    return glCapabilityFunction<PFNVYXGLNAMEDBUFFERSUBDATAPROC>(GLCapability::NamedBufferSubData);
}
// Direct state access only works on names whose object exists, which glGenBuffers does not
// give until the first bind; glCreateBuffers does.
PFNVYXGLCREATEBUFFERSPROC createBuffers()
{
    return glCapabilityFunction<PFNVYXGLCREATEBUFFERSPROC>(GLCapability::CreateBuffers);
}

QSet<unsigned int>& indexedBufferObjectTargets()
{
    static QSet<unsigned int> targets;
    return targets;
}

} // namespace

BufferObject::BufferObject(unsigned int bo, QObject* parent)
    : QObject(parent)
    , _bo(bo)
{
    ++aliveBuffers;
}

BufferObject::BufferObject(QObject* parent)
    : QObject(parent)
    , _managed(true)
{
    create();
    ++aliveBuffers;
    ++aliveManagedBuffers;
}

BufferObject::~BufferObject()
{
    if (_managed) {
        destroy();
        --aliveManagedBuffers;
    }
    --aliveBuffers;
}

int BufferObject::NumAlive()
{
    return aliveBuffers;
}

int BufferObject::NumAliveManaged()
{
    return aliveManagedBuffers;
}

bool BufferObject::create()
{
    VYX_CHECK_RETURN(0u == this->_bo, false, "Buffer Object is not NULL on create");
    VYX_CHECK_RETURN(0u == this->_boBountTarget, false, "Buffer Object is already bound on create to target %d",
                     _boBountTarget);
    if (namedBufferData() && createBuffers())
        createBuffers()(1, &_bo);
    else
        glGenBuffers(1, &_bo);
    return true;
}

bool BufferObject::destroy()
{
    // A bound buffer keeps its name (and leaks it) rather than vanish under its binding.
    VYX_CHECK_RETURN(0u == this->_boBountTarget, false,
                     "Buffer Object is already bound on destroy to target %d", _boBountTarget);
    if (_bo != 0)
        glDeleteBuffers(1, &_bo);
    _bo = 0;
    return true;
}

void BufferObject::initializeIndexedBufferObjecttargets()
{
    QSet<unsigned int>& targets = indexedBufferObjectTargets();
    if (targets.isEmpty())
        targets.insert(GL_ATOMIC_COUNTER_BUFFER);
}

void BufferObject::setTarget(unsigned int target)
{
    initializeIndexedBufferObjecttargets();
    if (indexedBufferObjectTargets().contains(target))
        VYX_CRITICAL("Cannot use setTarget() for indexed buffer object such as GL_UNIFORM_BUFFER. Use "
                     "setIndexedTarget() instead.");
    _target = target;
    _useBindBufferRange = false;
}

void BufferObject::setIndexedTarget(unsigned int target, unsigned int index, std::ptrdiff_t offset,
                                    std::ptrdiff_t size)
{
    initializeIndexedBufferObjecttargets();
    if (!indexedBufferObjectTargets().contains(target))
        VYX_CRITICAL("Cannot use setIndexedTarget() for non-indexed buffer object such as GL_ARRAY_BUFFER. Use "
                     "setTarget() instead.");
    _target = target;
    _bindIndex = index;
    _bindOffset = offset;
    _bindSize = size;
    _useBindBufferRange = true;
}

bool BufferObject::checkBindable() const
{
    VYX_CHECK_RETURN(0u != this->_bo, false, "Buffer Object is NULL on bind");
    VYX_CHECK_RETURN(0u == this->_boBountTarget, false, "Buffer Object is already bound on bind to target %d",
                     _boBountTarget);
    VYX_CHECK_RETURN(0u != this->_target, false, "Buffer Object's target is not set when bind() is called");
    return true;
}

bool BufferObject::bind()
{
    if (!checkBindable())
        return false;
    if (_useBindBufferRange)
        glBindBufferRange(_target, _bindIndex, _bo, _bindOffset, _bindSize);
    else
        glBindBuffer(_target, _bo);
    _boBountTarget = _target;
    return true;
}

bool BufferObject::unbind()
{
    VYX_CHECK_RETURN(0u != this->_bo, false, "Buffer Object is NULL on unbind");
    VYX_CHECK_RETURN(0u != this->_boBountTarget, false, "Buffer Object is not bound on unbind");
    // Indexed buffers release binding point 0, whatever index they were bound on.
    if (_useBindBufferRange)
        glBindBufferRange(_target, 0, 0, 0, 0);
    else
        glBindBuffer(_target, 0);
    _boBountTarget = 0;
    return true;
}

bool BufferObject::rebind(BufferObject* bufferObjectBound, bool force)
{
    if (!bufferObjectBound)
        return bind();
    if (bufferObjectBound == this && !force)
        return true;
    if (bufferObjectBound != this) {
        if (!checkBindable())
            return false;
        VYX_CHECK_RETURN(0u != bufferObjectBound->_boBountTarget, false,
                         "Bound Buffer Object is not already bound to target %d", bufferObjectBound->_boBountTarget);
        VYX_CHECK_RETURN(_target == bufferObjectBound->_boBountTarget, false,
                         "Bound Buffer Object target %d is not the same target %d", _target,
                         bufferObjectBound->_boBountTarget);
        VYX_CHECK_RETURN(_useBindBufferRange == bufferObjectBound->_useBindBufferRange, false,
                         "Bound BO useRange does not match the rebind Buffer Object");
    }
    const unsigned int boundName = bufferObjectBound->_bo;
    bufferObjectBound->_boBountTarget = 0;
    if (_useBindBufferRange)
        glBindBufferRange(_target, _bindIndex, _bo, _bindOffset, _bindSize);
    else if (boundName != _bo || force)
        glBindBuffer(_target, _bo);
    _boBountTarget = _target;
    return true;
}

bool BufferObject::isBindNeededForUpload() const
{
    if (_storageBuffer)
        return false;
    return !namedBufferData() || _useBindBufferRange || _valueCount == 0;
}

bool BufferObject::uploadBytes(const void* data, int valueCount, size_t valueSize, unsigned int usage)
{
    const auto bytes = static_cast<GLsizeiptr>(static_cast<size_t>(valueCount) * valueSize);
    if (0u == _boBountTarget && namedBufferData()) {
        namedBufferData()(_bo, bytes, data, usage);
    } else {
        VYX_CHECK_RETURN(0u != this->_boBountTarget, false, "Buffer Object is not bound on upload");
        glBufferData(_boBountTarget, bytes, data, usage);
    }
    _valueCount = valueCount;
    _valueSize = valueSize;
    return true;
}

bool BufferObject::checkUploadable(int valueCount) const
{
    VYX_CHECK_RETURN(0u != this->_bo, false, "Buffer Object is NULL on upload");
    VYX_CHECK_RETURN(0 != valueCount, false, "Buffer Object needs more and 0 values during upload");
    VYX_CHECK_RETURN(0 < valueCount, false, "Buffer Object got a negative value count %d during upload", valueCount);
    return true;
}

bool BufferObject::upload(const float* values, int valueCount, unsigned int usage)
{
    if (!checkUploadable(valueCount))
        return false;
    return uploadBytes(values, valueCount, sizeof(float), usage);
}

bool BufferObject::upload(const QVector<float>& values, unsigned int usage)
{
    return upload(values.constData(), values.size(), usage);
}

bool BufferObject::uploadGLuintData(const unsigned int* values, int valueCount, unsigned int usage)
{
    if (!checkUploadable(valueCount))
        return false;
    return uploadBytes(values, valueCount, sizeof(unsigned int), usage);
}

bool BufferObject::uploadGLushortData(const unsigned short* values, int valueCount, unsigned int usage)
{
    if (!checkUploadable(valueCount))
        return false;
    return uploadBytes(values, valueCount, sizeof(unsigned short), usage);
}

bool BufferObject::uploadArbitraryData(const void* values, int valueCount, unsigned int usage, size_t valueSize)
{
    if (!checkUploadable(valueCount))
        return false;
    VYX_CHECK_RETURN(0 != valueSize, false, "Buffer Object needs more and 0 value size during upload");
    if (!_storageBuffer)
        return uploadBytes(values, valueCount, valueSize, usage);
    // Immutable storage: replace the contents, no bind needed.
    namedBufferSubData()(_bo, 0, static_cast<GLsizeiptr>(static_cast<size_t>(valueCount) * valueSize), values);
    _valueCount = valueCount;
    _valueSize = valueSize;
    return true;
}

bool BufferObject::subUpload(const float* values, int valueCount, int offset)
{
    VYX_CHECK_RETURN(0u != this->_bo, false, "Buffer Object is NULL on upload");
    VYX_CHECK_RETURN(0 != valueCount, false, "Buffer Object needs more and 0 values during upload");
    VYX_CHECK_RETURN(0u != this->_boBountTarget, false, "Buffer Object is not bound on upload");
    VYX_CHECK_RETURN(0 <= offset && 0 < valueCount, false,
                     "Buffer Object got offset %d and value count %d during upload", offset, valueCount);
    VYX_CHECK_RETURN(offset + valueCount <= _valueCount, false, "Buffer Object is not large enough to hold data");
    glBufferSubData(_boBountTarget, static_cast<GLintptr>(offset) * 4, static_cast<GLsizeiptr>(valueCount) * 4,
                    values);
    return true;
}

bool BufferObject::subUpload(const QVector<float>& values, int offset)
{
    return subUpload(values.constData(), values.size(), offset);
}

void* BufferObject::map(unsigned int access)
{
    VYX_CHECK_RETURN(0u != this->_bo, nullptr, "Buffer Object is NULL on map");
    VYX_CHECK_RETURN(0u != this->_boBountTarget, nullptr, "Buffer Object is not bound on map");
    VYX_CHECK_RETURN(0u != this->_target, nullptr, "Buffer Object's Target is not set when map() is called");
    return glMapBuffer(_target, access);
}

void BufferObject::unmap()
{
    VYX_CHECK_CONTINUE(0u != this->_bo, "Buffer Object is NULL on map");
    VYX_CHECK_CONTINUE(0u != this->_boBountTarget, "Buffer Object is not bound on unmap");
    VYX_CHECK_CONTINUE(0u != this->_target, "Buffer Object's target is not set when unmap() is called");
    glUnmapBuffer(_target);
}

void BufferObject::useStorageBuffer(int size, int flags)
{
    if (!namedBufferStorage() && !bufferStorage())
        return;
    if (!namedBufferSubData())
        return;
    VYX_CHECK_CONTINUE(0u != this->_bo, "Buffer Object is NULL during StorageBuffer setup");
    // Storage buffers hold uniform data, so the fixed target is GL_UNIFORM_BUFFER.
    if (bufferStorage()) {
        glBindBuffer(GL_UNIFORM_BUFFER, _bo);
        bufferStorage()(GL_UNIFORM_BUFFER, size, nullptr, static_cast<GLbitfield>(flags));
        glBindBuffer(GL_UNIFORM_BUFFER, 0);
    } else {
        namedBufferStorage()(_bo, size, nullptr, static_cast<GLbitfield>(flags));
    }
    _storageBuffer = true;
}

size_t BufferObject::memoryEstimateCPU() const
{
    return 88;
}

size_t BufferObject::memoryEstimateGPU() const
{
    if (_bo == 0)
        return 0;
    return static_cast<size_t>(_valueCount) * _valueSize;
}

} // namespace Tavren::Vyx
