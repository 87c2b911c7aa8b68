// A device description to and from the store: `dump` reads every record a
// description holds, `load` writes them in pipelined batches.
#ifndef QZCAP_TOOL_DESCRIPTION_STORE_H
#define QZCAP_TOOL_DESCRIPTION_STORE_H

#include <cstddef>
#include <functional>

#include "connection.h"
#include "description.h"

namespace qzcap::tool {

// Records per batch: each batch is one step in the store, and a progress report.
constexpr size_t kLoadBatch = 2000;

// Everything in the store that a description holds.
Description read_description(const Connection &conn);

// Writes every record of d; each replaces the stored record of its key
// (fields d does not give are removed), and records d does not mention stay.
// progress(done, total) follows each batch. When the store fails part way,
// the Failure says how many records were written before.
void write_description(const Connection &conn, const Description &d,
                       const std::function<void(size_t done, size_t total)> &progress);

}  // namespace qzcap::tool

#endif  // QZCAP_TOOL_DESCRIPTION_STORE_H
