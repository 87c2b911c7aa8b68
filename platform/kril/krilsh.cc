// krilsh: runs one debug-shell command in a running process of this user.
//
// Exit status: 0 the command ran (whatever it returned, unless --check);
// 1 it could not run, with one "krilsh: <reason>" line; 2 usage; 3 with
// --check, it ran and returned a negative result.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "common/parse_int.h"
#include "kril_shell.h"

namespace {

constexpr int kRan = 0, kFailed = 1, kUsage = 2, kNegative = 3;

constexpr char kDescription[] =
    "Runs one command of a process's debug shell and prints its output, then \"rv N\" with the\n"
    "handler's result. The process is the only one of this user that serves a debug shell,\n"
    "or the one given with --pid, or the one that serves --module.";

constexpr char kFooter[] =
    "Requests:\n"
    "  MODULE COMMAND [ARG...]   run COMMAND of MODULE (ARG may start with '-')\n"
    "  list                      list the process's modules and their commands\n"
    "  with --module, COMMAND [ARG...] names a command of that module\n"
    "Exit status: 0 the command ran; 1 it could not run (one \"krilsh:\" line says why);\n"
    "2 usage; 3 with --check, the command ran and its result was negative.";

// A whole decimal number in [1, max], or false: no sign games, no silent
// saturation of a long that is 32 bits wide on the device.
bool positive(const std::string &text, int64_t max, int64_t *out) {
    int64_t v = 0;
    if (!qzplat::parse_int(text, &v) || v < 1 || v > max)
        return false;
    *out = v;
    return true;
}

// CLI11's usage line knows nothing of the request words after the options.
class Formatter : public CLI::Formatter {
  public:
    std::string make_usage(const CLI::App *, std::string) const override {
        return "Usage: krilsh [OPTIONS] MODULE COMMAND [ARG...]\n"
               "       krilsh [OPTIONS] list\n"
               "       krilsh [OPTIONS] --module MODULE COMMAND [ARG...]\n";
    }
};

int usage_error(const std::string &why) {
    fprintf(stderr, "krilsh: %s (see krilsh --help)\n", why.c_str());
    return kUsage;
}

int run(int argc, char **argv) {
    CLI::App app(kDescription, "krilsh");
    app.footer(kFooter);
    app.formatter(std::make_shared<Formatter>());
    std::string pid_text, module, timeout_text = "10";
    bool check = false;
    app.add_option("-p,--pid", pid_text, "Process to reach")->type_name("PID");
    app.add_option("-m,--module", module, "Reach the one process that serves MODULE")
        ->type_name("MODULE");
    app.add_option("-t,--timeout", timeout_text, "Longest wait for each step of the answer")
        ->type_name("SECONDS")
        ->default_str("10");
    app.add_flag("-c,--check", check, "Exit with status 3 when the command's result is negative");
    // Everything from the first word that is not an option is the request.
    app.prefix_command();
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &) {
        fputs(app.help().c_str(), stdout);
        return kRan;
    } catch (const CLI::ParseError &e) {
        return usage_error(e.what());
    }

    int64_t pid = 0, timeout_s = 0;
    if (!pid_text.empty() && !positive(pid_text, INT32_MAX, &pid)) {
        fprintf(stderr, "krilsh: -p wants a pid, not '%s'\n", pid_text.c_str());
        return kUsage;
    }
    if (!positive(timeout_text, 86400, &timeout_s)) {
        fprintf(stderr, "krilsh: -t wants seconds, not '%s'\n", timeout_text.c_str());
        return kUsage;
    }
    std::vector<std::string> words = app.remaining();
    if (!words.empty() && words[0] == "--")
        words.erase(words.begin());
    const bool list = words.size() == 1 && words[0] == "list";
    if (pid != 0 && !module.empty())
        return usage_error("--pid and --module name the process twice");
    if (words.empty())
        return usage_error("no request");
    // No module name starts with '-': this is an option CLI11 did not know.
    if (words[0].starts_with('-'))
        return usage_error("unknown option '" + words[0] + "'");
    if (!list && module.empty() && words.size() < 2)
        return usage_error("no command after the module '" + words[0] + "'");

    std::string request = list || module.empty() ? "" : module + " ";
    for (size_t i = 0; i < words.size(); ++i)
        request += (i > 0 ? " " : "") + words[i];

    char err[512] = "";
    int32_t target = static_cast<int32_t>(pid);
    if (target == 0 && kril_client_find(module.empty() ? nullptr : module.c_str(), &target, err,
                                        sizeof err) != 0) {
        fprintf(stderr, "krilsh: %s\n", err);
        return kFailed;
    }
    char *text = nullptr;
    size_t len = 0;
    FILE *mem = open_memstream(&text, &len);
    if (mem == nullptr) {
        perror("krilsh: open_memstream");
        return kFailed;
    }
    int32_t rv = 0;
    int32_t code = kril_client_run(target, request.c_str(), static_cast<int32_t>(timeout_s * 1000),
                                   mem, &rv, err, sizeof err);
    fclose(mem);
    fwrite(text, 1, len, stdout);
    if (len > 0 && text[len - 1] != '\n')
        putchar('\n');
    free(text);
    if (code != 0) {
        fflush(stdout);
        fprintf(stderr, "krilsh: %s\n", err);
        return kFailed;
    }
    if (list)
        return kRan;
    printf("rv %d\n", rv);
    if (check && rv < 0) {
        fflush(stdout);
        fprintf(stderr, "krilsh: %s returned %d\n", request.c_str(), rv);
        return kNegative;
    }
    return kRan;
}

}  // namespace

int main(int argc, char **argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception &e) {  // out of memory, mostly
        fflush(stdout);
        fprintf(stderr, "krilsh: %s\n", e.what());
        return kFailed;
    }
}
