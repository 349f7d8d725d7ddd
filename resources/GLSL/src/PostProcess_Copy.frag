#version 150
uniform sampler2D u_Src;
out vec4 out_FragColor;
void main() { out_FragColor = texelFetch(u_Src, ivec2(gl_FragCoord.xy), 0); }
