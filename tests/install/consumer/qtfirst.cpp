#include <QOpenGLFunctions>

#include <VyxGL.h>

// Qt's wrappers (when Qt has a context) and the library's pointers and classes, in one file.
bool drawQtFirst(QOpenGLFunctions* qt)
{
    if (qt) {
        qt->glClearColor(0.0f, 0.0f, 0.0f, 1.0f);
        qt->glClear(GL_COLOR_BUFFER_BIT);
    }
    GLint alignment = 0;
    _ptrc_glGetIntegerv(GL_UNPACK_ALIGNMENT, &alignment);
    Tavren::Vyx::Texture* texture = Tavren::Vyx::SolidColorTexture(1.0f, 0.0f, 0.0f, 1.0f);
    const bool made = texture != nullptr && texture->textureID() != 0;
    delete texture;
    return made && alignment == 4;
}
