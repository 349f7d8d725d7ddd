#version 150
#include "SMAA.glslh"
// Luma edges unless the host defines SMAA_EDGE_DETECTION as SMAAColorEdgeDetection.
#ifndef SMAA_EDGE_DETECTION
#define SMAA_EDGE_DETECTION SMAALumaEdgeDetection
#endif
uniform sampler2D u_Src;
out vec4 out_FragColor;
void main() { out_FragColor = vec4(SMAA_EDGE_DETECTION(ivec2(gl_FragCoord.xy), u_Src), 0.0, 0.0); }
