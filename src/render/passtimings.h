#pragma once

#include "core/vyxexport.h"

#include <QElapsedTimer>
#include <QString>

#include <memory>

namespace Tavren::Vyx {

// CPU and GPU milliseconds of one frame's passes.
struct VYXGL_EXPORT FrameTimings
{
    enum Pass { eShadows, eOpaque, eTransparent, eSky, ePost, kPassCount };
    static const char* passName(Pass pass);

    bool ran[kPassCount] = {};
    double cpuMilliseconds[kPassCount] = {};
    // Negative while the GPU has not answered, or where it cannot be asked.
    double gpuMilliseconds[kPassCount] = {-1, -1, -1, -1, -1};
    // Whether the context has timer queries at all (GL 3.3 or GL_ARB_timer_query).
    bool gpuTimingAvailable = false;

    // One line, "shadows 1.2 ms (GPU 0.9 ms), opaque ..."; passes that did not run are left out.
    QString toString() const;
};

// Times passes on the CPU and, where the context has timer queries, on the GPU with
// GL_TIME_ELAPSED. Queries are double-buffered across frames and read only once the GPU says
// they are ready, so asking never waits; a frame whose query set is still in flight from two
// frames back goes without GPU figures. Use it in one context; the queries go with
// releaseGL() or the destructor, either with that context current.
class VYXGL_EXPORT PassTimer
{
public:
    PassTimer();
    ~PassTimer();
    PassTimer(const PassTimer&) = delete;
    PassTimer& operator=(const PassTimer&) = delete;

    void setEnabled(bool enabled) { _enabled = enabled; }
    bool isEnabled() const { return _enabled; }
    // Finishes the GPU's work at every pass boundary, so that each CPU figure holds its pass's
    // drawing too. Slows the frame; for software rasterisers, which do their drawing at the
    // next flush, where the timer queries see next to nothing.
    void setWaitForGPU(bool wait) { _waitForGPU = wait; }
    bool waitsForGPU() const { return _waitForGPU; }

    // Starts a frame; the one before stays readable until then.
    void beginFrame();
    void begin(FrameTimings::Pass pass);
    void end(FrameTimings::Pass pass);
    // The latest frame's figures once the GPU has answered for all of its passes; until then
    // those of the frame before, if complete, else the latest with what is in.
    FrameTimings lastFrame();
    void releaseGL();

    // Times a pass from construction to the end of its scope; nothing with a null timer.
    class Scope
    {
    public:
        Scope(PassTimer* timer, FrameTimings::Pass pass) : _timer(timer), _pass(pass)
        {
            if (_timer)
                _timer->begin(pass);
        }
        ~Scope()
        {
            if (_timer)
                _timer->end(_pass);
        }
        // Ends this pass and times the next one from here.
        void next(FrameTimings::Pass pass)
        {
            if (_timer) {
                _timer->end(_pass);
                _timer->begin(pass);
            }
            _pass = pass;
        }
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        PassTimer* _timer;
        FrameTimings::Pass _pass;
    };

private:
    struct Slot;
    void collect(Slot& slot);

    std::unique_ptr<Slot[]> _slots;
    int _current = -1;
    bool _enabled = false;
    bool _waitForGPU = false;
    bool _resolved = false;
    void* _getResult = nullptr; // glGetQueryObjectui64v, null without timer queries
    int _activePass = -1;       // the pass whose query is open: one at a time per target
    QElapsedTimer _clock;
    qint64 _passStart = 0;
};

} // namespace Tavren::Vyx
