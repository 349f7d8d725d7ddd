#pragma once

#include "gl/glcontexttracker.h"

#include <QBasicMutex>
#include <QHash>

#include <mutex>

namespace Tavren::Vyx {

// Process-wide records, one per GL context, created on first use. Every access holds the
// map's own mutex; work done with no context current lands in the null context's record.
template <typename Record>
class PerContextRecords
{
public:
    // Calls fn(Record&) on the current context's record and returns what it returns.
    template <typename Fn>
    decltype(auto) withCurrent(Fn&& fn)
    {
        return with(GLContextTracker::currentContext(), static_cast<Fn&&>(fn));
    }

    template <typename Fn>
    decltype(auto) with(void* context, Fn&& fn)
    {
        std::lock_guard<QBasicMutex> locker(_mutex);
        return fn(_entries[reinterpret_cast<quintptr>(context)].record);
    }

    // As withCurrent, but a context's record is first passed to prepare(Record&, void* context)
    // once, under the same lock: for records that start from the context's limits.
    template <typename Prepare, typename Fn>
    decltype(auto) withCurrentPrepared(Prepare&& prepare, Fn&& fn)
    {
        void* context = GLContextTracker::currentContext();
        std::lock_guard<QBasicMutex> locker(_mutex);
        Entry& entry = _entries[reinterpret_cast<quintptr>(context)];
        if (!entry.prepared) {
            prepare(entry.record, context);
            entry.prepared = true;
        }
        return fn(entry.record);
    }

    // Drops a context's record, for a host that destroys a context and may see its address again.
    void forget(void* context)
    {
        std::lock_guard<QBasicMutex> locker(_mutex);
        _entries.remove(reinterpret_cast<quintptr>(context));
    }

private:
    struct Entry
    {
        Record record;
        bool prepared = false;
    };

    // Locks inline: taken on every bind.
    QBasicMutex _mutex;
    QHash<quintptr, Entry> _entries;
};

} // namespace Tavren::Vyx
