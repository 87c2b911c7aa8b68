// The tool's connection to the store: which store (--uri, $QZ_MOM_URI), the
// refusal of the embedded store (it lives inside one process), waiting at
// most --timeout for the store to answer, and what a failed bus call means
// to the user.
#ifndef QZCAP_TOOL_CONNECTION_H
#define QZCAP_TOOL_CONNECTION_H

#include <cstdint>
#include <memory>
#include <string>

namespace qzcap::tool {

// Options every command takes.
struct GlobalOptions {
    std::string uri;  // --uri, else $QZ_MOM_URI
    bool json = false;
    double timeout_s = 5;
};

class Connection {
  public:
    // Connects to opts.uri, trying again until opts.timeout_s has passed.
    // Throws a Failure: bad input for no URI, an embedded-store URI or a
    // malformed one; no store when it does not answer in time.
    static std::unique_ptr<Connection> open(const GlobalOptions &opts);

    ~Connection();
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    // Ends the connection, waiting for a callback that runs on its thread to
    // return; the bus calls of that callback still find the handle valid.
    // None runs afterwards. handle() is null from then on.
    void close();

    void *handle() const { return handle_; }
    const std::string &uri() const { return uri_; }

    // Throws the Failure that bus status `code` means, `doing` saying what
    // was being done ("reading 'x'"). REQUIRES: code != 0.
    [[noreturn]] void fail(int32_t code, const std::string &doing) const;
    void check(int32_t code, const std::string &doing) const {
        if (code != 0)
            fail(code, doing);
    }

  private:
    Connection(void *handle, std::string uri) : handle_(handle), uri_(std::move(uri)) {}

    void *handle_;
    std::string uri_;
};

}  // namespace qzcap::tool

#endif  // QZCAP_TOOL_CONNECTION_H
