#pragma once

#include "core/vyxexport.h"

#include <memory>

namespace Tavren::Vyx {

class ShaderProgram;
class Texture;

// Storage of the deep G-buffer that "VisibilityBuffer.glslh" builds and walks: a head image of
// one list link per pixel, a pool of fragment nodes in a buffer texture and an atomic counter
// handing out nodes. Needs image load/store and atomic counters (GL 4.2, or the two ARB
// extensions); without them every call reports that once per call and fails.
//
// Use: addShaders() to the fragment stage of the build and query programs (the build shader
// calls visibilityBufferStore, usually with depth testing off so that hidden fragments count
// too); the "InstanceInfo" instance-data plan must be registered before they compile. Per
// frame: clear(), bind(build program), draw, memoryBarrier(), bind(query program), draw.
class VYXGL_EXPORT VisibilityBuffer
{
public:
    VisibilityBuffer();
    ~VisibilityBuffer();
    VisibilityBuffer(const VisibilityBuffer&) = delete;
    VisibilityBuffer& operator=(const VisibilityBuffer&) = delete;

    // Whether the current context can hold one (no message).
    static bool isSupported();

    // Room for width x height pixels and maxFragments fragments in all.
    bool create(int width, int height, int maxFragments);
    // Adds "VisibilityBuffer.glslc" and "VyxUtilities.glslc" to the program's fragment stage.
    bool addShaders(ShaderProgram* program) const;
    // Empties every list.
    bool clear();
    // Binds the head image, node pool and counter for a bound program.
    bool bind(ShaderProgram* program);
    // Makes the stores of a build pass visible to the passes after it.
    void memoryBarrier() const;
    // Fragments the last build pass offered, including any that found the pool full.
    unsigned int fragmentCount() const;

private:
    bool checkSupported() const;

    std::unique_ptr<Texture> _heads;
    std::unique_ptr<Texture> _nodes;
    unsigned int _nodeBuffer = 0;
    unsigned int _counterBuffer = 0;
    int _width = 0;
    int _height = 0;
    int _maxFragments = 0;
};

} // namespace Tavren::Vyx
