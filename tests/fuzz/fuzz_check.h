#ifndef ORV_TESTS_FUZZ_FUZZ_CHECK_H_
#define ORV_TESTS_FUZZ_FUZZ_CHECK_H_

#include <cstdio>
#include <cstdlib>

// The sanitizers' own report channel, which stays open when libFuzzer closes the
// target's standard error (-close_fd_mask=2); absent in a build without sanitizers.
extern "C" void __sanitizer_report_error_summary(const char* summary) __attribute__((weak));

namespace orv {

// A property every input must keep. A broken one aborts, which libFuzzer records as a
// crash with the input that caused it, and the replay tests as a failure.
inline void FuzzCheck(bool holds, const char* property) {
  if (holds) return;
  fprintf(stderr, "fuzz property broken: %s\n", property);
  if (__sanitizer_report_error_summary != nullptr) {
    char summary[512];
    snprintf(summary, sizeof(summary), "fuzz property broken: %s", property);
    __sanitizer_report_error_summary(summary);
  }
  abort();
}

}  // namespace orv

#endif  // ORV_TESTS_FUZZ_FUZZ_CHECK_H_
