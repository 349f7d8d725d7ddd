#pragma once

#include "core/vyxexport.h"
#include "gl/platform/bindable.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QVector>

namespace Tavren::Vyx {

class Texture;

// One GL framebuffer object and the textures attached to it. Attachments change only while
// the framebuffer is bound. Textures are not owned: detach() hands them back to the caller.
// Renderbuffers are made by the framebuffer itself and die with their attachment.
class VYXGL_EXPORT FramebufferObject : public QObject, public Bindable
{
    Q_OBJECT

public:
    // Adopts an existing framebuffer name, which this object never deletes.
    explicit FramebufferObject(unsigned int fbo, QObject* parent = nullptr);
    // Creates its own framebuffer name and deletes it when destroyed.
    explicit FramebufferObject(QObject* parent = nullptr);
    ~FramebufferObject() override;

    // Adopts another name; a name this object created is deleted first. Call it unbound.
    void setFBO(unsigned int fbo);
    unsigned int getFBO() const { return _fbo; }

    // Bind to and unbind from GL_FRAMEBUFFER.
    bool bind() override;
    bool unbind() override;
    // Binds for the query when not bound already.
    bool isComplete();

    // A whole 2D-style texture (not 3D or array textures: use attach3D or attachLayers).
    bool attach(Texture* texture, unsigned int attachmentPoint, int level);
    // One layer of a 3D or array texture.
    bool attach3D(Texture* texture, unsigned int attachmentPoint, int level, int layer);
    // Every layer, for layered rendering.
    bool attachLayers(Texture* texture, unsigned int attachmentPoint, int level);
    // Attaches over whatever is at the point: layered textures whole, others as attach() does.
    bool attachUpdate(Texture* texture, unsigned int attachmentPoint, int level);

    // Removes the attachment and returns its texture, null when there was none or it was a
    // renderbuffer (which is deleted).
    Texture* detach(unsigned int attachmentPoint);
    void detachAll();
    // As detach(), then hands the texture to the keeper of temporary textures; returns it
    // when it is still alive, null when it was deleted.
    Texture* detachAndRelease(unsigned int attachmentPoint);
    void detachAndReleaseAll();

    // A new texture with level-0 storage of the given format and size, attached at the point.
    // The 3D form makes a GL_TEXTURE_2D_ARRAY of depth layers and attaches all of them.
    // The caller owns the texture; null on failure.
    Texture* createTexture2D(unsigned int attachmentPoint, unsigned int internalFormat, unsigned int format,
                             unsigned int type, int width, int height);
    Texture* createTexture3D(unsigned int attachmentPoint, unsigned int internalFormat, unsigned int format,
                             unsigned int type, int width, int height, int depth);

    // A new renderbuffer of the format and size, multisampled when samples > 1, attached at the
    // point. It belongs to the framebuffer: detach() and the destructor delete it.
    bool createRenderbuffer(unsigned int attachmentPoint, unsigned int internalFormat, int width, int height,
                            int samples = 0);
    bool hasRenderbuffer(unsigned int attachmentPoint) const { return _renderbuffers.contains(attachmentPoint); }

    // glDrawBuffers with the colour attachment points in the order they were attached.
    bool setDrawBuffers();
    QVector<unsigned int> drawBuffers() const { return _drawBuffers; }

    bool hasAttachment(unsigned int attachmentPoint) const;
    Texture* attachment(unsigned int attachmentPoint) const;
    QList<unsigned int> attachmentPoints() const;

    static int NumAlive();
    // Textures attached since the last ResetNumFBOTextures().
    static int NumFBOTextures();
    // Textures attached now, over all framebuffers.
    static int NumActiveFBOTextures();
    static void ResetNumFBOTextures();

protected:
    bool create();
    bool destroy();

private:
    bool checkAttachable();
    bool checkPointFree(unsigned int attachmentPoint);
    // Bound, the point free and a texture given.
    bool checkNewAttachment(Texture* texture, unsigned int attachmentPoint);
    void recordAttachment(Texture* texture, unsigned int attachmentPoint, int level);
    void deleteRenderbuffers();

    unsigned int _fbo = 0;
    bool _fboBound = false;
    QHash<unsigned int, Texture*> _attachments;
    QHash<unsigned int, int> _attachmentLevels;
    QHash<unsigned int, unsigned int> _renderbuffers;
    QVector<unsigned int> _drawBuffers;
    bool _managed = false;
};

} // namespace Tavren::Vyx
