#include "run/mainrun.h"

int main(int argc, char** argv) { return sonvex::RunMain(argc, argv); }
