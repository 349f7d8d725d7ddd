#pragma once

#include <QByteArray>
#include <QHash>
#include <QSharedPointer>
#include <QVector>

#include <cstddef>

namespace Tavren::Vyx {

class BufferObject;
class DrawBuffers;

namespace GPUModelDetail {

// Indirect buffers holding the commands a model selected from a DrawBuffers, one buffer per
// DrawBuffers, re-uploaded only when the selected records differ from the last upload (the
// records are compared, not the pointer, so a reused address cannot draw stale commands).
struct IndirectCache
{
    struct Entry
    {
        QSharedPointer<BufferObject> buffer;
        QByteArray records;
    };

    // One glMultiDrawElementsIndirect of the selected commands, in the given order.
    bool drawSubset(const DrawBuffers& db, const QVector<int>& selected);
    size_t memoryEstimateGPU() const;

    QHash<const DrawBuffers*, Entry> entries;
    QByteArray scratch;
};

} // namespace GPUModelDetail
} // namespace Tavren::Vyx
