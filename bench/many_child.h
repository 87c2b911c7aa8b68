// The application process of benchmark 5: its own bus handle and library
// context with N int32 value subscriptions, renewed by the library when the
// server comes back. Started as `qzcap_bench --many-child SOCKET N TIMEOUT_MS
// RENEW_TIMEOUT_MS INDEX` by AppProcesses.
//
// Lines it reads on stdin:   "arm GEN" (the next renewal must deliver GEN),
//                            "quit" (or end of input)
// Lines it writes on stdout: "ready MS" (every subscription confirmed and
//                            delivering, MS after the first subscribe call),
//                            "armed",
//                            "done START CONFIRMED DELIVERED RECONNECTS HELD_AT_START HELD OTHER"
//                            (CLOCK_MONOTONIC nanoseconds: the start of the
//                            library's reconnect callback, the last
//                            confirmation, the last delivery of GEN),
//                            "fail WHY"
#ifndef QZCAP_BENCH_MANY_CHILD_H
#define QZCAP_BENCH_MANY_CHILD_H

namespace qzbench {

inline constexpr char kChildFlag[] = "--many-child";

int many_child_main(int argc, char **argv);

}  // namespace qzbench

#endif  // QZCAP_BENCH_MANY_CHILD_H
