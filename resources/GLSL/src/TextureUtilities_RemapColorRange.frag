#version 150
uniform sampler2D u_Src;
uniform float u_lowValue;
uniform float u_highValue;
in vec2 vo_TexCoord;
out vec4 out_FragColor;
void main()
{
    vec4 color = texture(u_Src, vo_TexCoord);
    color.rgb = max(color.rgb * (u_highValue - u_lowValue) + u_lowValue, vec3(0.0));
    out_FragColor = color;
}
