// The -test report: which libraries and codecs this build can use.
#pragma once

namespace sonvex {

void RunSelfTest();

}  // namespace sonvex
