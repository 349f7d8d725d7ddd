#version 150
uniform sampler2D u_Src;
in vec2 vo_TexCoord;
out vec4 out_FragColor;
void main()
{
    out_FragColor = texture(u_Src, vec2(vo_TexCoord.x, 1.0 - vo_TexCoord.y));
}
