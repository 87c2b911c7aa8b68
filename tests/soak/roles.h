// The soak's child processes. Each is the soak driver run again with a role,
// maps the run's board and works until the coordinator sets the phase to
// stopping. Exit status 0, or 1 when the child saw wrong data (each case is
// told on its standard error), 2 when it could not set itself up.
#ifndef QZCAP_TESTS_SOAK_ROLES_H
#define QZCAP_TESTS_SOAK_ROLES_H

#include <cstdint>
#include <string>

#include "board.h"

namespace soak {

struct RoleArgs {
    std::string board;  // path of the board file
    std::string uri;    // the store
    uint32_t index = 0;
};

// Writes sequence-numbered values of every item, through the bus client and
// through a plain Redis connection, and the final round when asked.
int run_publisher(const RoleArgs &args);
// Initialises the library and subscribes to every item.
int run_subscriber(const RoleArgs &args);
// Initialises the library and reads keys at random, blocking and not.
int run_reader(const RoleArgs &args);

// One line on stderr for the first few faults, and the count on the board.
void report_fault(ChildBlock &block, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Maps the board, or says why not on stderr. With `children`, the role's
// count in the run's config, an index beyond it is refused too.
Board *attach(const RoleArgs &args, uint32_t Config::*children = nullptr);

// The bus client for uri, retried while the server is briefly away. Null when
// the coordinator stops the run first.
void *connect_bus(const Board &board, const std::string &uri);

}  // namespace soak

#endif  // QZCAP_TESTS_SOAK_ROLES_H
