// The errno of a call that just failed, for the layers that answer with
// errno values: a call that failed without setting errno still answers an
// error (EIO), never 0, which would read as success.
//
// Thread-safety: errno is per thread.
#pragma once

#include <cerrno>
#include <cstring>

namespace qvl {

inline int lastError() {
    return errno != 0 ? errno : EIO;
}

// "." and "..", which every listing of a folder holds and no walk follows.
inline bool isDotOrDotDot(const char* name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

}  // namespace qvl
