// Culling of GPUModel, and the per-transform and per-command records that keep it from
// recomputing every command's verdict and world-space box each frame.
#include "gl/model/gpumodel.h"

#include "gl/drawing/plane.h"

#include <algorithm>
#include <cmath>

namespace Tavren::Vyx {

namespace {

// The frustum's planes with, per plane, which corner of a box lies furthest along the normal.
// The arithmetic is Frustum::intersects' own, so a command gets the verdict a box test gives.
struct PlaneSet
{
    float n[Frustum::eSideCount][3];
    float d[Frustum::eSideCount];

    explicit PlaneSet(const Frustum& frustum)
    {
        for (int p = 0; p < Frustum::eSideCount; ++p) {
            const Plane& plane = frustum.plane(Frustum::Side(p));
            for (int axis = 0; axis < 3; ++axis)
                n[p][axis] = plane.normal()[axis];
            d[p] = plane.distance();
        }
    }
    // Signed distance of the box corner furthest along (towards true) or against the normal.
    float distance(int p, const float* lo, const float* hi, bool towards) const
    {
        const float x = (n[p][0] >= 0) == towards ? hi[0] : lo[0];
        const float y = (n[p][1] >= 0) == towards ? hi[1] : lo[1];
        const float z = (n[p][2] >= 0) == towards ? hi[2] : lo[2];
        return n[p][0] * x + n[p][1] * y + n[p][2] * z + d[p];
    }
    bool outside(const float* lo, const float* hi) const
    {
        for (int p = 0; p < Frustum::eSideCount; ++p) {
            if (distance(p, lo, hi, true) < 0.0f)
                return true;
        }
        return false;
    }
    bool inside(const float* lo, const float* hi) const
    {
        for (int p = 0; p < Frustum::eSideCount; ++p) {
            if (!(distance(p, lo, hi, false) >= 0.0f))
                return false;
        }
        return true;
    }
};

enum BoxState : quint8 { eNoBox = 0, eBox = 1, eEmptyBox = 2 };

} // namespace

bool GPUModel::isCommandCulled(int drawable, int command) const
{
    return isCommandOf(drawable, command) && _drawables[drawable].culled[command];
}

// ---------------------------------------------------------------------------------------------
// Cached records

void GPUModel::refreshWorldBox(int drawable, int command)
{
    const Drawable& d = _drawables[drawable];
    const size_t slot = size_t(_slotBase[size_t(d.id)] + command);
    const int box = d.boundingBoxRefs[command];
    quint8 state = eNoBox;
    WorldBox& out = _worldBoxes[slot];
    if (isValidBoundingBox(box)) {
        const int t = d.transformRefs[command];
        const BoundingBox& local = _boxes[size_t(box)];
        const BoundingBox world = isValidTransform(t) ? local.transformed(_worlds[t]) : local;
        state = world.isEmpty() ? eEmptyBox : eBox;
        for (int axis = 0; axis < 3; ++axis) {
            out.lo[axis] = world.minimum()[axis];
            out.hi[axis] = world.maximum()[axis];
        }
    }
    // The union only grows here: still around every box, it may be looser than it needs to be,
    // which costs a refit when it straddles the frustum.
    DrawableBounds& bounds = _bounds[size_t(d.id)];
    const quint8 previous = _boxState[slot];
    _boxState[slot] = state;
    if (bounds.stale)
        return;
    bounds.loose = true;
    bounds.boxed += (state == eBox) - (previous == eBox);
    bounds.empty += (state == eEmptyBox) - (previous == eEmptyBox);
    if (state == eBox)
        uniteBox(bounds, out);
}

void GPUModel::refreshWorldBoxes()
{
    for (int position = 0; position < _drawables.size(); ++position) {
        for (int c = 0; c < _drawables[position].boundingBoxRefs.size(); ++c)
            refreshWorldBox(position, c);
    }
}

void GPUModel::refreshBounds(DrawableBounds& bounds, int drawable)
{
    const Drawable& d = _drawables[drawable];
    const size_t base = size_t(_slotBase[size_t(d.id)]);
    bounds = DrawableBounds();
    bounds.stale = false;
    for (int c = 0; c < d.transformRefs.size(); ++c) {
        const quint8 state = _boxState[base + size_t(c)];
        if (state == eEmptyBox)
            ++bounds.empty;
        if (state != eBox)
            continue;
        ++bounds.boxed;
        uniteBox(bounds, _worldBoxes[base + size_t(c)]);
    }
}

void GPUModel::uniteBox(DrawableBounds& bounds, const WorldBox& box)
{
    for (int axis = 0; axis < 3; ++axis) {
        bounds.finite = bounds.finite && std::isfinite(box.lo[axis]) && std::isfinite(box.hi[axis]);
        bounds.box.lo[axis] = bounds.holdsBox ? std::min(bounds.box.lo[axis], box.lo[axis]) : box.lo[axis];
        bounds.box.hi[axis] = bounds.holdsBox ? std::max(bounds.box.hi[axis], box.hi[axis]) : box.hi[axis];
    }
    bounds.holdsBox = true;
}

void GPUModel::refreshVerdicts()
{
    if (!_verdictsStale)
        return;
    // Whether an ancestor hides its descendants, resolved once per transform: walk up to the first
    // known one, then fill in downwards.
    const int transforms = _locals.size();
    std::vector<qint8> parentHidden(size_t(transforms), -1);
    for (int t = 0; t < transforms; ++t) {
        _chain.clear();
        for (int u = t; u >= 0 && parentHidden[size_t(u)] < 0; u = _parents[u])
            _chain.append(u);
        for (int k = _chain.size() - 1; k >= 0; --k) {
            const int u = _chain[k];
            const int p = _parents[u];
            parentHidden[size_t(u)] = p >= 0 && (_visibility[p] == 3 || parentHidden[size_t(p)]);
        }
        _hidden[size_t(t)] = _visibility[t] == 2 || _visibility[t] == 3 || parentHidden[size_t(t)];
    }
    for (const Drawable& d : qAsConst(_drawables)) {
        int hidden = 0, cullable = 0;
        for (int t : d.transformRefs) {
            const bool valid = t >= 0 && t < transforms;
            hidden += valid && _hidden[size_t(t)];
            cullable += !valid || _hidden[size_t(t)] || _zeroScale[size_t(t)];
        }
        _hiddenCommands[size_t(d.id)] = hidden;
        _cullableCommands[size_t(d.id)] = cullable;
    }
    _verdictsStale = false;
}

// ---------------------------------------------------------------------------------------------
// Culling

int GPUModel::visibilityCull()
{
    _cullingApplied = true;
    // A dirty transform keeps its commands until its matrix is fresh: only a walk up its chain
    // knows. With every transform clean the cached verdicts stand.
    const bool exact = _anyDirty;
    if (!exact)
        refreshVerdicts();
    const int transforms = _locals.size();
    const auto culls = [&](int t) -> bool {
        if (t < 0 || t >= transforms)
            return true;
        if (!exact)
            return _hidden[size_t(t)] || _zeroScale[size_t(t)];
        if (_visibility[t] == 2 || _visibility[t] == 3)
            return true;
        const int p = _parents[t];
        if (p >= 0 && (_visibility[p] == 3 || isParentHidden(p)))
            return true;
        if (_dirty[t] || (p >= 0 && _dirty[p]))
            return false;
        return _zeroScale[size_t(t)];
    };
    int newlyCulled = 0;
    for (Drawable& d : _drawables) {
        const int commands = d.transformRefs.size();
        if (d.flags & kHiddenFlag) {
            newlyCulled += commands - d.culledCount;
            d.culled.fill(true, commands);
            d.culledCount = commands;
            continue;
        }
        if (d.culledCount == commands || (!exact && _cullableCommands[size_t(d.id)] == 0))
            continue;
        const int* refs = d.transformRefs.constData();
        bool* culled = d.culled.data();
        for (int c = 0; c < commands; ++c) {
            if (culled[c] || !culls(refs[c]))
                continue;
            culled[c] = true;
            ++d.culledCount;
            ++newlyCulled;
        }
    }
    return newlyCulled;
}

int GPUModel::frustumCull(const QMatrix4x4& viewProjection)
{
    _cullingApplied = true;
    const PlaneSet planes{Frustum(viewProjection)};
    int newlyCulled = 0;
    for (int position = 0; position < _drawables.size(); ++position) {
        Drawable& d = _drawables[position];
        const int commands = d.transformRefs.size();
        if (commands == 0 || d.culledCount == commands)
            continue;
        // The box around the commands' boxes decides for all of them when it lies wholly inside
        // or behind one plane; only a drawable straddling a plane has its commands tested one by
        // one, after the box is refitted if edits have grown it.
        DrawableBounds& bounds = _bounds[size_t(d.id)];
        if (bounds.stale)
            refreshBounds(bounds, position);
        bool inside = false, outside = false;
        const auto classify = [&] {
            inside = bounds.boxed == 0;
            outside = false;
            if (bounds.boxed && bounds.finite) {
                outside = planes.outside(bounds.box.lo, bounds.box.hi);
                inside = !outside && planes.inside(bounds.box.lo, bounds.box.hi);
            }
        };
        classify();
        if (!inside && !outside && bounds.loose) {
            refreshBounds(bounds, position);
            classify();
        }
        if (inside && bounds.empty == 0)
            continue;
        const quint8* state = _boxState.data() + _slotBase[size_t(d.id)];
        const WorldBox* boxes = _worldBoxes.data() + _slotBase[size_t(d.id)];
        bool* culled = d.culled.data();
        for (int c = 0; c < commands; ++c) {
            if (culled[c] || state[c] == eNoBox)
                continue;
            if (state[c] == eBox && (inside || (!outside && !planes.outside(boxes[c].lo, boxes[c].hi))))
                continue;
            culled[c] = true;
            ++d.culledCount;
            ++newlyCulled;
        }
    }
    return newlyCulled;
}

void GPUModel::resetCulling()
{
    for (Drawable& d : _drawables) {
        if (d.culledCount == 0)
            continue;
        std::fill(d.culled.begin(), d.culled.end(), false);
        d.culledCount = 0;
    }
}

bool GPUModel::isDrawEmpty(quint64 flags, quint64 mask) const
{
    const bool simple = hasFeatureFlags(kSimpleDrawFeature);
    for (const Drawable& d : _drawables) {
        if ((d.flags & mask) == (flags & mask) && (simple || d.culledCount < d.transformRefs.size()))
            return false;
    }
    return true;
}

} // namespace Tavren::Vyx
