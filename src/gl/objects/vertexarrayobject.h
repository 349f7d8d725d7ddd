#pragma once

#include "core/vyxexport.h"
#include "gl/platform/bindable.h"

#include <QMap>
#include <QObject>
#include <QSharedPointer>
#include <QString>
#include <QVector>

#include <cstddef>

namespace Tavren::Vyx {

class BufferObject;
class GLContextTracker;
class OpenGLDeviceContext;
class ShaderProgram;

// One GL vertex array object and the named attributes that feed it. A program's attribute
// locations are pointed at the registered buffers by enableShaderProgramArrays(); what each
// location was last set up with is remembered, so enabling the same program again is free.
// Made through OpenGLDeviceContext::newVAO().
class VYXGL_EXPORT VertexArrayObject : public QObject, public Bindable
{
    Q_OBJECT

public:
    ~VertexArrayObject() override;

    // The first bind makes the GL name, in the context current at that moment.
    bool bind() override;
    bool unbind() override;
    // Takes over from another bound vertex array object; boundNow tells whether this one
    // was bound by the call.
    bool rebind(VertexArrayObject* vertexArrayObjectBound, bool& boundNow);
    bool isBound() const;
    unsigned int getVAO() const { return _vao; }

    // Stores (replaces) the attribute; the next enable sets its pointer up again.
    void registerBO(const QString& name, QSharedPointer<BufferObject> bo, int valuesPerVertex, unsigned int type);
    void registerBO(const QString& name, QSharedPointer<BufferObject> bo, int valuesPerVertex, unsigned int type,
                    bool normalised, unsigned int stride, unsigned int offset);

    // Registers an already filled buffer.
    bool upload(const QString& name, QSharedPointer<BufferObject> bufferObj, int valuesPerVertex, unsigned int type);
    // Fills bufferObj (its target set by the caller, GL_ARRAY_BUFFER for vertex data) and
    // registers it as GL_FLOAT.
    bool upload(const QString& name, QSharedPointer<BufferObject> bufferObj, const float* data, int valueCount,
                int valuesPerVertex, unsigned int usage);
    bool upload(const QString& name, QSharedPointer<BufferObject> bufferObj, const QVector<float>& data,
                int valuesPerVertex, unsigned int usage);
    // Replaces floats of a registered buffer from value index offset on.
    bool subUpload(const QString& attrName, const float* data, int valueCount, int valuesPerVertex, int offset);
    bool subUpload(const QString& attrName, const QVector<float>& data, int valuesPerVertex, int offset);

    QSharedPointer<BufferObject> bo(const QString& name) const;
    // Binds the attribute's buffer and maps it read-write; null if the name is unknown.
    void* mapBO(const QString& name);
    void unmapBO(const QString& name);

    // Points every attribute location of program at its registered buffer. Must be bound.
    bool enableShaderProgramArrays(const ShaderProgram* program);

    size_t memoryEstimateCPU() const;
    size_t memoryEstimateGPU() const;

    // Null until the GL name is made; then tracks the context that made it.
    GLContextTracker* getContextTracker() const { return _contextTracker; }

    static bool isTypeSupported(unsigned int type);
    static int NumAlive();

private:
    friend class OpenGLDeviceContext;

    struct AttributeData
    {
        int _valuesPerVertex = 0;
        unsigned int _type = 0;
        bool _normalised = false;
        unsigned int _stride = 0;
        unsigned int _offset = 0;
        QSharedPointer<BufferObject> _buffer;
    };

    explicit VertexArrayObject(QObject* parent = nullptr);

    bool create();
    bool destroy();
    bool enableArray(const QString& name, int attributeIndex);
    void dirtyAttributeName(const QString& name);

    unsigned int _vao = 0;
    bool _vaoBound = false;
    QMap<QString, AttributeData> _attributesData;
    // Attribute name last set up at each location; empty when nothing is or it is dirty.
    QVector<QString> _attributeLocationNames;
    GLContextTracker* _contextTracker = nullptr;
};

} // namespace Tavren::Vyx
