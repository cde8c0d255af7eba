#pragma once

namespace quarvel {

// The program's version, "X.Y.Z", as set by project(VERSION) in the top CMakeLists.txt.
const char* version();

} // namespace quarvel
