// The registered modules as the rest of the shell sees them (kril.cc).
// Every function takes the registry's lock itself: safe from any thread.
#ifndef KRIL_REGISTRY_H
#define KRIL_REGISTRY_H

#include <cstdint>
#include <string>
#include <thread>

namespace kril {

// Where a command runs and what argument it takes.
struct Target {
    std::thread::id owner;
    std::string argfmt;
};
// 0 with *t filled, or KRIL_E_NO_MODULE / KRIL_E_NO_COMMAND (*t untouched).
int32_t find_target(const std::string &module, const std::string &cmd, Target *t);
// Whether arg (NULL: none) matches the argument format argfmt.
bool arg_fits(const std::string &argfmt, const char *arg);
// The answer text of "list": each module, its commands indented below it.
std::string listing();

}  // namespace kril

#endif  // KRIL_REGISTRY_H
