#include "gl/textures/internal/managedtextureshared.h"

#include "gl/glloader.h"
#include "gl/objects/texture.h"
#include "gl/platform/bindable.h"
#include "gl/shaders/shaderprogram.h"

namespace Tavren::Vyx {

int managedUniformLocation(ShaderProgram* program, const QString& name)
{
    if (program)
        return program->getUniformLocation(name);
    GLint current = 0;
    glGetIntegerv(GL_CURRENT_PROGRAM, &current);
    return current ? glGetUniformLocation(GLuint(current), name.toLatin1().constData()) : -1;
}

Texture* nearestTexture(unsigned int target, bool clamp)
{
    auto* texture = new Texture();
    texture->setTarget(target);
    AutoBinder binder(texture);
    glTexParameteri(target, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(target, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    if (clamp) {
        glTexParameteri(target, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
        glTexParameteri(target, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    }
    return texture;
}

} // namespace Tavren::Vyx
