#version 150
// Separable Gaussian over one layer: u_Weights holds taps 0..u_Radius (at most 16), so that the
// 2 * u_Radius + 1 taps sum to one.
uniform sampler2DArray u_Source;
uniform int u_Layer;
uniform ivec2 u_Step;
uniform int u_Radius;
uniform float u_Weights[17];
out vec4 o_Moments;
void main() {
    ivec2 last = textureSize(u_Source, 0).xy - 1;
    ivec2 texel = ivec2(gl_FragCoord.xy);
    vec2 sum = vec2(0.0);
    for (int k = -u_Radius; k <= u_Radius; ++k)
        sum += u_Weights[abs(k)] * texelFetch(u_Source, ivec3(clamp(texel + k * u_Step, ivec2(0), last), u_Layer), 0).rg;
    o_Moments = vec4(sum, 0.0, 0.0);
}
