#version 150
// The nearest fragment of the one-pixel visibility buffer: (found, draw ID, drawable + 1, depth in 24 bits).
#include "VisibilityBuffer.glslh"

out uvec4 out_Pick;

void main()
{
    uvec3 cursor = visibilityBufferInit(vec2(0.0));
    VisibilityFragment fragment;
    if (visibilityBufferNext(cursor, fragment))
        out_Pick = uvec4(1u, fragment.drawID, fragment.primitiveID, uint(fragment.depth * 16777215.0));
    else
        out_Pick = uvec4(0u);
}
