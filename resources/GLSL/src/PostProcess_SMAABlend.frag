#version 150
#include "SMAA.glslh"
uniform sampler2D u_Src;
uniform sampler2D u_Blend;
out vec4 out_FragColor;
void main() { out_FragColor = SMAANeighborhoodBlending(ivec2(gl_FragCoord.xy), u_Src, u_Blend); }
