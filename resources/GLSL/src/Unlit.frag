#version 150
// A flat colour shaded by the normal alone: no textures, lights or shadows.
in vec3 vo_Normal;
out vec4 out_FragColor;

void main()
{
    out_FragColor = vec4(normalize(vo_Normal) * 0.5 + 0.5, 1.0);
}
