// The main run (being built).
#include "run/mainrun.h"

#include "framework/console.h"

namespace sonvex {

int RunMain(int argc, char** argv) {
  WriteLine(0, "sonvex v" + VersionText());
  return 0;
}

}  // namespace sonvex
