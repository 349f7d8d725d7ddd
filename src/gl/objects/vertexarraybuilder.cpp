#include "gl/objects/vertexarraybuilder.h"

#include "core/logging.h"

namespace Tavren::Vyx {

void VertexArrayBuilderStorage::setSpec(unsigned int componentCount, unsigned int vertexCountHint)
{
    VYX_CHECK_CONTINUE(0 == this->_componentCount, "Component Count already set to %d. Try to reset to %d",
                       _componentCount, componentCount);
    VYX_CHECK_CONTINUE(0 != componentCount, "Component Count may not be 0.");
    _componentCount = componentCount;
    const qint64 reserve = static_cast<qint64>(componentCount) * vertexCountHint;
    // A hint is only a hint: do not let a silly one allocate gigabytes.
    if (reserve > 0 && reserve <= (1 << 24))
        _data.reserve(static_cast<int>(reserve));
}

void VertexArrayBuilderStorage::padVertex(int pushed)
{
    for (unsigned int i = static_cast<unsigned int>(pushed); i < _componentCount; ++i)
        _data.append(0.0f);
}

void VertexArrayBuilderStorage::pushData(float x)
{
    VYX_CHECK_CONTINUE(0 != this->_componentCount, "Component Count must be setup before data is pushed");
    VYX_CHECK_CONTINUE(1 <= this->_componentCount, "Component Count is not large enough for the sdata being pushed");
    _data.append(x);
    padVertex(1);
}

void VertexArrayBuilderStorage::pushData(float x, float y)
{
    VYX_CHECK_CONTINUE(0 != this->_componentCount, "Component Count must be setup before data is pushed");
    VYX_CHECK_CONTINUE(2 <= this->_componentCount, "Component Count is not large enough for the data being pushed");
    _data.append(x);
    _data.append(y);
    padVertex(2);
}

void VertexArrayBuilderStorage::pushData(float x, float y, float z)
{
    VYX_CHECK_CONTINUE(0 != this->_componentCount, "Component Count must be setup before data is pushed");
    VYX_CHECK_CONTINUE(3 <= this->_componentCount, "Component Count is not large enough for the data being pushed");
    _data.append(x);
    _data.append(y);
    _data.append(z);
    padVertex(3);
}

void VertexArrayBuilderStorage::pushData(float x, float y, float z, float w)
{
    VYX_CHECK_CONTINUE(0 != this->_componentCount, "Component Count must be setup before data is pushed");
    VYX_CHECK_CONTINUE(4 <= this->_componentCount, "Component Count is not large enough for the data being pushed");
    _data.append(x);
    _data.append(y);
    _data.append(z);
    _data.append(w);
    padVertex(4);
}

int VertexArrayBuilderStorage::getSize() const
{
    VYX_CHECK_RETURN(0 != this->_componentCount, 0, "Component Count must be setup before size is obtained");
    VYX_CHECK_CONTINUE(0 == (this->_data.size() % this->_componentCount),
                       "Component Count and array Size do not match.");
    return static_cast<int>(static_cast<unsigned int>(_data.size()) / _componentCount);
}

void VertexArrayBuilder::setVertexSpec(unsigned int componentCount, unsigned int vertexCountHint)
{
    _vertex.setSpec(componentCount, vertexCountHint);
}

void VertexArrayBuilder::setColorSpec(unsigned int componentCount, unsigned int vertexCountHint)
{
    _color.setSpec(componentCount, vertexCountHint);
}

void VertexArrayBuilder::setTexCoordSpec(unsigned int componentCount, unsigned int vertexCountHint)
{
    _texCoord.setSpec(componentCount, vertexCountHint);
}

void VertexArrayBuilder::setNormalSpec(unsigned int componentCount, unsigned int vertexCountHint)
{
    _normal.setSpec(componentCount, vertexCountHint);
}

void VertexArrayBuilder::setVertexAttribSpec(unsigned int index, unsigned int componentCount,
                                             unsigned int vertexCountHint)
{
    _vertexAttribs[index].setSpec(componentCount, vertexCountHint);
}

void VertexArrayBuilder::glVertex2f(float x, float y)
{
    _vertex.pushData(x, y);
}

void VertexArrayBuilder::glVertex3f(float x, float y, float z)
{
    _vertex.pushData(x, y, z);
}

void VertexArrayBuilder::glColor3f(float r, float g, float b)
{
    _color.pushData(r, g, b);
}

void VertexArrayBuilder::glColor4f(float r, float g, float b, float a)
{
    _color.pushData(r, g, b, a);
}

void VertexArrayBuilder::glTexCoord1f(float s)
{
    _texCoord.pushData(s);
}

void VertexArrayBuilder::glTexCoord2f(float s, float t)
{
    _texCoord.pushData(s, t);
}

void VertexArrayBuilder::glNormal3f(float x, float y, float z)
{
    _normal.pushData(x, y, z);
}

void VertexArrayBuilder::_ptrc_glVertexAttrib2f(unsigned int index, float x, float y)
{
    _vertexAttribs[index].pushData(x, y);
}

void VertexArrayBuilder::_ptrc_glVertexAttrib3f(unsigned int index, float x, float y, float z)
{
    _vertexAttribs[index].pushData(x, y, z);
}

const QVector<float>& VertexArrayBuilder::getVertexAttribData(unsigned int index) const
{
    static const QVector<float> empty;
    const auto found = _vertexAttribs.constFind(index);
    return found == _vertexAttribs.constEnd() ? empty : found.value().getData();
}

VertexArrayBuilderStorage VertexArrayBuilder::getVertexAttribStorage(unsigned int index) const
{
    return _vertexAttribs.value(index);
}

int VertexArrayBuilder::getVertexCount() const
{
    const int count = _vertex.getSize();
    VYX_CHECK_CONTINUE(this->_color.getComponentCount() == 0 || count == this->_color.getSize(),
                       "Color count must match vertex count");
    VYX_CHECK_CONTINUE(this->_texCoord.getComponentCount() == 0 || count == this->_texCoord.getSize(),
                       "TexCoord count must match vertex count");
    VYX_CHECK_CONTINUE(this->_normal.getComponentCount() == 0 || count == this->_normal.getSize(),
                       "Normal count must match vertex count");
    return count;
}

} // namespace Tavren::Vyx
