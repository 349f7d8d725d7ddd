#include <VyxGL.h>

#include <QGLContext>

// Links against the installed package and uses it without a GL context.
int main()
{
    Tavren::Vyx::GLContextTracker tracker;
    return tracker.check() && vyxGetMemory() == 0 ? 0 : 1;
}
