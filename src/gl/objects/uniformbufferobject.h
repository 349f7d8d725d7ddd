#pragma once

#include "core/vyxexport.h"
#include "gl/platform/bindable.h"

#include <QObject>
#include <QSharedPointer>
#include <QString>

#include <cstddef>

namespace Tavren::Vyx {

class BufferObject;
class OpenGLDeviceContext;
class ShaderProgram;

// Connects a buffer holding the data of one GLSL uniform block to the block of that name in
// the programs it is bound for. Binding points are scarce, so each context hands them out
// from a pool: a buffer keeps one point while any bind() is outstanding, a program's own
// binding is reused when free, and bindings can be collected into one batched call.
// Made through OpenGLDeviceContext::newUniformBuffer().
class VYXGL_EXPORT UniformBufferObject : public QObject, public Bindable
{
    Q_OBJECT

public:
    // Bindings still held are not released.
    ~UniformBufferObject() override;

    const QSharedPointer<BufferObject>& bufferObject() const { return _bufferObject; }
    QString blockName() const { return _uniformBlockName; }

    // Gives the buffer a binding point in the current context and points program's block at it.
    bool bind(ShaderProgram* program);
    // Drops one reference; the binding point is freed when none is left.
    bool unbind(ShaderProgram* program);
    // The same as bound->unbind(program) then bind(program). When bound alone holds a point
    // that program's block uses and this buffer holds none, this buffer takes the point over
    // with one glBindBufferBase, as a drawing loop switching tables wants.
    bool rebind(UniformBufferObject* bound, ShaderProgram* program);
    // The same for the program bound in the current context.
    bool bind() override;
    bool unbind() override;

    // The binding point the buffer holds in the current context; -1 when it holds none.
    int uniformBlockBinding() const;

    // Between these two, bind() only records bindings; the flush issues them in one call
    // and unbinds points in the range that nobody holds.
    static void bindBatchStart();
    static void bindBatchFlush();

    size_t memoryEstimateCPU() const;
    size_t memoryEstimateGPU() const;

    static int NumAlive();

private:
    friend class OpenGLDeviceContext;

    UniformBufferObject(const QString& blockName, QSharedPointer<BufferObject> buffer, QObject* parent = nullptr);

    static int maxUniformBlockBindings();

    QSharedPointer<BufferObject> _bufferObject;
    QString _uniformBlockName;
};

} // namespace Tavren::Vyx
