#version 150
// Separable Gaussian over one layer, BLUR_RADIUS taps to either side of the centre: u_Weights
// holds taps 0..BLUR_RADIUS, so that the 2 * BLUR_RADIUS + 1 taps sum to one. The radius is
// compiled in, so that the loop unrolls and each weight is read at a constant index.
uniform sampler2DArray u_Source;
uniform int u_Layer;
uniform ivec2 u_Step;
uniform float u_Weights[BLUR_RADIUS + 1];
out vec4 o_Moments;
void main() {
    ivec2 last = textureSize(u_Source, 0).xy - 1;
    ivec2 texel = ivec2(gl_FragCoord.xy);
    vec2 sum = vec2(0.0);
    for (int k = -BLUR_RADIUS; k <= BLUR_RADIUS; ++k)
        sum += u_Weights[k < 0 ? -k : k] * texelFetch(u_Source, ivec3(clamp(texel + k * u_Step, ivec2(0), last), u_Layer), 0).rg;
    o_Moments = vec4(sum, 0.0, 0.0);
}
