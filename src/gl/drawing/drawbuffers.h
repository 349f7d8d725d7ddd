#pragma once

#include "core/vyxexport.h"
#include "gl/platform/bindable.h"

#include <QObject>
#include <QSharedPointer>
#include <QVector>

#include <cstddef>

namespace Tavren::Vyx {

class BufferObject;
class GLSLMacroProcessor;
class ShaderProgram;
class UniformBufferObject;
class VertexArrayObject;

// One indexed draw of a command list, laid out as GL reads it from an indirect buffer.
struct DrawElementsIndirectCommand
{
    quint32 count;
    quint32 instanceCount;
    quint32 firstIndex;
    quint32 baseVertex;
    quint32 baseInstance;
};
static_assert(sizeof(DrawElementsIndirectCommand) == 20, "indirect commands are read with a stride of 20");

// The geometry of one draw (or one list of draws) and the GL calls that issue it. Every draw
// hands the shader a draw ID, read in GLSL through getDrawID(): from gl_BaseInstanceARB +
// gl_InstanceID when base-instance drawing is on, else from the uniform u_DrawID.
//
//   DrawBuffers mesh;
//   mesh.setVAO(vao);
//   mesh.setPrimitiveType(GL_TRIANGLES);
//   mesh.setIndexedDraw(indices, indexCount, GL_UNSIGNED_INT);
//   AutoBinder bound(&mesh);
//   mesh.draw(program);
class VYXGL_EXPORT DrawBuffers : public QObject, public Bindable
{
    Q_OBJECT

public:
    explicit DrawBuffers(QObject* parent = nullptr);
    ~DrawBuffers() override;

    // Adds DRAW_BUFFER_USE_BASE_INSTANCE when base-instance drawing is on; run it before
    // building shaders that call getDrawID().
    static void setup(GLSLMacroProcessor* mp);
    static bool isBaseInstanceDrawingSupported();
    // Process-wide; check isBaseInstanceDrawingSupported() first.
    static void useBaseInstanceDrawing(bool use);
    static bool isBaseInstanceDrawing();
    static bool isMultiDrawIndirectSupported();

    static quint64 getAndResetTotalDrawCalls();
    static quint64 getAndResetTotalDrawBatches();
    static quint64 getAndResetTotalDrawIndices();
    static int NumAlive();

    // GL_QUADS is reported (and stored anyway): core profiles cannot draw it.
    void setPrimitiveType(unsigned int primitiveType);
    unsigned int primitiveType() const { return _primitiveType; }
    // Meant to be called once.
    void setVAO(QSharedPointer<VertexArrayObject> vao);
    void setIndexedDraw(QSharedPointer<BufferObject> indexBO, int count, unsigned int type);
    void setVertexCount(unsigned int count) { _vertexCount = count; }
    void setIndexBufferOffset(quint64 offset) { _indexBufferOffset = offset; }
    // For indexed draws the GL base vertex; for non-indexed base-instance draws the first vertex.
    void setBaseVertex(int baseVertex) { _baseVertex = baseVertex; }
    void setInstanceCount(int count) { _instanceCount = count; }
    // Added to every draw ID.
    void setDrawIDBase(int base) { _drawIDBase = base; }
    // Copies the list. Set the index type (setIndexedDraw) first: byte offsets are computed here.
    // Switches multi-draw indirect off.
    void setDrawElementsIndirectCommands(const DrawElementsIndirectCommand* commands, int count);
    // Uploads the stored command list into an indirect buffer and draws it from then on with one
    // glMultiDrawElementsIndirect; false (and unchanged) when the list is empty, the driver lacks
    // the call or no device context is installed. Off again with false.
    bool setMultiDrawIndirect(bool enable);
    bool isMultiDrawIndirect() const { return _useMultiDrawIndirect; }

    const QSharedPointer<VertexArrayObject>& VAO() const { return _vao; }
    const QSharedPointer<BufferObject>& indexBO() const { return _boIndex; }
    unsigned int numVerts() const { return _vertexCount; }
    int numIndexes() const { return _indexCount; }
    unsigned int indexType() const { return _indexType; }
    int numDrawCommands() const { return _commandsCount; }
    const QVector<DrawElementsIndirectCommand>& drawElementsIndirectCommands() const { return _commands; }

    // Releases the vertex array and the index buffer; counts, type and commands stay.
    void clear();

    size_t memoryEstimateCPU() const;
    size_t memoryEstimateGPU() const;

    // The command list packed for the GLSL block "u_DrawElementsIndirectCommandsUniform", made
    // on the first call and kept (later command lists do not refresh it). Null without a
    // device context or GL context.
    QSharedPointer<UniformBufferObject> getDrawElementsIndirectCommandsUniformBufferObject();

    // Binds the vertex array, then the index buffer if there is one.
    bool bind() override;
    bool unbind() override;
    // Takes over from the bound drawBuffersBound, skipping GL calls that would change nothing.
    bool rebind(DrawBuffers* drawBuffersBound);

    // Draws with the draw IDs the draw ID base, base + 1, ...; the caller binds first. program
    // only sets u_DrawID (the current GL program when null); commandSubset picks commands by
    // index, in order, and is honoured by the per-draw uniform path only.
    bool draw();
    bool draw(ShaderProgram* program);
    bool draw(ShaderProgram* program, const QVector<int>* commandSubset);
    // Plain instancing of the single draw from its start, without draw IDs or statistics.
    bool drawInstanced(int instances);

private:
    // The index type and count an indexed draw needs, each reported when missing.
    bool checkIndexed() const;
    // A bound vertex array and a primitive type, before any draw.
    bool checkDrawable() const;
    bool drawMultiIndirect();
    bool drawBaseInstance();
    bool drawUniformFallback(ShaderProgram* program, const QVector<int>* commandSubset);

    unsigned int _primitiveType = 0xFFFFFFFFu;
    unsigned int _indexType = 0;
    int _indexCount = 0;
    unsigned int _vertexCount = 0;
    quint64 _indexBufferOffset = 0;
    int _baseVertex = 0;
    int _instanceCount = 1;
    int _drawIDBase = 0;
    QSharedPointer<VertexArrayObject> _vao;
    QSharedPointer<BufferObject> _boIndex;
    QSharedPointer<BufferObject> _boIndirect;
    QSharedPointer<UniformBufferObject> _commandsUniform;
    QVector<DrawElementsIndirectCommand> _commands;
    int _commandsCount = 0;
    QVector<int> _commandCounts;
    QVector<quint64> _commandOffsets;
    QVector<int> _commandBaseVertices;
    bool _useMultiDrawIndirect = false;
};

} // namespace Tavren::Vyx
