#pragma once

#include "core/vyxexport.h"
#include "gl/objects/textureformat.h"
#include "gl/platform/bindable.h"

#include <QObject>

namespace Tavren::Vyx {

// One GL texture object. The library picks texture units itself: bind() puts the texture on
// the lowest free unit of the current context, nested binds share that unit and are counted,
// and the last matching unbind() gives the unit back.
class VYXGL_EXPORT Texture : public QObject, public Bindable
{
    Q_OBJECT

public:
    // Creates its own GL name and deletes it when destroyed.
    explicit Texture(QObject* parent = nullptr);
    // Wraps an existing GL name, which is never deleted by this object.
    explicit Texture(unsigned int textureID, QObject* parent = nullptr);
    ~Texture() override;

    // Storage for level 0 only, nearest filtering, no data. Each returns this texture.
    Texture* create2D(unsigned int target, unsigned int internalFormat, int width, int height);
    Texture* create3D(unsigned int target, unsigned int internalFormat, int width, int height, int depth);
    Texture* create2DMultisample(unsigned int target, unsigned int internalFormat, int width, int height,
                                 int samples);
    Texture* create3DMultisample(unsigned int target, unsigned int internalFormat, int width, int height,
                                 int depth, int samples);

    void setTarget(unsigned int target);
    unsigned int target() const { return _target; }
    unsigned int textureID() const { return _textureID; }

    bool isManaged() const { return _managed; }
    bool isReadOnly() const { return _readonly; }
    // One way: storage-changing operations complain from now on.
    void setReadOnly();

    bool bind() override;
    bool unbind() override;
    // The unit this texture is bound on in the current context; -1 when it is not bound.
    int unit();

    static int NumAlive();

private:
    bool create();
    bool destroy();
    int maxTextureUnits();
    // Reports a texture without a name or target before `operation` uses it.
    bool checkUsable(const char* operation) const;

    unsigned int _target = 0;
    unsigned int _textureID = 0;
    bool _managed = false;
    bool _readonly = false;
};

} // namespace Tavren::Vyx
