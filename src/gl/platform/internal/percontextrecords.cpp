#include "gl/platform/internal/percontextrecords.h"

#include <QOpenGLContext>
#include <QSet>

#include <algorithm>
#include <utility>
#include <vector>

namespace Tavren::Vyx {

namespace {

// Two locks, never held together: a map calls noteNewContext() under its own lock, and
// forgetting takes each map's lock under the list's.
struct Registry
{
    QBasicMutex listMutex;
    std::vector<std::pair<void*, PerContextRecordsDetail::Forget>> records;
    QBasicMutex watchedMutex;
    // Qt contexts whose destruction is already watched.
    QSet<void*> watched;
};

// Never destroyed: contexts may still be destroyed while the process exits.
Registry& registry()
{
    static Registry* const instance = new Registry;
    return *instance;
}

} // namespace

namespace PerContextRecordsDetail {

void enrol(void* records, Forget forget)
{
    Registry& r = registry();
    std::lock_guard<QBasicMutex> locker(r.listMutex);
    r.records.emplace_back(records, forget);
}

void withdraw(void* records)
{
    Registry& r = registry();
    std::lock_guard<QBasicMutex> locker(r.listMutex);
    r.records.erase(std::remove_if(r.records.begin(), r.records.end(),
                                   [records](const auto& entry) { return entry.first == records; }),
                    r.records.end());
}

void noteNewContext(void* context)
{
    // Native contexts are forgotten by the destroy calls the library forwards; a Qt context
    // is identified by its own address (or its wrapper's), which those calls never see.
    QOpenGLContext* qtContext = QOpenGLContext::currentContext();
    if (!context || !qtContext || context != GLContextTracker::currentContext())
        return;
    {
        Registry& r = registry();
        std::lock_guard<QBasicMutex> locker(r.watchedMutex);
        if (r.watched.contains(context))
            return;
        r.watched.insert(context);
    }
    forgetContextRecordsWith(qtContext, context);
}

} // namespace PerContextRecordsDetail

void forgetContextRecords(void* context)
{
    Registry& r = registry();
    {
        std::lock_guard<QBasicMutex> locker(r.watchedMutex);
        r.watched.remove(context);
    }
    std::lock_guard<QBasicMutex> locker(r.listMutex);
    for (const auto& [records, forget] : r.records)
        forget(records, context);
}

void forgetContextRecordsWith(QObject* owner, void* context)
{
    QObject::connect(owner, &QObject::destroyed, [context] { forgetContextRecords(context); });
}

} // namespace Tavren::Vyx
