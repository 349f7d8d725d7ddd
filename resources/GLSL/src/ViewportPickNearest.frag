#version 150
// Picking where the visibility buffer cannot be built: the nearest fragment wins the depth test
// of the one-pixel target and writes what the visibility buffer's query would answer.
flat in uint vo_DrawID;
uniform uint u_PickDrawable;
out uvec4 out_Pick;

void main()
{
    out_Pick = uvec4(1u, vo_DrawID, u_PickDrawable, uint(gl_FragCoord.z * 16777215.0));
}
