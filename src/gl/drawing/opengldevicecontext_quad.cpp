#include "gl/drawing/opengldevicecontext.h"

#include "gl/drawing/drawbuffers.h"
#include "gl/glloader.h"
#include "gl/objects/bufferobject.h"
#include "gl/objects/vertexarrayobject.h"
#include "gl/platform/glcontexttracker.h"

namespace Tavren::Vyx {

namespace {

// Two triangles covering clip space at the near plane.
const float kQuadPositions[18] = {-1, 1, -1, -1, -1, -1, 1, -1, -1, 1, -1, -1, 1, 1, -1, -1, 1, -1};
const float kQuadTexCoords[12] = {0, 1, 0, 0, 1, 0, 1, 0, 1, 1, 0, 1};

} // namespace

QSharedPointer<DrawBuffers> OpenGLDeviceContext::fullscreenQuad()
{
    QSharedPointer<DrawBuffers>& quad = _fullscreenQuads[GLContextTracker::currentContext()];
    if (quad.isNull())
        quad = newFullscreenQuad();
    return quad;
}

void OpenGLDeviceContext::releaseCurrentContextObjects()
{
    _fullscreenQuads.remove(GLContextTracker::currentContext());
}

QSharedPointer<DrawBuffers> OpenGLDeviceContext::newFullscreenQuad()
{
    QSharedPointer<DrawBuffers> quad(new DrawBuffers());
    QSharedPointer<VertexArrayObject> vertexArray = newVAO();
    quad->setVAO(vertexArray);

    QSharedPointer<BufferObject> positions = newBuffer();
    positions->setTarget(GL_ARRAY_BUFFER);
    vertexArray->registerBO(QStringLiteral("va_Vertex"), positions, 3, GL_FLOAT);
    QSharedPointer<BufferObject> texCoords = newBuffer();
    texCoords->setTarget(GL_ARRAY_BUFFER);
    vertexArray->registerBO(QStringLiteral("va_TexCoord"), texCoords, 2, GL_FLOAT);

    positions->bind();
    positions->upload(kQuadPositions, 18, GL_STATIC_DRAW);
    positions->unbind();
    texCoords->bind();
    texCoords->upload(kQuadTexCoords, 12, GL_STATIC_DRAW);
    texCoords->unbind();

    quad->setVertexCount(6);
    quad->setPrimitiveType(GL_TRIANGLES);
    return quad;
}

} // namespace Tavren::Vyx
