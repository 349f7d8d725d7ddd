#version 150
#include "FXAA.glslh"
uniform sampler2D u_Src;
in vec2 vo_TexCoord;
out vec4 out_FragColor;
void main()
{
    out_FragColor = FxaaPixelShader(vo_TexCoord, u_Src, 1.0 / vec2(textureSize(u_Src, 0)), 0.75, 0.166, 0.0833);
}
