#version 150
in vec4 va_Vertex;
uniform mat4 u_InverseViewProjection;
out vec3 vo_Direction;

// A full-screen quad at the far plane; each pixel looks along its view ray.
void main()
{
    vec4 far = u_InverseViewProjection * vec4(va_Vertex.xy, 1.0, 1.0);
    vec4 near = u_InverseViewProjection * vec4(va_Vertex.xy, -1.0, 1.0);
    vo_Direction = far.xyz / far.w - near.xyz / near.w;
    gl_Position = vec4(va_Vertex.xy, 1.0, 1.0);
}
