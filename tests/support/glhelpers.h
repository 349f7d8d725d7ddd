#pragma once

#include <QColor>
#include <QSharedPointer>
#include <QString>

#include <memory>
#include <vector>

namespace Tavren::Vyx {
class BufferObject;
class ShaderProgram;
class Texture;
} // namespace Tavren::Vyx

namespace VyxTest {

// An RGBA8 colour target made with raw GL (with a depth-stencil attachment when asked), bound
// and set as the viewport while alive.
class ColourTarget
{
public:
    ColourTarget(int width, int height, float clearValue = 0.0f, bool depthStencil = false);
    ~ColourTarget();
    ColourTarget(const ColourTarget&) = delete;
    ColourTarget& operator=(const ColourTarget&) = delete;

    // Colour to `value`; depth to 1 and stencil to 0 where there are such.
    void clear(float value) const;
    // One channel of every pixel, bottom row first.
    std::vector<int> channel(int index) const;
    // How many pixels hold exactly this RGBA.
    int count(const std::vector<int>& rgba) const;
    QColor pixel(int x, int y) const;
    int stencil(int x, int y) const;

private:
    std::vector<unsigned char> pixels() const;
    int _width, _height;
    unsigned int _framebuffer = 0, _renderbuffers[2] = {};
};

int glInteger(unsigned int query);
// A 2D texture of the size and internal format; level 0 taken from RGBA `texels` of `type` when given.
std::unique_ptr<Tavren::Vyx::Texture> texture2D(int width, int height, unsigned int internalFormat, unsigned int type = 0,
                                                const void* texels = nullptr);
// A buffer of the current device context for `target`, holding `count` values of `valueSize`
// bytes when `values` is given.
QSharedPointer<Tavren::Vyx::BufferObject> newBuffer(unsigned int target, const void* values = nullptr, int count = 0,
                                                    size_t valueSize = 4);
// A level parameter of the texture, or of one cube face when `face` is given.
int levelParameter(Tavren::Vyx::Texture* texture, unsigned int parameter, unsigned int face = 0, int level = 0);
// One level of the texture, or of one cube face when `face` is given.
void readTexImage(Tavren::Vyx::Texture* texture, unsigned int format, unsigned int type, void* out, unsigned int face,
                  int level = 0);
template <class T>
std::vector<T> texImage(Tavren::Vyx::Texture* texture, unsigned int format, unsigned int type, size_t count,
                        unsigned int face = 0, int level = 0)
{
    std::vector<T> out(count);
    readTexImage(texture, format, type, out.data(), face, level);
    return out;
}

// A program linked from two sources; a failed link fails the calling test.
std::unique_ptr<Tavren::Vyx::ShaderProgram> linkedProgram(const QString& vertex, const QString& fragment);
// An embedded GLSL source under :/GLSL/src.
QString glslResource(const QString& name);

} // namespace VyxTest
