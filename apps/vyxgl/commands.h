#pragma once

#include <memory>

namespace Tavren::Vyx {
class HeadlessGLContext;
}

// Subcommands of the tool besides info: each takes the arguments after its name and returns
// the exit status, having printed one line to stderr on failure.
int runRender(int argc, char** argv);
int runInspect(int argc, char** argv);
int runConvert(int argc, char** argv);

// A current headless context with the library's loader and device context set up; null after
// printing why not.
std::unique_ptr<Tavren::Vyx::HeadlessGLContext> makeToolContext();

// Drops what the library cached for the context while it is still current.
void releaseToolContext();

// Whether the argument asks for help.
bool isHelp(const char* argument);
