#include "render/passtimings.h"

#include "gl/glloader.h"
#include "gl/platform/glutilities.h"

#include <QStringList>

#include <algorithm>
#include <iterator>

namespace Tavren::Vyx {

namespace {

using GetQueryObjectui64v = void(VYX_APIENTRY*)(GLuint, GLenum, GLuint64*);

const char* const kPassNames[FrameTimings::kPassCount] = {"shadows", "opaque", "transparent", "sky", "post"};

} // namespace

const char* FrameTimings::passName(Pass pass)
{
    return pass >= 0 && pass < kPassCount ? kPassNames[pass] : "unknown";
}

QString FrameTimings::toString() const
{
    QStringList parts;
    for (int p = 0; p < kPassCount; ++p) {
        if (!ran[p])
            continue;
        QString part = QStringLiteral("%1 %2 ms").arg(QLatin1String(kPassNames[p])).arg(cpuMilliseconds[p], 0, 'f', 2);
        if (!gpuTimingAvailable)
            part += QStringLiteral(" (GPU unavailable)");
        else if (gpuMilliseconds[p] >= 0)
            part += QStringLiteral(" (GPU %1 ms)").arg(gpuMilliseconds[p], 0, 'f', 2);
        else
            part += QStringLiteral(" (GPU not measured)");
        parts << part;
    }
    return parts.isEmpty() ? QStringLiteral("no passes timed") : parts.join(QStringLiteral(", "));
}

struct PassTimer::Slot
{
    GLuint queries[FrameTimings::kPassCount] = {};
    bool waiting[FrameTimings::kPassCount] = {}; // issued, result not read yet
    bool partial[FrameTimings::kPassCount] = {}; // the query saw only part of the pass
    bool gpu = false;                            // this frame issues queries
    FrameTimings timings;

    bool inFlight() const { return std::find(std::begin(waiting), std::end(waiting), true) != std::end(waiting); }
    bool timed() const { return std::find(std::begin(timings.ran), std::end(timings.ran), true) != std::end(timings.ran); }
};

PassTimer::PassTimer()
    : _slots(new Slot[2])
{
    _clock.start();
}

PassTimer::~PassTimer()
{
    releaseGL();
}

void PassTimer::releaseGL()
{
    for (int s = 0; s < 2; ++s) {
        Slot& slot = _slots[s];
        for (GLuint& query : slot.queries) {
            if (query && glDeleteQueries)
                glDeleteQueries(1, &query);
            query = 0;
        }
        slot = Slot();
    }
    _current = -1;
    _activePass = -1;
    _resolved = false;
    _getResult = nullptr;
}

void PassTimer::collect(Slot& slot)
{
    auto getResult = reinterpret_cast<GetQueryObjectui64v>(_getResult);
    for (int p = 0; p < FrameTimings::kPassCount; ++p) {
        if (!slot.waiting[p] || !getResult)
            continue;
        GLuint available = GL_FALSE;
        glGetQueryObjectuiv(slot.queries[p], GL_QUERY_RESULT_AVAILABLE, &available);
        if (!available)
            continue;
        GLuint64 nanoseconds = 0;
        getResult(slot.queries[p], GL_QUERY_RESULT, &nanoseconds);
        if (!slot.partial[p])
            slot.timings.gpuMilliseconds[p] = double(nanoseconds) / 1e6;
        slot.waiting[p] = false;
    }
}

void PassTimer::beginFrame()
{
    if (!_enabled)
        return;
    if (!_resolved) {
        _resolved = true;
        _getResult = getGLProcAddress("glGetQueryObjectui64v", true);
    }
    if (_activePass >= 0)
        end(FrameTimings::Pass(_activePass));
    _current = (_current + 1) % 2;
    Slot& slot = _slots[_current];
    collect(slot);
    slot.gpu = _getResult && !slot.inFlight();
    slot.timings = FrameTimings();
    std::fill(std::begin(slot.partial), std::end(slot.partial), false);
    slot.timings.gpuTimingAvailable = _getResult != nullptr;
}

void PassTimer::begin(FrameTimings::Pass pass)
{
    if (!_enabled || _current < 0 || pass < 0 || pass >= FrameTimings::kPassCount)
        return;
    Slot& slot = _slots[_current];
    if (_waitForGPU)
        glFinish();
    _passStart = _clock.nsecsElapsed();
    // A pass timed twice in a frame, or inside another, goes without a GPU figure.
    if (slot.timings.ran[pass])
        slot.partial[pass] = true;
    if (!slot.gpu || _activePass >= 0 || slot.timings.ran[pass])
        return;
    if (!slot.queries[pass])
        glGenQueries(1, &slot.queries[pass]);
    glBeginQuery(GL_TIME_ELAPSED, slot.queries[pass]);
    slot.waiting[pass] = true;
    _activePass = pass;
}

void PassTimer::end(FrameTimings::Pass pass)
{
    // An open query is closed even when timing was turned off meanwhile.
    if (_activePass >= 0 && _activePass == pass) {
        glEndQuery(GL_TIME_ELAPSED);
        _activePass = -1;
    }
    if (!_enabled || _current < 0 || pass < 0 || pass >= FrameTimings::kPassCount)
        return;
    if (_waitForGPU)
        glFinish();
    Slot& slot = _slots[_current];
    slot.timings.cpuMilliseconds[pass] += double(_clock.nsecsElapsed() - _passStart) / 1e6;
    slot.timings.ran[pass] = true;
}

FrameTimings PassTimer::lastFrame()
{
    if (_current < 0)
        return FrameTimings();
    Slot& latest = _slots[_current];
    if (_activePass < 0)
        collect(latest);
    if (!latest.inFlight())
        return latest.timings;
    // Until the GPU has answered for the latest frame, the one before it if that is complete.
    Slot& before = _slots[1 - _current];
    collect(before);
    return before.timed() && !before.inFlight() ? before.timings : latest.timings;
}

} // namespace Tavren::Vyx
