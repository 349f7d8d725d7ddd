#pragma once

#include <QByteArray>
#include <QHash>
#include <QSharedPointer>
#include <QVector>

#include <cstddef>

#include "gl/drawing/drawbuffers.h"

namespace Tavren::Vyx {

class BufferObject;

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
        // The last gather of the whole list in its own order, and the list it was made from:
        // holding the list keeps its data alive, so an unchanged data pointer means unchanged
        // commands.
        QVector<DrawElementsIndirectCommand> wholeSource;
        QByteArray wholeRecords;
        int wholeCount = 0;
    };

    // Copies the selected commands, in the given order, into scratch and returns how many
    // records that made (-1, reported, for a command the list lacks). A command that repeats the
    // previous record's geometry and takes the instances right after it joins that record: the
    // draw IDs (base instance + instance) stay those of the separate commands, and the driver
    // draws one instanced batch instead of many.
    // whole says that selected is every command in order, which is gathered once per list.
    int gather(const DrawBuffers& db, const QVector<int>& selected, bool whole);
    // One glMultiDrawElementsIndirect of the gathered records.
    bool drawGathered(const DrawBuffers& db, int records);
    size_t memoryEstimateGPU() const;

    QHash<const DrawBuffers*, Entry> entries;
    QByteArray scratch;
};

} // namespace GPUModelDetail
} // namespace Tavren::Vyx
