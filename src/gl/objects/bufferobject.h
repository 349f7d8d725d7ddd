#pragma once

#include "core/vyxexport.h"
#include "gl/platform/bindable.h"

#include <QObject>
#include <QVector>

#include <cstddef>

namespace Tavren::Vyx {

class OpenGLDeviceContext;

// One GL buffer object with the target it binds to, plain (glBindBuffer) or indexed
// (glBindBufferRange). Made through OpenGLDeviceContext::newBuffer().
class VYXGL_EXPORT BufferObject : public QObject, public Bindable
{
    Q_OBJECT

public:
    ~BufferObject() override;

    void setTarget(unsigned int target);
    void setIndexedTarget(unsigned int target, unsigned int index, std::ptrdiff_t offset, std::ptrdiff_t size);

    bool bind() override;
    bool unbind() override;
    // Takes over the binding that bufferObjectBound holds on the same target without unbinding
    // in between; the same GL name is not bound again unless force is set.
    bool rebind(BufferObject* bufferObjectBound, bool force);

    // Whether the buffer must be bound before an upload.
    bool isBindNeededForUpload() const;

    // Unbound buffers upload through direct state access where the driver has it.
    bool upload(const float* values, int valueCount, unsigned int usage);
    bool upload(const QVector<float>& values, unsigned int usage);
    bool uploadGLuintData(const unsigned int* values, int valueCount, unsigned int usage);
    bool uploadGLushortData(const unsigned short* values, int valueCount, unsigned int usage);
    bool uploadArbitraryData(const void* values, int valueCount, unsigned int usage, size_t valueSize);
    // Replaces floats from value index offset on; the buffer must be bound.
    bool subUpload(const float* values, int valueCount, int offset);
    bool subUpload(const QVector<float>& values, int offset);

    void* map(unsigned int access);
    void unmap();

    // Switches to immutable storage of size bytes where the driver offers it; afterwards
    // uploadArbitraryData() only replaces contents.
    void useStorageBuffer(int size, int flags);

    unsigned int getBO() const { return _bo; }
    unsigned int target() const { return _target; }
    int valueCount() const { return _valueCount; }
    size_t valueSize() const { return _valueSize; }

    size_t memoryEstimateCPU() const;
    size_t memoryEstimateGPU() const;

    static int NumAlive();
    static int NumAliveManaged();

private:
    friend class OpenGLDeviceContext;

    // Adopts a GL name it will never delete.
    explicit BufferObject(unsigned int bo, QObject* parent = nullptr);
    // Creates its own GL name and deletes it when destroyed.
    explicit BufferObject(QObject* parent = nullptr);

    bool create();
    bool destroy();
    static void initializeIndexedBufferObjecttargets();
    bool uploadBytes(const void* data, int valueCount, size_t valueSize, unsigned int usage);
    // The checks every upload starts with: a GL name and a positive value count.
    bool checkUploadable(int valueCount) const;
    // The checks bind() and rebind() start with: a GL name, not bound yet, a target set.
    bool checkBindable() const;

    unsigned int _bo = 0;
    unsigned int _boBountTarget = 0;
    unsigned int _target = 0;
    bool _useBindBufferRange = false;
    unsigned int _bindIndex = 0;
    std::ptrdiff_t _bindOffset = 0;
    std::ptrdiff_t _bindSize = 0;
    int _valueCount = 0;
    size_t _valueSize = 0;
    bool _managed = false;
    bool _storageBuffer = false;
};

} // namespace Tavren::Vyx
