#pragma once

#include "core/vyxexport.h"
#include "gl/platform/glcontexttracker.h"

#include <QBasicMutex>
#include <QHash>

#include <mutex>

class QObject;

namespace Tavren::Vyx {

// Drops the records every PerContextRecords keeps for context. Contexts destroyed through
// eglDestroyContext or glXDestroyContext, and Qt contexts, are forgotten this way by themselves, so
// a context made later at the same address starts afresh.
VYXGL_EXPORT void forgetContextRecords(void* context);
// Forgets context's records when owner is destroyed.
VYXGL_EXPORT void forgetContextRecordsWith(QObject* owner, void* context);

namespace PerContextRecordsDetail {
using Forget = void (*)(void* records, void* context);
VYXGL_EXPORT void enrol(void* records, Forget forget);
VYXGL_EXPORT void withdraw(void* records);
// A context got its first record somewhere: a current Qt context is watched from now on.
VYXGL_EXPORT void noteNewContext(void* context);
} // namespace PerContextRecordsDetail

// Process-wide records, one per GL context, created on first use. Every access holds the
// map's own mutex; work done with no context current lands in the null context's record.
template <typename Record>
class PerContextRecords
{
public:
    PerContextRecords()
    {
        PerContextRecordsDetail::enrol(this, [](void* records, void* context) {
            static_cast<PerContextRecords*>(records)->forget(context);
        });
    }
    ~PerContextRecords() { PerContextRecordsDetail::withdraw(this); }
    PerContextRecords(const PerContextRecords&) = delete;
    PerContextRecords& operator=(const PerContextRecords&) = delete;

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
        return fn(entryFor(context).record);
    }

    // As withCurrent, but a context's record is first passed to prepare(Record&, void* context)
    // once, under the same lock: for records that start from the context's limits.
    template <typename Prepare, typename Fn>
    decltype(auto) withCurrentPrepared(Prepare&& prepare, Fn&& fn)
    {
        void* context = GLContextTracker::currentContext();
        std::lock_guard<QBasicMutex> locker(_mutex);
        Entry& entry = entryFor(context);
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

    // Under the lock.
    Entry& entryFor(void* context)
    {
        const quintptr key = reinterpret_cast<quintptr>(context);
        auto found = _entries.find(key);
        if (found != _entries.end())
            return *found;
        PerContextRecordsDetail::noteNewContext(context);
        return *_entries.insert(key, Entry());
    }

    // Locks inline: taken on every bind.
    QBasicMutex _mutex;
    QHash<quintptr, Entry> _entries;
};

} // namespace Tavren::Vyx
