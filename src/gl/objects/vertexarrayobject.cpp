#include "gl/objects/vertexarrayobject.h"

#include "core/logging.h"
#include "gl/glloader.h"
#include "gl/objects/bufferobject.h"
#include "gl/platform/glcontexttracker.h"
#include "gl/shaders/shaderprogram.h"

#include <cstdint>

namespace Tavren::Vyx {

namespace {

int aliveVertexArrays = 0;

bool isIntegerType(unsigned int type)
{
    return type >= GL_BYTE && type <= GL_UNSIGNED_INT;
}

const void* offsetPointer(unsigned int offset)
{
    return reinterpret_cast<const void*>(static_cast<std::uintptr_t>(offset));
}

// Data must come in whole vertices.
bool checkWholeVertices(int valueCount, int valuesPerVertex)
{
    VYX_CHECK_RETURN(0 < valuesPerVertex, false, "Values per vertex must be positive (%d)", valuesPerVertex);
    VYX_CHECK_RETURN(0 == (valueCount % valuesPerVertex), false,
                     "Data size (%d) must be a multi of the values per vertex (%d)", valueCount, valuesPerVertex);
    return true;
}

} // namespace

VertexArrayObject::VertexArrayObject(QObject* parent)
    : QObject(parent)
{
    GLint maxAttributes = 0;
    glGetIntegerv(GL_MAX_VERTEX_ATTRIBS, &maxAttributes);
    _attributeLocationNames.resize(qMax(0, int(maxAttributes)));
    ++aliveVertexArrays;
}

VertexArrayObject::~VertexArrayObject()
{
    VYX_CHECK_CONTINUE(false == this->_vaoBound, "Vertex Array Object is bound during class destructor");
    VYX_CHECK_CONTINUE(0u == this->_vao, "Vertex Array Object needs to be destroied before class destructor");
    destroy();
    --aliveVertexArrays;
}

int VertexArrayObject::NumAlive()
{
    return aliveVertexArrays;
}

bool VertexArrayObject::isTypeSupported(unsigned int type)
{
    switch (type) {
    case GL_UNSIGNED_BYTE:
    case GL_UNSIGNED_SHORT:
    case GL_UNSIGNED_INT:
    case GL_FLOAT:
    case GL_HALF_FLOAT:
        return true;
    default:
        return false;
    }
}

bool VertexArrayObject::create()
{
    VYX_CHECK_RETURN(0u == this->_vao, false, "Vertex Array Object is not NULL on create");
    VYX_CHECK_RETURN(false == this->_vaoBound, false, "Vertex Array Object is already bound on create");
    glGenVertexArrays(1, &_vao);
    if (!_contextTracker)
        _contextTracker = new GLContextTracker(this);
    _contextTracker->trackCurrentContext();
    return true;
}

bool VertexArrayObject::destroy()
{
    VYX_CHECK_RETURN(false == this->_vaoBound, false, "Vertex Array Object is already bound on destroy");
    // Vertex arrays are not shared: in another context the name means another object (or none),
    // so it is left to its own context rather than deleted there.
    if (_vao != 0 && (!_contextTracker || _contextTracker->check()))
        glDeleteVertexArrays(1, &_vao);
    _vao = 0;
    return true;
}

bool VertexArrayObject::bind()
{
    if (0u == _vao && !create())
        return false;
    VYX_CHECK_RETURN(0u != this->_vao, false, "Vertex Array Object is NULL on bind");
    VYX_CHECK_RETURN(false == this->_vaoBound, false, "Vertex Array Object is already bound on bind");
    glBindVertexArray(_vao);
    _vaoBound = true;
    return true;
}

bool VertexArrayObject::unbind()
{
    VYX_CHECK_RETURN(0u != this->_vao, false, "Vertex Array Object is NULL on unbind");
    VYX_CHECK_RETURN(true == this->_vaoBound, false, "Vertex Array Object is not bound on unbind");
    glBindVertexArray(0);
    _vaoBound = false;
    return true;
}

bool VertexArrayObject::rebind(VertexArrayObject* vertexArrayObjectBound, bool& boundNow)
{
    boundNow = false;
    if (vertexArrayObjectBound == this)
        return true;
    if (!vertexArrayObjectBound) {
        boundNow = true;
        return bind();
    }
    if (0u == _vao && !create())
        return false;
    VYX_CHECK_RETURN(0u != this->_vao, false, "Vertex Array Object is NULL on rebind");
    VYX_CHECK_RETURN(false == this->_vaoBound, false, "Vertex Array Object is already bound on rebind");
    VYX_CHECK_RETURN(true == vertexArrayObjectBound->_vaoBound, false,
                     "Vertex Array Object is not already bound on rebind");
    VYX_CHECK_RETURN(0u != vertexArrayObjectBound->_vao, false, "Vertex Array Object bound is NULL on rebind");
    // Binding the new name replaces the old one; no unbind in between.
    glBindVertexArray(_vao);
    vertexArrayObjectBound->_vaoBound = false;
    _vaoBound = true;
    boundNow = true;
    return true;
}

bool VertexArrayObject::isBound() const
{
    VYX_CHECK_RETURN(0u != this->_vao, false, "Vertex Array Object is NULL on isBound");
    return _vaoBound;
}

void VertexArrayObject::registerBO(const QString& name, QSharedPointer<BufferObject> bo, int valuesPerVertex,
                                   unsigned int type)
{
    registerBO(name, std::move(bo), valuesPerVertex, type, false, 0, 0);
}

void VertexArrayObject::registerBO(const QString& name, QSharedPointer<BufferObject> bo, int valuesPerVertex,
                                   unsigned int type, bool normalised, unsigned int stride, unsigned int offset)
{
    VYX_CHECK_CONTINUE(true == isTypeSupported(type), "Unsupported type 0x%X", type);
    AttributeData& record = _attributesData[name];
    record._valuesPerVertex = valuesPerVertex;
    record._type = type;
    record._normalised = normalised;
    record._stride = stride;
    record._offset = offset;
    record._buffer = std::move(bo);
    dirtyAttributeName(name);
}

bool VertexArrayObject::upload(const QString& name, QSharedPointer<BufferObject> bufferObj, int valuesPerVertex,
                               unsigned int type)
{
    VYX_CHECK_RETURN(!bufferObj.isNull(), false, "Must Supply a valid BO pointer");
    registerBO(name, std::move(bufferObj), valuesPerVertex, type);
    return true;
}

bool VertexArrayObject::upload(const QString& name, QSharedPointer<BufferObject> bufferObj, const float* data,
                               int valueCount, int valuesPerVertex, unsigned int usage)
{
    VYX_CHECK_RETURN(NULL != bufferObj, false, "Must Supply a valid BO pointer");
    if (!checkWholeVertices(valueCount, valuesPerVertex))
        return false;
    if (!bufferObj->bind()) {
        VYX_CRITICAL("[ !! ] Failed to bind BO");
        return false;
    }
    const bool uploaded = bufferObj->upload(data, valueCount, usage);
    bufferObj->unbind();
    if (!uploaded)
        return false;
    registerBO(name, std::move(bufferObj), valuesPerVertex, GL_FLOAT);
    return true;
}

bool VertexArrayObject::upload(const QString& name, QSharedPointer<BufferObject> bufferObj,
                               const QVector<float>& data, int valuesPerVertex, unsigned int usage)
{
    return upload(name, std::move(bufferObj), data.constData(), data.size(), valuesPerVertex, usage);
}

bool VertexArrayObject::subUpload(const QString& attrName, const float* data, int valueCount, int valuesPerVertex,
                                  int offset)
{
    if (!checkWholeVertices(valueCount, valuesPerVertex))
        return false;
    VYX_CHECK_RETURN(_attributesData.contains(attrName), false, "Must Supply an existing BO attribute name");
    VYX_CHECK_RETURN(_attributesData[attrName]._valuesPerVertex == valuesPerVertex, false,
                     "Values per vertex must match (Current %d != New %d)",
                     _attributesData[attrName]._valuesPerVertex, valuesPerVertex);
    const QSharedPointer<BufferObject> buffer = _attributesData[attrName]._buffer;
    if (buffer.isNull() || !buffer->bind()) {
        VYX_CRITICAL("[ !! ] Failed to bind BO");
        return false;
    }
    const bool uploaded = buffer->subUpload(data, valueCount, offset);
    buffer->unbind();
    return uploaded;
}

bool VertexArrayObject::subUpload(const QString& attrName, const QVector<float>& data, int valuesPerVertex,
                                  int offset)
{
    return subUpload(attrName, data.constData(), data.size(), valuesPerVertex, offset);
}

QSharedPointer<BufferObject> VertexArrayObject::bo(const QString& name) const
{
    return _attributesData.value(name)._buffer;
}

void* VertexArrayObject::mapBO(const QString& name)
{
    const QSharedPointer<BufferObject> buffer = bo(name);
    if (buffer.isNull())
        return nullptr;
    if (!buffer->bind()) {
        VYX_CRITICAL("[ !! ] Failed to bind BO");
        return nullptr;
    }
    return buffer->map(GL_READ_WRITE);
}

void VertexArrayObject::unmapBO(const QString& name)
{
    const QSharedPointer<BufferObject> buffer = bo(name);
    if (buffer.isNull())
        return;
    buffer->unmap();
    buffer->unbind();
}

bool VertexArrayObject::enableShaderProgramArrays(const ShaderProgram* program)
{
    if (!program)
        return true;
    const QHash<QString, int>& locations = program->getVertexAttributeNameLocationMap();
    for (auto it = locations.constBegin(); it != locations.constEnd(); ++it) {
        if (!enableArray(it.key(), it.value()))
            return false;
    }
    return true;
}

bool VertexArrayObject::enableArray(const QString& name, int attributeIndex)
{
    VYX_CHECK_RETURN(0 <= attributeIndex, false, "Attribute Index is NULL on enable array");
    VYX_CHECK_RETURN(attributeIndex < _attributeLocationNames.size(), false,
                     "Attribute Index %d is beyond GL_MAX_VERTEX_ATTRIBS (%d)",
                     attributeIndex, int(_attributeLocationNames.size()));
    VYX_CHECK_RETURN(0u != this->_vao, false, "Vertex Array Object is NULL on enable array");
    VYX_CHECK_RETURN(true == this->_vaoBound, false, "Vertex Array Object is not bound on enable array");

    QString& cached = _attributeLocationNames[attributeIndex];
    if (!cached.isEmpty() && cached == name)
        return true;

    const auto record = _attributesData.constFind(name);
    const GLuint index = GLuint(attributeIndex);
    if (record == _attributesData.constEnd()) {
        // The program reads an input this mesh lacks: it gets the generic attribute value.
        cached.clear();
        GLint enabled = GL_FALSE;
        glGetVertexAttribiv(index, GL_VERTEX_ATTRIB_ARRAY_ENABLED, &enabled);
        if (enabled)
            glDisableVertexAttribArray(index);
        return true;
    }

    const QSharedPointer<BufferObject>& buffer = record->_buffer;
    if (buffer.isNull() || !buffer->bind()) {
        VYX_CRITICAL("[ !! ] Failed to bind BO");
        return false;
    }
    cached = name;
    glEnableVertexAttribArray(index);
    if (isIntegerType(record->_type) && !record->_normalised)
        glVertexAttribIPointer(index, record->_valuesPerVertex, record->_type, GLsizei(record->_stride),
                               offsetPointer(record->_offset));
    else
        glVertexAttribPointer(index, record->_valuesPerVertex, record->_type, record->_normalised ? GL_TRUE : GL_FALSE,
                              GLsizei(record->_stride), offsetPointer(record->_offset));
    buffer->unbind();
    return true;
}

void VertexArrayObject::dirtyAttributeName(const QString& name)
{
    for (QString& cached : _attributeLocationNames) {
        if (cached == name)
            cached.clear();
    }
}

size_t VertexArrayObject::memoryEstimateCPU() const
{
    size_t bytes = 56 + 48 * size_t(_attributesData.size());
    for (auto it = _attributesData.constBegin(); it != _attributesData.constEnd(); ++it) {
        bytes += size_t(it.key().size());
        if (!it->_buffer.isNull())
            bytes += it->_buffer->memoryEstimateCPU();
    }
    return bytes;
}

size_t VertexArrayObject::memoryEstimateGPU() const
{
    size_t bytes = 0;
    for (const AttributeData& record : _attributesData) {
        if (!record._buffer.isNull())
            bytes += record._buffer->memoryEstimateGPU();
    }
    return bytes;
}

} // namespace Tavren::Vyx
