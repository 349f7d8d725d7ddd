#pragma once

#include "core/vyxexport.h"

#include <QHash>
#include <QVector>

namespace Tavren::Vyx {

// One vertex stream: a component count fixed once and the values of all vertices in a row.
class VYXGL_EXPORT VertexArrayBuilderStorage
{
public:
    void setSpec(unsigned int componentCount, unsigned int vertexCountHint);

    // Appends the values, then pads the vertex with 0.0 up to the component count.
    void pushData(float x);
    void pushData(float x, float y);
    void pushData(float x, float y, float z);
    void pushData(float x, float y, float z, float w);

    unsigned int getComponentCount() const { return _componentCount; }
    const QVector<float>& getData() const { return _data; }
    // Number of vertices; 0 before the component count is set.
    int getSize() const;

private:
    void padVertex(int pushed);

    unsigned int _componentCount = 0;
    QVector<float> _data;
};

// Collects vertex data in the style of immediate-mode GL, to be uploaded into buffers later.
// Touches no GL state.
class VYXGL_EXPORT VertexArrayBuilder
{
public:
    void setVertexSpec(unsigned int componentCount, unsigned int vertexCountHint);
    void setColorSpec(unsigned int componentCount, unsigned int vertexCountHint);
    void setTexCoordSpec(unsigned int componentCount, unsigned int vertexCountHint);
    void setNormalSpec(unsigned int componentCount, unsigned int vertexCountHint);
    void setVertexAttribSpec(unsigned int index, unsigned int componentCount, unsigned int vertexCountHint);

    void glVertex2f(float x, float y);
    void glVertex3f(float x, float y, float z);
    // A colour stream of 4 components gets alpha 0.0 from glColor3f, not 1.0.
    void glColor3f(float r, float g, float b);
    void glColor4f(float r, float g, float b, float a);
    void glTexCoord1f(float s);
    void glTexCoord2f(float s, float t);
    void glNormal3f(float x, float y, float z);
    // Named with the loader's prefix, so that code which spells them glVertexAttrib2f/3f with
    // the GL loader included reaches them through its macros.
    void _ptrc_glVertexAttrib2f(unsigned int index, float x, float y);
    void _ptrc_glVertexAttrib3f(unsigned int index, float x, float y, float z);

    const QVector<float>& getVertexData() const { return _vertex.getData(); }
    const QVector<float>& getColorData() const { return _color.getData(); }
    const QVector<float>& getTexCoordData() const { return _texCoord.getData(); }
    const QVector<float>& getNormalData() const { return _normal.getData(); }

    const VertexArrayBuilderStorage& getVertexStorage() const { return _vertex; }
    const VertexArrayBuilderStorage& getColorStorage() const { return _color; }
    const VertexArrayBuilderStorage& getTexCoordStorage() const { return _texCoord; }
    const VertexArrayBuilderStorage& getNormalStorage() const { return _normal; }

    // An empty array / storage for an index never set up.
    const QVector<float>& getVertexAttribData(unsigned int index) const;
    VertexArrayBuilderStorage getVertexAttribStorage(unsigned int index) const;

    // The vertex stream's size; reports colour, texture-coordinate and normal streams in use
    // whose size differs.
    int getVertexCount() const;

private:
    VertexArrayBuilderStorage _vertex;
    VertexArrayBuilderStorage _color;
    VertexArrayBuilderStorage _texCoord;
    VertexArrayBuilderStorage _normal;
    QHash<unsigned int, VertexArrayBuilderStorage> _vertexAttribs;
};

} // namespace Tavren::Vyx
