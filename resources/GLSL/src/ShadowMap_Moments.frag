#version 150
// Depth in the projector's normalised range, as the lookup computes it. The derivative term keeps
// surfaces that slope away from the light from shadowing themselves; the constant keeps the
// variance the lookup derives (second moment minus the squared first, in single precision)
// above its rounding noise, which would otherwise speckle lit surfaces with shadow.
#ifdef SHADOW_MAP_CUT_OUT
bool shadowMapCutAway(); // ShadowMap_CutOut.glslc
#endif
out vec4 o_Moments;
void main() {
    float depth = gl_FragCoord.z * 2.0 - 1.0;
    float dx = dFdx(depth);
    float dy = dFdy(depth);
#ifdef SHADOW_MAP_CUT_OUT
    // After the derivatives, which need the neighbouring fragments.
    if (shadowMapCutAway())
        discard;
#endif
    o_Moments = vec4(depth, depth * depth + 0.25 * (dx * dx + dy * dy) + 1e-6, 0.0, 0.0);
}
