#ifndef KORVO_SRC_NETNSPATH_H
#define KORVO_SRC_NETNSPATH_H

// How setnsByName() maps a name to a namespace file. Not installed.

#include <string>

namespace Korvo::NetNs {

// The file setnsByName() opens for `name` first ("" for a refused name).
std::string nsPath(const std::string& name);

}  // namespace Korvo::NetNs

#endif
