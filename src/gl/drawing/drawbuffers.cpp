#include "gl/drawing/drawbuffers.h"

#include "core/logging.h"
#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/objects/bufferobject.h"
#include "gl/objects/uniformbufferobject.h"
#include "gl/objects/vertexarrayobject.h"
#include "gl/platform/glcontexttracker.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/internal/glcapabilities.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "gl/shaders/shaderprogram.h"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace Tavren::Vyx {

namespace {

constexpr int kCommandBlockSize = 100;        // records in the GLSL block
constexpr int kCommandStd140Stride = 32;      // bytes per record in the block
const char* const kCommandBlockName = "u_DrawElementsIndirectCommandsUniform";

// Process-wide, touched on the GL thread only.
quint64 totalDrawCalls = 0;
quint64 totalDrawBatches = 0;
quint64 totalDrawIndices = 0;
int numAlive = 0;
bool baseInstanceDrawing = false;

const void* byteOffset(quint64 offset)
{
    return reinterpret_cast<const void*>(static_cast<std::uintptr_t>(offset));
}

} // namespace

DrawBuffers::DrawBuffers(QObject* parent)
    : QObject(parent)
{
    ++numAlive;
}

DrawBuffers::~DrawBuffers()
{
    --numAlive;
}

void DrawBuffers::setup(GLSLMacroProcessor* mp)
{
    if (mp && baseInstanceDrawing)
        mp->addDefine("DRAW_BUFFER_USE_BASE_INSTANCE", "1");
}

bool DrawBuffers::isBaseInstanceDrawingSupported()
{
    return hasGLCapability(GLCapability::DrawArraysInstancedBaseInstance) &&
           hasGLCapability(GLCapability::DrawElementsInstancedBaseVertexBaseInstance) &&
           hasGLCapability(GLCapability::ShaderDrawParameters);
}

void DrawBuffers::useBaseInstanceDrawing(bool use)
{
    baseInstanceDrawing = use;
}

bool DrawBuffers::isBaseInstanceDrawing()
{
    return baseInstanceDrawing;
}

bool DrawBuffers::isMultiDrawIndirectSupported()
{
    return glMultiDrawElementsIndirect && hasGLCapability(GLCapability::MultiDrawElementsIndirect);
}

quint64 DrawBuffers::getAndResetTotalDrawCalls()
{
    return std::exchange(totalDrawCalls, 0);
}

quint64 DrawBuffers::getAndResetTotalDrawBatches()
{
    return std::exchange(totalDrawBatches, 0);
}

quint64 DrawBuffers::getAndResetTotalDrawIndices()
{
    return std::exchange(totalDrawIndices, 0);
}

int DrawBuffers::NumAlive()
{
    return numAlive;
}

// ---------------------------------------------------------------------------------------------
// Configuration

void DrawBuffers::setPrimitiveType(unsigned int primitiveType)
{
    VYX_CHECK_CONTINUE(GL_QUADS != primitiveType, "GL_QUADS is not allowed");
    _primitiveType = primitiveType;
}

void DrawBuffers::setVAO(QSharedPointer<VertexArrayObject> vao)
{
    VYX_CHECK_CONTINUE(true == this->_vao.isNull(), "Vertex Array Object is already set");
    _vao = vao;
}

void DrawBuffers::setIndexedDraw(QSharedPointer<BufferObject> indexBO, int count, unsigned int type)
{
    _boIndex = indexBO;
    _indexCount = count;
    _indexType = type;
}

void DrawBuffers::setDrawElementsIndirectCommands(const DrawElementsIndirectCommand* commands, int count)
{
    if (!VYX_CHECK(count <= 0 || commands != nullptr, "No commands given for a list of %d", count))
        count = 0;
    count = qMax(count, 0);
    _commandsCount = count;
    _commands.resize(count);
    if (count > 0)
        std::copy(commands, commands + count, _commands.begin());

    // The format table has no entry for byte indices.
    const int indexBytes = GL_UNSIGNED_BYTE == _indexType ? 1 : bytesFromInternalFormat(_indexType);
    const quint64 bytesPerIndex = static_cast<quint64>(qMax(indexBytes, 0));
    _commandCounts.resize(count);
    _commandOffsets.resize(count);
    _commandBaseVertices.resize(count);
    for (int i = 0; i < count; ++i) {
        _commandCounts[i] = static_cast<int>(_commands[i].count);
        _commandOffsets[i] = _commands[i].firstIndex * bytesPerIndex;
        _commandBaseVertices[i] = static_cast<int>(_commands[i].baseVertex);
    }
    _useMultiDrawIndirect = false;
}

bool DrawBuffers::setMultiDrawIndirect(bool enable)
{
    if (!enable) {
        _useMultiDrawIndirect = false;
        return true;
    }
    VYX_CHECK_RETURN(0 != this->_commandsCount, false, "DrawElementsIndirectCommandsCount is not set on draw");
    VYX_CHECK_RETURN(isMultiDrawIndirectSupported(), false, "glMultiDrawElementsIndirect is not supported");
    if (_boIndirect.isNull()) {
        const QSharedPointer<OpenGLDeviceContext> device = OpenGLDeviceContext::current();
        VYX_CHECK_RETURN(!device.isNull(), false, "No OpenGLDeviceContext to create the indirect buffer");
        _boIndirect = device->newBuffer();
        _boIndirect->setTarget(GL_DRAW_INDIRECT_BUFFER);
    }
    if (!_boIndirect->bind())
        return false;
    const bool uploaded = _boIndirect->uploadArbitraryData(_commands.constData(), _commandsCount, GL_STATIC_DRAW,
                                                           sizeof(DrawElementsIndirectCommand));
    _boIndirect->unbind();
    _useMultiDrawIndirect = uploaded;
    return uploaded;
}

void DrawBuffers::clear()
{
    _vao.clear();
    _boIndex.clear();
}

size_t DrawBuffers::memoryEstimateCPU() const
{
    size_t bytes = 176;
    if (_vao)
        bytes += _vao->memoryEstimateCPU();
    if (_boIndex)
        bytes += _boIndex->memoryEstimateCPU();
    if (_boIndirect)
        bytes += _boIndirect->memoryEstimateCPU();
    bytes += 4 * (5 * size_t(_commands.size()) + 2 * size_t(_commandOffsets.size()) + size_t(_commandCounts.size()));
    return bytes;
}

size_t DrawBuffers::memoryEstimateGPU() const
{
    size_t bytes = 0;
    if (_vao)
        bytes += _vao->memoryEstimateGPU();
    if (_boIndex)
        bytes += _boIndex->memoryEstimateGPU();
    if (_boIndirect)
        bytes += _boIndirect->memoryEstimateGPU();
    return bytes;
}

QSharedPointer<UniformBufferObject> DrawBuffers::getDrawElementsIndirectCommandsUniformBufferObject()
{
    if (!_commandsUniform.isNull())
        return _commandsUniform;
    const QSharedPointer<OpenGLDeviceContext> device = OpenGLDeviceContext::current();
    if (device.isNull() || !GLContextTracker::currentContext())
        return {};

    if (_commandsCount > kCommandBlockSize)
        VYX_WARNING("Shaders see only the first %d of %d draw commands", kCommandBlockSize, _commandsCount);
    // Never smaller than the GLSL block, so shaders do not read past the buffer.
    const int records = qMax(_commandsCount, kCommandBlockSize);
    constexpr int wordsPerRecord = kCommandStd140Stride / 4;
    QVector<quint32> packed(records * wordsPerRecord, 0u);
    for (int i = 0; i < _commandsCount; ++i) {
        const DrawElementsIndirectCommand& c = _commands[i];
        quint32* record = packed.data() + i * wordsPerRecord;
        record[0] = c.count;
        record[1] = c.instanceCount;
        record[2] = c.firstIndex;
        record[3] = c.baseVertex;
        record[4] = c.baseInstance;
    }

    QSharedPointer<BufferObject> buffer = device->newBuffer();
    buffer->setTarget(GL_UNIFORM_BUFFER);
    if (!buffer->bind())
        return {};
    const bool uploaded = buffer->uploadArbitraryData(packed.constData(), records, GL_STATIC_DRAW, kCommandStd140Stride);
    buffer->unbind();
    if (!uploaded)
        return {};
    _commandsUniform = device->newUniformBuffer(kCommandBlockName, buffer);
    return _commandsUniform;
}

// ---------------------------------------------------------------------------------------------
// Binding

bool DrawBuffers::bind()
{
    VYX_CHECK_RETURN(!this->_vao.isNull(), false, "Vertex Array Object is NULL on bind");
    if (!_vao->bind())
        return false;
    if (_boIndex && !_boIndex->bind()) {
        _vao->unbind();
        return false;
    }
    return true;
}

bool DrawBuffers::unbind()
{
    if (_boIndex)
        _boIndex->unbind();
    if (_vao)
        _vao->unbind();
    return true;
}

bool DrawBuffers::rebind(DrawBuffers* drawBuffersBound)
{
    VYX_CHECK_RETURN(!this->_vao.isNull(), false, "Vertex Array Object is NULL on rebind");
    if (!drawBuffersBound)
        return bind();
    VYX_CHECK_RETURN(!drawBuffersBound->_vao.isNull(), false, "Vertex Array Object is NULL on rebind");
    bool boundNow = false;
    if (!_vao->rebind(drawBuffersBound->_vao.data(), boundNow))
        return false;
    // The element array binding belongs to the vertex array: after switching arrays the index
    // buffer must be bound again even when it is the same buffer.
    if (_boIndex)
        return _boIndex->rebind(drawBuffersBound->_boIndex.data(), _vao != drawBuffersBound->_vao);
    if (drawBuffersBound->_boIndex)
        return drawBuffersBound->_boIndex->unbind();
    return true;
}

// ---------------------------------------------------------------------------------------------
// Drawing

bool DrawBuffers::draw()
{
    return draw(nullptr, nullptr);
}

bool DrawBuffers::draw(ShaderProgram* program)
{
    return draw(program, nullptr);
}

bool DrawBuffers::checkDrawable() const
{
    // The vertex array reports itself when it has no GL name; a missing array is not bound either.
    return VYX_CHECK_AS(!_vao.isNull() && _vao->isBound(), "true == this->_vao->isBound()",
                        "Vertex Array Object is not bound on draw") &&
           VYX_CHECK(GLenum(-1) != this->_primitiveType, "Primitive type is not setup on draw");
}

bool DrawBuffers::draw(ShaderProgram* program, const QVector<int>* commandSubset)
{
    if (!checkDrawable())
        return false;
    if (_useMultiDrawIndirect)
        return drawMultiIndirect();
    if (!baseInstanceDrawing)
        return drawUniformFallback(program, commandSubset);
    return drawBaseInstance();
}

bool DrawBuffers::checkIndexed() const
{
    VYX_CHECK_RETURN(0 != this->_indexType, false, "Index type is not setup on draw");
    VYX_CHECK_RETURN(0 != this->_indexCount, false, "Index count is not setup on draw");
    return true;
}

bool DrawBuffers::drawMultiIndirect()
{
    VYX_CHECK_RETURN(0 != this->_commandsCount, false, "DrawElementsIndirectCommandsCount is not set on draw");
    VYX_CHECK_RETURN(0 != this->_indexType, false, "Index type is not setup on draw");
    VYX_CHECK_RETURN(false == this->_boIndex.isNull(), false, "Index buffer object is not set on draw");
    {
        AutoBinder indirect(_boIndirect.data());
        glMultiDrawElementsIndirect(_primitiveType, _indexType, nullptr, _commandsCount,
                                    sizeof(DrawElementsIndirectCommand));
    }
    quint64 indices = 0;
    for (int count : qAsConst(_commandCounts))
        indices += static_cast<quint32>(count);
    totalDrawCalls += 1;
    totalDrawBatches += static_cast<quint64>(_commandsCount);
    totalDrawIndices += indices;
    return true;
}

bool DrawBuffers::drawBaseInstance()
{
    if (_commandsCount != 0) {
        // Command lists go through multi-draw indirect or the per-draw uniform path.
        VYX_DEBUG("##### COMMAND COUNT");
        return false;
    }
    if (_boIndex) {
        if (!checkIndexed())
            return false;
        const auto drawElementsBaseInstance =
            glCapabilityFunction<PFNVYXGLDRAWELEMENTSINSTANCEDBASEVERTEXBASEINSTANCEPROC>(
                GLCapability::DrawElementsInstancedBaseVertexBaseInstance);
        VYX_CHECK_RETURN(drawElementsBaseInstance, false,
                         "glDrawElementsInstancedBaseVertexBaseInstance is not available");
        drawElementsBaseInstance(_primitiveType, _indexCount, _indexType, byteOffset(_indexBufferOffset),
                                 _instanceCount, _baseVertex, static_cast<GLuint>(_drawIDBase));
        totalDrawCalls += 1;
        totalDrawBatches += 1;
        totalDrawIndices += static_cast<quint64>(_indexCount);
        return true;
    }
    VYX_CHECK_RETURN(0 != this->_vertexCount, false, "Index count is not setup on draw");
    const auto drawArraysBaseInstance = glCapabilityFunction<PFNVYXGLDRAWARRAYSINSTANCEDBASEINSTANCEPROC>(
        GLCapability::DrawArraysInstancedBaseInstance);
    VYX_CHECK_RETURN(drawArraysBaseInstance, false, "glDrawArraysInstancedBaseInstance is not available");
    drawArraysBaseInstance(_primitiveType, _baseVertex, _vertexCount, _instanceCount,
                           static_cast<GLuint>(_drawIDBase));
    totalDrawCalls += 1;
    totalDrawBatches += 1;
    return true;
}

bool DrawBuffers::drawUniformFallback(ShaderProgram* program, const QVector<int>* commandSubset)
{
    int location = -1;
    if (program) {
        location = program->getUniformLocationNameID();
    } else {
        GLint current = 0;
        glGetIntegerv(GL_CURRENT_PROGRAM, &current);
        if (current != 0)
            location = glGetUniformLocation(static_cast<GLuint>(current), "u_DrawID");
    }
    auto setDrawID = [program, location](int drawID) {
        if (location < 0)
            return;
        if (program)
            program->setUniform(location, static_cast<unsigned>(drawID));
        else
            glUniform1ui(location, static_cast<GLuint>(drawID));
    };

    if (_commandsCount == 0) {
        if (!_boIndex) {
            VYX_CHECK_RETURN(0 != this->_vertexCount, false, "Index count is not setup on draw");
            for (int i = 0; i < _instanceCount; ++i) {
                setDrawID(_drawIDBase + i);
                glDrawArrays(_primitiveType, 0, static_cast<GLsizei>(_vertexCount));
                totalDrawCalls += 1;
                totalDrawBatches += 1;
            }
            return true;
        }
        if (!checkIndexed())
            return false;
        const void* offset = byteOffset(_indexBufferOffset);
        for (int i = 0; i < _instanceCount; ++i) {
            setDrawID(_drawIDBase + i);
            if (_baseVertex != 0)
                glDrawElementsBaseVertex(_primitiveType, _indexCount, _indexType, offset, _baseVertex);
            else
                glDrawElements(_primitiveType, _indexCount, _indexType, offset);
            totalDrawCalls += 1;
            totalDrawBatches += 1;
            totalDrawIndices += static_cast<quint64>(_indexCount);
        }
        return true;
    }

    const int n = commandSubset ? commandSubset->size() : _commandsCount;
    if (commandSubset) {
        for (int c : *commandSubset) {
            VYX_CHECK_RETURN(c >= 0 && c < _commandsCount, false,
                             "Draw command %d is not in the list of %d", c, _commandsCount);
        }
    }
    for (int k = 0; k < n; ++k) {
        const int c = commandSubset ? commandSubset->at(k) : k;
        setDrawID(_drawIDBase + c);
        glDrawElementsBaseVertex(_primitiveType, _commandCounts[c], _indexType, byteOffset(_commandOffsets[c]),
                                 _commandBaseVertices[c]);
        totalDrawIndices += static_cast<quint32>(_commandCounts[c]);
    }
    // Counted by the whole list, whatever subset was drawn.
    totalDrawCalls += static_cast<quint64>(_commandsCount);
    totalDrawBatches += static_cast<quint64>(_commandsCount);
    return true;
}

bool DrawBuffers::drawInstanced(int instances)
{
    if (!checkDrawable())
        return false;
    if (_boIndex) {
        if (!checkIndexed())
            return false;
        glDrawElementsInstanced(_primitiveType, _indexCount, _indexType, nullptr, instances);
        return true;
    }
    VYX_CHECK_RETURN(0 != this->_vertexCount, false, "Index count is not setup on draw");
    glDrawArraysInstanced(_primitiveType, 0, static_cast<GLsizei>(_vertexCount), instances);
    return true;
}

} // namespace Tavren::Vyx
