#pragma once

#include "core/vyxexport.h"

#include <QHash>
#include <QMutex>
#include <QMutexLocker>
#include <QObject>

namespace Tavren::Vyx {

// Remembers the GL context an object was made in, so later use can be checked against it.
// A context is identified by an untyped pointer: the current QGLContext, else the current
// QOpenGLContext, else the native EGL context, else the GLX context; null when none is current.
class VYXGL_EXPORT GLContextTracker : public QObject
{
public:
    explicit GLContextTracker(QObject* parent = nullptr);

    void trackCurrentContext();
    void* trackedContext() const;
    // True when the tracked context is the current one (two nulls compare equal).
    bool check() const;

    static void* currentContext();

private:
    static void* getCurrentContext();

    void* _trackedContext = nullptr;
};

// The current QGLContext only (null when Qt has none current), for diagnostics.
void* currentQGLContext();

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
        QMutexLocker locker(&_mutex);
        return fn(_entries[reinterpret_cast<quintptr>(context)].record);
    }

    // As withCurrent, but a context's record is first passed to prepare(Record&) once, under
    // the same lock: for records that start from the context's limits.
    template <typename Prepare, typename Fn>
    decltype(auto) withCurrentPrepared(Prepare&& prepare, Fn&& fn)
    {
        const quintptr key = reinterpret_cast<quintptr>(GLContextTracker::currentContext());
        QMutexLocker locker(&_mutex);
        Entry& entry = _entries[key];
        if (!entry.prepared) {
            prepare(entry.record);
            entry.prepared = true;
        }
        return fn(entry.record);
    }

    // Drops a context's record, for a host that destroys a context and may see its address again.
    void forget(void* context)
    {
        QMutexLocker locker(&_mutex);
        _entries.remove(reinterpret_cast<quintptr>(context));
    }

private:
    struct Entry
    {
        Record record;
        bool prepared = false;
    };

    QMutex _mutex;
    QHash<quintptr, Entry> _entries;
};

} // namespace Tavren::Vyx
