#pragma once

#include <functional>
#include <memory>

namespace Tavren::Vyx {
class HeadlessGLContext;
}

// Subcommands of the tool besides info: each takes the arguments after its name and returns
// the exit status, having printed one line to stderr on failure.
int runRender(int argc, char** argv);
int runInspect(int argc, char** argv);
int runConvert(int argc, char** argv);
// Opens a window: the only command that needs a display.
int runView(int argc, char** argv);

// Runs work with an application object and a current headless context whose loader and device
// context are set up, then drops what the library cached while the context is still current;
// 1 after printing why when there is no context, else what work returns.
int runWithContext(const std::function<int()>& work);

// Whether the argument asks for help.
bool isHelp(const char* argument);
