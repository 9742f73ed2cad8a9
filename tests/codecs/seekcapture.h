// The in-memory seekable file of the codec tests now lives in oracle.h; this name stays for the
// tests that still include it.
#pragma once

#include "codecs/oracle.h"
