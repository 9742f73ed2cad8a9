// The program's body: command line, analysis, listing, the passes, and the exit code.
#pragma once

namespace sonvex {

int RunMain(int argc, char** argv);

}  // namespace sonvex
