#version 150
// The selected command of one drawable, as a flat tint over the shaded picture.
flat in uint vo_DrawID;
uniform uint u_HighlightCommand;
uniform vec4 u_HighlightColor;
out vec4 out_FragColor;

void main()
{
    if (vo_DrawID != u_HighlightCommand)
        discard;
    out_FragColor = u_HighlightColor;
}
