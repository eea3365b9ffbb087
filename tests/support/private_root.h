// A platform root private to this test process, so parallel test processes never share
// the stand-ins' sockets.
#pragma once

#include <string>

namespace qvxtest {

// Creates a temporary folder, points QVX_PLATFORM_ROOT at it and returns it. Call it
// before anything reads the platform root (the stand-ins read it once per process); a
// later call returns the root already in use.
const std::string& private_platform_root();

}  // namespace qvxtest
