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

    // Copies the selected commands, in the given order, into scratch and returns how many
    // records that made (-1, reported, for a command the list lacks). A command that repeats the
    // previous record's geometry and takes the instances right after it joins that record: the
    // draw IDs (base instance + instance) stay those of the separate commands, and the driver
    // draws one instanced batch instead of many.
    int gather(const DrawBuffers& db, const QVector<int>& selected);
    // One glMultiDrawElementsIndirect of the gathered records.
    bool drawGathered(const DrawBuffers& db, int records);
    size_t memoryEstimateGPU() const;

    QHash<const DrawBuffers*, Entry> entries;
    QByteArray scratch;
};

} // namespace GPUModelDetail
} // namespace Tavren::Vyx
