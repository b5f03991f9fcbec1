#ifndef ORV_TESTS_FUZZ_FUZZ_CHECK_H_
#define ORV_TESTS_FUZZ_FUZZ_CHECK_H_

#include <cstdio>
#include <cstdlib>

namespace orv {

// A property every input must keep. A broken one aborts, which libFuzzer records as a
// crash with the input that caused it, and the replay tests as a failure.
inline void FuzzCheck(bool holds, const char* property) {
  if (holds) return;
  fprintf(stderr, "fuzz property broken: %s\n", property);
  abort();
}

}  // namespace orv

#endif  // ORV_TESTS_FUZZ_FUZZ_CHECK_H_
