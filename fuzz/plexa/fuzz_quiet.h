// The volume library reports every problem on standard error, and hostile
// inputs have many: at fuzzing speed that would be gigabytes of log. The
// library's messages go through the `stderr` stream, while libFuzzer and the
// sanitizers keep their own handle or write to descriptor 2 directly, so only
// the stream is pointed elsewhere.
#ifndef QVL_FUZZ_PLEXA_FUZZ_QUIET_H
#define QVL_FUZZ_PLEXA_FUZZ_QUIET_H

#include <cstdio>

inline void silenceLibraryMessages() {
    if (FILE* null = std::fopen("/dev/null", "we")) stderr = null;
}

#endif  // QVL_FUZZ_PLEXA_FUZZ_QUIET_H
