#version 150
#include "SMAA.glslh"
uniform sampler2D u_Src;
uniform sampler2D u_Area;
uniform sampler2D u_Search;
out vec4 out_FragColor;
void main() { out_FragColor = SMAABlendingWeightCalculation(ivec2(gl_FragCoord.xy), u_Src, u_Area, u_Search); }
