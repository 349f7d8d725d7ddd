#pragma once

// The tool's Qt message handler: the library's notes (debug and info) reach standard error only
// with --verbose; each distinct warning or error is printed once, however often it is raised,
// so the one line that says why a command failed is not buried.
void installToolMessageHandler(bool verbose);

// Removes --verbose (or -v) from the arguments, wherever it stands; answers whether it was there.
bool takeVerboseFlag(int& argc, char** argv);
