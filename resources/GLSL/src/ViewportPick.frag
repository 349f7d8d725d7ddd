#version 150
// Picking build pass: every fragment of the model goes into the visibility buffer, the drawable
// (position + 1) in place of the primitive so that one pass answers which drawable and command.
#include "VisibilityBuffer.glslh"

flat in uint vo_DrawID;
uniform uint u_PickDrawable;
out uvec4 out_Pick;

#ifdef DRAW_BUFFER_USE_BASE_INSTANCE
// The draw ID of base-instance drawing only exists in the vertex stage.
uint getDrawID(void)
{
    return vo_DrawID;
}
#endif

void main()
{
    visibilityBufferStore(gl_FragCoord.z, u_PickDrawable);
    out_Pick = uvec4(0u);
}
